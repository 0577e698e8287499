// The plate reverb as a runnable effect on any number of channels.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/reverb/PlateReverb.h"

namespace dsp {
namespace PlateReverb {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

// The tail is followed until the slowest comb has fallen 100 dB.
constexpr double kTailFloor = 1e-5;

class ReverbEffect final : public host::Effect {
 public:
  enum Param { kRoom, kDamping, kLowDamping, kWidth, kPredelay, kLowCut, kLowCutQ, kHighCut, kHighCutQ, kDry, kWet };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "reverb";
    info.description =
        "Plate reverb: eight damped combs and four diffusers per channel, with width and wet-path "
        "low and high cuts.";
    info.params = {
        ParamDescriptor::Number("room", "Room size", "", 0.0, 1.0, 0.8, "decay: comb feedback 0.7 (0) to 0.98 (1)"),
        ParamDescriptor::Number("damping", "High damping", "", 0.0, 1.0, 0.73, "how fast high frequencies decay"),
        ParamDescriptor::Number("lowdamping", "Low damping", "", 0.0, 1.0, 0.0, "how fast low frequencies decay"),
        ParamDescriptor::Number("width", "Width", "", 0.0, 1.0, 1.0, "stereo only: 0 = mono wet, 1 = no cross-feed"),
        ParamDescriptor::Number("predelay", "Reflections delay", "ms", 0.0, PlateReverb::kMaxReflectionsDelayMs, 0.0,
                                "delay of the wet path, one sample less than the time rounded to samples"),
        ParamDescriptor::Number("lowcut", "Low cut", "Hz", 20.0, 20000.0, 50.0,
                                "wet-path high-pass corner; above half the rate it silences the wet path")
            .Logarithmic(),
        ParamDescriptor::Number("lowcut_q", "Low cut Q", "", 0.2, 12.0, 2.0, "Q of the low cut"),
        ParamDescriptor::Number("highcut", "High cut", "Hz", 20.0, 20000.0, 7000.0,
                                "wet-path low-pass corner; above half the rate it is off")
            .Logarithmic(),
        ParamDescriptor::Number("highcut_q", "High cut Q", "", 0.2, 12.0, 2.0, "Q of the high cut"),
        ParamDescriptor::Number("dry", "Dry", "%", 0.0, 100.0, 100.0, "dry level"),
        ParamDescriptor::Number("wet", "Wet", "%", 0.0, 100.0, 30.0, "wet level"),
    };
    info.note =
        "Defaults to 30 % wet so that the bare name is audible. The tank's lengths are fixed sample counts: the "
        "reverb is shorter and brighter at higher rates.";
    info.create = [](const EffectInfo& i) { return std::make_unique<ReverbEffect>(i); };
    return info;
  }

  explicit ReverbEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    if (reverb_) reverb_->Reset();
  }

  std::int64_t GetTailFrames() const override {
    if (!reverb_) return 0;
    const int channels = reverb_->GetChannelCount();
    if (channels < 1) return 0;
    const auto spread = static_cast<double>((channels - 1) * PlateReverb::kChannelSpread);
    const double longestComb = PlateReverb::kCombLengths[PlateReverb::kNumCombs - 1] + spread;
    double diffusers = 0.0;
    for (unsigned int length : PlateReverb::kAllPassLengths) diffusers += length + spread;
    const double feedback = std::clamp(static_cast<double>(reverb_->GetComb(0, 0).GetFeedback()), 1e-3, 0.999);
    const double decay = longestComb * std::ceil(std::log(kTailFloor) / std::log(feedback));
    return static_cast<std::int64_t>(decay + diffusers + reverb_->GetReflectionsLength() + 0.05 * GetSampleRate());
  }

 protected:
  void Configure() override {
    reverb_ = vexcore::utility::MakeRef<PlateReverb>(static_cast<float>(GetSampleRate()), GetNumChannels());
    reverb_->SetMaxProcessingBlockSize(kMaxBlock);
    appliedPredelay_ = -1.0;
    channels_.assign(static_cast<std::size_t>(GetNumChannels()), nullptr);
    scratch_.assign(static_cast<std::size_t>(kMaxBlock), 0.0f);
  }

  void ApplyParameters() override {
    PlateReverb& r = *reverb_;
    r.SetRoomSize(static_cast<float>(GetValue(kRoom)));
    r.SetDampingHF(static_cast<float>(GetValue(kDamping)));
    r.SetDampingLF(static_cast<float>(GetValue(kLowDamping)));
    r.SetWidth(static_cast<float>(GetValue(kWidth)));
    r.SetLowCutoffFreq(static_cast<float>(GetValue(kLowCut)));
    r.SetLowCutoffQ(static_cast<float>(GetValue(kLowCutQ)));
    r.SetHighCutoffFreq(static_cast<float>(GetValue(kHighCut)));
    r.SetHighCutoffQ(static_cast<float>(GetValue(kHighCutQ)));
    r.SetDryOutPercent(static_cast<float>(GetValue(kDry)));
    r.SetWetOutPercent(static_cast<float>(GetValue(kWet)));
    // Setting the reflections delay clears its line: only on a real change.
    if (GetValue(kPredelay) != appliedPredelay_) {
      appliedPredelay_ = GetValue(kPredelay);
      r.SetReflectionsDelay(static_cast<float>(appliedPredelay_));
    }
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    const auto n = static_cast<unsigned>(numFrames);
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(n, in[ch], out[ch]);
    }
    if (numChannels == GetNumChannels()) {
      reverb_->ProcessInPlace(n, out);
      return;
    }
    // Fewer channels than configured: the missing ones are silence in a
    // scratch block, so the reverb never reads past the caller's table.
    vexaccelerate::utility::Zero(n, scratch_.data());
    for (int ch = 0; ch < GetNumChannels(); ++ch) {
      channels_[static_cast<std::size_t>(ch)] = ch < numChannels ? out[ch] : scratch_.data();
    }
    reverb_->ProcessInPlace(n, channels_.data());
  }

 private:
  vexcore::utility::RefPtr<PlateReverb> reverb_;
  double appliedPredelay_ = -1.0;
  std::vector<float*> channels_;
  std::vector<float> scratch_;
};

const host::EffectRegistration kReverb{ReverbEffect::Info()};

}  // namespace
}  // namespace PlateReverb
}  // namespace dsp
