#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vexdsp {

/// One sub-command of vexdsp. Each lives in its own file under commands/
/// and registers itself, so adding a command touches no other file:
///
///   class LoudnessCommand final : public Command {
///    public:
///     void Configure(CLI::App& app) override { app.add_option("FILE", files_)->required(); }
///     int Run() override { ...; return 0; }
///    private:
///     std::vector<std::string> files_;
///   };
///   const CommandRegistration kLoudness{"loudness", "Measure loudness and true peak.",
///                                       [] { return std::make_unique<LoudnessCommand>(); }};
///
/// Run() prints results on stdout and returns the exit status. It reports a
/// failed run by throwing CliError (exit 1) and bad usage (an unknown
/// effect or key, a value out of range) by throwing UsageError (exit 2);
/// main prints the one-line message.
class Command {
 public:
  virtual ~Command() = default;
  /// Adds the command's options and positionals to its CLI11 sub-command,
  /// bound to members of this object.
  virtual void Configure(CLI::App& app) = 0;
  virtual int Run() = 0;
};

struct CommandInfo {
  std::string name;
  std::string summary;
  std::function<std::unique_ptr<Command>()> create;
};

/// Registers a command at program start.
struct CommandRegistration {
  CommandRegistration(std::string name, std::string summary, std::function<std::unique_ptr<Command>()> create);
};

/// Every registered command, sorted by name.
std::vector<const CommandInfo*> AllCommands();

}  // namespace vexdsp
