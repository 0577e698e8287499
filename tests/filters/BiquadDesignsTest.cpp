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
using Response = Complex (Prototype::*)(double) const;

// Analog coefficients b0 b1 b2 a0 a1 a2 in ascending powers of s at s = i W.
Complex Analog(const Coefficients& c, double f) {
  const Complex s(0.0, std::tan(kPi * f / kFs));
  return (c[0] + c[1] * s + c[2] * s * s) / (c[3] + c[4] * s + c[5] * s * s);
}

// Magnitude and phase agree from 10 Hz to just below Nyquist.
void ExpectSameResponse(const std::function<Complex(double)>& actual, const std::function<Complex(double)>& expected,
                        const char* what) {
  for (double f = 10.0; f < 23990.0; f *= 1.17) {
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

// Every design in one signature: (c, fs, f, gain, q); designs without a gain
// ignore it.
using Design = std::function<void(double*, double, double, double, double)>;
struct Named {
  const char* name;
  Design digital, analog;
  Response expected;
};
const std::vector<Named>& Designs() {
  static const std::vector<Named> designs = {
      {"peak", dsp::PeakingEQCoefficients, dsp::AnalogPeakingEQCoefficients, &Prototype::Peak},
      {"lowshelf", dsp::LowShelfCoefficients, dsp::AnalogLowShelfCoefficients, &Prototype::LowShelf},
      {"highshelf", dsp::HighShelfCoefficients, dsp::AnalogHighShelfCoefficients, &Prototype::HighShelf},
      {"lowpass", [](double* c, double fs, double f, double, double q) { dsp::LowpassCoefficients(c, fs, f, q); },
       [](double* c, double fs, double f, double, double q) { dsp::AnalogLowpassCoefficients(c, fs, f, q); },
       &Prototype::Lowpass},
      {"highpass", [](double* c, double fs, double f, double, double q) { dsp::HighpassCoefficients(c, fs, f, q); },
       [](double* c, double fs, double f, double, double q) { dsp::AnalogHighpassCoefficients(c, fs, f, q); },
       &Prototype::Highpass},
      {"bandpass", [](double* c, double fs, double f, double, double q) { dsp::BandpassCoefficients(c, fs, f, q); },
       nullptr, &Prototype::Bandpass},
      {"dc", [](double* c, double fs, double f, double, double) { dsp::DCBlockingCoefficients(c, fs, f); }, nullptr,
       &Prototype::DcBlocker},
  };
  return designs;
}

// The digital designs against the textbook prototypes under the bilinear
// mapping; where an analog form exists it is the prototype itself, and the
// library's bilinear transform carries it onto the digital design.
TEST(BiquadDesigns, DesignsMatchTheirWarpedAnalogPrototypes) {
  for (const Case& k : kCases) {
    const Prototype p{k.f0, k.q, k.gainDb};
    for (const Named& d : Designs()) {
      SCOPED_TRACE(testing::Message() << d.name << " at " << k.f0 << " Hz");
      Coefficients digital, analog, mapped;
      d.digital(digital.data(), kFs, k.f0, k.gainDb, k.q);
      EXPECT_EQ(digital[3], 1.0);
      ExpectSameResponse([&](double f) { return Digital(digital.data(), f); },
                         [&](double f) { return (p.*d.expected)(f); }, "digital");
      if (!d.analog) continue;
      d.analog(analog.data(), kFs, k.f0, k.gainDb, k.q);
      ExpectSameResponse([&](double f) { return Analog(analog, f); }, [&](double f) { return (p.*d.expected)(f); },
                         "analog");
      dsp::BilinearTransformCoefficients(analog.data(), mapped.data());
      for (int i = 0; i < 6; ++i) EXPECT_NEAR(mapped[i], digital[i], 1e-9 * std::max(1.0, std::fabs(digital[i]))) << i;
    }
  }
}

TEST(BiquadDesigns, PoleZeroFormsPlaceTheirRoots) {
  Coefficients c;
  dsp::GeneralCoefficients(c.data(), 0.9, -0.3, 0.5, -0.8, 2.5);
  const auto poly = [](const double* p, Complex z) { return p[0] + p[1] / z + p[2] / (z * z); };
  for (double zero : {0.9, -0.3}) EXPECT_NEAR(std::abs(poly(c.data(), zero)), 0.0, 1e-12);
  for (double pole : {0.5, -0.8}) EXPECT_NEAR(std::abs(poly(c.data() + 3, pole)), 0.0, 1e-12);
  EXPECT_EQ(c[0], 2.5);
  EXPECT_EQ(c[3], 1.0);
  const Complex zero = std::polar(1.0, 0.7), pole = std::polar(0.95, 0.7);
  dsp::GeneralCoefficients(c.data(), zero, pole, 0.5);
  for (Complex root : {zero, std::conj(zero)}) EXPECT_NEAR(std::abs(poly(c.data(), root)), 0.0, 1e-12);
  for (Complex root : {pole, std::conj(pole)}) EXPECT_NEAR(std::abs(poly(c.data() + 3, root)), 0.0, 1e-12);
  // A zero on the unit circle is a notch at its angle.
  EXPECT_NEAR(std::abs(Digital(c.data(), 0.7 * kFs / (2 * kPi))), 0.0, 1e-12);
}

// Beyond Nyquist a design gives the gain it has below its corner; arguments
// that describe no filter give the identity; Nyquist itself stays finite.
TEST(BiquadDesigns, OutOfRangeArgumentsGiveConstantsAndNyquistStaysFinite) {
  const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
  const Coefficients identity = {1, 0, 0, 1, 0, 0}, silence = {0, 0, 0, 1, 0, 0};
  const Coefficients lowShelfGain = {std::pow(10.0, -6.0 / 20.0), 0, 0, 1, 0, 0};
  const auto& d = Designs();  // peak, lowshelf, highshelf, lowpass, highpass, bandpass, dc
  struct Constant {
    std::size_t design;
    double fs, f, gainDb, q;
    const Coefficients& expected;
  };
  const Constant cases[] = {
      {0, kFs, 30000, 6, 1, identity},      {3, kFs, 24000.1, 0, 1, identity}, {4, kFs, 30000, 0, 1, silence},
      {4, kFs, nan, 0, 1, silence},         {5, kFs, 30000, 0, 1, silence},    {6, kFs, kFs / 2, 0, 1, silence},
      {1, kFs, 30000, -6, 1, lowShelfGain}, {2, kFs, 30000, -6, 1, identity},  {0, kFs, 1000, nan, 1, identity},
      {3, kFs, -5, 0, 1, identity},         {4, -kFs, 1000, 0, 1, identity},   {4, nan, 1000, 0, 1, identity},
  };
  Coefficients c;
  for (const Constant& k : cases) {
    d[k.design].digital(c.data(), k.fs, k.f, k.gainDb, k.q);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(c[i], k.expected[i], 1e-15) << d[k.design].name << " at " << k.f;
  }
  for (double q : {0.0, -1.0, nan, inf}) {
    for (std::size_t i : {0, 1, 4}) {
      d[i].digital(c.data(), kFs, 1000.0, 6.0, q);
      EXPECT_EQ(c, identity) << d[i].name << " q " << q;
    }
  }
  dsp::AnalogHighpassCoefficients(c.data(), kFs, 30000.0, 1.0);
  EXPECT_EQ(c, silence);
  for (std::size_t i : {0, 3}) {
    d[i].digital(c.data(), kFs, kFs / 2, 12.0, 0.7071);
    for (double v : c) EXPECT_TRUE(std::isfinite(v)) << d[i].name;
    EXPECT_NEAR(std::abs(Digital(c.data(), 1000.0)), 1.0, 1e-9) << d[i].name;
  }
}

}  // namespace
