// Runs the built vexdsp binary on files made here with libsndfile and checks
// what it prints and writes; drives its rendering loop directly where a
// behaviour (latency compensation) needs an effect the registry lacks.

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
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Render.h"
#include "vexaudiodsp/buffering/DSPProcess.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

namespace fs = std::filesystem;

constexpr double kPi = 3.14159265358979323846;
constexpr int kWavFloat = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kWav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

struct RunResult {
  int exitCode = -1;
  std::string out, err;
};

std::string ReadText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string Quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct Audio {
  int channels = 0, rate = 0, format = 0;
  std::vector<float> samples;  // interleaved

  sf_count_t Frames() const { return channels == 0 ? 0 : static_cast<sf_count_t>(samples.size()) / channels; }
  float At(sf_count_t frame, int ch) const { return samples[static_cast<std::size_t>(frame * channels + ch)]; }
};

// Noise at -6 dBFS peak, different in every channel, exactly representable
// in 16-bit PCM so that integer files round-trip without loss.
Audio MakeNoise(int channels, sf_count_t frames, int rate, int format, unsigned seed = 1) {
  Audio audio{channels, rate, format, std::vector<float>(static_cast<std::size_t>(frames * channels))};
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> value(-16384, 16383);
  for (float& x : audio.samples) x = static_cast<float>(value(random)) / 32768.0f;
  return audio;
}

// A scratch folder per test; stdout and stderr are captured in its parent so
// that listing the folder shows only what vexdsp left.
class VexdspCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "vexdsp-cli-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    dir_ = root_ / "work";
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(root_); }

  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  RunResult Run(const std::vector<std::string>& args) const {
    std::string command = "cd " + Quote(dir_.string()) + " && " + Quote(VEXDSP_BINARY);
    for (const std::string& arg : args) command += " " + Quote(arg);
    const fs::path out = root_ / "stdout.txt", err = root_ / "stderr.txt";
    command += " >" + Quote(out.string()) + " 2>" + Quote(err.string()) + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out), ReadText(err)};
  }

  std::vector<std::string> Listing() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

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

  fs::path root_, dir_;
};

TEST_F(VexdspCliTest, InfoReportsFormatLengthPeakAndRms) {
  // 1 kHz at 0.5 and 750 Hz at 0.25, whole periods in 48000 frames.
  Audio audio{2, 48000, kWavFloat, {}};
  for (int i = 0; i < 48000; ++i) {
    audio.samples.push_back(static_cast<float>(0.5 * std::sin(2.0 * kPi * 1000.0 * i / 48000.0 + 0.3)));
    audio.samples.push_back(static_cast<float>(0.25 * std::sin(2.0 * kPi * 750.0 * i / 48000.0)));
  }
  Write("sine.wav", audio);
  double peak[2] = {0.0, 0.0};
  for (sf_count_t i = 0; i < audio.Frames(); ++i) {
    for (int ch = 0; ch < 2; ++ch) peak[ch] = std::max(peak[ch], std::fabs(static_cast<double>(audio.At(i, ch))));
  }

  RunResult result = Run({"info", "sine.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  for (const char* field :
       {"WAV", "float", "rate      48000 Hz", "channels  2", "frames    48000", "duration  1.000 s"}) {
    EXPECT_NE(result.out.find(field), std::string::npos) << field << "\n" << result.out;
  }
  int rows = 0;
  for (const std::string& line : Lines(result.out)) {
    int channel = 0;
    double peakDb = 0.0, peakLinear = 0.0, rmsDb = 0.0;
    if (std::sscanf(line.c_str(), "%d %lf %lf %lf", &channel, &peakDb, &peakLinear, &rmsDb) != 4) continue;
    ASSERT_TRUE(channel == 1 || channel == 2) << line;
    const double amplitude = channel == 1 ? 0.5 : 0.25;
    EXPECT_NEAR(peakLinear, peak[channel - 1], 1e-6);
    EXPECT_NEAR(peakDb, 20.0 * std::log10(peak[channel - 1]), 0.006);
    EXPECT_NEAR(rmsDb, 20.0 * std::log10(amplitude / std::sqrt(2.0)), 0.01);  // a sine's RMS
    ++rows;
  }
  EXPECT_EQ(rows, 2);

  Write("empty.wav", Audio{3, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_24, {}});
  result = Run({"info", "empty.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  for (const char* field : {"frames    0", "24 bit", "channels  3", "-inf"}) {
    EXPECT_NE(result.out.find(field), std::string::npos) << field << "\n" << result.out;
  }
}

// Gain is an exact factor, delay an exact whole-sample shift (480 samples is
// 10 ms at 48 kHz), a chain runs its effects in order; length, channels and
// sample format are kept, also for lengths around the 4096-frame block
// through a two-slot chain (the split, ping-pong path).
TEST_F(VexdspCliTest, GainDelayAndLengthAreExact) {
  struct Case {
    sf_count_t frames;
    int channels, format;
    std::vector<std::string> effects;
    double factor;
    sf_count_t shift;
  };
  const double minus6 = std::pow(10.0, -6.0 / 20.0);
  const std::vector<std::string> both = {"gain", "delay:ms=1"};
  for (const Case& c :
       {Case{10000, 2, kWavFloat, {"gain:db=-6"}, minus6, 0}, Case{10000, 2, kWav16, {"delay:ms=10"}, 1.0, 480},
        Case{10000, 2, kWavFloat, {"gain:db=-6", "delay:ms=10"}, minus6, 480}, Case{0, 2, kWav16, both, 1.0, 48},
        Case{1, 2, kWav16, both, 1.0, 48}, Case{4095, 2, kWav16, both, 1.0, 48}, Case{4096, 2, kWav16, both, 1.0, 48},
        Case{4097, 2, kWav16, both, 1.0, 48}, Case{20000, 2, kWav16, both, 1.0, 48},
        Case{4097, 1, kWav16, both, 1.0, 48}, Case{20000, 6, kWav16, both, 1.0, 48}}) {
    SCOPED_TRACE(c.effects.back() + " x" + std::to_string(c.effects.size()) + ", " + std::to_string(c.frames) +
                 " frames, " + std::to_string(c.channels) + " channels");
    const Audio input = MakeNoise(c.channels, c.frames, 48000, c.format, static_cast<unsigned>(c.frames + c.channels));
    Write("in.wav", input);
    std::vector<std::string> args = {"process", "in.wav", "out.wav"};
    args.insert(args.end(), c.effects.begin(), c.effects.end());
    const RunResult result = Run(args);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const Audio output = Read("out.wav");
    EXPECT_EQ(output.format, c.format);
    EXPECT_EQ(output.rate, 48000);
    ASSERT_EQ(output.channels, c.channels);
    ASSERT_EQ(output.Frames(), c.frames);
    double worst = 0.0;
    for (sf_count_t i = 0; i < c.frames; ++i) {
      for (int ch = 0; ch < c.channels; ++ch) {
        const double expected = i < c.shift ? 0.0 : c.factor * input.At(i - c.shift, ch);
        worst = std::max(worst, std::fabs(output.At(i, ch) - expected));
      }
    }
    EXPECT_LT(worst, 1e-7);
  }
}

TEST_F(VexdspCliTest, FlacFallbackClippingAndInPlaceOutput) {
  const Audio pcm = MakeNoise(2, 3000, 44100, kWav16);
  Write("pcm.wav", pcm);
  const Audio floats = MakeNoise(1, 3000, 44100, kWavFloat);
  Write("float.wav", floats);

  // FLAC cannot hold float: 24-bit PCM, and the run says so.
  const RunResult result = Run({"process", "float.wav", "f.flac", "gain"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(Read("f.flac").format, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
  EXPECT_NE(result.out.find("note"), std::string::npos);

  // Clipping, not wrap-around, when gain pushes PCM past full scale.
  ASSERT_EQ(Run({"process", "pcm.wav", "loud.wav", "gain:db=48"}).exitCode, 0);
  const Audio loud = Read("loud.wav");
  int wrapped = 0;
  for (std::size_t i = 0; i < pcm.samples.size(); ++i) {
    wrapped += pcm.samples[i] != 0.0f && (loud.samples[i] > 0.0f) != (pcm.samples[i] > 0.0f);
  }
  EXPECT_EQ(wrapped, 0);

  // The output may replace the input, leaving no temporary file behind.
  ASSERT_EQ(Run({"process", "float.wav", "float.wav", "gain:db=-20"}).exitCode, 0);
  const Audio quiet = Read("float.wav");
  ASSERT_EQ(quiet.samples.size(), floats.samples.size());
  for (std::size_t i = 0; i < quiet.samples.size(); ++i) ASSERT_NEAR(quiet.samples[i], 0.1 * floats.samples[i], 1e-7);
  EXPECT_EQ(Listing(), (std::vector<std::string>{"f.flac", "float.wav", "loud.wav", "pcm.wav"}));
}

// Every failure: non-zero status, exactly one "vexdsp: error:" line on
// stderr, and nothing new in the folder (no output, no temporary file).
TEST_F(VexdspCliTest, EveryErrorFailsWithOneLineAndLeavesNoFile) {
  Write("in.wav", MakeNoise(2, 1000, 48000, kWav16));
  Write("slow.wav", MakeNoise(1, 100, 500, kWav16));
  Write("wide.wav", MakeNoise(65, 100, 48000, kWav16));
  std::ofstream(Path("text.wav")) << "not a sound file\n";
  fs::create_directories(dir_ / "folder.wav");
  // A FLAC file cut short: the header promises more frames than there are,
  // so the run fails after the output was started.
  Write("long.flac", MakeNoise(2, 50000, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16));
  fs::resize_file(dir_ / "long.flac", fs::file_size(dir_ / "long.flac") / 2);
  std::ofstream(Path("keep.wav")) << "old";

  std::vector<std::vector<std::string>> cases = {
      {"process", "missing.wav", "out.wav", "gain"},
      {"process", "text.wav", "out.wav", "gain"},
      {"process", "folder.wav", "out.wav", "gain"},
      {"process", "long.flac", "out.wav", "gain"},
      {"process", "slow.wav", "out.wav", "gain"},
      {"process", "wide.wav", "out.wav", "delay"},
      {"process", "slow.wav", "keep.wav", "gain"},  // an existing output stays as it was
      {"process", "in.wav", "out.mp9", "gain"},
      {"process", "in.wav", "out.flac", "gain", "--format", "float"},
      {"process", "in.wav", "out.wav", "gain", "--format", "pcm12"},
      {"process", "in.wav", "no/such/dir/out.wav", "gain"},
      {"process", "in.wav", "out.wav"},
      {"process", "in.wav"},
      {"info", "missing.wav"},
      {"info", "text.wav"},
      {"info"},
      {"mix", "in.wav"},
      {}};
  for (const char* effect :
       {"reverb", ":db=1", "gain:level=1", "gain:db", "gain:db=1,", "gain:db=1,db=2", "gain:db=abc",
        "gain:db=", "gain:db=3x", "gain:db=nan", "gain:db=48.5", "gain:db=-121", "delay:ms=-1", "delay:ms=10001"}) {
    cases.push_back({"process", "in.wav", "out.wav", effect});
  }
  const std::vector<std::string> before = Listing();
  for (const std::vector<std::string>& args : cases) {
    std::string joined;
    for (const auto& arg : args) joined += arg + " ";
    SCOPED_TRACE(joined);
    const RunResult result = Run(args);
    EXPECT_NE(result.exitCode, 0);
    const std::vector<std::string> lines = Lines(result.err);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    EXPECT_EQ(lines[0].rfind("vexdsp: error: ", 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::string("vexdsp: error: ").size() + 5);
    EXPECT_EQ(Listing(), before);
  }
  EXPECT_EQ(ReadText(dir_ / "keep.wav"), "old");
}

TEST_F(VexdspCliTest, DemoWritesTheProcessedSignal) {
  const RunResult result = Run({"demo", "demo.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const Audio output = Read("demo.wav");
  EXPECT_EQ(output.format, kWavFloat);
  EXPECT_EQ(output.rate, 48000);
  EXPECT_EQ(output.channels, 2);
  EXPECT_EQ(output.Frames(), 4 * 48000);
  // The source peaks at 0.25; the chain takes 3 dB off and delays by 125 ms.
  double peak = 0.0, leading = 0.0;
  for (std::size_t k = 0; k < output.samples.size(); ++k) {
    peak = std::max(peak, std::fabs(static_cast<double>(output.samples[k])));
    if (k < 2 * 6000) leading = std::max(leading, std::fabs(static_cast<double>(output.samples[k])));
  }
  EXPECT_EQ(leading, 0.0);
  const double expectedPeak = 0.25 * std::pow(10.0, -3.0 / 20.0);
  EXPECT_LE(peak, expectedPeak + 1e-6);
  EXPECT_GT(peak, 0.9 * expectedPeak);
}

// A pure delay that reports its delay as latency, as a look-ahead effect
// does. The chain runner must take exactly that delay back out.
class LatentDelay final : public dsp::DSPProcess {
 public:
  explicit LatentDelay(int latency) : latency_(latency) {}
  void SetIOConfig(int numChannels, float /*sampleRate*/) override {
    history_.resize(static_cast<std::size_t>(numChannels));
  }
  void Start() override {
    for (auto& channel : history_) channel.assign(static_cast<std::size_t>(latency_), 0.0f);
  }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (std::size_t ch = 0; ch < std::min(static_cast<std::size_t>(numChannels), history_.size()); ++ch) {
      for (int i = 0; i < numSamples; ++i) {
        history_[ch].push_back(in[ch][i]);
        out[ch][i] = history_[ch].front();
        history_[ch].pop_front();
      }
    }
  }
  int GetLatency() const override { return latency_; }

 private:
  int latency_;
  std::vector<std::deque<float>> history_;
};

vexdsp::PlanarAudio MakePlanarNoise(int channels, std::size_t frames, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> value(-1.0f, 1.0f);
  vexdsp::PlanarAudio audio(static_cast<std::size_t>(channels), std::vector<float>(frames));
  for (auto& channel : audio) {
    for (float& x : channel) x = value(random);
  }
  return audio;
}

// Latencies below, at and above the 4096-frame block, alone (the chain's
// direct path) and in pairs (its split, ping-pong path): the output must be
// the input, sample for sample, at its full length.
TEST(VexdspRender, CompensatedLatencyGivesBackTheInputExactly) {
  const std::vector<std::vector<int>> chains = {{0}, {100}, {4096}, {5000}, {37, 9000}, {0, 4097, 1}};
  for (const std::vector<int>& latencies : chains) {
    for (std::size_t frames : {0, 1, 4095, 4096, 4097, 20000}) {
      SCOPED_TRACE(std::to_string(frames) + " frames, " + std::to_string(latencies.size()) + " slots, first latency " +
                   std::to_string(latencies[0]));
      dsp::DSPProcessChain chain;
      int total = 0;
      for (std::size_t slot = 0; slot < latencies.size(); ++slot) {
        chain.Add(static_cast<int>(slot), dsp::SlotInfo(std::make_shared<LatentDelay>(latencies[slot]), true));
        total += latencies[slot];
      }
      chain.SetIOConfig(3, 48000.0f);
      chain.Start();
      ASSERT_EQ(chain.GetLatency(), total);
      const vexdsp::PlanarAudio input = MakePlanarNoise(3, frames, static_cast<unsigned>(frames + total));
      vexdsp::PlanarAudio output(3);
      vexdsp::MemorySource source(input);
      vexdsp::MemorySink sink(output);
      vexdsp::RenderThroughChain(chain, 3, static_cast<std::int64_t>(frames), source, sink, nullptr);
      EXPECT_EQ(output, input);
    }
  }
}

}  // namespace
