// Runs `vexdsp response` and checks its numbers against the analog
// prototypes of the equaliser's bands.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "filters/Prototypes.h"
#include "support/CliFixture.h"

namespace {

using vextest::ReadText;

namespace fs = std::filesystem;
using vextest::Complex;
using vextest::Prototype;

class ResponseTest : public vextest::CliFixture {
 protected:
  RunResult Vexdsp(const std::string& args) const { return Run(args); }
};

TEST_F(ResponseTest, EqResponseIsComputedFromTheTransferFunction) {
  const RunResult r = Vexdsp("response eq:type1=highpass,freq1=80,q1=0.75,type2=peak,freq2=3000,gain2=-4,q2=2 --json");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const nlohmann::json out = nlohmann::json::parse(r.out);
  EXPECT_EQ(out["method"], "transfer function");
  EXPECT_EQ(out["sample_rate"], 48000.0);
  const auto& f = out["frequency_hz"];
  ASSERT_EQ(f.size(), 30u);
  EXPECT_DOUBLE_EQ(f.front().get<double>(), 20.0);
  EXPECT_DOUBLE_EQ(f.back().get<double>(), 20000.0);
  const Prototype highpass{80, 0.75, 0}, peak{3000, 2, -4};
  for (std::size_t i = 0; i < f.size(); ++i) {
    const double hz = f[i];
    const Complex h = highpass.Highpass(hz) * peak.Peak(hz);
    EXPECT_NEAR(out["magnitude_db"][i].get<double>(), 20 * std::log10(std::abs(h)), 1e-6) << hz;
    EXPECT_NEAR(out["phase_deg"][i].get<double>(), std::arg(h) * 180 / vextest::kPi, 1e-5) << hz;
  }
}

TEST_F(ResponseTest, OtherEffectsAreMeasuredAndTheTableSaysSo) {
  const RunResult r = Vexdsp("response gain:db=-6 --rate 44100");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("measured from the impulse response"), std::string::npos) << r.out;
  std::istringstream lines(r.out);
  std::string line;
  int rows = 0;
  while (std::getline(lines, line)) {
    double hz, db, deg;
    if (std::sscanf(line.c_str(), "%lf %lf %lf", &hz, &db, &deg) == 3) {
      ++rows;
      EXPECT_NEAR(db, -6.0, 1e-3) << line;
      EXPECT_NEAR(deg, 0.0, 1e-3) << line;
    }
  }
  EXPECT_EQ(rows, 30);
  const RunResult eq = Vexdsp("response eq:type1=lowpass,freq1=1000");
  EXPECT_NE(eq.out.find("computed from the transfer function"), std::string::npos) << eq.out;
}

TEST_F(ResponseTest, PlotIsWrittenAndLowRatesStopBelowNyquist) {
  const RunResult r = Vexdsp("response eq:type1=peak,freq1=1000,gain1=6 --rate 8000 --json --plot curve.svg");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string svg = ReadText(dir_ / "curve.svg");
  EXPECT_NE(svg.find("<svg"), std::string::npos);
  EXPECT_NE(svg.find("Magnitude (dB)"), std::string::npos);
  const nlohmann::json out = nlohmann::json::parse(r.out);
  EXPECT_DOUBLE_EQ(out["frequency_hz"].back().get<double>(), 3600.0);
}

TEST_F(ResponseTest, BadUsageExitsWithTwo) {
  EXPECT_EQ(Vexdsp("response nosuch").exitCode, 2);
  EXPECT_EQ(Vexdsp("response eq:q1=0").exitCode, 2);
  EXPECT_EQ(Vexdsp("response eq --rate 10").exitCode, 2);
}

TEST_F(ResponseTest, AMutedResponseHasNullLevels) {
  const RunResult r = Vexdsp("response eq:type1=highpass,freq1=30000 --json");
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_TRUE(nlohmann::json::parse(r.out)["magnitude_db"].front().is_null()) << "a high-pass above Nyquist mutes";
}

}  // namespace
