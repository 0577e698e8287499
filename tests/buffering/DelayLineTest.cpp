#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <limits>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DelayLine.h"

namespace {

using dsp::utility::DelayLine;

// Independent model: the line always holds the last L inputs, so the output
// is the input `delay` samples back (silence before the first input),
// whatever the delay was before.
class ReferenceDelay {
 public:
  explicit ReferenceDelay(std::size_t length) : history_(length, 0.0f) {}
  float Process(float x, unsigned delay) {
    history_.pop_front();
    history_.push_back(x);
    return history_[history_.size() - 1 - delay];
  }

 private:
  std::deque<float> history_;
};

TEST(DelayLine, LengthAndClampingFollowTheMaximumDelay) {
  DelayLine line(48000.0f, 10.0f);
  EXPECT_EQ(line.GetBufferLength(), 481u);
  EXPECT_EQ(line.GetSampleRate(), 48000.0f);
  line.SetDelayMillis(20.0f);
  EXPECT_EQ(line.GetDelayMillis(), 10.0f);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelaySamples(1000);
  EXPECT_EQ(line.GetDelaySamples(), 480u);
  line.SetDelaySamples(96);
  EXPECT_FLOAT_EQ(line.GetDelayMillis(), 2.0f);
  line.SetDelayMillis(-4.0f);
  EXPECT_EQ(line.GetDelayMillis(), 0.0f);
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
  EXPECT_FLOAT_EQ(cd.GetDelayMillis(), 1.02f);
  for (float maxMs : {0.0f, -3.0f, std::numeric_limits<float>::quiet_NaN()}) {
    DelayLine empty(48000.0f, maxMs);
    EXPECT_EQ(empty.GetBufferLength(), 1u);
    empty.SetDelayMillis(5.0f);
    empty.SetDelaySamples(7);
    EXPECT_EQ(empty.GetDelaySamples(), 0u);
  }
  DelayLine noRate(0.0f, 10.0f);
  EXPECT_EQ(noRate.GetBufferLength(), 1u);
}

TEST(DelayLine, ZeroDelayPassesTheInputThrough) {
  DelayLine line(48000.0f, 10.0f);
  const std::vector<float> in = vextest::Noise(2000, 21);
  std::vector<float> data = in;
  EXPECT_NO_ALLOCATION(line.ProcessInPlace(static_cast<unsigned>(data.size()), data.data()));
  EXPECT_EQ(data, in);
  line.ProcessInPlace(10, nullptr);
}

// Streams noise through lines of several lengths in blocks of random size and
// changes the delay between blocks (by milliseconds and by samples, covering
// 0, 1, the maximum and values in between); every output sample must match
// the reference.
TEST(DelayLine, MatchesAReferenceDelayWithChangesMidStream) {
  struct Shape {
    float rate;
    float maxMs;
  };
  for (const Shape shape : {Shape{48000.0f, 10.0f}, Shape{1000.0f, 3.0f}, Shape{1000.0f, 1.0f}, Shape{8000.0f, 100.0f},
                            Shape{44100.0f, 0.02f}}) {
    DelayLine line(shape.rate, shape.maxMs);
    const unsigned length = line.GetBufferLength();
    ReferenceDelay reference(length);
    const std::vector<float> input = vextest::Noise(40000, 22);
    std::mt19937 rng(23);
    std::uniform_int_distribution<unsigned> blockSizes(1, 3 * length + 40);
    std::uniform_int_distribution<unsigned> delays(0, length + 5);
    std::vector<float> block;
    std::size_t done = 0;
    int changes = 0;
    while (done < input.size()) {
      if (changes % 4 == 0) {
        line.SetDelaySamples(delays(rng));
      } else if (changes % 4 == 1) {
        line.SetDelayMillis(std::uniform_real_distribution<float>(-1.0f, shape.maxMs * 1.2f)(rng));
      } else {
        line.SetDelaySamples(changes % 4 == 2 ? length - 1 : 1);
      }
      ++changes;
      const unsigned delay = line.GetDelaySamples();
      ASSERT_LT(delay, length);
      const std::size_t n = std::min<std::size_t>(blockSizes(rng), input.size() - done);
      block.assign(input.begin() + static_cast<long>(done), input.begin() + static_cast<long>(done + n));
      EXPECT_NO_ALLOCATION(line.ProcessInPlace(static_cast<unsigned>(n), block.data()));
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(block[i], reference.Process(input[done + i], delay))
            << "length " << length << " delay " << delay << " sample " << done + i;
      }
      done += n;
    }
  }
}

// Reset silences the samples in flight only: with the read index behind the
// write index the next `delay` outputs are zero, and the signal continues
// afterwards.
TEST(DelayLine, ResetSilencesTheSamplesInFlight) {
  DelayLine line(48000.0f, 10.0f);
  line.SetDelaySamples(100);
  std::vector<float> data = vextest::Noise(300, 24);
  line.ProcessInPlace(300, data.data());
  EXPECT_NO_ALLOCATION(line.Reset());
  std::vector<float> ones(250, 1.0f);
  line.ProcessInPlace(250, ones.data());
  for (std::size_t i = 0; i < 250; ++i) ASSERT_EQ(ones[i], i < 100 ? 0.0f : 1.0f) << i;
}

// With the read index ahead of the write index, Reset clears [0, write) and
// [read, L - 1): the last element keeps its sample and is heard afterwards.
TEST(DelayLine, ResetLeavesTheLastBufferElement) {
  DelayLine line(1000.0f, 4.0f);
  ASSERT_EQ(line.GetBufferLength(), 5u);
  line.SetDelaySamples(2);
  std::vector<float> data = {1, 2, 3, 4, 5, 6};
  line.ProcessInPlace(6, data.data());
  EXPECT_EQ(data, (std::vector<float>{0, 0, 1, 2, 3, 4}));
  // Now write index 1, read index 4, buffer {6, 2, 3, 4, 5}.
  line.Reset();
  std::vector<float> next = {7, 8, 9, 10};
  line.ProcessInPlace(4, next.data());
  EXPECT_EQ(next, (std::vector<float>{5, 0, 7, 8}));
}

// Lengthening the delay while running does not clear: the samples between
// the old and the new read position are heard as they are.
TEST(DelayLine, DelayChangeReplaysStoredSamples) {
  DelayLine line(1000.0f, 10.0f);
  std::vector<float> ramp(8);
  for (int i = 0; i < 8; ++i) ramp[i] = static_cast<float>(i + 1);
  line.ProcessInPlace(8, ramp.data());
  line.SetDelaySamples(3);
  std::vector<float> next = {20, 21, 22, 23};
  line.ProcessInPlace(4, next.data());
  EXPECT_EQ(next, (std::vector<float>{6, 7, 8, 20}));
}

TEST(DelayLine, IsReferenceCounted) {
  vexcore::utility::RefPtr<DelayLine> a = vexcore::utility::MakeRef<DelayLine>(48000.0f, 5.0f);
  EXPECT_EQ(a->GetRefCount(), 1);
  {
    vexcore::utility::RefPtr<DelayLine> b = a;
    EXPECT_EQ(a->GetRefCount(), 2);
  }
  EXPECT_EQ(a->GetRefCount(), 1);
}

}  // namespace
