#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/filters/DeskFilter.h"
#include "vexaudiodsp/filters/FilterSection.h"

namespace {

using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

template <typename Section>
std::unique_ptr<Section> Static(float fs, float f, float gainDb, float q) {
  auto s = std::make_unique<Section>();
  s->Setup(fs, f, gainDb, q, 0.0f, 0.0f);
  s->TerminateRamp();
  return s;
}

// The target's direct form evaluated with std::complex at f Hz.
template <typename T>
Complex Transfer(const dsp::FilterSectionOf<T>& s, double f) {
  const auto& c = s.GetTarget();
  const Complex z1 = std::exp(Complex(0.0, -2.0 * kPi * f / s.getSampleRate())), z2 = z1 * z1;
  return (double{c[dsp::kB0]} + double{c[dsp::kB1]} * z1 + double{c[dsp::kB2]} * z2) /
         (1.0 + double{c[dsp::kA1]} * z1 + double{c[dsp::kA2]} * z2);
}

double Db(double x) { return 20.0 * std::log10(x); }

// The frequency in (lo, hi) where |H| crosses `level`, by bisection.
template <typename T>
double Crossing(const dsp::FilterSectionOf<T>& s, double level, double lo, double hi) {
  const auto above = [&](double f) { return std::abs(Transfer(s, f)) > level; };
  const bool loAbove = above(lo);
  for (int i = 0; i < 200; ++i) {
    const double mid = 0.5 * (lo + hi);
    (above(mid) == loAbove ? lo : hi) = mid;
  }
  return 0.5 * (lo + hi);
}

std::vector<float> RunSamples(dsp::FilterSection& s, const std::vector<float>& x) {
  std::vector<float> y(x.size());
  for (std::size_t i = 0; i < x.size(); ++i) y[i] = s.processOneSample(x[i]);
  return y;
}

std::vector<float> RunBlocks(dsp::FilterSection& s, std::vector<float> x, std::size_t block) {
  for (std::size_t i = 0; i < x.size(); i += block) {
    s.processInplace(x.data() + i, static_cast<int>(std::min(block, x.size() - i)));
  }
  return x;
}

TEST(FilterSection, NewAndZeroGainSectionsPassTheInput) {
  dsp::fPARA a;
  dsp::dLOSHELVE2 b;
  EXPECT_FALSE(a.isEnabled());
  EXPECT_FALSE(a.IsRamping());
  EXPECT_FALSE(a.isDoublePrecision());
  EXPECT_TRUE(b.isDoublePrecision());
  EXPECT_TRUE(dsp::fHISHELVE().isFirstOrder());
  EXPECT_FALSE(b.isFirstOrder());
  EXPECT_EQ(a.getRampLength(), 1323);
  const std::vector<float> x = vextest::Noise(300, 1);
  EXPECT_EQ(RunSamples(a, x), x);
  EXPECT_EQ(RunBlocks(b, x, 64), x);
  a.Setup(44100.0f, 1000.0f, 0.0f, 1.0f, 0.0f, 0.0f);
  EXPECT_FALSE(a.isEnabled());
  a.Setup(44100.0f, 1000.0f, 6.0f, 1.0f, 0.0f, 0.0f);
  EXPECT_TRUE(a.isEnabled());
  EXPECT_EQ(a.computeResponse(1000.0f, 2.0f), a.computeResponse(1000.0f, 1.0f) * 2.0f);
  a.disable();
  EXPECT_EQ(a.computeResponse(1000.0f, 0.5f), 0.5f);
}

// The glide written out: the n-th sample after a design (n = 1 ...) uses
// neutral + (n - 1) float steps of (target - neutral) / 1323 while n <= 1323,
// and the target from then on.
TEST(FilterSection, GlideLastsRampLengthSamplesAndEndsOnTheTarget) {
  dsp::fPARA s;
  s.Setup(44100.0f, 1000.0f, 6.0f, 1.0f, 0.0f, 0.0f);
  ASSERT_EQ(s.getRampCounter(), 1323);
  const auto target = s.GetTarget();
  float c[5] = {1, 0, 0, 0, 0}, step[5];
  for (int i = 0; i < 5; ++i) step[i] = (target[i] - c[i]) / 1323.0f;
  const std::vector<float> x = vextest::Noise(1400, 2);
  float x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  std::vector<float> expected;
  for (int n = 1; n <= 1400; ++n) {
    const float* k = n <= 1323 ? c : target.data();
    const float xn = x[n - 1];
    const float y = k[0] * xn + k[1] * x1 + k[2] * x2 - (k[3] * y1 + k[4] * y2);
    x2 = x1, x1 = xn, y2 = y1, y1 = y;
    expected.push_back(y);
    if (n < 1323) {
      for (int i = 0; i < 5; ++i) c[i] += step[i];
    }
  }
  std::vector<float> y(1400);
  for (int n = 0; n < 1400; ++n) {
    y[n] = s.processOneSample(x[n]);
    if (n == 1321) {
      EXPECT_TRUE(s.IsRamping()) << "after 1322 samples";
    }
    if (n == 1322) {
      EXPECT_FALSE(s.IsRamping()) << "after 1323 samples";
      EXPECT_EQ(s.GetCurrent(), target);
    }
  }
  EXPECT_EQ(y, expected);
  for (std::size_t block : {1, 7, 256, 1000}) {
    dsp::fPARA b;
    b.Setup(44100.0f, 1000.0f, 6.0f, 1.0f, 0.0f, 0.0f);
    EXPECT_EQ(RunBlocks(b, x, block), expected) << block;
  }
}

TEST(FilterSection, SmoothingTimeSetsTheGlideLength) {
  dsp::dNotch s;
  s.setSmoothingTime(0.01f);
  EXPECT_EQ(s.getRampLength(), 441);
  s.Setup(96000.0f, 500.0f, -10.0f, 2.0f, 0.0f, 0.0f);
  EXPECT_EQ(s.getRampCounter(), 441) << "the length follows the rate known when the time was set";
  s.setSmoothingTime(0.0f);
  s.SetupCoefficients(96000.0f, 800.0f, -10.0f, 2.0f, 0.0f, 0.0f);
  EXPECT_FALSE(s.IsRamping());
  EXPECT_NE(s.GetCurrent(), s.GetTarget()) << "a zero-length glide does not apply the design";
  s.TerminateRamp();
  EXPECT_EQ(s.GetCurrent(), s.GetTarget());
  s.setSmoothingTime(-1.0f);
  EXPECT_EQ(s.getRampLength(), 0);
  // Designing the same target again starts no glide.
  s.setSmoothingTime(0.01f);
  s.SetupCoefficients(96000.0f, 800.0f, -10.0f, 2.0f, 0.0f, 0.0f);
  EXPECT_FALSE(s.IsRamping());
}

TEST(FilterSection, PeakDesignsHitTheirGainsAndBandwidth) {
  struct Case {
    float f, g, q;
  };
  for (Case k : {Case{1000, 9, 2}, Case{5000, -12, 0.7f}, Case{300, 4, 5}, Case{2000, 6, 1}, Case{2000, -6, 1}}) {
    const auto para = Static<dsp::dPARA>(48000, k.f, k.g, k.q);
    const auto notch = Static<dsp::fNotch>(48000, k.f, k.g, k.q);
    const double gb = k.g > 6 ? k.g - 3 : k.g > -6 ? k.g / 2 : k.g + 3;
    EXPECT_NEAR(Db(std::abs(Transfer(*para, k.f))), k.g, 1e-9);
    EXPECT_NEAR(Db(std::abs(Transfer(*notch, k.f))), k.g, 1e-4);
    EXPECT_NEAR(std::abs(Transfer(*para, 0.0)), 1.0, 1e-12);
    EXPECT_NEAR(std::abs(Transfer(*para, 24000.0)), 1.0, 1e-12);
    // The band edges, where the gain is gb, lie f / Q apart.
    const double level = std::pow(10.0, gb / 20.0);
    const double lo = Crossing(*para, level, 1e-3, k.f), hi = Crossing(*para, level, k.f, 23999.0);
    EXPECT_NEAR(hi - lo, k.f / k.q, 1e-6 * k.f) << k.f << " Hz " << k.g << " dB";
    EXPECT_FLOAT_EQ(notch->getBandwidth(), k.f / k.q);
    EXPECT_EQ(para->getBandwidth(), 0.0f);
  }
  // Frequencies beyond Nyquist are clamped by PARA, not by the notch.
  const auto clamped = Static<dsp::fPARA>(48000, 1e6f, 6, 1);
  for (float v : clamped->GetTarget()) EXPECT_TRUE(std::isfinite(v));
  EXPECT_NEAR(Db(Static<dsp::dNotch>(48000, 3000, -80, 4)->computeResponse(3000, 1)), -80, 1e-3);
}

// First-order shelves put half the gain (or 3 dB short of it beyond 6 dB) at
// the corner, second-order ones half the gain (or 3.01 dB short beyond 6 dB);
// both reach the full gain at one end and 0 dB at the other.
TEST(FilterSection, ShelvesHaveTheirGainsAtDcNyquistAndTheCorner) {
  for (float g : {3.0f, -4.0f, 12.0f, -15.0f}) {
    const double gb1 = g > 6 ? g - 3 : g > -6 ? g / 2 : g + 3;
    const double gb2 = std::fabs(g) >= 6 ? g - std::copysign(3.0103, g) : g / 2;
    struct Shelf {
      std::unique_ptr<dsp::FilterSection> s;
      bool high;
      double corner;
    };
    Shelf shelves[] = {{Static<dsp::dHISHELVE>(48000, 1000, g, 1), true, gb1},
                       {Static<dsp::fLOSHELVE>(48000, 1000, g, 1), false, gb1},
                       {Static<dsp::dHISHELVE2>(48000, 1000, g, 1), true, gb2},
                       {Static<dsp::fLOSHELVE2>(48000, 1000, g, 1), false, gb2}};
    for (Shelf& k : shelves) {
      SCOPED_TRACE(testing::Message() << g << " dB, high " << k.high << ", corner " << k.corner);
      EXPECT_NEAR(Db(k.s->computeResponse(0, 1)), k.high ? 0.0 : g, 1e-4);
      EXPECT_NEAR(Db(k.s->computeResponse(24000, 1)), k.high ? g : 0.0, 1e-4);
      EXPECT_NEAR(Db(k.s->computeResponse(1000, 1)), k.corner, 1e-3);
    }
    EXPECT_FLOAT_EQ(shelves[2].s->getBandwidth(), 1000.0f);
  }
  const auto flat = Static<dsp::dLOSHELVE2>(48000, 1000, 0, 1);
  const auto& c = flat->GetTarget();
  EXPECT_NEAR(c[dsp::kB0], 1.0, 1e-12);
  EXPECT_NEAR(c[dsp::kB1], c[dsp::kA1], 1e-12);
  EXPECT_NEAR(c[dsp::kB2], c[dsp::kA2], 1e-12);
}

// computeResponse against the target's direct form evaluated independently.
TEST(FilterSection, ComputeResponseMatchesTheTransferFunction) {
  const auto peak = Static<dsp::dPARA>(44100, 700, -7, 3);
  const auto shelf = Static<dsp::fHISHELVE2>(44100, 4000, 5, 1);
  for (double f = 5.0; f < 22000.0; f *= 1.3) {
    const float ff = static_cast<float>(f);
    EXPECT_NEAR(peak->computeResponse(ff, 1.0f), std::abs(Transfer(*peak, ff)), 1e-6);
    EXPECT_NEAR(shelf->computeResponse(ff, 1.0f), std::abs(Transfer(*shelf, ff)), 1e-6);
  }
}

// Every design, both precisions, through the direct and the state-variable
// recursion: the same filter, so the same output up to rounding.
template <typename Section>
void ExpectFormsAgree(float f, float g, float q) {
  const std::vector<float> x = vextest::Noise(4000, 3, 0.5);
  auto direct = Static<Section>(48000, f, g, q);
  auto sv = Static<Section>(48000, f, g, q);
  sv->setStateVariable(true);
  EXPECT_TRUE(sv->IsRamping()) << "switching form starts a glide to the converted target";
  sv->TerminateRamp();
  const std::vector<float> a = RunBlocks(*direct, x, 4000), b = RunBlocks(*sv, x, 4000);
  double peak = 0;
  for (float v : a) peak = std::max(peak, double{std::fabs(v)});
  // The double direct form rounds its sums to float on purpose, and a low
  // section amplifies that rounding most.
  EXPECT_LT(vextest::MaxAbsDiff(a, b), 1e-4 * peak) << f << " Hz " << g << " dB";
}

TEST(FilterSection, DirectAndStateVariableFormsAgree) {
  for (float g : {-18.0f, -3.0f, 5.0f, 15.0f}) {
    ExpectFormsAgree<dsp::fPARA>(1000, g, 2);
    ExpectFormsAgree<dsp::dPARA>(80, g, 0.7f);
    ExpectFormsAgree<dsp::fNotch>(12000, g, 4);
    ExpectFormsAgree<dsp::dNotch>(300, g, 1);
    ExpectFormsAgree<dsp::fHISHELVE2>(6000, g, 1);
    ExpectFormsAgree<dsp::dLOSHELVE2>(200, g, 1);
    ExpectFormsAgree<dsp::fLOSHELVE2>(5000, g, 1);
  }
}

TEST(FilterSection, DoublePrecisionRoundsAsDefined) {
  const auto s = Static<dsp::dPARA>(48000, 2500, 8, 1.5);
  const auto& c = s->GetTarget();
  const std::vector<float> x = vextest::Noise(2000, 4);
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  std::vector<float> expected;
  for (float xf : x) {
    const double xn = xf;
    const float ff = static_cast<float>(c[0] * xn + c[1] * x1 + c[2] * x2);
    const float y = static_cast<float>(double{ff} - (c[3] * y1 + c[4] * y2));
    x2 = x1, x1 = xn, y2 = y1, y1 = y;
    expected.push_back(y);
  }
  EXPECT_EQ(RunSamples(*s, x), expected);
  s->ClearState();
  EXPECT_EQ(RunBlocks(*s, x, 333), expected);

  auto sv = Static<dsp::dHISHELVE2>(48000, 3000, 6, 1);
  sv->setStateVariable(true);
  sv->TerminateRamp();
  // Both the block and the per-sample path round the state-variable output.
  std::vector<double> xd(x.begin(), x.end());
  sv->dprocessInplace(xd.data(), static_cast<int>(xd.size()));
  xd.push_back(sv->dprocessOneSample(0.37));
  for (double y : xd) ASSERT_EQ(y, static_cast<double>(static_cast<float>(y)));
}

TEST(FilterSection, BlocksEqualSamplesInEveryForm) {
  const std::vector<float> x = vextest::Noise(2001, 5);
  for (int form = 0; form < 3; ++form) {
    // Designed fresh each time, so every run includes the same glide.
    const auto make = [form]() -> std::unique_ptr<dsp::FilterSection> {
      std::unique_ptr<dsp::FilterSection> s;
      if (form == 0) {
        s = std::make_unique<dsp::fLOSHELVE>();
      } else {
        s = std::make_unique<dsp::dNotch>();
      }
      s->setStateVariable(form == 2);
      s->Setup(44100, 900, -9, 2, 0, 0);
      return s;
    };
    const std::vector<float> perSample = RunSamples(*make(), x);
    for (std::size_t block : {1, 2, 7, 256, 2001}) {
      EXPECT_EQ(RunBlocks(*make(), x, block), perSample) << "form " << form << " block " << block;
    }
    std::vector<double> xd(x.begin(), x.end());
    make()->dprocessInplace(xd.data(), static_cast<int>(xd.size()));
    for (std::size_t i = 0; i < xd.size(); ++i) ASSERT_EQ(static_cast<float>(xd[i]), perSample[i]) << i;
  }
}

TEST(FilterSection, EnableFadesInAndCopyClearAndSwitchState) {
  auto s = Static<dsp::fPARA>(44100, 1000, 12, 1);
  s->disable();
  s->enable();
  EXPECT_EQ(s->GetCurrent(), dsp::fFilterSection::Neutral());
  EXPECT_EQ(s->getRampCounter(), 1323);
  s->enable();
  EXPECT_EQ(s->getRampCounter(), 1323) << "enabling an enabled section does not restart the fade";

  const std::vector<float> x = vextest::Noise(500, 6);
  auto source = Static<dsp::fPARA>(44100, 3000, -6, 2);
  RunSamples(*source, x);
  dsp::fNotch copy;
  copy.CopyCoefficients(*source);
  EXPECT_TRUE(copy.isEnabled());
  EXPECT_EQ(copy.GetTarget(), source->GetTarget());
  source->ClearState();
  EXPECT_EQ(RunSamples(copy, x), RunSamples(*source, x)) << "the copy starts from a clear history";
  dsp::dPARA other;
  other.CopyCoefficients(*source);
  EXPECT_FALSE(other.isEnabled()) << "a section of the other precision is ignored";

  copy.ClearCoefficients();
  EXPECT_EQ(RunSamples(copy, x), x);

  auto loud = Static<dsp::fPARA>(44100, 100, 12, 8);
  RunSamples(*loud, x);
  loud->setStateVariable(true);
  EXPECT_EQ(loud->GetState().x1, 0.0f) << "switching form clears the history";
  EXPECT_EQ(loud->GetState().y1, 0.0f);
}

TEST(FilterSection, DeskFilterShiftsGearsKeepingItsSettings) {
  dsp::fDeskFilter desk;
  EXPECT_EQ(desk.getType(), dsp::fDeskFilter::ePara);
  EXPECT_NE(dynamic_cast<dsp::fPARA*>(&desk.GetSection()), nullptr);
  EXPECT_FALSE(desk.isEnabled());
  desk.setSmoothingTime(0.02f);
  desk.Setup(48000, 2000, -6, 2, 0.25f, 0.5f);

  desk.setType(dsp::fDeskFilter::eHighShelf);
  auto* hi = dynamic_cast<dsp::fHISHELVE*>(&desk.GetSection());
  ASSERT_NE(hi, nullptr);
  EXPECT_TRUE(hi->isFirstOrder());
  EXPECT_EQ(hi->getFrequency(), 2000.0f);
  EXPECT_EQ(hi->getSpare5(), 0.25f);
  EXPECT_EQ(hi->getSpare6(), 0.5f);
  EXPECT_FLOAT_EQ(desk.getSmoothingTime(), 0.02f);
  EXPECT_NEAR(Db(desk.computeResponse(24000, 1)), -6, 1e-3);

  desk.ShiftGears(dsp::fDeskFilter::eLowShelf, true, false);
  EXPECT_NE(dynamic_cast<dsp::dLOSHELVE2*>(&desk.GetSection()), nullptr);
  EXPECT_TRUE(desk.isDoublePrecision());
  EXPECT_EQ(desk.GetSection().getBandwidth(), 0.0f) << "Q carried from a first-order shelf is infinite";
  EXPECT_NEAR(Db(desk.computeResponse(10, 1)), -6, 1e-2);

  desk.setDoublePrecision(false);
  EXPECT_NE(dynamic_cast<dsp::fLOSHELVE*>(&desk.GetSection()), nullptr);
  desk.setType(dsp::fDeskFilter::eNotch);
  EXPECT_NE(dynamic_cast<dsp::fNotch*>(&desk.GetSection()), nullptr);
  EXPECT_NEAR(desk.computeResponse(2000, 1), 1.0f, 1e-5) << "a notch of no width";
  desk.Setup(48000, 2000, -6, 2, 0, 0);
  desk.setType(dsp::fDeskFilter::ePara);
  EXPECT_NEAR(desk.GetSection().getFrequency(), 2000.0f, 0);
  EXPECT_NEAR(Db(desk.computeResponse(2000, 1)), -6, 1e-3);
  // Same kind and precision, but PARA is second order: it is rebuilt.
  const dsp::FilterSection* before = &desk.GetSection();
  desk.setType(dsp::fDeskFilter::ePara);
  EXPECT_NE(&desk.GetSection(), before);
  desk.ShiftGears(dsp::fDeskFilter::ePara, false, false);
  before = &desk.GetSection();
  desk.ShiftGears(dsp::fDeskFilter::ePara, false, false);
  EXPECT_EQ(&desk.GetSection(), before);

  EXPECT_EQ(desk.GetSection().getRampLength(), 882) << "0.02 s at the 44100 Hz the new section knew";
}

TEST(FilterSection, DesignsWithoutAFilterKeepThePreviousTarget) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  auto s = Static<dsp::fPARA>(48000, 1000, 6, 1);
  const auto before = s->GetTarget();
  s->SetupCoefficients(48000, nan, 6, 1, 0, 0);
  EXPECT_EQ(s->GetTarget(), before);
  EXPECT_FALSE(s->IsRamping());
  auto shelf = Static<dsp::dHISHELVE>(48000, 0, 6, 1);
  EXPECT_EQ(shelf->GetTarget(), dsp::dFilterSection::Neutral()) << "a shelf at 0 Hz";
  EXPECT_EQ(shelf->getFrequency(), 0.0f) << "the settings are stored all the same";
  auto notch = Static<dsp::fNotch>(48000, 1000, -20, 0);
  for (float v : RunBlocks(*notch, vextest::Noise(500, 10), 500)) ASSERT_TRUE(std::isfinite(v));
}

TEST(FilterSection, SilenceAfterALoudPassageReachesExactZeros) {
  auto s = Static<dsp::fPARA>(48000, 20, 12, 1);
  auto sv = Static<dsp::fLOSHELVE2>(48000, 30, 15, 1);
  sv->setStateVariable(true);
  sv->TerminateRamp();
  for (dsp::FilterSection* f :
       {static_cast<dsp::FilterSection*>(s.get()), static_cast<dsp::FilterSection*>(sv.get())}) {
    RunBlocks(*f, vextest::Noise(4800, 8), 512);
    const std::vector<float> y = RunBlocks(*f, std::vector<float>(48000 * 8, 0.0f), 512);
    for (float v : y) ASSERT_TRUE(v == 0.0f || std::fabs(v) >= FLT_MIN) << v;
    EXPECT_EQ(y.back(), 0.0f);
  }
}

TEST(FilterSection, NothingAllocates) {
  dsp::dPARA s;
  std::vector<float> x = vextest::Noise(1024, 9);
  std::vector<double> xd(x.begin(), x.end());
  EXPECT_NO_ALLOCATION(s.Setup(48000, 1000, 6, 1, 0, 0));
  EXPECT_NO_ALLOCATION(s.processInplace(x.data(), 1024));
  EXPECT_NO_ALLOCATION(s.dprocessInplace(xd.data(), 1024));
  EXPECT_NO_ALLOCATION(s.processOneSample(0.5f));
  EXPECT_NO_ALLOCATION(s.setStateVariable(true));
  EXPECT_NO_ALLOCATION(s.computeResponse(1000, 1));
  dsp::fDeskFilter desk;
  EXPECT_NO_ALLOCATION(desk.Setup(48000, 1000, 6, 1, 0, 0));
  EXPECT_NO_ALLOCATION(desk.processInplace(x.data(), 1024));
}

}  // namespace
