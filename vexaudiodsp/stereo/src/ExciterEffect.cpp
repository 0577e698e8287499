// The harmonic exciter as a runnable effect on any number of channels.

#include <memory>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/stereo/HarmonicExciter.h"

namespace dsp {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

class ExciterEffect final : public host::Effect {
 public:
  enum Param { kMode, kAmount, kMix };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "exciter";
    info.description = "Adds harmonics by Retro (rational), Tape (sine) or Tube (envelope-scaled) saturation.";
    info.params = {
        ParamDescriptor::Choice("mode", "Flavour", {"retro", "tape", "tube"}, 2,
                                "retro: rational soft clip; tape: sine saturation; tube: polynomial scaled to the "
                                "signal's envelope, which also raises the dry level by 0.2 * amount * mix"),
        ParamDescriptor::Number("amount", "Drive", "dB", 0.0, 15.0, 6.0, "drive; 0 bypasses the effect"),
        ParamDescriptor::Number("mix", "Mix", "%", 0.0, 100.0, 50.0, "wet share"),
    };
    info.note = "Defaults to 6 dB of drive at 50 % mix so that the bare name is audible; amount 0 passes the audio.";
    info.create = [](const EffectInfo& i) { return std::make_unique<ExciterEffect>(i); };
    return info;
  }

  explicit ExciterEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    if (exciter_) exciter_->ClearEnvelopes();
  }

 protected:
  void Configure() override {
    exciter_ = vexcore::utility::MakeRef<HarmonicExciter::HarmonicExciter>(static_cast<float>(GetSampleRate()),
                                                                           GetNumChannels());
    channels_.assign(static_cast<std::size_t>(GetNumChannels()), nullptr);
    scratch_.assign(static_cast<std::size_t>(kMaxBlock), 0.0f);
  }

  void ApplyParameters() override {
    exciter_->SetMode(static_cast<unsigned>(GetValue(kMode)));
    exciter_->SetAmount(static_cast<float>(GetValue(kAmount)));
    exciter_->SetMixPercent(static_cast<float>(GetValue(kMix)));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    const auto n = static_cast<unsigned>(numFrames);
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(n, in[ch], out[ch]);
    }
    if (numChannels == GetNumChannels()) {
      exciter_->ProcessInPlace(n, out);
      return;
    }
    // Fewer channels than configured: the missing ones are fed silence in a
    // scratch block, so the exciter never reads past the caller's table.
    vexaccelerate::utility::Zero(n, scratch_.data());
    for (int ch = 0; ch < GetNumChannels(); ++ch) {
      channels_[static_cast<std::size_t>(ch)] = ch < numChannels ? out[ch] : scratch_.data();
    }
    exciter_->ProcessInPlace(n, channels_.data());
  }

 private:
  vexcore::utility::RefPtr<HarmonicExciter::HarmonicExciter> exciter_;
  std::vector<float*> channels_;
  std::vector<float> scratch_;
};

const host::EffectRegistration kExciter{ExciterEffect::Info()};

}  // namespace
}  // namespace dsp
