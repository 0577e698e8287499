// vexdsp response: an effect's magnitude and phase at log-spaced
// frequencies, from its transfer function where it has one and otherwise
// from its measured impulse response; as a table, JSON or an SVG plot.

#include "vexaudiodsp/host/Response.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CliError.h"
#include "Command.h"
#include "Plot.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace vexdsp {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kLowHz = 20.0;
constexpr double kHighHz = 20000.0;
constexpr int kNumFrequencies = 30;
// At low sample rates the axis stops short of Nyquist, where every
// response is folded back and a log axis has nothing left to show.
constexpr double kMaxFractionOfRate = 0.45;

class ResponseCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("EFFECT", text_, "Effect as name:key=value,... (see 'vexdsp effects')")->required();
    app.add_option("--rate", rate_, "Sample rate in Hz")->check(CLI::Range(1000.0, 768000.0));
    app.add_flag("--json", json_, "Print one JSON object with frequency_hz, magnitude_db and phase_deg");
    app.add_option("--plot", plot_, "Write the magnitude curve as an SVG chart to this file");
  }

  int Run() override {
    std::string error;
    std::unique_ptr<dsp::host::Effect> effect = dsp::host::CreateEffect(text_, &error);
    if (!effect) throw EffectTextError(error);
    const std::string name = dsp::host::FormatEffect(*effect);
    const std::vector<double> frequencies =
        dsp::host::LogFrequencies(kLowHz, std::min(kHighHz, kMaxFractionOfRate * rate_), kNumFrequencies);
    std::vector<std::complex<double>> response;
    bool measured = false;
    if (!dsp::host::ComputeResponse(*effect, rate_, frequencies, &response, &measured, &error)) {
      throw UsageError(error);
    }
    std::vector<double> magnitudeDb, phaseDeg;
    for (const std::complex<double>& h : response) {
      magnitudeDb.push_back(20.0 * std::log10(std::abs(h)));
      phaseDeg.push_back(std::arg(h) * 180.0 / kPi);
    }
    const char* method = measured ? "impulse response" : "transfer function";

    if (!plot_.empty()) {
      PlotOptions options;
      options.title = "Magnitude response of " + text_ + " at " + dsp::host::FormatNumber(rate_) + " Hz";
      options.xLabel = "Frequency (Hz)";
      options.yLabel = "Magnitude (dB)";
      options.logX = true;
      WriteTextFile(plot_, LinePlotSvg({{text_, frequencies, magnitudeDb}}, options));
    }
    if (json_) {
      nlohmann::json out{{"effect", name},
                         {"sample_rate", rate_},
                         {"method", method},
                         {"frequency_hz", frequencies},
                         {"magnitude_db", nlohmann::json::array()},
                         {"phase_deg", phaseDeg}};
      // A zero of the response has no level in dB: null, as JSON has no -inf.
      for (double db : magnitudeDb) out["magnitude_db"].push_back(std::isfinite(db) ? nlohmann::json(db) : nullptr);
      std::printf("%s\n", out.dump().c_str());
      return 0;
    }
    std::printf("%s at %s Hz, %s\n", text_.c_str(), dsp::host::FormatNumber(rate_).c_str(),
                measured ? "measured from the impulse response" : "computed from the transfer function");
    std::printf("%12s %14s %12s\n", "frequency Hz", "magnitude dB", "phase deg");
    for (std::size_t i = 0; i < frequencies.size(); ++i) {
      std::printf("%12.1f %14.3f %12.2f\n", frequencies[i], magnitudeDb[i], phaseDeg[i]);
    }
    if (!plot_.empty()) std::printf("plot written to %s\n", plot_.c_str());
    return 0;
  }

 private:
  std::string text_;
  double rate_ = 48000.0;
  bool json_ = false;
  std::string plot_;
};

const CommandRegistration kResponse{"response",
                                    "Magnitude and phase of an effect from 20 Hz to 20 kHz (computed or measured).",
                                    [] { return std::make_unique<ResponseCommand>(); }};

}  // namespace
}  // namespace vexdsp
