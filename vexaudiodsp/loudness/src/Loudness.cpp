#include "vexaudiodsp/loudness/Loudness.h"

#include <cmath>
#include <string>

#include "vexcore/Localizer.h"

namespace dsp {
namespace loudness {

const double kTargetLoudnessMin = -36.0;
const double kTargetLoudnessMax = -6.0;
const double kLoudnessToleranceMin = 0.0;
const double kLoudnessToleranceMax = 6.0;
const double kTruePeakLevelMin = -12.0;
const double kTruePeakLevelMax = -0.1;
const double kLookAheadTimeMin = 5.0;
const double kLookAheadTimeMax = 20.0;
const double kLookAheadTimeDefault = 12.0;
const double kReleaseTimeMin = 40.0;
const double kReleaseTimeMax = 200.0;
const double kReleaseTimeDefault = 200.0;

namespace {

struct StandardValues {
  double target;
  double tolerance;
  double maxTruePeak;
  int unit;
};

const StandardValues* Find(int standard) {
  static const StandardValues kValues[] = {
      {-24.0, 2.0, -2.0, kUnitLkfs},  // ATSC A/85
      {-23.0, 0.5, -1.0, kUnitLufs},  // EBU R 128
  };
  return standard == kStandardAtsc || standard == kStandardEbu ? &kValues[standard] : nullptr;
}

}  // namespace

bool GetTargetLoudnessForLoudnessStandard(int standard, double& value) {
  const StandardValues* v = Find(standard);
  if (v == nullptr) return false;
  value = v->target;
  return true;
}

bool GetLoudnessToleranceForLoudnessStandard(int standard, double& value) {
  const StandardValues* v = Find(standard);
  if (v == nullptr) return false;
  value = v->tolerance;
  return true;
}

bool GetMaxTruePeakLevelForLoudnessStandard(int standard, double& value) {
  const StandardValues* v = Find(standard);
  if (v == nullptr) return false;
  value = v->maxTruePeak;
  return true;
}

int GetUnitForLoudnessStandard(int standard) {
  const StandardValues* v = Find(standard);
  return v == nullptr ? kUnitLkfs : v->unit;
}

bool AreCustomLoudnessSettings(int standard, double tolerance, double maxTruePeak) {
  const StandardValues* v = Find(standard);
  if (v == nullptr) return false;
  // Written so that a NaN, which compares unequal to everything, counts as custom.
  return !(tolerance == v->tolerance) || !(maxTruePeak == v->maxTruePeak);
}

vexcore::utility::SmallBlockWString GetLoudnessUnitString(int unit, bool absolute) {
  const char* key = nullptr;
  if (absolute) {
    key = unit == kUnitLkfs ? "$$$/QRM/EncoderHost/Loudness/kIdentifier_LKFS=LKFS"
                            : "$$$/QRM/EncoderHost/Loudness/kIdentifier_LUFS=LUFS";
  } else {
    key = unit == kUnitLkfs ? "$$$/QRM/EncoderHost/Loudness/kIdentifier_LK=LK"
                            : "$$$/QRM/EncoderHost/Loudness/kIdentifier_LU=LU";
  }
  const std::wstring text = vexcore::config::Localizer::Get().Localize(key);
  return vexcore::utility::SmallBlockWString(text.begin(), text.end());
}

bool IsCompliant(int standard, bool valid, double integrated, double truePeakDb) {
  const StandardValues* v = Find(standard);
  if (v == nullptr || !valid) return false;
  return std::fabs(integrated - v->target) <= v->tolerance && truePeakDb <= v->maxTruePeak;
}

}  // namespace loudness
}  // namespace dsp
