#pragma once

#include "vexaudiodsp/Export.h"
#include "vexcore/SmallBlockAllocator.h"

namespace dsp {
namespace loudness {

/// The two loudness-normalisation standards: 0 carries ATSC A/85 (target
/// -24 LKFS +/- 2 LU, true peak at most -2 dBTP), 1 carries EBU R 128
/// (-23 LUFS +/- 0.5 LU, at most -1 dBTP).
enum : int { kStandardAtsc = 0, kStandardEbu = 1 };
/// Units: LKFS (ATSC's name) and LUFS (EBU's); the scale is the same.
enum : int { kUnitLufs = 0, kUnitLkfs = 1 };

// The ranges a host offers for a loudness-normalising limiter. Loudness in
// LUFS/LKFS, tolerance in LU, true peak in dBTP, times in milliseconds.
VEXAUDIODSP_API extern const double kTargetLoudnessMin;
VEXAUDIODSP_API extern const double kTargetLoudnessMax;
VEXAUDIODSP_API extern const double kLoudnessToleranceMin;
VEXAUDIODSP_API extern const double kLoudnessToleranceMax;
VEXAUDIODSP_API extern const double kTruePeakLevelMin;
VEXAUDIODSP_API extern const double kTruePeakLevelMax;
VEXAUDIODSP_API extern const double kLookAheadTimeMin;
VEXAUDIODSP_API extern const double kLookAheadTimeMax;
VEXAUDIODSP_API extern const double kLookAheadTimeDefault;
VEXAUDIODSP_API extern const double kReleaseTimeMin;
VEXAUDIODSP_API extern const double kReleaseTimeMax;
VEXAUDIODSP_API extern const double kReleaseTimeDefault;

// For a standard other than 0 or 1 these return false and leave `value`
// as it was.
VEXAUDIODSP_API bool GetTargetLoudnessForLoudnessStandard(int standard, double& value);
VEXAUDIODSP_API bool GetLoudnessToleranceForLoudnessStandard(int standard, double& value);
VEXAUDIODSP_API bool GetMaxTruePeakLevelForLoudnessStandard(int standard, double& value);
/// kUnitLkfs for ATSC and for unknown standards, kUnitLufs for EBU.
VEXAUDIODSP_API int GetUnitForLoudnessStandard(int standard);

/// True when a tolerance or maximum true peak differs from the standard's
/// own (a NaN always differs); false for an unknown standard.
VEXAUDIODSP_API bool AreCustomLoudnessSettings(int standard, double tolerance, double maxTruePeak);

/// The localised unit name: "LKFS"/"LUFS" for absolute levels, "LK"/"LU"
/// for differences, looked up through vexcore's localiser. Allocates.
VEXAUDIODSP_API vexcore::utility::SmallBlockWString GetLoudnessUnitString(int unit, bool absolute);

/// Whether a measurement meets a standard: a valid integrated loudness
/// within target +/- tolerance and a true peak at or below the maximum.
/// False for an unknown standard.
VEXAUDIODSP_API bool IsCompliant(int standard, bool valid, double integrated, double truePeakDb);

}  // namespace loudness
}  // namespace dsp
