#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DelayBuffer.h"

namespace {

std::vector<float> Join(const dsp::DelayBuffer::WorkChunks& c) {
  std::vector<float> out(c.firstBegin, c.firstEnd);
  out.insert(out.end(), c.secondBegin, c.secondEnd);
  return out;
}

// After every write of a random size (some longer than the capacity, which
// must keep the newest samples), Read and GetWorkChunks at every offset agree
// with the reference history, before and after the first wrap. The first
// stretch runs from the write position to the end of the array.
TEST(DelayBuffer, ReadAndWorkChunksMatchTheHistoryAcrossWraps) {
  constexpr int kCapacity = 61;
  dsp::DelayBuffer buffer;
  buffer.Init(kCapacity);
  const std::vector<float> stream = vextest::Noise(4000, 51);
  std::vector<float> out(kCapacity + 10);
  std::mt19937 rng(52);
  for (std::size_t step = 0, done = 0; done + 2 * kCapacity < stream.size(); ++step) {
    const int n = step < 2 ? (step == 0 ? 5 : kCapacity - 5)
                           : std::uniform_int_distribution<int>(1, rng() % 8 == 0 ? 2 * kCapacity : kCapacity)(rng);
    EXPECT_NO_ALLOCATION(buffer.Write(stream.data() + done, n));
    done += static_cast<std::size_t>(n);
    const auto end = stream.begin() + static_cast<long>(done);
    const std::vector<float> valid(end - std::min<long>(kCapacity, static_cast<long>(done)), end);
    ASSERT_EQ(buffer.GetValidDataSize(), static_cast<int>(valid.size()));
    const dsp::DelayBuffer::WorkChunks whole = buffer.GetWorkChunks(0);
    const long first = done < kCapacity ? static_cast<long>(done) : kCapacity - static_cast<long>(done % kCapacity);
    ASSERT_EQ(whole.firstEnd - whole.firstBegin, first);
    for (int offset = -1; offset <= static_cast<int>(valid.size()) + 1; ++offset) {
      const long skip = std::min<long>(std::max(0, offset), static_cast<long>(valid.size()));
      const std::vector<float> rest(valid.begin() + skip, valid.end());
      for (int len : {7, kCapacity + 10}) {
        int got = -1;
        EXPECT_NO_ALLOCATION(got = buffer.Read(out.data(), len, offset));
        ASSERT_EQ(got, std::min<long>(static_cast<long>(rest.size()), len)) << "offset " << offset << " len " << len;
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + got, rest.begin()));
      }
      dsp::DelayBuffer::WorkChunks chunks{};
      EXPECT_NO_ALLOCATION(chunks = buffer.GetWorkChunks(offset));
      ASSERT_EQ(Join(chunks), rest) << "offset " << offset;
    }
  }
}

// Every channel is its own DelayBuffer: out-of-range channels and null
// sources are ignored, and each channel reads back its own newest samples.
TEST(MultiChannelDelayBuffer, ChannelsKeepTheirOwnHistory) {
  dsp::MultiChannelDelayBuffer buffer;
  buffer.Init(2, 8);
  vextest::PlanarBlock in(2, 12);
  for (int i = 0; i < 12; ++i) in.Channel(0)[i] = float(i), in.Channel(1)[i] = float(-i);
  EXPECT_NO_ALLOCATION(buffer.Write(in.Pointers(), 12));
  buffer.Write(2, in.Pointers()[0], 4);
  buffer.Write(0, nullptr, 4);
  vextest::PlanarBlock out(2, 8);
  EXPECT_EQ(buffer.Read(out.Pointers(), 8, 3), 5);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(out.Channel(0)[i], float(7 + i));
    EXPECT_EQ(out.Channel(1)[i], float(-7 - i));
  }
  EXPECT_EQ(buffer.GetValidDataSize(), 8);
  buffer.Reset();
  EXPECT_EQ(buffer.GetValidDataSize(), 0);
}

// Blocks of varying size (up to the max block size) written and read once
// per cycle come back delayed by exactly the delay; channels flagged silent
// go in as zeros whatever their samples hold; the read block carries sound.
TEST(AudioDelayBuffer, DelaysExactlyOverManyCycles) {
  constexpr std::uint32_t kMaxBlock = 256;
  const std::vector<float> noise = vextest::Noise(kMaxBlock * 2, 71);
  for (std::uint32_t delay : {0u, 1u, 100u, 256u, 1000u}) {
    dsp::AudioDelayBuffer ring;
    ring.Init(2, delay, kMaxBlock);
    dsp::AudioBuffer in(2, kMaxBlock), out(2, kMaxBlock);
    std::vector<float> stream[2], delayed[2];
    std::mt19937 rng(72 + delay);
    for (int cycle = 0; cycle < 300; ++cycle) {
      const std::uint32_t n = std::uniform_int_distribution<std::uint32_t>(1, kMaxBlock)(rng);
      in.SetUseSize(n);
      out.SetUseSize(n);
      in.ClearZero();
      const bool silentRight = cycle % 3 == 1;
      for (std::uint32_t ch = 0; ch < 2; ++ch) {
        for (std::uint32_t i = 0; i < n; ++i) {
          in[ch][i] = noise[(cycle * 37 + i + ch * kMaxBlock) % noise.size()];
          stream[ch].push_back(ch == 1 && silentRight ? 0.0f : in[ch][i]);
        }
      }
      if (silentRight) in.SetChannelZero(1);
      out.SetChannelZero(0);
      EXPECT_NO_ALLOCATION(ring.Write(in));
      EXPECT_NO_ALLOCATION(ring.Read(out));
      EXPECT_FALSE(out.IsChannelZero(0));
      for (std::uint32_t ch = 0; ch < 2; ++ch) delayed[ch].insert(delayed[ch].end(), out[ch], out[ch] + n);
    }
    for (std::uint32_t ch = 0; ch < 2; ++ch) {
      for (std::size_t t = 0; t < stream[ch].size(); ++t) {
        ASSERT_EQ(delayed[ch][t], t < delay ? 0.0f : stream[ch][t - delay])
            << "delay " << delay << " channel " << ch << " sample " << t;
      }
    }
  }
}

// SetDelay re-initialises with the current length plus the new delay, so the
// length grows with every call; the new delay is exact and the ring silent.
TEST(AudioDelayBuffer, SetDelayGrowsTheLengthAndKeepsTheNewDelayExact) {
  dsp::AudioDelayBuffer ring;
  ring.Init(1, 10, 64);
  dsp::AudioBuffer in(1, 64), out(1, 64);
  for (std::uint32_t i = 0; i < 64; ++i) in[0][i] = 1.0f + static_cast<float>(i);
  ring.Write(in);
  ring.Read(out);
  ring.SetDelay(20);
  ring.SetDelay(5);
  EXPECT_EQ(ring.GetUseSize(), 99u);
  ring.Write(in);
  ring.Read(out);
  for (std::uint32_t i = 0; i < 64; ++i) ASSERT_EQ(out[0][i], i < 5 ? 0.0f : static_cast<float>(i - 4)) << i;
}

}  // namespace
