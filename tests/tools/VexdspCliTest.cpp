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
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "CliError.h"
#include "Render.h"
#include "vexaudiodsp/buffering/DSPProcess.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

namespace fs = std::filesystem;

constexpr double kPi = 3.14159265358979323846;

struct RunResult {
  int exitCode = -1;
  std::string out;
  std::string err;
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
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string Quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

// A scratch folder per test; the command's stdout and stderr are captured in
// a sibling folder so that listing this one shows only what vexdsp left.
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
    for (const std::string& arg : args) {
      command += " " + Quote(arg);
    }
    const fs::path out = root_ / "stdout.txt";
    const fs::path err = root_ / "stderr.txt";
    command += " >" + Quote(out.string()) + " 2>" + Quote(err.string()) + " </dev/null";
    const int status = std::system(command.c_str());
    RunResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadText(out);
    result.err = ReadText(err);
    return result;
  }

  std::vector<std::string> Listing() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // A failed run: non-zero status, exactly one "vexdsp: error:" line on
  // stderr, and nothing new in the folder (no output, no temporary file).
  void ExpectFailure(const std::vector<std::string>& args) const {
    const std::vector<std::string> before = Listing();
    const RunResult result = Run(args);
    std::string joined;
    for (const auto& arg : args) {
      joined += arg + " ";
    }
    SCOPED_TRACE(joined);
    EXPECT_NE(result.exitCode, 0);
    const std::vector<std::string> lines = Lines(result.err);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    EXPECT_EQ(lines[0].rfind("vexdsp: error: ", 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::string("vexdsp: error: ").size() + 5);
    EXPECT_EQ(Listing(), before);
  }

  fs::path root_;
  fs::path dir_;
};

struct Audio {
  int channels = 0;
  int rate = 0;
  int format = 0;
  std::vector<float> samples;  // interleaved

  sf_count_t Frames() const { return channels == 0 ? 0 : static_cast<sf_count_t>(samples.size()) / channels; }
  float At(sf_count_t frame, int ch) const { return samples[static_cast<std::size_t>(frame * channels + ch)]; }
};

void WriteAudio(const std::string& path, const Audio& audio) {
  SF_INFO info{};
  info.channels = audio.channels;
  info.samplerate = audio.rate;
  info.format = audio.format;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
  ASSERT_EQ(sf_writef_float(file, audio.samples.data(), audio.Frames()), audio.Frames());
  sf_close(file);
}

Audio ReadAudio(const std::string& path) {
  Audio audio;
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
  if (file == nullptr) {
    return audio;
  }
  audio.channels = info.channels;
  audio.rate = info.samplerate;
  audio.format = info.format;
  audio.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
  EXPECT_EQ(sf_readf_float(file, audio.samples.data(), info.frames), info.frames);
  sf_close(file);
  return audio;
}

// Noise at -6 dBFS peak, different in every channel, exactly representable
// in 16-bit PCM so that integer files round-trip without loss.
Audio MakeNoise(int channels, sf_count_t frames, int rate, int format, unsigned seed = 1) {
  Audio audio{channels, rate, format, {}};
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> value(-16384, 16383);
  audio.samples.resize(static_cast<std::size_t>(frames * channels));
  for (float& x : audio.samples) {
    x = static_cast<float>(value(random)) / 32768.0f;
  }
  return audio;
}

TEST_F(VexdspCliTest, InfoReportsFormatLengthPeakAndRms) {
  // 1 kHz at 0.5 and 750 Hz at 0.25, whole periods in 48000 frames.
  Audio audio{2, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {}};
  const sf_count_t frames = 48000;
  for (sf_count_t i = 0; i < frames; ++i) {
    audio.samples.push_back(static_cast<float>(0.5 * std::sin(2.0 * kPi * 1000.0 * i / 48000.0 + 0.3)));
    audio.samples.push_back(static_cast<float>(0.25 * std::sin(2.0 * kPi * 750.0 * i / 48000.0)));
  }
  WriteAudio(Path("sine.wav"), audio);
  double peak[2] = {0.0, 0.0};
  double sumSquares[2] = {0.0, 0.0};
  for (sf_count_t i = 0; i < frames; ++i) {
    for (int ch = 0; ch < 2; ++ch) {
      peak[ch] = std::max(peak[ch], std::fabs(static_cast<double>(audio.At(i, ch))));
      sumSquares[ch] += static_cast<double>(audio.At(i, ch)) * audio.At(i, ch);
    }
  }

  const RunResult result = Run({"info", "sine.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("WAV"), std::string::npos);
  EXPECT_NE(result.out.find("float"), std::string::npos);
  EXPECT_NE(result.out.find("rate      48000 Hz"), std::string::npos);
  EXPECT_NE(result.out.find("channels  2"), std::string::npos);
  EXPECT_NE(result.out.find("frames    48000"), std::string::npos);
  EXPECT_NE(result.out.find("duration  1.000 s"), std::string::npos);

  int rows = 0;
  for (const std::string& line : Lines(result.out)) {
    int channel = 0;
    double peakDb = 0.0;
    double peakLinear = 0.0;
    double rmsDb = 0.0;
    if (std::sscanf(line.c_str(), "%d %lf %lf %lf", &channel, &peakDb, &peakLinear, &rmsDb) != 4) {
      continue;
    }
    ASSERT_TRUE(channel == 1 || channel == 2) << line;
    const int ch = channel - 1;
    EXPECT_NEAR(peakLinear, peak[ch], 1e-6);
    EXPECT_NEAR(peakDb, 20.0 * std::log10(peak[ch]), 0.006);
    EXPECT_NEAR(rmsDb, 10.0 * std::log10(sumSquares[ch] / frames), 0.006);
    // And against the closed form: a sine's RMS is its amplitude / sqrt(2).
    EXPECT_NEAR(rmsDb, 20.0 * std::log10((ch == 0 ? 0.5 : 0.25) / std::sqrt(2.0)), 0.01);
    ++rows;
  }
  EXPECT_EQ(rows, 2);
}

TEST_F(VexdspCliTest, InfoOnSilentEmptyAndPcmFiles) {
  WriteAudio(Path("empty.wav"), Audio{3, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_24, {}});
  RunResult result = Run({"info", "empty.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find("frames    0"), std::string::npos);
  EXPECT_NE(result.out.find("24 bit"), std::string::npos);
  EXPECT_NE(result.out.find("channels  3"), std::string::npos);
  EXPECT_NE(result.out.find("-inf"), std::string::npos);

  Audio square{1, 8000, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, std::vector<float>(800, 0.25f)};
  for (std::size_t i = 1; i < square.samples.size(); i += 2) {
    square.samples[i] = -0.25f;
  }
  WriteAudio(Path("square.aiff"), square);
  result = Run({"info", "square.aiff"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find("AIFF"), std::string::npos);
  EXPECT_NE(result.out.find("16 bit"), std::string::npos);
  EXPECT_NE(result.out.find("      1     -12.04     0.250000    -12.04"), std::string::npos) << result.out;
}

TEST_F(VexdspCliTest, GainScalesEverySampleByTheDecibelFactor) {
  const Audio input = MakeNoise(2, 10000, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  WriteAudio(Path("in.wav"), input);
  const RunResult result = Run({"process", "in.wav", "out.wav", "gain:db=-6"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const Audio output = ReadAudio(Path("out.wav"));
  EXPECT_EQ(output.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  EXPECT_EQ(output.rate, 48000);
  ASSERT_EQ(output.channels, 2);
  ASSERT_EQ(output.samples.size(), input.samples.size());
  const double factor = std::pow(10.0, -6.0 / 20.0);
  double worst = 0.0;
  for (std::size_t i = 0; i < input.samples.size(); ++i) {
    worst = std::max(worst, std::fabs(output.samples[i] - factor * input.samples[i]));
  }
  EXPECT_LT(worst, 1e-7);
}

TEST_F(VexdspCliTest, DelayShiftsByWholeSamplesAndKeepsLengthAndFormat) {
  const Audio input = MakeNoise(2, 5000, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  WriteAudio(Path("in.wav"), input);
  const RunResult result = Run({"process", "in.wav", "out.wav", "delay:ms=10"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const Audio output = ReadAudio(Path("out.wav"));
  EXPECT_EQ(output.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  ASSERT_EQ(output.Frames(), input.Frames());
  int mismatches = 0;
  for (sf_count_t i = 0; i < output.Frames(); ++i) {
    for (int ch = 0; ch < 2; ++ch) {
      const float expected = i < 480 ? 0.0f : input.At(i - 480, ch);
      mismatches += output.At(i, ch) != expected;
    }
  }
  EXPECT_EQ(mismatches, 0);
}

TEST_F(VexdspCliTest, ChainRunsEffectsInOrder) {
  const Audio input = MakeNoise(2, 9000, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 7);
  WriteAudio(Path("in.wav"), input);
  const RunResult result = Run({"process", "in.wav", "out.wav", "gain:db=-6", "delay:ms=10"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find("gain:db=-6 -> delay:ms=10"), std::string::npos) << result.out;
  const Audio output = ReadAudio(Path("out.wav"));
  ASSERT_EQ(output.Frames(), input.Frames());
  const double factor = std::pow(10.0, -6.0 / 20.0);
  double worst = 0.0;
  for (sf_count_t i = 0; i < output.Frames(); ++i) {
    for (int ch = 0; ch < 2; ++ch) {
      const double expected = i < 480 ? 0.0 : factor * input.At(i - 480, ch);
      worst = std::max(worst, std::fabs(output.At(i, ch) - expected));
    }
  }
  EXPECT_LT(worst, 1e-7);
}

// Lengths around the 4096-frame block, including none and one, and channel
// counts 1, 2 and 6, through a two-slot chain (the split, ping-pong path).
TEST_F(VexdspCliTest, LengthAndAlignmentSurviveBlockBoundariesAndChannelCounts) {
  struct Case {
    sf_count_t frames;
    int channels;
  };
  for (const Case& c : {Case{0, 2}, Case{1, 2}, Case{4095, 2}, Case{4096, 2}, Case{4097, 2}, Case{20000, 2},
                        Case{4097, 1}, Case{20000, 6}}) {
    SCOPED_TRACE(std::to_string(c.frames) + " frames, " + std::to_string(c.channels) + " channels");
    const Audio input = MakeNoise(c.channels, c.frames, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16,
                                  static_cast<unsigned>(c.frames + c.channels));
    WriteAudio(Path("in.wav"), input);
    const RunResult result = Run({"process", "in.wav", "out.wav", "gain", "delay:ms=1"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const Audio output = ReadAudio(Path("out.wav"));
    ASSERT_EQ(output.channels, c.channels);
    ASSERT_EQ(output.Frames(), c.frames);
    int mismatches = 0;
    for (sf_count_t i = 0; i < c.frames; ++i) {
      for (int ch = 0; ch < c.channels; ++ch) {
        mismatches += output.At(i, ch) != (i < 48 ? 0.0f : input.At(i - 48, ch));
      }
    }
    EXPECT_EQ(mismatches, 0);
  }
}

TEST_F(VexdspCliTest, OutputFormatFollowsExtensionAndOverride) {
  const Audio pcm = MakeNoise(2, 3000, 44100, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  WriteAudio(Path("pcm.wav"), pcm);
  const Audio floats = MakeNoise(1, 3000, 44100, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  WriteAudio(Path("float.wav"), floats);

  ASSERT_EQ(Run({"process", "pcm.wav", "out.flac", "gain"}).exitCode, 0);
  Audio output = ReadAudio(Path("out.flac"));
  EXPECT_EQ(output.format, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
  EXPECT_EQ(output.samples, pcm.samples);  // lossless round trip at 0 dB

  ASSERT_EQ(Run({"process", "pcm.wav", "out.AIFF", "gain"}).exitCode, 0);
  EXPECT_EQ(ReadAudio(Path("out.AIFF")).format, SF_FORMAT_AIFF | SF_FORMAT_PCM_16);

  ASSERT_EQ(Run({"process", "pcm.wav", "pcm24.wav", "gain", "--format", "pcm24"}).exitCode, 0);
  output = ReadAudio(Path("pcm24.wav"));
  EXPECT_EQ(output.format, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
  EXPECT_EQ(output.samples, pcm.samples);

  ASSERT_EQ(Run({"process", "pcm.wav", "f.aif", "gain", "--format=float"}).exitCode, 0);
  EXPECT_EQ(ReadAudio(Path("f.aif")).format, SF_FORMAT_AIFF | SF_FORMAT_FLOAT);

  // FLAC cannot hold float: 24-bit PCM, and the run says so.
  const RunResult result = Run({"process", "float.wav", "f.flac", "gain"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(ReadAudio(Path("f.flac")).format, SF_FORMAT_FLAC | SF_FORMAT_PCM_24);
  EXPECT_NE(result.out.find("note"), std::string::npos);

  // Clipping, not wrap-around, when gain pushes PCM past full scale.
  ASSERT_EQ(Run({"process", "pcm.wav", "loud.wav", "gain:db=48"}).exitCode, 0);
  output = ReadAudio(Path("loud.wav"));
  int wrapped = 0;
  for (std::size_t i = 0; i < pcm.samples.size(); ++i) {
    wrapped += pcm.samples[i] != 0.0f && (output.samples[i] > 0.0f) != (pcm.samples[i] > 0.0f);
  }
  EXPECT_EQ(wrapped, 0);
}

TEST_F(VexdspCliTest, OutputMayReplaceTheInput) {
  const Audio input = MakeNoise(1, 4000, 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  WriteAudio(Path("a.wav"), input);
  ASSERT_EQ(Run({"process", "a.wav", "a.wav", "gain:db=-20"}).exitCode, 0);
  const Audio output = ReadAudio(Path("a.wav"));
  ASSERT_EQ(output.samples.size(), input.samples.size());
  for (std::size_t i = 0; i < input.samples.size(); i += 97) {
    EXPECT_NEAR(output.samples[i], 0.1 * input.samples[i], 1e-7);
  }
  EXPECT_EQ(Listing(), std::vector<std::string>{"a.wav"});
}

TEST_F(VexdspCliTest, BadInputFailsWithOneLineAndLeavesNoFile) {
  WriteAudio(Path("in.wav"), MakeNoise(2, 1000, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
  WriteAudio(Path("slow.wav"), MakeNoise(1, 100, 500, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
  WriteAudio(Path("wide.wav"), MakeNoise(65, 100, 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
  std::ofstream(Path("text.wav")) << "not a sound file\n";
  fs::create_directories(dir_ / "folder.wav");

  // A FLAC file cut short: the header promises more frames than there are,
  // so the run fails after the output was started.
  WriteAudio(Path("long.flac"), MakeNoise(2, 50000, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16));
  fs::resize_file(dir_ / "long.flac", fs::file_size(dir_ / "long.flac") / 2);

  ExpectFailure({"process", "missing.wav", "out.wav", "gain"});
  ExpectFailure({"process", "text.wav", "out.wav", "gain"});
  ExpectFailure({"process", "folder.wav", "out.wav", "gain"});
  ExpectFailure({"process", "long.flac", "out.wav", "gain"});
  ExpectFailure({"process", "in.wav", "out.wav", "reverb"});
  ExpectFailure({"process", "in.wav", "out.wav", ":db=1"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:level=1"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=1,"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=1,db=2"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=abc"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db="});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=3x"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=nan"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=48.5"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain:db=-121"});
  ExpectFailure({"process", "in.wav", "out.wav", "delay:ms=-1"});
  ExpectFailure({"process", "in.wav", "out.wav", "delay:ms=10001"});
  ExpectFailure({"process", "slow.wav", "out.wav", "gain"});
  ExpectFailure({"process", "wide.wav", "out.wav", "delay"});
  ExpectFailure({"process", "in.wav", "out.mp9", "gain"});
  ExpectFailure({"process", "in.wav", "out.flac", "gain", "--format", "float"});
  ExpectFailure({"process", "in.wav", "out.wav", "gain", "--format", "pcm12"});
  ExpectFailure({"process", "in.wav", "no/such/dir/out.wav", "gain"});
  ExpectFailure({"process", "in.wav", "out.wav"});
  ExpectFailure({"process", "in.wav"});
  ExpectFailure({"info", "missing.wav"});
  ExpectFailure({"info", "text.wav"});
  ExpectFailure({"info"});
  ExpectFailure({"mix", "in.wav"});
  ExpectFailure({});

  // A failed run leaves an existing output as it was.
  std::ofstream(Path("keep.wav")) << "old";
  ExpectFailure({"process", "slow.wav", "keep.wav", "gain"});
  EXPECT_EQ(ReadText(dir_ / "keep.wav"), "old");
}

TEST_F(VexdspCliTest, EffectsListsKeysUnitsRangesAndDefaults) {
  const RunResult result = Run({"effects"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_NE(result.out.find("gain:db=0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("-120 to 48 dB, default 0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("delay:ms=0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("0 to 10000 ms, default 0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("cut"), std::string::npos) << result.out;
}

TEST_F(VexdspCliTest, EveryCommandHasHelp) {
  for (const char* command : {"info", "process", "effects", "demo"}) {
    const RunResult result = Run({command, "--help"});
    EXPECT_EQ(result.exitCode, 0) << command;
    EXPECT_NE(result.out.find(command), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("--help"), std::string::npos) << result.out;
  }
  const RunResult result = Run({"--help"});
  EXPECT_EQ(result.exitCode, 0);
  for (const char* command : {"info", "process", "effects", "demo"}) {
    EXPECT_NE(result.out.find(command), std::string::npos) << result.out;
  }
}

TEST_F(VexdspCliTest, DemoWritesTheProcessedSignal) {
  RunResult result = Run({"demo", "demo.wav"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.err, "");
  for (const char* word : {"signal", "chain", "latency", "peak", "RMS", "realtime", "gain:db=-3"}) {
    EXPECT_NE(result.out.find(word), std::string::npos) << word << "\n" << result.out;
  }
  const Audio output = ReadAudio(Path("demo.wav"));
  EXPECT_EQ(output.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  EXPECT_EQ(output.rate, 48000);
  EXPECT_EQ(output.channels, 2);
  EXPECT_EQ(output.Frames(), 4 * 48000);
  // The source peaks at 0.25; the chain takes 3 dB off and delays by 125 ms.
  double peak = 0.0;
  double leading = 0.0;
  for (sf_count_t i = 0; i < output.Frames(); ++i) {
    for (int ch = 0; ch < 2; ++ch) {
      peak = std::max(peak, std::fabs(static_cast<double>(output.At(i, ch))));
      if (i < 6000) {
        leading = std::max(leading, std::fabs(static_cast<double>(output.At(i, ch))));
      }
    }
  }
  EXPECT_EQ(leading, 0.0);
  EXPECT_LE(peak, 0.25 * std::pow(10.0, -3.0 / 20.0) + 1e-6);
  EXPECT_GT(peak, 0.9 * 0.25 * std::pow(10.0, -3.0 / 20.0));

  result = Run({"demo"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(ReadAudio(Path("demo-out.wav")).Frames(), 4 * 48000);
}

// A pure delay that reports its delay as latency, as a look-ahead effect
// does. The chain runner must take exactly that delay back out.
class LatentDelay final : public dsp::DSPProcess {
 public:
  explicit LatentDelay(int latency) : latency_(latency) {}

  void SetIOConfig(int numChannels, float /*sampleRate*/) override {
    history_.assign(static_cast<std::size_t>(numChannels), std::vector<float>(static_cast<std::size_t>(latency_)));
  }
  void Start() override {
    for (auto& channel : history_) {
      std::fill(channel.begin(), channel.end(), 0.0f);
    }
    position_ = 0;
  }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    std::size_t position = position_;
    for (std::size_t ch = 0; ch < std::min<std::size_t>(static_cast<std::size_t>(numChannels), history_.size()); ++ch) {
      std::vector<float>& history = history_[ch];
      position = position_;
      for (int i = 0; i < numSamples; ++i) {
        if (history.empty()) {
          out[ch][i] = in[ch][i];
          continue;
        }
        const float delayed = history[position];
        history[position] = in[ch][i];
        out[ch][i] = delayed;
        position = (position + 1) % history.size();
      }
    }
    position_ = position;
  }
  int GetLatency() const override { return latency_; }

 private:
  int latency_;
  std::vector<std::vector<float>> history_;
  std::size_t position_ = 0;
};

vexdsp::PlanarAudio MakePlanarNoise(int channels, std::size_t frames, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> value(-1.0f, 1.0f);
  vexdsp::PlanarAudio audio(static_cast<std::size_t>(channels), std::vector<float>(frames));
  for (auto& channel : audio) {
    for (float& x : channel) {
      x = value(random);
    }
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

TEST(VexdspRender, SourceEndingEarlyIsAnError) {
  dsp::DSPProcessChain chain;
  chain.Add(0, dsp::SlotInfo(std::make_shared<LatentDelay>(10), true));
  chain.SetIOConfig(1, 48000.0f);
  chain.Start();
  const vexdsp::PlanarAudio input = MakePlanarNoise(1, 5000, 3);
  vexdsp::PlanarAudio output(1);
  vexdsp::MemorySource source(input);
  vexdsp::MemorySink sink(output);
  EXPECT_THROW(vexdsp::RenderThroughChain(chain, 1, 6000, source, sink, nullptr), vexdsp::CliError);
}

}  // namespace
