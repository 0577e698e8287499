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
    app.add_option("OUT", output_, "Output sound file; .wav, .flac, .aif or .aiff picks the container")->required();
    app.add_option("--rate", rate_, "Target sample rate in Hz")->required();
    app.add_option("--quality", quality_,
                   "low (63 taps), medium (127), high (255 taps, spurs below -120 dBc; the default) or best (511)");
    app.add_option("--format", format_, "Output sample format; 'keep' (the default) keeps the input's")
        ->check(CLI::IsMember({"keep", "float", "pcm16", "pcm24"}));
    app.add_option("--bits", bits_, "Write integer PCM of this word length (16 or 24), quantised by the library");
    app.add_option("--dither", dither_,
                   "Dither for integer output: none (plain rounding), triangular (the default with --bits) or "
                   "shaped (triangular with the standard noise-shaping curve); integer output without --bits is "
                   "rounded unless this asks for more");
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
    if (bits_ != 0 && bits_ != 16 && bits_ != 24) {
      throw UsageError("--bits " + std::to_string(bits_) + " is not 16 or 24");
    }
    if (dither_.empty()) dither_ = bits_ != 0 ? "triangular" : "none";
    CheckDitherMode(dither_);
    SampleFormat requested = format_ == "float"   ? SampleFormat::kFloat
                             : format_ == "pcm16" ? SampleFormat::kPcm16
                             : format_ == "pcm24" ? SampleFormat::kPcm24
                                                  : SampleFormat::kKeep;
    if (bits_ != 0) {
      const SampleFormat fromBits = bits_ == 16 ? SampleFormat::kPcm16 : SampleFormat::kPcm24;
      if (requested != SampleFormat::kKeep && requested != fromBits) {
        throw UsageError("--bits " + std::to_string(bits_) + " contradicts --format " + format_);
      }
      requested = fromBits;
    }

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

    std::string note;
    const int format = ChooseOutputFormat(output_, reader.GetFormat(), requested, channels, outRate, &note);
    const int bits = IntegerBits(format);
    if (bits != 0 && channels > dsp::Dither::kMaxChannels) {
      throw CliError("integer output is quantised for at most 32 channels; this file has " + std::to_string(channels));
    }
    const std::int64_t declared = reader.GetNumFrames();
    const std::int64_t expected =
        declared >= 0 ? std::llround(static_cast<double>(declared) * converter.GetRatio()) : -1;

    AudioFileWriter writer(output_, format, channels, outRate, reader.GetChannelMap());
    FileSource source(reader);
    FileSink fileSink(writer);
    std::unique_ptr<QuantisingSink> quantiser;
    if (bits != 0) quantiser = std::make_unique<QuantisingSink>(fileSink, channels, outRate, bits, dither_, expected);
    dsp::host::FrameSink& sink = quantiser ? static_cast<dsp::host::FrameSink&>(*quantiser) : fileSink;

    Progress progress("resampling", declared);
    const std::int64_t written = dsp::host::RenderRateChange(converter, channels, source, sink,
                                                             [&](std::int64_t done) { progress.Update(done); });
    progress.Finish();
    source.Check();
    fileSink.Check();
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
    if (bits != 0) std::printf("dither %d bits, %s\n", bits, dither_.c_str());
    std::printf("out    %s: %s\n", output_.c_str(), DescribeStream(format, channels, outRate, written).c_str());
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
