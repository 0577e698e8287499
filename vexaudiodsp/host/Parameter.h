#pragma once

#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"

namespace dsp {
namespace host {

/// What a parameter holds. Every kind is carried as a double (a toggle as 0
/// or 1, a choice as the index of its name) except kPath, which is text.
enum class ParamKind { kNumber, kInteger, kToggle, kChoice, kPath };

/// How a user interface should map the range to a control.
enum class ParamScale { kLinear, kLogarithmic };

/// One parameter of an effect, declared once: the command line, the Python
/// module, the listings and the registry-wide tests are all derived from it.
///
/// `id` is the key used in `name:key=value` and the Python attribute name
/// (lower case, letters, digits and underscores). Values outside
/// [minimum, maximum] are refused, never clamped: a typo should not silently
/// become the nearest legal value. A parameter with `rebuildsState` (a file,
/// a table size) takes effect at the next Start(); all others apply at the
/// next processed block without allocating.
///
/// Descriptors are built at start-up by the factory functions below and
/// never change afterwards.
struct VEXAUDIODSP_API ParamDescriptor {
  std::string id;
  std::string name;
  std::string unit;
  ParamKind kind = ParamKind::kNumber;
  double minimum = 0.0;
  double maximum = 0.0;
  double defaultValue = 0.0;
  ParamScale scale = ParamScale::kLinear;
  std::string description;
  /// The names of a kChoice parameter; the value is the index.
  std::vector<std::string> choices;
  bool rebuildsState = false;

  static ParamDescriptor Number(std::string id, std::string name, std::string unit, double minimum, double maximum,
                                double defaultValue, std::string description);
  static ParamDescriptor Integer(std::string id, std::string name, std::string unit, int minimum, int maximum,
                                 int defaultValue, std::string description);
  static ParamDescriptor Toggle(std::string id, std::string name, bool defaultValue, std::string description);
  static ParamDescriptor Choice(std::string id, std::string name, std::vector<std::string> choices, int defaultIndex,
                                std::string description);
  /// A file path; empty by default (the effect documents what it does
  /// without one). Always rebuilds state.
  static ParamDescriptor Path(std::string id, std::string name, std::string description);

  /// Chainable modifiers for the factories above.
  ParamDescriptor& Logarithmic();
  ParamDescriptor& RebuildsState();

  /// Empty when `value` is legal for this parameter, otherwise the reason,
  /// phrased to follow the key ("is out of range (-120 to 48 dB)").
  std::string Check(double value) const;
  /// Reads the text form of a value: decimal notation only for numbers (no
  /// hex, no inf or nan, no blanks), whole numbers for integers, on/off,
  /// true/false, yes/no or 1/0 for toggles, one of the names for choices.
  /// False with the reason in `error` when it does not parse or fails
  /// Check. Not for kPath.
  bool Parse(const std::string& text, double* value, std::string* error) const;
  /// The text form Parse reads back to the same value.
  std::string Format(double value) const;
  /// "-120 to 48 dB", "off, peak, lowpass", "on/off", "file path".
  std::string DescribeRange() const;
};

/// The shortest decimal text that reads back as the same double, in fixed
/// notation for everyday magnitudes ("10000", "0.7071", "-6").
VEXAUDIODSP_API std::string FormatNumber(double value);

/// Strict decimal parse: optional sign, digits, optional fraction and
/// exponent, nothing else (no blanks, hex, inf or nan). False when the text
/// is not such a number or does not fit a finite double.
VEXAUDIODSP_API bool ParseDecimal(const std::string& text, double* value);

VEXAUDIODSP_API const char* ToString(ParamKind kind);
VEXAUDIODSP_API const char* ToString(ParamScale scale);

}  // namespace host
}  // namespace dsp
