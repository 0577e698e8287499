#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Moves, narrows and widens the image of a stereo pair with one 2 x 2
/// matrix (outL = m0 L + m2 R, outR = m1 L + m3 R) derived from two
/// percentages:
///   index 0, centre shift, -100 ... 100 % (0 = no shift);
///   index 1, width, 0 ... 300 % (0 = mono (L + R) / 2, 100 = unchanged,
///   300 = L' = 2L - R, R' = 2R - L).
/// Values are stored as given: the bounds are advertised by GetBounds, never
/// enforced, so values outside them extrapolate the matrix. NaN values and
/// indexes outside 0 ... 1 are ignored.
///
/// A parameter change marks the matrix dirty; it is recomputed by Resume()
/// or at the start of the next Process(), and switches without smoothing.
/// Only the first two channels are processed; with one channel Process copies
/// it, further channels of `out` are left as they are. No latency, no tail,
/// no state between blocks, no allocation anywhere. One thread at a time.
class VEXAUDIODSP_API StereoExpanderDSP {
 public:
  static constexpr int kNumParameters = 2;

  StereoExpanderDSP();

  void SetChannels(int channels) { channels_ = channels; }
  int GetChannels() const { return channels_; }
  /// Stored and marks the matrix dirty; the rate does not enter the result.
  void SetSampleRate(int sampleRate);
  int GetSampleRate() const { return sampleRate_; }
  /// Host bookkeeping only.
  void SetDuration(std::int64_t duration) { duration_ = duration; }
  double GetDuration() const { return static_cast<double>(duration_); }

  void SetParameter(int index, float value);
  /// 0 for an index outside 0 ... 1.
  float GetParameter(int index) const;
  /// Leaves min and max unchanged for an index outside 0 ... 1.
  void GetBounds(int index, float& min, float& max) const;

  /// Computes the matrix now; `active` is informational only.
  void Resume();
  void Suspend() { active_ = false; }
  bool IsActive() const { return active_; }
  /// The matrix m0 ... m3 as last computed (identity before the first).
  const float* GetMatrix() const { return matrix_; }

  /// n frames from in to out; in == out is safe. Never allocates.
  void Process(float** in, float** out, int n);
  /// Always true: the effect has no tail.
  bool ProcessFinished() const { return true; }

 private:
  void SetBounds(int index, float min, float max);
  void SetRuntimeParams();
  void SampleRateDependentInitialization() {}

  bool dirty_ = true;
  bool active_ = false;
  std::int32_t channels_ = 2;
  std::int32_t sampleRate_ = 44100;
  std::int64_t duration_ = 0;
  float parameters_[kNumParameters] = {0.0f, 100.0f};
  float lowerBounds_[kNumParameters] = {0.0f, 0.0f};
  float upperBounds_[kNumParameters] = {0.0f, 0.0f};
  float matrix_[4] = {1.0f, 0.0f, 0.0f, 1.0f};
};

}  // namespace dsp
