// Noise reduction costs (the FFT engines beside FFTW are in
// bench_fft_engines.cpp).
//
// NoNoiseProcess at its defaults (N 4096, overlap 7) on stereo 48 kHz in
// 512-sample blocks, in ns per sample per channel; then the whole
// `vexdsp process ... denoise` command beside `sox ... noisered` on the
// same generated 10-minute stereo 48 kHz file, each reported as a multiple of
// real time (x_realtime, from wall time; child_cpu_s is the command's CPU
// time) with the noise reduction it achieved in the gaps between tones
// (reduction_db) and how far the tones moved (tone_db, level of the
// 440 Hz and 3 kHz bursts against the clean tones). The command benchmarks need the vexdsp binary (found beside
// this program in the build tree, or VEXDSP_BINARY) and sox on PATH.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CommandBench.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/nonoise/NoNoiseProcess.h"
#include "vexaudiodsp/nonoise/NoisePrint.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRate = 48000;

// Quality signal: uniform noise of amplitude 0.05 on both channels, silent
// for the first 2 s, then 0.3 s tone bursts (440 Hz and 3 kHz in turn,
// amplitude 0.5) every 0.9 s.
struct QualitySignal {
  std::vector<std::vector<float>> noise, mix;
  std::vector<std::pair<std::size_t, std::size_t>> gaps;   // measured ranges
  std::vector<std::pair<std::size_t, std::size_t>> tones;  // burst middles
};

QualitySignal MakeQuality(std::size_t frames) {
  QualitySignal q;
  std::uint32_t state = 12345;
  q.noise.assign(2, std::vector<float>(frames));
  for (auto& ch : q.noise) {
    for (float& v : ch) {
      state = state * 1664525u + 1013904223u;
      v = static_cast<float>((static_cast<double>(state >> 8) / 16777216.0 * 2.0 - 1.0) * 0.05);
    }
  }
  q.mix = q.noise;
  const std::size_t burst = 14400, period = 43200;
  std::size_t index = 0;
  for (std::size_t s = 2 * kRate; s + burst <= frames; s += period, ++index) {
    const double f = index % 2 == 0 ? 440.0 : 3000.0;
    for (std::size_t i = 0; i < burst; ++i) {
      const float t = static_cast<float>(0.5 * std::sin(2.0 * M_PI * f * static_cast<double>(i) / kRate));
      q.mix[0][s + i] += t;
      q.mix[1][s + i] += t;
    }
    q.tones.emplace_back(s + 3000, s + burst - 3000);
    if (s + period + burst <= frames) q.gaps.emplace_back(s + burst + 10000, s + period - 4500);
  }
  return q;
}

void BM_NoNoiseProcess(benchmark::State& state) {
  const std::size_t frames = 10 * kRate;
  const QualitySignal q = MakeQuality(frames);
  dsp::host::MemorySource source({q.mix[0].data(), q.mix[1].data()}, 2 * kRate);
  dsp::nonoise::NoisePrint print;
  if (!dsp::nonoise::CaptureNoisePrintFromSource(source, 2, kRate, 0, 2 * kRate, 4096, &print, nullptr)) {
    state.SkipWithError("capture failed");
    return;
  }
  dsp::nonoise::NoNoiseProcess proc(&print.GetRecord());
  proc.Start();
  std::vector<std::vector<float>> buf = q.mix;
  float* ptr[2];
  for (auto _ : state) {
    for (std::size_t pos = 0; pos + 512 <= frames; pos += 512) {
      ptr[0] = buf[0].data() + pos;
      ptr[1] = buf[1].data() + pos;
      proc.Process(ptr, ptr, 2, 512);
    }
    benchmark::ClobberMemory();
  }
  // Both channels' samples: ns per sample per channel.
  vexbench::ReportTimePerSample(state, 2.0 * static_cast<double>(frames / 512 * 512));
}

template <typename T>
void Put(std::ofstream& f, T v) {
  f.write(reinterpret_cast<const char*>(&v), sizeof v);
}

void WriteWav(const fs::path& path, const std::vector<std::vector<float>>& ch) {
  const std::uint32_t frames = static_cast<std::uint32_t>(ch[0].size());
  const std::uint32_t bytes = frames * 2 * 4;
  std::ofstream f(path, std::ios::binary);
  f.write("RIFF", 4);
  Put<std::uint32_t>(f, 36 + bytes);
  f.write("WAVEfmt ", 8);
  Put<std::uint32_t>(f, 16);
  Put<std::uint16_t>(f, 3);
  Put<std::uint16_t>(f, 2);
  Put<std::uint32_t>(f, kRate);
  Put<std::uint32_t>(f, kRate * 8);
  Put<std::uint16_t>(f, 8);
  Put<std::uint16_t>(f, 32);
  f.write("data", 4);
  Put<std::uint32_t>(f, bytes);
  std::vector<float> inter(2 * static_cast<std::size_t>(frames));
  for (std::size_t i = 0; i < frames; ++i) {
    inter[2 * i] = ch[0][i];
    inter[2 * i + 1] = ch[1][i];
  }
  f.write(reinterpret_cast<const char*>(inter.data()), static_cast<std::streamsize>(bytes));
}

// Channel 0 of a float or 16/24/32-bit PCM stereo WAV (sox writes what it
// read: float here).
std::vector<float> ReadWavLeft(const fs::path& path) {
  std::ifstream f(path, std::ios::binary);
  std::vector<char> s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  std::uint16_t channels = 0, bits = 0, format = 0;
  std::size_t pos = 12;
  while (pos + 8 <= s.size()) {
    std::uint32_t size = 0;
    std::memcpy(&size, s.data() + pos + 4, 4);
    if (std::memcmp(s.data() + pos, "fmt ", 4) == 0) {
      std::memcpy(&format, s.data() + pos + 8, 2);
      std::memcpy(&channels, s.data() + pos + 10, 2);
      std::memcpy(&bits, s.data() + pos + 22, 2);
      if (format == 0xFFFE) std::memcpy(&format, s.data() + pos + 32, 2);
    } else if (std::memcmp(s.data() + pos, "data", 4) == 0 && channels > 0 && format == 3 && bits == 32) {
      const std::size_t frames = std::min<std::size_t>(size, s.size() - pos - 8) / (4u * channels);
      std::vector<float> out(frames);
      for (std::size_t i = 0; i < frames; ++i) std::memcpy(&out[i], s.data() + pos + 8 + i * channels * 4, 4);
      return out;
    }
    pos += 8 + size + (size & 1);
  }
  return {};
}

double GapReductionDb(const QualitySignal& q, const std::vector<float>& out) {
  double in = 0.0, left = 0.0;
  for (const auto& [from, to] : q.gaps) {
    for (std::size_t i = from; i < to && i < out.size(); ++i) {
      in += static_cast<double>(q.noise[0][i]) * q.noise[0][i];
      left += static_cast<double>(out[i]) * out[i];
    }
  }
  return 10.0 * std::log10(in / std::max(left, 1e-30));
}

// Level change of the bursts, output against input, in dB.
double ToneChangeDb(const QualitySignal& q, const std::vector<float>& out) {
  double in = 0.0, kept = 0.0;
  for (const auto& [from, to] : q.tones) {
    for (std::size_t i = from; i < to && i < out.size(); ++i) {
      in += static_cast<double>(q.mix[0][i]) * q.mix[0][i];
      kept += static_cast<double>(out[i]) * out[i];
    }
  }
  return 10.0 * std::log10(std::max(kept, 1e-30) / in);
}

struct CommandBench {
  fs::path dir;
  QualitySignal q;
  std::string vexdsp;
  bool ready = false;

  CommandBench() {
    vexdsp = vexbench::FindVexdsp();
    dir = fs::temp_directory_path() / ("vexdsp-bench-spectral-" + std::to_string(getpid()));
    fs::create_directories(dir);
    q = MakeQuality(600 * static_cast<std::size_t>(kRate));
    WriteWav(dir / "in.wav", q.mix);
    const std::string d = "'" + dir.string() + "/";
    ready =
        !vexdsp.empty() &&
        std::system(("'" + vexdsp + "' noiseprint " + d + "in.wav' --start 0 --end 2 -o " + d + "in.vxnp' >/dev/null")
                        .c_str()) == 0 &&
        std::system(("sox " + d + "in.wav' -n trim 0 2 noiseprof " + d + "in.prof' 2>/dev/null").c_str()) == 0;
  }
  ~CommandBench() { fs::remove_all(dir); }
};

CommandBench& Commands() {
  static CommandBench bench;
  return bench;
}

void RunCommand(benchmark::State& state, const std::string& command) {
  CommandBench& b = Commands();
  if (!b.ready) {
    state.SkipWithError("vexdsp or sox not available");
    return;
  }
  if (!vexbench::TimeCommand(state, command, 600.0)) return;
  const std::vector<float> out = ReadWavLeft(b.dir / "out.wav");
  state.counters["reduction_db"] = GapReductionDb(b.q, out);
  state.counters["tone_db"] = ToneChangeDb(b.q, out);
}

// Arg 0: the defaults (at most 40 dB of reduction by definition, and the
// smoothing's slow fall keeps bins open for about 20000 samples after a
// tone). Arg 1: reduction 100 dB, the threshold above the print's maximum
// and no smoothing, a setting that gates like sox's noisered.
void BM_VexdspProcessDenoise(benchmark::State& state) {
  const std::string d = "'" + Commands().dir.string() + "/";
  const std::string extra = state.range(0) == 0 ? "" : ",reduction=100,position=2,smoothing=0";
  RunCommand(state, "'" + Commands().vexdsp + "' process " + d + "in.wav' " + d + "out.wav' denoise:print=" + d +
                        "in.vxnp'" + extra + " >/dev/null");
}

void BM_SoxNoisered(benchmark::State& state) {
  const std::string d = "'" + Commands().dir.string() + "/";
  const std::string amount = state.range(0) == 0 ? "0.5" : "1.0";
  RunCommand(state, "sox " + d + "in.wav' " + d + "out.wav' noisered " + d + "in.prof' " + amount + " 2>/dev/null");
}

}  // namespace

BENCHMARK(BM_NoNoiseProcess)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VexdspProcessDenoise)->Arg(0)->Arg(1)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_SoxNoisered)->Arg(0)->Arg(1)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
