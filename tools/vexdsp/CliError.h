#pragma once

#include <stdexcept>
#include <string>

namespace vexdsp {

/// A failed run the user can act on. main() prints its message as the single
/// line "vexdsp: error: <message>" and exits with status 1, so messages are
/// one line, name the offending file, effect or value, and end without a
/// period.
class CliError : public std::runtime_error {
 public:
  explicit CliError(const std::string& message) : std::runtime_error(message) {}
};

/// Bad usage: an unknown effect or key, a value that does not parse or is
/// out of range. Printed the same way, exit status 2.
class UsageError : public CliError {
 public:
  explicit UsageError(const std::string& message) : CliError(message) {}
};

/// The usage error for an effect text the registry refused: an unknown name
/// gets a pointer to the list; other refusals (a bad value, a noise print
/// that does not fit) stand as they are.
inline UsageError EffectTextError(const std::string& error) {
  if (error.rfind("unknown effect", 0) == 0) return UsageError(error + " (run 'vexdsp effects' for the list)");
  return UsageError(error);
}

}  // namespace vexdsp
