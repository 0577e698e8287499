#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DelayLine.h"

namespace {

using dsp::utility::DelayLine;

// L = ceil(rate * maxMs / 1000) + 1; delays clamp to [0, maxMs] and L - 1
// samples; ms round half up; NaN is ignored; unusable shapes pass through.
TEST(DelayLine, LengthAndClampingFollowTheMaximumDelay) {
  DelayLine line(48000.0f, 10.0f);
  EXPECT_EQ(line.GetBufferLength(), 481u);
  line.SetDelayMillis(20.0f);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelaySamples(1000);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelayMillis(-4.0f);
  EXPECT_EQ(line.GetDelaySamples(), 0u);
  DelayLine cd(44100.0f, 5.0f);
  EXPECT_EQ(cd.GetBufferLength(), 222u);  // ceil(220.5) + 1
  cd.SetDelayMillis(1.0f);                // 44.1 samples
  EXPECT_EQ(cd.GetDelaySamples(), 44u);
  cd.SetDelayMillis(1.02f);  // 44.982 samples
  EXPECT_EQ(cd.GetDelaySamples(), 45u);
  cd.SetDelayMillis(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(cd.GetDelaySamples(), 45u);
  EXPECT_EQ(DelayLine(48000.0f, std::numeric_limits<float>::quiet_NaN()).GetBufferLength(), 1u);
}

// Noise in blocks of random size through lines of several lengths, the delay
// changed between blocks (by ms and by samples, including 0, 1 and the
// maximum). Reference: the line holds the last L inputs and the output is the
// input `delay` back, whatever the delay was before.
TEST(DelayLine, MatchesAReferenceDelayWithChangesMidStream) {
  const std::vector<float> input = vextest::Noise(40000, 22);
  for (const auto& [rate, maxMs] : {std::pair{48000.0f, 10.0f}, std::pair{1000.0f, 3.0f}, std::pair{1000.0f, 1.0f},
                                    std::pair{8000.0f, 100.0f}, std::pair{44100.0f, 0.02f}}) {
    DelayLine line(rate, maxMs);
    const unsigned length = line.GetBufferLength();
    std::deque<float> history(length, 0.0f);
    std::mt19937 rng(23);
    for (std::size_t change = 0, done = 0; done < input.size(); ++change) {
      if (change % 4 == 0) {
        line.SetDelaySamples(std::uniform_int_distribution<unsigned>(0, length + 5)(rng));
      } else if (change % 4 == 1) {
        line.SetDelayMillis(std::uniform_real_distribution<float>(-1.0f, maxMs * 1.2f)(rng));
      } else {
        line.SetDelaySamples(change % 4 == 2 ? length - 1 : static_cast<unsigned>(change % 8 == 3));
      }
      const unsigned delay = line.GetDelaySamples();
      ASSERT_LT(delay, length);
      const std::size_t n = std::min<std::size_t>(rng() % (3 * length + 40) + 1, input.size() - done);
      std::vector<float> block(input.begin() + static_cast<long>(done), input.begin() + static_cast<long>(done + n));
      EXPECT_NO_ALLOCATION(line.ProcessInPlace(static_cast<unsigned>(n), block.data()));
      for (std::size_t i = 0; i < n; ++i) {
        history.pop_front();
        history.push_back(input[done + i]);
        ASSERT_EQ(block[i], history[length - 1 - delay]) << "length " << length << " delay " << delay << " at " << done;
      }
      done += n;
    }
  }
}

// Reset silences only the samples in flight: with the read index ahead of the
// write index it clears [0, write) and [read, L - 1), so the last element is
// still heard.
TEST(DelayLine, ResetLeavesTheLastElementWhenReadIsAhead) {
  DelayLine line(1000.0f, 4.0f);
  line.SetDelaySamples(2);
  std::vector<float> ramp = {1, 2, 3, 4, 5, 6};
  line.ProcessInPlace(6, ramp.data());
  EXPECT_EQ(ramp, (std::vector<float>{0, 0, 1, 2, 3, 4}));
  EXPECT_NO_ALLOCATION(line.Reset());  // write index 1, read index 4, buffer {6, 2, 3, 4, 5}
  std::vector<float> next = {7, 8, 9, 10};
  line.ProcessInPlace(4, next.data());
  EXPECT_EQ(next, (std::vector<float>{5, 0, 7, 8}));
}

}  // namespace
