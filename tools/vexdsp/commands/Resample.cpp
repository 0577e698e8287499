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
#include "vexaudiodsp/dither/Dither.h"
#include "vexaudiodsp/host/Parameter.h"
#include "vexaudiodsp/resample/ResampleConverter.h"

namespace vexdsp {
namespace {

// Word length of an integer sample format, 0 for float and others.
int IntegerBits(int sfFormat) {
  switch (sfFormat & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
      return 16;
    case SF_FORMAT_PCM_24:
      return 24;
    default:
      return 0;
  }
}

// Puts every sample on the integer grid with dsp::Dither before the file
// writer converts it, so the writer's own conversion is an exact scaling.
// The last block is announced to the dither so the file ends on plain
// rounding (digital silence stays zero).
class QuantisingSink final : public dsp::host::FrameSink {
 public:
  QuantisingSink(dsp::host::FrameSink& next, int numChannels, int rate, int bits, const std::string& mode,
                 std::int64_t expectedFrames)
      : next_(next), numChannels_(numChannels), expected_(expectedFrames) {
    dither_.SetNumChannels(numChannels);
    dither_.SetSampleRate(static_cast<float>(rate));
    dither_.SetDitherToBits(bits);
    if (mode == "none") {
      dither_.SetDitheringType(dsp::kDitherNoPDF, dsp::kShapingNone, dsp::kAdaptiveOff);
    } else if (mode == "shaped") {
      dither_.SetDitheringType(dsp::kDitherTriangular, dsp::kShapingStandard, dsp::kAdaptiveOff);
    } else {
      dither_.SetDitheringType(dsp::kDitherTriangular, dsp::kShapingNone, dsp::kAdaptiveOff);
    }
    dither_.Initialize();
    pointers_.resize(static_cast<std::size_t>(numChannels));
    inputs_.resize(static_cast<std::size_t>(numChannels));
  }

  bool Write(const float* const* planar, int numFrames) override {
    if (scratch_.size() < static_cast<std::size_t>(numFrames) * numChannels_) {
      scratch_.resize(static_cast<std::size_t>(numFrames) * numChannels_);
    }
    for (int c = 0; c < numChannels_; ++c) {
      pointers_[c] = scratch_.data() + static_cast<std::size_t>(c) * numFrames;
      inputs_[c] = const_cast<float*>(planar[c]);
    }
    if (expected_ >= 0 && written_ + numFrames >= expected_) dither_.SetLastFrame();
    dither_.Process(inputs_.data(), pointers_.data(), numFrames);
    written_ += numFrames;
    return next_.Write(pointers_.data(), numFrames);
  }

 private:
  dsp::host::FrameSink& next_;
  int numChannels_;
  std::int64_t expected_;
  std::int64_t written_ = 0;
  dsp::Dither dither_;
  std::vector<float> scratch_;
  std::vector<float*> pointers_;
  std::vector<float*> inputs_;
};

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
                   "Dither for integer output: none (plain rounding), triangular (the default) or shaped "
                   "(triangular with the standard noise-shaping curve)");
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
    if (dither_ != "none" && dither_ != "triangular" && dither_ != "shaped") {
      throw UsageError("--dither '" + dither_ + "' is not one of none, triangular, shaped");
    }
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
  std::string dither_ = "triangular";
};

const CommandRegistration kResample{"resample", "Convert a sound file to another sample rate.",
                                    [] { return std::make_unique<ResampleCommand>(); }};

}  // namespace
}  // namespace vexdsp
