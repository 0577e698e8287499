#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/stereo/StereoWidener.h"

namespace {

using dsp::StereoWidener::StereoWidener;

struct Pair {
  std::vector<float> l, r;
  float* ptr[2];
  explicit Pair(std::size_t n, std::uint32_t seed = 5)
      : l(vextest::Noise(n, seed)), r(vextest::Noise(n, seed + 1)), ptr{l.data(), r.data()} {}
  Pair(const Pair& o) : l(o.l), r(o.r), ptr{l.data(), r.data()} {}
};

TEST(StereoWidener, RingIsFifteenMillisecondsAtTheConstructionRate) {
  EXPECT_EQ(StereoWidener(44100.0f, 2).GetRingSize(), 662u);
  EXPECT_EQ(StereoWidener(48000.0f, 2).GetRingSize(), 720u);
  EXPECT_EQ(StereoWidener(std::numeric_limits<float>::quiet_NaN(), 2).GetRingSize(), 0u);
}

// Width only: the side is scaled by 1 + width, the mid kept.
TEST(StereoWidener, WidthScalesTheSideSignal) {
  const Pair input(500);
  for (float width : {0.0f, -1.0f, 1.0f, 0.37f, 2.5f}) {
    StereoWidener widener(48000.0f, 2);
    widener.SetWidth(width);
    Pair x = input;
    EXPECT_NO_ALLOCATION(widener.ProcessInPlace(500, x.ptr));
    for (std::size_t i = 0; i < 500; ++i) {
      const double mid = 0.5 * (double(input.l[i]) + input.r[i]);
      const double side = 0.5 * (double(input.l[i]) - input.r[i]) * (1.0 + width);
      ASSERT_NEAR(x.l[i], mid + side, 1e-6) << "width " << width;
      ASSERT_NEAR(x.r[i], mid - side, 1e-6) << "width " << width;
    }
  }
}

// A positive delay holds the right channel back by L - 1 samples, a negative
// one the left; lengths of 0 and 1 do not delay. Blocks of any size agree.
TEST(StereoWidener, DelayIsOneSampleShortOfTheRing) {
  const Pair input(3000, 9);
  struct Case {
    float ms;
    int expectLate;  // samples; sign says which channel
  };
  for (const Case c : {Case{1.0f, 47}, Case{-1.0f, -47}, Case{15.0f, 719}, Case{0.01f, 0}, Case{0.02f, 0},
                       Case{-0.03f, 0}, Case{0.0f, 0}, Case{0.05f, 1}}) {
    for (unsigned block : {1u, 7u, 256u, 257u, 1000u, 3000u}) {
      StereoWidener widener(48000.0f, 2);
      widener.SetDelay(c.ms);
      EXPECT_EQ(widener.GetDelay(), c.ms);
      Pair x = input;
      for (unsigned done = 0; done < 3000; done += block) {
        float* p[] = {x.l.data() + done, x.r.data() + done};
        widener.ProcessInPlace(std::min(block, 3000u - done), p);
      }
      const int late = std::abs(c.expectLate);
      const std::vector<float>& delayedIn = c.expectLate >= 0 ? input.r : input.l;
      const std::vector<float>& delayedOut = c.expectLate >= 0 ? x.r : x.l;
      const std::vector<float>& straightIn = c.expectLate >= 0 ? input.l : input.r;
      const std::vector<float>& straightOut = c.expectLate >= 0 ? x.l : x.r;
      for (int i = 0; i < 3000; ++i) {
        ASSERT_NEAR(delayedOut[i], i < late ? 0.0f : delayedIn[i - late], 1e-6) << c.ms << " ms, frame " << i;
        ASSERT_NEAR(straightOut[i], straightIn[i], 1e-6);
      }
      EXPECT_EQ(widener.GetSystemDelay(), 0u);
    }
  }
}

// Changing the delay clears the ring in use: the first L - 1 delayed samples
// after the change are silence, wherever the write index was.
TEST(StereoWidener, DelayChangeClearsTheRingInUse) {
  StereoWidener widener(48000.0f, 2);
  widener.SetDelay(2.0f);  // L = 96
  Pair warm(1000, 3);
  widener.ProcessInPlace(1000, warm.ptr);
  widener.SetDelay(1.0f);  // L = 48, write index was 1000 % 96 = 40 < 48: kept
  std::vector<float> l(100, 0.5f), r(100, 1.0f);
  float* p[] = {l.data(), r.data()};
  widener.ProcessInPlace(100, p);
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(r[i], i < 47 ? 0.0f : 1.0f) << i;
  }
  // Setting the same delay again clears the history too.
  widener.SetDelay(1.0f);
  l.assign(100, 0.5f);
  r.assign(100, 1.0f);
  widener.ProcessInPlace(100, p);
  EXPECT_EQ(r[46], 0.0f);
  EXPECT_EQ(r[47], 1.0f);
}

// Delays longer than the ring, rates raised later and bad values stay inside
// the ring (run under the sanitizers); other channel counts are untouched.
TEST(StereoWidener, BadInputNeverLeavesTheRing) {
  StereoWidener widener(48000.0f, 2);
  Pair x(2000, 4);
  widener.SetDelay(40.0f);
  EXPECT_EQ(widener.GetDelayLength(), 720u);
  widener.ProcessInPlace(2000, x.ptr);
  widener.SetSampleRate(192000.0f);
  EXPECT_EQ(widener.GetDelayLength(), 720u);
  widener.ProcessInPlace(2000, x.ptr);
  widener.SetDelay(-3.0f);
  EXPECT_EQ(widener.GetDelayLength(), 576u);
  widener.SetSampleRate(8000.0f);  // L = 24, write index pulled to 23
  EXPECT_EQ(widener.GetDelayLength(), 24u);
  widener.ProcessInPlace(2000, x.ptr);
  widener.SetSampleRate(-1.0f);
  widener.SetSampleRate(std::numeric_limits<float>::quiet_NaN());
  widener.SetDelay(std::numeric_limits<float>::quiet_NaN());
  widener.SetWidth(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(widener.GetSampleRate(), 8000.0f);
  EXPECT_EQ(widener.GetDelay(), -3.0f);
  EXPECT_EQ(widener.GetWidth(), 0.0f);
  widener.ProcessInPlace(2000, x.ptr);
  for (float v : x.l) ASSERT_TRUE(std::isfinite(v));

  for (int channels : {0, 1, 6}) {
    StereoWidener other(48000.0f, 2);
    other.SetChannelCount(channels);
    other.SetWidth(1.0f);
    other.SetDelay(5.0f);
    Pair y(300, 8);
    const Pair before = y;
    other.ProcessInPlace(300, y.ptr);
    EXPECT_EQ(y.l, before.l) << channels;
    EXPECT_EQ(y.r, before.r) << channels;
  }
}

// A copy carries the ring and continues exactly like the original.
TEST(StereoWidener, CopyContinuesLikeTheOriginal) {
  StereoWidener a(48000.0f, 2);
  a.SetDelay(-4.0f);
  Pair x(700, 1);
  a.ProcessInPlace(700, x.ptr);
  StereoWidener b(a);
  Pair ya(700, 2);
  Pair yb = ya;
  a.ProcessInPlace(700, ya.ptr);
  b.ProcessInPlace(700, yb.ptr);
  EXPECT_EQ(ya.l, yb.l);
}

}  // namespace
