// The analog delay as a runnable effect: every setting by name, the
// saturation circuits and tempo-synced note values as named choices.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/analogdelay/AnalogDelayDSP.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace analogdelay {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

// The sync ratios in table order: dotted, straight and triplet note values
// from 1/64 to 1/2, then 1, 2, 4 and 8 bars.
const std::vector<std::string> kNoteNames = {"1/64d", "1/64", "1/64t", "1/32d", "1/32",  "1/32t", "1/16d", "1/16",
                                             "1/16t", "1/8d", "1/8",   "1/8t",  "1/4d",  "1/4",   "1/4t",  "1/2d",
                                             "1/2",   "1/2t", "1bar",  "2bars", "4bars", "8bars"};

// Repeats are followed until they fall 100 dB; delays that never die out
// (loop gain near or above 1) are given a minute.
constexpr double kTailFloor = 1e-5;
constexpr double kMaxTailSeconds = 60.0;

class AnalogDelayEffect final : public host::Effect {
 public:
  enum Param { kDelay, kFeedback, kMode, kTrash, kDry, kWet, kSpread, kSync, kNote, kTempo, kBeats };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "analogdelay";
    info.description =
        "Feedback delay after three analog circuits: saturated, low-passed and gently modulated repeats.";
    info.params = {
        ParamDescriptor::Number("delay", "Delay", "ms", kDelayMinMs, kDelayMaxMs, 200.0,
                                "time between repeats (glides when changed); ignored while sync is on")
            .Logarithmic(),
        ParamDescriptor::Number("feedback", "Feedback", "%", kFeedbackMinPercent, kFeedbackMaxPercent, 20.0,
                                "share of each repeat fed back; above 100 the wet output is soft-limited"),
        ParamDescriptor::Choice("mode", "Circuit", {"tape", "bbd", "lofi"}, 0,
                                "tape: sine saturation, 5.5 kHz; bbd: sine and soft clip, 4 kHz; lofi: hard "
                                "polarity-inverting saturation with up to 20 dB drive, 1.5 kHz"),
        ParamDescriptor::Number("trash", "Trash", "", kTrashMin, kTrashMax, 25.0, "amount of saturation"),
        ParamDescriptor::Number("dry", "Dry", "%", kLevelMinPercent, kLevelMaxPercent, 70.0, "dry level"),
        ParamDescriptor::Number("wet", "Wet", "%", kLevelMinPercent, kLevelMaxPercent, 30.0, "wet level"),
        ParamDescriptor::Number("spread", "Spread", "%", kSpreadMin, kSpreadMax, 100.0,
                                "stereo only: 0 = mono repeats, 100 = unchanged, 200 = twice as wide"),
        ParamDescriptor::Toggle("sync", "Tempo sync", false, "take the delay from tempo and note instead"),
        ParamDescriptor::Choice("note", "Note value", kNoteNames, 13,
                                "synced delay: d = dotted, t = triplet; bars have 'beats' beats"),
        ParamDescriptor::Number("tempo", "Tempo", "bpm", 20.0, 300.0, 120.0, "tempo for sync"),
        ParamDescriptor::Integer("beats", "Beats per bar", "", 1, 16, 4, "bar length for the bar note values"),
    };
    // The line holds 16 s per channel (12 MB per channel at 192 kHz).
    info.io.maxSampleRate = 192000.0;
    info.note =
        "The first repeat comes round(delay * rate / 1000) + 1 samples after the input. Synced delays longer than "
        "16 s are held to 16 s.";
    info.create = [](const EffectInfo& i) { return std::make_unique<AnalogDelayEffect>(i); };
    return info;
  }

  explicit AnalogDelayEffect(const EffectInfo& info) : Effect(info) {}

  // Reset also snaps the delay to its target, so a fresh start never glides
  // from the object's initial 200 ms.
  void Reset() override {
    if (delay_) delay_->Reset();
  }

  std::int64_t GetTailFrames() const override {
    if (!delay_) return 0;
    float dry = 0.0f, wet = 0.0f, ms = 0.0f, feedback = 0.0f;
    delay_->GetDelayValues(dry, wet, ms, feedback);
    const double rate = GetSampleRate();
    const double period = std::floor(ms * 0.001 * rate + 0.5) + 1.0;
    // The line's low-pass may peak a little above unity in the lofi voicing.
    const double loop = 1.1 * delay_->GetSmallSignalLoopGain();
    double repeats = 1.0;
    if (loop >= 0.999) {
      repeats = 1e12;
    } else if (loop > 1e-9) {
      repeats = std::max(1.0, std::ceil(std::log(kTailFloor) / std::log(loop)));
    }
    const double frames = (repeats + 1.0) * period + 0.05 * rate;
    return static_cast<std::int64_t>(std::min(frames, kMaxTailSeconds * rate));
  }

 protected:
  void Configure() override {
    delay_ =
        vexcore::utility::MakeRef<AnalogDelayDSP>(static_cast<float>(GetSampleRate()), GetNumChannels(), false, true);
    channels_.assign(static_cast<std::size_t>(GetNumChannels()), nullptr);
    inputs_.assign(static_cast<std::size_t>(GetNumChannels()), nullptr);
    scratch_.assign(static_cast<std::size_t>(2 * kMaxBlock), 0.0f);
  }

  void ApplyParameters() override {
    AnalogDelayDSP& d = *delay_;
    d.SetDelay(static_cast<float>(GetValue(kDelay)));
    d.SetFeedback(static_cast<float>(GetValue(kFeedback)));
    d.SetDistortionMode(static_cast<unsigned>(GetValue(kMode)));
    d.SetTrash(static_cast<float>(GetValue(kTrash)));
    d.SetDryOutPercent(static_cast<float>(GetValue(kDry)));
    d.SetWetOutPercent(static_cast<float>(GetValue(kWet)));
    d.SetSpread(static_cast<float>(GetValue(kSpread)));
    d.SetHostTempo(static_cast<float>(GetValue(kTempo)), static_cast<float>(GetValue(kBeats)));
    d.SetHostTempoSyncRatio(static_cast<unsigned>(GetValue(kNote)));
    d.SetHostTempoSync(GetValue(kSync) != 0.0);
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    AnalogDelayDSP::ChannelFlags unwritten;
    if (numChannels == GetNumChannels()) {
      delay_->Process(in, out, numFrames, AnalogDelayDSP::ChannelFlags(), unwritten);
      return;
    }
    // Fewer channels than configured: the others are fed silence and write
    // into scratch, so the delay never indexes past the caller's tables.
    float* silence = scratch_.data();
    float* sink = scratch_.data() + kMaxBlock;
    vexaccelerate::utility::Zero(static_cast<std::size_t>(numFrames), silence);
    for (int ch = 0; ch < GetNumChannels(); ++ch) {
      inputs_[static_cast<std::size_t>(ch)] = ch < numChannels ? in[ch] : silence;
      channels_[static_cast<std::size_t>(ch)] = ch < numChannels ? out[ch] : sink;
    }
    delay_->Process(inputs_.data(), channels_.data(), numFrames, AnalogDelayDSP::ChannelFlags(), unwritten);
  }

 private:
  vexcore::utility::RefPtr<AnalogDelayDSP> delay_;
  std::vector<float*> channels_;
  std::vector<const float*> inputs_;
  std::vector<float> scratch_;
};

const host::EffectRegistration kAnalogDelay{AnalogDelayEffect::Info()};

}  // namespace
}  // namespace analogdelay
}  // namespace dsp
