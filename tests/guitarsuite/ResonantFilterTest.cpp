#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/guitarsuite/Retro.h"
#include "vexaudiodsp/guitarsuite/Rez.h"
#include "vexaudiodsp/guitarsuite/TalkBox.h"

namespace {

using namespace dsp::guitarsuite;
using Mask = vexcore::utility::Flags<std::uint64_t>;
using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

// DFT of a (decayed) impulse response at angular frequency w.
Complex Dft(const std::vector<float>& h, double w, double scale) {
  Complex sum = 0.0;
  for (std::size_t n = 0; n < h.size(); ++n) sum += static_cast<double>(h[n]) * std::polar(1.0, -w * n);
  return sum / scale;
}

Complex Poly(const double* c, int order, double w) {
  Complex sum = 0.0;
  for (int i = 0; i <= order; ++i) sum += c[i] * std::polar(1.0, -w * i);
  return sum;
}

std::vector<float> Impulse(std::size_t n, float amplitude) {
  std::vector<float> x(n, 0.0f);
  x[0] = amplitude;
  return x;
}

// The ladder's small-signal response built stage by stage from the tuning
// formulas: G = p (1 + z^-1) / (1 + k z^-1), y4 = G^4 x', x' = x - r z^-1 y4.
Complex LadderResponse(double cutoff, double resonance, double fs, unsigned mode, double w) {
  const double f = std::min(1.78 * cutoff / fs, 0.5), t = 1 - f, p = f + 0.8 * f * t, k = 2 * p - 1;
  const double r = 0.95 * resonance * (1 + 0.5 * t * (1 - t + 5.6 * t * t));
  const Complex z1 = std::polar(1.0, -w);
  const Complex g = p * (1.0 + z1) / (1.0 + k * z1);
  const Complex in = 1.0 / (1.0 + r * z1 * std::pow(g, 4));
  if (mode == 0) return in * std::pow(g, 4);
  if (mode == 1) return in * (1.0 - std::pow(g, 4));
  return 3.0 * in * (std::pow(g, 3) - std::pow(g, 4));
}

TEST(GuitarFilters, RetroSmallSignalResponseMatchesTheLadder) {
  const auto mono = vexmediatypes::CreateMonoChannelLayout();
  for (unsigned mode : {0u, 1u, 2u}) {
    for (const auto& [cutoff, resonance] :
         {std::pair{1000.0f, 0.5f}, std::pair{300.0f, 0.9f}, std::pair{6000.0f, 0.0f}}) {
      retro::Retro filter(48000.0f, mono);
      filter.SetCutoff(cutoff);
      filter.SetResonance(resonance);
      filter.SetMode(mode);
      const float amplitude = 1e-4f;  // the cubic term is then ~1e-8 of the signal
      std::vector<float> h = Impulse(16384, amplitude);
      float* p[] = {h.data()};
      filter.ProcessInPlace(16384, p, Mask());
      double num[6], den[6];
      ASSERT_EQ(filter.GetDisplayCoefficients(num, den), 5);
      for (double hz : {50.0, 400.0, 1000.0, 2500.0, 9000.0}) {
        const double w = 2 * kPi * hz / 48000.0;
        const Complex expected = LadderResponse(cutoff, resonance, 48000.0, mode, w);
        EXPECT_LT(std::abs(Dft(h, w, amplitude) - expected), 1e-3 * std::max(1.0, std::abs(expected)))
            << mode << " " << cutoff << " " << hz;
        EXPECT_LT(std::abs(Poly(num, 5, w) / Poly(den, 5, w) - expected), 1e-9 * std::max(1.0, std::abs(expected)));
      }
    }
  }
  retro::Retro other(48000.0f, mono);
  other.SetMode(3);
  std::vector<float> x = vextest::Noise(100, 1);
  const std::vector<float> original = x;
  float* p[] = {x.data()};
  other.ProcessInPlace(100, p, Mask());
  EXPECT_EQ(x, original) << "an unknown mode leaves the audio alone";
  EXPECT_FLOAT_EQ(retro::Retro::GetMaxCutoffFreq(48000.0f), 48000.0f * 0.5f / 1.78f);
}

TEST(GuitarFilters, RezIsTheChamberlinStateVariableFilter) {
  const auto mono = vexmediatypes::CreateMonoChannelLayout();
  for (unsigned mode : {0u, 1u, 2u}) {
    rez::Rez filter(44100.0f, mono);
    filter.SetCutoff(800.0f);
    filter.SetResonance(0.7f);
    filter.SetMode(mode);
    std::vector<float> h = Impulse(32768, 1.0f);
    float* p[] = {h.data()};
    filter.ProcessInPlace(32768, p, Mask());
    // Independent closed form: the state equations solved at z, with F =
    // 2 sin(pi fc / fs), q = 0.49 - 0.41 resonance, outputs over q.
    const double f = 2 * std::sin(kPi * static_cast<double>(800.0f) / static_cast<double>(44100.0f)),
                 q = 0.49 - 0.41000003 * static_cast<double>(0.7f);
    double num[3], den[3];
    filter.GetDisplayCoefficients(num, den);
    for (double hz : {30.0, 700.0, 800.0, 3000.0, 15000.0}) {
      const double w = 2 * kPi * hz / 44100.0;
      const Complex z1 = std::polar(1.0, -w);
      // low = z1 low + F z1 band; band = z1 band + F h; h = q x - q z1 band - low
      const Complex bandOverX = q * f * (1.0 - z1) / ((1.0 - z1) * (1.0 - z1) + q * f * z1 * (1.0 - z1) + f * f * z1);
      const Complex lowOverX = f * z1 * bandOverX / (1.0 - z1);
      const Complex highOverX = bandOverX * (1.0 - z1) / f;
      const Complex expected = (mode == 0 ? lowOverX : mode == 1 ? highOverX : bandOverX) / q;
      EXPECT_LT(std::abs(Dft(h, w, 1.0) - expected), 1e-4 * std::max(1.0, std::abs(expected))) << mode << " " << hz;
      EXPECT_LT(std::abs(Poly(num, 2, w) / Poly(den, 2, w) - expected), 1e-9 * std::max(1.0, std::abs(expected)));
    }
  }
  // The tuning term stops at 1.55 (0.2823 fs) and resonance sets q.
  rez::Rez top(48000.0f, mono);
  top.SetCutoff(20000.0f);
  double num[3], den[3];
  top.GetDisplayCoefficients(num, den);
  EXPECT_NEAR(num[1], 1.55 * 1.55, 1e-12);
  EXPECT_NEAR(rez::Rez::GetMaxCutoffFreq(48000.0f), 13550.4, 1e-2);
}

TEST(GuitarFilters, TalkBoxRunsTheLadderThenTheVowelFilter) {
  const auto stereo = vexmediatypes::CreateStereoChannelLayout();
  const std::vector<float> x = vextest::Noise(3000, 5, 0.5);
  for (unsigned vowel : {0u, 3u, 4u, 9u}) {
    talkbox::TalkBox box(48000.0f, stereo);
    box.SetFilterMode(7);  // ladder bypassed: the formant filter alone
    box.SetVowelMode(vowel);
    vextest::PlanarBlock block(2, 3000);
    block.Channel(0) = x;
    float* p[] = {block.Channel(0).data(), block.Channel(1).data()};
    box.ProcessInPlace(1000, p, Mask());
    float* rest[] = {p[0] + 1000, p[1] + 1000};
    box.ProcessInPlace(2000, rest, Mask());
    const double* c = talkbox::TalkBox::GetVowelCoefficients(vowel);
    EXPECT_EQ(c, talkbox::TalkBox::GetVowelCoefficients(vowel < 5 ? vowel : 0));
    std::vector<long double> y(3000, 0.0L);
    for (int n = 0; n < 3000; ++n) {
      long double acc = c[0] * static_cast<long double>(x[n]);
      for (int j = 1; j <= 10 && n - j >= 0; ++j) acc += c[j] * y[n - j];
      y[n] = acc;
    }
    for (int n = 0; n < 3000; ++n) {
      ASSERT_NEAR(block.Channel(0)[n], y[n], 1e-5 * std::max(1.0L, std::fabs(y[n]))) << vowel << " " << n;
    }
  }
  // The pre-filter alone is the Retro ladder with the same settings.
  talkbox::TalkBox box(48000.0f, stereo);
  retro::Retro ladder(48000.0f, stereo);
  box.SetCutoff(1500.0f);
  ladder.SetCutoff(1500.0f);
  box.SetResonance(0.8f);
  ladder.SetResonance(0.8f);
  box.SetFilterMode(2);
  ladder.SetMode(2);
  std::vector<float> a = x, b = x;
  float* pa[] = {a.data(), nullptr};
  float* pb[] = {b.data(), nullptr};
  box.ProcessPreFilter(3000, pa, Mask());
  ladder.ProcessInPlace(3000, pb, Mask());
  EXPECT_EQ(a, b);
  // The display response of the chain is ladder times formant filter.
  double num[16], den[16], ln[6], ld[6];
  box.GetDisplayCoefficients(num, den);
  ladder.GetDisplayCoefficients(ln, ld);
  const double* c = talkbox::TalkBox::GetVowelCoefficients(0);
  for (double hz : {200.0, 800.0, 3000.0}) {
    const double w = 2 * kPi * hz / 48000.0;
    Complex formant = 1.0;
    for (int j = 1; j <= 10; ++j) formant -= c[j] * std::polar(1.0, -w * j);
    const Complex expected = Poly(ln, 5, w) / Poly(ld, 5, w) * c[0] / formant;
    // The expanded order-15 polynomials are ill-conditioned near the
    // formants; 0.5 % is 0.04 dB on a display.
    EXPECT_LT(std::abs(Poly(num, 15, w) / Poly(den, 15, w) - expected), 5e-3 * std::abs(expected)) << hz;
  }
}

// Blocks of any split give the same output; Reset gives a fresh filter's;
// processing never allocates; skipped channels stay untouched.
TEST(GuitarFilters, BlockSplitResetSkipAndAllocation) {
  const auto stereo = vexmediatypes::CreateStereoChannelLayout();
  const std::vector<float> x = vextest::Noise(5000, 11, 0.8);
  auto run = [&](auto& filter, unsigned block, Mask skip) {
    std::vector<float> left = x, right = x;
    for (unsigned start = 0; start < 5000; start += block) {
      float* p[] = {left.data() + start, right.data() + start};
      filter.ProcessInPlace(std::min(block, 5000u - start), p, skip);
    }
    return std::pair{left, right};
  };
  auto check = [&](auto make) {
    auto reference = make();
    const auto whole = run(*reference, 5000, Mask());
    for (unsigned block : {1u, 7u, 256u, 257u, 1000u}) {
      auto filter = make();
      EXPECT_EQ(run(*filter, block, Mask()), whole) << block;
    }
    reference->Reset();
    EXPECT_EQ(run(*reference, 5000, Mask()), whole);
    auto skipped = make();
    const auto partial = run(*skipped, 5000, Mask(2));
    EXPECT_EQ(partial.first, whole.first);
    EXPECT_EQ(partial.second, x);
    std::vector<float> y = x;
    float* p[] = {y.data(), y.data()};
    EXPECT_NO_ALLOCATION(reference->ProcessInPlace(5000, p, Mask()));
  };
  check([&] {
    auto f = vexcore::utility::MakeRef<retro::Retro>(48000.0f, stereo);
    f->SetResonance(1.0f);
    f->SetCutoff(200.0f);
    return f;
  });
  check([&] { return vexcore::utility::MakeRef<rez::Rez>(48000.0f, stereo); });
  check([&] { return vexcore::utility::MakeRef<talkbox::TalkBox>(48000.0f, stereo); });
}

}  // namespace
