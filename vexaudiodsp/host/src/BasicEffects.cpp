// The effects every build has: a plain gain and a plain delay, small
// adapters over library primitives.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "vexaccelerate/Utility.h"
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

// An integer-sample delay per channel on a plain ring. (utility::DelayLine
// keeps a stale sample through Reset, so a reset delay would not repeat a
// fresh one.) The delay is the effect, so it is not reported as latency (a
// host must not compensate it away) but as a tail: the delayed end of the
// input comes out after the input stops.
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
    std::fill(ring_.begin(), ring_.end(), 0.0f);
    position_ = 0;
  }

  std::int64_t GetTailFrames() const override { return delay_; }

 protected:
  void Configure() override {
    // Milliseconds to samples round half away from zero.
    delay_ = static_cast<int>(std::lround(GetValue(kMs) * GetSampleRate() / 1000.0));
    ring_.assign(static_cast<std::size_t>(delay_) * static_cast<std::size_t>(GetNumChannels()), 0.0f);
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    if (delay_ == 0) {
      for (int ch = 0; ch < numChannels; ++ch) {
        if (in[ch] != out[ch]) {
          vexaccelerate::utility::Copy(static_cast<std::size_t>(numFrames), in[ch], out[ch]);
        }
      }
      return;
    }
    for (int ch = 0; ch < numChannels; ++ch) {
      float* ring = ring_.data() + static_cast<std::size_t>(ch) * static_cast<std::size_t>(delay_);
      int p = position_;
      for (int i = 0; i < numFrames; ++i) {
        const float x = in[ch][i];
        out[ch][i] = ring[p];
        ring[p] = x;
        p = p + 1 == delay_ ? 0 : p + 1;
      }
    }
    position_ = static_cast<int>((position_ + static_cast<std::int64_t>(numFrames)) % delay_);
  }

 private:
  int delay_ = 0;
  int position_ = 0;
  std::vector<float> ring_;
};

const EffectRegistration kGain{GainEffect::Info()};
const EffectRegistration kDelay{DelayEffect::Info()};

}  // namespace
}  // namespace host
}  // namespace dsp
