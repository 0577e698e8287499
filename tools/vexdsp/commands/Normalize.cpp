// vexdsp normalize: brings a sound file to a loudness target with the gain
// it needs, through the true-peak limiter so that the maximum true peak is
// met, and reports the loudness before and after.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>

#include "Command.h"
#include "commands/LoudnessFile.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace vexdsp {
namespace {

// The limiter keeps the oversampled waveform within about 0.1 dB of its
// ceiling; the ceiling sits that much under the maximum so the result meets it.
constexpr double kTruePeakMarginDb = 0.1;

// Writes to the file and meters what it writes.
class MeteringSink final : public dsp::host::FrameSink {
 public:
  MeteringSink(FileSink& file, dsp::LoudnessMeter& meter) : file_(file), meter_(meter) {}
  bool Write(const float* const* planar, int numFrames) override {
    meter_.Process(planar, static_cast<std::size_t>(numFrames));
    return file_.Write(planar, numFrames);
  }

 private:
  FileSink& file_;
  dsp::LoudnessMeter& meter_;
};

std::string Describe(const dsp::LoudnessSummary& s, const std::string& unit) {
  char text[160];
  if (!s.valid) return "too short or too quiet to measure";
  std::snprintf(text, sizeof(text), "%.1f %s, true peak %.1f dBTP, loudness range %.1f LU", s.integrated, unit.c_str(),
                s.truePeakDb, s.loudnessRange);
  return text;
}

class NormalizeCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("IN", input_, "Input sound file")->required();
    app.add_option("OUT", output_, "Output sound file (same container and sample format as the input)")->required();
    app.add_option("--standard", standard_, "Standard whose target and true-peak maximum apply (default ebu)")
        ->check(CLI::IsMember({"ebu", "atsc"}));
    app.add_option("--target", target_, "Integrated loudness to reach, LUFS (default: the standard's)")
        ->check(CLI::Range(dsp::loudness::kTargetLoudnessMin, dsp::loudness::kTargetLoudnessMax));
    app.add_option("--true-peak", truePeak_, "Highest true peak allowed, dBTP (default: the standard's)")
        ->check(CLI::Range(dsp::loudness::kTruePeakLevelMin, dsp::loudness::kTruePeakLevelMax));
    app.footer(
        "The file is measured (ITU-R BS.1770-4), the gain that brings it to the target is applied, and the "
        "look-ahead limiter with true-peak detection holds the maximum true peak. Limiting lowers the loudness "
        "of very dynamic material slightly below the target; both measurements are printed.");
  }

  int Run() override {
    const int standard = StandardFromName(standard_);
    const std::string unit = UnitName(standard, true);
    double target = 0.0, maxPeak = 0.0;
    dsp::loudness::GetTargetLoudnessForLoudnessStandard(standard, target);
    dsp::loudness::GetMaxTruePeakLevelForLoudnessStandard(standard, maxPeak);
    if (!std::isnan(target_)) target = target_;
    if (!std::isnan(truePeak_)) maxPeak = truePeak_;

    const dsp::LoudnessSummary before = MeasureLoudness(input_);
    if (!before.valid) throw CliError(input_ + ": too short or too quiet to measure (no 400 ms block above -70 LUFS)");
    const double gainDb = target - before.integrated;

    char text[160];
    std::snprintf(text, sizeof(text), "limit:ceiling=%.6g,boost=%.6g,truepeak=on", maxPeak - kTruePeakMarginDb, gainDb);
    std::string error;
    std::unique_ptr<dsp::host::Effect> limiter = dsp::host::CreateEffect(text, &error);
    if (!limiter) throw CliError(input_ + ": needs a gain of " + std::to_string(gainDb) + " dB, which " + error);
    dsp::host::EffectChain chain;
    chain.Add(std::move(limiter));

    AudioFileReader reader(input_);
    const int channels = reader.GetNumChannels();
    const int rate = reader.GetSampleRate();
    if (!chain.Prepare(channels, rate, &error)) throw CliError(error);
    const int format = ChooseOutputFormat(output_, reader.GetFormat(), SampleFormat::kKeep, channels, rate, nullptr);
    AudioFileWriter writer(output_, format, channels, rate, reader.GetChannelMap());
    FileSource source(reader);
    FileSink file(writer);
    std::vector<dsp::Itu1770::ChannelLabel> labels = LabelsForFile(reader);
    if (labels.empty()) labels = dsp::Itu1770::LabelsFromLayout(vexmediatypes::CreateDefaultChannelLayout(channels));
    dsp::LoudnessMeter after;
    after.Init(dsp::host::kRenderBlock, rate, labels);
    MeteringSink sink(file, after);
    Progress progress("normalizing", reader.GetNumFrames());
    const std::int64_t written = dsp::host::RenderProcess(chain.GetChain(), channels, source, sink, 0,
                                                          [&](std::int64_t done) { progress.Update(done); });
    progress.Finish();
    source.Check();
    file.Check();
    if (written < 0) throw CliError("normalizing failed");
    chain.GetChain().Done();
    writer.Commit();

    std::printf("before  %s\n", Describe(before, unit).c_str());
    std::printf("gain    %+.2f dB to %.1f %s, limited at %.1f dBTP\n", gainDb, target, unit.c_str(),
                maxPeak - kTruePeakMarginDb);
    std::printf("after   %s\n", Describe(after.GetSummary(), unit).c_str());
    std::printf("out     %s\n", output_.c_str());
    return 0;
  }

 private:
  std::string input_;
  std::string output_;
  std::string standard_ = "ebu";
  double target_ = std::nan("");
  double truePeak_ = std::nan("");
};

const CommandRegistration kNormalize{"normalize", "Bring a sound file to a loudness target under a true-peak maximum.",
                                     [] { return std::make_unique<NormalizeCommand>(); }};

}  // namespace
}  // namespace vexdsp
