#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace dynamics {

/// The level processor of one band (or of a whole signal): a downward
/// compressor, a limiter stage above it whose curve continues the
/// compressor's, and a downward expander (gate) below, all driven by one
/// detector shared by the channels, with a 1 ms look-ahead delay, optional
/// automatic make-up gain and optional extra gain smoothing.
///
/// Units: thresholds and output gain in dB (linear = exp(dB x 0.115129255)),
/// times in ms, ratios as x:1 (1 = no action; 0 gives an infinite ratio).
/// Times <= 0 make a stage instantaneous. A time t is two time constants:
/// coefficient exp(-1000 / t / (0.5 fs)).
///
/// Detection: peak (instant attack, falls to 3 % in 50 ms) or RMS (a mean
/// square smoothed over an eighth of the shorter compressor time), over the
/// channels not excluded by the skip mask. Non-finite samples are ignored by
/// the detector (so one bad sample cannot freeze the gain) but pass to the
/// output, delayed and scaled like any other.
///
/// Latency: GetSystemDelay() = round(0.001 fs - 1) samples (the delay ring
/// holds round(0.001 fs)). The output carries a +/-1e-10 square wave of 256
/// samples that keeps later stages out of the subnormal range.
///
/// Channel mask: bit n of `skip` excludes channel n from detection, delay
/// and output (its output is not written). Channels from 64 on cannot be
/// masked and are always processed.
///
/// Allocation: construction, SetSampleRate and SetAudioChannelLayout
/// allocate and reset the state; setters recompute their factors at once
/// and never allocate; Process, ProcessInPlace, Reset, GetGainReduction and
/// GetLevels (with a vector of the right size) never allocate, lock or
/// throw. One thread at a time.
class VEXAUDIODSP_API DynamicsBand {
 public:
  using ChannelMask = vexcore::utility::Flags<std::uint64_t>;

  DynamicsBand(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  DynamicsBand(const DynamicsBand&) = default;
  DynamicsBand(DynamicsBand&&) noexcept = default;
  DynamicsBand& operator=(const DynamicsBand&) = default;
  DynamicsBand& operator=(DynamicsBand&&) noexcept = default;

  void SetSampleRate(float sampleRate);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  float GetSampleRate() const { return sampleRate_; }
  unsigned GetNumChannels() const { return numChannels_; }

  void SetCompThreshold(float db);
  float GetCompThreshold() const { return compThresholdDb_; }
  void SetCompRatio(float ratio);
  float GetCompRatio() const { return compRatio_; }
  void SetCompAttack(float ms);
  float GetCompAttack() const { return compAttackMs_; }
  void SetCompRelease(float ms);
  float GetCompRelease() const { return compReleaseMs_; }
  void SetLimThreshold(float db);
  float GetLimThreshold() const { return limThresholdDb_; }
  void SetLimRatio(float ratio);
  float GetLimRatio() const { return limRatio_; }
  void SetLimAttack(float ms);
  float GetLimAttack() const { return limAttackMs_; }
  void SetLimRelease(float ms);
  float GetLimRelease() const { return limReleaseMs_; }
  void SetGateThreshold(float db);
  float GetGateThreshold() const { return gateThresholdDb_; }
  /// The expansion exponent is ratio - 1: 2 doubles the distance below the
  /// threshold, 1 does nothing.
  void SetGateRatio(float ratio);
  float GetGateRatio() const { return gateRatio_; }
  void SetGateAttack(float ms);
  float GetGateAttack() const { return gateAttackMs_; }
  void SetGateRelease(float ms);
  float GetGateRelease() const { return gateReleaseMs_; }
  void SetOutputGain(float db);
  float GetOutputGain() const { return outputGainDb_; }
  /// Per-sample decay of the peak detector (default 0.03^(1 / (0.05 fs))).
  void SetFactorDetection(float factor);
  float GetFactorDetection() const { return peakDecay_; }
  void SetRMSDetection(bool on) { rms_ = on; }
  bool GetRMSDetection() const { return rms_; }
  void SetAutoSmoothing(bool on) { autoSmoothing_ = on; }
  bool GetAutoSmoothing() const { return autoSmoothing_; }
  void SetAutoMakeupGain(bool on) { autoMakeup_ = on; }
  bool GetAutoMakeupGain() const { return autoMakeup_; }

  /// Thresholds for display, kept ordered limiter >= compressor >= gate:
  /// setting one moves the others out of its way (the processing uses the
  /// values as set).
  float GetDisplayLimThreshold() const { return limDisplayDb_; }
  float GetDisplayCompThreshold() const { return compDisplayDb_; }
  float GetDisplayGateThreshold() const { return gateDisplayDb_; }

  void ProcessInPlace(unsigned frames, float* const* channels, const ChannelMask& skip, ChannelMask& skipOut);
  /// `in` and `out` may be the same table.
  void Process(unsigned frames, const float* const* in, float* const* out, const ChannelMask& skip,
               ChannelMask& skipOut);

  /// Look-ahead latency in samples.
  unsigned GetSystemDelay() const;
  static unsigned GetDelayLineSamples(float sampleRate);
  /// Each channel's peak |x| since the last call (then reset to 0), when
  /// the vector holds one entry per channel; otherwise untouched.
  void GetLevels(std::vector<float>& levels);
  /// Lowest compressor-stage gain (linear) since the last call; resets to 1.
  float GetGainReduction();
  /// Lowest gate gain (linear) since the last call; resets to 1.
  float GetGateGainReduction();
  /// Clears delay lines, envelopes, meters and the make-up history.
  void Reset();

 private:
  void SetAudioConfig(float sampleRate, unsigned channels);
  void UpdateAllFactors();
  void UpdateCompFactors();
  void UpdateLimFactors();
  void UpdateGateFactors();
  void UpdateMaxCompGain();
  void ResetDelayLine();
  void EnforceCompThresholdConstraint();
  void EnforceLimThresholdConstraint();
  void EnforceGateThresholdConstraint();

  float sampleRate_ = 48000.0f;
  unsigned numChannels_ = 0;

  float compThresholdDb_ = 0.0f;
  float compRatio_ = 1.0f;
  float compAttackMs_ = 10.0f;
  float compReleaseMs_ = 100.0f;
  float limThresholdDb_ = 0.0f;
  float limRatio_ = 1.0f;
  float limAttackMs_ = 5.0f;
  float limReleaseMs_ = 100.0f;
  float gateThresholdDb_ = -120.0f;
  float gateRatio_ = 1.0f;
  float gateAttackMs_ = 10.0f;
  float gateReleaseMs_ = 100.0f;
  float outputGainDb_ = 0.0f;
  bool rms_ = false;
  bool autoSmoothing_ = false;
  bool autoMakeup_ = false;

  float limDisplayDb_ = 0.0f;
  float compDisplayDb_ = 0.0f;
  float gateDisplayDb_ = -120.0f;

  // Derived values.
  float compThreshold_ = 1.0f;
  float limThreshold_ = 1.0f;
  float gateThreshold_ = 1e-6f;
  float invCompRatio_ = 1.0f;
  float invLimRatio_ = 1.0f;
  float outputGain_ = 1.0f;
  float maxCompGain_ = 1.0f;
  float compAttack_ = 0.0f, compRelease_ = 0.0f, compSmoothing_ = 1.0f, rmsFactor_ = 1.0f;
  float limAttack_ = 0.0f, limRelease_ = 0.0f;
  float gateAttack_ = 0.0f, gateRelease_ = 0.0f, gateSmoothing_ = 1.0f;
  float peakDecay_ = 1.0f;

  // Running state.
  float peak_ = 0.0f;
  float meanSquare_ = 0.0f;
  float compEnvelope_ = 1.0f;
  float compSmoothed_ = 1.0f;
  float gateEnvelope_ = 1.0f;
  float gateSmoothed_ = 1.0f;
  std::vector<float> levels_;
  float compHold_ = 1.0f;
  float gateHold_ = 1.0f;
  std::vector<float> delay_;  // channel c at [c * delayLength_, (c + 1) * delayLength_)
  unsigned delayLength_ = 1;
  unsigned delayIndex_ = 0;
  std::vector<float> makeup_;
  double makeupSum_ = 0.0;
  unsigned makeupIndex_ = 0;
  std::uint8_t denormalCounter_ = 0;
};

}  // namespace dynamics
}  // namespace dsp
