// vexdsp loudness: integrated loudness, true peak, momentary and short-term
// maxima and loudness range of sound files, and whether they meet a
// loudness standard.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "commands/LoudnessFile.h"

namespace vexdsp {
namespace {

constexpr double kNoValue = -300.0;

nlohmann::json ValueOrNull(double v) { return v > kNoValue ? nlohmann::json(v) : nlohmann::json(nullptr); }

std::string Level(double v, const std::string& unit) {
  if (!(v > kNoValue)) return "-inf " + unit;
  char text[64];
  std::snprintf(text, sizeof(text), "%.1f %s", v, unit.c_str());
  return text;
}

class LoudnessCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("FILE", paths_, "Sound files to measure")->required();
    app.add_option("--standard", standard_, "Loudness standard the files are checked against (default ebu)")
        ->check(CLI::IsMember({"ebu", "atsc"}));
    app.add_flag("--json", json_, "Print one JSON object per file, one per line");
    app.footer(
        "Integrated loudness after ITU-R BS.1770-4 (gated), true peak (4x oversampled at 48 kHz), maximum "
        "momentary (400 ms) and short-term (3 s) loudness, and loudness range (EBU Tech 3342).\n"
        "ebu: EBU R 128, -23 LUFS +/- 0.5 LU, true peak at most -1 dBTP; atsc: ATSC A/85, -24 LKFS +/- 2 LU, "
        "at most -2 dBTP.");
  }

  int Run() override {
    const int standard = StandardFromName(standard_);
    const std::string unit = UnitName(standard, true);
    const std::string relative = UnitName(standard, false);
    double target = 0.0, tolerance = 0.0, maxPeak = 0.0;
    dsp::loudness::GetTargetLoudnessForLoudnessStandard(standard, target);
    dsp::loudness::GetLoudnessToleranceForLoudnessStandard(standard, tolerance);
    dsp::loudness::GetMaxTruePeakLevelForLoudnessStandard(standard, maxPeak);

    for (std::size_t i = 0; i < paths_.size(); ++i) {
      const std::string& path = paths_[i];
      const dsp::LoudnessSummary s = MeasureLoudness(path);
      const double position = s.sampleRate > 0 ? static_cast<double>(s.truePeakPosition) / s.sampleRate : 0.0;
      const bool compliant = dsp::loudness::IsCompliant(standard, s.valid, s.integrated, s.truePeakDb);
      if (json_) {
        nlohmann::json out;
        out["file"] = path;
        out["integrated"] = s.valid ? ValueOrNull(s.integrated) : nlohmann::json(nullptr);
        out["unit"] = unit;
        out["true_peak_db"] = ValueOrNull(s.truePeakDb);
        out["true_peak_position"] = position;
        out["momentary_max"] = ValueOrNull(s.momentaryMax);
        out["short_term_max"] = ValueOrNull(s.shortTermMax);
        out["loudness_range"] = s.loudnessRange;
        out["valid"] = s.valid;
        out["compliant"] = compliant;
        std::printf("%s\n", out.dump().c_str());
        continue;
      }
      if (i > 0) std::printf("\n");
      std::printf("file            %s\n", path.c_str());
      std::printf("integrated      %s%s\n", Level(s.valid ? s.integrated : kNoValue, unit).c_str(),
                  s.valid ? "" : " (no gating block passed: too short or too quiet)");
      std::printf("true peak       %s at %.3f s\n", Level(s.truePeakDb, "dBTP").c_str(), position);
      std::printf("momentary max   %s\n", Level(s.momentaryMax, unit).c_str());
      std::printf("short-term max  %s\n", Level(s.shortTermMax, unit).c_str());
      std::printf("loudness range  %.1f %s\n", s.loudnessRange, relative.c_str());
      std::printf("%-15s %s (target %.0f %s +/- %.1f %s, true peak at most %.0f dBTP)\n",
                  standard == dsp::loudness::kStandardEbu ? "EBU R 128" : "ATSC A/85",
                  compliant ? "compliant" : "not compliant", target, unit.c_str(), tolerance, relative.c_str(),
                  maxPeak);
    }
    return 0;
  }

 private:
  std::vector<std::string> paths_;
  std::string standard_ = "ebu";
  bool json_ = false;
};

const CommandRegistration kLoudness{"loudness", "Measure loudness (BS.1770 / EBU R 128), true peak and loudness range.",
                                    [] { return std::make_unique<LoudnessCommand>(); }};

}  // namespace
}  // namespace vexdsp
