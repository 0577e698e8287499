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
#include "support/CliFixture.h"
#include "support/TestSignals.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;

class SpectrumCliTest : public vextest::CliFixture {
 protected:
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

// Every command reads and writes .au through the library's AU classes:
// sox reads what we write (to an ulp: it converts through 32-bit integers
// scaled by 2^31 - 1), what we write reads back exactly, other AU flavours
// still open through libsndfile, and integer output to .au is refused.
TEST_F(SpectrumCliTest, AuFilesThroughTheCommandLine) {
  if (std::system("sox --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "sox is not installed";
  const int frames = 3000;
  const std::vector<float> left = vextest::Noise(frames, 1), right = vextest::Noise(frames, 2);
  {
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(Path("in.wav").c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr);
    std::vector<float> interleaved;
    for (int i = 0; i < frames; ++i) interleaved.insert(interleaved.end(), {left[i], right[i]});
    sf_writef_float(file, interleaved.data(), frames);
    sf_close(file);
  }
  RunResult r = Run("process in.wav out.au gain");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2) << "no temporary file left";
  EXPECT_EQ(ReadText(Path("out.au")).substr(0, 4), "dns.");
  EXPECT_EQ(Shell("soxi -r out.au").out, "44100\n");
  EXPECT_EQ(Shell("soxi -c out.au").out, "2\n");
  EXPECT_EQ(Shell("soxi -s out.au").out, "3000\n");
  ASSERT_EQ(Shell("sox out.au -t raw -e floating-point -b 32 -L out.raw").exitCode, 0);
  const std::string raw = ReadText(Path("out.raw"));
  ASSERT_EQ(raw.size(), static_cast<std::size_t>(frames) * 2 * 4);
  std::vector<float> soxed(static_cast<std::size_t>(frames) * 2);
  std::memcpy(soxed.data(), raw.data(), raw.size());
  for (int i = 0; i < frames; ++i) {
    ASSERT_NEAR(soxed[2 * i], left[i], 1e-7) << i;
    ASSERT_NEAR(soxed[2 * i + 1], right[i], 1e-7) << i;
  }

  r = Run("process out.au back.wav gain");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  SF_INFO info{};
  SNDFILE* back = sf_open(Path("back.wav").c_str(), SFM_READ, &info);
  ASSERT_NE(back, nullptr);
  std::vector<float> samples(static_cast<std::size_t>(frames) * 2);
  EXPECT_EQ(sf_readf_float(back, samples.data(), frames), frames);
  sf_close(back);
  for (int i = 0; i < frames; ++i) {
    ASSERT_EQ(samples[2 * i], left[i]) << i;
    ASSERT_EQ(samples[2 * i + 1], right[i]) << i;
  }
  r = Run("info out.au --json");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out)["frames"], frames);

  EXPECT_EQ(Run("process in.wav pcm.au gain --format pcm16").exitCode, 1);
  ASSERT_EQ(Shell("sox in.wav -e signed -b 16 -B sun.au").exitCode, 0);
  r = Run("info sun.au --json");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out)["frames"], frames);
}

TEST_F(SpectrumCliTest, AuInputSeeksAndRefusesOtherFiles) {
  {
    vexdsp::AuOutput out(Path("noise.au"), 1, 8000);
    const std::vector<float> ramp = [] {
      std::vector<float> v(5000);
      for (int i = 0; i < 5000; ++i) v[i] = static_cast<float>(i);
      return v;
    }();
    const float* planar[] = {ramp.data()};
    out.Write(planar, 5000);
    out.Close();
  }
  vexdsp::AuInput in(Path("noise.au"));
  EXPECT_EQ(in.GetNumFrames(), 5000);
  std::vector<float> a(10);
  float* planar[] = {a.data()};
  ASSERT_TRUE(in.Seek(4500));
  EXPECT_EQ(in.Read(planar, 10), 10);
  EXPECT_EQ(a[3], 4503.0f);
  ASSERT_TRUE(in.Seek(7));
  EXPECT_EQ(in.Read(planar, 10), 10);
  EXPECT_EQ(a[0], 7.0f);
  EXPECT_FALSE(in.Seek(5001));
  std::ofstream(Path("bad.au")) << "not an au file at all";
  EXPECT_FALSE(vexdsp::AuInput::CanRead(Path("bad.au")));
  EXPECT_THROW(vexdsp::AuInput(Path("bad.au")), vexdsp::CliError);
  EXPECT_THROW(vexdsp::AuOutput(Path("no-such-dir/x.au"), 1, 48000), vexdsp::CliError);
}

}  // namespace
