// The spectrum meter on 512-frame stereo blocks at 48 kHz, in ns per sample
// per channel, at every FFT size with half overlap, for the linear and the
// third-octave spectrum; beside it the irreducible core of any such meter
// (mix, window, real FFT, magnitudes per hop) written plainly on the same
// FFT, so the meter's own overhead shows.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Transform.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/spectrummeter/SpectrumMeterDSP.h"

namespace {

using dsp::spectrummeter::SpectrumMeterDSP;
constexpr int kChannels = 2;
constexpr int kBlock = 512;

std::vector<std::vector<float>> Signal() {
  std::vector<std::vector<float>> s(kChannels, std::vector<float>(kBlock));
  for (int ch = 0; ch < kChannels; ++ch) {
    for (int i = 0; i < kBlock; ++i) s[ch][i] = 0.5f * std::sin(0.01f * static_cast<float>(i * (ch + 3)));
  }
  return s;
}

void BM_SpectrumMeter(benchmark::State& state) {
  const auto size = static_cast<SpectrumMeterDSP::FFTSize>(state.range(0));
  const auto type = static_cast<SpectrumMeterDSP::SpectrumType>(state.range(1));
  SpectrumMeterDSP meter(48000.0f, kChannels);
  meter.SetParams(type, SpectrumMeterDSP::kAverage1s, size, SpectrumMeterDSP::kOverlap50, SpectrumMeterDSP::kHann);
  const auto signal = Signal();
  const float* channels[] = {signal[0].data(), signal[1].data()};
  for (auto _ : state) {
    meter.Process(channels, kBlock, vexcore::utility::Flags<std::uint64_t>());
    benchmark::ClobberMemory();
  }
  state.SetLabel(std::to_string(SpectrumMeterDSP::GetFFTBlockSize(size)) + (type == 0 ? " linear" : " third-octave"));
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}
BENCHMARK(BM_SpectrumMeter)->ArgsProduct({{0, 1, 2, 3, 4}, {0, 1}});

// Mix into a frame, and at every hop: window, FFT, |X|.
void BM_PlainFftMagnitudes(benchmark::State& state) {
  const int n = 512 << state.range(0);
  const int hop = n / 2;
  vexaccelerate::FFTState_Float* fft = nullptr;
  int order = 0;
  while ((1 << order) < n) ++order;
  vexaccelerate::transform::FFTInit(&fft, order);
  std::vector<float> frame(n, 0.0f), window(n), windowed(n), spectrum(n + 2), magnitudes(n / 2 + 1);
  vexaccelerate::utility::WindowHann(n, window.data());
  const auto signal = Signal();
  int fill = 0;
  for (auto _ : state) {
    for (int done = 0; done < kBlock;) {
      const int take = std::min(kBlock - done, n - fill);
      for (int i = 0; i < take; ++i) frame[fill + i] = 0.5f * (signal[0][done + i] + signal[1][done + i]);
      fill += take;
      done += take;
      if (fill == n) {
        vexaccelerate::utility::Mul(n, frame.data(), window.data(), windowed.data());
        vexaccelerate::transform::FFTFwd(fft, windowed.data(), spectrum.data());
        for (int k = 0; k <= n / 2; ++k) magnitudes[k] = std::hypot(spectrum[2 * k], spectrum[2 * k + 1]);
        vexaccelerate::utility::Move(n - hop, frame.data() + hop, frame.data());
        fill = n - hop;
      }
    }
    benchmark::DoNotOptimize(magnitudes.data());
    benchmark::ClobberMemory();
  }
  vexaccelerate::transform::FFTFree(fft);
  state.SetLabel(std::to_string(n));
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}
BENCHMARK(BM_PlainFftMagnitudes)->DenseRange(0, 4);

}  // namespace
