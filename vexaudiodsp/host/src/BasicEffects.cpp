// The effects every build has: a plain gain and a plain delay, small
// adapters over library primitives.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/buffering/DelayLine.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace host {
namespace {

class GainEffect final : public Effect {
 public:
  enum Param { kDb };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "gain";
    info.description = "Multiplies every channel by a constant gain.";
    info.params = {
        ParamDescriptor::Number("db", "Gain", "dB", -120.0, 48.0, 0.0, "gain in decibels (linear factor 10^(db/20))")};
    info.pureDelayAtDefaults = true;
    info.create = [](const EffectInfo& i) { return std::make_unique<GainEffect>(i); };
    return info;
  }

  explicit GainEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {}

 protected:
  void ApplyParameters() override { gain_ = static_cast<float>(std::pow(10.0, GetValue(kDb) / 20.0)); }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    const auto n = static_cast<std::size_t>(numFrames);
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] == out[ch]) {
        vexaccelerate::utility::MulConstant_InPlace(n, out[ch], gain_);
      } else {
        vexaccelerate::utility::MulConstant(n, in[ch], out[ch], gain_);
      }
    }
  }

 private:
  float gain_ = 1.0f;
};

// One dsp::utility::DelayLine per channel. The delay is the effect, so it is
// not reported as latency (a host must not compensate it away) but as a
// tail: the delayed end of the input comes out after the input stops.
class DelayEffect final : public Effect {
 public:
  enum Param { kMs };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "delay";
    info.description = "Delays every channel by a whole number of samples (the time rounded to the nearest sample).";
    info.params = {ParamDescriptor::Number("ms", "Delay", "ms", 0.0, 10000.0, 0.0, "delay time").RebuildsState()};
    info.note =
        "The delay is the effect, so it is not compensated; it is the effect's tail, so --tail auto keeps the "
        "delayed end of the input.";
    info.pureDelayAtDefaults = true;
    info.create = [](const EffectInfo& i) { return std::make_unique<DelayEffect>(i); };
    return info;
  }

  explicit DelayEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    for (auto& line : lines_) {
      line->Reset();
    }
  }

  std::int64_t GetTailFrames() const override { return lines_.empty() ? 0 : lines_.front()->GetDelaySamples(); }

 protected:
  void Configure() override {
    const auto ms = static_cast<float>(GetValue(kMs));
    lines_.clear();
    for (int ch = 0; ch < GetNumChannels(); ++ch) {
      // One spare millisecond keeps the rounded delay clear of the line's
      // clamp to its length.
      auto line = vexcore::utility::MakeRef<dsp::utility::DelayLine>(static_cast<float>(GetSampleRate()), ms + 1.0f);
      line->SetDelayMillis(ms);
      lines_.push_back(std::move(line));
    }
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    const auto n = static_cast<unsigned>(numFrames);
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) {
        vexaccelerate::utility::Copy(n, in[ch], out[ch]);
      }
      lines_[static_cast<std::size_t>(ch)]->ProcessInPlace(n, out[ch]);
    }
  }

 private:
  std::vector<vexcore::utility::RefPtr<dsp::utility::DelayLine>> lines_;
};

const EffectRegistration kGain{GainEffect::Info()};
const EffectRegistration kDelay{DelayEffect::Info()};

}  // namespace
}  // namespace host
}  // namespace dsp
