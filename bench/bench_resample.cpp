// 60 s of mono 48000 -> 44100 through dsp::Resample, soxr (HQ and VHQ) and
// libsamplerate (best sinc), each reported with its measured worst spur for
// full-scale passband tones and the level of a 23 kHz tone's alias, so
// speed is compared at known quality. Then the whole `vexdsp resample`
// command beside `sox rate -v` on 10 minutes of stereo float WAV, with the
// quality of both output files.

#include <samplerate.h>
#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CommandBench.h"
#include "vexaccelerate/Transform.h"
#include "vexaudiodsp/resample/Resample.h"

namespace {

constexpr double kFrom = 48000.0, kTo = 44100.0;
constexpr int kSeconds = 60;
constexpr int kBlock = 4096;
constexpr double kPi = 3.141592653589793;

using Converter = std::function<std::vector<float>(const std::vector<float>&)>;

std::vector<float> Sine(std::size_t n, double f, double amp = 1.0) {
  std::vector<float> x(n);
  for (std::size_t i = 0; i < n; ++i) x[i] = static_cast<float>(amp * std::sin(2 * kPi * f * i / kFrom));
  return x;
}

std::vector<float> RunOurs(const std::vector<float>& in,
                           dsp::Resample::InstructionSet set = dsp::Resample::GetBestInstructionSet()) {
  dsp::Resample r;
  r.SetInstructionSet(set);
  r.Initialize();
  std::vector<float> out(static_cast<std::size_t>(r.GetOutputBufferSize(static_cast<int>(in.size()))) + 8);
  // Process reads its input only; the legacy signature lacks the const.
  float* input = const_cast<float*>(in.data());
  std::size_t produced = 0;
  for (std::size_t done = 0; done < in.size(); done += kBlock) {
    const int n = static_cast<int>(std::min<std::size_t>(kBlock, in.size() - done));
    produced += static_cast<std::size_t>(r.Process(input + done, out.data() + produced, n));
  }
  out.resize(produced);
  return out;
}

std::vector<float> RunSoxr(const std::vector<float>& in, unsigned long recipe) {
  soxr_error_t error = nullptr;
  // soxr's default I/O is interleaved float32, which for one channel is
  // this buffer as it stands.
  const auto q = soxr_quality_spec(recipe, 0);
  soxr_t s = soxr_create(kFrom, kTo, 1, &error, nullptr, &q, nullptr);
  std::vector<float> out(static_cast<std::size_t>(in.size() * kTo / kFrom) + 4096);
  std::size_t produced = 0;
  for (std::size_t done = 0; done < in.size(); done += kBlock) {
    const std::size_t n = std::min<std::size_t>(kBlock, in.size() - done);
    std::size_t used = 0, made = 0;
    soxr_process(s, in.data() + done, n, &used, out.data() + produced, out.size() - produced, &made);
    produced += made;
  }
  std::size_t made = 0;
  soxr_process(s, nullptr, 0, nullptr, out.data() + produced, out.size() - produced, &made);
  produced += made;
  soxr_delete(s);
  out.resize(produced);
  return out;
}

std::vector<float> RunSrc(const std::vector<float>& in) {
  std::vector<float> out(static_cast<std::size_t>(in.size() * kTo / kFrom) + 64);
  SRC_DATA data{};
  data.data_in = in.data();
  data.input_frames = static_cast<long>(in.size());
  data.data_out = out.data();
  data.output_frames = static_cast<long>(out.size());
  data.src_ratio = kTo / kFrom;
  src_simple(&data, SRC_SINC_BEST_QUALITY, 1);
  out.resize(static_cast<std::size_t>(data.output_frames_gen));
  return out;
}

// Kaiser-windowed (beta 20) spectrum of 16384 output samples from the
// steady state, in dB re full scale.
std::vector<double> SpectrumDb(const float* x) {
  constexpr int kOrder = 14, kN = 1 << kOrder;
  vexaccelerate::FFTState_Double* state = nullptr;
  vexaccelerate::transform::FFTInit(&state, kOrder);
  std::vector<double> buf(kN + 2);
  const double i0 = std::cyl_bessel_i(0.0, 20.0);
  double gain = 0.0;
  for (int n = 0; n < kN; ++n) {
    const double r = (2.0 * n - (kN - 1)) / (kN - 1);
    const double w = std::cyl_bessel_i(0.0, 20.0 * std::sqrt(std::max(0.0, 1.0 - r * r))) / i0;
    buf[n] = w * x[n];
    gain += w;
  }
  vexaccelerate::transform::FFTFwd(state, buf.data(), buf.data());
  vexaccelerate::transform::FFTFree(state);
  std::vector<double> db(kN / 2 + 1);
  for (int k = 0; k <= kN / 2; ++k) {
    db[k] = 20 * std::log10(std::max(1e-30, std::hypot(buf[2 * k], buf[2 * k + 1]) * 2 / gain));
  }
  return db;
}

struct Quality {
  double worstSpur = -1000.0;
  double alias23k = -1000.0;
};

Quality Measure(const Converter& convert) {
  Quality q;
  for (double f : {997.0, 5000.0, 11025.0, 15000.0, 19000.0, 20000.0}) {
    const std::vector<float> y = convert(Sine(30000, f));
    const std::vector<double> db = SpectrumDb(y.data() + 5000);
    const int tone = static_cast<int>(std::lround(f / (kTo / 16384)));
    for (int k = 0; k < static_cast<int>(db.size()); ++k) {
      if (std::abs(k - tone) > 12) q.worstSpur = std::max(q.worstSpur, db[k]);
    }
  }
  const std::vector<float> y = convert(Sine(30000, 23000.0));
  const std::vector<double> db = SpectrumDb(y.data() + 5000);
  q.alias23k = *std::max_element(db.begin(), db.end());
  return q;
}

void Run(benchmark::State& state, const Converter& convert) {
  const Quality q = Measure(convert);
  const std::vector<float> input = Sine(static_cast<std::size_t>(kSeconds * kFrom), 1000.0, 0.5);
  for (auto _ : state) {
    std::vector<float> out = convert(input);
    benchmark::DoNotOptimize(out.data());
  }
  vexbench::ReportTimePerSample(state, static_cast<double>(input.size()));
  state.counters["worst_spur_dBc"] = q.worstSpur;
  state.counters["alias_23k_dB"] = q.alias23k;
}

void BM_Vexaudiodsp(benchmark::State& state) {
  Run(state, [](const std::vector<float>& x) { return RunOurs(x); });
}
// The same with the 256-bit kernels, on a CPU that has both.
void BM_VexaudiodspAvx2(benchmark::State& state) {
  if (dsp::Resample::GetBestInstructionSet() != dsp::Resample::InstructionSet::kAvx512) {
    state.SkipWithError("no AVX-512 on this CPU: BM_Vexaudiodsp already runs AVX2 or portable");
    return;
  }
  Run(state, [](const std::vector<float>& x) { return RunOurs(x, dsp::Resample::InstructionSet::kAvx2); });
}
void BM_SoxrHQ(benchmark::State& state) {
  Run(state, [](const std::vector<float>& x) { return RunSoxr(x, SOXR_HQ); });
}
void BM_SoxrVHQ(benchmark::State& state) {
  Run(state, [](const std::vector<float>& x) { return RunSoxr(x, SOXR_VHQ); });
}
void BM_LibsamplerateBest(benchmark::State& state) { Run(state, RunSrc); }

// The whole command. The input's left channel steps through the passband
// tones of Measure, 2 s each at half scale (sox works in integers and would
// clip the overshoot of a full-scale tone); the right channel is a 23 kHz
// tone at half scale. Both outputs are analysed alike: the worst spur of
// each tone relative to it, the highest bin of the right channel anywhere
// (as in Measure) and the level at 21.1 kHz, where 23 kHz aliases to.
namespace fs = std::filesystem;

constexpr int kCommandSeconds = 600;
constexpr double kSegmentSeconds = 2.0;
constexpr double kLevel = 0.5;
const double kTones[] = {997.0, 5000.0, 11025.0, 15000.0, 19000.0, 20000.0};

struct CommandFiles {
  fs::path dir;
  std::string vexdsp;
  bool ready = false;

  CommandFiles() {
    vexdsp = vexbench::FindVexdsp();
    dir = fs::temp_directory_path() / ("vexdsp-bench-resample-" + std::to_string(getpid()));
    fs::create_directories(dir);
    SF_INFO info{};
    info.samplerate = static_cast<int>(kFrom);
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* f = sf_open((dir / "in.wav").c_str(), SFM_WRITE, &info);
    if (f == nullptr) return;
    const std::size_t segment = static_cast<std::size_t>(kSegmentSeconds * kFrom);
    std::vector<float> frames(2 * segment);
    for (std::size_t start = 0; start < static_cast<std::size_t>(kCommandSeconds * kFrom); start += segment) {
      const double f0 = kTones[(start / segment) % std::size(kTones)];
      for (std::size_t i = 0; i < segment; ++i) {
        const double n = static_cast<double>(start + i);
        frames[2 * i] = static_cast<float>(kLevel * std::sin(2 * kPi * f0 * n / kFrom));
        frames[2 * i + 1] = static_cast<float>(kLevel * std::sin(2 * kPi * 23000.0 * n / kFrom));
      }
      sf_writef_float(f, frames.data(), static_cast<sf_count_t>(segment));
    }
    ready = sf_close(f) == 0 && !vexdsp.empty() && std::system("sox --version >/dev/null 2>&1") == 0;
  }
  ~CommandFiles() { fs::remove_all(dir); }
};

CommandFiles& Files() {
  static CommandFiles files;
  return files;
}

struct FileQuality {
  double worstSpur = -1000.0;
  double aliasAnyBin = -1000.0;
  double aliasLine = -1000.0;
};

FileQuality MeasureFile(const fs::path& path) {
  FileQuality q;
  SF_INFO info{};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr || info.channels != 2 || info.samplerate != static_cast<int>(kTo)) {
    if (f != nullptr) sf_close(f);
    return q;
  }
  const std::size_t segment = static_cast<std::size_t>(kSegmentSeconds * kTo);
  const std::size_t frames = segment * std::size(kTones);
  std::vector<float> both(2 * frames);
  const sf_count_t got = sf_readf_float(f, both.data(), static_cast<sf_count_t>(frames));
  sf_close(f);
  if (got != static_cast<sf_count_t>(frames)) return q;
  const double level = 20 * std::log10(kLevel);
  std::vector<float> channel(16384);
  auto take = [&](std::size_t start, int c) {
    for (std::size_t i = 0; i < channel.size(); ++i) channel[i] = both[2 * (start + i) + static_cast<std::size_t>(c)];
    return SpectrumDb(channel.data());
  };
  for (std::size_t k = 0; k < std::size(kTones); ++k) {
    const std::vector<double> db = take(k * segment + segment / 2 - 8192, 0);
    const int tone = static_cast<int>(std::lround(kTones[k] / (kTo / 16384)));
    for (int b = 0; b < static_cast<int>(db.size()); ++b) {
      if (std::abs(b - tone) > 12) q.worstSpur = std::max(q.worstSpur, db[static_cast<std::size_t>(b)] - level);
    }
  }
  const std::vector<double> db = take(segment / 2 - 8192, 1);
  const int alias = static_cast<int>(std::lround((kTo - 23000.0) / (kTo / 16384)));
  for (int b = 0; b < static_cast<int>(db.size()); ++b) {
    q.aliasAnyBin = std::max(q.aliasAnyBin, db[static_cast<std::size_t>(b)] - level);
    if (std::abs(b - alias) <= 12) q.aliasLine = std::max(q.aliasLine, db[static_cast<std::size_t>(b)] - level);
  }
  return q;
}

void RunCommand(benchmark::State& state, const std::string& command) {
  CommandFiles& files = Files();
  if (!files.ready) {
    state.SkipWithError("vexdsp, sox or the input file is not available");
    return;
  }
  if (!vexbench::TimeCommand(state, command, kCommandSeconds)) return;
  const FileQuality q = MeasureFile(files.dir / "out.wav");
  state.counters["worst_spur_dBc"] = q.worstSpur;
  state.counters["alias_23k_dB"] = q.aliasAnyBin;
  state.counters["alias_21k1_line_dB"] = q.aliasLine;
}

// Arg: 0 the default quality (high), 1 best.
void BM_VexdspResampleCommand(benchmark::State& state) {
  const std::string d = "'" + Files().dir.string() + "/";
  const std::string quality = state.range(0) == 0 ? "high" : "best";
  RunCommand(state, "'" + Files().vexdsp + "' resample " + d + "in.wav' " + d + "out.wav' --rate 44100 --quality " +
                        quality + " >/dev/null");
}

void BM_SoxRateV(benchmark::State& state) {
  const std::string d = "'" + Files().dir.string() + "/";
  RunCommand(state, "sox " + d + "in.wav' " + d + "out.wav' rate -v 44100 2>/dev/null");
}

BENCHMARK(BM_Vexaudiodsp)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_VexaudiodspAvx2)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_SoxrHQ)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_SoxrVHQ)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_LibsamplerateBest)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_VexdspResampleCommand)->Arg(0)->Arg(1)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_SoxRateV)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace
