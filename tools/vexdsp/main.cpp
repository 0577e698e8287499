// vexdsp: the command line over vexaudiodsp. Each command lives in its own
// file under commands/ and registers itself; this file only dispatches.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <new>
#include <string>

#include "CliError.h"
#include "Command.h"

namespace {

int Report(std::string message, int status) {
  std::replace(message.begin(), message.end(), '\n', ' ');
  while (!message.empty() && message.back() == ' ') {
    message.pop_back();
  }
  std::fprintf(stderr, "vexdsp: error: %s\n", message.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs vexaudiodsp effects, meters and converters on sound files.", "vexdsp"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string(VEXDSP_VERSION));
  app.footer(
      "Run 'vexdsp COMMAND --help' for a command's options. Exit status: 0 on success, 1 on a failed run, 2 on "
      "bad usage.\n");

  std::map<CLI::App*, std::unique_ptr<vexdsp::Command>> commands;
  std::string names;
  for (const vexdsp::CommandInfo* info : vexdsp::AllCommands()) {
    CLI::App* sub = app.add_subcommand(info->name, info->summary);
    auto command = info->create();
    command->Configure(*sub);
    commands.emplace(sub, std::move(command));
    names += (names.empty() ? "" : ", ") + info->name;
  }

  // CLI11 would call an unknown command a missing one; name it instead.
  if (argc > 1 && argv[1][0] != '-') {
    const bool known = std::any_of(commands.begin(), commands.end(),
                                   [&](const auto& entry) { return entry.first->check_name(argv[1]); });
    if (!known) {
      return Report(std::string("unknown command '") + argv[1] + "' (commands: " + names + ")", 2);
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);  // --help, --version
    }
    return Report(std::string(error.what()) + " (run 'vexdsp --help')", 2);
  }

  try {
    for (auto& [sub, command] : commands) {
      if (sub->parsed()) {
        return command->Run();
      }
    }
  } catch (const vexdsp::UsageError& error) {
    return Report(error.what(), 2);
  } catch (const vexdsp::CliError& error) {
    return Report(error.what(), 1);
  } catch (const std::bad_alloc&) {
    return Report("out of memory", 1);
  } catch (const std::exception& error) {
    return Report(error.what(), 1);
  }
  return Report("no command given", 2);
}
