// Runs the built vexdsp binary: noiseprint, then process with denoise.
// Files are written and read here as plain float WAV.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSignals.h"

namespace {

namespace fs = std::filesystem;

// The binary: VEXDSP_BINARY when the build names it, else the environment
// variable of that name, else beside this test in the build tree.
std::string FindVexdsp() {
#ifdef VEXDSP_BINARY
  return VEXDSP_BINARY;
#else
  if (const char* env = std::getenv("VEXDSP_BINARY")) return env;
  const fs::path self = fs::read_symlink("/proc/self/exe").parent_path();
  for (const fs::path& candidate :
       {self / "../tools/vexdsp/vexdsp", self / "tools/vexdsp/vexdsp", self / "../../tools/vexdsp/vexdsp"}) {
    if (fs::exists(candidate)) return fs::canonical(candidate).string();
  }
  return {};
#endif
}

std::string ReadText(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

template <typename T>
void Put(std::ofstream& f, T v) {
  f.write(reinterpret_cast<const char*>(&v), sizeof v);
}

// Planar float channels as a 32-bit float WAV.
void WriteWav(const fs::path& path, const std::vector<std::vector<float>>& ch, int rate) {
  const std::uint16_t channels = static_cast<std::uint16_t>(ch.size());
  const std::uint32_t frames = static_cast<std::uint32_t>(ch[0].size());
  const std::uint32_t bytes = frames * channels * 4;
  std::ofstream f(path, std::ios::binary);
  f.write("RIFF", 4);
  Put<std::uint32_t>(f, 36 + bytes);
  f.write("WAVEfmt ", 8);
  Put<std::uint32_t>(f, 16);
  Put<std::uint16_t>(f, 3);
  Put<std::uint16_t>(f, channels);
  Put<std::uint32_t>(f, static_cast<std::uint32_t>(rate));
  Put<std::uint32_t>(f, static_cast<std::uint32_t>(rate) * channels * 4);
  Put<std::uint16_t>(f, static_cast<std::uint16_t>(channels * 4));
  Put<std::uint16_t>(f, 32);
  f.write("data", 4);
  Put<std::uint32_t>(f, bytes);
  for (std::uint32_t i = 0; i < frames; ++i) {
    for (std::uint16_t c = 0; c < channels; ++c) Put<float>(f, ch[c][i]);
  }
}

// The float samples of a float WAV, planar; empty when it is not one.
std::vector<std::vector<float>> ReadWav(const fs::path& path) {
  const std::string s = ReadText(path);
  if (s.size() < 12 || s.compare(0, 4, "RIFF") != 0) return {};
  std::uint16_t channels = 0, bits = 0;
  std::size_t pos = 12;
  while (pos + 8 <= s.size()) {
    std::uint32_t size = 0;
    std::memcpy(&size, s.data() + pos + 4, 4);
    const std::string id = s.substr(pos, 4);
    if (id == "fmt ") {
      std::memcpy(&channels, s.data() + pos + 10, 2);
      std::memcpy(&bits, s.data() + pos + 22, 2);
    } else if (id == "data" && channels > 0 && bits == 32) {
      const std::size_t frames = size / (4u * channels);
      std::vector<std::vector<float>> out(channels, std::vector<float>(frames));
      for (std::size_t i = 0; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c)
          std::memcpy(&out[c][i], s.data() + pos + 8 + (i * channels + c) * 4, 4);
      }
      return out;
    }
    pos += 8 + size + (size & 1);
  }
  return {};
}

double RmsDb(const std::vector<float>& x, std::size_t from, std::size_t to) {
  double sum = 0.0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(sum / static_cast<double>(to - from));
}

class NoisePrintCliTest : public ::testing::Test {
 protected:
  struct RunResult {
    int exitCode = -1;
    std::string out, err;
  };
  void SetUp() override {
    binary_ = FindVexdsp();
    ASSERT_FALSE(binary_.empty()) << "vexdsp binary not found; set VEXDSP_BINARY";
    std::string pattern = (fs::temp_directory_path() / "vexdsp-noiseprint-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    // 2 s of stereo noise at -35 dBFS RMS, a 1 kHz tone from 1 s on.
    const std::size_t frames = 96000;
    noise_ = {vextest::Noise(frames, 31, 0.03), vextest::Noise(frames, 32, 0.03)};
    std::vector<std::vector<float>> mix = noise_;
    const std::vector<float> tone = vextest::Sine(frames, 1000.0, 48000.0, 0.4);
    for (auto& ch : mix) {
      for (std::size_t i = 48000; i < frames; ++i) ch[i] += tone[i];
    }
    WriteWav(dir_ / "take.wav", mix, 48000);
  }
  void TearDown() override { fs::remove_all(dir_); }

  RunResult Run(const std::string& args) const {
    const fs::path out = dir_ / "stdout.txt", err = dir_ / "stderr.txt";
    const int status = std::system(("cd '" + dir_.string() + "' && '" + binary_ + "' " + args + " >'" + out.string() +
                                    "' 2>'" + err.string() + "' </dev/null")
                                       .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out), ReadText(err)};
  }

  std::string binary_;
  fs::path dir_;
  std::vector<std::vector<float>> noise_;
};

TEST_F(NoisePrintCliTest, PrintThenDenoiseReducesTheNoiseAndKeepsLength) {
  const RunResult print = Run("noiseprint take.wav --start 0.05 --end 0.95 -o take.vxnp");
  ASSERT_EQ(print.exitCode, 0) << print.err;
  EXPECT_NE(print.out.find("frames analysed"), std::string::npos) << print.out;
  EXPECT_NE(print.out.find("steady noise"), std::string::npos) << print.out;
  EXPECT_TRUE(print.err.empty()) << print.err;

  const RunResult run = Run("process take.wav clean.wav denoise:print=take.vxnp,reduction=30");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("latency 1755"), std::string::npos) << run.out;
  const auto in = ReadWav(dir_ / "take.wav");
  const auto out = ReadWav(dir_ / "clean.wav");
  ASSERT_EQ(out.size(), 2u);
  ASSERT_EQ(out[0].size(), in[0].size());
  for (std::size_t c = 0; c < 2; ++c) {
    EXPECT_LE(RmsDb(out[c], 4800, 40000), RmsDb(in[c], 4800, 40000) - 25.0) << c;
    // The tone passes within a fraction of a dB (its RMS dwarfs the noise).
    EXPECT_NEAR(RmsDb(out[c], 60000, 90000), RmsDb(in[c], 60000, 90000), 0.3) << c;
  }
}

TEST_F(NoisePrintCliTest, RefusesBadSelectionsAndForeignPrints) {
  RunResult r = Run("noiseprint take.wav --start 0.1 --end 0.15 -o p.vxnp");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.err.find("too short"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "p.vxnp"));
  r = Run("noiseprint take.wav --start 1 --end 0.5 -o p.vxnp");
  EXPECT_EQ(r.exitCode, 2);
  r = Run("noiseprint take.wav --start 5 --end 6 -o p.vxnp");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.err.find("beyond the end"), std::string::npos) << r.err;

  // A selection with the tone in it: a print, with a warning.
  r = Run("noiseprint take.wav --start 0.5 --end 1.9 -o mixed.vxnp");
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("more than steady noise"), std::string::npos) << r.err;

  // A print of another rate, and a damaged one.
  WriteWav(dir_ / "other.wav", {vextest::Noise(44100, 3, 0.1)}, 44100);
  ASSERT_EQ(Run("noiseprint other.wav --start 0 --end 1 -o other.vxnp").exitCode, 0);
  r = Run("process take.wav o.wav denoise:print=other.vxnp");
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("44100 Hz"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir_ / "o.wav"));
  {
    std::string bytes = ReadText(dir_ / "other.vxnp");
    bytes.resize(bytes.size() / 2);
    std::ofstream(dir_ / "half.vxnp", std::ios::binary) << bytes;
  }
  r = Run("process other.wav o.wav denoise:print=half.vxnp");
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.err.find("truncated"), std::string::npos) << r.err;
}

}  // namespace
