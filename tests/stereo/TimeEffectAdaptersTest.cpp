// The registered effects around the library classes: what the adapters add
// (host-facing scales, resets that the classes leave to their owners, tails,
// parameter changes that must not clear state).

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSignals.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace {

using dsp::host::Effect;
using Planar = std::vector<std::vector<float>>;

std::unique_ptr<Effect> Make(const std::string& text, int channels) {
  std::string error;
  std::unique_ptr<Effect> effect = dsp::host::CreateEffect(text, &error);
  EXPECT_NE(effect, nullptr) << error;
  effect->SetIOConfig(channels, 48000.0f);
  effect->Start();
  EXPECT_TRUE(effect->IsStarted()) << text;
  return effect;
}

Planar Pass(Effect& effect, Planar x) {
  std::vector<float*> p;
  for (auto& channel : x) p.push_back(channel.data());
  effect.Process(p.data(), p.data(), static_cast<int>(x.size()), static_cast<int>(x[0].size()));
  return x;
}

Planar Noise(std::size_t channels, std::size_t frames, std::uint32_t seed) {
  Planar x;
  for (std::size_t ch = 0; ch < channels; ++ch) x.push_back(vextest::Noise(frames, seed + std::uint32_t(ch), 0.5));
  return x;
}

// The widener's Reset clears its delay ring (the class's own Reset does
// not); the tail is the delay, L - 1 samples; the host width is a side level
// in percent.
TEST(TimeEffectAdapters, WidenerResetTailAndWidthScale) {
  auto widener = Make("widener:width=200,delay=-2", 2);
  EXPECT_EQ(widener->GetTailFrames(), 95);
  const Planar x = Noise(2, 2000, 1);
  const Planar fresh = Pass(*widener, x);
  Pass(*widener, Noise(2, 777, 9));
  widener->Reset();
  EXPECT_EQ(Pass(*widener, x), fresh);
  // Left delayed by 95, then the side doubled.
  for (std::size_t n = 100; n < 2000; ++n) {
    const float l = x[0][n - 95], r = x[1][n];
    ASSERT_NEAR(fresh[0][n], 1.5f * l - 0.5f * r, 1e-6);
    ASSERT_NEAR(fresh[1][n], 1.5f * r - 0.5f * l, 1e-6);
  }
  // Changing the width does not clear the ring; changing the delay does.
  auto again = Make("widener:width=100,delay=1", 2);
  Pass(*again, Noise(2, 500, 3));
  ASSERT_TRUE(again->SetValue(again->FindParam("width"), 120.0));
  Planar silence(2, std::vector<float>(60, 0.0f));
  EXPECT_NE(Pass(*again, silence)[1][10], 0.0f) << "history kept";
  ASSERT_TRUE(again->SetValue(again->FindParam("delay"), 0.5));
  Pass(*again, Noise(2, 10, 4));
  const Planar after = Pass(*again, silence);
  for (std::size_t n = 0; n < 13; ++n) EXPECT_EQ(after[1][n], 0.0f) << "cleared ring, frame " << n;
}

// The exciter's Reset clears the Tube envelopes, so a reset run repeats a
// fresh one even right after loud material.
TEST(TimeEffectAdapters, ExciterResetClearsTheEnvelopes) {
  auto exciter = Make("exciter:mode=tube,amount=12,mix=80", 3);
  const Planar x = Noise(3, 3000, 5);
  const Planar fresh = Pass(*exciter, x);
  Pass(*exciter, Noise(3, 1000, 6));
  exciter->Reset();
  EXPECT_EQ(Pass(*exciter, x), fresh);
}

// A fresh delay starts at its set time (no glide from the class's 200 ms):
// the first repeat of an impulse at 500 ms is 24001 frames later.
TEST(TimeEffectAdapters, AnalogDelayStartsAtItsDelayWithoutGliding) {
  auto delay = Make("analogdelay:delay=500,dry=0,wet=100,feedback=0", 1);
  Planar x(1, std::vector<float>(26000, 0.0f));
  x[0][0] = 1.0f;
  const Planar y = Pass(*delay, x);
  std::size_t first = 0;
  while (first < y[0].size() && std::fabs(y[0][first]) < 1e-4f) ++first;
  EXPECT_NEAR(static_cast<double>(first), 24001.0, 6.0);
  // Tail: one repeat at 20 % feedback decays 100 dB in a handful of trips.
  auto defaults = Make("analogdelay", 2);
  EXPECT_GT(defaults->GetTailFrames(), 9601 * 3);
  EXPECT_LT(defaults->GetTailFrames(), 9601 * 12);
  auto endless = Make("analogdelay:feedback=150", 2);
  EXPECT_EQ(endless->GetTailFrames(), 60 * 48000);
}

// Changing a reverb setting mid-stream keeps the tail: only a new predelay
// clears the reflections line.
TEST(TimeEffectAdapters, ReverbSettingChangesKeepTheTail) {
  auto reverb = Make("reverb:dry=0,wet=100,predelay=5", 2);
  Pass(*reverb, Noise(2, 3000, 7));
  ASSERT_TRUE(reverb->SetValue(reverb->FindParam("room"), 0.5));
  const Planar silence(2, std::vector<float>(300, 0.0f));
  EXPECT_NE(Pass(*reverb, silence)[0][10], 0.0f) << "reflections line kept";
  EXPECT_GT(reverb->GetTailFrames(), 48000);
  auto small = Make("reverb:room=0", 2);
  EXPECT_LT(small->GetTailFrames(), reverb->GetTailFrames());
}

}  // namespace
