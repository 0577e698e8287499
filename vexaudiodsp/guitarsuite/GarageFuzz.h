#pragma once

#include "vexaudiodsp/guitarsuite/Distortion.h"

namespace dsp {
namespace guitarsuite {
namespace garagefuzz {

/// Fuzz on a logistic curve: u = gIn x, s = 2 (1 / (1 + e^(-k drive u)) -
/// 0.5), which runs from -1 to 1, and y = (m s + (1 - m) u) gOut with m the
/// mix and k = 1 + 9 trash (1 ... 10) steepening the curve.
class VEXAUDIODSP_API GarageFuzz : public Distortion {
 public:
  GarageFuzz(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  GarageFuzz(const GarageFuzz& other);
  GarageFuzz& operator=(const GarageFuzz& other);
  ~GarageFuzz() override;

  float GetTrashFactor() const { return trashFactor_; }
  void ProcessInPlace(unsigned frames, float* const* channels,
                      const vexcore::utility::Flags<std::uint64_t>& skip) override;

 protected:
  void UpdateFactors() override;

 private:
  float trashFactor_ = 1.0f;
};

}  // namespace garagefuzz
}  // namespace guitarsuite
}  // namespace dsp
