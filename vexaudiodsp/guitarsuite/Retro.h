#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/guitarsuite/ResonantFilter.h"

namespace dsp {
namespace guitarsuite {
namespace retro {

/// Four-pole resonant ladder filter with a cubic soft clip in the last
/// stage (the "Moog variation 1" structure): cutoff 20 ... 20000 Hz (the
/// usable top is GetMaxCutoffFreq, fs / 3.56, above which the tuning
/// saturates), resonance 0 ... 1 (self-oscillation near 1 at low cutoffs),
/// mode low-pass, high-pass (input minus low-pass) or band-pass (3 (y3 -
/// y4)). Defaults: 1000 Hz, resonance 0.5, low-pass.
///
/// Per stage y = (x + x_prev) p - k y_prev; the input is x - r y4_prev; y4
/// is soft-clipped by y - 0.166667 y^3. Setters recompute p, k, r in double
/// at once (no smoothing). State: five doubles per channel.
///
/// GetDisplayCoefficients gives the small-signal transfer function (the
/// clip left out) as polynomials in z^-1 of order kDisplayOrder, numerator
/// and denominator, ascending powers, for a display to evaluate.
///
/// Allocation: the constructor and SetAudioChannelLayout. ProcessInPlace,
/// Reset and the setters never allocate, lock or throw. One thread at a
/// time.
class VEXAUDIODSP_API Retro : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kDisplayOrder = 5;
  static constexpr float kDefaultCutoff = 1000.0f;
  static constexpr float kDefaultResonance = 0.5f;

  Retro(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  ~Retro() override;

  /// Hz; non-positive or non-finite rates are ignored.
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

  /// fs * 0.5 / 1.78.
  static float GetMaxCutoffFreq(float sampleRate);
  /// Writes kDisplayOrder + 1 values to each array; returns kDisplayOrder.
  int GetDisplayCoefficients(double* numerator, double* denominator) const;

  void Reset();
  void ProcessInPlace(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);
  /// Recomputes every derived coefficient from the stored parameters.
  void UpdateAll();

 private:
  vexmediatypes::AudioChannelLayout layout_;
  float sampleRate_;
  float cutoff_ = kDefaultCutoff;
  float resonance_ = kDefaultResonance;
  unsigned mode_ = kLowpass;
  double p_ = 0.0;
  double k_ = 0.0;
  double r_ = 0.0;
  std::vector<double> state_;
};

}  // namespace retro
}  // namespace guitarsuite
}  // namespace dsp
