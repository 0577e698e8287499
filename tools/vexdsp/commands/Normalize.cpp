// vexdsp normalize: brings a sound file to a loudness target with the gain
// it needs, through the true-peak limiter so that the maximum true peak is
// met, and reports the loudness before and after.

#include <CLI/CLI.hpp>
#include <algorithm>
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
constexpr int kMaxPasses = 5;
constexpr double kConvergedLu = 0.05;

// Meters what it passes on to the file (if any).
class MeteringSink final : public dsp::host::FrameSink {
 public:
  MeteringSink(FileSink* file, dsp::LoudnessMeter& meter) : file_(file), meter_(meter) {}
  bool Write(const float* const* planar, int numFrames) override {
    meter_.Process(planar, static_cast<std::size_t>(numFrames));
    return file_ == nullptr || file_->Write(planar, numFrames);
  }

 private:
  FileSink* file_;
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
        "look-ahead limiter with true-peak detection holds the maximum true peak. Where limiting takes loudness "
        "away, the gain is raised and the file rendered again (up to 5 passes) until it is within 0.05 LU of the "
        "target.");
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
    // Limiting takes some loudness away from material with high peaks, so
    // the file is rendered again with more gain until it is within
    // kConvergedLu of the target (usually the first pass already is). Under
    // heavy limiting a dB of gain adds less than a dB of loudness: after the
    // first correction the steps follow the measured slope (a secant step).
    double gainDb = target - before.integrated;
    const double ceiling = maxPeak - kTruePeakMarginDb;
    dsp::LoudnessSummary after = Render(gainDb, ceiling, &output_);
    double lastGain = gainDb, lastLoudness = after.integrated, dbPerLu = 1.0;
    for (int pass = 1; pass < kMaxPasses && after.valid && std::fabs(target - after.integrated) > kConvergedLu;
         ++pass) {
      if (pass > 1 && std::fabs(after.integrated - lastLoudness) > 1e-3) {
        dbPerLu = std::clamp((gainDb - lastGain) / (after.integrated - lastLoudness), 1.0, 10.0);
      }
      lastGain = gainDb;
      lastLoudness = after.integrated;
      gainDb += (target - after.integrated) * dbPerLu;
      after = Render(gainDb, ceiling, &output_);
    }
    std::printf("before  %s\n", Describe(before, unit).c_str());
    std::printf("gain    %+.2f dB to %.1f %s, limited at %.1f dBTP\n", gainDb, target, unit.c_str(), ceiling);
    std::printf("after   %s\n", Describe(after, unit).c_str());
    std::printf("out     %s\n", output_.c_str());
    return 0;
  }

 private:
  // Runs the input through the limiter with this gain and ceiling into
  // `output` (when not null), metering the result.
  dsp::LoudnessSummary Render(double gainDb, double ceilingDb, const std::string* output) const {
    char text[160];
    std::snprintf(text, sizeof(text), "limit:ceiling=%.6g,boost=%.6g,truepeak=on", ceilingDb, gainDb);
    std::string error;
    std::unique_ptr<dsp::host::Effect> limiter = dsp::host::CreateEffect(text, &error);
    if (!limiter) throw CliError(input_ + ": needs a gain of " + std::to_string(gainDb) + " dB, which " + error);
    dsp::host::EffectChain chain;
    chain.Add(std::move(limiter));

    AudioFileReader reader(input_);
    const int channels = reader.GetNumChannels();
    const int rate = reader.GetSampleRate();
    if (!chain.Prepare(channels, rate, &error)) throw CliError(error);
    std::unique_ptr<AudioFileWriter> writer;
    std::unique_ptr<FileSink> file;
    if (output != nullptr) {
      const int format = ChooseOutputFormat(*output, reader.GetFormat(), SampleFormat::kKeep, channels, rate, nullptr);
      writer = std::make_unique<AudioFileWriter>(*output, format, channels, rate, reader.GetChannelMap());
      file = std::make_unique<FileSink>(*writer);
    }
    FileSource source(reader, true);
    std::vector<dsp::Itu1770::ChannelLabel> labels = LabelsForFile(reader);
    if (labels.empty()) labels = dsp::Itu1770::LabelsFromLayout(vexmediatypes::CreateDefaultChannelLayout(channels));
    dsp::LoudnessMeter meter;
    meter.Init(dsp::host::kRenderBlock, rate, labels);
    MeteringSink sink(file.get(), meter);
    Progress progress(output != nullptr ? "writing" : "normalizing", reader.GetNumFrames());
    const std::int64_t written = dsp::host::RenderProcess(chain.GetChain(), channels, source, sink, 0,
                                                          [&](std::int64_t done) { progress.Update(done); });
    progress.Finish();
    source.Check();
    source.WarnSilenced();
    if (file) file->Check();
    if (written < 0) throw CliError("normalizing failed");
    chain.GetChain().Done();
    if (writer) writer->Commit();
    return meter.GetSummary();
  }

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
