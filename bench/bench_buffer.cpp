// AudioBuffer::CopyFrom and Mix on a 2 x 512 block against plain scalar loops
// over the same samples, in ns per sample per channel.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"

namespace {

constexpr std::uint32_t kChannels = 2;
constexpr std::uint32_t kBlock = 512;

void Fill(dsp::AudioBuffer& b, float base) {
  for (std::uint32_t ch = 0; ch < kChannels; ++ch) {
    for (std::uint32_t i = 0; i < kBlock; ++i) b[ch][i] = base + 1e-4f * static_cast<float>(i + ch);
  }
}

void SetCounters(benchmark::State& state) {
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}

void BM_AudioBufferCopyFrom(benchmark::State& state) {
  dsp::AudioBuffer src(kChannels, kBlock), dst(kChannels, kBlock);
  Fill(src, 0.25f);
  for (auto _ : state) {
    dst.CopyFrom(src);
    benchmark::DoNotOptimize(dst[0]);
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_AudioBufferCopyFrom);

void BM_ScalarCopy(benchmark::State& state) {
  std::vector<std::vector<float>> src(kChannels, std::vector<float>(kBlock, 0.25f));
  std::vector<std::vector<float>> dst(kChannels, std::vector<float>(kBlock));
  for (auto _ : state) {
    for (std::uint32_t ch = 0; ch < kChannels; ++ch) {
      const float* s = src[ch].data();
      float* d = dst[ch].data();
      benchmark::DoNotOptimize(s);
      for (std::uint32_t i = 0; i < kBlock; ++i) d[i] = s[i];
    }
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_ScalarCopy);

void BM_AudioBufferMix(benchmark::State& state) {
  dsp::AudioBuffer src(kChannels, kBlock), dst(kChannels, kBlock);
  Fill(src, 1e-6f);
  Fill(dst, 0.0f);
  for (auto _ : state) {
    dst.Mix(src);
    benchmark::DoNotOptimize(dst[0]);
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_AudioBufferMix);

void BM_ScalarMix(benchmark::State& state) {
  std::vector<std::vector<float>> src(kChannels, std::vector<float>(kBlock, 1e-6f));
  std::vector<std::vector<float>> dst(kChannels, std::vector<float>(kBlock, 0.0f));
  for (auto _ : state) {
    for (std::uint32_t ch = 0; ch < kChannels; ++ch) {
      const float* s = src[ch].data();
      float* d = dst[ch].data();
      benchmark::DoNotOptimize(s);
      for (std::uint32_t i = 0; i < kBlock; ++i) d[i] += s[i];
    }
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_ScalarMix);

}  // namespace
