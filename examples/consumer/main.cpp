// The smallest useful host: a two-slot chain run over a planar buffer.
#include <cmath>
#include <cstdio>
#include <memory>

#include "vexaudiodsp/buffering/AudioBuffer.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

class Gain : public dsp::DSPProcess {
 public:
  explicit Gain(float gain) : gain_(gain) {}
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (int ch = 0; ch < numChannels; ++ch)
      for (int i = 0; i < numSamples; ++i) out[ch][i] = in[ch][i] * gain_;
  }

 private:
  float gain_;
};

}  // namespace

int main() {
  const int channels = 2, frames = 1000;
  dsp::AudioBuffer buffer(channels, frames);
  for (int ch = 0; ch < channels; ++ch)
    for (int i = 0; i < frames; ++i) buffer[ch][i] = std::sin(0.01f * float(i + ch));

  dsp::DSPProcessChain chain;
  chain.Add(0, dsp::SlotInfo(std::make_shared<Gain>(0.5f), true));
  chain.Add(1, dsp::SlotInfo(std::make_shared<Gain>(4.0f), true));
  chain.SetIOConfig(channels, 48000.0f);
  chain.Start();

  dsp::AudioBuffer result(channels, frames);
  chain.Process(buffer.GetFloatBuffers(), result.GetFloatBuffers(), channels, frames);
  chain.Done();

  for (int ch = 0; ch < channels; ++ch)
    for (int i = 0; i < frames; ++i)
      if (std::fabs(result[ch][i] - 2.0f * buffer[ch][i]) > 1e-6f) {
        std::printf("mismatch at channel %d sample %d\n", ch, i);
        return 1;
      }
  std::printf("consumer: %d channels x %d frames through a 2-slot chain, gain 2 verified\n", channels, frames);
  return 0;
}
