// The cabinet simulator as a runnable effect; model and microphone are
// chosen by name.

#include <memory>
#include <string>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/guitarsuite/BoxModeler.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace guitarsuite {
namespace boxmodeler {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

class CabinetEffect final : public host::Effect {
 public:
  enum Param { kModel, kMic, kMix, kSeparation, kSpread };

  static EffectInfo Info() {
    std::vector<std::string> models, mics;
    for (int i = 0; i < BoxModeler::kNumModels; ++i) models.emplace_back(BoxModeler::GetModelName(i));
    for (int i = 0; i < BoxModeler::kNumMicTypes; ++i) mics.emplace_back(BoxModeler::GetMicName(i));
    EffectInfo info;
    info.name = "cabinet";
    info.description = "Guitar speaker cabinet and microphone simulation by convolution with a synthesised impulse.";
    info.params = {
        ParamDescriptor::Choice("model", "Cabinet", std::move(models), 0, "cabinet model").RebuildsState(),
        ParamDescriptor::Choice("mic", "Microphone", std::move(mics), 0, "microphone type and position")
            .RebuildsState(),
        ParamDescriptor::Number("mix", "Mix", "%", 0.0, 100.0, 100.0, "share of the cabinet sound"),
        ParamDescriptor::Number("separation", "Mic separation", "ms", -BoxModeler::kMaxSeparationMillis,
                                BoxModeler::kMaxSeparationMillis, 0.0,
                                "stereo only: delays the left (positive) or the right (negative) channel"),
        ParamDescriptor::Number("spread", "Mic spread", "", 0.0, 1.0, 1.0, "stereo only: 1 keeps the width, 0 is mono"),
    };
    info.note = "Impulses are 25 to 72 ms long; there is no latency.";
    info.create = [](const EffectInfo& i) { return std::make_unique<CabinetEffect>(i); };
    return info;
  }

  explicit CabinetEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {
    if (box_) box_->Reset();
  }
  std::int64_t GetTailFrames() const override { return box_ ? box_->GetTailFrames() : 0; }

 protected:
  void Configure() override {
    box_ = vexcore::utility::MakeRef<BoxModeler>(
        static_cast<float>(GetSampleRate()), vexmediatypes::CreateDefaultChannelLayout(GetNumChannels()),
        static_cast<unsigned>(kMaxBlock), static_cast<int>(GetValue(kModel)), static_cast<int>(GetValue(kMic)));
  }

  void ApplyParameters() override {
    if (!box_) return;
    box_->SetMixPercent(static_cast<float>(GetValue(kMix)));
    box_->SetMicSeparation(static_cast<float>(GetValue(kSeparation)));
    box_->SetMicSpread(static_cast<float>(GetValue(kSpread)));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(static_cast<std::size_t>(numFrames), in[ch], out[ch]);
    }
    box_->ProcessInPlace(static_cast<unsigned>(numFrames), out,
                         ~vexcore::utility::Flags<std::uint64_t>::LowBits(static_cast<unsigned>(numChannels)));
  }

 private:
  vexcore::utility::RefPtr<BoxModeler> box_;
};

const host::EffectRegistration kCabinet{CabinetEffect::Info()};

}  // namespace
}  // namespace boxmodeler
}  // namespace guitarsuite
}  // namespace dsp
