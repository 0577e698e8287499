#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/stereo/HarmonicExciter.h"

namespace {

using dsp::HarmonicExciter::HarmonicExciter;

constexpr double kPi = 3.14159265358979323846;

std::vector<float> Excite(HarmonicExciter& exciter, std::vector<float> x) {
  float* p[] = {x.data()};
  exciter.ProcessInPlace(static_cast<unsigned>(x.size()), p);
  return x;
}

// Amount 0 or below in every mode, an unknown mode, a mix of 0 and (for the
// tube) silence pass the input bit for bit.
TEST(HarmonicExciter, NeutralSettingsPassTheInput) {
  const std::vector<float> noise = vextest::Noise(300, 1);
  for (unsigned mode : {0u, 1u, 2u, 3u}) {
    HarmonicExciter exciter(48000.0f, 1);
    exciter.SetMode(mode);
    EXPECT_EQ(Excite(exciter, noise), noise) << "mode " << mode;
    exciter.SetAmount(-3.0f);
    EXPECT_EQ(Excite(exciter, noise), noise) << "mode " << mode;
    exciter.SetAmount(mode == 3 ? 6.0f : 15.0f);
    exciter.SetMixPercent(mode == 3 ? 100.0f : 0.0f);
    EXPECT_EQ(Excite(exciter, noise), noise) << "mode " << mode << ", mix 0 or unknown mode";
  }
  HarmonicExciter tube(48000.0f, 1);
  tube.SetAmount(15.0f);
  EXPECT_EQ(Excite(tube, std::vector<float>(500, 0.0f)), std::vector<float>(500, 0.0f));
  EXPECT_EQ(tube.GetEnvelope(0), 0.0f);
}

// Retro: y = g x through 1 - 1/(1 + y), mirrored; reference in double.
TEST(HarmonicExciter, RetroIsARationalSoftClip) {
  HarmonicExciter exciter(48000.0f, 1);
  exciter.SetMode(HarmonicExciter::kRetro);
  exciter.SetAmount(0.0001f);
  const std::vector<float> out = Excite(exciter, {1.0f, -1.0f});
  EXPECT_NEAR(out[0], 0.5f, 1e-5);
  EXPECT_NEAR(out[1], -0.5f, 1e-5);

  exciter.SetAmount(9.0f);
  exciter.SetMixPercent(40.0f);
  const std::vector<float> x = vextest::Noise(1000, 2, 1.5);
  const std::vector<float> y = Excite(exciter, x);
  const double g = std::pow(10.0, 9.0 / 20.0);
  for (std::size_t i = 0; i < x.size(); ++i) {
    const double d = g * x[i];
    const double s = d / (1.0 + std::fabs(d));  // the same curve, odd form
    ASSERT_NEAR(y[i], 0.6 * x[i] + 0.4 * s, 1e-5) << i;
  }
}

TEST(HarmonicExciter, TapeNormalisesFullScaleAndDrivesTenDbHarder) {
  HarmonicExciter exciter(48000.0f, 1);
  exciter.SetMode(HarmonicExciter::kTape);
  exciter.SetAmount(1e-6f);
  EXPECT_NEAR(Excite(exciter, {1.0f})[0], 1.0f, 1e-5);
  exciter.SetAmount(15.0f);
  const double full = std::sin(0.8 * kPi / 2 * std::pow(10.0, 0.5)) / std::sin(0.8 * kPi / 2);
  EXPECT_NEAR(Excite(exciter, {1.0f})[0], full, 1e-5);

  exciter.SetAmount(7.5f);  // half the range: 5 dB extra drive
  exciter.SetMixPercent(25.0f);
  const std::vector<float> x = vextest::Noise(1000, 3);
  const std::vector<float> y = Excite(exciter, x);
  const double drive = 0.8 * kPi / 2 * std::pow(10.0, 5.0 / 20.0);
  for (std::size_t i = 0; i < x.size(); ++i) {
    ASSERT_NEAR(y[i], 0.75 * x[i] + 0.25 * std::sin(drive * x[i]) / std::sin(0.8 * kPi / 2), 1e-5) << i;
  }
}

// Tube: the envelope follower and the polynomial, against a double-precision
// reference over two channels with different material and blocks.
TEST(HarmonicExciter, TubeFollowsTheEnvelopePerChannel) {
  for (float rate : {44100.0f, 48000.0f}) {
    HarmonicExciter exciter(rate, 2);
    const double nyq = rate / 2.0;
    const double c = 1.0 - std::exp(-40.0 * std::pow(nyq / 200.0, 0.7) / nyq);
    EXPECT_NEAR(exciter.GetEnvelopeCoefficient(), rate == 44100.0f ? 0.0476 : 0.0465, 5e-5);

    const float amount = 11.0f, mix = 70.0f;
    exciter.SetAmount(amount);
    exciter.SetMixPercent(mix);
    std::vector<float> l = vextest::Sine(2000, 220.0, rate, 0.8);
    std::vector<float> r = vextest::Noise(2000, 4, 0.3);
    for (std::size_t i = 1500; i < 2000; ++i) r[i] = 0.0f;  // decays below -60 dB
    const std::vector<float> inL = l, inR = r;
    for (std::size_t done = 0; done < 2000; done += 333) {
      float* p[] = {l.data() + done, r.data() + done};
      EXPECT_NO_ALLOCATION(exciter.ProcessInPlace(static_cast<unsigned>(std::min<std::size_t>(333, 2000 - done)), p));
    }
    const double m = mix / 100.0, tube = std::pow(10.0, (amount - 7.0) / 40.0);
    for (int ch = 0; ch < 2; ++ch) {
      const std::vector<float>& in = ch == 0 ? inL : inR;
      const std::vector<float>& out = ch == 0 ? l : r;
      double e = 0.0;
      for (std::size_t i = 0; i < in.size(); ++i) {
        e += (std::fabs(in[i]) - e) * c;
        const double u = tube * in[i] * (e < 0.001 ? 1000.0 : 1.0 / e);
        const double want = in[i] * (1.0 + 0.2 * amount * m) + e * 0.02 * m * u * u * (u + 1.0);
        ASSERT_NEAR(out[i], want, 1e-4 * std::max(1.0, std::fabs(want))) << "ch " << ch << " frame " << i;
      }
      EXPECT_NEAR(exciter.GetEnvelope(ch), e, 1e-5);
    }
    // Envelopes survive Reset and mode changes; ClearEnvelopes zeroes them.
    const float kept = exciter.GetEnvelope(0);
    exciter.Reset();
    exciter.SetMode(0);
    exciter.SetMode(2);
    EXPECT_EQ(exciter.GetEnvelope(0), kept);
    exciter.ClearEnvelopes();
    EXPECT_EQ(exciter.GetEnvelope(0), 0.0f);
  }
}

// Channel count changes keep old envelopes and add zeros; NaN settings are
// ignored; long loud runs stay finite in every mode.
TEST(HarmonicExciter, ChannelsNaNAndLongRuns) {
  HarmonicExciter exciter(48000.0f, 1);
  exciter.SetAmount(15.0f);
  Excite(exciter, std::vector<float>(100, 0.5f));
  const float e0 = exciter.GetEnvelope(0);
  EXPECT_GT(e0, 0.0f);
  exciter.SetChannelCount(8);
  EXPECT_EQ(exciter.GetEnvelope(0), e0);
  EXPECT_EQ(exciter.GetEnvelope(7), 0.0f);
  EXPECT_EQ(exciter.GetEnvelope(8), 0.0f);
  exciter.SetChannelCount(0);
  exciter.ProcessInPlace(100, nullptr);
  exciter.SetChannelCount(-2);
  EXPECT_EQ(exciter.GetChannelCount(), 0);

  const float nan = std::numeric_limits<float>::quiet_NaN();
  exciter.SetAmount(nan);
  exciter.SetMixPercent(nan);
  exciter.SetSampleRate(nan);
  EXPECT_EQ(exciter.GetAmount(), 15.0f);
  EXPECT_EQ(exciter.GetMixPercent(), 100.0f);
  EXPECT_EQ(exciter.GetSampleRate(), 48000.0f);

  // A moved-from exciter keeps no channels and so touches nothing.
  exciter.SetChannelCount(2);
  std::vector<float> a(100, 0.5f), b(100, 0.25f);
  float* ab[] = {a.data(), b.data()};
  exciter.ProcessInPlace(100, ab);
  const float kept = exciter.GetEnvelope(0);
  HarmonicExciter moved(std::move(exciter));
  EXPECT_EQ(moved.GetEnvelope(0), kept);
  EXPECT_EQ(exciter.GetChannelCount(), 0);
  exciter.ProcessInPlace(100, nullptr);
  for (unsigned mode : {0u, 1u, 2u}) {
    moved.SetMode(mode);
    std::vector<float> l = vextest::Noise(48000 * 2, 7, 2.0), r(48000 * 2, 0.0f);
    float* p[] = {l.data(), r.data()};
    moved.ProcessInPlace(48000 * 2, p);
    for (float v : l) ASSERT_TRUE(std::isfinite(v)) << "mode " << mode;
  }
}

}  // namespace
