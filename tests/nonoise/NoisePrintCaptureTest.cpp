#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/nonoise/CaptureNoisePrint.h"
#include "vexaudiodsp/nonoise/NoNoise.h"
#include "vexaudiodsp/nonoise/NoisePrint.h"

namespace {

using dsp::nonoise::CaptureNoisePrint;
using dsp::nonoise::NoisePrint;
using dsp::nonoise::NONOISE;

const long double kPi = 3.141592653589793238462643383279502884L;

// Sum of squares of the capture window, from the window's own definition.
long double WindowEnergy(int n) {
  long double sum = 1.0L;  // w[N/2]
  for (int i = 0; i <= n / 2 - 2; ++i) {
    const long double f = 0.35875L - 0.48829L * std::cos(2 * kPi * i / n) + 0.14128L * std::cos(4 * kPi * i / (n - 1)) -
                          0.01168L * std::cos(6 * kPi * i / n);
    sum += 2 * f * f;
  }
  return sum;
}

TEST(NoNoiseRecord, DefaultsCopiesAndSingleChannelExtraction) {
  NONOISE p;
  p.reductionDb = 3.0;
  p.fftSize = 64;
  dsp::nonoise::SetDefaultParameter(&p);
  EXPECT_EQ(p.fftSize, 4096);
  EXPECT_EQ(p.overlap, 7);
  EXPECT_EQ(p.snapshotLimit, 4000);
  EXPECT_EQ(p.auxCode, -1);
  EXPECT_EQ(p.mode, 1);
  EXPECT_EQ(p.flagB, 1);
  EXPECT_DOUBLE_EQ(p.reductionDb, 40.0);
  EXPECT_DOUBLE_EQ(p.smoothingPercent, 65.0);
  EXPECT_DOUBLE_EQ(p.levelPosition, 1.0);
  EXPECT_EQ(p.minCurve, nullptr);

  p.fftSize = 16;
  p.channelCount = 3;
  ASSERT_TRUE(dsp::nonoise::AllocateArrays(&p));
  for (int c = 0; c < 3; ++c) {
    for (int k = 0; k < 16; ++k) p.maxCurve[c][k] = 10.0 * c + k;
    p.channelMax[c] = c + 0.5;
  }
  p.binCurve[3] = 0.25f;

  NONOISE* clone = dsp::nonoise::CloneNoNoise(&p);
  ASSERT_NE(clone->maxCurve, p.maxCurve);
  EXPECT_EQ(clone->maxCurve[2][5], 25.0);
  EXPECT_EQ(clone->binCurve[3], 0.25f);

  NONOISE single;
  dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&p, &single, 2, true);
  EXPECT_EQ(single.channelCount, 1);
  EXPECT_EQ(single.maxCurve[0][7], 27.0);
  EXPECT_EQ(single.channelMax[0], 2.5);
  NONOISE missing;
  dsp::nonoise::CopyMultiChannelNoNoiseToSingleChannelNoNoise(&p, &missing, 5, true);
  EXPECT_EQ(missing.maxCurve[0][7], 0.0);

  // Scalars only: the target keeps the shape of the arrays it holds.
  NONOISE other;
  other.thresholdDb = -3.0;
  dsp::nonoise::CopyNoNoise(&other, &single, false);
  EXPECT_EQ(single.channelCount, 1);
  EXPECT_EQ(single.fftSize, 16);
  EXPECT_DOUBLE_EQ(single.thresholdDb, -3.0);

  dsp::nonoise::FreeArrays(&single);
  dsp::nonoise::FreeArrays(&missing);
  dsp::nonoise::DeleteNoNoise(clone);
  dsp::nonoise::FreeArrays(&p);
  EXPECT_EQ(p.maxCurve, nullptr);
}

TEST(CaptureNoisePrint, SelectionArithmeticAndRefusals) {
  NONOISE p;
  CaptureNoisePrint capture(&p);
  EXPECT_TRUE(capture.SetSelection(0, 48000));
  EXPECT_EQ(capture.GetBlockCount(), 32);  // (43904 - 1) / 1365
  EXPECT_EQ(capture.GetStep(), 1372);      // 43904 / 32
  EXPECT_EQ(capture.GetDesiredBlockSize(), 4096);
  EXPECT_FALSE(capture.SetSelection(100, 4098));  // step 2
  EXPECT_TRUE(capture.SetSelection(100, 4099));   // step 3
  EXPECT_EQ(capture.GetBlockCount(), 1);

  p.snapshotLimit = 2;  // at least 8 blocks are allowed
  CaptureNoisePrint limited(&p);
  EXPECT_TRUE(limited.SetSelection(0, 48000));
  EXPECT_EQ(limited.GetBlockCount(), 8);
  EXPECT_EQ(limited.GetStep(), 5488);
  EXPECT_EQ(limited.GetDesiredBlockSize(), 5488);

  p.fftSize = 1000;
  CaptureNoisePrint bad(&p);
  EXPECT_FALSE(bad.SetSelection(0, 48000));
}

// White noise of known variance: the RMS curve is sigma sqrt(sum w^2) / (N/4)
// on average, each channel of a pair with its own level, min <= RMS <= max.
TEST(CaptureNoisePrint, CurvesOfWhiteNoiseThroughTheAnalyzerDriver) {
  const int n = 1024;
  const std::size_t frames = 48000;
  std::vector<std::vector<float>> x = {vextest::Noise(frames, 1, 0.3), vextest::Noise(frames, 2, 0.03),
                                       vextest::Noise(frames, 3, 0.1)};
  dsp::host::MemorySource source({x[0].data(), x[1].data(), x[2].data()}, static_cast<std::int64_t>(frames));
  NONOISE p;
  p.fftSize = n;
  CaptureNoisePrint capture(&p);
  std::string error;
  ASSERT_TRUE(
      dsp::host::RunAnalyzer(capture, source, 3, 44100.0, 0, static_cast<std::int64_t>(frames), nullptr, &error))
      << error;
  const NONOISE* print = capture.GetParam();
  ASSERT_EQ(print->channelCount, 3);
  EXPECT_EQ(print->snapshotCount, capture.GetBlockCount());
  EXPECT_EQ(capture.GetSampleRate(), 44100.0);
  const long double energy = WindowEnergy(n);
  const double amplitudes[3] = {0.3, 0.03, 0.1};
  for (int c = 0; c < 3; ++c) {
    const double sigma2 = amplitudes[c] * amplitudes[c] / 3.0;
    const double expected = static_cast<double>(std::sqrt(sigma2 * energy)) / (n / 4.0);
    double meanSquare = 0.0;
    int count = 0;
    for (int k = 4; k <= n / 2 - 4; ++k, ++count) {
      meanSquare += print->averageCurve[c][k] * print->averageCurve[c][k];
      EXPECT_LE(print->minCurve[c][k], print->averageCurve[c][k]);
      EXPECT_GE(print->maxCurve[c][k], print->averageCurve[c][k]);
    }
    EXPECT_NEAR(std::sqrt(meanSquare / count), expected, 0.03 * expected) << "channel " << c;
    EXPECT_EQ(print->averageCurve[c][n - 10], print->averageCurve[c][10]);
    EXPECT_LE(print->channelMin[c], print->channelMax[c]);
  }
  EXPECT_LT(capture.GetLevelSpreadDb(), 0.5);
}

TEST(CaptureNoisePrint, SineOnABinReadsItsWindowedAmplitude) {
  const int n = 2048;
  const double rate = 48000.0;
  const int bin = 64;
  const std::vector<float> x = vextest::Sine(20000, bin * rate / n, rate, 0.5);
  dsp::host::MemorySource source({x.data()}, 20000);
  NONOISE p;
  p.fftSize = n;
  CaptureNoisePrint capture(&p);
  ASSERT_TRUE(dsp::host::RunAnalyzer(capture, source, 1, rate, 0, 20000, nullptr, nullptr));
  // |X[bin]| = A/2 sum(w); the shifted window's sum, summed directly.
  long double sum = 1.0L;
  for (int i = 0; i <= n / 2 - 2; ++i) {
    sum += 2 * (0.35875L - 0.48829L * std::cos(2 * kPi * i / n) + 0.14128L * std::cos(4 * kPi * i / (n - 1)) -
                0.01168L * std::cos(6 * kPi * i / n));
  }
  const double expected = static_cast<double>(0.25L * sum / (n / 4.0L));
  EXPECT_NEAR(capture.GetParam()->averageCurve[0][bin], expected, 1e-3 * expected);
  EXPECT_NEAR(capture.GetParam()->maxCurve[0][bin], expected, 2e-3 * expected);
}

TEST(CaptureNoisePrint, LevelSpreadFlagsASelectionHoldingMoreThanNoise) {
  std::vector<float> x = vextest::Noise(96000, 4, 0.01);
  const std::vector<float> burst = vextest::Sine(20000, 700.0, 48000.0, 0.8);
  for (std::size_t i = 0; i < burst.size(); ++i) x[40000 + i] += burst[i];
  dsp::host::MemorySource source({x.data()}, 96000);
  NoisePrint print;
  std::string error;
  ASSERT_TRUE(dsp::nonoise::CaptureNoisePrintFromSource(source, 1, 48000.0, 0, 96000, 4096, &print, &error)) << error;
  EXPECT_GT(print.GetLevelSpreadDb(), 5.0);
  ASSERT_EQ(print.GetWarnings().size(), 1u);
  EXPECT_NE(print.GetWarnings()[0].find("more than"), std::string::npos);

  EXPECT_FALSE(dsp::nonoise::CaptureNoisePrintFromSource(source, 1, 48000.0, 0, 4000, 4096, &print, &error));
  EXPECT_NE(error.find("too short"), std::string::npos);
}

TEST(CaptureNoisePrint, AnalyzeDoesNotAllocate) {
  NONOISE p;
  p.fftSize = 512;
  p.channelCount = 2;
  CaptureNoisePrint capture(&p);
  ASSERT_TRUE(capture.SetSelection(0, 10000));
  capture.Start(nullptr);
  vextest::PlanarBlock block(2, static_cast<std::size_t>(capture.GetDesiredBlockSize()), 0.1f);
  EXPECT_NO_ALLOCATION(capture.Analyze(block.Pointers(), 2, capture.GetDesiredBlockSize()));
  EXPECT_NO_ALLOCATION(capture.IsCompleted());
  EXPECT_GT(capture.GetProgress(), 0.0f);
}

class NoisePrintFile : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::vector<float> l = vextest::Noise(30000, 5, 0.1), r = vextest::Noise(30000, 6, 0.2);
    dsp::host::MemorySource source({l.data(), r.data()}, 30000);
    std::string error;
    ASSERT_TRUE(dsp::nonoise::CaptureNoisePrintFromSource(source, 2, 44100.0, 0, 30000, 1024, &print_, &error));
    // CTest runs each case in its own process, side by side: one file each.
    path_ = ::testing::TempDir() + "noiseprint_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".vxnp";
  }
  void TearDown() override { std::remove(path_.c_str()); }

  void WriteBytes(const std::vector<std::uint8_t>& bytes) {
    std::ofstream f(path_, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  NoisePrint print_;
  std::string path_;
};

TEST_F(NoisePrintFile, RoundTripsEveryCurve) {
  std::string error;
  ASSERT_TRUE(print_.Save(path_, &error)) << error;
  NoisePrint loaded;
  ASSERT_TRUE(loaded.Load(path_, &error)) << error;
  EXPECT_EQ(loaded.GetChannels(), 2);
  EXPECT_EQ(loaded.GetFFTSize(), 1024);
  EXPECT_EQ(loaded.GetSampleRate(), 44100.0);
  EXPECT_EQ(loaded.GetFrames(), print_.GetFrames());
  for (int c = 0; c < 2; ++c) {
    for (int k = 0; k < 1024; ++k) {
      ASSERT_EQ(loaded.GetRecord().averageCurve[c][k], print_.GetRecord().averageCurve[c][k]) << c << " " << k;
      ASSERT_EQ(loaded.GetRecord().minCurve[c][k], print_.GetRecord().minCurve[c][k]);
      ASSERT_EQ(loaded.GetRecord().maxCurve[c][k], print_.GetRecord().maxCurve[c][k]);
    }
  }
}

TEST_F(NoisePrintFile, RefusesTruncatedCorruptAndForeignFiles) {
  const std::vector<std::uint8_t> good = print_.Serialize();
  NoisePrint loaded;
  std::string error;
  const auto refused = [&](std::vector<std::uint8_t> bytes, const std::string& why) {
    WriteBytes(bytes);
    error.clear();
    EXPECT_FALSE(loaded.Load(path_, &error)) << why;
    EXPECT_NE(error.find(why), std::string::npos) << error;
  };
  refused(std::vector<std::uint8_t>(good.begin(), good.end() - 100), "truncated");
  refused(std::vector<std::uint8_t>(good.begin(), good.begin() + 20), "too short");
  std::vector<std::uint8_t> flipped = good;
  flipped[good.size() / 2] ^= 0x10;
  refused(flipped, "corrupt");
  std::vector<std::uint8_t> magic = good;
  magic[0] = 'W';
  refused(magic, "magic");
  std::vector<std::uint8_t> version = good;
  version[8] = 2;
  refused(version, "version 2");
  std::vector<std::uint8_t> longer = good;
  longer.push_back(0);
  refused(longer, "trailing");
  EXPECT_TRUE(loaded.IsEmpty());
  EXPECT_FALSE(loaded.Load(path_ + ".missing", &error));
}

}  // namespace
