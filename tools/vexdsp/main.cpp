// vexdsp: the command line over vexaudiodsp. It reads and writes sound files
// with libsndfile and runs the library's effects, as dsp::DSPProcess objects
// in a dsp::DSPProcessChain, the same way a host application does.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "CliError.h"
#include "Commands.h"

namespace {

int ReportError(std::string message) {
  std::replace(message.begin(), message.end(), '\n', ' ');
  while (!message.empty() && message.back() == ' ') {
    message.pop_back();
  }
  std::fprintf(stderr, "vexdsp: error: %s\n", message.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Runs vexaudiodsp effects on sound files.", "vexdsp"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string(VEXDSP_VERSION));
  app.footer(
      "Run 'vexdsp COMMAND --help' for a command's options. Exit status: 0 on success, 1 on a failed run, 2 on "
      "bad usage.\n");

  auto* info = app.add_subcommand("info", "Show a sound file's format, length, sample peak and RMS per channel.");
  std::string infoPath;
  info->add_option("FILE", infoPath, "Sound file to inspect")->required();

  auto* process = app.add_subcommand("process", "Run a chain of effects over a sound file.");
  vexdsp::ProcessOptions processOptions;
  std::string formatName = "keep";
  process->add_option("IN", processOptions.input, "Input sound file")->required();
  process
      ->add_option("OUT", processOptions.output,
                   "Output sound file; .wav, .flac, .aif or .aiff picks the container. Written only on success.")
      ->required();
  process
      ->add_option("EFFECT", processOptions.effects,
                   "One or more effects, run in order, each as name:key=value,key=value or a bare name for the "
                   "defaults (see 'vexdsp effects')")
      ->required();
  process
      ->add_option("--format", formatName,
                   "Output sample format; 'keep' (the default) keeps the input's where the container allows it")
      ->check(CLI::IsMember({"keep", "float", "pcm16", "pcm24"}));
  process->footer(
      "The output is lined up with the input (the chain's latency is compensated) and has exactly its length.\n"
      "Example: vexdsp process in.wav out.wav gain:db=-6 delay:ms=10");

  auto* effects = app.add_subcommand("effects", "List the effects with their keys, units, ranges and defaults.");

  auto* demo = app.add_subcommand(
      "demo", "Run the default effect chain over a built-in 48 kHz stereo test signal and write the result.");
  std::string demoOutput = "demo-out.wav";
  demo->add_option("OUT", demoOutput, "Output file (float WAV)")->capture_default_str();

  // CLI11 would call an unknown command a missing one; name it instead.
  if (argc > 1 && argv[1][0] != '-') {
    bool known = false;
    for (const CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
      known = known || command->check_name(argv[1]);
    }
    if (!known) {
      ReportError(std::string("unknown command '") + argv[1] + "' (commands: info, process, effects, demo)");
      return 2;
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);  // --help, --version
    }
    ReportError(std::string(error.what()) + " (run 'vexdsp --help')");
    return 2;
  }

  try {
    if (*info) {
      return vexdsp::RunInfo(infoPath);
    }
    if (*process) {
      if (formatName == "float") {
        processOptions.format = vexdsp::SampleFormat::kFloat;
      } else if (formatName == "pcm16") {
        processOptions.format = vexdsp::SampleFormat::kPcm16;
      } else if (formatName == "pcm24") {
        processOptions.format = vexdsp::SampleFormat::kPcm24;
      }
      return vexdsp::RunProcess(processOptions);
    }
    if (*effects) {
      return vexdsp::RunEffects();
    }
    if (*demo) {
      return vexdsp::RunDemo(demoOutput);
    }
  } catch (const vexdsp::CliError& error) {
    return ReportError(error.what());
  } catch (const std::bad_alloc&) {
    return ReportError("out of memory");
  } catch (const std::exception& error) {
    return ReportError(error.what());
  }
  return ReportError("no command given");
}
