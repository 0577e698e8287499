// The guitar distortions as runnable effects: garagefuzz, overdrive and
// straightfuzz share one adapter over the Distortion interface.

#include <memory>
#include <string>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/guitarsuite/GarageFuzz.h"
#include "vexaudiodsp/guitarsuite/SmoothOverdrive.h"
#include "vexaudiodsp/guitarsuite/StraightFuzz.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace guitarsuite {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

template <typename Shaper>
class DistortionEffect final : public host::Effect {
 public:
  enum Param { kInputGain, kOverdrive, kTrash, kMix, kOutputGain };

  static EffectInfo Info(std::string name, std::string description, std::string trashMeaning) {
    EffectInfo info;
    info.name = std::move(name);
    info.description = std::move(description);
    const auto& in = Distortion::kInputGainRange;
    const auto& od = Distortion::kOverdriveRange;
    const auto& trash = Distortion::kTrashRange;
    const auto& mix = Distortion::kMixRange;
    const auto& out = Distortion::kOutputGainRange;
    info.params = {
        ParamDescriptor::Number("input_gain", "Input gain", "dB", in.minimum, in.maximum, Distortion::kDefaultInputGain,
                                "gain before the curve and in the dry path"),
        ParamDescriptor::Number("overdrive", "Overdrive", "", od.minimum, od.maximum, Distortion::kDefaultOverdrive,
                                "drive into the curve, 0 to 10 for 0 to 40 dB"),
        ParamDescriptor::Number("trash", "Trash", "", trash.minimum, trash.maximum, Distortion::kDefaultTrash,
                                std::move(trashMeaning)),
        ParamDescriptor::Number("mix", "Mix", "%", mix.minimum, mix.maximum, Distortion::kDefaultMix,
                                "share of the distorted signal"),
        ParamDescriptor::Number("output_gain", "Output gain", "dB", out.minimum, out.maximum,
                                Distortion::kDefaultOutputGain, "gain after the mix"),
    };
    info.create = [](const EffectInfo& i) { return std::make_unique<DistortionEffect>(i); };
    return info;
  }

  explicit DistortionEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {
    if (shaper_) shaper_->Reset();
  }

 protected:
  void Configure() override {
    shaper_ = std::make_unique<Shaper>(static_cast<float>(GetSampleRate()),
                                       vexmediatypes::CreateDefaultChannelLayout(GetNumChannels()));
  }

  void ApplyParameters() override {
    if (!shaper_) return;
    shaper_->SetInputGain(static_cast<float>(GetValue(kInputGain)));
    shaper_->SetOverdrive(static_cast<float>(GetValue(kOverdrive)));
    shaper_->SetTrash(static_cast<float>(GetValue(kTrash)));
    shaper_->SetMixPercent(static_cast<float>(GetValue(kMix)));
    shaper_->SetOutputGain(static_cast<float>(GetValue(kOutputGain)));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(static_cast<std::size_t>(numFrames), in[ch], out[ch]);
    }
    // Channels beyond numChannels (when the host passes fewer) are skipped.
    auto skip = ~vexcore::utility::Flags<std::uint64_t>::LowBits(static_cast<unsigned>(numChannels));
    shaper_->ProcessInPlace(static_cast<unsigned>(numFrames), out, skip);
  }

 private:
  std::unique_ptr<Shaper> shaper_;
};

const host::EffectRegistration kGarageFuzz{DistortionEffect<garagefuzz::GarageFuzz>::Info(
    "garagefuzz", "Fuzz on a logistic curve: soft at low drive, a near-square wave at high drive and trash.",
    "steepness of the curve, 1 to 10 times")};
const host::EffectRegistration kOverdrive{DistortionEffect<smoothoverdrive::SmoothOverdrive>::Info(
    "overdrive", "Smooth overdrive on a rational soft clip, -6 dB in the wet path.",
    "extra drive into the curve, 0 to 30 dB; at 0 the curve is bypassed (a clean boost without output gain)")};
const host::EffectRegistration kStraightFuzz{DistortionEffect<straightfuzz::StraightFuzz>::Info(
    "straightfuzz",
    "Hard-clip fuzz with linked channels: once any channel passes the clip level every channel becomes a square "
    "wave.",
    "lowers the clip level (0 to -51.2 dB) and raises the wet gain (0 to 35 dB)")};

}  // namespace
}  // namespace guitarsuite
}  // namespace dsp
