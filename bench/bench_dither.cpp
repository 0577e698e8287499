// dsp::Dither per sample: flat TPDF, shaped (64-tap curve), the 96-tap
// curve and adaptive masking, beside a plain TPDF rounding loop, stereo at
// 48 kHz in 512-sample blocks.

#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/dither/Dither.h"
#include "vexaudiodsp/dither/WhiteNoise.h"

namespace {

constexpr int kBlock = 512;
constexpr int kChannels = 2;

std::vector<std::vector<float>> Signal() {
  std::vector<std::vector<float>> x(kChannels, std::vector<float>(kBlock));
  for (int c = 0; c < kChannels; ++c) {
    for (int i = 0; i < kBlock; ++i) x[c][i] = static_cast<float>(0.3 * std::sin(0.05 * i + c));
  }
  return x;
}

void RunDither(benchmark::State& state, int shaping, int adaptive) {
  dsp::Dither d;
  d.SetNumChannels(kChannels);
  d.SetSampleRate(48000.0f);
  d.SetDitheringType(dsp::kDitherTriangular, shaping, adaptive);
  d.Initialize();
  auto x = Signal();
  std::vector<std::vector<float>> y = x;
  float* in[kChannels] = {x[0].data(), x[1].data()};
  float* out[kChannels] = {y[0].data(), y[1].data()};
  for (auto _ : state) {
    d.Process(in, out, kBlock);
    benchmark::DoNotOptimize(y[0].data());
  }
  vexbench::ReportTimePerSample(state, kBlock * kChannels);
}

void BM_DitherFlat(benchmark::State& state) { RunDither(state, dsp::kShapingNone, dsp::kAdaptiveOff); }
void BM_DitherShaped64(benchmark::State& state) { RunDither(state, dsp::kShapingStandard, dsp::kAdaptiveOff); }
void BM_DitherShaped96(benchmark::State& state) { RunDither(state, dsp::kShapingSteeper, dsp::kAdaptiveOff); }
void BM_DitherAdaptive(benchmark::State& state) { RunDither(state, dsp::kShapingStandard, dsp::kAdaptiveMasking); }

// The floor: TPDF from the same generator and rounding, nothing else.
void BM_PlainTpdfLoop(benchmark::State& state) {
  auto x = Signal();
  std::vector<std::vector<float>> y = x;
  dsp::WhiteNoise noise(1);
  for (auto _ : state) {
    for (int c = 0; c < kChannels; ++c) {
      for (int i = 0; i < kBlock; ++i) {
        const double d = noise.fRandom() + noise.fRandom() - 1.0;
        y[c][i] = static_cast<float>(std::floor(x[c][i] * 32768.0 + d + 0.5) / 32768.0);
      }
    }
    benchmark::DoNotOptimize(y[0].data());
  }
  vexbench::ReportTimePerSample(state, kBlock * kChannels);
}

BENCHMARK(BM_DitherFlat);
BENCHMARK(BM_DitherShaped64);
BENCHMARK(BM_DitherShaped96);
BENCHMARK(BM_DitherAdaptive);
BENCHMARK(BM_PlainTpdfLoop);

}  // namespace
