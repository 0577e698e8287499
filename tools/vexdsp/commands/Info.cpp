// vexdsp info: a file's format and length, and the sample peak and RMS of
// every channel, measured by an analyzer run over the file.

#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Levels.h"
#include "Pipeline.h"
#include "Progress.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"

namespace vexdsp {
namespace {

// The level meter as an analyzer: one pass over the selection in blocks of
// kRenderBlock frames.
class LevelAnalyzer final : public dsp::DSPAnalyzer {
 public:
  explicit LevelAnalyzer(int numChannels) : meter_(numChannels) {}
  bool SetSelection(std::int64_t /*start*/, std::int64_t length) override {
    length_ = length;
    return length >= 0;
  }
  int GetDesiredBlockSize() const override { return dsp::host::kRenderBlock; }
  bool IsCompleted() const override { return meter_.GetNumFrames() >= length_; }
  float GetProgress() const override {
    return length_ > 0 ? static_cast<float>(100.0 * static_cast<double>(meter_.GetNumFrames()) / length_) : 100.0f;
  }
  std::int64_t Analyze(float** buffers, int /*numChannels*/, int numSamples) override {
    const auto n = static_cast<int>(std::min<std::int64_t>(numSamples, length_ - meter_.GetNumFrames()));
    meter_.Add(buffers, n);
    return n;
  }
  const LevelMeter& GetMeter() const { return meter_; }

 private:
  LevelMeter meter_;
  std::int64_t length_ = 0;
};

std::string FormatDuration(std::int64_t frames, int sampleRate) {
  const double seconds = static_cast<double>(frames) / sampleRate;
  const auto millis = static_cast<std::int64_t>(std::llround(seconds * 1000.0));
  char text[64];
  std::snprintf(text, sizeof(text), "%.3f s (%" PRId64 ":%02d:%02d.%03d)", seconds, millis / 3600000,
                static_cast<int>(millis / 60000 % 60), static_cast<int>(millis / 1000 % 60),
                static_cast<int>(millis % 1000));
  return text;
}

nlohmann::json DbOrNull(double linear) { return linear > 0.0 ? nlohmann::json(ToDb(linear)) : nlohmann::json(nullptr); }

class InfoCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("FILE", path_, "Sound file to inspect ('-' reads standard input)")->required();
    app.add_flag("--json", json_, "Print one JSON object instead of the table");
  }

  int Run() override {
    AudioFileReader reader(path_);
    const int channels = reader.GetNumChannels();
    LevelAnalyzer analyzer(channels);
    FileSource source(reader);
    Progress progress("measuring", reader.GetNumFrames(), reader.GetSampleRate());
    std::string error;
    // Some containers only estimate their length in the header, so the
    // analysis runs to the end of what can be read.
    const bool ok = dsp::host::RunAnalyzer(analyzer, source, channels, reader.GetSampleRate(), 0, -1, nullptr, &error,
                                           [&](std::int64_t done) { progress.Update(done); });
    progress.Finish();
    source.Check();
    if (!ok) {
      throw CliError(path_ + ": " + error);
    }
    const LevelMeter& meter = analyzer.GetMeter();
    const std::int64_t frames = meter.GetNumFrames();
    if (json_) {
      nlohmann::json out;
      out["file"] = path_;
      out["container"] = DescribeContainer(reader.GetFormat());
      out["sample_format"] = DescribeSampleFormat(reader.GetFormat());
      out["sample_rate"] = reader.GetSampleRate();
      out["channels"] = channels;
      out["frames"] = frames;
      out["seconds"] = static_cast<double>(frames) / reader.GetSampleRate();
      for (int ch = 0; ch < channels; ++ch) {
        out["peak_dbfs"].push_back(DbOrNull(meter.GetPeak(ch)));
        out["peak"].push_back(meter.GetPeak(ch));
        out["rms_dbfs"].push_back(DbOrNull(meter.GetRms(ch)));
        out["non_finite"].push_back(meter.GetNumNonFinite(ch));
      }
      std::printf("%s\n", out.dump().c_str());
      return 0;
    }
    std::printf("file      %s\n", path_.c_str());
    std::printf("format    %s (%s)\n", DescribeContainer(reader.GetFormat()).c_str(),
                DescribeSampleFormat(reader.GetFormat()).c_str());
    std::printf("rate      %d Hz\n", reader.GetSampleRate());
    std::printf("channels  %d\n", channels);
    std::printf("frames    %" PRId64 "\n", frames);
    std::printf("duration  %s\n", FormatDuration(frames, reader.GetSampleRate()).c_str());
    // Peak and RMS are those of the finite samples; NaN and infinities are
    // counted beside them rather than hidden.
    std::printf("channel  peak dBFS  peak linear  RMS dBFS  non-finite\n");
    for (int ch = 0; ch < channels; ++ch) {
      std::printf("%7d  %9s  %11.6f  %8s  %10" PRId64 "\n", ch + 1, FormatDb(meter.GetPeak(ch)).c_str(),
                  meter.GetPeak(ch), FormatDb(meter.GetRms(ch)).c_str(), meter.GetNumNonFinite(ch));
    }
    return 0;
  }

 private:
  std::string path_;
  bool json_ = false;
};

const CommandRegistration kInfo{"info", "Show a sound file's format, length, sample peak and RMS per channel.",
                                [] { return std::make_unique<InfoCommand>(); }};

}  // namespace
}  // namespace vexdsp
