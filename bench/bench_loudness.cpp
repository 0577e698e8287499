// Itu1770 plus TruePeak against libebur128 (integrated loudness and true
// peak) on ten minutes of stereo 48 kHz, timed side by side in one run.

#include <ebur128.h>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/loudness/Itu1770.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace {

constexpr int kRate = 48000;
constexpr int kBlock = 4096;
// Ten minutes as 60 passes over 10 s of programme (keeps memory small).
constexpr int kSegmentFrames = 10 * kRate;
constexpr int kRepeats = 60;

// Noise whose level moves over 20 dB every few seconds, so both gates work.
struct Programme {
  std::vector<float> left, right, interleaved;
  Programme() : left(kSegmentFrames), right(kSegmentFrames), interleaved(2 * kSegmentFrames) {
    std::uint64_t state = 12345;
    for (int i = 0; i < kSegmentFrames; ++i) {
      const double level = 0.3 * std::pow(10.0, -std::fabs(std::sin(i * 2e-5)));
      for (float* ch : {&left[static_cast<std::size_t>(i)], &right[static_cast<std::size_t>(i)]}) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        *ch = static_cast<float>(level * (double(state >> 11) / 9007199254740992.0 * 2.0 - 1.0));
      }
    }
    const float* planar[2] = {left.data(), right.data()};
    vexaccelerate::utility::Interleave(planar, 2, kSegmentFrames, interleaved.data());
  }
};

// Processor time (the benchmark runs one thread): on a shared machine it
// is far steadier than the wall clock.
double ThreadSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

const Programme& GetProgramme() {
  static const Programme programme;
  return programme;
}

double Ours(double* lufs, double* peakDb) {
  const Programme& p = GetProgramme();
  const double start = ThreadSeconds();
  dsp::Itu1770 meter;
  meter.Init(kBlock, kRate, {dsp::Itu1770::kLeft, dsp::Itu1770::kRight});
  dsp::TruePeak peaks[2];
  for (auto& tp : peaks) tp.Init(kBlock, kRate);
  for (int r = 0; r < kRepeats; ++r) {
    for (int i = 0; i < kSegmentFrames; i += kBlock) {
      const std::size_t n = static_cast<std::size_t>(std::min(kBlock, kSegmentFrames - i));
      const float* ch[2] = {p.left.data() + i, p.right.data() + i};
      meter.Process(ch, n);
      peaks[0].Process(ch[0], n);
      peaks[1].Process(ch[1], n);
    }
  }
  *lufs = meter.GetLKFS();
  float db[2];
  std::int64_t pos = 0;
  peaks[0].GetPeakValue(db[0], pos);
  peaks[1].GetPeakValue(db[1], pos);
  *peakDb = std::max(db[0], db[1]);
  return ThreadSeconds() - start;
}

double Ebur128(double* lufs, double* peakDb) {
  const Programme& p = GetProgramme();
  const double start = ThreadSeconds();
  ebur128_state* st = ebur128_init(2, kRate, EBUR128_MODE_I | EBUR128_MODE_TRUE_PEAK);
  for (int r = 0; r < kRepeats; ++r) {
    for (int i = 0; i < kSegmentFrames; i += kBlock) {
      const std::size_t n = static_cast<std::size_t>(std::min(kBlock, kSegmentFrames - i));
      ebur128_add_frames_float(st, p.interleaved.data() + 2 * i, n);
    }
  }
  ebur128_loudness_global(st, lufs);
  double tp[2] = {0.0, 0.0};
  ebur128_true_peak(st, 0, &tp[0]);
  ebur128_true_peak(st, 1, &tp[1]);
  *peakDb = 20.0 * std::log10(std::max(tp[0], tp[1]));
  ebur128_destroy(&st);
  return ThreadSeconds() - start;
}

// Both meters in the same iteration, alternating, so load on the machine
// hits both alike. Counters: CPU ns per stereo frame of each, their ratio, and
// the integrated loudness and true peak each reads.
void BM_IntegratedAndTruePeak_VersusLibebur128(benchmark::State& state) {
  GetProgramme();
  double oursSeconds = 0.0, peerSeconds = 0.0, oursLufs = 0.0, peerLufs = 0.0, oursPeak = 0.0, peerPeak = 0.0;
  for (auto _ : state) {
    oursSeconds += Ours(&oursLufs, &oursPeak);
    peerSeconds += Ebur128(&peerLufs, &peerPeak);
  }
  const double frames = static_cast<double>(state.iterations()) * kSegmentFrames * kRepeats;
  state.counters["ours_ns_per_frame"] = oursSeconds / frames * 1e9;
  state.counters["ebur128_ns_per_frame"] = peerSeconds / frames * 1e9;
  state.counters["time_ratio"] = oursSeconds / peerSeconds;
  state.counters["ours_lufs"] = oursLufs;
  state.counters["ebur128_lufs"] = peerLufs;
  state.counters["ours_dbtp"] = oursPeak;
  state.counters["ebur128_dbtp"] = peerPeak;
}
BENCHMARK(BM_IntegratedAndTruePeak_VersusLibebur128)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

// The parts alone, per sample per channel on 512-sample blocks.
void BM_Itu1770(benchmark::State& state) {
  const Programme& p = GetProgramme();
  dsp::Itu1770 meter;
  meter.Init(512, kRate, {dsp::Itu1770::kLeft, dsp::Itu1770::kRight});
  int i = 0;
  for (auto _ : state) {
    const float* ch[2] = {p.left.data() + i, p.right.data() + i};
    meter.Process(ch, 512);
    i = i + 1024 > kSegmentFrames ? 0 : i + 512;
  }
  vexbench::ReportTimePerSample(state, 1024);
}
BENCHMARK(BM_Itu1770);

void BM_TruePeak(benchmark::State& state) {
  const Programme& p = GetProgramme();
  dsp::TruePeak tp;
  tp.Init(512, static_cast<int>(state.range(0)));
  int i = 0;
  for (auto _ : state) {
    tp.Process(p.left.data() + i, 512);
    i = i + 1024 > kSegmentFrames ? 0 : i + 512;
  }
  vexbench::ReportTimePerSample(state, 512);
}
BENCHMARK(BM_TruePeak)->Arg(22050)->Arg(48000)->Arg(96000);

}  // namespace
