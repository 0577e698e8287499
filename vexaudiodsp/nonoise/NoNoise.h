#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

// Noise-print reduction: the parameter record shared by the capture
// (CaptureNoisePrint.h) and the reducer (NoNoiseProcess.h), the reducer's
// runtime record, and the free functions that manage the record's arrays.
namespace dsp {
namespace nonoise {

/// The noise print and the reduction settings, a plain record. Its arrays
/// are owned by the record once AllocateArrays (or a copy with arrays) made
/// them and released by FreeArrays; a record fresh from SetDefaultParameter
/// holds none (null pointers).
///
/// Curves hold N values per channel (N = fftSize). The capture fills bins 0
/// ... N/2 and mirrors them (bin N - k = bin k, the magnitude spectrum of a
/// real signal being symmetric); the reducer reads bins 0 ... N/2.
/// Magnitudes are |X| / (N / 4) of a frame windowed with the Blackman-Harris
/// window of the noise-print tools (a full-scale sine on a bin reads about
/// 0.72, the window's mean of 0.359 times 2).
struct VEXAUDIODSP_API NONOISE {
  /// Global position t on the threshold curve (0 = minimum curve, 1 =
  /// maximum curve), added to binCurve per bin.
  double levelPosition = 1.0;
  /// Copied along; not read by the reduction.
  std::int16_t auxCode = -1;
  /// FFT length N, a power of two (the reducer takes 16 ... 16384).
  std::int16_t fftSize = 4096;
  /// Most analysis blocks taken from a capture selection (at least 8 used).
  std::int32_t snapshotLimit = 4000;
  /// Overlap factor: hop = N / overlap (the reducer takes 3 ... N).
  std::int16_t overlap = 7;
  std::int32_t auxInt = 0;
  std::int16_t channelCount = 2;
  /// Per channel: lowest and highest DC-bin magnitude seen.
  double* channelMin = nullptr;
  double* channelMax = nullptr;
  /// Per channel, N values: per-bin minimum, maximum and RMS magnitude (the
  /// average holds a power sum while a capture runs).
  double** minCurve = nullptr;
  double** maxCurve = nullptr;
  double** averageCurve = nullptr;
  /// Analysis blocks accumulated.
  std::int64_t snapshotCount = 0;
  /// Threshold offset in dB.
  double thresholdDb = 0.0;
  /// Spectral tilt exponent of the threshold.
  double exponent = 1.0;
  /// 1: crossfaded overlap-add; 2 (with a non-zero reduction): plain
  /// overlap-save segments (see utils/OverlapSave.h).
  std::int16_t mode = 1;
  std::uint8_t flagA = 0;
  std::uint8_t flagB = 1;
  std::uint8_t flagC = 1;
  /// Largest reduction in dB; 0 turns processing off.
  double reductionDb = 40.0;
  /// Temporal smoothing of the magnitudes, percent (0 ... 100).
  double smoothingPercent = 65.0;
  /// N per-bin offsets added to levelPosition.
  float* binCurve = nullptr;
};

/// The reducer's runtime record, created and destroyed by NoNoiseProcess.
/// The cached per-bin terms (lo, hi, 1 / (hi - lo) and the base reduction) depend only
/// on the print and the parameters, so they are recomputed by
/// UpdateParameter, not per frame.
struct VEXAUDIODSP_API NOISEREDUCER {
  std::int64_t size = 0;
  /// N values: t = levelPosition + binCurve[k], mirrored (position[N - k] =
  /// position[k]).
  double* position = nullptr;
  /// 1 / (N / 4).
  double magnitudeScale = 0.0;
  /// 10^(thresholdDb / 20).
  double thresholdGain = 1.0;
  /// Per channel N + 8 doubles, zeroed; rows start at the fifth, so
  /// indices -4 ... N + 3 read zero until written.
  double** smoothingStore = nullptr;
  double** smoothingRows = nullptr;
  double smoothing = 0.0;
  double smoothingComplement = 1.0;
  bool firstFrame = true;

  int channels = 0;
  int bins = 0;
  double** lowLevel = nullptr;
  double** highLevel = nullptr;
  double** baseReduction = nullptr;
  /// Scratch for one pair of channels, 2 x bins values each, the two
  /// channels interleaved: the parts of the smoothing's rise and fall that
  /// do not depend on this frame's neighbouring bins.
  double* riseTerms = nullptr;
  double* fallTerms = nullptr;
  double** inverseSpan = nullptr;
};

/// Writes the defaults above to the scalar fields; arrays are untouched.
VEXAUDIODSP_API void SetDefaultParameter(NONOISE* param);
/// (Re)allocates every array for channelCount channels of fftSize values,
/// zeroed, after freeing the record's own. False (nothing allocated) for a
/// channel count below 1 or a size below 2. Allocates.
VEXAUDIODSP_API bool AllocateArrays(NONOISE* param);
/// Releases the arrays and nulls the pointers.
VEXAUDIODSP_API void FreeArrays(NONOISE* param);
/// Copies the scalars and, with withArrays, the arrays (re-allocating the
/// target's). Without, the target's pointers are left as they are.
VEXAUDIODSP_API void CopyNoNoise(const NONOISE* from, NONOISE* to, bool withArrays);
/// A new record with the scalars and arrays of `from`; release it with
/// DeleteNoNoise.
VEXAUDIODSP_API NONOISE* CloneNoNoise(const NONOISE* from);
/// FreeArrays and delete, for records from CloneNoNoise.
VEXAUDIODSP_API void DeleteNoNoise(NONOISE* param);
/// Copies the scalars with channelCount 1 and, with withArrays, the given
/// channel's curves, extremes and the binCurve. A channel the source does
/// not have leaves the target's arrays zeroed.
VEXAUDIODSP_API void CopyMultiChannelNoNoiseToSingleChannelNoNoise(const NONOISE* from, NONOISE* to, int channel,
                                                                   bool withArrays);
/// True when the record holds every array for its channel count.
VEXAUDIODSP_API bool HasArrays(const NONOISE* param);

}  // namespace nonoise
}  // namespace dsp
