#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/buffering/DSPProcess.h"

namespace vexdsp {

/// One numeric setting of an effect, as typed on the command line
/// (`name:key=value`). Values outside [min, max] are refused, not clamped:
/// a typo should not silently become the nearest legal value.
struct EffectKey {
  std::string name;
  std::string unit;
  double min = 0.0;
  double max = 0.0;
  double defaultValue = 0.0;
  std::string description;
};

/// Every key of an effect with the value given on the command line or its
/// default.
using EffectParams = std::map<std::string, double>;

/// What the command line needs to know about one effect: how it is named and
/// explained, which keys it takes, which streams it can run on and how to
/// build it. The factory returns an unconfigured process; the chain that
/// runs it calls SetIOConfig and Start.
struct EffectDefinition {
  std::string name;
  /// One line for `vexdsp effects`.
  std::string description;
  std::vector<EffectKey> keys;
  /// Optional extra line for `vexdsp effects` (behaviour a user would not
  /// guess, e.g. what happens to a tail).
  std::string note;
  /// Human-readable form of what CheckIO accepts, for `vexdsp effects`.
  std::string accepts;
  /// Empty when the effect can run on this many channels at this rate;
  /// otherwise the reason, phrased to follow "effect 'name' ".
  std::function<std::string(int numChannels, double sampleRate)> checkIO;
  std::function<std::shared_ptr<dsp::DSPProcess>(const EffectParams&)> create;
};

/// The process-wide list of effects, filled at start-up by static
/// EffectRegistration objects, one file per effect family under effects/.
class EffectRegistry {
 public:
  static EffectRegistry& Instance();

  /// Adds an effect; a second effect with the same name is a programming
  /// error and aborts at start-up.
  void Add(EffectDefinition definition);
  /// nullptr when no effect has that name.
  const EffectDefinition* Find(const std::string& name) const;
  /// All effects, sorted by name.
  std::vector<const EffectDefinition*> All() const;

 private:
  EffectRegistry() = default;
  std::map<std::string, EffectDefinition> effects_;
};

/// Registers one effect when the program starts:
/// `const EffectRegistration kGain{EffectDefinition{...}};`
struct EffectRegistration {
  explicit EffectRegistration(EffectDefinition definition);
};

/// An effect chosen on the command line, with every key resolved.
struct EffectConfig {
  const EffectDefinition* definition = nullptr;
  EffectParams params;
};

/// Parses `name`, `name:` or `name:key=value,key=value,...`. Throws CliError
/// for an unknown effect or key, a repeated key, a value that is not a finite
/// number or one outside the key's range.
EffectConfig ParseEffectArgument(const std::string& text);

/// The canonical text of a configured effect, every key spelled out, e.g.
/// "gain:db=-6" or "delay:ms=10".
std::string FormatEffectArgument(const EffectConfig& config);

/// Formats a number as the listing and the chain descriptions show it: the shortest
/// form that reads back as the same double, no exponent for everyday values.
std::string FormatNumber(double value);

/// Standard check for effects that work on any layout the tools handle:
/// 1..kMaxChannels channels at kMinSampleRate..kMaxSampleRate Hz.
inline constexpr int kMaxChannels = 64;
inline constexpr double kMinSampleRate = 1000.0;
inline constexpr double kMaxSampleRate = 768000.0;
std::string CheckAnyLayout(int numChannels, double sampleRate);
std::string DescribeAnyLayout();

}  // namespace vexdsp
