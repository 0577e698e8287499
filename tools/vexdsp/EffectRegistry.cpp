#include "EffectRegistry.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "CliError.h"

namespace vexdsp {

EffectRegistry& EffectRegistry::Instance() {
  static EffectRegistry registry;
  return registry;
}

void EffectRegistry::Add(EffectDefinition definition) {
  if (definition.name.empty() || !definition.create || !definition.checkIO || effects_.count(definition.name) != 0) {
    std::fprintf(stderr, "vexdsp: internal error: bad or duplicate effect registration '%s'\n",
                 definition.name.c_str());
    std::abort();
  }
  std::string name = definition.name;
  effects_.emplace(std::move(name), std::move(definition));
}

const EffectDefinition* EffectRegistry::Find(const std::string& name) const {
  auto it = effects_.find(name);
  return it == effects_.end() ? nullptr : &it->second;
}

std::vector<const EffectDefinition*> EffectRegistry::All() const {
  std::vector<const EffectDefinition*> all;
  all.reserve(effects_.size());
  for (const auto& entry : effects_) {
    all.push_back(&entry.second);
  }
  return all;
}

EffectRegistration::EffectRegistration(EffectDefinition definition) {
  EffectRegistry::Instance().Add(std::move(definition));
}

std::string FormatNumber(double value) {
  char text[512];
  // Fixed notation reads best for settings (10000 ms, not 1e+04 ms); only
  // extreme magnitudes fall back to an exponent.
  const bool fixed = value == 0.0 || (std::fabs(value) >= 1e-6 && std::fabs(value) < 1e15);
  for (int precision = fixed ? 0 : 1; precision <= 17; ++precision) {
    std::snprintf(text, sizeof(text), fixed ? "%.*f" : "%.*g", precision, value);
    if (std::strtod(text, nullptr) == value) {
      break;
    }
  }
  return text;
}

namespace {

std::string KeyList(const EffectDefinition& definition) {
  std::string list;
  for (const EffectKey& key : definition.keys) {
    list += (list.empty() ? "" : ", ") + key.name;
  }
  return list.empty() ? "none" : list;
}

const EffectKey* FindKey(const EffectDefinition& definition, const std::string& name) {
  for (const EffectKey& key : definition.keys) {
    if (key.name == name) {
      return &key;
    }
  }
  return nullptr;
}

double ParseValue(const std::string& effect, const std::string& key, const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  // strtod skips leading blanks and accepts "inf"/"nan"; neither belongs in
  // a setting.
  if (text.empty() || end != begin + text.size() || std::isspace(static_cast<unsigned char>(text[0])) ||
      !std::isfinite(value) || errno == ERANGE) {
    throw CliError("value '" + text + "' for " + effect + ":" + key + " is not a number");
  }
  return value;
}

}  // namespace

EffectConfig ParseEffectArgument(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  if (name.empty()) {
    throw CliError("effect '" + text + "' has no name (expected name:key=value,...)");
  }
  const EffectDefinition* definition = EffectRegistry::Instance().Find(name);
  if (definition == nullptr) {
    throw CliError("unknown effect '" + name + "' (run 'vexdsp effects' for the list)");
  }

  EffectConfig config;
  config.definition = definition;
  for (const EffectKey& key : definition->keys) {
    config.params[key.name] = key.defaultValue;
  }
  if (colon == std::string::npos || colon + 1 == text.size()) {
    return config;
  }

  std::set<std::string> seen;
  const std::string settings = text.substr(colon + 1);
  std::size_t start = 0;
  while (start <= settings.size()) {
    std::size_t comma = settings.find(',', start);
    if (comma == std::string::npos) {
      comma = settings.size();
    }
    const std::string item = settings.substr(start, comma - start);
    const std::size_t equals = item.find('=');
    if (item.empty() || equals == std::string::npos || equals == 0) {
      throw CliError("malformed setting '" + item + "' in '" + text + "' (expected key=value)");
    }
    const std::string keyName = item.substr(0, equals);
    const EffectKey* key = FindKey(*definition, keyName);
    if (key == nullptr) {
      throw CliError("effect '" + name + "' has no key '" + keyName + "' (keys: " + KeyList(*definition) + ")");
    }
    if (!seen.insert(keyName).second) {
      throw CliError("key '" + keyName + "' given twice in '" + text + "'");
    }
    const double value = ParseValue(name, keyName, item.substr(equals + 1));
    if (value < key->min || value > key->max) {
      throw CliError(name + ":" + keyName + "=" + item.substr(equals + 1) + " is out of range (" +
                     FormatNumber(key->min) + " to " + FormatNumber(key->max) + " " + key->unit + ")");
    }
    config.params[keyName] = value;
    start = comma + 1;
  }
  return config;
}

std::string FormatEffectArgument(const EffectConfig& config) {
  std::string text = config.definition->name;
  char separator = ':';
  for (const EffectKey& key : config.definition->keys) {
    text += separator + key.name + "=" + FormatNumber(config.params.at(key.name));
    separator = ',';
  }
  return text;
}

std::string CheckAnyLayout(int numChannels, double sampleRate) {
  if (numChannels < 1 || numChannels > kMaxChannels) {
    return "cannot take " + std::to_string(numChannels) + " channels (it takes 1 to " + std::to_string(kMaxChannels) +
           ")";
  }
  if (!(sampleRate >= kMinSampleRate && sampleRate <= kMaxSampleRate)) {
    return "cannot take a sample rate of " + FormatNumber(sampleRate) + " Hz (it takes " +
           FormatNumber(kMinSampleRate) + " to " + FormatNumber(kMaxSampleRate) + " Hz)";
  }
  return {};
}

std::string DescribeAnyLayout() {
  return "1 to " + std::to_string(kMaxChannels) + " channels at " + FormatNumber(kMinSampleRate) + " to " +
         FormatNumber(kMaxSampleRate) + " Hz";
}

}  // namespace vexdsp
