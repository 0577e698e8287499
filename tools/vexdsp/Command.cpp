#include "Command.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace vexdsp {
namespace {

std::map<std::string, CommandInfo>& Commands() {
  static std::map<std::string, CommandInfo> commands;
  return commands;
}

}  // namespace

CommandRegistration::CommandRegistration(std::string name, std::string summary,
                                         std::function<std::unique_ptr<Command>()> create) {
  if (name.empty() || !create || Commands().count(name) != 0) {
    std::fprintf(stderr, "vexdsp: internal error: bad or duplicate command '%s'\n", name.c_str());
    std::abort();
  }
  CommandInfo info{name, std::move(summary), std::move(create)};
  Commands().emplace(std::move(name), std::move(info));
}

std::vector<const CommandInfo*> AllCommands() {
  std::vector<const CommandInfo*> all;
  for (const auto& entry : Commands()) {
    all.push_back(&entry.second);
  }
  return all;
}

}  // namespace vexdsp
