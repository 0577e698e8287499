#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <set>
#include <vector>

#include "filters/Prototypes.h"
#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/filters/Parametric.h"

namespace {

using dsp::Parametric;
using vextest::Complex;
using vextest::kPi;
using vextest::Prototype;

TEST(Parametric, OutOfRangeValuesBecomeTheMidpointAndSwitchesSnap) {
  Parametric p;
  float lo = 1, hi = 2;
  p.GetBounds(Parametric::kSampleRate, lo, hi);
  EXPECT_EQ(lo, 8000.0f);
  EXPECT_EQ(hi, 192000.0f);
  p.SetParameter(Parametric::kSampleRate, 5.0f);
  EXPECT_EQ(p.GetParameter(Parametric::kSampleRate), 100000.0f);
  p.SetParameter(Parametric::kMasterGain, std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(p.GetParameter(Parametric::kMasterGain), 0.0f);
  p.SetParameter(Parametric::kMasterGain, -3.5f);
  EXPECT_EQ(p.GetParameter(Parametric::kMasterGain), -3.5f);
  p.SetParameter(45, 1.0f);
  p.SetParameter(-1, 1.0f);
  EXPECT_EQ(p.GetParameter(45), 0.0f);
  p.GetBounds(45, lo, hi);
  EXPECT_EQ(lo, 8000.0f) << "untouched";

  // Exactly the twelve switch indices snap a value 30 % into their range.
  const std::set<int> switches = {7, 11, 15, 19, 23, 26, 27, 28, 29, 30, 37, 40};
  for (int i = 0; i < Parametric::kNumParameters; ++i) {
    Parametric q;
    q.GetBounds(i, lo, hi);
    const float value = lo + 0.3f * (hi - lo);
    q.SetParameter(i, value);
    if (switches.count(i) != 0) {
      EXPECT_EQ(q.GetParameter(i), 0.0f) << i;
      q.SetParameter(i, 0.5f);
      EXPECT_EQ(q.GetParameter(i), 1.0f) << i;
    } else if (i == Parametric::kHighpassOrder || i == Parametric::kLowpassOrder || i == Parametric::kChannels) {
      EXPECT_EQ(q.GetParameter(i), std::round(value)) << i;
    } else {
      EXPECT_EQ(q.GetParameter(i), value) << i;
    }
  }
}

TEST(Parametric, BandwidthAndFrequencyDeriveEachOther) {
  Parametric p;
  const int freq = Parametric::kFirstBand, bw = freq + 1;
  EXPECT_EQ(p.GetParameter(freq), 200.0f);
  EXPECT_EQ(p.GetBandQ(0), 1.0);
  p.SetParameter(bw, 100.0f);
  EXPECT_DOUBLE_EQ(p.GetBandQ(0), 2.0);
  p.SetParameter(freq, 400.0f);
  EXPECT_EQ(p.GetParameter(bw), 200.0f) << "Q kept, bandwidth follows";
  EXPECT_DOUBLE_EQ(p.GetBandQ(0), 2.0);
  p.SetParameter(Parametric::kConstantBandwidth, 1.0f);
  p.SetParameter(freq, 800.0f);
  EXPECT_EQ(p.GetParameter(bw), 200.0f) << "bandwidth kept, Q follows";
  EXPECT_DOUBLE_EQ(p.GetBandQ(0), 4.0);
  p.SetParameter(freq, 20000.0f);
  p.SetParameter(bw, 1.0f);
  EXPECT_DOUBLE_EQ(p.GetBandQ(0), 10000.0) << "derived Q clamped";
  p.SetParameter(Parametric::kConstantBandwidth, 0.0f);
  p.SetParameter(freq + 8, 10.0f);  // band 3
  p.SetParameter(freq + 9, 20000.0f);
  EXPECT_DOUBLE_EQ(p.GetBandQ(2), 0.0005);
  p.SetParameter(freq + 8, 1.0f);  // out of range: midpoint 10005 Hz
  EXPECT_EQ(p.GetParameter(freq + 8), 10005.0f);
  EXPECT_FLOAT_EQ(p.GetParameter(freq + 9), 10000.0f) << "derived bandwidth clamped";
}

TEST(Parametric, ChangesAreFlaggedAndAppliedAtResume) {
  Parametric p;
  EXPECT_FALSE(p.IsDirty());
  p.SetParameter(Parametric::kMasterGain, 0.0f);
  EXPECT_FALSE(p.IsDirty()) << "an equal value does nothing";
  p.SetParameter(Parametric::kFirstBand + 2, 6.0f);
  EXPECT_TRUE(p.IsDirty());
  EXPECT_TRUE(p.IsParameterChanged(Parametric::kFirstBand + 2));
  EXPECT_FALSE(p.IsParameterChanged(Parametric::kFirstBand + 3));
  p.Resume();
  EXPECT_FALSE(p.IsDirty());
  EXPECT_FALSE(p.IsParameterChanged(Parametric::kFirstBand + 2));
  p.SetAllParameterChangedFlags();
  EXPECT_TRUE(p.IsParameterChanged(44));
  p.ClearAllParameterChangedFlags();
  EXPECT_FALSE(p.IsDirty());

  // The filters follow only at the next block.
  std::vector<float> x = vextest::Noise(64, 1), y(64);
  p.SetParameter(Parametric::kFirstBand + 2, -12.0f);
  p.SetParameter(Parametric::kMasterGain, 6.0f);
  p.Process(x.data(), y.data(), 64);
  EXPECT_NE(x, y);
  EXPECT_FALSE(p.IsDirty());
}

TEST(Parametric, ResponseFollowsTheBandsShelvesAndMix) {
  Parametric p;
  p.SetParameter(Parametric::kSampleRate, 48000.0f);
  p.SetParameter(Parametric::kFirstBand + 8, 1000.0f);  // band 3
  p.SetParameter(Parametric::kFirstBand + 9, 250.0f);   // Q 4
  p.SetParameter(Parametric::kFirstBand + 10, 6.0f);
  p.SetParameter(Parametric::kLowShelfGain, -5.0f);
  p.SetParameter(Parametric::kHighShelfGain, 4.0f);
  const Prototype band{1000, 4, 6}, low{100, 0.7071, -5}, high{10000, 0.7071, 4};
  for (double f = 30; f < 20000; f *= 1.7) {
    const double expected = 20 * std::log10(std::abs(band.Peak(f) * low.LowShelf(f) * high.HighShelf(f)));
    EXPECT_NEAR(p.ComputeFilterResponse(static_cast<float>(f)), expected, 1e-3) << f;
  }
  p.SetParameter(Parametric::kGainScale, 50.0f);
  EXPECT_NEAR(p.ComputeFilterResponse(1000),
              20 * std::log10(std::abs(Prototype{1000, 4, 3}.Peak(1000) * Prototype{100, 0.7071, -2.5}.LowShelf(1000) *
                                       Prototype{10000, 0.7071, 2}.HighShelf(1000))),
              1e-3);
  p.SetParameter(Parametric::kGainScale, 100.0f);
  p.SetParameter(Parametric::kMix, 50.0f);
  p.SetParameter(Parametric::kMasterGain, -6.0f);
  const Complex h = band.Peak(1000) * low.LowShelf(1000) * high.HighShelf(1000);
  EXPECT_NEAR(p.ComputeFilterResponse(1000), 20 * std::log10(std::abs(0.5 * std::pow(10, -6 / 20.0) * h + 0.5)), 1e-3);
  p.SetParameter(Parametric::kMix, 100.0f);
  p.SetParameter(Parametric::kFirstBand + 10, 40.0f);
  EXPECT_EQ(p.ComputeFilterResponse(1000), 30.0f) << "clamped to the display range";
  p.SetParameter(Parametric::kBypass, 1.0f);
  EXPECT_EQ(p.ComputeFilterResponse(1000), 0.0f);

  // A positive tilt cuts below the 1 kHz pivot and lifts above it.
  Parametric tilt;
  tilt.SetParameter(Parametric::kSampleRate, 48000.0f);
  tilt.SetParameter(Parametric::kTilt, 6.0f);
  const Prototype below{1000, 0.5, -3}, above{1000, 0.5, 3};
  for (double f : {30.0, 300.0, 3000.0, 18000.0}) {
    EXPECT_NEAR(tilt.ComputeFilterResponse(static_cast<float>(f)),
                20 * std::log10(std::abs(below.LowShelf(f) * above.HighShelf(f))), 1e-3)
        << f;
  }
}

TEST(Parametric, ButterworthSectionsHaveTheMaximallyFlatMagnitude) {
  for (int order = 1; order <= 8; ++order) {
    Parametric p;
    p.SetParameter(Parametric::kSampleRate, 48000.0f);
    p.SetParameter(Parametric::kHighpassOn, 1.0f);
    p.SetParameter(Parametric::kHighpassFrequency, 100.0f);
    p.SetParameter(Parametric::kHighpassOrder, static_cast<float>(order));
    p.SetParameter(Parametric::kLowpassOn, 1.0f);
    p.SetParameter(Parametric::kLowpassFrequency, 5000.0f);
    p.SetParameter(Parametric::kLowpassOrder, static_cast<float>(9 - order));
    const double wh = std::tan(kPi * 100 / 48000), wl = std::tan(kPi * 5000 / 48000);
    for (double f = 10; f < 23000; f *= 1.4) {
      const double w = std::tan(kPi * f / 48000);
      const double expected =
          1 / std::sqrt(1 + std::pow(wh / w, 2 * order)) / std::sqrt(1 + std::pow(w / wl, 2 * (9 - order)));
      EXPECT_NEAR(p.ComputeButterResponse(static_cast<float>(f)), expected, 1e-6 * expected + 1e-9)
          << "order " << order << " at " << f;
    }
  }
  Parametric off;
  EXPECT_EQ(off.ComputeButterResponse(1000), 1.0f);
}

TEST(Parametric, ProcessingMatchesTheResponseOnInterleavedChannels) {
  Parametric p;
  p.SetParameter(Parametric::kSampleRate, 48000.0f);
  p.SetParameter(Parametric::kChannels, 2.0f);
  p.SetParameter(Parametric::kFirstBand + 6, -9.0f);  // band 2 at 500 Hz
  p.SetParameter(Parametric::kHighpassOn, 1.0f);
  p.SetParameter(Parametric::kHighpassOrder, 3.0f);
  p.SetParameter(Parametric::kTilt, 6.0f);
  p.SetParameter(Parametric::kDcBlocker, 5.0f);
  p.SetParameter(Parametric::kInvertPolarity, 1.0f);
  const int n = 16384;
  std::vector<float> x(2 * n, 0.0f), y(2 * n);
  x[0] = 1.0f;  // impulse on the left, silence on the right
  p.Process(x.data(), y.data(), n);
  for (double f : {20.0, 100.0, 500.0, 3000.0, 15000.0}) {
    Complex sum = 0.0;
    for (int i = 0; i < n; ++i) sum += double{y[2 * i]} * std::exp(Complex(0, -2 * kPi * f * i / 48000));
    EXPECT_NEAR(20 * std::log10(std::abs(sum)), p.ComputeFilterResponse(static_cast<float>(f)), 1e-3) << f;
  }
  EXPECT_LT(y[0], 0.0f) << "polarity inverted";
  for (int i = 0; i < n; ++i) ASSERT_EQ(y[2 * i + 1], 0.0f);

  // In place, per frame and after Reset: the same stream.
  const std::vector<float> noise = vextest::Noise(2 * 3000, 2);
  p.Reset();
  std::vector<float> block = noise;
  p.Process(block.data(), block.data(), 3000);
  p.Reset();
  std::vector<float> frames(noise.size());
  for (int i = 0; i < 3000; ++i) p.ProcessOneSample(const_cast<float*>(&noise[2 * i]), &frames[2 * i]);
  EXPECT_EQ(frames, block);
}

TEST(Parametric, BypassAndNeutralSettingsPassTheSignal) {
  const std::vector<float> x = vextest::Noise(1000, 3);
  Parametric p;
  std::vector<float> y(1000);
  p.Process(const_cast<float*>(x.data()), y.data(), 1000);
  EXPECT_EQ(y, x) << "defaults are neutral";
  p.SetParameter(Parametric::kFirstBand + 2, 12.0f);
  p.SetParameter(Parametric::kBypass, 1.0f);
  p.Process(const_cast<float*>(x.data()), y.data(), 1000);
  EXPECT_EQ(y, x);
}

TEST(Parametric, ProcessingNeverAllocates) {
  Parametric p;
  p.SetParameter(Parametric::kFirstBand + 2, 12.0f);
  p.SetParameter(Parametric::kLowpassOn, 1.0f);
  std::vector<float> x = vextest::Noise(1024, 4);
  EXPECT_NO_ALLOCATION(p.Process(x.data(), x.data(), 1024));
  EXPECT_NO_ALLOCATION(p.SetParameter(Parametric::kLowpassOrder, 8.0f));
  EXPECT_NO_ALLOCATION(p.Resume());
  EXPECT_NO_ALLOCATION(p.ComputeFilterResponse(1000));
}

}  // namespace
