// Equaliser and filter costs on stereo 48 kHz audio in 512-frame blocks,
// per sample per channel. The plain loop is the yardstick: a double
// direct-form I biquad written out with its state in locals, band after
// band, as a careful engineer would write it by hand.
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"
#include "vexaudiodsp/filters/FilterSection.h"
#include "vexaudiodsp/filters/IIRFilter.h"
#include "vexaudiodsp/filters/Parametric.h"
#include "vexaudiodsp/filters/ParametricEQ.h"

namespace {

constexpr int kBlock = 512;
constexpr int kChannels = 2;
constexpr float kRate = 48000.0f;
constexpr double kFrequencies[6] = {80.0, 250.0, 800.0, 2500.0, 6000.0, 12000.0};
constexpr double kGains[6] = {3.0, -4.0, 2.5, -6.0, 4.0, -2.0};

struct Audio {
  std::vector<std::vector<float>> channels;
  std::vector<float*> pointers;
  Audio() : channels(kChannels, std::vector<float>(kBlock)) {
    for (int ch = 0; ch < kChannels; ++ch) {
      for (int i = 0; i < kBlock; ++i) channels[ch][i] = static_cast<float>(0.25 * std::sin(0.013 * i + ch));
      pointers.push_back(channels[ch].data());
    }
  }
};

void Report(benchmark::State& state, int bands) {
  vexbench::ReportTimePerSample(state, double{kBlock} * kChannels);
  state.counters["per_band_sample"] = benchmark::Counter(
      double{kBlock} * kChannels * bands, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_ParametricEQ(benchmark::State& state) {
  const int bands = static_cast<int>(state.range(0));
  auto eq = vexcore::utility::MakeRef<dsp::eq::ParametricEQ>(kRate, vexmediatypes::CreateStereoChannelLayout());
  for (int b = 0; b < bands; ++b) {
    eq->SetFrequency(b, static_cast<float>(kFrequencies[b]));
    eq->SetGain(b, static_cast<float>(kGains[b]));
    eq->SetQ(b, 1.4f);
  }
  Audio audio;
  for (auto _ : state) {
    eq->ProcessInPlace(kBlock, audio.pointers.data());
    benchmark::ClobberMemory();
  }
  Report(state, bands);
}
BENCHMARK(BM_ParametricEQ)->Arg(1)->Arg(6);

struct Biquad {
  double b0, b1, b2, a1, a2;
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
};

// The hand-written reference, kept out of line like a library call.
__attribute__((noinline)) void PlainBiquad(Biquad& f, float* data, int n) {
  const double b0 = f.b0, b1 = f.b1, b2 = f.b2, a1 = f.a1, a2 = f.a2;
  double x1 = f.x1, x2 = f.x2, y1 = f.y1, y2 = f.y2;
  for (int i = 0; i < n; ++i) {
    const double x = data[i];
    const double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1;
    x1 = x;
    y2 = y1;
    y1 = y;
    data[i] = static_cast<float>(y);
  }
  f.x1 = x1, f.x2 = x2, f.y1 = y1, f.y2 = y2;
}

void BM_PlainDoubleBiquads(benchmark::State& state) {
  const int bands = static_cast<int>(state.range(0));
  std::vector<std::array<Biquad, 6>> filters(kChannels);
  for (auto& channel : filters) {
    for (int b = 0; b < bands; ++b) {
      double c[6];
      dsp::PeakingEQCoefficients(c, kRate, kFrequencies[b], kGains[b], 1.4);
      channel[b] = {c[0], c[1], c[2], c[4], c[5]};
    }
  }
  Audio audio;
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) {
      for (int b = 0; b < bands; ++b) PlainBiquad(filters[ch][b], audio.pointers[ch], kBlock);
    }
    benchmark::ClobberMemory();
  }
  Report(state, bands);
}
BENCHMARK(BM_PlainDoubleBiquads)->Arg(1)->Arg(6);

// The six bands as one cascade of one IIRFilter per channel: what the
// platform's interleaved sections cost when no band is skipped.
void BM_IIRFilterCascade(benchmark::State& state) {
  std::vector<double> c(36);
  for (int b = 0; b < 6; ++b) dsp::PeakingEQCoefficients(&c[6 * b], kRate, kFrequencies[b], kGains[b], 1.4);
  std::vector<dsp::IIRFilter> filters(kChannels, dsp::IIRFilter(2, c.data(), 6));
  Audio audio;
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) filters[ch].ProcessInPlace(kBlock, audio.pointers[ch]);
    benchmark::ClobberMemory();
  }
  Report(state, 6);
}
BENCHMARK(BM_IIRFilterCascade);

template <typename Section>
void BM_FilterSection(benchmark::State& state) {
  std::vector<Section> sections(kChannels);
  for (auto& s : sections) {
    s.setStateVariable(state.range(0) != 0);
    s.Setup(kRate, 1000.0f, 6.0f, 1.4f, 0.0f, 0.0f);
    s.TerminateRamp();
  }
  Audio audio;
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) sections[ch].processInplace(audio.pointers[ch], kBlock);
    benchmark::ClobberMemory();
  }
  Report(state, 1);
}
BENCHMARK_TEMPLATE(BM_FilterSection, dsp::fPARA)->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_FilterSection, dsp::dPARA)->Arg(0)->Arg(1);

void BM_Parametric(benchmark::State& state) {
  dsp::Parametric p;
  p.SetParameter(dsp::Parametric::kSampleRate, kRate);
  p.SetParameter(dsp::Parametric::kChannels, kChannels);
  for (int b = 0; b < dsp::Parametric::kNumBands; ++b) p.SetParameter(dsp::Parametric::kFirstBand + 4 * b + 2, 3.0f);
  p.SetParameter(dsp::Parametric::kLowShelfGain, 2.0f);
  std::vector<float> interleaved(kBlock * kChannels, 0.1f);
  for (auto _ : state) {
    p.Process(interleaved.data(), interleaved.data(), kBlock);
    benchmark::ClobberMemory();
  }
  Report(state, 6);
}
BENCHMARK(BM_Parametric);

}  // namespace
