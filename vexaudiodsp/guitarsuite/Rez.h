#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/guitarsuite/ResonantFilter.h"

namespace dsp {
namespace guitarsuite {
namespace rez {

/// Two-pole state-variable filter (Chamberlin form): cutoff 20 ... 20000 Hz
/// (the usable top is GetMaxCutoffFreq, 0.2823 fs, where the tuning term F
/// reaches its limit 1.55), resonance 0 ... 1 (damping q from 0.49 down to
/// 0.08), mode low-pass, high-pass or band-pass; every output is scaled by
/// 1/q, so resonance raises the level as well as the peak. Defaults: 1000 Hz,
/// resonance 0.5, low-pass.
///
/// Per sample: low += F band; h = (x - band) q - low; band += F h. The filter
/// is linear: GetDisplayCoefficients gives its exact transfer function, a
/// biquad b0 b1 b2 / a0 a1 a2 in z^-1.
///
/// Allocation: the constructor and SetAudioChannelLayout. ProcessInPlace,
/// Reset and the setters never allocate, lock or throw. One thread at a
/// time.
class VEXAUDIODSP_API Rez : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kDisplayOrder = 2;
  static constexpr float kDefaultCutoff = 1000.0f;
  static constexpr float kDefaultResonance = 0.5f;

  Rez(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  ~Rez() override;

  void SetSampleRate(float sampleRate);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  void SetCutoff(float hz);
  void SetResonance(float resonance);
  void SetMode(unsigned mode);
  float GetSampleRate() const { return sampleRate_; }
  float GetCutoff() const { return cutoff_; }
  float GetResonance() const { return resonance_; }
  unsigned GetMode() const { return mode_; }
  unsigned GetNumChannels() const { return static_cast<unsigned>(layout_.size()); }

  /// fs * 0.2823.
  static float GetMaxCutoffFreq(float sampleRate);
  /// Writes kDisplayOrder + 1 values to each array; returns kDisplayOrder.
  int GetDisplayCoefficients(double* numerator, double* denominator) const;

  void Reset();
  void ProcessInPlace(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);
  void UpdateAll();

 private:
  vexmediatypes::AudioChannelLayout layout_;
  float sampleRate_;
  float cutoff_ = kDefaultCutoff;
  float resonance_ = kDefaultResonance;
  unsigned mode_ = kLowpass;
  double f_ = 0.0;
  double q_ = 0.49;
  std::vector<double> state_;
};

}  // namespace rez
}  // namespace guitarsuite
}  // namespace dsp
