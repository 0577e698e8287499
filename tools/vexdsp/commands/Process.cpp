// vexdsp process: a chain of effects over a sound file, its latency
// compensated, optionally with its tail let out.

#include <CLI/CLI.hpp>
#include <cstdio>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Pipeline.h"
#include "Progress.h"
#include "Quantiser.h"

namespace vexdsp {
namespace {

// One line on stderr when samples could not be written as they were.
void WarnAboutSamples(const AudioFileWriter& writer) {
  const std::int64_t nonFinite = writer.GetNumNonFinite();
  const std::int64_t clipped = writer.GetNumClipped();
  if (nonFinite == 0 && clipped == 0) {
    return;
  }
  std::string text;
  if (nonFinite > 0) {
    text =
        std::to_string(nonFinite) + " non-finite samples (" +
        (GetIntegerBits(writer.GetFormat()) > 0 ? "NaN written as 0, infinities as full scale" : "kept as they are") +
        ")";
  }
  if (clipped > 0) {
    text += (text.empty() ? "" : " and ") + std::to_string(clipped) + " clipped samples";
  }
  std::fprintf(stderr, "vexdsp: warning: %s\n", text.c_str());
}

class ProcessCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("IN", input_, "Input sound file ('-' reads standard input)")->required();
    app.add_option(
           "OUT", output_,
           "Output sound file; .wav, .w64, .rf64, .flac, .aif, .aiff or .au picks the container. Written only on "
           "success.")
        ->required();
    app.add_option("EFFECT", effects_,
                   "One or more effects, run in order, each as name:key=value,key=value or a bare name for the "
                   "defaults (see 'vexdsp effects')")
        ->required();
    app.add_option("--format", format_,
                   "Output sample format; 'keep' (the default) keeps the input's where the container allows it")
        ->check(CLI::IsMember({"keep", "float", "pcm16", "pcm24"}));
    AddIntegerOutputOptions(app, &bits_, &dither_);
    app.add_option("--tail", tail_,
                   "Let the effects ring out after the input: 'auto' appends the chain's declared tail, a number "
                   "appends that many seconds; by default the output keeps the input's length");
    app.footer(
        "The output is lined up with the input (the chain's latency is compensated).\n"
        "Example: vexdsp process in.wav out.wav gain:db=-6 delay:ms=10 --tail auto");
  }

  int Run() override {
    // Every setting is checked before any audio is touched.
    std::unique_ptr<dsp::host::EffectChain> chain = ParseEffectChain(effects_);
    AudioFileReader reader(input_);
    const int channels = reader.GetNumChannels();
    const int rate = reader.GetSampleRate();
    std::string error;
    if (!chain->Prepare(channels, rate, &error)) {
      throw CliError(error);
    }
    const std::int64_t tail = ParseTail(tail_, *chain, rate);
    const std::int64_t declared = reader.GetNumFrames();

    std::string note;
    const SampleFormat requested = ApplyBits(bits_, format_,
                                             format_ == "float"   ? SampleFormat::kFloat
                                             : format_ == "pcm16" ? SampleFormat::kPcm16
                                             : format_ == "pcm24" ? SampleFormat::kPcm24
                                                                  : SampleFormat::kKeep);
    const std::string dither = ChooseDitherMode(bits_, dither_);
    // The container must hold the whole output; a stream's length is unknown.
    const std::int64_t expected = declared >= 0 ? declared + tail : -1;
    const int format = ChooseOutputFormat(output_, reader.GetFormat(), requested, channels, rate, &note, expected);
    AudioFileWriter writer(output_, format, channels, rate, reader.GetChannelMap());
    writer.SetQuantizer(MakeDitherQuantizer(dither, expected));
    FileSource source(reader, true);
    FileSink sink(writer);
    BackgroundFileSink writing(sink, channels);
    // A pipe on standard input may stay open; it is read directly.
    std::unique_ptr<BackgroundFileSource> reading;
    if (input_ != "-") {
      reading = std::make_unique<BackgroundFileSource>(source, channels);
    }
    dsp::host::FrameSource& input = reading != nullptr ? static_cast<dsp::host::FrameSource&>(*reading) : source;
    Progress progress("processing", declared, rate);
    const std::int64_t written = dsp::host::RenderProcess(chain->GetChain(), channels, input, writing, tail,
                                                          [&](std::int64_t done) { progress.Update(done); });
    reading.reset();
    writing.Finish();
    progress.Finish();
    source.Check();
    source.WarnSilenced();
    sink.Check();
    if (written < 0) {
      throw CliError("processing failed");
    }
    if (declared >= 0 && source.GetFramesRead() != declared) {
      throw CliError("the input ended after " + std::to_string(source.GetFramesRead()) + " of " +
                     std::to_string(declared) + " frames");
    }
    chain->GetChain().Done();
    writer.Commit();

    std::printf("in     %s: %s\n", input_.c_str(),
                DescribeStream(reader.GetFormat(), channels, rate, source.GetFramesRead()).c_str());
    std::printf("chain  %s (latency %lld samples, compensated)\n", chain->Describe().c_str(),
                static_cast<long long>(chain->GetLatency()));
    if (tail > 0) {
      std::printf("tail   %lld frames appended\n", static_cast<long long>(tail));
    }
    std::printf("out    %s: %s\n", output_.c_str(),
                DescribeStream(writer.GetFormat(), channels, rate, written).c_str());
    if (!note.empty()) {
      std::printf("note   %s\n", note.c_str());
    }
    WarnAboutSamples(writer);
    return 0;
  }

 private:
  std::string input_;
  std::string output_;
  std::vector<std::string> effects_;
  std::string format_ = "keep";
  int bits_ = 0;
  std::string dither_;
  std::string tail_;
};

const CommandRegistration kProcess{"process", "Run a chain of effects over a sound file.",
                                   [] { return std::make_unique<ProcessCommand>(); }};

}  // namespace
}  // namespace vexdsp
