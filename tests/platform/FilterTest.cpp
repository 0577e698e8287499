#include <gtest/gtest.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Filter.h"

using namespace vexaccelerate;
using namespace vexaccelerate::filter;

namespace {

constexpr double kPi = 3.14159265358979323846;

// RBJ cookbook low-pass, left unnormalised (a0 != 1) on purpose.
std::vector<double> CookbookLowpass(double f0, double fs, double q) {
  const double w0 = 2.0 * kPi * f0 / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double c = std::cos(w0);
  return {(1 - c) / 2, 1 - c, (1 - c) / 2, 1 + alpha, -2 * c, 1 - alpha};
}

std::vector<double> CookbookPeaking(double f0, double fs, double q, double dB) {
  const double a = std::pow(10.0, dB / 40.0);
  const double w0 = 2.0 * kPi * f0 / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double c = std::cos(w0);
  return {1 + alpha * a, -2 * c, 1 - alpha * a, 1 + alpha / a, -2 * c, 1 - alpha / a};
}

// Direct form I difference equation of any order, in long double:
// a0 y[n] = sum b_k x[n-k] - sum_(k>=1) a_k y[n-k].
std::vector<double> DifferenceEquation(const std::vector<double>& taps, const std::vector<double>& x) {
  const std::size_t order = taps.size() / 2 - 1;
  std::vector<long double> y(x.size());
  for (std::size_t n = 0; n < x.size(); ++n) {
    long double acc = 0;
    for (std::size_t k = 0; k <= order && k <= n; ++k) {
      acc += static_cast<long double>(taps[k]) * x[n - k];
      if (k > 0) acc -= static_cast<long double>(taps[order + 1 + k]) * y[n - k];
    }
    y[n] = acc / taps[order + 1];
  }
  return std::vector<double>(y.begin(), y.end());
}

std::vector<double> PolyMul(const double* p, const double* q, std::size_t np, std::size_t nq) {
  std::vector<double> r(np + nq - 1, 0.0);
  for (std::size_t i = 0; i < np; ++i) {
    for (std::size_t j = 0; j < nq; ++j) r[i + j] += p[i] * q[j];
  }
  return r;
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

// Owns an IIR state; frees it on scope exit.
struct Iir {
  IIRState_Double* s = nullptr;
  ~Iir() { IIRFree(s); }
  std::vector<double> Run(const std::vector<double>& x) {
    std::vector<double> y(x.size());
    EXPECT_EQ(IIR(x.size(), x.data(), y.data(), s), 0);
    return y;
  }
};

std::vector<double> ThreeSections() {
  std::vector<double> taps;
  for (const auto& section : {CookbookLowpass(3000, 48000, 0.9), CookbookPeaking(200, 48000, 4.0, 9.0),
                              CookbookPeaking(9000, 48000, 0.5, -6.0)}) {
    taps.insert(taps.end(), section.begin(), section.end());
  }
  return taps;
}

TEST(IIR, BiquadImpulseResponseMatchesDifferenceEquation) {
  const std::vector<double> taps = CookbookLowpass(1000, 48000, 0.707);
  std::vector<double> impulse(400, 0.0);
  impulse[0] = 1.0;
  const std::vector<double> expect = DifferenceEquation(taps, impulse);
  Iir direct, cascade;
  ASSERT_EQ(IIRInit(&direct.s, taps.data(), 2, nullptr), 0);
  ASSERT_EQ(IIRInit_BiQuad(&cascade.s, taps.data(), 1, nullptr), 0);
  EXPECT_LT(MaxDiff(direct.Run(impulse), expect), 1e-15);
  EXPECT_LT(MaxDiff(cascade.Run(impulse), expect), 1e-15);
  // DC gain of a cookbook low-pass is 1: the step response settles there.
  Iir step;
  ASSERT_EQ(IIRInit_BiQuad(&step.s, taps.data(), 1, nullptr), 0);
  EXPECT_NEAR(step.Run(std::vector<double>(5000, 1.0)).back(), 1.0, 1e-12);
}

TEST(IIR, CascadeMatchesChainedDifferenceEquations) {
  // 1 ... 9 sections: every grouping of sections the cascade uses.
  for (int sections = 1; sections <= 9; ++sections) {
    std::vector<double> taps;
    for (int j = 0; j < sections; j += 3) {
      const std::vector<double> three = ThreeSections();
      taps.insert(taps.end(), three.begin(), three.begin() + 6 * std::min(3, sections - j));
    }
    const std::vector<double> x = NoiseD(2000, 1);
    std::vector<double> expect = x;
    for (int j = 0; j < sections; ++j) {
      expect = DifferenceEquation({taps.begin() + 6 * j, taps.begin() + 6 * j + 6}, expect);
    }
    Iir f;
    ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), sections, nullptr), 0);
    EXPECT_EQ(IIRGetDlyLineLength(f.s), 2 * sections);
    EXPECT_LT(MaxDiff(f.Run(x), expect), 1e-11) << sections << " sections";
  }
}

TEST(IIR, DirectFormEqualsSameFilterAsCascade) {
  const std::vector<double> taps = ThreeSections();
  // Multiply the three sections out into one order-6 direct form.
  std::vector<double> b = {1.0}, a = {1.0};
  for (int j = 0; j < 3; ++j) {
    b = PolyMul(b.data(), &taps[6 * j], b.size(), 3);
    a = PolyMul(a.data(), &taps[6 * j + 3], a.size(), 3);
  }
  std::vector<double> direct(b);
  direct.insert(direct.end(), a.begin(), a.end());
  const std::vector<double> x = NoiseD(4000, 2);
  Iir one, three;
  ASSERT_EQ(IIRInit(&one.s, direct.data(), 6, nullptr), 0);
  ASSERT_EQ(IIRInit_BiQuad(&three.s, taps.data(), 3, nullptr), 0);
  EXPECT_EQ(IIRGetDlyLineLength(one.s), 6);
  const std::vector<double> y1 = one.Run(x);
  EXPECT_LT(MaxDiff(y1, three.Run(x)), 1e-9);
  EXPECT_LT(MaxDiff(y1, DifferenceEquation(direct, x)), 1e-9);
}

TEST(IIR, HighestOrderDirectForm) {
  // Order 32 with only b32 = 2 and a0 = 2: a pure delay of 32 samples.
  std::vector<double> taps(66, 0.0);
  taps[32] = 2.0;
  taps[33] = 2.0;
  const std::vector<double> x = NoiseD(200, 3);
  Iir f;
  ASSERT_EQ(IIRInit(&f.s, taps.data(), 32, nullptr), 0);
  const std::vector<double> y = f.Run(x);
  for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(y[i], i < 32 ? 0.0 : x[i - 32]) << i;
  // Order 1 leaky integrator: y = x + 0.5 y[-1].
  const double one[] = {1.0, 0.0, 1.0, -0.5};
  Iir g;
  ASSERT_EQ(IIRInit(&g.s, one, 1, nullptr), 0);
  EXPECT_EQ(IIR(1.0, g.s), 1.0);
  EXPECT_EQ(IIR(0.0, g.s), 0.5);
  EXPECT_EQ(IIR(0.0, g.s), 0.25);
}

// The same signal through one call, single samples and assorted splits, in
// and out of place, must come out bit-identical.
TEST(IIR, PerSampleBlockAndSplitBlocksAgree) {
  std::vector<double> cascadeTaps = ThreeSections();  // five sections: a group of four and one
  cascadeTaps.insert(cascadeTaps.end(), cascadeTaps.begin(), cascadeTaps.begin() + 12);
  // Order 4 direct form: two cookbook sections multiplied out.
  const std::vector<double> lp = CookbookLowpass(2000, 48000, 0.7), pk = CookbookPeaking(400, 48000, 3.0, 6.0);
  std::vector<double> directTaps = PolyMul(lp.data(), pk.data(), 3, 3);
  const std::vector<double> a = PolyMul(lp.data() + 3, pk.data() + 3, 3, 3);
  directTaps.insert(directTaps.end(), a.begin(), a.end());
  const std::vector<double> x = NoiseD(1000, 4);
  for (int form = 0; form < 2; ++form) {
    auto make = [&](Iir& f) {
      return form == 0 ? IIRInit_BiQuad(&f.s, cascadeTaps.data(), 5, nullptr)
                       : IIRInit(&f.s, directTaps.data(), 4, nullptr);
    };
    Iir whole;
    ASSERT_EQ(make(whole), 0);
    const std::vector<double> expect = whole.Run(x);

    Iir single;
    ASSERT_EQ(make(single), 0);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(IIR(x[i], single.s), expect[i]) << "form " << form;

    for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
      Iir f;
      ASSERT_EQ(make(f), 0);
      std::vector<double> y = x;  // in place
      for (std::size_t pos = 0; pos < y.size(); pos += split) {
        const std::size_t count = std::min(split, y.size() - pos);
        ASSERT_EQ(IIR(count, y.data() + pos, y.data() + pos, f.s), 0);
      }
      EXPECT_EQ(y, expect) << "form " << form << " split " << split;
    }
  }
}

TEST(IIR, SetTapsKeepsStateAndNullDelayLineClears) {
  const std::vector<double> taps = CookbookLowpass(500, 48000, 4.0);
  const std::vector<double> other = CookbookPeaking(700, 48000, 2.0, 6.0);
  const std::vector<double> loud = NoiseD(300, 5);
  const std::vector<double> silence(200, 0.0);

  Iir reference;
  ASSERT_EQ(IIRInit_BiQuad(&reference.s, taps.data(), 1, nullptr), 0);
  reference.Run(loud);
  const std::vector<double> ringing = reference.Run(silence);
  ASSERT_GT(std::fabs(ringing[10]), 1e-3);

  Iir f;
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 1, nullptr), 0);
  f.Run(loud);
  // Same taps again, differently scaled: the normalised filter and its state
  // are unchanged, so the ringing continues exactly.
  std::vector<double> scaled = taps;
  for (double& t : scaled) t *= 3.0;
  ASSERT_EQ(IIRSetTaps(f.s, scaled.data()), 0);
  EXPECT_LT(MaxDiff(f.Run(silence), ringing), 1e-12);

  // New taps with kept state: output continues from the old state.
  Iir g;
  ASSERT_EQ(IIRInit_BiQuad(&g.s, taps.data(), 1, nullptr), 0);
  g.Run(loud);
  ASSERT_EQ(IIRSetTaps(g.s, other.data()), 0);
  EXPECT_GT(std::fabs(g.Run(silence)[0]), 1e-4);
  // Cleared: silence in, silence out, and a fresh filter's response after.
  ASSERT_EQ(IIRSetDlyLine(g.s, nullptr), 0);
  for (double v : g.Run(silence)) ASSERT_EQ(v, 0.0);
  Iir fresh;
  ASSERT_EQ(IIRInit_BiQuad(&fresh.s, other.data(), 1, nullptr), 0);
  EXPECT_EQ(g.Run(loud), fresh.Run(loud));
}

TEST(IIR, DelayLineSaveAndRestore) {
  const std::vector<double> taps = ThreeSections();
  const std::vector<double> x = NoiseD(500, 6);
  Iir f;
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 3, nullptr), 0);
  f.Run(x);
  std::vector<double> saved(IIRGetDlyLineLength(f.s));
  ASSERT_EQ(IIRGetDlyLine(f.s, saved.data()), 0);
  const std::vector<double> first = f.Run(x);
  ASSERT_EQ(IIRSetDlyLine(f.s, saved.data()), 0);
  EXPECT_EQ(f.Run(x), first);
  // A state started from the saved delay line continues identically.
  Iir g;
  ASSERT_EQ(IIRInit_BiQuad(&g.s, taps.data(), 3, saved.data()), 0);
  EXPECT_EQ(g.Run(x), first);
}

bool Subnormal(double v) { return std::fpclassify(v) == FP_SUBNORMAL; }

TEST(IIR, LongSilentTailStaysOutOfDenormals) {
  // A high-Q resonance decays through the whole double range within the run;
  // a one-pole direct form halves its state every sample.
  const std::vector<double> resonant = CookbookPeaking(100, 48000, 2.0, 12.0);
  const double halving[] = {1.0, 0.0, 1.0, -0.5};
  Iir a, b;
  ASSERT_EQ(IIRInit_BiQuad(&a.s, resonant.data(), 1, nullptr), 0);
  ASSERT_EQ(IIRInit(&b.s, halving, 1, nullptr), 0);
  const unsigned csr = _mm_getcsr();
  std::vector<double> block(512, 0.0), out(512);
  block[0] = 1.0;
  std::size_t subnormals = 0;
  for (int rep = 0; rep < 2000; ++rep) {
    for (Iir* f : {&a, &b}) {
      ASSERT_EQ(IIR(block.size(), block.data(), out.data(), f->s), 0);
      for (double v : out) subnormals += Subnormal(v);
      double dly[2] = {};
      ASSERT_EQ(IIRGetDlyLine(f->s, dly), 0);
      for (int k = 0; k < IIRGetDlyLineLength(f->s); ++k) subnormals += Subnormal(dly[k]);
    }
    block[0] = 0.0;
  }
  EXPECT_EQ(subnormals, 0u);
  // One sample at a time too, starting from a tiny normal state.
  const double tiny = 4.0 * std::numeric_limits<double>::min();
  ASSERT_EQ(IIRSetDlyLine(b.s, &tiny), 0);
  for (int i = 0; i < 10; ++i) EXPECT_FALSE(Subnormal(IIR(0.0, b.s))) << i;
  double last = 1.0;
  ASSERT_EQ(IIRGetDlyLine(b.s, &last), 0);
  EXPECT_EQ(last, 0.0);
  // The caller's floating-point mode is left as it was.
  EXPECT_EQ(_mm_getcsr(), csr);
}

TEST(IIR, BadArgumentsAreRejected) {
  const std::vector<double> taps = CookbookLowpass(1000, 48000, 0.7);
  IIRState_Double* s = nullptr;
  EXPECT_NE(IIRInit(&s, taps.data(), 0, nullptr), 0);
  EXPECT_NE(IIRInit(&s, std::vector<double>(68, 1.0).data(), 33, nullptr), 0);
  EXPECT_NE(IIRInit(&s, nullptr, 2, nullptr), 0);
  EXPECT_NE(IIRInit_BiQuad(&s, taps.data(), 0, nullptr), 0);
  EXPECT_NE(IIRInit(nullptr, taps.data(), 2, nullptr), 0);
  std::vector<double> zeroA0 = taps;
  zeroA0[3] = 0.0;
  EXPECT_NE(IIRInit(&s, zeroA0.data(), 2, nullptr), 0);
  EXPECT_EQ(s, nullptr);
  // A second section with a0 = 0 fails the whole cascade.
  std::vector<double> two = taps;
  two.insert(two.end(), zeroA0.begin(), zeroA0.end());
  EXPECT_NE(IIRInit_BiQuad(&s, two.data(), 2, nullptr), 0);
  EXPECT_EQ(s, nullptr);

  // Rejected taps leave the running filter untouched.
  Iir f, g;
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 1, nullptr), 0);
  ASSERT_EQ(IIRInit_BiQuad(&g.s, taps.data(), 1, nullptr), 0);
  EXPECT_NE(IIRSetTaps(f.s, zeroA0.data()), 0);
  EXPECT_NE(IIRSetTaps(f.s, nullptr), 0);
  const std::vector<double> x = NoiseD(64, 7);
  EXPECT_EQ(f.Run(x), g.Run(x));

  EXPECT_EQ(IIR(0.75, nullptr), 0.75);
  double buf[4] = {};
  EXPECT_NE(IIR(4, buf, buf, nullptr), 0);
  EXPECT_NE(IIR(4, nullptr, buf, f.s), 0);
  EXPECT_EQ(IIR(0, nullptr, nullptr, f.s), 0);
  EXPECT_NE(IIRSetTaps(nullptr, taps.data()), 0);
  EXPECT_NE(IIRSetDlyLine(nullptr, nullptr), 0);
  EXPECT_NE(IIRGetDlyLine(f.s, nullptr), 0);
  EXPECT_EQ(IIRGetDlyLineLength(nullptr), 0);
  IIRFree(nullptr);
}

TEST(IIR, ProcessingNeverAllocates) {
  const std::vector<double> taps = ThreeSections();
  Iir f;
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 3, nullptr), 0);
  std::vector<double> x = NoiseD(512, 8), y(512);
  EXPECT_NO_ALLOCATION(IIR(x.size(), x.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(IIR(0.5, f.s));
  EXPECT_NO_ALLOCATION(IIRSetTaps(f.s, taps.data()));
  EXPECT_NO_ALLOCATION(IIRSetDlyLine(f.s, nullptr));
}

// ---- FIR ----

struct Fir {
  FIRState_Float* s = nullptr;
  ~Fir() { FIRFree(s); }
  std::vector<float> Run(const std::vector<float>& x) {
    std::vector<float> y(x.size());
    EXPECT_EQ(FIR(x.size(), x.data(), y.data(), s), 0);
    return y;
  }
};

std::vector<double> Convolve(const std::vector<float>& h, const std::vector<float>& x) {
  std::vector<double> y(x.size(), 0.0);
  for (std::size_t n = 0; n < x.size(); ++n) {
    for (std::size_t k = 0; k < h.size() && k <= n; ++k) y[n] += static_cast<double>(h[k]) * x[n - k];
  }
  return y;
}

TEST(FIR, ImpulseGivesTapsAndMatchesConvolution) {
  for (int numTaps : {1, 5, 33, 300}) {
    SCOPED_TRACE(testing::Message() << numTaps << " taps");
    const std::vector<float> h = vextest::Noise(numTaps, 10 + numTaps);
    Fir f;
    ASSERT_EQ(FIRInit(&f.s, h.data(), numTaps), 0);
    std::vector<float> impulse(numTaps + 40, 0.0f);
    impulse[3] = 1.0f;
    const std::vector<float> y = f.Run(impulse);
    for (std::size_t i = 0; i < y.size(); ++i) {
      const float expect = i >= 3 && i - 3 < h.size() ? h[i - 3] : 0.0f;
      ASSERT_EQ(y[i], expect) << i;
    }
    const std::vector<float> x = vextest::Noise(3000, 3);
    const std::vector<double> ref = Convolve(h, x);
    ASSERT_EQ(FIRReset(f.s), 0);
    const std::vector<float> got = f.Run(x);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(got[i], ref[i], 1e-6 * (numTaps + 1)) << i;
  }
}

TEST(FIR, BlockSplitsAndInPlaceAgree) {
  const std::vector<float> h = vextest::Noise(47, 20);
  const std::vector<float> x = vextest::Noise(3000, 21);
  Fir whole;
  ASSERT_EQ(FIRInit(&whole.s, h.data(), 47), 0);
  const std::vector<float> expect = whole.Run(x);
  for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
    Fir f;
    ASSERT_EQ(FIRInit(&f.s, h.data(), 47), 0);
    std::vector<float> y = x;
    for (std::size_t pos = 0; pos < y.size(); pos += split) {
      const std::size_t count = std::min(split, y.size() - pos);
      ASSERT_EQ(FIR(count, y.data() + pos, y.data() + pos, f.s), 0);
    }
    EXPECT_EQ(y, expect) << "split " << split;
  }
}

TEST(FIR, SetTapsKeepsHistoryAndResetClears) {
  const std::vector<float> h1 = vextest::Noise(20, 30);
  const std::vector<float> h2 = vextest::Noise(20, 31);
  const std::vector<float> x = vextest::Noise(600, 32);
  Fir f;
  ASSERT_EQ(FIRInit(&f.s, h1.data(), 20), 0);
  std::vector<float> y(600);
  ASSERT_EQ(FIR(300, x.data(), y.data(), f.s), 0);
  ASSERT_EQ(FIRSetTaps(f.s, h2.data()), 0);
  ASSERT_EQ(FIR(300, x.data() + 300, y.data() + 300, f.s), 0);
  // After the switch the new taps see the old inputs as history.
  const std::vector<double> ref1 = Convolve(h1, x), ref2 = Convolve(h2, x);
  for (std::size_t i = 0; i < 600; ++i) ASSERT_NEAR(y[i], i < 300 ? ref1[i] : ref2[i], 1e-5) << i;

  ASSERT_EQ(FIRReset(f.s), 0);
  Fir fresh;
  ASSERT_EQ(FIRInit(&fresh.s, h2.data(), 20), 0);
  EXPECT_EQ(f.Run(x), fresh.Run(x));
}

TEST(FIR, BadArgumentsAndNoAllocation) {
  const float h[3] = {0.25f, 0.5f, 0.25f};
  FIRState_Float* s = nullptr;
  EXPECT_NE(FIRInit(&s, h, 0), 0);
  EXPECT_NE(FIRInit(&s, nullptr, 3), 0);
  EXPECT_NE(FIRInit(nullptr, h, 3), 0);
  EXPECT_EQ(s, nullptr);
  float buf[8] = {};
  EXPECT_NE(FIR(8, buf, buf, nullptr), 0);
  EXPECT_NE(FIRSetTaps(nullptr, h), 0);
  EXPECT_NE(FIRReset(nullptr), 0);
  FIRFree(nullptr);

  Fir f;
  ASSERT_EQ(FIRInit(&f.s, h, 3), 0);
  EXPECT_NE(FIR(8, nullptr, buf, f.s), 0);
  EXPECT_NE(FIRSetTaps(f.s, nullptr), 0);
  std::vector<float> x = vextest::Noise(1000, 40), y(1000);
  EXPECT_NO_ALLOCATION(FIR(x.size(), x.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(FIR(x.size(), y.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(FIRSetTaps(f.s, h));
  EXPECT_NO_ALLOCATION(FIRReset(f.s));
}

// ---- Windowed-sinc design ----

template <typename T>
double Magnitude(const std::vector<T>& h, double f) {
  std::complex<long double> acc = 0;
  for (std::size_t i = 0; i < h.size(); ++i) {
    const long double angle = -2.0L * kPi * f * static_cast<long double>(i);
    acc += static_cast<long double>(h[i]) * std::complex<long double>(std::cos(angle), std::sin(angle));
  }
  return static_cast<double>(std::abs(acc));
}

TEST(SincDesign, UnityDcGainAndSymmetryForEveryWindow) {
  for (WindowType window : {kWindowRectangular, kWindowHann, kWindowHamming, kWindowBlackman, kWindowKaiser}) {
    for (int numTaps : {1, 2, 3, 31, 64, 101}) {
      SCOPED_TRACE(testing::Message() << "window " << window << " taps " << numTaps);
      std::vector<double> h(numTaps);
      std::vector<float> hf(numTaps);
      ASSERT_EQ(DesignLowpassSinc(h.data(), numTaps, 0.2, window, window == kWindowKaiser ? 6.0 : 0.0), 0);
      ASSERT_EQ(DesignLowpassSinc(hf.data(), numTaps, 0.2, window, window == kWindowKaiser ? 6.0 : 0.0), 0);
      long double sum = 0, sumf = 0;
      for (int i = 0; i < numTaps; ++i) {
        sum += h[i];
        sumf += hf[i];
        ASSERT_EQ(h[i], h[numTaps - 1 - i]);
        ASSERT_EQ(hf[i], hf[numTaps - 1 - i]);
        ASSERT_NEAR(hf[i], h[i], 1e-6);
      }
      EXPECT_NEAR(static_cast<double>(sum), 1.0, 1e-14);
      EXPECT_NEAR(static_cast<double>(sumf), 1.0, 1e-6);
    }
  }
}

TEST(SincDesign, KaiserBeta8StopbandBelowMinus60dB) {
  const double cutoff = 0.1;
  std::vector<double> h(101);
  ASSERT_EQ(DesignLowpassSinc(h.data(), 101, cutoff, kWindowKaiser, 8.0), 0);
  for (double f = 2.0 * cutoff; f <= 0.5; f += 0.001) {
    ASSERT_LT(20.0 * std::log10(Magnitude(h, f)), -60.0) << "f " << f;
  }
  for (double f = 0.0; f <= 0.05; f += 0.001) ASSERT_NEAR(Magnitude(h, f), 1.0, 1e-3) << "f " << f;
  // Half amplitude at the cut-off, the mark of a windowed sinc.
  EXPECT_NEAR(Magnitude(h, cutoff), 0.5, 0.01);
}

TEST(SincDesign, RectangularIsTheTruncatedIdealResponse) {
  const double cutoff = 0.15;
  std::vector<double> h(21);
  ASSERT_EQ(DesignLowpassSinc(h.data(), 21, cutoff, kWindowRectangular), 0);
  // Ratios to the centre tap are those of sin(2 pi fc t) / (pi t) to 2 fc.
  for (int i = 0; i < 21; ++i) {
    const double t = i - 10.0;
    const double ideal = t == 0 ? 2 * cutoff : std::sin(2 * kPi * cutoff * t) / (kPi * t);
    EXPECT_NEAR(h[i] / h[10], ideal / (2 * cutoff), 1e-12) << i;
  }
}

TEST(SincDesign, BadArgumentsWriteNothing) {
  std::vector<double> h(16, 9.0);
  std::vector<float> hf(16, 9.0f);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.0, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.5, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, -0.1, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, std::nan(""), kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 0, 0.1, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.1, static_cast<WindowType>(17)), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.1, kWindowKaiser, -1.0), 0);
  EXPECT_NE(DesignLowpassSinc(static_cast<double*>(nullptr), 16, 0.1, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(hf.data(), 16, 0.7, kWindowHann), 0);
  for (double v : h) EXPECT_EQ(v, 9.0);
  for (float v : hf) EXPECT_EQ(v, 9.0f);
  // Design is pure: no heap.
  EXPECT_NO_ALLOCATION(DesignLowpassSinc(h.data(), 16, 0.1, kWindowKaiser, 8.0));
}

}  // namespace
