// vexdsp spectrum through the real binary, and the .au files of the command
// line checked against sox.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "AuFormat.h"
#include "CliError.h"
#include "support/TestSignals.h"

namespace {

namespace fs = std::filesystem;

std::string ReadText(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

class SpectrumCliTest : public ::testing::Test {
 protected:
  struct RunResult {
    int exitCode = -1;
    std::string out, err;
  };
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "vexdsp-spectrum-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    fs::create_directories(dir_ = (root_ = pattern) / "work");
  }
  void TearDown() override { fs::remove_all(root_); }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }
  RunResult Shell(const std::string& command) const {
    const fs::path out = root_ / "stdout.txt", err = root_ / "stderr.txt";
    const int status = std::system(
        ("cd '" + dir_.string() + "' && " + command + " >'" + out.string() + "' 2>'" + err.string() + "' </dev/null")
            .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out), ReadText(err)};
  }
  RunResult Run(const std::string& args) const { return Shell("'" VEXDSP_BINARY "' " + args); }
  // A stereo float WAV with a tone of amplitude `amplitude` in both channels.
  void WriteTone(const std::string& name, double hz, double amplitude, int frames) const {
    SF_INFO info{0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    const std::vector<float> tone = vextest::Sine(static_cast<std::size_t>(frames), hz, 48000.0, amplitude);
    std::vector<float> interleaved;
    for (float x : tone) interleaved.insert(interleaved.end(), {x, x});
    sf_writef_float(file, interleaved.data(), frames);
    sf_close(file);
  }

  fs::path root_, dir_;
};

// A -6 dBFS tone at 1 kHz reads -6 dBFS in its band (third-octave band 17,
// 806 to 1016 Hz; critical band 9, 920 to 1080 Hz), and near it in the
// linear bins.
TEST_F(SpectrumCliTest, ToneShowsInItsBandAsJson) {
  WriteTone("tone.wav", 1000.0, 0.5, 48000);
  for (const auto& [type, loudest, count] :
       {std::tuple{"third-octave", 16, 32}, std::tuple{"critical", 8, 26}, std::tuple{"linear", -1, 2049}}) {
    const RunResult r = Run(std::string("spectrum tone.wav --json --average infinite --type ") + type);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto json = nlohmann::json::parse(r.out);
    EXPECT_EQ(json["type"], type);
    EXPECT_EQ(json["fft_size"], 4096);
    const auto& bands = json["bands"];
    ASSERT_EQ(static_cast<int>(bands.size()), count);
    int best = 0;
    for (int i = 0; i < count; ++i) {
      if (!bands[i]["dbfs"].is_null() && bands[i]["dbfs"].get<double>() > bands[best]["dbfs"].get<double>()) best = i;
    }
    if (loudest >= 0) {
      EXPECT_EQ(best, loudest) << type;
      EXPECT_NEAR(bands[best]["dbfs"].get<double>(), -6.02, 0.2) << type;
    } else {
      // 1000 Hz lies between bins 85 and 86 (11.72 Hz apart): the Hann
      // window's scalloping loss is at most 1.42 dB.
      EXPECT_NEAR(bands[best]["hz"].get<double>(), 1000.0, 11.72);
      EXPECT_NEAR(bands[best]["dbfs"].get<double>(), -6.02, 1.5);
    }
  }
}

TEST_F(SpectrumCliTest, TableAndPlots) {
  WriteTone("tone.wav", 440.0, 0.25, 20000);
  RunResult r = Run("spectrum tone.wav --plot bars.svg");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("from Hz"), std::string::npos);
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 33);
  const std::string bars = ReadText(Path("bars.svg"));
  EXPECT_NE(bars.find("<svg"), std::string::npos);
  EXPECT_NE(bars.find(">806<"), std::string::npos) << "band labels";
  r = Run("spectrum tone.wav --type linear --fft-size 1024 --plot line.svg");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1 + 513);
  EXPECT_NE(ReadText(Path("line.svg")).find("<svg"), std::string::npos);
}

TEST_F(SpectrumCliTest, BadUsageAndFailedRuns) {
  WriteTone("short.wav", 440.0, 0.25, 1000);
  EXPECT_EQ(Run("spectrum short.wav --type octave").exitCode, 2);
  EXPECT_EQ(Run("spectrum short.wav --fft-size 300").exitCode, 2);
  const RunResult missing = Run("spectrum missing.wav");
  EXPECT_EQ(missing.exitCode, 1);
  const RunResult tooShort = Run("spectrum short.wav");
  EXPECT_EQ(tooShort.exitCode, 1);
  EXPECT_NE(tooShort.err.find("too short"), std::string::npos) << tooShort.err;
}

// What the command line writes as .au, sox reads back as little-endian
// float (to an ulp: sox converts through 32-bit integers scaled by 2^31 - 1); what it
// reads, it reads exactly.
TEST_F(SpectrumCliTest, AuFilesRoundTripThroughSox) {
  if (std::system("sox --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "sox is not installed";
  const std::vector<float> left = vextest::Noise(3000, 1), right = vextest::Noise(3000, 2);
  {
    vexdsp::AuOutput out(Path("noise.au"), 2, 44100);
    const float* planar[] = {left.data(), right.data()};
    out.Write(planar, 1000);
    planar[0] += 1000;
    planar[1] += 1000;
    out.Write(planar, 2000);
    out.Commit();
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1) << "no temporary file left";
  EXPECT_EQ(Shell("soxi -r noise.au").out, "44100\n");
  EXPECT_EQ(Shell("soxi -c noise.au").out, "2\n");
  EXPECT_EQ(Shell("soxi -s noise.au").out, "3000\n");
  ASSERT_EQ(Shell("sox noise.au -t raw -e floating-point -b 32 -L noise.raw").exitCode, 0);
  const std::string raw = ReadText(Path("noise.raw"));
  ASSERT_EQ(raw.size(), 3000u * 2 * 4);
  std::vector<float> interleaved(6000);
  std::memcpy(interleaved.data(), raw.data(), raw.size());
  for (int i = 0; i < 3000; ++i) {
    ASSERT_NEAR(interleaved[2 * i], left[i], 1e-7) << i;
    ASSERT_NEAR(interleaved[2 * i + 1], right[i], 1e-7) << i;
  }

  vexdsp::AuInput in(Path("noise.au"));
  EXPECT_EQ(in.GetNumFrames(), 3000);
  EXPECT_EQ(in.GetSampleRate(), 44100);
  std::vector<float> a(3000), b(3000);
  float* planar[] = {a.data(), b.data()};
  EXPECT_EQ(in.Read(planar, 5000), 3000);
  EXPECT_EQ(a, left);
  EXPECT_EQ(in.Read(planar, 10), 0);
  ASSERT_TRUE(in.Seek(2500));
  EXPECT_EQ(in.Read(planar, 10), 10);
  EXPECT_EQ(b[3], right[2503]);
  EXPECT_FALSE(in.Seek(3001));

  std::ofstream(Path("bad.au")) << "not an au file at all";
  EXPECT_THROW(vexdsp::AuInput(Path("bad.au")), vexdsp::CliError);
  EXPECT_THROW(vexdsp::AuOutput(Path("no-such-dir/x.au"), 1, 48000), vexdsp::CliError);
}

}  // namespace
