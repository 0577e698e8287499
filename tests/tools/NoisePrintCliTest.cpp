// Runs the built vexdsp binary: noiseprint, then process with denoise, on
// files made here with libsndfile.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliFixture.h"
#include "support/TestSignals.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;

// Planar float channels as a 32-bit float WAV.
void WriteWav(const fs::path& path, const std::vector<std::vector<float>>& ch, int rate) {
  const auto frames = static_cast<sf_count_t>(ch[0].size());
  std::vector<float> inter(ch.size() * ch[0].size());
  for (std::size_t i = 0; i < ch[0].size(); ++i) {
    for (std::size_t c = 0; c < ch.size(); ++c) inter[i * ch.size() + c] = ch[c][i];
  }
  SF_INFO info{0, rate, static_cast<int>(ch.size()), SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  EXPECT_EQ(sf_writef_float(file, inter.data(), frames), frames);
  sf_close(file);
}

std::vector<std::vector<float>> ReadWav(const fs::path& path) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) return {};
  std::vector<float> inter(static_cast<std::size_t>(info.frames * info.channels));
  sf_readf_float(file, inter.data(), info.frames);
  sf_close(file);
  std::vector<std::vector<float>> out(static_cast<std::size_t>(info.channels),
                                      std::vector<float>(static_cast<std::size_t>(info.frames)));
  for (std::size_t i = 0; i < out[0].size(); ++i) {
    for (std::size_t c = 0; c < out.size(); ++c) out[c][i] = inter[i * out.size() + c];
  }
  return out;
}

double RmsDb(const std::vector<float>& x, std::size_t from, std::size_t to) {
  double sum = 0.0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(sum / static_cast<double>(to - from));
}

class NoisePrintCliTest : public vextest::CliFixture {
 protected:
  void SetUp() override {
    CliFixture::SetUp();
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

TEST_F(NoisePrintCliTest, RefusesBadSelectionsAndWarnsOfMixedOnes) {
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
}

TEST_F(NoisePrintCliTest, DenoiseRefusesForeignAndDamagedPrints) {
  RunResult r;
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
