#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Filter.h"

using namespace vexaccelerate;
using namespace vexaccelerate::filter;

namespace {

constexpr double kPi = 3.14159265358979323846;

// RBJ cookbook low-pass (dB = nan) or peaking section, left unnormalised (a0 != 1) on purpose.
std::vector<double> Cookbook(double f0, double q, double dB = std::nan("")) {
  const double w0 = 2.0 * kPi * f0 / 48000.0, alpha = std::sin(w0) / (2.0 * q), c = std::cos(w0);
  if (std::isnan(dB)) return {(1 - c) / 2, 1 - c, (1 - c) / 2, 1 + alpha, -2 * c, 1 - alpha};
  const double a = std::pow(10.0, dB / 40.0);
  return {1 + alpha * a, -2 * c, 1 - alpha * a, 1 + alpha / a, -2 * c, 1 - alpha / a};
}

// `count` sections cycling through a low-pass and two peaking designs.
std::vector<double> Sections(int count) {
  const std::vector<double> designs[] = {Cookbook(3000, 0.9), Cookbook(200, 4.0, 9.0), Cookbook(9000, 0.5, -6.0)};
  std::vector<double> taps;
  for (int j = 0; j < count; ++j) taps.insert(taps.end(), designs[j % 3].begin(), designs[j % 3].end());
  return taps;
}

// Order 4, b then a: four poles at 0.5, a0 = 2.
const std::vector<double> kOrder4 = {0.2, -0.1, 0.3, 0.05, 0.1, 2.0, -4.0, 3.0, -1.0, 0.125};

// Direct form I difference equation of any order, in long double:
// a0 y[n] = sum b_k x[n-k] - sum_(k>=1) a_k y[n-k].
std::vector<double> DifferenceEquation(const std::vector<double>& taps, const std::vector<double>& x) {
  const std::size_t order = taps.size() / 2 - 1;
  std::vector<long double> y(x.size());
  for (std::size_t n = 0; n < x.size(); ++n) {
    long double acc = 0;
    for (std::size_t k = 0; k <= order && k <= n; ++k)
      acc += static_cast<long double>(taps[k]) * x[n - k] - (k > 0 ? taps[order + 1 + k] * y[n - k] : 0);
    y[n] = acc / taps[order + 1];
  }
  return std::vector<double>(y.begin(), y.end());
}

std::vector<double> NoiseD(std::size_t n, std::uint32_t seed) {
  const std::vector<float> f = vextest::Noise(n, seed);
  return std::vector<double>(f.begin(), f.end());
}

double MaxDiff(const std::vector<double>& a, const std::vector<double>& b) {
  double m = 0;
  for (std::size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
  return m;
}

// A cascade of `count` sections or a direct form of order `count`.
struct Iir {
  IIRState_Double* s = nullptr;
  Iir(const std::vector<double>& taps, int count, bool direct = false) {
    EXPECT_EQ(direct ? IIRInit(&s, taps.data(), count, nullptr) : IIRInit_BiQuad(&s, taps.data(), count, nullptr), 0);
  }
  Iir(const Iir&) = delete;
  ~Iir() { IIRFree(s); }
  std::vector<double> Run(const std::vector<double>& x) {
    std::vector<double> y(x.size());
    EXPECT_EQ(IIR(x.size(), x.data(), y.data(), s), 0);
    return y;
  }
};

TEST(IIR, CascadeAndDirectFormMatchDifferenceEquations) {
  // 1 ... 9 sections: every grouping of sections the cascade uses.
  const std::vector<double> x = NoiseD(2000, 1), nine = Sections(9);
  std::vector<double> expect = x;
  for (int sections = 1; sections <= 9; ++sections) {
    expect = DifferenceEquation({nine.begin() + 6 * (sections - 1), nine.begin() + 6 * sections}, expect);
    Iir f(nine, sections);
    EXPECT_LT(MaxDiff(f.Run(x), expect), 1e-11) << sections << " sections";
  }
  // Direct forms of order 4 and 32; the latter with only b32 = a0 = 2 is a pure delay.
  std::vector<double> delay(66, 0.0);
  delay[32] = delay[33] = 2.0;
  EXPECT_LT(MaxDiff(Iir(kOrder4, 4, true).Run(x), DifferenceEquation(kOrder4, x)), 1e-12);
  EXPECT_EQ(Iir(delay, 32, true).Run(x), DifferenceEquation(delay, x));
}

// One call, single samples and assorted in-place splits after clearing must be bit-identical, without allocating.
TEST(IIR, PerSampleBlockAndSplitBlocksAgree) {
  const std::vector<double> x = NoiseD(1000, 4), five = Sections(5);  // a group of four sections and one
  for (bool direct : {false, true}) {
    Iir whole(direct ? kOrder4 : five, direct ? 4 : 5, direct), single(direct ? kOrder4 : five, direct ? 4 : 5, direct);
    const std::vector<double> expect = whole.Run(x);
    for (std::size_t i = 0; i < x.size(); ++i) EXPECT_NO_ALLOCATION(ASSERT_EQ(IIR(x[i], single.s), expect[i]));
    for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
      ASSERT_EQ(IIRSetDlyLine(whole.s, nullptr), 0);
      std::vector<double> y = x;
      for (std::size_t pos = 0; pos < y.size(); pos += split) {
        EXPECT_NO_ALLOCATION(IIR(std::min(split, y.size() - pos), y.data() + pos, y.data() + pos, whole.s));
      }
      EXPECT_EQ(y, expect) << "direct " << direct << " split " << split;
    }
  }
}

TEST(IIR, SetTapsKeepsStateSetDlyLineNullClearsAndBadArgumentsFail) {
  const std::vector<double> taps = Cookbook(500, 4.0), other = Cookbook(700, 2.0, 6.0);
  const std::vector<double> loud = NoiseD(300, 5), silence(200, 0.0);
  std::vector<double> scaled = taps, zeroA0 = Sections(2);
  for (double& t : scaled) t *= 3.0;
  zeroA0[9] = 0.0;  // in the second section
  Iir reference(taps, 1), f(taps, 1), fresh(other, 1);
  reference.Run(loud);
  f.Run(loud);
  // Taps scaled by 3 normalise to the same filter, so the ringing continues exactly; a0 = 0 is refused.
  EXPECT_NO_ALLOCATION(ASSERT_EQ(IIRSetTaps(f.s, scaled.data()), 0));
  EXPECT_NE(IIRSetTaps(f.s, zeroA0.data() + 6), 0);
  const std::vector<double> ringing = reference.Run(silence);
  ASSERT_GT(std::fabs(ringing[10]), 1e-3);
  EXPECT_LT(MaxDiff(f.Run(silence), ringing), 1e-12);
  // New taps with a null delay line start at rest.
  ASSERT_EQ(IIRSetTaps(f.s, other.data()), 0);
  EXPECT_NO_ALLOCATION(ASSERT_EQ(IIRSetDlyLine(f.s, nullptr), 0));
  EXPECT_EQ(f.Run(loud), fresh.Run(loud));

  IIRState_Double* s = nullptr;  // a0 = 0 in any section fails the whole cascade
  EXPECT_NE(IIRInit(&s, taps.data(), 0, nullptr), 0);
  EXPECT_NE(IIRInit_BiQuad(&s, zeroA0.data(), 2, nullptr), 0);
  EXPECT_TRUE(s == nullptr && IIR(0.75, nullptr) == 0.75);
}

TEST(IIR, LongSilentTailStaysOutOfDenormals) {
  // A high-Q resonance decays through the whole double range; a one-pole direct form halves every sample.
  const double tiny = 4.0 * std::numeric_limits<double>::min();
  auto subnormal = [](double v) { return std::fpclassify(v) == FP_SUBNORMAL; };
  Iir a(Cookbook(100, 2.0, 12.0), 1), b({1.0, 0.0, 1.0, -0.5}, 1, true);
  const unsigned csr = _mm_getcsr();
  std::vector<double> block(512, 0.0);
  block[0] = 1.0;
  std::size_t subnormals = 0;
  for (int rep = 0; rep < 2000; ++rep, block[0] = 0.0) {
    for (Iir* f : {&a, &b}) {
      double dly[2] = {};
      const std::vector<double> out = f->Run(block);
      ASSERT_EQ(IIRGetDlyLine(f->s, dly), 0);
      subnormals += std::count_if(out.begin(), out.end(), subnormal) + subnormal(dly[0]) + subnormal(dly[1]);
    }
  }
  ASSERT_EQ(IIRSetDlyLine(b.s, &tiny), 0);  // one sample at a time too
  for (int i = 0; i < 10; ++i) subnormals += subnormal(IIR(0.0, b.s));
  EXPECT_EQ(subnormals, 0u);
  EXPECT_EQ(_mm_getcsr(), csr);  // the caller's floating-point mode is restored
}

std::vector<double> Convolve(const std::vector<float>& h, const std::vector<float>& x) {
  std::vector<double> y(x.size(), 0.0);
  for (std::size_t n = 0; n < x.size(); ++n)
    for (std::size_t k = 0; k < h.size() && k <= n; ++k) y[n] += static_cast<double>(h[k]) * x[n - k];
  return y;
}

// Against the convolution; in-place splits after a Reset are bit-identical to one call.
TEST(FIR, MatchesConvolutionInAnyBlockSplit) {
  const std::vector<float> x = vextest::Noise(3000, 3);
  for (int numTaps : {1, 5, 47, 300}) {
    const std::vector<float> h = vextest::Noise(numTaps, 10 + numTaps);
    const std::vector<double> ref = Convolve(h, x);
    FIRState_Float* raw = nullptr;
    ASSERT_EQ(FIRInit(&raw, h.data(), numTaps), 0);
    const std::unique_ptr<FIRState_Float, void (*)(FIRState_Float*)> f(raw, FIRFree);
    std::vector<float> expect(x.size());
    ASSERT_EQ(FIR(x.size(), x.data(), expect.data(), raw), 0);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(expect[i], ref[i], 1e-6 * (numTaps + 1)) << numTaps;
    for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
      ASSERT_EQ(FIRReset(raw), 0);
      std::vector<float> z = x;
      for (std::size_t pos = 0; pos < z.size(); pos += split) {
        EXPECT_NO_ALLOCATION(FIR(std::min(split, z.size() - pos), z.data() + pos, z.data() + pos, raw));
      }
      EXPECT_EQ(z, expect) << numTaps << " taps, split " << split;
    }
  }
  FIRState_Float* none = nullptr;
  EXPECT_TRUE(FIRInit(&none, x.data(), 0) != 0 && none == nullptr);
}

TEST(SincDesign, UnityDcGainSymmetryAndKaiserStopband) {
  for (WindowType window : {kWindowRectangular, kWindowHann, kWindowHamming, kWindowBlackman, kWindowKaiser}) {
    for (int numTaps : {1, 2, 31, 64, 101}) {
      std::vector<double> h(numTaps);
      std::vector<float> hf(numTaps);
      ASSERT_EQ(DesignLowpassSinc(h.data(), numTaps, 0.2, window, window == kWindowKaiser ? 6.0 : 0.0), 0);
      ASSERT_EQ(DesignLowpassSinc(hf.data(), numTaps, 0.2, window, window == kWindowKaiser ? 6.0 : 0.0), 0);
      long double sum = 0;
      for (int i = 0; i < numTaps; ++i) {
        sum += h[i];
        ASSERT_TRUE(h[i] == h[numTaps - 1 - i] && std::fabs(hf[i] - h[i]) < 1e-6) << window << " " << numTaps;
      }
      EXPECT_NEAR(static_cast<double>(sum), 1.0, 1e-14) << "window " << window << ", " << numTaps << " taps";
    }
  }
  auto dB = [](const std::vector<double>& h, double f) {
    std::complex<long double> acc = 0;
    for (std::size_t i = 0; i < h.size(); ++i)
      acc += static_cast<long double>(h[i]) * std::polar(1.0L, -2.0L * kPi * f * i);
    return 20.0 * std::log10(static_cast<double>(std::abs(acc)));
  };
  std::vector<double> h(101);
  EXPECT_NO_ALLOCATION(ASSERT_EQ(DesignLowpassSinc(h.data(), 101, 0.1, kWindowKaiser, 8.0), 0));
  for (double f = 0.2; f <= 0.5; f += 0.001) ASSERT_LT(dB(h, f), -60.0) << "f " << f;
  for (double f = 0.0; f <= 0.05; f += 0.001) ASSERT_NEAR(dB(h, f), 0.0, 0.01) << "f " << f;
  EXPECT_NEAR(dB(h, 0.1), -6.02, 0.2);  // half amplitude at the cut-off

  const std::vector<double> before = h;  // bad arguments write nothing
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.5, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.1, kWindowKaiser, -1.0), 0);
  EXPECT_EQ(h, before);
}

}  // namespace
