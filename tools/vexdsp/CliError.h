#pragma once

#include <stdexcept>
#include <string>

namespace vexdsp {

/// A failure the user can act on. main() prints its message as the single
/// line "vexdsp: error: <message>" and exits with status 1, so messages are
/// one line, name the offending file, effect or value, and end without a
/// period.
class CliError : public std::runtime_error {
 public:
  explicit CliError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace vexdsp
