#pragma once

#include "vexaudiodsp/guitarsuite/Distortion.h"

namespace dsp {
namespace guitarsuite {
namespace smoothoverdrive {

/// Overdrive on a rational soft clip: v = drive k gIn x with k = 10^(1.5
/// trash) (0 ... 30 dB); s = 1 - 1/(1 + v) for v > 0, 1/(1 - v) - 1
/// otherwise; y = ((1 - m) u + 0.5012 m s) gOut. With trash at 0 (k exactly
/// 1) the curve is bypassed and y = (0.5012 m drive + 1 - m) u, without the
/// output gain: a clean boost.
class VEXAUDIODSP_API SmoothOverdrive : public Distortion {
 public:
  SmoothOverdrive(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  SmoothOverdrive(const SmoothOverdrive& other);
  SmoothOverdrive& operator=(const SmoothOverdrive& other);
  ~SmoothOverdrive() override;

  float GetTrashFactor() const { return trashFactor_; }
  void ProcessInPlace(unsigned frames, float* const* channels,
                      const vexcore::utility::Flags<std::uint64_t>& skip) override;

 protected:
  void UpdateFactors() override;

 private:
  float trashFactor_ = 1.0f;
};

}  // namespace smoothoverdrive
}  // namespace guitarsuite
}  // namespace dsp
