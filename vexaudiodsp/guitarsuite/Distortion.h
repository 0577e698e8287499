#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexcore/RefCounted.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace guitarsuite {

/// What the three guitar distortions share: five user parameters, their
/// class-wide ranges and the linear factors derived from them.
///
/// | parameter   | setter          | range           | factor                              |
/// |-------------|-----------------|-----------------|-------------------------------------|
/// | input gain  | SetInputGain    | -30 ... 20 dB   | gIn = 10^(dB/20)                    |
/// | overdrive   | SetOverdrive    | 0 ... 10        | drive = 10^(2 v), 0 ... 40 dB       |
/// | trash       | SetTrash        | 0 ... 1         | per class                           |
/// | mix         | SetMixPercent   | 0 ... 100 %     | dry and wet weights per class       |
/// | output gain | SetOutputGain   | -40 ... 10 dB   | gOut = 10^(dB/20)                   |
///
/// Setters clamp to the range and take effect at once, without smoothing
/// (a host that moves them while playing should ramp them itself). Defaults:
/// input 0 dB, overdrive 5 (20 dB), trash 0.3, mix 100 %,
/// output -6 dB.
///
/// The shapers are memoryless: Reset has nothing to clear, output does not
/// depend on the block split, there is no latency. ProcessInPlace never
/// allocates, locks or throws; a set bit n in `skip` leaves channel n as it
/// is. Channels beyond the layout are ignored. One thread at a time.
class VEXAUDIODSP_API Distortion : public vexcore::utility::RefCountedObject {
 public:
  struct Range {
    float minimum;
    float maximum;
  };
  static constexpr Range kInputGainRange{-30.0f, 20.0f};
  static constexpr Range kOverdriveRange{0.0f, 10.0f};
  static constexpr Range kTrashRange{0.0f, 1.0f};
  static constexpr Range kMixRange{0.0f, 100.0f};
  static constexpr Range kOutputGainRange{-40.0f, 10.0f};

  static constexpr float kDefaultInputGain = 0.0f;
  static constexpr float kDefaultOverdrive = 5.0f;
  static constexpr float kDefaultTrash = 0.3f;
  static constexpr float kDefaultMix = 100.0f;
  static constexpr float kDefaultOutputGain = -6.0f;

  ~Distortion() override;

  /// Configuration call: stores the layout (may allocate).
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  const vexmediatypes::AudioChannelLayout& GetAudioChannelLayout() const { return layout_; }
  unsigned GetNumChannels() const { return static_cast<unsigned>(layout_.size()); }
  float GetSampleRate() const { return sampleRate_; }

  void SetInputGain(float dB);
  void SetOverdrive(float value);
  void SetTrash(float value);
  void SetMixPercent(float percent);
  void SetOutputGain(float dB);
  float GetInputGain() const { return inputGainDb_; }
  float GetOverdrive() const { return overdrive_; }
  float GetTrash() const { return trash_; }
  float GetMixPercent() const { return mixPercent_; }
  float GetOutputGain() const { return outputGainDb_; }

  /// Nothing to clear: the curves have no memory.
  void Reset() {}
  virtual void ProcessInPlace(unsigned frames, float* const* channels,
                              const vexcore::utility::Flags<std::uint64_t>& skip) = 0;

 protected:
  Distortion(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  Distortion(const Distortion& other);
  Distortion& operator=(const Distortion& other);

  /// Position of `value` in `range`, 0 ... 1; 0 when the range is empty.
  static double Normalised(float value, Range range);
  /// Recomputes the class's trash factors and dry/wet weights.
  virtual void UpdateFactors() = 0;

  vexmediatypes::AudioChannelLayout layout_;
  float sampleRate_;
  float inputGainDb_ = kDefaultInputGain;
  float overdrive_ = kDefaultOverdrive;
  float trash_ = kDefaultTrash;
  float mixPercent_ = kDefaultMix;
  float outputGainDb_ = kDefaultOutputGain;
  float inputGain_ = 1.0f;
  float drive_ = 1.0f;
  float outputGain_ = 1.0f;
  float dry_ = 0.0f;
  float wet_ = 1.0f;
};

}  // namespace guitarsuite
}  // namespace dsp
