#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/guitarsuite/ResonantFilter.h"

namespace dsp {
namespace guitarsuite {
namespace talkbox {

/// Talk box: the Retro ladder as a pre-filter (same cutoff, resonance and
/// mode, set through SetFilterMode), then a tenth-order all-pole formant
/// filter for one of five vowels, y = c0 x + c1 y[-1] + ... + c10 y[-10],
/// with fixed coefficients (they do not follow the sample rate: the formants
/// sit where they were tuned at 44.1 kHz, scaled by fs / 44100). Vowels 0 ...
/// 4 are "a", "e", "i", "o", "u"; 5 and above use "a".
/// The formant filter has resonances close to the unit circle.
/// Defaults: 3000 Hz, resonance 0.2, low-pass, vowel "a".
///
/// GetDisplayCoefficients gives the small-signal transfer function of the
/// whole chain (ladder times formant filter) as polynomials in z^-1 of order
/// kDisplayOrder.
///
/// Allocation: the constructor and SetAudioChannelLayout. ProcessInPlace,
/// ProcessPreFilter, Reset and the setters never allocate, lock or throw.
/// One thread at a time.
class VEXAUDIODSP_API TalkBox : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kDisplayOrder = 15;
  static constexpr int kNumVowels = 5;
  static constexpr float kDefaultCutoff = 3000.0f;
  static constexpr float kDefaultResonance = 0.2f;

  TalkBox(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  ~TalkBox() override;

  void SetSampleRate(float sampleRate);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  void SetCutoff(float hz);
  void SetResonance(float resonance);
  void SetFilterMode(unsigned mode);
  void SetVowelMode(unsigned vowel);
  float GetSampleRate() const { return sampleRate_; }
  float GetCutoff() const { return cutoff_; }
  float GetResonance() const { return resonance_; }
  unsigned GetFilterMode() const { return filterMode_; }
  unsigned GetVowelMode() const { return vowel_; }
  unsigned GetNumChannels() const { return static_cast<unsigned>(layout_.size()); }

  /// The same as Retro's: fs * 0.5 / 1.78.
  static float GetMaxCutoffFreq(float sampleRate);
  /// The eleven coefficients c0 ... c10 of a vowel (5 and above give row 0).
  static const double* GetVowelCoefficients(unsigned vowel);
  /// Writes kDisplayOrder + 1 values to each array; returns kDisplayOrder.
  int GetDisplayCoefficients(double* numerator, double* denominator) const;

  void Reset();
  /// The ladder, then the formant filter, on every channel not in `skip`.
  void ProcessInPlace(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);
  /// The ladder alone.
  void ProcessPreFilter(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);
  void UpdateAll();

 private:
  vexmediatypes::AudioChannelLayout layout_;
  float sampleRate_;
  float cutoff_ = kDefaultCutoff;
  float resonance_ = kDefaultResonance;
  unsigned filterMode_ = kLowpass;
  unsigned vowel_ = 0;
  double p_ = 0.0;
  double k_ = 0.0;
  double r_ = 0.0;
  std::vector<double> ladderState_;
  std::vector<double> formantState_;
};

}  // namespace talkbox
}  // namespace guitarsuite
}  // namespace dsp
