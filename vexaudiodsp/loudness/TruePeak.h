#pragma once

#include <cstddef>
#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// True-peak (inter-sample peak) level after ITU-R BS.1770-4 Annex 2: the
/// signal is oversampled by 8 below 24 kHz and at 24 kHz, by 4 up to 96 kHz
/// and by 2 from 96 kHz on, interpolated with a 71-tap Hann-windowed sinc
/// (cut-off 0.48 / factor of the oversampled rate, i.e. 0.96 of the input
/// Nyquist frequency; taps scaled by the factor), and the largest magnitude
/// of the input and interpolated samples is kept with its input-sample
/// index.
///
/// The interpolator gives exactly the result of inserting factor - 1 zeros
/// after every sample and running the 71-tap FIR, but as a polyphase filter:
/// output phase j of input sample n is sum_p h[j + p factor] x[n - p], so no
/// product with a stuffed zero is ever formed (71 multiply-adds per input
/// sample whatever the factor). Filtering continues across blocks.
///
/// The interpolated signal lags by GetLatency() = 35 samples of the
/// oversampled rate ((71 - 1) / 2); positions found in it are not corrected
/// for that lag (a peak between samples n and n + 1 is reported a few
/// samples late), and an input sample beats an interpolated one of equal
/// size. GetPeakValue gives 20 log10(max(1e-15, peak)) dB, so -300 dB
/// before any signal.
///
/// Non-finite input: an infinite sample makes the peak +inf dB. A NaN is
/// never counted as a peak, but it poisons the interpolator until the next
/// Init, after which only the input samples themselves are measured.
///
/// Allocation: Init and copying allocate; Process, Resample and
/// GetPeakValue never allocate, lock or throw. Blocks longer than maxFrames
/// are taken in pieces. One thread at a time.
class VEXAUDIODSP_API TruePeak {
 public:
  static constexpr int kTaps = 71;

  TruePeak() = default;
  TruePeak(const TruePeak& other);
  TruePeak& operator=(const TruePeak& other);
  ~TruePeak();

  /// Chooses the factor for sampleRate (Hz), designs the interpolator,
  /// allocates for blocks of up to maxFrames and starts a new measurement.
  void Init(std::size_t maxFrames, int sampleRate);
  /// Measures n samples.
  void Process(const float* in, std::size_t n);
  /// Interpolates only: writes n x factor samples to `out`, continuing the
  /// same filter memory as Process but leaving the peak and the sample
  /// count alone.
  void Resample(const float* in, std::size_t n, float* out);
  /// Peak in dBTP and the input-sample index it lies in.
  void GetPeakValue(float& peakDb, std::int64_t& position) const;
  /// The linear peak (0 before any signal).
  float GetPeakLinear() const { return peak_; }
  std::size_t GetResampleFactor() const { return factor_; }
  /// Group delay of the interpolator in oversampled samples.
  std::size_t GetLatency() const { return (kTaps - 1) / 2; }
  /// The 71 taps of the interpolator in time order, scaled by the factor
  /// (nullptr before Init).
  const float* GetTaps() const { return taps_; }
  /// Clears the interpolator's memory, the peak and the sample count; keeps
  /// the design. Never allocates.
  void Reset();
  /// Releases the interpolator; Process and Resample do nothing until the
  /// next Init. Also done at the start of every Init.
  void FreeFIR();

 private:
  void Interpolate(const float* in, std::size_t n);
  void ProcessPiece(const float* in, std::size_t n);
  void CopyFrom(const TruePeak& other);
  void FreeAll();

  // Taps in time order, then per phase j reversed: phaseTaps_[j * tapsPerPhase_ + q].
  float* taps_ = nullptr;
  float* phaseTaps_ = nullptr;
  int phaseCounts_[8] = {};
  std::size_t tapsPerPhase_ = 0;
  // The last tapsPerPhase_ - 1 input samples, then the current block.
  float* delayLine_ = nullptr;
  // One array per phase, `stride_` apart, for the interpolated block.
  float* upsampled_ = nullptr;
  std::size_t stride_ = 0;
  std::size_t maxFrames_ = 0;
  float peak_ = 0.0f;
  std::int64_t sampleCount_ = 0;
  std::int64_t peakPosition_ = 0;
  std::size_t factor_ = 1;
};

}  // namespace dsp
