// Cost of running effects through DSPProcessChain against calling the same
// processes directly, 2 channels x 512-sample blocks at 48 kHz.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

constexpr int kChannels = 2;
constexpr int kBlock = 512;
constexpr float kRate = 48000.0f;

class Gain : public dsp::DSPProcess {
 public:
  explicit Gain(float gain) : gain_(gain) {}
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (int ch = 0; ch < numChannels; ++ch)
      vexaccelerate::utility::MulConstant(static_cast<std::size_t>(numSamples), in[ch], out[ch], gain_);
  }

 private:
  float gain_;
};

struct Planar {
  Planar() : data(kChannels, std::vector<float>(kBlock, 0.25f)) {
    for (auto& ch : data) ptrs.push_back(ch.data());
  }
  std::vector<std::vector<float>> data;
  std::vector<float*> ptrs;
};

void SetCounter(benchmark::State& state) {
  vexbench::ReportTimePerSample(state, static_cast<double>(kBlock) * kChannels);
}

void BM_ChainOfThreeGains(benchmark::State& state) {
  dsp::DSPProcessChain chain;
  for (int slot = 0; slot < 3; ++slot)
    chain.Add(slot, dsp::SlotInfo(std::make_shared<Gain>(1.0f + 1e-3f * slot), true));
  chain.SetIOConfig(kChannels, kRate);
  chain.Start();
  Planar in, out;
  for (auto _ : state) {
    chain.Process(in.ptrs.data(), out.ptrs.data(), kChannels, kBlock);
    benchmark::DoNotOptimize(out.data[0].data());
    benchmark::ClobberMemory();
  }
  SetCounter(state);
}
BENCHMARK(BM_ChainOfThreeGains);

// The same three processes called one after another by the host, ping-ponging
// its own two buffers: the chain's overhead is the difference.
void BM_ThreeGainsDirect(benchmark::State& state) {
  std::vector<std::shared_ptr<dsp::DSPProcess>> gains;
  for (int slot = 0; slot < 3; ++slot) gains.push_back(std::make_shared<Gain>(1.0f + 1e-3f * slot));
  Planar in, tmp, out;
  for (auto _ : state) {
    gains[0]->Process(in.ptrs.data(), tmp.ptrs.data(), kChannels, kBlock);
    gains[1]->Process(tmp.ptrs.data(), out.ptrs.data(), kChannels, kBlock);
    gains[2]->Process(out.ptrs.data(), tmp.ptrs.data(), kChannels, kBlock);
    benchmark::DoNotOptimize(tmp.data[0].data());
    benchmark::ClobberMemory();
  }
  SetCounter(state);
}
BENCHMARK(BM_ThreeGainsDirect);

// Plain scalar baseline: the three gains folded into one loop.
void BM_ScalarLoop(benchmark::State& state) {
  Planar in, out;
  const float g0 = 1.0f, g1 = 1.001f, g2 = 1.002f;
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) {
      const float* src = in.ptrs[static_cast<std::size_t>(ch)];
      float* dst = out.ptrs[static_cast<std::size_t>(ch)];
      for (int i = 0; i < kBlock; ++i) dst[i] = ((src[i] * g0) * g1) * g2;
    }
    benchmark::DoNotOptimize(out.data[0].data());
    benchmark::ClobberMemory();
  }
  SetCounter(state);
}
BENCHMARK(BM_ScalarLoop);

}  // namespace
