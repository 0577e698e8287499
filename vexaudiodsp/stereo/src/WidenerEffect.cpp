// The stereo widener as a runnable effect. The host-facing width is the side
// level in percent (100 = unchanged), matching the expander's scale; the
// library's width is the offset from unity.

#include <algorithm>
#include <memory>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/stereo/StereoWidener.h"

namespace dsp {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

class WidenerEffect final : public host::Effect {
 public:
  enum Param { kWidth, kDelay };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "widener";
    info.description = "Widens or narrows a stereo pair by scaling its side signal, with an optional Haas delay.";
    info.params = {
        ParamDescriptor::Number("width", "Side level", "%", 0.0, 300.0, 150.0,
                                "side (L - R) level: 0 = mono, 100 = unchanged, 200 = side doubled"),
        ParamDescriptor::Number("delay", "Haas delay", "ms", -15.0, 15.0, 0.0,
                                "delays the right channel (positive) or the left (negative) before the width "
                                "stage; one sample less than the time rounded to samples"),
    };
    info.io.minChannels = 2;
    info.io.maxChannels = 2;
    info.note =
        "Takes exactly one stereo pair. The default side level of 150 % widens audibly. A delay of d ms holds "
        "one channel back by round(d * rate / 1000) - 1 samples.";
    info.create = [](const EffectInfo& i) { return std::make_unique<WidenerEffect>(i); };
    return info;
  }

  explicit WidenerEffect(const EffectInfo& info) : Effect(info) {}

  // Setting the delay again clears the ring in use: a fresh start.
  void Reset() override {
    if (widener_) widener_->SetDelay(widener_->GetDelay());
  }

  std::int64_t GetTailFrames() const override {
    return widener_ ? std::max<std::int64_t>(0, std::int64_t{widener_->GetDelayLength()} - 1) : 0;
  }

 protected:
  void Configure() override {
    widener_ = vexcore::utility::MakeRef<StereoWidener::StereoWidener>(static_cast<float>(GetSampleRate()), 2u);
    appliedDelay_ = 0.0f;
  }

  void ApplyParameters() override {
    widener_->SetWidth(static_cast<float>(GetValue(kWidth) / 100.0 - 1.0));
    // Only a new delay may clear the ring; other changes must not.
    const auto delay = static_cast<float>(GetValue(kDelay));
    if (delay != appliedDelay_) {
      widener_->SetDelay(delay);
      appliedDelay_ = delay;
    }
  }

  void ProcessBlock(float** in, float** out, int /*numChannels*/, int numFrames) override {
    const auto n = static_cast<unsigned>(numFrames);
    for (int ch = 0; ch < 2; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(n, in[ch], out[ch]);
    }
    widener_->ProcessInPlace(n, out);
  }

 private:
  vexcore::utility::RefPtr<StereoWidener::StereoWidener> widener_;
  float appliedDelay_ = 0.0f;
};

const host::EffectRegistration kWidener{WidenerEffect::Info()};

}  // namespace
}  // namespace dsp
