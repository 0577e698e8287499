// Runs `vexdsp resample` on files made here with libsndfile.

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

namespace {

namespace fs = std::filesystem;
constexpr double kPi = 3.141592653589793;

struct Audio {
  int channels = 0, rate = 0, format = 0;
  std::vector<float> samples;  // interleaved
  sf_count_t Frames() const { return channels == 0 ? 0 : static_cast<sf_count_t>(samples.size()) / channels; }
  float At(sf_count_t frame, int ch) const { return samples[static_cast<std::size_t>(frame * channels + ch)]; }
};

class ResampleCliTest : public vextest::CliFixture {
 protected:
  int Run(const std::string& args, std::string* err = nullptr) const { return RunCommand("resample " + args, err); }

  int RunCommand(const std::string& args, std::string* err = nullptr) const {
    const RunResult result = CliFixture::Run(args);
    if (err != nullptr) {
      *err = result.err;
    }
    return result.exitCode;
  }

  void Write(const std::string& name, const Audio& audio) const {
    SF_INFO info{0, audio.rate, audio.channels, audio.format, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(sf_writef_float(file, audio.samples.data(), audio.Frames()), audio.Frames());
    sf_close(file);
  }

  Audio Read(const std::string& name) const {
    SF_INFO info{};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << name;
    if (file == nullptr) return {};
    Audio audio{info.channels, info.samplerate, info.format,
                std::vector<float>(static_cast<std::size_t>(info.frames * info.channels))};
    EXPECT_EQ(sf_readf_float(file, audio.samples.data(), info.frames), info.frames);
    sf_close(file);
    return audio;
  }

  // Two sines (1 kHz at 0.5, 3 kHz at 0.25), one per channel.
  Audio Sines(int rate, sf_count_t frames) const {
    Audio a{2, rate, SF_FORMAT_WAV | SF_FORMAT_FLOAT, {}};
    for (sf_count_t i = 0; i < frames; ++i) {
      a.samples.push_back(static_cast<float>(0.5 * std::sin(2 * kPi * 1000.0 * i / rate)));
      a.samples.push_back(static_cast<float>(0.25 * std::sin(2 * kPi * 3000.0 * i / rate)));
    }
    return a;
  }

  // Largest deviation from the ideal sines at the output rate (edges left
  // out, where the input's abrupt start and end ring).
  double WorstError(const Audio& out) const {
    double worst = 0.0;
    for (sf_count_t i = 300; i < out.Frames() - 300; ++i) {
      const double t = static_cast<double>(i) / out.rate;
      worst = std::max(worst, std::fabs(out.At(i, 0) - 0.5 * std::sin(2 * kPi * 1000.0 * t)));
      worst = std::max(worst, std::fabs(out.At(i, 1) - 0.25 * std::sin(2 * kPi * 3000.0 * t)));
    }
    return worst;
  }
};

TEST_F(ResampleCliTest, OutputStartsInTimeWithTheRoundedLength) {
  for (const auto& [from, to, frames] : std::vector<std::tuple<int, int, sf_count_t>>{
           {48000, 44100, 48000}, {44100, 48000, 44101}, {48000, 32000, 5000}, {44100, 96000, 4097}}) {
    SCOPED_TRACE(std::to_string(from) + " -> " + std::to_string(to));
    Write("in.wav", Sines(from, frames));
    ASSERT_EQ(Run("in.wav out.wav --rate " + std::to_string(to)), 0);
    const Audio out = Read("out.wav");
    EXPECT_EQ(out.rate, to);
    EXPECT_EQ(out.channels, 2);
    EXPECT_EQ(out.Frames(), std::llround(static_cast<double>(frames) * to / from));
    EXPECT_LT(WorstError(out), 1e-4) << "a delay left in the output shows up as a large error";
  }
}

TEST_F(ResampleCliTest, EqualRatesCopyAndQualitiesRun) {
  Write("in.wav", Sines(48000, 3000));
  ASSERT_EQ(Run("in.wav same.wav --rate 48000"), 0);
  EXPECT_EQ(Read("same.wav").samples, Read("in.wav").samples);
  for (const char* q : {"low", "medium", "best"}) {
    ASSERT_EQ(Run(std::string("in.wav q.wav --rate 44100 --quality ") + q), 0) << q;
    EXPECT_LT(WorstError(Read("q.wav")), 2e-3) << q;
  }
}

TEST_F(ResampleCliTest, IntegerOutputIsQuantisedByTheLibrary) {
  Write("in.wav", Sines(48000, 20000));
  ASSERT_EQ(Run("in.wav float.wav --rate 44100"), 0);
  ASSERT_EQ(Run("in.wav round.wav --rate 44100 --bits 16 --dither none"), 0);
  const Audio f = Read("float.wav");
  const Audio r = Read("round.wav");
  EXPECT_EQ(r.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  ASSERT_EQ(r.samples.size(), f.samples.size());
  for (std::size_t i = 0; i < r.samples.size(); ++i) {
    ASSERT_EQ(r.samples[i], std::floor(f.samples[i] * 32768.0 + 0.5) / 32768.0) << i;
  }
  // Triangular dither: error of +-1.5 LSB at most, mean near zero, not plain
  // rounding.
  ASSERT_EQ(Run("in.wav tpdf.wav --rate 44100 --bits 16"), 0);
  const Audio t = Read("tpdf.wav");
  double sum = 0.0, worst = 0.0;
  int differ = 0;
  for (std::size_t i = 0; i < t.samples.size(); ++i) {
    const double e = (t.samples[i] - f.samples[i]) * 32768.0;
    sum += e;
    worst = std::max(worst, std::fabs(e));
    differ += t.samples[i] != r.samples[i];
  }
  EXPECT_LE(worst, 1.5);
  EXPECT_NEAR(sum / t.samples.size(), 0.0, 0.02);
  EXPECT_GT(differ, static_cast<int>(t.samples.size() / 4));
  ASSERT_EQ(Run("in.wav p24.wav --rate 44100 --bits 24 --dither shaped"), 0);
  EXPECT_EQ(Read("p24.wav").format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_24);
}

// `process --bits` takes the same integer path: plain rounding by the
// library with --dither none, the word length from --bits.
TEST_F(ResampleCliTest, ProcessWritesIntegerPcmThroughTheLibrary) {
  Write("in.wav", Sines(48000, 6000));
  ASSERT_EQ(RunCommand("process in.wav r16.wav gain:db=-3 --bits 16 --dither none"), 0);
  ASSERT_EQ(RunCommand("process in.wav f.wav gain:db=-3"), 0);
  const Audio r = Read("r16.wav");
  const Audio f = Read("f.wav");
  EXPECT_EQ(r.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  ASSERT_EQ(r.samples.size(), f.samples.size());
  for (std::size_t i = 0; i < r.samples.size(); ++i) {
    ASSERT_EQ(r.samples[i], std::floor(f.samples[i] * 32768.0 + 0.5) / 32768.0) << i;
  }
  ASSERT_EQ(RunCommand("process in.wav s24.wav gain --bits 24 --dither shaped"), 0);
  EXPECT_EQ(Read("s24.wav").format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_24);
  EXPECT_EQ(RunCommand("process in.wav x.wav gain --bits 16 --format pcm24"), 2);
  EXPECT_EQ(RunCommand("process in.wav x.wav gain --bits 16 --dither loud"), 2);
}

TEST_F(ResampleCliTest, BadUsageAndFailuresGiveTheirExitCodes) {
  Write("in.wav", Sines(48000, 1000));
  std::string err;
  // One launch per refusal keeps this within the sanitizer build's budget.
  for (const char* args :
       {"in.wav o.wav --rate 0", "in.wav o.wav --rate nan", "in.wav o.wav --rate 44100 --quality ultra",
        "in.wav o.wav --rate 44100 --bits 16 --format float", "in.wav o.wav --dither pink --rate 8000"}) {
    EXPECT_EQ(Run(args, &err), 2) << args << ": " << err;
    EXPECT_FALSE(fs::exists(Path("o.wav"))) << args;
  }
  EXPECT_EQ(Run("missing.wav o.wav --rate 44100", &err), 1) << err;
  EXPECT_NE(err.find("missing.wav"), std::string::npos) << err;
}

}  // namespace
