// Runs `vexdsp loudness` and `vexdsp normalize` on files made here.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/CliFixture.h"
#include "support/TestSignals.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;

class LoudnessCliTest : public vextest::CliFixture {
 protected:
  // A stereo float WAV: the same signal in both channels.
  void Write(const std::string& name, const std::vector<float>& mono, int rate = 48000) const {
    std::vector<float> interleaved;
    for (float x : mono) interleaved.insert(interleaved.end(), {x, x});
    SF_INFO info{0, rate, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_writef_float(file, interleaved.data(), static_cast<sf_count_t>(mono.size()));
    sf_close(file);
  }
  std::vector<nlohmann::json> Json(const std::string& args) const {
    const RunResult r = Run(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::vector<nlohmann::json> lines;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    return lines;
  }
};

// EBU Tech 3341 case 1 as a file (-23 dBFS stereo 1 kHz) and the same tone
// at -30 dBFS: readings, units and compliance per standard, one JSON line
// per file with every key.
TEST_F(LoudnessCliTest, ReportsEveryFigureAndCompliance) {
  Write("a.wav", vextest::Sine(48000 * 7 / 2, 1000.0, 48000.0, std::pow(10.0, -23.0 / 20.0)));
  Write("b.wav", vextest::Sine(48000 * 7 / 2, 1000.0, 48000.0, std::pow(10.0, -30.0 / 20.0)));
  const auto ebu = Json("loudness --json a.wav b.wav");
  ASSERT_EQ(ebu.size(), 2u);
  for (const char* key : {"file", "integrated", "unit", "true_peak_db", "true_peak_position", "momentary_max",
                          "short_term_max", "loudness_range", "valid", "compliant"}) {
    EXPECT_TRUE(ebu[0].contains(key)) << key;
  }
  EXPECT_EQ(ebu[0]["file"], "a.wav");
  EXPECT_EQ(ebu[0]["unit"], "LUFS");
  EXPECT_NEAR(ebu[0]["integrated"].get<double>(), -23.0, 0.1);
  EXPECT_NEAR(ebu[0]["momentary_max"].get<double>(), -23.0, 0.1);
  EXPECT_NEAR(ebu[0]["short_term_max"].get<double>(), -23.0, 0.1);
  EXPECT_NEAR(ebu[0]["true_peak_db"].get<double>(), -23.0, 0.1);
  EXPECT_NEAR(ebu[0]["loudness_range"].get<double>(), 0.0, 0.1);
  EXPECT_LT(ebu[0]["true_peak_position"].get<double>(), 3.5);
  EXPECT_TRUE(ebu[0]["valid"].get<bool>());
  EXPECT_TRUE(ebu[0]["compliant"].get<bool>());
  EXPECT_NEAR(ebu[1]["integrated"].get<double>(), -30.0, 0.1);
  EXPECT_FALSE(ebu[1]["compliant"].get<bool>());

  const auto atsc = Json("loudness --json --standard atsc a.wav b.wav");
  EXPECT_EQ(atsc[0]["unit"], "LKFS");
  EXPECT_TRUE(atsc[0]["compliant"].get<bool>());  // -23 is within -24 +/- 2
  EXPECT_FALSE(atsc[1]["compliant"].get<bool>());

  const RunResult text = Run("loudness a.wav");
  ASSERT_EQ(text.exitCode, 0) << text.err;
  for (const char* part : {"integrated      -23.0 LUFS", "loudness range", "EBU R 128       compliant"}) {
    EXPECT_NE(text.out.find(part), std::string::npos) << part << "\n" << text.out;
  }
}

// Too short to gate: integrated null and not valid; a missing file fails
// with status 1, a bad standard with status 2.
TEST_F(LoudnessCliTest, ShortMissingAndBadUsage) {
  Write("short.wav", vextest::Sine(4800, 1000.0, 48000.0, 0.5));
  const auto shortFile = Json("loudness --json short.wav");
  ASSERT_EQ(shortFile.size(), 1u);
  EXPECT_TRUE(shortFile[0]["integrated"].is_null());
  EXPECT_FALSE(shortFile[0]["valid"].get<bool>());
  EXPECT_FALSE(shortFile[0]["compliant"].get<bool>());
  EXPECT_NEAR(shortFile[0]["true_peak_db"].get<double>(), -6.02, 0.2);
  EXPECT_EQ(Run("loudness missing.wav").exitCode, 1);
  EXPECT_EQ(Run("loudness --standard bbc short.wav").exitCode, 2);
  EXPECT_EQ(Run("normalize short.wav out.wav").exitCode, 1);
  EXPECT_FALSE(fs::exists(Path("out.wav")));
  EXPECT_EQ(Run("normalize short.wav out.wav --target -50").exitCode, 2);
}

// Normalising noise with loud peaks reaches the target (within the EBU
// tolerance, although the limiter must work hard at -16 LUFS under -3 dBTP)
// and keeps the true peak under the maximum, measured afterwards.
TEST_F(LoudnessCliTest, NormalizeMeetsTargetAndTruePeak) {
  std::vector<float> x = vextest::Noise(48000 * 3 / 2, 4, 0.05);
  for (std::size_t i = 1000; i < x.size(); i += 7000) x[i] = 0.9f;  // peaks far above the noise
  Write("in.wav", x);
  for (const auto& [args, target, maxPeak] : std::vector<std::tuple<std::string, double, double>>{
           {"", -23.0, -1.0}, {" --target -16 --true-peak -3", -16.0, -3.0}}) {
    const RunResult r = Run("normalize in.wav out.wav" + args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("before"), std::string::npos);
    EXPECT_NE(r.out.find("after"), std::string::npos);
    const auto m = Json("loudness --json out.wav");
    ASSERT_EQ(m.size(), 1u);
    EXPECT_NEAR(m[0]["integrated"].get<double>(), target, 0.5) << args;
    EXPECT_LE(m[0]["true_peak_db"].get<double>(), maxPeak) << args;
  }
}

}  // namespace
