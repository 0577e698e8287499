#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace dynamics {

/// A single-band downward compressor: peak detection shared by the
/// channels, the compressor curve of DynamicsBand without limiter or gate,
/// gain smoothing always on (over a quarter of the shorter time), a 1 ms
/// look-ahead, and optional make-up gain equal to the mean gain reduction
/// in dB over the last 2 s.
///
/// Units: threshold and output gain in dB, attack and release in ms (a time
/// is two time constants; <= 0 is instantaneous), ratio x:1 (1 = off).
/// Defaults: threshold 0 dB, ratio 1, attack 10 ms, release 0 ms, output
/// 0 dB, make-up off: a pure delay of GetLatency() = trunc(0.001 fs - 1)
/// samples. Non-finite samples are ignored by the detector and pass to the
/// output delayed and scaled.
///
/// Channel mask: a set bit n excludes channel n from detection and output
/// (its output is not written); channels from 64 on are always processed.
///
/// Allocation: construction, SetSampleRate and SetAudioChannelLayout
/// allocate and reset the state; parameter setters recompute at once and
/// never allocate; Process, Reset, GetLevels (right-sized vector) and
/// GetGainReduction never allocate, lock or throw. One thread at a time.
class VEXAUDIODSP_API SingleBandCompressorDSP {
 public:
  using ChannelMask = vexcore::utility::Flags<std::uint64_t>;

  SingleBandCompressorDSP(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);

  void SetSampleRate(float sampleRate);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  float GetSampleRate() const { return sampleRate_; }
  unsigned GetNumChannels() const { return numChannels_; }

  void SetThreshold(float db);
  float GetThreshold() const { return thresholdDb_; }
  void SetRatio(float ratio);
  float GetRatio() const { return ratio_; }
  void SetAttack(float ms);
  float GetAttack() const { return attackMs_; }
  void SetRelease(float ms);
  float GetRelease() const { return releaseMs_; }
  void SetOutputGain(float db);
  float GetOutputGain() const { return outputGainDb_; }
  void SetAutoMakeupGain(bool on) { autoMakeup_ = on; }
  bool GetAutoMakeupGain() const { return autoMakeup_; }

  /// `in` and `out` may be the same table.
  void Process(float** in, float** out, int frames, const ChannelMask& skip);
  void Reset();
  /// Each channel's peak |x| since the last call (then reset), when the
  /// vector has one entry per channel; otherwise untouched.
  void GetLevels(std::vector<float>& levels);
  /// Lowest smoothed gain (linear) since the last call; resets to 1.
  float GetGainReduction();
  unsigned GetLatency() const;

 private:
  void SetAudioConfig(float sampleRate, unsigned channels);
  void UpdateFactors();

  float sampleRate_ = 48000.0f;
  unsigned numChannels_ = 0;
  float thresholdDb_ = 0.0f;
  float ratio_ = 1.0f;
  float attackMs_ = 10.0f;
  float releaseMs_ = 0.0f;
  float outputGainDb_ = 0.0f;
  bool autoMakeup_ = false;

  float threshold_ = 1.0f;
  float invRatio_ = 1.0f;
  float outputGain_ = 1.0f;
  float attack_ = 0.0f, release_ = 0.0f, smoothing_ = 1.0f;
  float peakDecay_ = 1.0f;

  float peak_ = 0.0f;
  float envelope_ = 1.0f;
  float smoothed_ = 1.0f;
  std::vector<float> levels_;
  float hold_ = 1.0f;
  std::vector<float> delay_;
  unsigned delayLength_ = 1;
  unsigned delayIndex_ = 0;
  std::vector<float> makeupDb_;
  double makeupSum_ = 0.0;
  unsigned makeupIndex_ = 0;
};

}  // namespace dynamics
}  // namespace dsp
