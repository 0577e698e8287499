#pragma once

#include <string>
#include <vector>

#include "AudioFile.h"

namespace vexdsp {

/// The sub-commands. Each prints its results on stdout, returns the exit
/// status and reports failures by throwing CliError.
int RunInfo(const std::string& path);

struct ProcessOptions {
  std::string input;
  std::string output;
  std::vector<std::string> effects;
  SampleFormat format = SampleFormat::kKeep;
};
int RunProcess(const ProcessOptions& options);

int RunEffects();

int RunDemo(const std::string& output);

}  // namespace vexdsp
