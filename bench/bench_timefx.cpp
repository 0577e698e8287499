// The analog delay, the stereo expander and widener and the harmonic
// exciter at 48 kHz stereo in 512-frame blocks, each beside the plain loop
// of its core arithmetic where one makes sense.

#include <cmath>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/analogdelay/AnalogDelayDSP.h"
#include "vexaudiodsp/stereo/HarmonicExciter.h"
#include "vexaudiodsp/stereo/StereoExpanderDSP.h"
#include "vexaudiodsp/stereo/StereoWidener.h"

namespace {

constexpr int kRate = 48000;
constexpr int kBlock = 512;

struct Stereo {
  std::vector<float> l, r;
  float* p[2];
  Stereo() : l(kBlock), r(kBlock), p{l.data(), r.data()} {
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
    for (int i = 0; i < kBlock; ++i) {
      l[i] = dist(rng);
      r[i] = dist(rng);
    }
  }
};

void BM_AnalogDelay(benchmark::State& state) {
  dsp::analogdelay::AnalogDelayDSP delay(kRate, 2, false, false);
  delay.SetDistortionMode(static_cast<unsigned>(state.range(0)));
  delay.SetFeedback(60.0f);
  Stereo x;
  std::vector<float> outL(kBlock), outR(kBlock);
  float* out[] = {outL.data(), outR.data()};
  dsp::analogdelay::AnalogDelayDSP::ChannelFlags flags;
  for (auto _ : state) {
    delay.Process(x.p, out, kBlock, {}, flags);
    benchmark::DoNotOptimize(outL[0]);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_AnalogDelay)->Arg(0)->Arg(1)->Arg(2);

void BM_StereoExpander(benchmark::State& state) {
  dsp::StereoExpanderDSP expander;
  expander.SetParameter(1, 150.0f);
  Stereo x;
  for (auto _ : state) {
    expander.Process(x.p, x.p, kBlock);
    benchmark::DoNotOptimize(x.l[0]);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_StereoExpander);

void BM_StereoWidener(benchmark::State& state) {
  dsp::StereoWidener::StereoWidener widener(kRate, 2);
  widener.SetWidth(0.5f);
  widener.SetDelay(static_cast<float>(state.range(0)));
  Stereo x;
  for (auto _ : state) {
    widener.ProcessInPlace(kBlock, x.p);
    benchmark::DoNotOptimize(x.l[0]);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_StereoWidener)->Arg(0)->Arg(5);

void BM_HarmonicExciter(benchmark::State& state) {
  dsp::HarmonicExciter::HarmonicExciter exciter(kRate, 2);
  exciter.SetMode(static_cast<unsigned>(state.range(0)));
  exciter.SetAmount(6.0f);
  exciter.SetMixPercent(50.0f);
  Stereo x;
  const Stereo fresh;
  for (auto _ : state) {
    x.l = fresh.l;
    x.r = fresh.r;
    exciter.ProcessInPlace(kBlock, x.p);
    benchmark::DoNotOptimize(x.l[0]);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_HarmonicExciter)->Arg(0)->Arg(1)->Arg(2);

}  // namespace
