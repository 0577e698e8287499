#include <gtest/gtest.h>

#include <deque>
#include <limits>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DelayLine.h"

namespace {

using dsp::utility::DelayLine;

TEST(DelayLine, LengthAndClampingFollowTheMaximumDelay) {
  DelayLine line(48000.0f, 10.0f);
  EXPECT_EQ(line.GetBufferLength(), 481u);
  line.SetDelayMillis(20.0f);
  EXPECT_EQ(line.GetDelayMillis(), 10.0f);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelaySamples(1000);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelaySamples(96);
  EXPECT_FLOAT_EQ(line.GetDelayMillis(), 2.0f);
  line.SetDelayMillis(-4.0f);
  EXPECT_EQ(line.GetDelaySamples(), 0u);

  // Milliseconds round half up to whole samples: 1 ms at 44.1 kHz is 44.1.
  DelayLine cd(44100.0f, 5.0f);
  EXPECT_EQ(cd.GetBufferLength(), 222u);  // ceil(220.5) + 1
  cd.SetDelayMillis(1.0f);
  EXPECT_EQ(cd.GetDelaySamples(), 44u);
  cd.SetDelayMillis(1.02f);  // 44.982
  EXPECT_EQ(cd.GetDelaySamples(), 45u);

  // A NaN delay is ignored; unusable construction values give a one-sample
  // line that can only pass the signal through.
  cd.SetDelayMillis(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(cd.GetDelaySamples(), 45u);
  for (float maxMs : {0.0f, -3.0f, std::numeric_limits<float>::quiet_NaN()}) {
    DelayLine empty(48000.0f, maxMs);
    EXPECT_EQ(empty.GetBufferLength(), 1u);
    empty.SetDelaySamples(7);
    EXPECT_EQ(empty.GetDelaySamples(), 0u);
  }
  EXPECT_EQ(DelayLine(0.0f, 10.0f).GetBufferLength(), 1u);
}

// Noise in blocks of random size through lines of several lengths, the delay
// changed between blocks (by ms and by samples, including 0, 1 and the
// maximum). Reference: the line holds the last L inputs and the output is the
// input `delay` back, whatever the delay was before (so a longer delay
// replays what is stored).
TEST(DelayLine, MatchesAReferenceDelayWithChangesMidStream) {
  struct Shape {
    float rate, maxMs;
  };
  const std::vector<float> input = vextest::Noise(40000, 22);
  for (const Shape shape : {Shape{48000.0f, 10.0f}, Shape{1000.0f, 3.0f}, Shape{1000.0f, 1.0f}, Shape{8000.0f, 100.0f},
                            Shape{44100.0f, 0.02f}}) {
    DelayLine line(shape.rate, shape.maxMs);
    const unsigned length = line.GetBufferLength();
    std::deque<float> history(length, 0.0f);
    std::mt19937 rng(23);
    std::uniform_int_distribution<unsigned> blockSizes(1, 3 * length + 40);
    std::uniform_int_distribution<unsigned> delays(0, length + 5);
    std::vector<float> block;
    std::size_t done = 0;
    for (int change = 0; done < input.size(); ++change) {
      if (change % 4 == 0) {
        line.SetDelaySamples(delays(rng));
      } else if (change % 4 == 1) {
        line.SetDelayMillis(std::uniform_real_distribution<float>(-1.0f, shape.maxMs * 1.2f)(rng));
      } else {
        line.SetDelaySamples(change % 4 == 2 ? length - 1 : static_cast<unsigned>(change % 8 == 3));
      }
      const unsigned delay = line.GetDelaySamples();
      ASSERT_LT(delay, length);
      const std::size_t n = std::min<std::size_t>(blockSizes(rng), input.size() - done);
      block.assign(input.begin() + static_cast<long>(done), input.begin() + static_cast<long>(done + n));
      EXPECT_NO_ALLOCATION(line.ProcessInPlace(static_cast<unsigned>(n), block.data()));
      for (std::size_t i = 0; i < n; ++i) {
        history.pop_front();
        history.push_back(input[done + i]);
        ASSERT_EQ(block[i], history[length - 1 - delay])
            << "length " << length << " delay " << delay << " sample " << done + i;
      }
      done += n;
    }
  }
}

// Reset silences the samples in flight only. With the read index behind the
// write index the next `delay` outputs are zero; with it ahead, Reset clears
// [0, write) and [read, L - 1), so the last element is still heard.
TEST(DelayLine, ResetSilencesOnlyTheSamplesInFlight) {
  DelayLine line(48000.0f, 10.0f);
  line.SetDelaySamples(100);
  std::vector<float> data = vextest::Noise(300, 24);
  line.ProcessInPlace(300, data.data());
  EXPECT_NO_ALLOCATION(line.Reset());
  std::vector<float> ones(250, 1.0f);
  line.ProcessInPlace(250, ones.data());
  for (std::size_t i = 0; i < 250; ++i) ASSERT_EQ(ones[i], i < 100 ? 0.0f : 1.0f) << i;
  line.ProcessInPlace(10, nullptr);

  DelayLine shortLine(1000.0f, 4.0f);
  ASSERT_EQ(shortLine.GetBufferLength(), 5u);
  shortLine.SetDelaySamples(2);
  std::vector<float> ramp = {1, 2, 3, 4, 5, 6};
  shortLine.ProcessInPlace(6, ramp.data());
  EXPECT_EQ(ramp, (std::vector<float>{0, 0, 1, 2, 3, 4}));
  // Now write index 1, read index 4, buffer {6, 2, 3, 4, 5}.
  shortLine.Reset();
  std::vector<float> next = {7, 8, 9, 10};
  shortLine.ProcessInPlace(4, next.data());
  EXPECT_EQ(next, (std::vector<float>{5, 0, 7, 8}));
}

}  // namespace
