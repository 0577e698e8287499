#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/RefCounted.h"

namespace dsp {
namespace HarmonicExciter {

/// Smallest and largest drive the host offers, in dB. The Tape mode maps
/// this range onto 0 ... 10 dB of extra sine drive.
VEXAUDIODSP_API extern const float kAmountMinimum;
VEXAUDIODSP_API extern const float kAmountMaximum;

/// Adds harmonics to every channel by saturation blended with the dry
/// signal, in one of three flavours (mode):
///   0 Retro: rational soft clip s = 1 - 1/(1 + y) (mirrored for y < 0) of
///     y = drive * x, drive = 10^(amount/20);
///   1 Tape: sin(0.8 pi/2 G x) / sin(0.8 pi/2), G rising from 0 dB to 10 dB
///     over the amount range 0 ... 15 dB;
///   2 Tube: a polynomial in x normalised to a per-channel envelope
///     (time constant set by the rate), which adds even and odd harmonics
///     following the signal level; it also raises the dry level by
///     0.2 * amount * mix/100 (amount taken as a plain number).
/// Other mode numbers leave the audio unchanged.
///
/// amount in dB (nothing happens while amount <= 0, whatever the mode),
/// mix in percent (wet share). Neither is clamped: amounts beyond 15 dB drive
/// the Tape mode beyond its design and a mix outside 0 ... 100 extrapolates.
/// NaN settings are ignored. Settings apply at the next block, unsmoothed.
///
/// Only the Tube envelopes keep state; they survive mode changes and
/// Reset() (which does nothing), and ClearEnvelopes() returns them to 0.
/// No latency. SetChannelCount allocates; nothing else does. One thread at
/// a time.
class VEXAUDIODSP_API HarmonicExciter : public vexcore::utility::RefCountedObject {
 public:
  enum Mode : unsigned int { kRetro = 0, kTape = 1, kTube = 2 };

  HarmonicExciter(float sampleRate, int channelCount);
  HarmonicExciter(const HarmonicExciter& other);
  HarmonicExciter(HarmonicExciter&& other) noexcept;
  ~HarmonicExciter() override;

  void SetSampleRate(float sampleRate);
  float GetSampleRate() const { return sampleRate_; }
  void SetChannelCount(int channelCount);
  int GetChannelCount() const { return channelCount_; }
  /// dB.
  void SetAmount(float dB);
  float GetAmount() const { return amount_; }
  /// Percent.
  void SetMixPercent(float percent);
  float GetMixPercent() const { return mix_; }
  void SetMode(unsigned int mode) { mode_ = mode; }
  unsigned int GetMode() const { return mode_; }

  /// The Tube envelope follower's coefficient,
  /// 1 - exp(-40 ((fs/2)/200)^0.7 / (fs/2)).
  float GetEnvelopeCoefficient() const { return envelopeCoefficient_; }
  /// The Tube envelope of one channel (0 outside the channel range).
  float GetEnvelope(int channel) const;
  void ClearEnvelopes();

  /// GetChannelCount() planar channels in place. Never allocates.
  void ProcessInPlace(unsigned int frames, float* const* channels);
  unsigned int GetSystemDelay() const { return 0; }
  void Reset() {}

 private:
  void UpdateSampleRate();
  void UpdateChannelCount();
  void ProcessInPlaceRetro(unsigned int frames, float* const* channels) const;
  void ProcessInPlaceTape(unsigned int frames, float* const* channels) const;
  void ProcessInPlaceTube(unsigned int frames, float* const* channels);

  float sampleRate_;
  std::int32_t channelCount_;
  std::uint32_t mode_ = kTube;
  float amount_ = 0.0f;
  float mix_ = 100.0f;
  float driveGain_ = 1.0f;
  float tapeScale_ = 0.8f;
  float tapeNormaliser_ = 0.95105654f;
  float envelopeCoefficient_ = 0.0f;
  float tubeGain_ = 1.0f;
  std::vector<float> envelopes_;
  // Derived in the setters so the sample loops only read them.
  float mixFraction_ = 1.0f;
  float tapeDrive_ = 1.0f;
};

}  // namespace HarmonicExciter
}  // namespace dsp
