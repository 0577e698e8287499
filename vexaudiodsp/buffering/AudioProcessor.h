#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"
#include "vexcore/RefCounted.h"

namespace dsp {

/// The older base of effects configured by mode: channel count, sampling
/// rate (Hz) and maximum block size (samples), all 0 until SetMode.
///
/// Held through vexcore::utility::RefPtr. The base Process only grows the
/// block size (ChangeBufferSize, which calls SetMode) when a block is longer
/// than the maximum; subclasses override Process to do their work and
/// SetMode to size their state, so a block longer than announced costs a
/// reconfiguration on the audio thread: hosts should announce the largest
/// block up front. System delay and look-ahead are in samples and merely
/// stored for the subclass and the host.
///
/// The static helpers are pure functions on caller arrays: windows
/// (normalised by normMode: 0 divides by the window's RMS, 1 by its mean,
/// 2 leaves it), level conversions and small decision helpers. They never
/// allocate. One thread at a time per object.
class VEXAUDIODSP_API AudioProcessor : public vexcore::utility::RefCountedObject {
 public:
  AudioProcessor();
  ~AudioProcessor() override;

  /// Stores the mode; subclasses size their state here (may allocate).
  virtual void SetMode(int numChannels, int samplingRate, int maxBlockSize);
  /// Base behaviour: ChangeBufferSize(numSamples) when numSamples exceeds the
  /// maximum block size, nothing else.
  virtual void Process(const float* const* in, int numSamples, float* const* out);
  /// Clears the processing history; the base has none.
  virtual void Reset();
  /// SetMode with the current channel count and rate and the new size.
  virtual void ChangeBufferSize(int maxBlockSize);

  int GetMaxBlockSize() const { return maxBlockSize_; }
  int GetNumChannels() const { return numChannels_; }
  int GetSamplingRate() const { return samplingRate_; }
  int GetSystemDelay() const { return systemDelay_; }
  void SetSystemDelay(int samples) { systemDelay_ = samples; }
  int GetLookAhead() const { return lookAhead_; }
  void SetLookAhead(int samples) { lookAhead_ = samples; }

  /// Periodic Hann window: w[i] = 0.5 (1 - cos(2 pi (i + 0.5) / size)), each
  /// value raised to `power` unless it is 1, then normalised. Nothing for
  /// size <= 0.
  static void HanningWindow(float* w, int size, int normMode, float power);
  /// Multiplies data in place by the symmetric Kaiser window
  /// I0(beta sqrt(1 - ((i - c) / c)^2)) / I0(beta), c = (size - 1) / 2, then
  /// normalises data by the window's RMS or mean. A window of size 1 is 1.
  static void ApplyKaiserWindow(float* data, int size, double beta, int normMode);
  static void ApplyKaiserWindow(double* data, int size, double beta, int normMode);
  /// Kaiser-Bessel-derived window (the MDCT window of AAC/Vorbis-style
  /// codecs): for an even size 2M, w[n] = sqrt(sum_{j<=n} v_j / sum_{j<=M}
  /// v_j) for n < M and w[size - 1 - n] = w[n], where v is the symmetric
  /// Kaiser window of M + 1 points with beta = pi * alpha (alpha = 4 is the
  /// usual long-block value). It satisfies w[n]^2 + w[n + M]^2 = 1. An odd
  /// size 2M + 1 uses the same M-based halves with a centre sample of 1 (the
  /// cumulative sum complete). size 1 gives 1; nothing for size <= 0.
  static void KBDWindow(float* w, int size, float alpha);

  /// 20 log10(a) in dB; -400 for a < 1e-20 (including 0 and negatives).
  static float Amp2DB(float a);
  /// 10^(dB / 20).
  static float DB2Amp(float dB);
  /// Coefficient a of the one-pole smoother y += a (x - y) with time
  /// constant `time` seconds at `rate` Hz: 1 - exp(-1 / (time rate)); 1 for
  /// time 0 (no smoothing).
  static float TimeToIirA(float time, float rate);
  /// Index of the largest of data[first..last]; the earliest wins a tie;
  /// `first` when last < first + 1.
  static int FindMax(const float* data, int first, int last);
  /// 0 at or below lo, 1 at or above hi, linear in between.
  static float SoftDecision(float x, float lo, float hi);

 protected:
  /// Modified Bessel function of the first kind, order 0, by its power
  /// series (relative accuracy about 1e-10, at most 49 terms).
  static double I0(double x);
  /// The same function by a rational approximation, accurate to about 1e-6
  /// relative for |x| <= 20 and degrading beyond.
  static double BesselI0(double x);

 private:
  std::int32_t maxBlockSize_ = 0;
  std::int32_t numChannels_ = 0;
  std::int32_t samplingRate_ = 0;
  std::int32_t systemDelay_ = 0;
  std::int32_t lookAhead_ = 0;
};

}  // namespace dsp
