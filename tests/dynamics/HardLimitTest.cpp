#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/dynamics/HardLimit.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace {

using dsp::HardLimit;

std::vector<std::vector<float>> RunLimiter(HardLimit& limit, std::vector<std::vector<float>> x, int block) {
  const int frames = static_cast<int>(x[0].size());
  std::vector<float*> p(x.size());
  for (int done = 0; done < frames; done += block) {
    for (std::size_t c = 0; c < x.size(); ++c) p[c] = x[c].data() + done;
    limit.Process(p.data(), p.data(), std::min(block, frames - done));
  }
  return x;
}

float MaxAbs(const std::vector<float>& x) {
  float m = 0.0f;
  for (float v : x) m = std::max(m, std::fabs(v));
  return m;
}

TEST(HardLimit, ParametersBoundsAndLatency) {
  HardLimit limit;
  EXPECT_EQ(limit.GetParameter(HardLimit::kCeiling), -0.1f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kLookAhead), 7.0f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kLinkChannels), 1.0f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kTruePeakDetection), 0.0f);
  limit.SetParameter(HardLimit::kLookAhead, 30.0f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kLookAhead), 12.5f);
  limit.SetParameter(HardLimit::kCeiling, 3.0f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kCeiling), -50.0f);
  limit.SetParameter(HardLimit::kRelease, std::nanf(""));
  EXPECT_EQ(limit.GetParameter(HardLimit::kRelease), 120.0f);
  limit.SetParameter(HardLimit::kSmoothRelease, 0.3f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kSmoothRelease), 0.0f);
  limit.SetParameter(HardLimit::kTruePeakDetection, 0.7f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kTruePeakDetection), 1.0f);
  EXPECT_EQ(limit.GetParameter(HardLimit::kSmoothRelease), 1.0f);
  limit.SetParameter(7, 1.0f);
  EXPECT_EQ(limit.GetParameter(7), 0.0f);
  float lo = 9.0f, hi = 9.0f;
  HardLimit::GetBounds(1, lo, hi);
  EXPECT_EQ(lo, -100.0f);
  EXPECT_EQ(hi, 50.0f);
  HardLimit::GetBounds(9, lo, hi);
  EXPECT_EQ(lo, -100.0f);

  HardLimit plain;
  EXPECT_EQ(plain.GetLatency(), 882);
  plain.SetSampleRate(48000);
  plain.Resume();
  EXPECT_EQ(plain.GetLatency(), 960);
  plain.SetParameter(HardLimit::kTruePeakDetection, 1.0f);
  plain.Resume();
  EXPECT_EQ(plain.GetLatency(), 995);
}

// A full-scale impulse at 44.1 kHz with the defaults: a quiet carrier in the
// other (linked) channel shows the gain, which leaves 1 exactly 308 frames
// before the impulse is output (N = round(308.7) = 309 steps), falls in a
// straight line and is ceiling / 1 when the impulse comes out.
TEST(HardLimit, ImpulseGainRampClosedForm) {
  HardLimit limit;
  limit.Resume();
  const int frames = 4000, at = 1000, out = at + 882;
  std::vector<std::vector<float>> x(2, std::vector<float>(frames, 0.0f));
  x[0][at] = 1.0f;
  std::fill(x[1].begin(), x[1].end(), 0.01f);
  const auto y = RunLimiter(limit, x, 512);
  const float ceiling = std::pow(10.0f, -0.1f / 20.0f);
  const auto gain = [&](int frame) { return y[1][frame] / 0.01f; };
  EXPECT_EQ(gain(out - 309), 1.0f);
  EXPECT_LT(gain(out - 308), 1.0f);
  // 309 float additions of the slope leave a rounding error of ~1e-5.
  EXPECT_NEAR(y[0][out], ceiling, 3e-5);
  EXPECT_LE(MaxAbs(y[0]), ceiling);
  // The envelope ceiling / gain rises by (1 - ceiling) / 309 per frame.
  for (int k = 0; k <= 308; k += 44) {
    EXPECT_NEAR(ceiling / gain(out - k), 1.0 - (1.0 - ceiling) * k / 309.0, 2e-5) << k;
  }
  // Linked: both channels get the same gain at the impulse.
  EXPECT_NEAR(gain(out), ceiling, 1e-5);
}

// The output never exceeds the ceiling on hard signals, in every mode.
TEST(HardLimit, NeverExceedsTheCeiling) {
  const int frames = 24000;
  std::vector<float> square(frames), impulses(frames, 0.0f);
  for (int i = 0; i < frames; ++i) square[i] = (i / 37) % 2 ? 1.0f : -1.0f;
  for (int i = 50; i < frames; i += 331) impulses[i] = (i % 2 ? 1.0f : -0.7f);
  const std::vector<float> noise = vextest::Noise(frames, 21, 1.0);
  struct Mode {
    float boost, ceiling, lookAhead, link, smooth;
  };
  const Mode modes[] = {{0, -0.1f, 7, 1, 1}, {12, -1, 5, 0, 1}, {12, -3, 20, 1, 0}, {30, -6, 11, 0, 0}};
  for (const Mode& m : modes) {
    HardLimit limit;
    limit.SetChannels(3);
    limit.SetSampleRate(48000);
    limit.SetParameter(HardLimit::kInputBoost, m.boost);
    limit.SetParameter(HardLimit::kCeiling, m.ceiling);
    limit.SetParameter(HardLimit::kLookAhead, m.lookAhead);
    limit.SetParameter(HardLimit::kLinkChannels, m.link);
    limit.SetParameter(HardLimit::kSmoothRelease, m.smooth);
    limit.Resume();
    const auto y = RunLimiter(limit, {square, noise, impulses}, 1000);
    const float ceiling = std::pow(10.0f, m.ceiling / 20.0f);
    for (const auto& ch : y) EXPECT_LE(MaxAbs(ch), ceiling) << "boost " << m.boost << " link " << m.link;
  }
}

// With true-peak detection the oversampled output stays under the ceiling
// within 0.1 dB: white noise boosted by 12 dB, and a boosted fs/4 sine at
// 45 degrees whose samples sit 3 dB under its peaks.
TEST(HardLimit, TruePeakModeKeepsInterSamplePeaksUnderTheCeiling) {
  const int frames = 48000;
  const std::vector<float> noise = vextest::Noise(frames, 8, 1.0);
  const std::vector<float> sine = vextest::Sine(frames, 12000.0, 48000.0, 0.5, M_PI / 4.0);
  for (float release : {40.0f, 200.0f}) {
    HardLimit limit;
    limit.SetSampleRate(48000);
    limit.SetParameter(HardLimit::kInputBoost, 12.0f);
    limit.SetParameter(HardLimit::kCeiling, -1.0f);
    limit.SetParameter(HardLimit::kRelease, release);
    limit.SetParameter(HardLimit::kTruePeakDetection, 1.0f);
    limit.Resume();
    const auto y = RunLimiter(limit, {noise, sine}, 10000);
    for (const auto& ch : y) {
      dsp::TruePeak tp;
      tp.Init(ch.size(), 48000);
      tp.Process(ch.data(), ch.size());
      float db = 0.0f;
      std::int64_t pos = 0;
      tp.GetPeakValue(db, pos);
      EXPECT_LE(db, -1.0f + 0.1f) << "release " << release;
      EXPECT_LE(MaxAbs(ch), std::pow(10.0f, -1.0f / 20.0f));
    }
  }
}

// An isolated burst whose samples sit 3 dB under its true peak: the
// interpolated peaks must meet the gain at the samples they lie between, so
// the output's true peak lands on the ceiling, not over it.
TEST(HardLimit, TruePeakDetectionIsAlignedWithTheSamples) {
  std::vector<float> burst(6000, 0.0f);
  for (int n = 0; n < 12; ++n) burst[3000 + n] = static_cast<float>(0.9 * std::sin(M_PI / 2 * n + M_PI / 4));
  HardLimit limit;
  limit.SetChannels(1);
  limit.SetSampleRate(48000);
  limit.SetParameter(HardLimit::kCeiling, -6.0f);
  limit.SetParameter(HardLimit::kRelease, 40.0f);
  limit.SetParameter(HardLimit::kTruePeakDetection, 1.0f);
  limit.Resume();
  const auto y = RunLimiter(limit, {burst}, 6000);
  dsp::TruePeak tp;
  tp.Init(y[0].size(), 48000);
  tp.Process(y[0].data(), y[0].size());
  float db = 0.0f;
  std::int64_t pos = 0;
  tp.GetPeakValue(db, pos);
  EXPECT_LE(db, -6.0f + 0.05f);
  EXPECT_GE(db, -6.0f - 0.5f);
}

// Unlinked channels are limited on their own; linked ones share the gain.
TEST(HardLimit, LinkSharesTheGain) {
  std::vector<std::vector<float>> x(2, std::vector<float>(3000, 0.1f));
  x[0][1000] = 1.0f;
  HardLimit linked, unlinked;
  unlinked.SetParameter(HardLimit::kLinkChannels, 0.0f);
  for (HardLimit* l : {&linked, &unlinked}) {
    l->SetParameter(HardLimit::kCeiling, -6.0f);
    l->Resume();
  }
  const auto a = RunLimiter(linked, x, 3000);
  const auto b = RunLimiter(unlinked, x, 3000);
  const int out = 1000 + 882;
  EXPECT_NEAR(a[1][out] / 0.1f, std::pow(10.0f, -6.0f / 20.0f), 1e-5);
  EXPECT_GT(b[1][out], 0.099f);
  EXPECT_LT(b[0][out], std::pow(10.0f, -6.0f / 20.0f) + 1e-6);
}

// A boost change ramps linearly over the next block: output = delayed
// input x (g0 + i (g1 - g0) / n).
TEST(HardLimit, BoostRampsOverTheBlock) {
  HardLimit limit;
  limit.SetChannels(1);
  limit.SetParameter(HardLimit::kCeiling, 0.0f);
  limit.Resume();
  std::vector<float> a(1000, 0.001f), b(1000, 0.001f), c(2000, 0.001f);
  float* p = a.data();
  limit.Process(&p, &p, 1000);
  limit.SetParameter(HardLimit::kInputBoost, 20.0f);
  p = b.data();
  limit.Process(&p, &p, 1000);
  p = c.data();
  limit.Process(&p, &p, 2000);
  // Input frame 1000 + i comes out at frame 1882 + i, which is c[i - 118].
  for (int i = 118; i < 1000; i += 111) EXPECT_NEAR(c[i - 118], 0.001f * (1.0f + i * 9.0f / 1000.0f), 1e-8) << i;
  EXPECT_NEAR(c[1000], 0.01f, 1e-8);
}

// Block size does not matter (true-peak mode too); Reset equals fresh;
// Process does not allocate once initialised.
TEST(HardLimit, BlockSplitResetAndAllocation) {
  const std::vector<float> noise = vextest::Noise(12000, 12, 1.0);
  const std::vector<float> other = vextest::Noise(12000, 13, 0.5);
  for (float tp : {0.0f, 1.0f}) {
    HardLimit limit;
    limit.SetSampleRate(48000);
    limit.SetParameter(HardLimit::kInputBoost, 6.0f);
    limit.SetParameter(HardLimit::kTruePeakDetection, tp);
    limit.Resume();
    const auto whole = RunLimiter(limit, {noise, other}, 12000);
    for (int block : {1, 7, 512, 8192, 10000}) {
      limit.Reset();
      std::vector<std::vector<float>> x = {noise, other};
      std::vector<float*> p(2);
      for (int done = 0; done < 12000; done += block) {
        for (int c = 0; c < 2; ++c) p[c] = x[c].data() + done;
        EXPECT_NO_ALLOCATION(limit.Process(p.data(), p.data(), std::min(block, 12000 - done)));
      }
      EXPECT_EQ(x[0], whole[0]) << "tp " << tp << " block " << block;
      EXPECT_EQ(x[1], whole[1]) << "tp " << tp << " block " << block;
    }
  }
}

// Any finite input gives finite output under the ceiling, even at the
// largest floats with 50 dB of boost; a NaN stays at its own position.
TEST(HardLimit, ExtremeAndNonFiniteInput) {
  HardLimit limit;
  limit.SetParameter(HardLimit::kInputBoost, 50.0f);
  limit.Resume();
  std::vector<float> x(5000, 0.0f);
  for (int i = 0; i < 5000; i += 3) x[i] = (i % 2 ? 1.0f : -1.0f) * std::numeric_limits<float>::max();
  const auto y = RunLimiter(limit, {x, x}, 5000);
  for (float v : y[0]) ASSERT_TRUE(std::isfinite(v));
  EXPECT_LE(MaxAbs(y[0]), std::pow(10.0f, -0.1f / 20.0f));

  HardLimit plain;
  plain.Resume();
  std::vector<float> s = vextest::Sine(3000, 440.0, 44100.0, 0.5);
  s[100] = std::numeric_limits<float>::quiet_NaN();
  const auto z = RunLimiter(plain, {s, s}, 3000);
  EXPECT_TRUE(std::isnan(z[0][982]));
  EXPECT_TRUE(std::isfinite(z[0][2000]));
  EXPECT_LE(MaxAbs(z[0]), std::pow(10.0f, -0.1f / 20.0f));
}

}  // namespace
