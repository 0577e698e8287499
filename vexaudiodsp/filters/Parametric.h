#pragma once

#include <array>
#include <complex>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// The older, parameter-indexed equaliser: 45 parameters addressed by
/// number, run on interleaved float frames of up to eight channels. All
/// filtering is a cascade of biquads in double precision (transposed direct
/// form II), designed with the RBJ cookbook formulas of BiquadDesigns.h.
///
/// Chain, in order: DC blocker, Butterworth high-pass, low shelf, bands 1-5
/// (peaks), high shelf, tilt, Butterworth low-pass; then polarity, master
/// gain, and the dry/wet mix.
///
/// | Index | Parameter | Unit | Bounds | Default |
/// |---|---|---|---|---|
/// | 0 | master gain | dB | -40 ... 40 | 0 |
/// | 1 | low shelf frequency | Hz | 10 ... 20000 | 100 |
/// | 2 | low shelf gain | dB | -40 ... 40 | 0 |
/// | 3 | low shelf Q | | 0.1 ... 10 | 0.7071 |
/// | 4, 8, 12, 16, 20 | band 1-5 frequency | Hz | 10 ... 20000 | 200, 500, 1000, 2500, 6000 |
/// | 5, 9, 13, 17, 21 | band 1-5 bandwidth | Hz | 1 ... 20000 | as the frequency (Q 1) |
/// | 6, 10, 14, 18, 22 | band 1-5 gain | dB | -40 ... 40 | 0 |
/// | 7, 11, 15, 19, 23 | band 1-5 on | switch | 0 ... 1 | 1 |
/// | 24 | high shelf frequency | Hz | 10 ... 20000 | 10000 |
/// | 25 | high shelf gain | dB | -40 ... 40 | 0 |
/// | 26 | low shelf on | switch | 0 ... 1 | 1 |
/// | 27 | high shelf on | switch | 0 ... 1 | 1 |
/// | 28 | constant bandwidth | switch | 0 ... 1 | 0 |
/// | 29 | bypass | switch | 0 ... 1 | 0 |
/// | 30 | invert polarity | switch | 0 ... 1 | 0 |
/// | 31 | high shelf Q | | 0.1 ... 10 | 0.7071 |
/// | 32 | high-pass frequency | Hz | 10 ... 20000 | 20 |
/// | 33 | high-pass order | poles | 1 ... 8 | 2 |
/// | 34 | low-pass frequency | Hz | 10 ... 20000 | 20000 |
/// | 35 | low-pass order | poles | 1 ... 8 | 2 |
/// | 36 | gain scale (all shelf and band gains) | % | 0 ... 200 | 100 |
/// | 37 | high-pass on | switch | 0 ... 1 | 0 |
/// | 38 | mix (wet share) | % | 0 ... 100 | 100 |
/// | 39 | sample rate | Hz | 8000 ... 192000 | 44100 |
/// | 40 | low-pass on | switch | 0 ... 1 | 0 |
/// | 41 | channels (interleaved) | | 1 ... 8 | 1 |
/// | 42 | DC blocker corner (0 = off) | Hz | 0 ... 40 | 0 |
/// | 43 | tilt around 1 kHz (low end -tilt/2, high end +tilt/2) | dB | -12 ... 12 | 0 |
/// | 44 | display range of ComputeFilterResponse | dB | 6 ... 96 | 30 |
///
/// Setting: index >= 45 (or negative) is ignored; a value outside the
/// bounds (or NaN) becomes the midpoint (min + max) / 2; switches store 0
/// below 0.5 and 1 otherwise; orders and the channel count round to the
/// nearest whole number; a value equal to the stored one does nothing.
/// A band's bandwidth sets its Q = frequency / bandwidth. Its frequency
/// keeps Q and moves the bandwidth (frequency / Q), or with constant
/// bandwidth on keeps the bandwidth and moves Q; derived values are clamped
/// to [0.0001, 10000]. Bands, shelves and tilt at 0 dB are skipped.
///
/// Every change marks the parameter changed and the object dirty; the
/// filters follow at Resume() or at the start of the next Process call,
/// keeping their state (a new channel count clears it).
///
/// Allocation: none; the state for eight channels is part of the object.
/// Nothing locks or throws. Process holds flush-to-zero while it runs; a
/// host calling ProcessOneSample in a loop holds a
/// vexaccelerate::utility::ScopedFlushDenormals around the loop. One thread
/// at a time.
class VEXAUDIODSP_API Parametric {
 public:
  static constexpr int kNumParameters = 45;
  static constexpr int kMaxChannels = 8;
  static constexpr int kNumBands = 5;

  enum ParameterIndex {
    kMasterGain = 0,
    kLowShelfFrequency = 1,
    kLowShelfGain = 2,
    kLowShelfQ = 3,
    kFirstBand = 4,  // frequency, bandwidth, gain, on; four per band
    kHighShelfFrequency = 24,
    kHighShelfGain = 25,
    kLowShelfOn = 26,
    kHighShelfOn = 27,
    kConstantBandwidth = 28,
    kBypass = 29,
    kInvertPolarity = 30,
    kHighShelfQ = 31,
    kHighpassFrequency = 32,
    kHighpassOrder = 33,
    kLowpassFrequency = 34,
    kLowpassOrder = 35,
    kGainScale = 36,
    kHighpassOn = 37,
    kMix = 38,
    kSampleRate = 39,
    kLowpassOn = 40,
    kChannels = 41,
    kDcBlocker = 42,
    kTilt = 43,
    kDisplayRange = 44,
  };

  Parametric();

  void SetParameter(int index, float value);
  /// 0 for an index out of range.
  float GetParameter(int index) const;
  /// Leaves min and max untouched for an index out of range.
  void GetBounds(int index, float& min, float& max) const;
  /// The Q a band runs with (band 0 ... 4).
  double GetBandQ(int band) const { return bandQ_[band]; }

  bool IsParameterChanged(int index) const;
  bool IsDirty() const { return dirty_; }
  void ClearAllParameterChangedFlags();
  /// Marks every parameter changed (and the object dirty): the next Resume
  /// redesigns everything.
  void SetAllParameterChangedFlags();
  /// Applies pending changes to the filters.
  void Resume();
  /// Clears the filters' state.
  void Reset();

  /// `frames` interleaved frames of GetParameter(kChannels) samples;
  /// `in == out` is allowed.
  void Process(float* in, float* out, int frames);
  /// One interleaved frame.
  void ProcessOneSample(float* in, float* out);

  /// The whole chain's magnitude at `hz` in dB (mix and master gain
  /// included, 0 when bypassed), clamped to +-display range. Applies pending
  /// changes first, so a display follows the controls without audio running.
  float ComputeFilterResponse(float hz);
  /// The linear magnitude of the enabled Butterworth high- and low-pass at
  /// hz (1 when neither is on). Applies pending changes first.
  float ComputeButterResponse(float hz);

 private:
  // Chain slots, in processing order.
  static constexpr int kDcSlot = 0;
  static constexpr int kHighpassSlot = 1;
  static constexpr int kMaxButterSections = 4;
  static constexpr int kLowShelfSlot = kHighpassSlot + kMaxButterSections;
  static constexpr int kBandSlot = kLowShelfSlot + 1;
  static constexpr int kHighShelfSlot = kBandSlot + kNumBands;
  static constexpr int kTiltSlot = kHighShelfSlot + 1;
  static constexpr int kLowpassSlot = kTiltSlot + 2;
  static constexpr int kNumSlots = kLowpassSlot + kMaxButterSections;

  struct Slot {
    double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
    bool active = false;
  };

  void SetBounds(int index, float min, float max, float value);
  void Store(int index, float value);
  bool IsSwitch(int index) const;
  void SetRuntimeParams();
  void DesignAll();
  void DesignButterworth(int firstSlot, bool on, double frequency, int order, bool highpass);
  void DesignPeakOrShelf(int slot, bool on, int kind, double frequency, double gainDb, double q);
  void DesignTilt();
  void DesignDcBlocker();
  double ScaledGain(int index) const;
  int NumChannels() const;
  void RunFrame(const float* in, float* out);
  std::complex<double> SlotResponse(int first, int last, double hz) const;

  std::array<float, kNumParameters> values_{};
  std::array<float, kNumParameters> min_{};
  std::array<float, kNumParameters> max_{};
  std::array<bool, kNumParameters> changed_{};
  std::array<double, kNumBands> bandQ_{};
  bool dirty_ = true;
  double wet_ = 1.0;
  double dry_ = 0.0;
  std::array<Slot, kNumSlots> slots_{};
  // Transposed direct form II state (s1, s2) per channel and slot.
  std::array<std::array<std::array<double, 2>, kNumSlots>, kMaxChannels> state_{};
};

}  // namespace dsp
