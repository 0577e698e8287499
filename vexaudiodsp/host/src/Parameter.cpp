#include "vexaudiodsp/host/Parameter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace dsp {
namespace host {

ParamDescriptor ParamDescriptor::Number(std::string id, std::string name, std::string unit, double minimum,
                                        double maximum, double defaultValue, std::string description) {
  ParamDescriptor d;
  d.id = std::move(id);
  d.name = std::move(name);
  d.unit = std::move(unit);
  d.kind = ParamKind::kNumber;
  d.minimum = minimum;
  d.maximum = maximum;
  d.defaultValue = defaultValue;
  d.description = std::move(description);
  return d;
}

ParamDescriptor ParamDescriptor::Integer(std::string id, std::string name, std::string unit, int minimum, int maximum,
                                         int defaultValue, std::string description) {
  ParamDescriptor d =
      Number(std::move(id), std::move(name), std::move(unit), minimum, maximum, defaultValue, std::move(description));
  d.kind = ParamKind::kInteger;
  return d;
}

ParamDescriptor ParamDescriptor::Toggle(std::string id, std::string name, bool defaultValue, std::string description) {
  ParamDescriptor d =
      Number(std::move(id), std::move(name), "", 0.0, 1.0, defaultValue ? 1.0 : 0.0, std::move(description));
  d.kind = ParamKind::kToggle;
  return d;
}

ParamDescriptor ParamDescriptor::Choice(std::string id, std::string name, std::vector<std::string> choices,
                                        int defaultIndex, std::string description) {
  const double last = choices.empty() ? 0.0 : static_cast<double>(choices.size() - 1);
  ParamDescriptor d = Number(std::move(id), std::move(name), "", 0.0, last, defaultIndex, std::move(description));
  d.kind = ParamKind::kChoice;
  d.choices = std::move(choices);
  return d;
}

ParamDescriptor ParamDescriptor::Path(std::string id, std::string name, std::string description) {
  ParamDescriptor d = Number(std::move(id), std::move(name), "", 0.0, 0.0, 0.0, std::move(description));
  d.kind = ParamKind::kPath;
  d.rebuildsState = true;
  return d;
}

ParamDescriptor& ParamDescriptor::Logarithmic() {
  scale = ParamScale::kLogarithmic;
  return *this;
}

ParamDescriptor& ParamDescriptor::RebuildsState() {
  rebuildsState = true;
  return *this;
}

std::string ParamDescriptor::DescribeRange() const {
  switch (kind) {
    case ParamKind::kToggle:
      return "on/off";
    case ParamKind::kPath:
      return "file path";
    case ParamKind::kChoice: {
      std::string list;
      for (const std::string& choice : choices) {
        list += (list.empty() ? "" : ", ") + choice;
      }
      return list;
    }
    case ParamKind::kNumber:
    case ParamKind::kInteger:
      break;
  }
  return FormatNumber(minimum) + " to " + FormatNumber(maximum) + (unit.empty() ? "" : " " + unit);
}

std::string ParamDescriptor::Check(double value) const {
  if (kind == ParamKind::kPath) {
    return "is a file path, not a number";
  }
  if (!std::isfinite(value)) {
    return "is not a finite number";
  }
  if (value < minimum || value > maximum) {
    return "is out of range (" + DescribeRange() + ")";
  }
  if (kind != ParamKind::kNumber && value != std::floor(value)) {
    return kind == ParamKind::kInteger ? "is not a whole number" : "is not one of " + DescribeRange();
  }
  return {};
}

bool ParamDescriptor::Parse(const std::string& text, double* value, std::string* error) const {
  auto fail = [&](const std::string& why) {
    if (error != nullptr) {
      *error = "value '" + text + "' for '" + id + "' " + why;
    }
    return false;
  };
  double parsed = 0.0;
  switch (kind) {
    case ParamKind::kPath:
      return fail("is a file path, not a number");
    case ParamKind::kToggle:
      if (text == "on" || text == "true" || text == "yes" || text == "1") {
        parsed = 1.0;
      } else if (text == "off" || text == "false" || text == "no" || text == "0") {
        parsed = 0.0;
      } else {
        return fail("is not on or off");
      }
      break;
    case ParamKind::kChoice: {
      std::size_t i = 0;
      while (i < choices.size() && choices[i] != text) {
        ++i;
      }
      if (i == choices.size()) {
        return fail("is not one of " + DescribeRange());
      }
      parsed = static_cast<double>(i);
      break;
    }
    case ParamKind::kNumber:
    case ParamKind::kInteger:
      if (!ParseDecimal(text, &parsed)) {
        return fail("is not a number");
      }
      break;
  }
  const std::string why = Check(parsed);
  if (!why.empty()) {
    return fail(why);
  }
  *value = parsed;
  return true;
}

std::string ParamDescriptor::Format(double value) const {
  switch (kind) {
    case ParamKind::kToggle:
      return value != 0.0 ? "on" : "off";
    case ParamKind::kChoice: {
      const double index = std::floor(value);
      if (index >= 0.0 && index < static_cast<double>(choices.size())) {
        return choices[static_cast<std::size_t>(index)];
      }
      return FormatNumber(value);
    }
    case ParamKind::kPath:
    case ParamKind::kNumber:
    case ParamKind::kInteger:
      break;
  }
  return FormatNumber(value);
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

bool ParseDecimal(const std::string& text, double* value) {
  // strtod alone would also take blanks, hex ("0x10"), "inf" and "nan";
  // a setting is plain decimal, so the grammar is checked first.
  std::size_t i = 0;
  const std::size_t n = text.size();
  auto digits = [&] {
    const std::size_t from = i;
    while (i < n && text[i] >= '0' && text[i] <= '9') {
      ++i;
    }
    return i - from;
  };
  if (i < n && (text[i] == '+' || text[i] == '-')) {
    ++i;
  }
  std::size_t mantissa = digits();
  if (i < n && text[i] == '.') {
    ++i;
    mantissa += digits();
  }
  if (mantissa == 0) {
    return false;
  }
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) {
      ++i;
    }
    if (digits() == 0) {
      return false;
    }
  }
  if (i != n) {
    return false;
  }
  const double parsed = std::strtod(text.c_str(), nullptr);
  if (!std::isfinite(parsed)) {
    return false;
  }
  *value = parsed;
  return true;
}

const char* ToString(ParamKind kind) {
  switch (kind) {
    case ParamKind::kNumber:
      return "number";
    case ParamKind::kInteger:
      return "integer";
    case ParamKind::kToggle:
      return "toggle";
    case ParamKind::kChoice:
      return "choice";
    case ParamKind::kPath:
      return "path";
  }
  return "number";
}

const char* ToString(ParamScale scale) { return scale == ParamScale::kLogarithmic ? "logarithmic" : "linear"; }

}  // namespace host
}  // namespace dsp
