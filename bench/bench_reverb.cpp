// The plate reverb beside the bare work it is made of: the same number of
// damped comb and all-pass steps per sample and channel, written as one
// plain loop with no filters, mixing or bookkeeping. The ratio is the
// overhead of the class (below 1: the class runs its combs four to an SSE
// vector, the bare loop one by one).
//
// The whole-command comparison is timed outside this program, on ten
// minutes of stereo 48 kHz float noise:
//   sox -n -r 48000 -c 2 -b 32 -e float x.wav synth 600 pinknoise
//   time vexdsp process x.wav y.wav reverb;  time sox x.wav z.wav reverb

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/reverb/PlateReverb.h"

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kBlock = 512;

std::vector<std::vector<float>> NoiseBlock() {
  std::mt19937 rng(1);
  std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
  std::vector<std::vector<float>> x(kChannels, std::vector<float>(kBlock));
  for (auto& channel : x) {
    for (float& v : channel) v = dist(rng);
  }
  return x;
}

void BM_PlateReverb(benchmark::State& state) {
  dsp::PlateReverb::PlateReverb reverb(kRate, kChannels);
  reverb.SetWetOutPercent(30.0f);
  reverb.SetReflectionsDelay(10.0f);
  auto x = NoiseBlock();
  float* p[] = {x[0].data(), x[1].data()};
  for (auto _ : state) {
    reverb.ProcessInPlace(kBlock, p);
    benchmark::DoNotOptimize(x[0][0]);
  }
  vexbench::ReportTimePerSample(state, kBlock * kChannels);
}
BENCHMARK(BM_PlateReverb);

// Frame by frame, each channel's 8 combs and 4 all-passes as plain arrays.
struct BareTank {
  struct Line {
    std::vector<float> buf;
    std::uint32_t pos = 0;
    float lp = 0, low = 0;
  };
  std::array<Line, 8> combs;
  std::array<Line, 4> aps;
  explicit BareTank(unsigned spread) {
    const unsigned combLen[] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
    const unsigned apLen[] = {556, 441, 341, 225};
    for (int i = 0; i < 8; ++i) combs[i].buf.assign(combLen[i] + spread, 0.0f);
    for (int i = 0; i < 4; ++i) aps[i].buf.assign(apLen[i] + spread, 0.0f);
  }
};

void BM_BareCombAllPassLoop(benchmark::State& state) {
  std::vector<BareTank> tanks{BareTank(0), BareTank(23)};
  auto x = NoiseBlock();
  const float feedback = 0.924f, hf = 0.708f, lf = 0.0f;
  for (auto _ : state) {
    for (int n = 0; n < kBlock; ++n) {
      const float input = (x[0][n] + x[1][n]) * 0.015f;
      for (int ch = 0; ch < kChannels; ++ch) {
        BareTank& t = tanks[ch];
        float acc = 0.0f;
        for (auto& c : t.combs) {
          const float y = c.buf[c.pos];
          c.lp += (y - c.lp) * hf;
          c.low += (c.lp - c.low) * lf;
          c.buf[c.pos] = input + (c.lp - c.low) * feedback;
          if (++c.pos == c.buf.size()) c.pos = 0;
          acc += y;
        }
        for (auto& a : t.aps) {
          const float y = a.buf[a.pos];
          a.buf[a.pos] = 0.5f * y + acc;
          if (++a.pos == a.buf.size()) a.pos = 0;
          acc = y - acc;
        }
        x[ch][n] += acc * 0.3f;
      }
    }
    benchmark::DoNotOptimize(x[0][0]);
  }
  vexbench::ReportTimePerSample(state, kBlock * kChannels);
}
BENCHMARK(BM_BareCombAllPassLoop);

}  // namespace
