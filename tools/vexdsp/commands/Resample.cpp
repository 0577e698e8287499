// vexdsp resample: a sound file converted to another sample rate, every
// channel, with the converter's delay removed so the output starts in time
// and lasts round(input length x ratio) frames. Integer output is quantised
// (and dithered) by the library before the file writer sees it.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Pipeline.h"
#include "Progress.h"
#include "Quantiser.h"
#include "vexaudiodsp/host/Parameter.h"
#include "vexaudiodsp/resample/ResampleConverter.h"

namespace vexdsp {
namespace {

class ResampleCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("IN", input_, "Input sound file")->required();
    app.add_option("OUT", output_,
                   "Output sound file; .wav, .w64, .rf64, .flac, .aif, .aiff or .au picks the container")
        ->required();
    app.add_option("--rate", rate_, "Target sample rate in Hz")->required();
    app.add_option("--quality", quality_,
                   "low (63 taps), medium (127), high (255 taps, spurs below -120 dBc; the default) or best (511 taps, "
                   "170 dB, computed in double precision)");
    app.add_option("--format", format_, "Output sample format; 'keep' (the default) keeps the input's")
        ->check(CLI::IsMember({"keep", "float", "pcm16", "pcm24"}));
    AddIntegerOutputOptions(app, &bits_, &dither_);
    app.footer(
        "All channels are converted; the converter's delay is removed, so the output starts in time and has\n"
        "round(input frames x rate ratio) frames. Equal rates copy the audio unchanged.\n"
        "Example: vexdsp resample in.wav out.wav --rate 44100 --bits 16 --dither shaped");
  }

  int Run() override {
    double rate = 0.0;
    if (!dsp::host::ParseDecimal(rate_, &rate) || !(rate >= 1000.0 && rate <= 768000.0)) {
      throw UsageError("--rate '" + rate_ + "' is not a sample rate from 1000 to 768000 Hz");
    }
    dsp::ResampleQuality quality;
    if (!dsp::ParseResampleQuality(quality_, &quality)) {
      throw UsageError("--quality '" + quality_ + "' is not one of low, medium, high, best");
    }
    const SampleFormat requested = ApplyBits(bits_, format_,
                                             format_ == "float"   ? SampleFormat::kFloat
                                             : format_ == "pcm16" ? SampleFormat::kPcm16
                                             : format_ == "pcm24" ? SampleFormat::kPcm24
                                                                  : SampleFormat::kKeep);
    const std::string dither = ChooseDitherMode(bits_, dither_);

    AudioFileReader reader(input_);
    const int channels = reader.GetNumChannels();
    const int inRate = reader.GetSampleRate();
    const int outRate = static_cast<int>(std::lround(rate));
    if (static_cast<double>(outRate) != rate) {
      throw UsageError("--rate must be a whole number of Hz (sound files store integer rates)");
    }
    dsp::MultiChannelResample converter;
    std::string error;
    if (!converter.Configure(channels, inRate, outRate, quality, &error)) {
      throw CliError(input_ + ": " + error);
    }

    const std::int64_t declared = reader.GetNumFrames();
    const std::int64_t expected =
        declared >= 0 ? std::llround(static_cast<double>(declared) * converter.GetRatio()) : -1;
    std::string note;
    const int format = ChooseOutputFormat(output_, reader.GetFormat(), requested, channels, outRate, &note, expected);
    AudioFileWriter writer(output_, format, channels, outRate, reader.GetChannelMap());
    writer.SetQuantizer(MakeDitherQuantizer(dither, expected));
    const int bits = GetIntegerBits(writer.GetFormat());
    FileSource source(reader, true);
    FileSink sink(writer);

    Progress progress("resampling", declared, inRate);
    const std::int64_t written = dsp::host::RenderRateChange(converter, channels, source, sink,
                                                             [&](std::int64_t done) { progress.Update(done); });
    progress.Finish();
    source.Check();
    source.WarnSilenced();
    sink.Check();
    if (written < 0) throw CliError("resampling failed");
    if (declared >= 0 && source.GetFramesRead() != declared) {
      throw CliError("the input ended after " + std::to_string(source.GetFramesRead()) + " of " +
                     std::to_string(declared) + " frames");
    }
    writer.Commit();

    std::printf("in     %s: %s\n", input_.c_str(),
                DescribeStream(reader.GetFormat(), channels, inRate, source.GetFramesRead()).c_str());
    std::printf("rate   %d -> %d Hz, quality %s (latency %lld samples, removed)\n", inRate, outRate,
                dsp::ToString(quality), static_cast<long long>(converter.GetOutputLatency()));
    if (bits != 0) std::printf("dither %d bits, %s\n", bits, dither.c_str());
    std::printf("out    %s: %s\n", output_.c_str(),
                DescribeStream(writer.GetFormat(), channels, outRate, written).c_str());
    if (!note.empty()) std::printf("note   %s\n", note.c_str());
    return 0;
  }

 private:
  std::string input_;
  std::string output_;
  std::string rate_;
  std::string quality_ = "high";
  std::string format_ = "keep";
  int bits_ = 0;
  std::string dither_;
};

const CommandRegistration kResample{"resample", "Convert a sound file to another sample rate.",
                                    [] { return std::make_unique<ResampleCommand>(); }};

}  // namespace
}  // namespace vexdsp
