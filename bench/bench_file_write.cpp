// Writing a second of stereo float audio as a 16- or 24-bit WAV: the
// command line's writer (non-finite check, rounding, clip count in our code,
// integers handed to libsndfile) against libsndfile converting the floats
// itself (which floors). Both pay the same file creation and page-cache
// writes, so the difference is the conversion.

#include <sndfile.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "BenchSupport.h"

namespace {

constexpr int kRate = 48000;
constexpr int kBlock = 4096;

struct Signal {
  Signal() : left(kRate), right(kRate), interleaved(2 * kRate) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> uniform(-0.9f, 0.9f);
    for (int i = 0; i < kRate; ++i) {
      left[i] = uniform(rng);
      right[i] = uniform(rng);
      interleaved[2 * i] = left[i];
      interleaved[2 * i + 1] = right[i];
    }
  }
  std::vector<float> left, right, interleaved;
};

std::string ScratchPath() {
  return (std::filesystem::temp_directory_path() / ("vexdsp-bench-" + std::to_string(getpid()) + ".wav")).string();
}

void BM_VexdspWriter(benchmark::State& state) {
  const Signal signal;
  const std::string path = ScratchPath();
  const int format = SF_FORMAT_WAV | static_cast<int>(state.range(0));
  for (auto _ : state) {
    vexdsp::AudioFileWriter writer(path, format, 2, kRate);
    for (int start = 0; start < kRate; start += kBlock) {
      const float* pointers[2] = {signal.left.data() + start, signal.right.data() + start};
      writer.Write(pointers, std::min(kBlock, kRate - start));
    }
    writer.Commit();
  }
  std::filesystem::remove(path);
  vexbench::ReportTimePerSample(state, 2.0 * kRate);
}

void BM_LibsndfileConverts(benchmark::State& state) {
  const Signal signal;
  const std::string path = ScratchPath();
  for (auto _ : state) {
    SF_INFO info{0, kRate, 2, SF_FORMAT_WAV | static_cast<int>(state.range(0)), 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    for (int start = 0; start < kRate; start += kBlock) {
      sf_writef_float(file, signal.interleaved.data() + 2 * start, std::min(kBlock, kRate - start));
    }
    sf_close(file);
  }
  std::filesystem::remove(path);
  vexbench::ReportTimePerSample(state, 2.0 * kRate);
}

BENCHMARK(BM_VexdspWriter)->Arg(SF_FORMAT_PCM_16)->Arg(SF_FORMAT_PCM_24);
BENCHMARK(BM_LibsndfileConverts)->Arg(SF_FORMAT_PCM_16)->Arg(SF_FORMAT_PCM_24);

}  // namespace
