// The guitar suite on 512-frame stereo blocks at 48 kHz, in ns per sample
// per channel: each class at its defaults, the cabinet simulator beside a
// direct FIR of the same impulse, and the 1024-frame partitioned
// convolution beside a direct FIR at impulse lengths from 64 to 8192 taps
// (where the partitioned form starts to win).
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Filter.h"
#include "vexaudiodsp/guitarsuite/BoxModeler.h"
#include "vexaudiodsp/guitarsuite/GarageFuzz.h"
#include "vexaudiodsp/guitarsuite/PartitionedConvolution.h"
#include "vexaudiodsp/guitarsuite/Retro.h"
#include "vexaudiodsp/guitarsuite/Rez.h"
#include "vexaudiodsp/guitarsuite/SmoothOverdrive.h"
#include "vexaudiodsp/guitarsuite/StraightFuzz.h"
#include "vexaudiodsp/guitarsuite/TalkBox.h"

namespace {

using namespace dsp::guitarsuite;
constexpr int kChannels = 2;
constexpr int kBlock = 512;
constexpr float kRate = 48000.0f;

std::vector<std::vector<float>> Signal() {
  std::vector<std::vector<float>> s(kChannels, std::vector<float>(kBlock));
  for (int ch = 0; ch < kChannels; ++ch) {
    for (int i = 0; i < kBlock; ++i) s[ch][i] = 0.3f * std::sin(0.02f * static_cast<float>(i * (ch + 2)));
  }
  return s;
}

template <typename T, typename... Args>
void RunClass(benchmark::State& state, Args... args) {
  T fx(kRate, vexmediatypes::CreateStereoChannelLayout(), args...);
  auto signal = Signal();
  float* channels[] = {signal[0].data(), signal[1].data()};
  for (auto _ : state) {
    fx.ProcessInPlace(kBlock, channels, vexcore::utility::Flags<std::uint64_t>());
    benchmark::ClobberMemory();
  }
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}

void BM_GarageFuzz(benchmark::State& s) { RunClass<garagefuzz::GarageFuzz>(s); }
void BM_SmoothOverdrive(benchmark::State& s) { RunClass<smoothoverdrive::SmoothOverdrive>(s); }
void BM_StraightFuzz(benchmark::State& s) { RunClass<straightfuzz::StraightFuzz>(s); }
void BM_Retro(benchmark::State& s) { RunClass<retro::Retro>(s); }
void BM_Rez(benchmark::State& s) { RunClass<rez::Rez>(s); }
void BM_TalkBox(benchmark::State& s) { RunClass<talkbox::TalkBox>(s); }
void BM_BoxModeler(benchmark::State& s) { RunClass<boxmodeler::BoxModeler>(s, 512u); }
BENCHMARK(BM_GarageFuzz);
BENCHMARK(BM_SmoothOverdrive);
BENCHMARK(BM_StraightFuzz);
BENCHMARK(BM_Retro);
BENCHMARK(BM_Rez);
BENCHMARK(BM_TalkBox);
BENCHMARK(BM_BoxModeler);

// The cabinet's default impulse (2160 taps at 48 kHz) as one direct FIR.
void BM_BoxModelerImpulseAsDirectFir(benchmark::State& state) {
  const boxmodeler::BoxModeler box(kRate, vexmediatypes::CreateMonoChannelLayout());
  const std::vector<float>& h = box.GetImpulse();
  std::vector<vexaccelerate::FIRState_Float*> firs(kChannels, nullptr);
  for (auto& fir : firs) vexaccelerate::filter::FIRInit(&fir, h.data(), static_cast<int>(h.size()));
  auto signal = Signal();
  std::vector<float> out(kBlock);
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) vexaccelerate::filter::FIR(kBlock, signal[ch].data(), out.data(), firs[ch]);
    benchmark::ClobberMemory();
  }
  for (auto fir : firs) vexaccelerate::filter::FIRFree(fir);
  state.SetLabel(std::to_string(h.size()) + " taps");
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}
BENCHMARK(BM_BoxModelerImpulseAsDirectFir);

std::vector<float> Impulse(int length) {
  std::vector<float> h(static_cast<std::size_t>(length));
  for (int i = 0; i < length; ++i) h[i] = std::exp(-4.0f * i / length) * std::sin(0.37f * i);
  return h;
}

void BM_PartitionedConvolution(benchmark::State& state) {
  const auto h = Impulse(static_cast<int>(state.range(0)));
  PartitionedConvolution conv;
  conv.Init(h.data(), static_cast<int>(h.size()));
  std::vector<float> in(PartitionedConvolution::kBlockSize, 0.1f), out(in.size());
  for (auto _ : state) {
    conv.ProcessBlock(in.data(), out.data());
    benchmark::ClobberMemory();
  }
  vexbench::ReportTimePerSample(state, PartitionedConvolution::kBlockSize);
}
BENCHMARK(BM_PartitionedConvolution)->RangeMultiplier(2)->Range(64, 8192);

void BM_DirectFir(benchmark::State& state) {
  const auto h = Impulse(static_cast<int>(state.range(0)));
  vexaccelerate::FIRState_Float* fir = nullptr;
  vexaccelerate::filter::FIRInit(&fir, h.data(), static_cast<int>(h.size()));
  std::vector<float> in(PartitionedConvolution::kBlockSize, 0.1f), out(in.size());
  for (auto _ : state) {
    vexaccelerate::filter::FIR(in.size(), in.data(), out.data(), fir);
    benchmark::ClobberMemory();
  }
  vexaccelerate::filter::FIRFree(fir);
  vexbench::ReportTimePerSample(state, PartitionedConvolution::kBlockSize);
}
BENCHMARK(BM_DirectFir)->RangeMultiplier(2)->Range(64, 8192);

}  // namespace
