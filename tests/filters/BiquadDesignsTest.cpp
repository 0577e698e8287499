#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <vector>

#include "filters/Prototypes.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"

namespace {

using vextest::Complex;
using vextest::Digital;
using vextest::kFs;
using vextest::kPi;
using vextest::Prototype;
using Coefficients = std::array<double, 6>;

// Analog coefficients b0 b1 b2 a0 a1 a2 in ascending powers of s at s = i W.
Complex Analog(const Coefficients& c, double f) {
  const Complex s(0.0, std::tan(kPi * f / kFs));
  return (c[0] + c[1] * s + c[2] * s * s) / (c[3] + c[4] * s + c[5] * s * s);
}

std::vector<double> TestFrequencies() {
  std::vector<double> f;
  for (double x = 10.0; x < 23990.0; x *= 1.17) f.push_back(x);
  return f;
}

double Db(Complex h) { return 20.0 * std::log10(std::abs(h)); }

void ExpectSameResponse(const std::function<Complex(double)>& actual, const std::function<Complex(double)>& expected,
                        const char* what) {
  for (double f : TestFrequencies()) {
    const Complex a = actual(f), e = expected(f);
    EXPECT_NEAR(std::abs(a), std::abs(e), 1e-9 * std::max(1.0, std::abs(e))) << what << " at " << f << " Hz";
    if (std::abs(e) > 1e-6) {
      EXPECT_NEAR(std::arg(a / e), 0.0, 1e-8) << what << " phase at " << f << " Hz";
    }
  }
}

struct Case {
  double f0, q, gainDb;
};
const Case kCases[] = {{30.0, 0.7071, 12.0}, {1000.0, 2.0, -9.0}, {5000.0, 0.4, 3.0}, {18000.0, 8.0, -24.0}};

TEST(BiquadDesigns, DigitalDesignsMatchTheirWarpedAnalogPrototypes) {
  for (const Case& k : kCases) {
    const Prototype p{k.f0, k.q, k.gainDb};
    Coefficients c;
    SCOPED_TRACE(k.f0);
    dsp::PeakingEQCoefficients(c.data(), kFs, k.f0, k.gainDb, k.q);
    EXPECT_EQ(c[3], 1.0);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.Peak(f); }, "peak");
    dsp::LowpassCoefficients(c.data(), kFs, k.f0, k.q);
    EXPECT_EQ(c[3], 1.0);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.Lowpass(f); },
                       "lowpass");
    dsp::HighpassCoefficients(c.data(), kFs, k.f0, k.q);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.Highpass(f); },
                       "highpass");
    dsp::BandpassCoefficients(c.data(), kFs, k.f0, k.q);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.Bandpass(f); },
                       "bandpass");
    dsp::LowShelfCoefficients(c.data(), kFs, k.f0, k.gainDb, k.q);
    EXPECT_EQ(c[3], 1.0);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.LowShelf(f); },
                       "lowshelf");
    dsp::HighShelfCoefficients(c.data(), kFs, k.f0, k.gainDb, k.q);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.HighShelf(f); },
                       "highshelf");
    dsp::DCBlockingCoefficients(c.data(), kFs, k.f0);
    ExpectSameResponse([&](double f) { return Digital(c.data(), f); }, [&](double f) { return p.DcBlocker(f); }, "dc");
  }
}

TEST(BiquadDesigns, AnalogFormsAreThePrototypesAndTransformOntoTheDigitalDesigns) {
  using Design4 = void (*)(double*, double, double, double, double);
  using Design3 = void (*)(double*, double, double, double);
  struct WithGain {
    Design4 analog, digital;
    Complex (Prototype::*expected)(double) const;
  };
  const WithGain withGain[] = {{dsp::AnalogPeakingEQCoefficients, dsp::PeakingEQCoefficients, &Prototype::Peak},
                               {dsp::AnalogLowShelfCoefficients, dsp::LowShelfCoefficients, &Prototype::LowShelf},
                               {dsp::AnalogHighShelfCoefficients, dsp::HighShelfCoefficients, &Prototype::HighShelf}};
  struct NoGain {
    Design3 analog, digital;
    Complex (Prototype::*expected)(double) const;
  };
  const NoGain noGain[] = {{dsp::AnalogLowpassCoefficients, dsp::LowpassCoefficients, &Prototype::Lowpass},
                           {dsp::AnalogHighpassCoefficients, dsp::HighpassCoefficients, &Prototype::Highpass}};
  for (const Case& k : kCases) {
    const Prototype p{k.f0, k.q, k.gainDb};
    Coefficients analog, digital, mapped;
    const auto check = [&](Complex (Prototype::*expected)(double) const, const char* what) {
      ExpectSameResponse([&](double f) { return Analog(analog, f); }, [&](double f) { return (p.*expected)(f); }, what);
      dsp::BilinearTransformCoefficients(analog.data(), mapped.data());
      for (int i = 0; i < 6; ++i) EXPECT_NEAR(mapped[i], digital[i], 1e-9 * std::max(1.0, std::fabs(digital[i]))) << i;
    };
    for (const WithGain& d : withGain) {
      d.analog(analog.data(), kFs, k.f0, k.gainDb, k.q);
      d.digital(digital.data(), kFs, k.f0, k.gainDb, k.q);
      check(d.expected, "analog with gain");
    }
    for (const NoGain& d : noGain) {
      d.analog(analog.data(), kFs, k.f0, k.q);
      d.digital(digital.data(), kFs, k.f0, k.q);
      check(d.expected, "analog");
    }
  }
}

TEST(BiquadDesigns, ClosedFormGainsAtDcCornerAndNyquist) {
  Coefficients c;
  dsp::PeakingEQCoefficients(c.data(), kFs, 2000.0, 7.5, 1.3);
  EXPECT_NEAR(Db(Digital(c.data(), 2000.0)), 7.5, 1e-9);
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.0)), 1.0, 1e-12);
  EXPECT_NEAR(std::abs(Digital(c.data(), kFs / 2)), 1.0, 1e-9);
  dsp::LowpassCoefficients(c.data(), kFs, 2000.0, 3.0);
  EXPECT_NEAR(std::abs(Digital(c.data(), 2000.0)), 3.0, 1e-9);
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.0)), 1.0, 1e-12);
  EXPECT_NEAR(std::abs(Digital(c.data(), kFs / 2)), 0.0, 1e-12);
  dsp::HighpassCoefficients(c.data(), kFs, 2000.0, 0.5);
  EXPECT_NEAR(std::abs(Digital(c.data(), 2000.0)), 0.5, 1e-9);
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.0)), 0.0, 1e-12);
  dsp::LowShelfCoefficients(c.data(), kFs, 300.0, -12.0, 0.7071);
  EXPECT_NEAR(Db(Digital(c.data(), 0.0)), -12.0, 1e-9);
  EXPECT_NEAR(Db(Digital(c.data(), 300.0)), -6.0, 1e-9);
  EXPECT_NEAR(Db(Digital(c.data(), kFs / 2)), 0.0, 1e-9);
  dsp::HighShelfCoefficients(c.data(), kFs, 6000.0, 5.0, 0.7071);
  EXPECT_NEAR(Db(Digital(c.data(), kFs / 2)), 5.0, 1e-9);
  EXPECT_NEAR(Db(Digital(c.data(), 6000.0)), 2.5, 1e-9);
  dsp::DCBlockingCoefficients(c.data(), kFs, 20.0);
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.0)), 0.0, 1e-15);
  EXPECT_NEAR(std::abs(Digital(c.data(), 20.0)), std::sqrt(0.5), 1e-9);
  dsp::BandpassCoefficients(c.data(), kFs, 440.0, 4.0);
  EXPECT_NEAR(std::abs(Digital(c.data(), 440.0)), 1.0, 1e-12);
}

TEST(BiquadDesigns, PoleZeroFormsPlaceTheirRoots) {
  Coefficients c;
  dsp::GeneralCoefficients(c.data(), 0.9, -0.3, 0.5, -0.8, 2.5);
  const auto poly = [](const double* p, Complex z) { return p[0] + p[1] / z + p[2] / (z * z); };
  EXPECT_NEAR(std::abs(poly(c.data(), 0.9)), 0.0, 1e-12);
  EXPECT_NEAR(std::abs(poly(c.data(), -0.3)), 0.0, 1e-12);
  EXPECT_NEAR(std::abs(poly(c.data() + 3, 0.5)), 0.0, 1e-12);
  EXPECT_NEAR(std::abs(poly(c.data() + 3, -0.8)), 0.0, 1e-12);
  EXPECT_EQ(c[0], 2.5);
  EXPECT_EQ(c[3], 1.0);
  const Complex zero = std::polar(1.0, 0.7), pole = std::polar(0.95, 0.7);
  dsp::GeneralCoefficients(c.data(), zero, pole, 0.5);
  for (Complex root : {zero, std::conj(zero)}) EXPECT_NEAR(std::abs(poly(c.data(), root)), 0.0, 1e-12);
  for (Complex root : {pole, std::conj(pole)}) EXPECT_NEAR(std::abs(poly(c.data() + 3, root)), 0.0, 1e-12);
  // A zero on the unit circle is a notch at its angle.
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.7 * kFs / (2 * kPi))), 0.0, 1e-12);
}

TEST(BiquadDesigns, BeyondNyquistGivesTheGainBelowTheCornerAndBadArgumentsTheIdentity) {
  const Coefficients identity = {1, 0, 0, 1, 0, 0}, silence = {0, 0, 0, 1, 0, 0};
  Coefficients c;
  dsp::PeakingEQCoefficients(c.data(), kFs, 30000.0, 6.0, 1.0);
  EXPECT_EQ(c, identity);
  dsp::LowpassCoefficients(c.data(), kFs, 24000.1, 1.0);
  EXPECT_EQ(c, identity);
  dsp::HighpassCoefficients(c.data(), kFs, 30000.0, 1.0);
  EXPECT_EQ(c, silence);
  dsp::HighpassCoefficients(c.data(), kFs, std::nan(""), 1.0);
  EXPECT_EQ(c, silence);
  dsp::BandpassCoefficients(c.data(), kFs, 30000.0, 1.0);
  EXPECT_EQ(c, silence);
  dsp::DCBlockingCoefficients(c.data(), kFs, kFs / 2);
  EXPECT_EQ(c, silence);
  dsp::LowShelfCoefficients(c.data(), kFs, 30000.0, -6.0, 1.0);
  EXPECT_NEAR(c[0], std::pow(10.0, -6.0 / 20.0), 1e-15);
  EXPECT_EQ(c[3], 1.0);
  dsp::HighShelfCoefficients(c.data(), kFs, 30000.0, -6.0, 1.0);
  EXPECT_EQ(c, identity);
  dsp::AnalogHighpassCoefficients(c.data(), kFs, 30000.0, 1.0);
  EXPECT_EQ(c, silence);

  const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
  const double badQ[] = {0.0, -1.0, nan, inf};
  for (double q : badQ) {
    dsp::PeakingEQCoefficients(c.data(), kFs, 1000.0, 6.0, q);
    EXPECT_EQ(c, identity) << q;
    dsp::HighpassCoefficients(c.data(), kFs, 1000.0, q);
    EXPECT_EQ(c, identity) << q;
    dsp::LowShelfCoefficients(c.data(), kFs, 1000.0, 6.0, q);
    EXPECT_EQ(c, identity) << q;
  }
  dsp::PeakingEQCoefficients(c.data(), kFs, 1000.0, nan, 1.0);
  EXPECT_EQ(c, identity);
  dsp::LowpassCoefficients(c.data(), kFs, -5.0, 1.0);
  EXPECT_EQ(c, identity);
  dsp::HighpassCoefficients(c.data(), -kFs, 1000.0, 1.0);
  EXPECT_EQ(c, identity);
  dsp::HighpassCoefficients(c.data(), std::nan(""), 1000.0, 1.0);
  EXPECT_EQ(c, identity);
}

TEST(BiquadDesigns, NyquistItselfStaysFiniteAndNeutral) {
  Coefficients c;
  dsp::PeakingEQCoefficients(c.data(), kFs, kFs / 2, 12.0, 0.7071);
  for (double v : c) EXPECT_TRUE(std::isfinite(v));
  EXPECT_NEAR(std::abs(Digital(c.data(), 1000.0)), 1.0, 1e-9);
  dsp::LowpassCoefficients(c.data(), kFs, kFs / 2, 0.7071);
  for (double v : c) EXPECT_TRUE(std::isfinite(v));
  EXPECT_NEAR(std::abs(Digital(c.data(), 1000.0)), 1.0, 1e-9);
}

}  // namespace
