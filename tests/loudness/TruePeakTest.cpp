#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace {

float PeakDb(const dsp::TruePeak& tp) {
  float db = 0.0f;
  std::int64_t pos = 0;
  tp.GetPeakValue(db, pos);
  return db;
}

std::int64_t PeakPosition(const dsp::TruePeak& tp) {
  float db = 0.0f;
  std::int64_t pos = 0;
  tp.GetPeakValue(db, pos);
  return pos;
}

TEST(TruePeak, FactorFollowsTheRateAndLatencyIsHalfTheFilter) {
  const std::pair<int, std::size_t> cases[] = {{8000, 8},  {22050, 8}, {24000, 8}, {24001, 4}, {44100, 4},
                                               {48000, 4}, {95999, 4}, {96000, 2}, {192000, 2}};
  for (const auto& [rate, factor] : cases) {
    dsp::TruePeak tp;
    tp.Init(64, rate);
    EXPECT_EQ(tp.GetResampleFactor(), factor) << rate;
    EXPECT_EQ(tp.GetLatency(), 35u) << rate;
  }
  dsp::TruePeak fresh;
  EXPECT_EQ(fresh.GetResampleFactor(), 1u);
  EXPECT_EQ(PeakDb(fresh), -300.0f);
}

// The taps are a Hann-windowed sinc with cut-off 0.48 / factor of the
// oversampled rate, normalised to unity DC gain and scaled by the factor;
// computed here directly from that description in long double.
TEST(TruePeak, TapsAreTheScaledHannWindowedSinc) {
  for (int rate : {16000, 48000, 96000}) {
    dsp::TruePeak tp;
    tp.Init(16, rate);
    const long double factor = static_cast<long double>(tp.GetResampleFactor());
    const long double fc = 0.48L / factor;
    std::vector<long double> h(71);
    long double sum = 0.0L;
    for (int k = 0; k < 71; ++k) {
      const long double t = k - 35;
      const long double sinc = t == 0 ? 2.0L * fc : std::sin(2.0L * M_PI * fc * t) / (M_PI * t);
      const long double hann = 0.5L - 0.5L * std::cos(2.0L * M_PI * k / 70.0L);
      h[k] = sinc * hann;
      sum += h[k];
    }
    for (int k = 0; k < 71; ++k) {
      EXPECT_NEAR(tp.GetTaps()[k], static_cast<double>(h[k] / sum * factor), 2e-7) << "rate " << rate << " tap " << k;
    }
  }
}

// The polyphase interpolator against the textbook form: insert factor - 1
// zeros after every sample, then convolve with the 71 taps (in double).
TEST(TruePeak, PolyphaseMatchesZeroStuffingFollowedByTheFir) {
  for (int rate : {22050, 48000, 96000}) {
    dsp::TruePeak tp;
    tp.Init(300, rate);
    const std::size_t f = tp.GetResampleFactor();
    const std::vector<float> x = vextest::Noise(1500, 7);
    std::vector<double> stuffed(x.size() * f, 0.0);
    for (std::size_t i = 0; i < x.size(); ++i) stuffed[i * f] = x[i];
    std::vector<float> got(x.size() * f);
    std::mt19937 rng(3);
    for (std::size_t done = 0; done < x.size();) {
      const std::size_t n = std::min<std::size_t>(x.size() - done, 1 + rng() % 300);
      EXPECT_NO_ALLOCATION(tp.Resample(x.data() + done, n, got.data() + done * f));
      done += n;
    }
    double worst = 0.0;
    for (std::size_t m = 0; m < stuffed.size(); ++m) {
      double want = 0.0;
      for (std::size_t k = 0; k < 71 && k <= m; ++k) want += double(tp.GetTaps()[k]) * stuffed[m - k];
      worst = std::max(worst, std::fabs(want - got[m]));
    }
    EXPECT_LT(worst, 2e-6) << "rate " << rate;
    EXPECT_EQ(PeakDb(tp), -300.0f) << "Resample must not measure";
  }
}

// EBU Tech 3341 cases 15-19 at 48 kHz: sines whose inter-sample peak follows
// from their amplitude; the meter must read within +0.2 / -0.4 dB. A 20 ms
// fade-in keeps the interpolator's ringing at the onset of an abrupt start
// out of the steady-state reading.
TEST(TruePeak, Tech3341SinesReadTheirAnalyticPeak) {
  struct Case {
    double frequencyDivisor;
    double phaseDegrees;
    double amplitude;
    double expectedDb;
  };
  const Case cases[] = {
      {4.0, 0.0, 0.5, -6.0206},  {4.0, 45.0, 0.5, -6.0206},           {6.0, 60.0, 0.5, -6.0206},
      {8.0, 67.5, 0.5, -6.0206}, {4.0, 45.0, std::sqrt(2.0), 3.0103},
  };
  for (const Case& c : cases) {
    std::vector<float> x =
        vextest::Sine(48000, 48000.0 / c.frequencyDivisor, 48000.0, c.amplitude, c.phaseDegrees * M_PI / 180.0);
    for (std::size_t i = 0; i < 960; ++i) x[i] *= static_cast<float>(0.5 - 0.5 * std::cos(M_PI * i / 960.0));
    dsp::TruePeak tp;
    tp.Init(4096, 48000);
    for (std::size_t i = 0; i < x.size(); i += 4096)
      tp.Process(x.data() + i, std::min<std::size_t>(4096, x.size() - i));
    const double got = PeakDb(tp);
    EXPECT_LE(got, c.expectedDb + 0.2) << c.frequencyDivisor << " " << c.phaseDegrees;
    EXPECT_GE(got, c.expectedDb - 0.4) << c.frequencyDivisor << " " << c.phaseDegrees;
  }
  // The 45 degree sine's samples are 3 dB below its true peak: a sample
  // peak meter would read -9 dB here.
  const std::vector<float> x = vextest::Sine(4800, 12000.0, 48000.0, 0.5, M_PI / 4.0);
  dsp::TruePeak tp;
  tp.Init(4800, 48000);
  tp.Process(x.data(), x.size());
  EXPECT_GT(PeakDb(tp), -6.3f);
}

// Block size never changes the result, position included; an input sample
// beats the interpolated ones around it, so an impulse is found where it is.
TEST(TruePeak, BlockSplitAndPeakPosition) {
  std::vector<float> x = vextest::Noise(20000, 11, 0.25);
  x[12345] = 0.9f;
  dsp::TruePeak whole;
  whole.Init(20000, 44100);
  whole.Process(x.data(), x.size());
  EXPECT_EQ(PeakPosition(whole), 12345);
  EXPECT_NEAR(PeakDb(whole), 20.0 * std::log10(0.9), 1e-5);
  for (std::size_t block : {1u, 7u, 512u, 8192u}) {
    dsp::TruePeak tp;
    tp.Init(block, 44100);
    for (std::size_t i = 0; i < x.size(); i += block) {
      EXPECT_NO_ALLOCATION(tp.Process(x.data() + i, std::min(block, x.size() - i)));
    }
    EXPECT_EQ(PeakDb(tp), PeakDb(whole)) << block;
    EXPECT_EQ(PeakPosition(tp), PeakPosition(whole)) << block;
  }
  // A block longer than maxFrames is taken in pieces with the same result.
  dsp::TruePeak small;
  small.Init(100, 44100);
  small.Process(x.data(), x.size());
  EXPECT_EQ(PeakDb(small), PeakDb(whole));
  EXPECT_EQ(PeakPosition(small), 12345);
}

// A true peak between samples is placed in the interval of the input sample
// that precedes the interpolated maximum, late by at most the lag of 35
// oversampled samples (9 input samples at 4x).
TEST(TruePeak, InterSamplePeakPositionLagsByTheFilterDelay) {
  std::vector<float> x(4000, 0.0f);
  // Two equal samples: the interpolation peaks between them, above both.
  x[2000] = 0.5f;
  x[2001] = 0.5f;
  dsp::TruePeak tp;
  tp.Init(4000, 48000);
  tp.Process(x.data(), x.size());
  EXPECT_GT(tp.GetPeakLinear(), 0.5f);
  EXPECT_GE(PeakPosition(tp), 2000);
  EXPECT_LE(PeakPosition(tp), 2000 + 9);
}

// A copy continues exactly where the original was; Init starts afresh.
TEST(TruePeak, CopyContinuesAndInitRestarts) {
  const std::vector<float> x = vextest::Noise(6000, 5);
  dsp::TruePeak a;
  a.Init(3000, 48000);
  a.Process(x.data(), 3000);
  dsp::TruePeak b(a);
  dsp::TruePeak c;
  c = a;
  std::vector<float> ra(3000 * 4), rb(3000 * 4), rc(3000 * 4);
  a.Resample(x.data() + 3000, 3000, ra.data());
  b.Resample(x.data() + 3000, 3000, rb.data());
  c.Resample(x.data() + 3000, 3000, rc.data());
  EXPECT_EQ(ra, rb);
  EXPECT_EQ(ra, rc);
  a.Init(3000, 48000);
  EXPECT_EQ(PeakDb(a), -300.0f);
  EXPECT_EQ(PeakPosition(a), 0);
  dsp::TruePeak fresh;
  fresh.Init(3000, 48000);
  std::vector<float> r1(3000 * 4), r2(3000 * 4);
  a.Resample(x.data(), 3000, r1.data());
  fresh.Resample(x.data(), 3000, r2.data());
  EXPECT_EQ(r1, r2);
}

// Documented behaviour on non-finite input, and nothing before Init or
// after FreeFIR.
TEST(TruePeak, NonFiniteInputAndUninitialisedUse) {
  std::vector<float> x = vextest::Sine(4800, 1000.0, 48000.0, 0.5);
  dsp::TruePeak tp;
  tp.Process(x.data(), x.size());  // no Init: ignored
  EXPECT_EQ(PeakDb(tp), -300.0f);

  tp.Init(4800, 48000);
  std::vector<float> poisoned = x;
  poisoned[100] = std::numeric_limits<float>::quiet_NaN();
  tp.Process(poisoned.data(), poisoned.size());
  // The NaN itself never counts; the samples before and after still do.
  EXPECT_TRUE(std::isfinite(PeakDb(tp)));
  EXPECT_NEAR(PeakDb(tp), 20.0 * std::log10(0.5), 0.05);

  tp.Init(4800, 48000);
  x[10] = std::numeric_limits<float>::infinity();
  tp.Process(x.data(), x.size());
  EXPECT_EQ(PeakDb(tp), std::numeric_limits<float>::infinity());
  EXPECT_EQ(PeakPosition(tp), 10);

  tp.FreeFIR();
  tp.Process(x.data(), x.size());
  EXPECT_EQ(PeakPosition(tp), 10);
}

}  // namespace
