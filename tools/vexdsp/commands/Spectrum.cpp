// vexdsp spectrum: the spectrum of a whole file through the library's
// spectrum meter, per FFT bin, third-octave band or critical band, printed
// in dBFS as a table or JSON and optionally drawn as an SVG plot.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "Command.h"
#include "Levels.h"
#include "Pipeline.h"
#include "Plot.h"
#include "vexaudiodsp/spectrummeter/SpectrumMeterDSP.h"

namespace vexdsp {
namespace {

using dsp::spectrummeter::SpectrumMeterDSP;

const std::map<std::string, SpectrumMeterDSP::SpectrumType> kTypes = {{"linear", SpectrumMeterDSP::kLinear},
                                                                      {"third-octave", SpectrumMeterDSP::kThirdOctave},
                                                                      {"critical", SpectrumMeterDSP::kCriticalBand}};

const std::map<std::string, SpectrumMeterDSP::AverageWindowSize> kAverages = {
    {"none", SpectrumMeterDSP::kPeakHold},  {"1s", SpectrumMeterDSP::kAverage1s},
    {"3s", SpectrumMeterDSP::kAverage3s},   {"5s", SpectrumMeterDSP::kAverage5s},
    {"10s", SpectrumMeterDSP::kAverage10s}, {"infinite", SpectrumMeterDSP::kInfinite}};

const std::map<std::string, SpectrumMeterDSP::FFTSize> kSizes = {{"512", SpectrumMeterDSP::kFFT512},
                                                                 {"1024", SpectrumMeterDSP::kFFT1024},
                                                                 {"2048", SpectrumMeterDSP::kFFT2048},
                                                                 {"4096", SpectrumMeterDSP::kFFT4096},
                                                                 {"8192", SpectrumMeterDSP::kFFT8192}};

// "20", "1.27k", "20k": short labels for the bars.
std::string HzLabel(double hz) {
  char text[32];
  if (hz >= 1000.0) {
    std::snprintf(text, sizeof text, "%.3gk", hz / 1000.0);
  } else {
    std::snprintf(text, sizeof text, "%.3g", hz);
  }
  return text;
}

struct Row {
  double lowHz;
  double highHz;  // NaN for the top band and for bins
  double level;   // linear
};

class SpectrumCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("IN", path_, "Sound file to analyse")->required();
    app.add_option("--type", type_, "linear (FFT bins), third-octave (32 bands) or critical (26 bands)")
        ->transform(CLI::IsMember(kTypes))
        ->default_str("third-octave");
    app.add_option("--average", average_,
                   "none (peak hold), 1s, 3s, 5s, 10s (moving mean at the end of the file) or infinite (mean of "
                   "the whole file)")
        ->transform(CLI::IsMember(kAverages))
        ->default_str("none");
    app.add_option("--fft-size", size_, "frames per FFT frame: 512, 1024, 2048, 4096 or 8192")
        ->transform(CLI::IsMember(kSizes))
        ->default_str("4096");
    app.add_flag("--json", json_, "Print one JSON object instead of the table");
    app.add_option("--plot", plot_, "Also draw the spectrum into this SVG file");
  }

  int Run() override {
    AudioFileReader reader(path_);
    const int channels = reader.GetNumChannels();
    const int rate = reader.GetSampleRate();
    const auto type = kTypes.at(type_);
    SpectrumMeterDSP meter(static_cast<float>(rate), channels);
    meter.SetParams(type, kAverages.at(average_), kSizes.at(size_), SpectrumMeterDSP::kOverlap50,
                    SpectrumMeterDSP::kHann);

    constexpr int kBlock = 8192;
    std::vector<std::vector<float>> buffers(static_cast<std::size_t>(channels), std::vector<float>(kBlock));
    std::vector<float*> planar;
    for (auto& buffer : buffers) planar.push_back(buffer.data());
    std::int64_t frames = 0;
    std::int64_t silenced = 0;
    for (int got; (got = reader.Read(planar.data(), kBlock)) > 0; frames += got) {
      silenced += SilenceNonFinite(planar.data(), channels, got);
      meter.Process(planar.data(), got, vexcore::utility::Flags<std::uint64_t>());
    }
    WarnSilencedNonFinite(silenced);
    if (frames < meter.GetFFTBlockSize()) {
      throw CliError(path_ + ": too short for the spectrum (" + std::to_string(frames) + " frames, at least " +
                     std::to_string(meter.GetFFTBlockSize()) + " needed)");
    }
    std::vector<float> values(SpectrumMeterDSP::kMaxValues);
    unsigned count = 0;
    SpectrumMeterDSP::SpectrumType shown;
    meter.GetBands(values.data(), count, shown, true);

    std::vector<Row> rows;
    const int n = meter.GetFFTBlockSize();
    for (unsigned i = 0; i < count; ++i) {
      if (type == SpectrumMeterDSP::kLinear) {
        rows.push_back({static_cast<double>(i) * rate / n, NAN, values[i]});
        continue;
      }
      const int bands = type == SpectrumMeterDSP::kThirdOctave ? SpectrumMeterDSP::GetNumThirdOctaveBands()
                                                               : SpectrumMeterDSP::GetNumCriticalBands();
      auto edge = [&](int b) {
        return type == SpectrumMeterDSP::kThirdOctave ? SpectrumMeterDSP::GetThirdOctaveBand(b)
                                                      : SpectrumMeterDSP::GetCriticalBand(b);
      };
      const int b = static_cast<int>(i);
      rows.push_back({edge(b), b + 1 < bands ? edge(b + 1) : NAN, values[i]});
    }
    if (!plot_.empty()) Plot(rows, type);
    if (json_) {
      PrintJson(rows, rate, channels, frames, n);
    } else {
      PrintTable(rows, type);
    }
    return 0;
  }

 private:
  void PrintTable(const std::vector<Row>& rows, SpectrumMeterDSP::SpectrumType type) const {
    if (type == SpectrumMeterDSP::kLinear) {
      std::printf("   bin  frequency Hz      dBFS\n");
      for (std::size_t i = 0; i < rows.size(); ++i) {
        std::printf("%6zu  %12.2f  %8s\n", i, rows[i].lowHz, FormatDb(rows[i].level).c_str());
      }
      return;
    }
    std::printf("band   from Hz     to Hz      dBFS\n");
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const std::string to = std::isnan(rows[i].highHz) ? "-" : FormatNumber(rows[i].highHz);
      std::printf("%4zu  %8s  %8s  %8s\n", i + 1, FormatNumber(rows[i].lowHz).c_str(), to.c_str(),
                  FormatDb(rows[i].level).c_str());
    }
  }

  static std::string FormatNumber(double hz) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", hz);
    return text;
  }

  void PrintJson(const std::vector<Row>& rows, int rate, int channels, std::int64_t frames, int fftSize) const {
    nlohmann::json out;
    out["file"] = path_;
    out["sample_rate"] = rate;
    out["channels"] = channels;
    out["frames"] = frames;
    out["type"] = type_;
    out["average"] = average_;
    out["fft_size"] = fftSize;
    out["bands"] = nlohmann::json::array();
    for (const Row& row : rows) {
      nlohmann::json band;
      band["hz"] = row.lowHz;
      if (type_ != "linear")
        band["to_hz"] = std::isnan(row.highHz) ? nlohmann::json(nullptr) : nlohmann::json(row.highHz);
      band["dbfs"] = row.level > 0.0 ? nlohmann::json(ToDb(row.level)) : nlohmann::json(nullptr);
      out["bands"].push_back(band);
    }
    std::printf("%s\n", out.dump().c_str());
  }

  void Plot(const std::vector<Row>& rows, SpectrumMeterDSP::SpectrumType type) const {
    PlotOptions options;
    options.title = "Spectrum of " + path_ + " (" + type_ + ", average " + average_ + ")";
    options.yLabel = "level (dBFS)";
    // A floor keeps silent bands visible as empty bars rather than stretching
    // the axis to -inf.
    auto db = [](double level) { return level > 0.0 ? std::max(ToDb(level), -150.0) : -150.0; };
    if (type == SpectrumMeterDSP::kLinear) {
      options.xLabel = "frequency (Hz)";
      options.logX = true;
      PlotSeries series{"level", {}, {}};
      for (std::size_t i = 1; i < rows.size(); ++i) {
        series.x.push_back(rows[i].lowHz);
        series.y.push_back(db(rows[i].level));
      }
      WriteTextFile(plot_, LinePlotSvg({series}, options));
      return;
    }
    options.xLabel = type == SpectrumMeterDSP::kThirdOctave ? "third-octave band, lower edge (Hz)"
                                                            : "critical band, lower edge (Hz)";
    std::vector<std::string> labels;
    std::vector<double> levels;
    for (const Row& row : rows) {
      labels.push_back(HzLabel(row.lowHz));
      levels.push_back(db(row.level));
    }
    WriteTextFile(plot_, BarPlotSvg(labels, levels, options));
  }

  std::string path_;
  std::string type_ = "third-octave";
  std::string average_ = "none";
  std::string size_ = "4096";
  bool json_ = false;
  std::string plot_;
};

const CommandRegistration kSpectrum{"spectrum", "Print (and plot) the spectrum of a file in dBFS.",
                                    [] { return std::make_unique<SpectrumCommand>(); }};

}  // namespace
}  // namespace vexdsp
