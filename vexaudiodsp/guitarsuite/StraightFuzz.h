#pragma once

#include "vexaudiodsp/guitarsuite/Distortion.h"

namespace dsp {
namespace guitarsuite {
namespace straightfuzz {

/// Linked hard-clip fuzz. Per frame the detector takes p = the largest
/// |drive x| over channel 0 (always, even when skipped) and the other
/// processed channels (the input gain is not part of it). Every processed
/// channel then gives v = drive gIn x, shaped to +-c (the sign of v) when p
/// exceeds the clip level c = 10^(-2.56 trash) (0 ... -51.2 dB), else v; y =
/// ((1 - m) u + 0.7079 m h shaped) gOut with h = 10^(1.75 trash) (0 ... 35
/// dB). Once any channel passes the clip level all channels turn into a
/// square wave of full clip level.
class VEXAUDIODSP_API StraightFuzz : public Distortion {
 public:
  StraightFuzz(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  StraightFuzz(const StraightFuzz& other);
  StraightFuzz& operator=(const StraightFuzz& other);
  ~StraightFuzz() override;

  float GetClipLevel() const { return clipLevel_; }
  float GetTrashGain() const { return trashGain_; }
  void ProcessInPlace(unsigned frames, float* const* channels,
                      const vexcore::utility::Flags<std::uint64_t>& skip) override;

 protected:
  void UpdateFactors() override;

 private:
  float clipLevel_ = 1.0f;
  float trashGain_ = 1.0f;
};

}  // namespace straightfuzz
}  // namespace guitarsuite
}  // namespace dsp
