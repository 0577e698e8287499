// The effects every build has: a plain gain and a plain delay. Each is a
// small dsp::DSPProcess adapter over library primitives, registered once.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "EffectRegistry.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/buffering/DSPProcess.h"
#include "vexaudiodsp/buffering/DelayLine.h"
#include "vexcore/RefCounted.h"

namespace vexdsp {
namespace {

class GainProcess final : public dsp::DSPProcess {
 public:
  explicit GainProcess(double gainDb) : gain_(static_cast<float>(std::pow(10.0, gainDb / 20.0))) {}

  void SetIOConfig(int numChannels, float /*sampleRate*/) override { numChannels_ = numChannels; }

  void Process(float** in, float** out, int numChannels, int numSamples) override {
    const int channels = std::min(numChannels, numChannels_);
    const auto n = static_cast<std::size_t>(std::max(numSamples, 0));
    for (int ch = 0; ch < channels; ++ch) {
      if (in[ch] == out[ch]) {
        vexaccelerate::utility::MulConstant_InPlace(n, out[ch], gain_);
      } else {
        vexaccelerate::utility::MulConstant(n, in[ch], out[ch], gain_);
      }
    }
  }

 private:
  float gain_;
  int numChannels_ = 0;
};

// One dsp::utility::DelayLine per channel. The delay is the effect, so it is
// not reported as latency: the host must not compensate it away.
class DelayProcess final : public dsp::DSPProcess {
 public:
  explicit DelayProcess(double delayMs) : delayMs_(static_cast<float>(delayMs)) {}

  void SetIOConfig(int numChannels, float sampleRate) override {
    numChannels_ = numChannels;
    sampleRate_ = sampleRate;
  }

  // The lines are built here rather than in SetIOConfig so that every run
  // starts from silence.
  void Start() override {
    lines_.clear();
    lines_.reserve(static_cast<std::size_t>(std::max(numChannels_, 0)));
    for (int ch = 0; ch < numChannels_; ++ch) {
      // One spare millisecond keeps the rounded delay clear of the line's
      // clamp to its length.
      auto line = vexcore::utility::MakeRef<dsp::utility::DelayLine>(sampleRate_, delayMs_ + 1.0f);
      line->SetDelayMillis(delayMs_);
      lines_.push_back(std::move(line));
    }
  }

  void Process(float** in, float** out, int numChannels, int numSamples) override {
    if (numSamples < 1) {
      return;
    }
    const int channels = std::min(numChannels, static_cast<int>(lines_.size()));
    const auto n = static_cast<unsigned>(numSamples);
    for (int ch = 0; ch < channels; ++ch) {
      if (in[ch] != out[ch]) {
        vexaccelerate::utility::Copy(n, in[ch], out[ch]);
      }
      lines_[static_cast<std::size_t>(ch)]->ProcessInPlace(n, out[ch]);
    }
  }

  void Done() override { lines_.clear(); }

 private:
  float delayMs_;
  int numChannels_ = 0;
  float sampleRate_ = 48000.0f;
  std::vector<vexcore::utility::RefPtr<dsp::utility::DelayLine>> lines_;
};

const EffectRegistration kGain{
    EffectDefinition{"gain",
                     "Multiplies every channel by a constant gain.",
                     {{"db", "dB", -120.0, 48.0, 0.0, "gain in decibels (linear factor 10^(db/20))"}},
                     "",
                     DescribeAnyLayout(),
                     CheckAnyLayout,
                     [](const EffectParams& params) { return std::make_shared<GainProcess>(params.at("db")); }}};

const EffectRegistration kDelay{EffectDefinition{
    "delay",
    "Delays every channel by a whole number of samples (the time rounded to the nearest sample).",
    {{"ms", "ms", 0.0, 10000.0, 0.0, "delay time"}},
    "The delay is the effect, so it is not compensated: the output keeps the input's length and the last "
    "ms of delayed audio are cut.",
    DescribeAnyLayout(),
    CheckAnyLayout,
    [](const EffectParams& params) { return std::make_shared<DelayProcess>(params.at("ms")); }}};

}  // namespace
}  // namespace vexdsp
