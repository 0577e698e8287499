#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/guitarsuite/GarageFuzz.h"
#include "vexaudiodsp/guitarsuite/SmoothOverdrive.h"
#include "vexaudiodsp/guitarsuite/StraightFuzz.h"

namespace {

using namespace dsp::guitarsuite;
using Mask = vexcore::utility::Flags<std::uint64_t>;

long double Db(long double dB) { return std::pow(10.0L, dB / 20.0L); }

struct Settings {
  float inDb, overdrive, trash, mix, outDb;
};

template <typename T>
void Apply(T& fx, const Settings& s) {
  fx.SetInputGain(s.inDb);
  fx.SetOverdrive(s.overdrive);
  fx.SetTrash(s.trash);
  fx.SetMixPercent(s.mix);
  fx.SetOutputGain(s.outDb);
}

// The curves written out from their defining formulas in long double, with
// the factors from decibels (overdrive 0 ... 10 is 0 ... 40 dB).
long double GarageReference(long double x, const Settings& s) {
  const long double u = Db(s.inDb) * x, drive = Db(4.0L * s.overdrive), k = 1 + 9.0L * s.trash, m = s.mix / 100.0L;
  const long double curve = 2 * (1 / (1 + std::exp(-k * drive * u)) - 0.5L);
  return (m * curve + (1 - m) * u) * Db(s.outDb);
}

long double SmoothReference(long double x, const Settings& s) {
  const long double u = Db(s.inDb) * x, drive = Db(4.0L * s.overdrive), k = Db(30.0L * s.trash), m = s.mix / 100.0L;
  const long double wet = m * Db(-6.0L);
  if (s.trash == 0.0f) return (wet * drive + (1 - m)) * u;
  const long double v = drive * k * u;
  const long double curve = v > 0 ? 1 - 1 / (1 + v) : 1 / (1 - v) - 1;
  return ((1 - m) * u + wet * curve) * Db(s.outDb);
}

TEST(GuitarDistortion, GarageFuzzAndSmoothOverdriveFollowTheirCurves) {
  const auto layout = vexmediatypes::CreateStereoChannelLayout();
  const std::vector<float> x = vextest::Noise(2000, 3, 1.5);
  for (const Settings& s : {Settings{0, 5, 0.3f, 100, -6}, Settings{-30, 0, 0, 50, 10}, Settings{20, 10, 1, 100, -40},
                            Settings{6, 2.5f, 0.7f, 25, 0}, Settings{-3, 10, 0, 100, 5}}) {
    garagefuzz::GarageFuzz garage(48000.0f, layout);
    smoothoverdrive::SmoothOverdrive smooth(48000.0f, layout);
    Apply(garage, s);
    Apply(smooth, s);
    vextest::PlanarBlock a(2, x.size()), b(2, x.size());
    a.Channel(0) = x;
    b.Channel(0) = x;
    float* pa[] = {a.Channel(0).data(), a.Channel(1).data()};
    float* pb[] = {b.Channel(0).data(), b.Channel(1).data()};
    EXPECT_NO_ALLOCATION(garage.ProcessInPlace(2000, pa, Mask()));
    smooth.ProcessInPlace(2000, pb, Mask());
    for (std::size_t i = 0; i < x.size(); ++i) {
      const long double g = GarageReference(x[i], s), o = SmoothReference(x[i], s);
      ASSERT_NEAR(a.Channel(0)[i], g, 2e-6 * std::max(1.0L, std::fabs(g))) << i << " trash " << s.trash;
      ASSERT_NEAR(b.Channel(0)[i], o, 2e-6 * std::max(1.0L, std::fabs(o))) << i << " trash " << s.trash;
    }
  }
}

TEST(GuitarDistortion, EdgeCasesOfTheDefinition) {
  const auto mono = vexmediatypes::CreateMonoChannelLayout();
  std::vector<float> x = {0.001f, -0.002f, 0.0003f, 0.5f};
  const std::vector<float> original = x;
  float* p[] = {x.data()};
  // Trash 0 bypasses the soft clip: 100 x -6 dB x gIn, whatever the output
  // gain says.
  smoothoverdrive::SmoothOverdrive smooth(44100.0f, mono);
  Apply(smooth, Settings{-12, 10, 0, 100, -40});
  smooth.ProcessInPlace(4, p, Mask());
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(x[i], original[i] * 100 * 0.50118726 * Db(-12), 1e-6) << i;
  // Mix 0: the fuzz is a plain gain of gIn gOut.
  x = original;
  garagefuzz::GarageFuzz garage(44100.0f, mono);
  Apply(garage, Settings{7, 10, 1, 0, -3});
  garage.ProcessInPlace(4, p, Mask());
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(x[i], original[i] * Db(4), 1e-6) << i;
  // Out-of-range values are clamped; a copy keeps the settings.
  garage.SetOverdrive(50.0f);
  garage.SetMixPercent(-5.0f);
  EXPECT_EQ(garage.GetOverdrive(), 10.0f);
  EXPECT_EQ(garage.GetMixPercent(), 0.0f);
  garagefuzz::GarageFuzz copy(garage);
  EXPECT_EQ(copy.GetInputGain(), 7.0f);
  EXPECT_FLOAT_EQ(copy.GetTrashFactor(), 10.0f);
}

// Trash 0 (clip level 1): once the left channel passes 1 / drive, both
// channels become +-1 full clip level with their own sign (0 counts as
// negative); below it the fuzz is a linear boost.
TEST(GuitarDistortion, StraightFuzzLinksItsChannels) {
  const auto stereo = vexmediatypes::CreateStereoChannelLayout();
  straightfuzz::StraightFuzz fuzz(48000.0f, stereo);
  Apply(fuzz, Settings{0, 5, 0, 100, 0});  // drive 20 dB: threshold 0.1
  EXPECT_FLOAT_EQ(fuzz.GetClipLevel(), 1.0f);
  std::vector<float> left = {0.2f, 0.2f, -0.05f, 0.05f}, right = {0.001f, 0.0f, 0.02f, -0.02f};
  float* p[] = {left.data(), right.data()};
  fuzz.ProcessInPlace(4, p, Mask());
  const double wet = 0.70794576;
  EXPECT_NEAR(left[0], wet, 1e-6);
  EXPECT_NEAR(right[0], wet, 1e-6);
  EXPECT_NEAR(right[1], -wet, 1e-6);
  EXPECT_NEAR(left[2], -0.05 * 10 * wet, 1e-6) << "below the threshold: linear";
  EXPECT_NEAR(right[3], -0.02 * 10 * wet, 1e-6);
  // Channel 0 drives the detector even when it is skipped, and stays as is.
  left = {0.5f};
  right = {0.001f};
  fuzz.ProcessInPlace(1, p, Mask(1));
  EXPECT_EQ(left[0], 0.5f);
  EXPECT_NEAR(right[0], wet, 1e-6);
  // A skipped channel 1 does not: the left is linear here.
  left = {0.01f};
  right = {0.9f};
  fuzz.ProcessInPlace(1, p, Mask(2));
  EXPECT_NEAR(left[0], 0.1 * wet, 1e-6);
  EXPECT_EQ(right[0], 0.9f);
  // Full trash: clip level -51.2 dB, trash gain +35 dB, mix 50 %.
  Apply(fuzz, Settings{0, 0, 1, 50, 0});
  EXPECT_NEAR(fuzz.GetClipLevel(), Db(-51.2), 1e-9);
  EXPECT_NEAR(fuzz.GetTrashGain(), Db(35), 1e-4);
  left = {0.3f};
  right = {-0.3f};
  fuzz.ProcessInPlace(1, p, Mask());
  EXPECT_NEAR(left[0], 0.5 * 0.3 + 0.5 * wet * Db(35) * Db(-51.2), 1e-6);
  EXPECT_NEAR(right[0], -(0.5 * 0.3 + 0.5 * wet * Db(35) * Db(-51.2)), 1e-6);
}

}  // namespace
