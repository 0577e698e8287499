#include "vexaudiodsp/host/EffectRegistry.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace dsp {
namespace host {

EffectRegistry& EffectRegistry::Instance() {
  static EffectRegistry registry;
  return registry;
}

bool EffectRegistry::Add(EffectInfo info) {
  if (info.name.empty() || !info.create || effects_.count(info.name) != 0) {
    return false;
  }
  std::string name = info.name;
  effects_.emplace(std::move(name), std::make_unique<EffectInfo>(std::move(info)));
  return true;
}

const EffectInfo* EffectRegistry::Find(const std::string& name) const {
  auto it = effects_.find(name);
  return it == effects_.end() ? nullptr : it->second.get();
}

std::vector<const EffectInfo*> EffectRegistry::All() const {
  std::vector<const EffectInfo*> all;
  all.reserve(effects_.size());
  for (const auto& entry : effects_) {
    all.push_back(entry.second.get());
  }
  return all;
}

namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string KeyList(const EffectInfo& info) {
  std::string list;
  for (const ParamDescriptor& param : info.params) {
    list += (list.empty() ? "" : ", ") + param.id;
  }
  return list.empty() ? "none" : list;
}

}  // namespace

std::vector<const EffectInfo*> EffectRegistry::Search(const std::string& text) const {
  const std::string needle = Lower(text);
  std::vector<const EffectInfo*> found;
  for (const EffectInfo* info : All()) {
    bool hit = Lower(info->name).find(needle) != std::string::npos ||
               Lower(info->description).find(needle) != std::string::npos;
    for (const ParamDescriptor& param : info->params) {
      hit = hit || Lower(param.id).find(needle) != std::string::npos;
    }
    if (hit) {
      found.push_back(info);
    }
  }
  return found;
}

EffectRegistration::EffectRegistration(EffectInfo info) {
  const std::string name = info.name;
  if (!EffectRegistry::Instance().Add(std::move(info))) {
    std::fprintf(stderr, "vexaudiodsp: effect '%s' registered twice or without a factory\n", name.c_str());
    std::abort();
  }
}

std::unique_ptr<Effect> CreateEffect(const std::string& text, std::string* error) {
  auto fail = [&](const std::string& why) -> std::unique_ptr<Effect> {
    if (error != nullptr) {
      *error = why;
    }
    return nullptr;
  };
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  if (name.empty()) {
    return fail("effect '" + text + "' has no name (expected name:key=value,...)");
  }
  const EffectInfo* info = EffectRegistry::Instance().Find(name);
  if (info == nullptr) {
    return fail("unknown effect '" + name + "'");
  }
  std::unique_ptr<Effect> effect = info->create(*info);
  if (effect == nullptr) {
    return fail("effect '" + name + "' could not be created");
  }
  if (colon == std::string::npos || colon + 1 == text.size()) {
    return effect;
  }

  std::set<std::string> seen;
  const std::string settings = text.substr(colon + 1);
  for (std::size_t start = 0; start <= settings.size();) {
    std::size_t comma = settings.find(',', start);
    if (comma == std::string::npos) {
      comma = settings.size();
    }
    const std::string item = settings.substr(start, comma - start);
    const std::size_t equals = item.find('=');
    if (item.empty() || equals == std::string::npos || equals == 0) {
      return fail("malformed setting '" + item + "' in '" + text + "' (expected key=value)");
    }
    const std::string key = item.substr(0, equals);
    const int index = info->FindParam(key);
    if (index < 0) {
      return fail("effect '" + name + "' has no key '" + key + "' (keys: " + KeyList(*info) + ")");
    }
    if (!seen.insert(key).second) {
      return fail("key '" + key + "' given twice in '" + text + "'");
    }
    std::string why;
    if (!effect->SetText(index, item.substr(equals + 1), &why)) {
      return fail("effect '" + name + "': " + why);
    }
    start = comma + 1;
  }
  return effect;
}

std::string FormatEffect(const Effect& effect) {
  std::string text = effect.GetInfo().name;
  char separator = ':';
  for (int i = 0; i < effect.GetNumParams(); ++i) {
    text += separator + effect.GetParam(i).id + "=" + effect.GetText(i);
    separator = ',';
  }
  return text;
}

}  // namespace host
}  // namespace dsp
