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

// RBJ cookbook low-pass (dB = nan) or peaking section, left unnormalised
// (a0 != 1) on purpose.
std::vector<double> Cookbook(double f0, double q, double dB = std::nan("")) {
  const double w0 = 2.0 * kPi * f0 / 48000.0, alpha = std::sin(w0) / (2.0 * q), c = std::cos(w0);
  if (std::isnan(dB)) return {(1 - c) / 2, 1 - c, (1 - c) / 2, 1 + alpha, -2 * c, 1 - alpha};
  const double a = std::pow(10.0, dB / 40.0);
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

// Multiplies biquad sections out into one direct form: b coefficients, then a.
std::vector<double> DirectForm(const std::vector<double>& sections) {
  std::vector<double> b = {1.0}, a = {1.0};
  for (std::size_t j = 0; j < sections.size(); j += 6) {
    for (std::vector<double>* p : {&b, &a}) {
      const double* q = &sections[j + (p == &a ? 3 : 0)];
      std::vector<double> r(p->size() + 2, 0.0);
      for (std::size_t i = 0; i < p->size(); ++i) {
        for (std::size_t k = 0; k < 3; ++k) r[i + k] += (*p)[i] * q[k];
      }
      *p = r;
    }
  }
  b.insert(b.end(), a.begin(), a.end());
  return b;
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
  for (const auto& section : {Cookbook(3000, 0.9), Cookbook(200, 4.0, 9.0), Cookbook(9000, 0.5, -6.0)}) {
    taps.insert(taps.end(), section.begin(), section.end());
  }
  return taps;
}

TEST(IIR, CascadeAndDirectFormMatchDifferenceEquations) {
  // 1 ... 9 sections: every grouping of sections the cascade uses.
  const std::vector<double> x = NoiseD(2000, 1);
  for (int sections = 1; sections <= 9; ++sections) {
    SCOPED_TRACE(testing::Message() << sections << " sections");
    std::vector<double> taps;
    for (int j = 0; j < sections; j += 3) {
      const std::vector<double> three = ThreeSections();
      taps.insert(taps.end(), three.begin(), three.begin() + 6 * std::min(3, sections - j));
    }
    std::vector<double> expect = x;
    for (int j = 0; j < sections; ++j) {
      expect = DifferenceEquation({taps.begin() + 6 * j, taps.begin() + 6 * j + 6}, expect);
    }
    Iir f;
    ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), sections, nullptr), 0);
    EXPECT_EQ(IIRGetDlyLineLength(f.s), 2 * sections);
    EXPECT_LT(MaxDiff(f.Run(x), expect), 1e-11);
    if (sections == 1 || sections == 3) {
      const std::vector<double> direct = DirectForm(taps);
      Iir d;
      ASSERT_EQ(IIRInit(&d.s, direct.data(), 2 * sections, nullptr), 0);
      EXPECT_EQ(IIRGetDlyLineLength(d.s), 2 * sections);
      const std::vector<double> y = d.Run(x);
      EXPECT_LT(MaxDiff(y, DifferenceEquation(direct, x)), sections == 1 ? 1e-14 : 1e-9);
      EXPECT_LT(MaxDiff(y, expect), 1e-9);
    }
  }
  // Order 32 with only b32 = 2 and a0 = 2: a pure delay of 32 samples.
  std::vector<double> taps(66, 0.0);
  taps[32] = 2.0;
  taps[33] = 2.0;
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

// One call, single samples and assorted splits, in place, must be bit-identical.
TEST(IIR, PerSampleBlockAndSplitBlocksAgree) {
  std::vector<double> cascadeTaps = ThreeSections();  // five sections: a group of four and one
  cascadeTaps.insert(cascadeTaps.end(), cascadeTaps.begin(), cascadeTaps.begin() + 12);
  std::vector<double> two = Cookbook(2000, 0.7), pk = Cookbook(400, 3.0, 6.0);
  two.insert(two.end(), pk.begin(), pk.end());
  const std::vector<double> directTaps = DirectForm(two);  // order 4
  const std::vector<double> x = NoiseD(1000, 4);
  for (int form = 0; form < 2; ++form) {
    SCOPED_TRACE(form == 0 ? "cascade" : "direct form");
    auto make = [&](Iir& f) {
      return form == 0 ? IIRInit_BiQuad(&f.s, cascadeTaps.data(), 5, nullptr)
                       : IIRInit(&f.s, directTaps.data(), 4, nullptr);
    };
    Iir whole, single;
    ASSERT_EQ(make(whole), 0);
    ASSERT_EQ(make(single), 0);
    const std::vector<double> expect = whole.Run(x);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(IIR(x[i], single.s), expect[i]);
    for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
      Iir f;
      ASSERT_EQ(make(f), 0);
      std::vector<double> y = x;
      for (std::size_t pos = 0; pos < y.size(); pos += split) {
        ASSERT_EQ(IIR(std::min(split, y.size() - pos), y.data() + pos, y.data() + pos, f.s), 0);
      }
      EXPECT_EQ(y, expect) << "split " << split;
    }
  }
}

TEST(IIR, SetTapsKeepsStateAndSetDlyLineRestoresOrClears) {
  const std::vector<double> taps = Cookbook(500, 4.0), other = Cookbook(700, 2.0, 6.0);
  const std::vector<double> loud = NoiseD(300, 5), silence(200, 0.0);
  Iir reference, f;
  ASSERT_EQ(IIRInit_BiQuad(&reference.s, taps.data(), 1, nullptr), 0);
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 1, nullptr), 0);
  reference.Run(loud);
  const std::vector<double> ringing = reference.Run(silence);
  ASSERT_GT(std::fabs(ringing[10]), 1e-3);
  // The same taps scaled by 3: the normalised filter and its state are
  // unchanged, so the ringing continues exactly.
  f.Run(loud);
  std::vector<double> scaled = taps;
  for (double& t : scaled) t *= 3.0;
  ASSERT_EQ(IIRSetTaps(f.s, scaled.data()), 0);
  EXPECT_LT(MaxDiff(f.Run(silence), ringing), 1e-12);

  // New taps continue from the old state; a null delay line clears it.
  Iir g, fresh;
  ASSERT_EQ(IIRInit_BiQuad(&g.s, taps.data(), 1, nullptr), 0);
  g.Run(loud);
  ASSERT_EQ(IIRSetTaps(g.s, other.data()), 0);
  EXPECT_GT(std::fabs(g.Run(silence)[0]), 1e-4);
  ASSERT_EQ(IIRSetDlyLine(g.s, nullptr), 0);
  for (double v : g.Run(silence)) ASSERT_EQ(v, 0.0);
  ASSERT_EQ(IIRInit_BiQuad(&fresh.s, other.data(), 1, nullptr), 0);
  EXPECT_EQ(g.Run(loud), fresh.Run(loud));

  // A saved delay line restores the state, in place or at init.
  const std::vector<double> three = ThreeSections();
  Iir h, k;
  ASSERT_EQ(IIRInit_BiQuad(&h.s, three.data(), 3, nullptr), 0);
  h.Run(loud);
  std::vector<double> saved(IIRGetDlyLineLength(h.s));
  ASSERT_EQ(IIRGetDlyLine(h.s, saved.data()), 0);
  const std::vector<double> first = h.Run(loud);
  ASSERT_EQ(IIRSetDlyLine(h.s, saved.data()), 0);
  EXPECT_EQ(h.Run(loud), first);
  ASSERT_EQ(IIRInit_BiQuad(&k.s, three.data(), 3, saved.data()), 0);
  EXPECT_EQ(k.Run(loud), first);
}

bool Subnormal(double v) { return std::fpclassify(v) == FP_SUBNORMAL; }

TEST(IIR, LongSilentTailStaysOutOfDenormals) {
  // A high-Q resonance decays through the whole double range within the run;
  // a one-pole direct form halves its state every sample.
  const std::vector<double> resonant = Cookbook(100, 2.0, 12.0);
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
  EXPECT_EQ(_mm_getcsr(), csr);  // the caller's floating-point mode is restored
}

TEST(IIR, BadArgumentsAreRejectedAndNothingAllocates) {
  const std::vector<double> taps = Cookbook(1000, 0.7);
  std::vector<double> zeroA0 = taps;
  zeroA0[3] = 0.0;
  std::vector<double> two = taps;  // a second section with a0 = 0 fails the whole cascade
  two.insert(two.end(), zeroA0.begin(), zeroA0.end());
  IIRState_Double* s = nullptr;
  EXPECT_NE(IIRInit(&s, taps.data(), 0, nullptr), 0);
  EXPECT_NE(IIRInit(&s, std::vector<double>(68, 1.0).data(), 33, nullptr), 0);
  EXPECT_NE(IIRInit(&s, zeroA0.data(), 2, nullptr), 0);
  EXPECT_NE(IIRInit_BiQuad(&s, two.data(), 2, nullptr), 0);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(IIR(0.75, nullptr), 0.75);

  // Rejected taps leave the running filter untouched.
  Iir f, g;
  ASSERT_EQ(IIRInit_BiQuad(&f.s, taps.data(), 1, nullptr), 0);
  ASSERT_EQ(IIRInit_BiQuad(&g.s, taps.data(), 1, nullptr), 0);
  EXPECT_NE(IIRSetTaps(f.s, zeroA0.data()), 0);
  EXPECT_NE(IIRSetTaps(f.s, nullptr), 0);
  const std::vector<double> x = NoiseD(512, 7);
  EXPECT_EQ(f.Run(x), g.Run(x));

  std::vector<double> y(512);
  EXPECT_NO_ALLOCATION(IIR(x.size(), x.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(IIR(0.5, f.s));
  EXPECT_NO_ALLOCATION(IIRSetTaps(f.s, taps.data()));
  EXPECT_NO_ALLOCATION(IIRSetDlyLine(f.s, nullptr));
}

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

// Impulse response, convolution reference, and in-place split blocks that
// must be bit-identical to one call.
TEST(FIR, MatchesConvolutionInAnyBlockSplit) {
  const std::vector<float> x = vextest::Noise(3000, 3);
  for (int numTaps : {1, 5, 47, 300}) {
    SCOPED_TRACE(testing::Message() << numTaps << " taps");
    const std::vector<float> h = vextest::Noise(numTaps, 10 + numTaps);
    Fir f;
    ASSERT_EQ(FIRInit(&f.s, h.data(), numTaps), 0);
    std::vector<float> impulse(numTaps + 40, 0.0f);
    impulse[3] = 1.0f;
    const std::vector<float> y = f.Run(impulse);
    for (std::size_t i = 0; i < y.size(); ++i) ASSERT_EQ(y[i], i >= 3 && i - 3 < h.size() ? h[i - 3] : 0.0f) << i;
    const std::vector<double> ref = Convolve(h, x);
    ASSERT_EQ(FIRReset(f.s), 0);
    const std::vector<float> expect = f.Run(x);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(expect[i], ref[i], 1e-6 * (numTaps + 1)) << i;
    for (std::size_t split : {1u, 7u, 256u, 257u, 1000u}) {
      Fir g;
      ASSERT_EQ(FIRInit(&g.s, h.data(), numTaps), 0);
      std::vector<float> z = x;
      for (std::size_t pos = 0; pos < z.size(); pos += split) {
        ASSERT_EQ(FIR(std::min(split, z.size() - pos), z.data() + pos, z.data() + pos, g.s), 0);
      }
      EXPECT_EQ(z, expect) << "split " << split;
    }
  }
}

TEST(FIR, SetTapsKeepsHistoryResetClearsNothingAllocates) {
  const std::vector<float> h1 = vextest::Noise(20, 30), h2 = vextest::Noise(20, 31);
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

  FIRState_Float* none = nullptr;
  EXPECT_NE(FIRInit(&none, h1.data(), 0), 0);
  EXPECT_EQ(none, nullptr);
  EXPECT_NE(FIR(8, nullptr, y.data(), f.s), 0);
  EXPECT_NE(FIRSetTaps(f.s, nullptr), 0);
  EXPECT_NO_ALLOCATION(FIR(x.size(), x.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(FIR(y.size(), y.data(), y.data(), f.s));
  EXPECT_NO_ALLOCATION(FIRSetTaps(f.s, h1.data()));
  EXPECT_NO_ALLOCATION(FIRReset(f.s));
}

double Magnitude(const std::vector<double>& h, double f) {
  std::complex<long double> acc = 0;
  for (std::size_t i = 0; i < h.size(); ++i)
    acc += static_cast<long double>(h[i]) * std::polar(1.0L, -2.0L * kPi * f * i);
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
      long double sum = 0;
      for (int i = 0; i < numTaps; ++i) {
        sum += h[i];
        ASSERT_EQ(h[i], h[numTaps - 1 - i]);
        ASSERT_NEAR(hf[i], h[i], 1e-6);
      }
      EXPECT_NEAR(static_cast<double>(sum), 1.0, 1e-14);
    }
  }
}

TEST(SincDesign, KaiserStopbandAndRectangularClosedForm) {
  const double cutoff = 0.1;
  std::vector<double> h(101);
  ASSERT_EQ(DesignLowpassSinc(h.data(), 101, cutoff, kWindowKaiser, 8.0), 0);
  for (double f = 2.0 * cutoff; f <= 0.5; f += 0.001) {
    ASSERT_LT(20.0 * std::log10(Magnitude(h, f)), -60.0) << "f " << f;
  }
  for (double f = 0.0; f <= 0.05; f += 0.001) ASSERT_NEAR(Magnitude(h, f), 1.0, 1e-3) << "f " << f;
  EXPECT_NEAR(Magnitude(h, cutoff), 0.5, 0.01);  // half amplitude at the cut-off

  // Rectangular: ratios to the centre tap are those of sin(2 pi fc t) / (pi t) to 2 fc.
  std::vector<double> r(21);
  ASSERT_EQ(DesignLowpassSinc(r.data(), 21, 0.15, kWindowRectangular), 0);
  for (int i = 0; i < 21; ++i) {
    const double t = i - 10.0;
    const double ideal = t == 0 ? 0.3 : std::sin(2 * kPi * 0.15 * t) / (kPi * t);
    EXPECT_NEAR(r[i] / r[10], ideal / 0.3, 1e-12) << i;
  }
}

TEST(SincDesign, BadArgumentsWriteNothing) {
  std::vector<double> h(16, 9.0);
  std::vector<float> hf(16, 9.0f);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.0, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.5, kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, std::nan(""), kWindowHann), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.1, static_cast<WindowType>(17)), 0);
  EXPECT_NE(DesignLowpassSinc(h.data(), 16, 0.1, kWindowKaiser, -1.0), 0);
  EXPECT_NE(DesignLowpassSinc(hf.data(), 16, 0.7, kWindowHann), 0);
  for (double v : h) EXPECT_EQ(v, 9.0);
  for (float v : hf) EXPECT_EQ(v, 9.0f);
  EXPECT_NO_ALLOCATION(DesignLowpassSinc(h.data(), 16, 0.1, kWindowKaiser, 8.0));  // design is pure
}

}  // namespace
