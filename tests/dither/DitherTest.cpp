#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Transform.h"
#include "vexaudiodsp/dither/Dither.h"

namespace {

constexpr double kPi = 3.141592653589793;

std::vector<float> Quantise(dsp::Dither& d, const std::vector<float>& in, int block = 0) {
  std::vector<float> out(in.size());
  const int total = static_cast<int>(in.size());
  if (block <= 0) block = total;
  for (int done = 0; done < total; done += block) {
    const int n = std::min(block, total - done);
    float* i = const_cast<float*>(in.data()) + done;
    float* o = out.data() + done;
    EXPECT_EQ(d.Process(&i, &o, n), n);
  }
  return out;
}

dsp::Dither Make(int pdf, int shaping, int bits = 16, float rate = 44100.0f) {
  dsp::Dither d;
  d.SetSampleRate(rate);
  d.SetDitherToBits(bits);
  d.SetDitheringType(pdf, shaping, dsp::kAdaptiveOff);
  d.Initialize();
  return d;
}

// Mean power per band of the error spectrum (Hann-windowed 4096-point
// segments, averaged), in dB re one 16-bit LSB squared.
double BandPowerDb(const std::vector<float>& out, const std::vector<float>& in, double rate, double lo, double hi) {
  constexpr int kOrder = 12, kN = 1 << kOrder;
  vexaccelerate::FFTState_Double* state = nullptr;
  vexaccelerate::transform::FFTInit(&state, kOrder);
  std::vector<double> buf(kN + 2);
  double total = 0.0;
  int count = 0;
  for (std::size_t start = 256; start + kN <= out.size(); start += kN / 2) {
    for (int n = 0; n < kN; ++n) {
      const double w = 0.5 - 0.5 * std::cos(2 * kPi * n / kN);
      buf[n] = w * (static_cast<double>(out[start + n]) - in[start + n]) * 32768.0;
    }
    vexaccelerate::transform::FFTFwd(state, buf.data(), buf.data());
    for (int k = static_cast<int>(lo / rate * kN); k <= static_cast<int>(hi / rate * kN); ++k) {
      total += buf[2 * k] * buf[2 * k] + buf[2 * k + 1] * buf[2 * k + 1];
      ++count;
    }
  }
  vexaccelerate::transform::FFTFree(state);
  return 10 * std::log10(total / count);
}

TEST(Dither, SettersFollowTheirRules) {
  dsp::Dither d;
  EXPECT_EQ(dsp::Dither::GetMaxChannels(), 32);
  EXPECT_EQ(d.SetNumChannels(40), 32);
  EXPECT_EQ(d.SetNumChannels(2), 2);
  d.SetDitheringType(dsp::kDitherGaussian, dsp::kShapingGentle, dsp::kAdaptiveMasking);
  d.SetDitheringType(-1, dsp::kShapingPlateau, -1);
  EXPECT_EQ(d.GetPDF(), dsp::kDitherGaussian);
  EXPECT_EQ(d.GetShaping(), dsp::kShapingPlateau);
  EXPECT_EQ(d.GetAdaptive(), dsp::kAdaptiveMasking);
  d.Initialize();
  EXPECT_EQ(d.SetNumChannels(5), 2);
  EXPECT_EQ(d.GetNumChannels(), 2);

  double bad[2 * 33] = {};
  EXPECT_FALSE(d.SetCustomShape(33, bad));
  EXPECT_FALSE(d.SetCustomShape(0, bad));
  EXPECT_FALSE(d.SetCustomShape(1, bad));
  double pts[] = {0.5, 0.2, 0.0, 1.0, 1.0, 0.0};
  EXPECT_TRUE(d.SetCustomShape(3, pts));
  double* got = nullptr;
  ASSERT_EQ(d.GetCustomShape(&got), 3);
  EXPECT_EQ(got[0], 0.0);
  EXPECT_EQ(got[1], 1.0);
  EXPECT_EQ(got[2], 0.5);
}

TEST(Dither, CurveAdaptationToTheSampleRate) {
  const double* table = nullptr;
  int count = 0, shiftFrom = 0, taps = 0;
  ASSERT_TRUE(dsp::Dither::GetBuiltInCurve(4, &table, &count, &shiftFrom, &taps));
  ASSERT_EQ(count, 17);
  EXPECT_EQ(shiftFrom, 6);
  EXPECT_EQ(taps, 64);
  EXPECT_FALSE(dsp::Dither::GetBuiltInCurve(1, &table, &count, &shiftFrom, &taps));

  // 44.1 kHz: unchanged apart from the spacing below 1 (0.9998 of a
  // 17-point curve must stay 1/4096 below 1), no shift.
  std::vector<double> p(table, table + 2 * count);
  dsp::Dither::AdjustFilterToSampleRate(0.0, p.data(), count, shiftFrom, 44100.0);
  for (int i = 0; i < 2 * count; ++i) {
    EXPECT_EQ(p[i], i == 30 ? 1.0 - 1.0 / 4096 : table[i]) << i;
  }

  // 96 kHz: x * 0.459375, the edge after the last point at >= 0.5 pulled up
  // with c = 0.12, then points 6 ... 15 moved by 0.245 * 44100 / 96000.
  p.assign(table, table + 2 * count);
  dsp::Dither::AdjustFilterToSampleRate(0.0, p.data(), count, shiftFrom, 96000.0);
  std::vector<double> x(count);
  x[0] = 0.0;
  for (int i = 1; i < count - 1; ++i) {
    x[i] = std::min(1.0 - (count - 1 - i) / 4096.0, std::max(x[i - 1] + 1.0 / 8192, table[2 * i] * 0.459375));
  }
  for (int i = 11; i < count - 1; ++i) x[i] = 1.0 - (1.0 - x[i]) * 0.88;  // point 10 (0.77) is the edge
  for (int i = 6; i < count - 1; ++i) x[i] += 0.245 * 0.459375;
  x[count - 1] = 1.0;
  for (int i = 0; i < count; ++i) {
    EXPECT_NEAR(p[2 * i], x[i], 1e-12) << i;
    EXPECT_EQ(p[2 * i + 1], table[2 * i + 1]) << i;
  }

  // An explicit shift at 48 kHz moves points from shiftFrom; none past n-2.
  p.assign(table, table + 2 * count);
  dsp::Dither::AdjustFilterToSampleRate(0.05, p.data(), count, 16, 48000.0);
  EXPECT_NEAR(p[2 * 15], table[2 * 15] * 44100.0 / 48000.0, 1e-12);
}

TEST(Dither, EverySampleLiesOnTheTargetGridWithinRange) {
  const std::vector<float> in = vextest::Noise(6000, 21, 1.2);  // partly clipping
  for (int bits : {8, 16, 24}) {
    for (int pdf = 0; pdf <= 5; ++pdf) {
      dsp::Dither d = Make(pdf, pdf % 2 ? dsp::kShapingStandard : dsp::kShapingNone, bits);
      const std::vector<float> out = Quantise(d, in, 1000);
      const double codes = std::ldexp(1.0, bits - 1);
      for (std::size_t i = 0; i < out.size(); ++i) {
        const double code = out[i] * codes;
        ASSERT_EQ(code, std::floor(code)) << "bits " << bits << " pdf " << pdf << " at " << i;
        ASSERT_GE(code, -codes);
        ASSERT_LE(code, codes - 1);
      }
    }
  }
}

TEST(Dither, TriangularErrorDoesNotDependOnTheSignal) {
  // A slow ramp across a few LSBs: mean and variance of the error are the
  // same at every point of the ramp (no noise modulation), at the values of
  // TPDF of +-1 LSB: mean 0, variance 1/4 LSB^2.
  const int n = 400000;
  std::vector<float> in(n);
  for (int i = 0; i < n; ++i) in[i] = static_cast<float>((-3.0 + 6.0 * i / n) / 32768.0);
  dsp::Dither d = Make(dsp::kDitherTriangular, dsp::kShapingNone);
  const std::vector<float> out = Quantise(d, in, 4096);
  // Bins of the fractional input position: rounding without dither would
  // give a mean error from -0.5 to +0.5 across them.
  const int kBins = 8;
  double sum[kBins] = {}, sum2[kBins] = {};
  int cnt[kBins] = {};
  for (int i = 100; i < n; ++i) {
    const double x = in[i] * 32768.0;
    const int bin = static_cast<int>((x - std::floor(x)) * kBins);
    const double e = out[i] * 32768.0 - x;
    sum[bin] += e;
    sum2[bin] += e * e;
    ++cnt[bin];
  }
  for (int b = 0; b < kBins; ++b) {
    const double mean = sum[b] / cnt[b];
    EXPECT_NEAR(mean, 0.0, 0.01) << "bin " << b;
    EXPECT_NEAR(sum2[b] / cnt[b] - mean * mean, 0.25, 0.01) << "bin " << b;
  }
}

TEST(Dither, TruncationWhenNotSymmetricAndStepOfShorterWords) {
  std::vector<float> in(200, static_cast<float>(0.7 / 32768.0));
  dsp::Dither d = Make(dsp::kDitherNoPDF, dsp::kShapingNone);
  for (float v : Quantise(d, in)) EXPECT_EQ(v * 32768.0f, 1.0f);
  dsp::Dither t = Make(dsp::kDitherNoPDF, dsp::kShapingNone);
  t.SetSymmetric(0);
  for (float v : Quantise(t, in)) EXPECT_EQ(v * 32768.0f, 0.0f);
  // 24 bits: the step is 2^-8 of a 16-bit LSB.
  dsp::Dither h = Make(dsp::kDitherNoPDF, dsp::kShapingNone, 24);
  for (float v : Quantise(h, in)) EXPECT_EQ(v * 32768.0f, std::round(0.7 * 256) / 256);
}

TEST(Dither, ShapedNoiseIsLowerThanFlatBetween1And5kHz) {
  const std::vector<float> in = vextest::Sine(60000, 997.0, 44100.0, 0.25);
  dsp::Dither flat = Make(dsp::kDitherTriangular, dsp::kShapingNone);
  dsp::Dither shaped = Make(dsp::kDitherTriangular, dsp::kShapingStandard);
  const std::vector<float> outFlat = Quantise(flat, in, 512);
  const std::vector<float> outShaped = Quantise(shaped, in, 512);
  const double flatMid = BandPowerDb(outFlat, in, 44100, 1000, 5000);
  const double shapedMid = BandPowerDb(outShaped, in, 44100, 1000, 5000);
  const double flatHigh = BandPowerDb(outFlat, in, 44100, 19000, 21000);
  const double shapedHigh = BandPowerDb(outShaped, in, 44100, 19000, 21000);
  EXPECT_LT(shapedMid, flatMid - 4.0);
  EXPECT_GT(shapedHigh, flatHigh + 5.0);
  // Flat TPDF is white at variance 1/4 LSB^2: the two flat bands agree.
  EXPECT_NEAR(flatMid, flatHigh, 1.0);
}

TEST(Dither, ShapingFilterFollowsTheCurveTransferFunction) {
  // |1 + sum h_k z^-k| of the taps in use, evaluated with std::complex,
  // against the target strength * (mean - level) at a low and a high
  // frequency: the shaped noise sits about strength * (1 - mean) below flat
  // where the curve is 1 and strength * mean above where it is 0.
  dsp::Dither d = Make(dsp::kDitherTriangular, dsp::kShapingStandard);
  const double* taps = nullptr;
  const int k = d.GetShapingFilter(0, &taps);
  ASSERT_EQ(k, 64);
  auto gainDb = [&](double f) {
    std::complex<double> h(1.0, 0.0);
    for (int i = 0; i < k; ++i) h += taps[i] * std::polar(1.0, -2 * kPi * f / 44100.0 * (i + 1));
    return 20 * std::log10(std::abs(h));
  };
  const double mean = 0.5 - d.ComputeOffsetValue(0.0, nullptr);
  EXPECT_NEAR(gainDb(5000.0), 20.0 * (mean - 1.0), 2.0);
  EXPECT_NEAR(gainDb(20500.0), 20.0 * mean, 2.0);
  // Minimum phase: the loop is stable, the impulse response decays.
  EXPECT_LT(std::fabs(taps[k - 1]), 0.01);

  // Boost and cut give strength from the same offset value.
  dsp::Dither b;
  b.SetBoostBy(10.0);
  EXPECT_NEAR(b.GetStrength() * (0.5 - b.ComputeOffsetValue(0.0, nullptr)), 10.0, 1e-9);
  b.SetCutBy(12.0);
  EXPECT_NEAR(b.GetStrength() * (0.5 + b.ComputeOffsetValue(0.0, nullptr)), 12.0, 1e-9);
  b.SetStrength(7.0);
  EXPECT_EQ(b.GetStrength(), 7.0);
}

TEST(Dither, CrossoverSearchMovesTheEdge) {
  dsp::Dither d;
  d.SetSampleRate(48000.0f);
  d.SetCrossoverHz(1000.0);
  EXPECT_EQ(d.GetCrossoverHz(), 0.18 * 48000.0);
  double correction = 1.0;
  d.ComputeOffsetValue(d.GetCurveShift(), &correction);
  EXPECT_LT(std::fabs(correction), 0.002);
  EXPECT_NE(d.GetCurveShift(), 0.0);
}

TEST(Dither, BlockSplitResetAndFreshAgree) {
  const std::vector<float> in = vextest::Noise(5000, 4, 0.3);
  for (int adaptive : {0, 1}) {
    dsp::Dither whole = Make(dsp::kDitherHighPassGaussian, dsp::kShapingPlateau);
    whole.SetDitheringType(-1, -1, adaptive);
    const std::vector<float> reference = Quantise(whole, in);
    for (int block : {1, 7, 256, 257, 1000}) {
      dsp::Dither split = Make(dsp::kDitherHighPassGaussian, dsp::kShapingPlateau);
      split.SetDitheringType(-1, -1, adaptive);
      EXPECT_EQ(Quantise(split, in, block), reference) << "block " << block << " adaptive " << adaptive;
    }
    whole.Reset();
    EXPECT_EQ(Quantise(whole, in, 300), reference) << "after Reset";
    dsp::Dither copy(whole);
    EXPECT_EQ(Quantise(copy, in), Quantise(whole, in)) << "copy continues the stream";
  }
}

TEST(Dither, AdaptiveMaskingRaisesNoiseUnderLoudProgramme) {
  // A loud 15 kHz tone masks noise around it: the adaptive filter lets the
  // noise rise there and so pushes it down elsewhere.
  const std::vector<float> in = vextest::Sine(60000, 15000.0, 44100.0, 0.5);
  dsp::Dither plain = Make(dsp::kDitherTriangular, dsp::kShapingStandard);
  dsp::Dither adaptive = Make(dsp::kDitherTriangular, dsp::kShapingStandard);
  adaptive.SetDitheringType(-1, -1, dsp::kAdaptiveMasking);
  const std::vector<float> a = Quantise(plain, in, 512);
  const std::vector<float> b = Quantise(adaptive, in, 512);
  EXPECT_GT(BandPowerDb(b, in, 44100, 14500, 15500), BandPowerDb(a, in, 44100, 14500, 15500) + 3.0);
  EXPECT_LT(BandPowerDb(b, in, 44100, 1000, 5000), BandPowerDb(a, in, 44100, 1000, 5000) - 1.0);
}

TEST(Dither, FadesInAndOutAroundDigitalSilence) {
  std::vector<float> silence(3000, 0.0f);
  dsp::Dither d = Make(dsp::kDitherTriangular, dsp::kShapingStandard);
  std::vector<float> first = Quantise(d, silence);
  EXPECT_EQ(first[0], 0.0f) << "the fade starts without dither";
  int nonZero = 0;
  for (float v : first) nonZero += v != 0.0f;
  EXPECT_GT(nonZero, 1000);
  d.SetLastFrame();
  std::vector<float> last = Quantise(d, std::vector<float>(1000, 0.0f));
  EXPECT_EQ(last.back(), 0.0f) << "ends on plain rounding";
  int lastNonZero = 0;
  for (int i = 0; i < 900; ++i) lastNonZero += last[i] != 0.0f;
  EXPECT_GT(lastNonZero, 300);
}

TEST(Dither, ProcessNeverAllocatesAndStaysBoundedEverywhere) {
  dsp::Dither d;
  d.SetNumChannels(2);
  d.SetSampleRate(96000.0f);
  d.SetDitheringType(dsp::kDitherTriangular, dsp::kShapingSteeper, dsp::kAdaptiveMasking);
  d.SetStrength(30.0);
  d.Initialize();
  vextest::PlanarBlock block(2, 4096);
  for (int round = 0; round < 30; ++round) {
    std::vector<float> x = vextest::Noise(4096, static_cast<std::uint32_t>(round), round % 3 == 0 ? 1.5 : 1e-5);
    block.Channel(0) = x;
    block.Channel(1) = x;
    EXPECT_NO_ALLOCATION(d.Process(block.Pointers(), block.Pointers(), 4096));
    for (int c = 0; c < 2; ++c) {
      for (float v : block.Channel(c)) ASSERT_TRUE(v >= -1.0f && v < 1.0f);
    }
  }
  EXPECT_NO_ALLOCATION(d.SetStrength(25.0));
}

}  // namespace
