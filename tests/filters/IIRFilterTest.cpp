#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <complex>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/filters/IIRFilter.h"

namespace {

using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

// Unnormalised sections (a0 != 1) on purpose: a resonant low-pass, a
// peaking cut and a high-pass, b0 b1 b2 a0 a1 a2 each.
const std::vector<double> kCascade = {0.02, 0.04, 0.02, 1.3, -2.1, 0.9, 1.4, -1.1, 0.6,
                                      1.6,  -1.1, 0.4,  0.8, -1.6, 0.8, 1.0, -1.5, 0.6};
// Order 3, b then a, a0 = 2: poles at 0.5, 0.5 +- 0.3i.
const std::vector<double> kOrder3 = {0.3, -0.2, 0.1, 0.05, 2.0, -3.0, 1.68, -0.34};

// Direct form I difference equation of each section in long double, the
// sections in series: a0 y[n] = sum b_k x[n-k] - sum_(k>=1) a_k y[n-k].
std::vector<double> Reference(const std::vector<double>& c, unsigned order, const std::vector<float>& in) {
  std::vector<long double> x(in.begin(), in.end());
  const unsigned stride = 2 * order + 2;
  for (std::size_t s = 0; s < c.size() / stride; ++s) {
    const double* b = &c[s * stride];
    const double* a = b + order + 1;
    std::vector<long double> y(x.size());
    for (std::size_t n = 0; n < x.size(); ++n) {
      long double acc = 0;
      for (unsigned k = 0; k <= order && k <= n; ++k) acc += b[k] * x[n - k] - (k > 0 ? a[k] * y[n - k] : 0);
      y[n] = acc / a[0];
    }
    x = y;
  }
  return std::vector<double>(x.begin(), x.end());
}

// Transfer function with the powers of z written out, section by section.
Complex Transfer(const std::vector<double>& c, unsigned order, double normalisedFrequency) {
  const unsigned stride = 2 * order + 2;
  Complex h = 1.0;
  for (std::size_t s = 0; s < c.size() / stride; ++s) {
    Complex num = 0.0, den = 0.0;
    for (unsigned k = 0; k <= order; ++k) {
      const Complex zk = std::exp(Complex(0.0, -2.0 * kPi * normalisedFrequency * k));
      num += c[s * stride + k] * zk;
      den += c[s * stride + order + 1 + k] * zk;
    }
    h *= num / den;
  }
  return h;
}

std::vector<float> Filter(dsp::IIRFilter& filter, const std::vector<float>& in, std::size_t block) {
  std::vector<float> out(in.size());
  for (std::size_t i = 0; i < in.size(); i += block) {
    const auto n = static_cast<unsigned>(std::min(block, in.size() - i));
    filter.Process(n, in.data() + i, out.data() + i);
  }
  return out;
}

TEST(IIRFilter, UnsupportedShapesAndNullCoefficients) {
  const std::vector<float> x = vextest::Noise(300, 1);
  dsp::IIRFilter identity(2, nullptr, 3);
  EXPECT_TRUE(identity.IsInitialised());
  EXPECT_EQ(Filter(identity, x, 300), x);
  const std::vector<double> expected = {1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0};
  std::vector<double> stored;
  identity.GetCoefficients(stored);
  EXPECT_EQ(stored, expected);

  for (auto shape : {std::make_pair(3u, 2u), std::make_pair(0u, 1u)}) {
    dsp::IIRFilter none(shape.first, nullptr, shape.second);
    EXPECT_FALSE(none.IsInitialised());
    std::vector<float> out(x.size(), 7.0f);
    none.Process(static_cast<unsigned>(x.size()), x.data(), out.data());
    EXPECT_EQ(out, std::vector<float>(x.size(), 7.0f)) << "an uninitialised filter writes nothing";
    EXPECT_EQ(none.ProcessSingle(0.25f), 0.25f);
    none.SetCoefficients(kCascade.data(), false);
    EXPECT_EQ(none.ProcessSingle(0.5), 0.5);
    EXPECT_EQ(none.GetMagnitudeResponse(0.1f), 1.0);
  }
  EXPECT_EQ(dsp::IIRFilter(3, nullptr, 2).GetNumCoefficients(), 16u);
}

TEST(IIRFilter, CascadeAndDirectFormFollowTheirDifferenceEquations) {
  const std::vector<float> x = vextest::Noise(3000, 2);
  dsp::IIRFilter cascade(2, kCascade.data(), 3);
  dsp::IIRFilter direct(3, kOrder3.data(), 1);
  for (auto* f : {&cascade, &direct}) {
    const unsigned order = f->GetOrder();
    const std::vector<double>& c = order == 2 ? kCascade : kOrder3;
    const std::vector<double> ref = Reference(c, order, x);
    const std::vector<float> y = Filter(*f, x, 1000);
    double peak = 0;
    for (double v : ref) peak = std::max(peak, std::fabs(v));
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(y[i], ref[i], 1e-6 * peak) << "order " << order << " " << i;
  }
}

TEST(IIRFilter, BlocksAreChunkedWithContinuousState) {
  const std::vector<float> x = vextest::Noise(1000, 3);
  dsp::IIRFilter single(2, kCascade.data(), 3);
  std::vector<float> perSample(x.size());
  for (std::size_t i = 0; i < x.size(); ++i) perSample[i] = static_cast<float>(single.ProcessSingle(double{x[i]}));
  for (std::size_t block : {1, 7, 256, 257, 1000}) {
    dsp::IIRFilter f(2, kCascade.data(), 3);
    EXPECT_EQ(Filter(f, x, block), perSample) << "block " << block;
  }
  dsp::IIRFilter inPlace(2, kCascade.data(), 3);
  std::vector<float> data = x;
  inPlace.ProcessInPlace(static_cast<unsigned>(data.size()), data.data());
  EXPECT_EQ(data, perSample);
}

TEST(IIRFilter, NormalisesEachSectionByItsA0) {
  // Each section scaled by its own factor, so its a0 is no longer 1.
  std::vector<double> scaled = kCascade;
  for (std::size_t k = 0; k < scaled.size(); ++k) scaled[k] *= 2.0 + static_cast<double>(k / 6);
  dsp::IIRFilter a(2, kCascade.data(), 3), b(2, nullptr, 3);
  b.SetCoefficients(scaled.data(), false);
  const std::vector<float> x = vextest::Noise(500, 4);
  const std::vector<float> ya = Filter(a, x, 500), yb = Filter(b, x, 500);
  EXPECT_LT(vextest::MaxAbsDiff(ya, yb), 1e-6);
  for (int s = 0; s < 3; ++s) EXPECT_EQ(b.GetCoefficients()[s * 6 + 3], 1.0) << "section " << s;
  EXPECT_DOUBLE_EQ(b.GetCoefficients()[4], kCascade[4] / kCascade[3]);

  // a0 = 0 is stored as given; the recursion keeps what it ran before.
  std::vector<double> broken = kCascade;
  broken[6 + 3] = 0.0;
  dsp::IIRFilter c(2, kCascade.data(), 3), reference(2, kCascade.data(), 3);
  c.SetCoefficients(broken.data(), true);
  EXPECT_EQ(c.GetCoefficients()[6 + 4], broken[6 + 4]);
  EXPECT_EQ(c.GetCoefficients()[6 + 3], 0.0);
  EXPECT_EQ(Filter(c, x, 500), Filter(reference, x, 500));
  EXPECT_FALSE(dsp::IIRFilter(2, broken.data(), 3).IsInitialised());
}

TEST(IIRFilter, KeepStateRingsOnAndClearStateStartsFromRest) {
  const std::vector<float> loud = vextest::Noise(400, 5, 0.9);
  const std::vector<float> silence(64, 0.0f);
  std::vector<double> lowpass(kCascade.begin(), kCascade.begin() + 6);
  for (bool keep : {true, false}) {
    dsp::IIRFilter f(2, lowpass.data(), 1);
    Filter(f, loud, 400);
    f.SetCoefficients(lowpass.data(), keep);
    const std::vector<float> y = Filter(f, silence, 64);
    double energy = 0;
    for (float v : y) energy += v * v;
    if (keep) {
      EXPECT_GT(energy, 1e-6);
    } else {
      EXPECT_EQ(energy, 0.0);
    }
  }
}

TEST(IIRFilter, ResetCopyAndAssignmentReproduceTheStream) {
  const std::vector<float> x = vextest::Noise(900, 6);
  dsp::IIRFilter fresh(2, kCascade.data(), 3), used(2, kCascade.data(), 3);
  const std::vector<float> expected = Filter(fresh, x, 900);
  Filter(used, x, 123);
  used.Reset();
  EXPECT_EQ(Filter(used, x, 900), expected);

  dsp::IIRFilter original(2, kCascade.data(), 3);
  std::vector<float> first(x.begin(), x.begin() + 450), second(x.begin() + 450, x.end());
  Filter(original, first, 450);
  dsp::IIRFilter copy(original);
  dsp::IIRFilter assigned(1, nullptr, 1);
  assigned = original;
  const std::vector<float> tail = Filter(original, second, 450);
  EXPECT_EQ(Filter(copy, second, 450), tail);
  EXPECT_EQ(Filter(assigned, second, 450), tail);
  EXPECT_EQ(assigned.GetOrder(), 2u);
}

TEST(IIRFilter, ResponsesFollowTheTransferFunction) {
  dsp::IIRFilter cascade(2, kCascade.data(), 3);
  dsp::IIRFilter direct(3, kOrder3.data(), 1);
  for (auto* f : {&cascade, &direct}) {
    const unsigned order = f->GetOrder();
    const std::vector<double>& c = order == 2 ? kCascade : kOrder3;
    for (double nf = 0.001; nf < 0.5; nf += 0.0123) {
      const float fl = static_cast<float>(nf);
      const Complex h = Transfer(c, order, fl);
      EXPECT_NEAR(f->GetMagnitudeResponse(fl), std::abs(h), 1e-9 * std::abs(h)) << nf;
      EXPECT_NEAR(dsp::IIRFilter::GetPhaseResponse(fl, c.data(), order, f->GetNumCascades()), std::arg(h), 1e-9);
      EXPECT_NEAR(f->GetPhaseResponse(fl), std::arg(h), 1e-9);
      // Group delay against a central difference of the unwrapped phase.
      const double d = 1e-6;
      const double dphi = std::arg(Transfer(c, order, fl + d) / Transfer(c, order, fl - d));
      const double expectedDelay = -dphi / (2.0 * kPi * 2.0 * d);
      EXPECT_NEAR(f->GetGroupDelay(fl), expectedDelay, 1e-4 * std::max(1.0, std::fabs(expectedDelay))) << nf;
    }
  }
  // A pure delay of two samples: group delay exactly 2 everywhere.
  const double delay2[] = {0, 0, 1, 1, 0, 0};
  EXPECT_NEAR(dsp::IIRFilter::GetGroupDelay(0.2f, delay2, 2, 1), 2.0, 1e-12);
  EXPECT_NEAR(dsp::IIRFilter::GetMagnitudeResponse(0.2f, delay2, 2, 1), 1.0, 1e-12);
}

TEST(IIRFilter, SilenceAfterALoudPassageDecaysToExactZeros) {
  // A resonant low-pass near DC rings longest.
  const double c[] = {1e-4, 2e-4, 1e-4, 1.0, -1.9990, 0.99904};
  dsp::IIRFilter f(2, c, 1);
  std::vector<float> loud = vextest::Noise(4800, 7, 1.0);
  Filter(f, loud, 512);
  std::vector<float> silence(48000 * 6, 0.0f);
  const std::vector<float> y = Filter(f, silence, 512);
  for (float v : y) ASSERT_TRUE(v == 0.0f || std::fabs(v) >= FLT_MIN) << v;
  EXPECT_EQ(y.back(), 0.0f);
}

TEST(IIRFilter, ProcessingNeverAllocates) {
  dsp::IIRFilter f(2, kCascade.data(), 3);
  f.Allocate(100000);
  std::vector<float> x = vextest::Noise(2000, 8);
  std::vector<float> y(x.size());
  EXPECT_NO_ALLOCATION(f.Process(2000, x.data(), y.data()));
  EXPECT_NO_ALLOCATION(f.ProcessInPlace(2000, x.data()));
  EXPECT_NO_ALLOCATION(f.SetCoefficients(kCascade.data(), true));
  EXPECT_NO_ALLOCATION(f.Reset());
  EXPECT_NO_ALLOCATION(f.ProcessSingle(0.5f));
  EXPECT_NO_ALLOCATION(f.GetGroupDelay(0.1f));
}

}  // namespace
