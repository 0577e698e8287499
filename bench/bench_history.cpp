// History buffers on 2 x 512-sample blocks at 48 kHz, in ns per sample per
// channel: DelayLine against the plain per-sample ring loop it replaces
// (at half and at full maximum delay, which take different copy paths),
// DataTail Append + Shift, and a RingBuffer Write + Read round trip.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "BenchSupport.h"
#include "vexaudiodsp/buffering/DataTail.h"
#include "vexaudiodsp/buffering/DelayLine.h"
#include "vexaudiodsp/buffering/RingBuffer.h"

namespace {

constexpr int kChannels = 2;
constexpr int kBlock = 512;
constexpr float kRate = 48000.0f;
constexpr float kMaxMs = 10.0f;

void SetCounters(benchmark::State& state) {
  vexbench::ReportTimePerSample(state, static_cast<double>(kChannels) * kBlock);
}

std::vector<std::vector<float>> Signal() {
  std::vector<std::vector<float>> s(kChannels, std::vector<float>(kBlock));
  for (int ch = 0; ch < kChannels; ++ch) {
    for (int i = 0; i < kBlock; ++i) s[ch][i] = 1e-3f * static_cast<float>((i * 7 + ch) % 1000);
  }
  return s;
}

void BM_DelayLine(benchmark::State& state) {
  std::vector<dsp::utility::DelayLine> lines(kChannels, dsp::utility::DelayLine(kRate, kMaxMs));
  for (auto& line : lines) line.SetDelayMillis(static_cast<float>(state.range(0)));
  auto data = Signal();
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) lines[ch].ProcessInPlace(kBlock, data[ch].data());
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_DelayLine)->Arg(5)->Arg(10);

// The per-sample ring: write, advance, read, advance.
void BM_ScalarDelay(benchmark::State& state) {
  const std::uint32_t length = 481;
  const auto delay = static_cast<std::uint32_t>(state.range(0) * 48);
  std::vector<std::vector<float>> rings(kChannels, std::vector<float>(length, 0.0f));
  std::vector<std::uint32_t> writes(kChannels, 0), reads(kChannels, (length - delay) % length);
  auto data = Signal();
  for (auto _ : state) {
    for (int ch = 0; ch < kChannels; ++ch) {
      float* ring = rings[ch].data();
      float* x = data[ch].data();
      std::uint32_t w = writes[ch];
      std::uint32_t r = reads[ch];
      for (int i = 0; i < kBlock; ++i) {
        ring[w] = x[i];
        w = w + 1 == length ? 0 : w + 1;
        x[i] = ring[r];
        r = r + 1 == length ? 0 : r + 1;
      }
      writes[ch] = w;
      reads[ch] = r;
    }
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_ScalarDelay)->Arg(5)->Arg(10);

void BM_DataTailAppendShift(benchmark::State& state) {
  dsp::DataTail tail;
  tail.SetTailMode(kChannels, 48000, kBlock, 256, true);
  auto data = Signal();
  const float* src[kChannels] = {data[0].data(), data[1].data()};
  for (auto _ : state) {
    tail.Append(src, kBlock, 0);
    benchmark::DoNotOptimize(tail.GetPointer()[0]);
    tail.Shift(kBlock);
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_DataTailAppendShift);

void BM_RingBufferWriteRead(benchmark::State& state) {
  dsp::RingBuffer ring;
  ring.Allocate(kChannels, 4 * kBlock + 3);
  auto data = Signal();
  auto out = Signal();
  float* src[kChannels] = {data[0].data(), data[1].data()};
  float* dst[kChannels] = {out[0].data(), out[1].data()};
  for (auto _ : state) {
    ring.Write(src, 0, kChannels, kBlock);
    ring.Read(dst, kChannels, kBlock, kBlock);
    benchmark::ClobberMemory();
  }
  SetCounters(state);
}
BENCHMARK(BM_RingBufferWriteRead);

}  // namespace
