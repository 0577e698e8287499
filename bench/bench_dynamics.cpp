// DynamicsBand, SingleBandCompressorDSP and HardLimit (with and without
// true-peak detection), ns per sample per channel at 48 kHz on 512-sample
// stereo blocks of noise that keeps every stage working.

#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/dynamics/DynamicsBand.h"
#include "vexaudiodsp/dynamics/HardLimit.h"
#include "vexaudiodsp/dynamics/SingleBandCompressorDSP.h"

namespace {

constexpr int kBlock = 512;

std::vector<float> Noise(std::uint64_t seed) {
  std::vector<float> x(48000);
  for (std::size_t i = 0; i < x.size(); ++i) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    x[i] = static_cast<float>((double(seed >> 11) / 9007199254740992.0 * 2.0 - 1.0) * ((i / 4800) % 2 ? 0.9 : 0.05));
  }
  return x;
}

struct Stereo {
  std::vector<float> l = Noise(1), r = Noise(2), outL = std::vector<float>(kBlock), outR = std::vector<float>(kBlock);
  int position = 0;
  // Next input block and the output block.
  void Next(float** in, float** out) {
    in[0] = l.data() + position;
    in[1] = r.data() + position;
    out[0] = outL.data();
    out[1] = outR.data();
    position = position + 2 * kBlock > static_cast<int>(l.size()) ? 0 : position + kBlock;
  }
};

void BM_DynamicsBand(benchmark::State& state) {
  dsp::dynamics::DynamicsBand band(48000.0f, vexmediatypes::CreateStereoChannelLayout());
  band.SetCompThreshold(-20.0f);
  band.SetCompRatio(4.0f);
  band.SetLimThreshold(-6.0f);
  band.SetLimRatio(20.0f);
  band.SetGateThreshold(-50.0f);
  band.SetGateRatio(2.0f);
  band.SetRMSDetection(state.range(0) != 0);
  band.SetAutoMakeupGain(true);
  Stereo s;
  float *in[2], *out[2];
  dsp::dynamics::DynamicsBand::ChannelMask skipOut;
  for (auto _ : state) {
    s.Next(in, out);
    band.Process(kBlock, in, out, {}, skipOut);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_DynamicsBand)->ArgName("rms")->Arg(0)->Arg(1);

void BM_SingleBandCompressor(benchmark::State& state) {
  dsp::dynamics::SingleBandCompressorDSP comp(48000.0f, vexmediatypes::CreateStereoChannelLayout());
  comp.SetThreshold(-20.0f);
  comp.SetRatio(4.0f);
  comp.SetRelease(100.0f);
  comp.SetAutoMakeupGain(true);
  Stereo s;
  float *in[2], *out[2];
  for (auto _ : state) {
    s.Next(in, out);
    comp.Process(in, out, kBlock, {});
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_SingleBandCompressor);

void BM_HardLimit(benchmark::State& state) {
  dsp::HardLimit limit;
  limit.SetSampleRate(48000);
  limit.SetParameter(dsp::HardLimit::kInputBoost, 12.0f);
  limit.SetParameter(dsp::HardLimit::kTruePeakDetection, static_cast<float>(state.range(0)));
  limit.Resume();
  Stereo s;
  float *in[2], *out[2];
  for (auto _ : state) {
    s.Next(in, out);
    limit.Process(in, out, kBlock);
  }
  vexbench::ReportTimePerSample(state, 2 * kBlock);
}
BENCHMARK(BM_HardLimit)->ArgName("truepeak")->Arg(0)->Arg(1);

}  // namespace
