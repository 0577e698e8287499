// Runs the built vexdsp binary on files made here with libsndfile.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/CliFixture.h"
#include "support/TestSignals.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;

constexpr int kWavFloat = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kWav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

struct Audio {
  int channels = 0, rate = 0, format = 0;
  std::vector<float> samples;  // interleaved
  sf_count_t Frames() const { return channels == 0 ? 0 : static_cast<sf_count_t>(samples.size()) / channels; }
  float At(sf_count_t frame, int ch) const { return samples[static_cast<std::size_t>(frame * channels + ch)]; }
};

// Noise at -6 dBFS peak, exactly representable in 16-bit PCM so that integer
// files round-trip without loss.
Audio MakeNoise(int channels, sf_count_t frames, int rate, int format, unsigned seed = 1) {
  Audio audio{channels, rate, format, vextest::Noise(static_cast<std::size_t>(frames * channels), seed)};
  for (float& x : audio.samples) x = std::round(x * 16384.0f) / 32768.0f;
  return audio;
}

// A scratch folder per test; stdout and stderr are captured in its parent so
// that the folder holds only what vexdsp left.
class VexdspCliTest : public vextest::CliFixture {
 protected:
  long Entries() const { return std::distance(fs::directory_iterator(dir_), fs::directory_iterator()); }
  void Write(const std::string& name, const Audio& audio) const {
    SF_INFO info{0, audio.rate, audio.channels, audio.format, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);  // scales by 32768: exact 16-bit round trips
    ASSERT_EQ(sf_writef_float(file, audio.samples.data(), audio.Frames()), audio.Frames());
    sf_close(file);
  }

  Audio Read(const std::string& name) const {
    SF_INFO info{};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << name << ": " << sf_strerror(nullptr);
    if (file == nullptr) return {};
    Audio audio{info.channels, info.samplerate, info.format,
                std::vector<float>(static_cast<std::size_t>(info.frames * info.channels))};
    EXPECT_EQ(sf_readf_float(file, audio.samples.data(), info.frames), info.frames);
    sf_close(file);
    return audio;
  }
};

// 1 kHz at 0.5 and 750 Hz at 0.25, whole periods in 48000 frames: the peak is
// the file's largest sample, the RMS a sine's amplitude / sqrt(2).
TEST_F(VexdspCliTest, InfoReportsFormatLengthPeakAndRms) {
  Audio audio{2, 48000, kWavFloat, {}};
  double peak[2] = {0.0, 0.0};
  for (int i = 0; i < 48000; ++i) {
    audio.samples.push_back(static_cast<float>(0.5 * std::sin(2.0 * M_PI * 1000.0 * i / 48000.0 + 0.3)));
    audio.samples.push_back(static_cast<float>(0.25 * std::sin(2.0 * M_PI * 750.0 * i / 48000.0)));
    for (int ch = 0; ch < 2; ++ch) peak[ch] = std::max(peak[ch], std::fabs(static_cast<double>(audio.At(i, ch))));
  }
  Write("sine.wav", audio);
  const RunResult result = Run("info sine.wav");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  for (const char* f : {"WAV", "float", "48000 Hz", "channels  2", "frames    48000"})
    EXPECT_NE(result.out.find(f), std::string::npos) << f;
  int rows = 0, ch = 0;
  double peakDb = 0.0, peakLinear = 0.0, rmsDb = 0.0;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);) {
    if (std::sscanf(line.c_str(), "%d %lf %lf %lf", &ch, &peakDb, &peakLinear, &rmsDb) != 4) continue;
    ASSERT_EQ(ch, ++rows) << line;
    EXPECT_NEAR(peakLinear, peak[ch - 1], 1e-6);
    EXPECT_NEAR(peakDb, 20.0 * std::log10(peak[ch - 1]), 0.006);
    EXPECT_NEAR(rmsDb, 20.0 * std::log10((ch == 1 ? 0.5 : 0.25) / std::sqrt(2.0)), 0.01);
  }
  EXPECT_EQ(rows, 2);
}

// Gain is an exact factor, delay an exact 480-sample (10 ms) shift, a chain
// runs in order; length, channels and sample format are kept, also around
// the 4096-frame block (a two-slot chain takes the split, ping-pong path).
// Beyond stereo the WAV gets the extensible header.
TEST_F(VexdspCliTest, GainDelayAndLengthAreExact) {
  const double minus6 = std::pow(10.0, -6.0 / 20.0);
  for (const auto& [frames, channels, format, effects, factor, shift] :
       std::vector<std::tuple<sf_count_t, int, int, std::string, double, sf_count_t>>{
           {10000, 2, kWav16, "delay:ms=10", 1, 480},
           {10000, 2, kWavFloat, "gain:db=-6 delay:ms=10", minus6, 480},
           {0, 2, kWav16, "gain delay:ms=1", 1, 48},
           {4095, 2, kWav16, "gain delay:ms=1", 1, 48},
           {4096, 2, kWav16, "gain delay:ms=1", 1, 48},
           {4097, 1, kWav16, "gain delay:ms=1", 1, 48},
           {20000, 6, kWav16, "gain delay:ms=1", 1, 48}}) {
    SCOPED_TRACE(effects + ", " + std::to_string(frames) + " frames, " + std::to_string(channels) + " channels");
    const Audio input = MakeNoise(channels, frames, 48000, format, static_cast<unsigned>(frames + channels));
    Write("in.wav", input);
    const RunResult result = Run("process in.wav out.wav " + effects);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const Audio output = Read("out.wav");
    const int container = channels > 2 ? SF_FORMAT_WAVEX : SF_FORMAT_WAV;
    EXPECT_EQ(std::make_pair(output.format, output.rate),
              std::make_pair(container | (format & SF_FORMAT_SUBMASK), 48000));
    ASSERT_EQ(output.channels, channels);
    ASSERT_EQ(output.Frames(), frames);
    std::vector<float> expected(input.samples.size(), 0.0f);
    const std::size_t lag = static_cast<std::size_t>(shift * channels);
    for (std::size_t k = lag; k < expected.size(); ++k) expected[k] = factor * input.samples[k - lag];
    EXPECT_LT(vextest::MaxAbsDiff(output.samples, expected), 1e-7);
  }
}

// Every failure: non-zero status, one "vexdsp: error:" line, no new file (also
// when the input turns out short after the output was started).
TEST_F(VexdspCliTest, EveryErrorFailsWithOneLineAndLeavesNoFile) {
  Write("in.wav", MakeNoise(2, 1000, 48000, kWav16));
  Write("slow.wav", MakeNoise(1, 100, 500, kWav16));
  Write("wide.wav", MakeNoise(65, 100, 48000, kWav16));
  std::ofstream(Path("text.wav")) << "not a sound file\n";
  Write("long.flac", MakeNoise(2, 50000, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16));
  fs::resize_file(dir_ / "long.flac", fs::file_size(dir_ / "long.flac") / 2);
  std::ofstream(Path("keep.wav")) << "old";
  const long before = Entries();
  for (const char* args :
       {"process missing.wav out.wav gain", "process text.wav out.wav gain", "process long.flac out.wav gain",
        "process wide.wav out.wav delay", "process slow.wav keep.wav gain", "process in.wav out.mp9 gain",
        "process in.wav out.wav", "info", "process in.wav out.wav nosuch", "process in.wav out.wav gain:level=1",
        "process in.wav out.wav gain:db=abc", "process in.wav out.wav gain:db=48.5",
        "process in.wav out.wav delay:ms=-1"}) {
    SCOPED_TRACE(args);
    const RunResult result = Run(args);
    EXPECT_NE(result.exitCode, 0);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.err.rfind("vexdsp: error: ", 0), 0u) << result.err;
    EXPECT_EQ(Entries(), before);
  }
  EXPECT_EQ(ReadText(dir_ / "keep.wav"), "old");
}

// The demo source peaks at 0.25 (-12 dBFS); its chain equalises, takes 3 dB
// off, delays by 125 ms, adds reverb and limits at -1 dBFS, then reports
// the loudness of what it wrote.
TEST_F(VexdspCliTest, DemoWritesTheProcessedSignal) {
  const RunResult result = Run("demo demo.wav");
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const Audio output = Read("demo.wav");
  ASSERT_EQ(output.channels, 2);
  ASSERT_EQ(output.Frames(), 4 * 48000);
  double peak = 0.0;
  for (float x : output.samples) peak = std::max(peak, std::fabs(static_cast<double>(x)));
  const auto firstSound = std::find_if(output.samples.begin(), output.samples.end(), [](float x) { return x != 0; });
  EXPECT_GE(firstSound - output.samples.begin(), 2 * 6000);
  EXPECT_GT(peak, 0.5 * 0.25 * std::pow(10.0, -3.0 / 20.0));
  EXPECT_LE(peak, std::pow(10.0, -1.0 / 20.0));
  for (const char* part : {"eq:", "-> reverb", "limit:", "LUFS integrated"}) {
    EXPECT_NE(result.out.find(part), std::string::npos) << part << " in\n" << result.out;
  }
}

// One NaN in a file neither spoils a measurement nor silences the rest of a
// reverb: it is taken as silence, and the user is told.
TEST_F(VexdspCliTest, NonFiniteInputIsTakenAsSilenceEverywhere) {
  Audio in = MakeNoise(2, 48000, 48000, kWavFloat);
  in.samples[2 * 1000] = NAN;
  in.samples[2 * 2000 + 1] = INFINITY;
  Write("nan.wav", in);
  // The print's analysis blocks overlap: each bad sample still counts once.
  for (const char* args : {"loudness nan.wav", "spectrum nan.wav", "resample nan.wav r.wav --rate 44100",
                           "process nan.wav p.wav gain", "noiseprint nan.wav --start 0 --end 1 -o n.vxnp"}) {
    SCOPED_TRACE(args);
    const RunResult result = Run(args);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.err.find("2 non-finite input samples"), std::string::npos) << result.err;
  }
  const std::string json = Run("loudness --json nan.wav").out;
  EXPECT_NE(json.find("\"integrated\":-4.7"), std::string::npos) << "the noise's loudness, not -inf: " << json;
  ASSERT_EQ(Run("process nan.wav out.wav reverb").exitCode, 0);
  const Audio out = Read("out.wav");
  EXPECT_TRUE(std::all_of(out.samples.begin(), out.samples.end(), [](float v) { return std::isfinite(v); }));
  EXPECT_NE(out.At(40000, 0), 0.0f) << "the reverb still sounds after the NaN";
}

// Usage errors exit with 2, failed runs with 1; both print one line.
TEST_F(VexdspCliTest, UsageErrorsAndFailedRunsHaveTheirOwnStatus) {
  Write("in.wav", MakeNoise(1, 1000, 48000, kWav16));
  for (const char* args : {"nosuch", "process in.wav out.wav nosuch", "process in.wav out.wav gain:db=0x10",
                           "process in.wav out.wav gain:db=1,db=2", "process in.wav out.wav --tail soon gain",
                           "process in.wav out.wav gain:db=nan"}) {
    SCOPED_TRACE(args);
    EXPECT_EQ(Run(args).exitCode, 2);
  }
  EXPECT_EQ(Run("process missing.wav out.wav gain").exitCode, 1);
  // Only an unknown name points at the list; a refused value names itself.
  EXPECT_NE(Run("process in.wav out.wav nosuch").err.find("'vexdsp effects'"), std::string::npos);
  const RunResult badValue = Run("process in.wav out.wav gain:db=1000");
  EXPECT_NE(badValue.err.find("db"), std::string::npos) << badValue.err;
  EXPECT_EQ(badValue.err.find("'vexdsp effects'"), std::string::npos) << badValue.err;
  // Exactly at a key's limits is legal.
  EXPECT_EQ(Run("process in.wav out.wav gain:db=-120 gain:db=48").exitCode, 0);
}

// --tail auto keeps the delayed end of the input; the JSON listing carries
// every descriptor field.
TEST_F(VexdspCliTest, TailAutoLetsTheDelayOutAndJsonListsDescriptors) {
  Audio in = MakeNoise(1, 4800, 48000, kWavFloat);
  Write("in.wav", in);
  ASSERT_EQ(Run("process in.wav out.wav delay:ms=10 --tail auto").exitCode, 0);
  const Audio out = Read("out.wav");
  ASSERT_EQ(out.Frames(), 4800 + 480);
  for (sf_count_t i = 0; i < in.Frames(); ++i) ASSERT_EQ(out.At(i + 480, 0), in.At(i, 0)) << i;
  ASSERT_EQ(Run("process in.wav out2.wav delay:ms=10 --tail 0.5").exitCode, 0);
  EXPECT_EQ(Read("out2.wav").Frames(), 4800 + 24000);

  const RunResult list = Run("effects --json gain");
  ASSERT_EQ(list.exitCode, 0);
  for (const char* field : {"\"id\": \"db\"", "\"kind\": \"number\"", "\"unit\": \"dB\"", "\"minimum\": -120.0",
                            "\"maximum\": 48.0", "\"scale\": \"linear\"", "\"rebuilds_state\": false"}) {
    EXPECT_NE(list.out.find(field), std::string::npos) << field;
  }
  EXPECT_EQ(list.out.find("\"delay\""), std::string::npos) << "the search narrows the list";
}

}  // namespace
