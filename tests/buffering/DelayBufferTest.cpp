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
// must keep the newest samples), Read and GetWorkChunks at every offset and a
// spread of lengths agree with the reference history, before and after the
// first wrap. The first stretch runs from the write position to the end of
// the array, so a write ending on the end leaves one whole stretch.
TEST(DelayBuffer, ReadAndWorkChunksMatchTheHistoryAcrossWraps) {
  constexpr int kCapacity = 61;
  dsp::DelayBuffer buffer;
  buffer.Init(kCapacity);
  const std::vector<float> stream = vextest::Noise(4000, 51);
  std::vector<float> out(kCapacity + 10);
  std::mt19937 rng(52);
  std::size_t done = 0;
  for (int step = 0; done + 2 * kCapacity < stream.size(); ++step) {
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
      for (int len : {1, 7, kCapacity + 10}) {
        int got = -1;
        EXPECT_NO_ALLOCATION(got = buffer.Read(out.data(), len, offset));
        const long expected = std::min<long>(static_cast<long>(rest.size()), len);
        ASSERT_EQ(got, expected) << "offset " << offset << " len " << len;
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + got, rest.begin()));
      }
      dsp::DelayBuffer::WorkChunks chunks{};
      EXPECT_NO_ALLOCATION(chunks = buffer.GetWorkChunks(offset));
      ASSERT_EQ(Join(chunks), rest) << "offset " << offset;
    }
  }
}

TEST(DelayBuffer, ChunksAreViewsResetEmptiesCopiesAreDeep) {
  dsp::DelayBuffer buffer;
  buffer.Init(8);
  const std::vector<float> a = {1, 2, 3, 4, 5, 6, 7, 8};
  buffer.Write(a.data(), 8);
  *buffer.GetWorkChunks(2).firstBegin = 100.0f;
  dsp::DelayBuffer copy(buffer);
  buffer.Reset();
  std::vector<float> out(8);
  EXPECT_EQ(buffer.Read(out.data(), 8, 0), 0);
  buffer.Write(nullptr, 3);
  buffer.Write(a.data(), -2);
  EXPECT_EQ(buffer.GetValidDataSize(), 0);
  EXPECT_EQ(copy.Read(out.data(), 8, 0), 8);
  EXPECT_EQ(out, (std::vector<float>{1, 2, 100, 4, 5, 6, 7, 8}));
}

TEST(MultiChannelDelayBuffer, ChannelsAreIndependentAndOutOfRangeIsIgnored) {
  dsp::MultiChannelDelayBuffer buffers;
  buffers.Init(3, 16);
  std::vector<std::vector<float>> data = {vextest::Noise(40, 61), vextest::Noise(40, 62), vextest::Noise(40, 63)};
  float* src[3] = {data[0].data(), data[1].data(), data[2].data()};
  EXPECT_NO_ALLOCATION(buffers.Write(src, 10));
  buffers.Write(-1, src[0], 10);
  buffers.Write(3, src[0], 10);
  buffers.Write(1, nullptr, 10);
  EXPECT_NO_ALLOCATION(buffers.Write(2, src[2] + 10, 12));
  EXPECT_EQ(buffers.GetValidDataSize(), 10);

  std::vector<float> o0(16), o1(16), o2(16);
  float* dst[3] = {o0.data(), o1.data(), o2.data()};
  int copied = 0;
  EXPECT_NO_ALLOCATION(copied = buffers.Read(dst, 16, 4));
  EXPECT_EQ(copied, 12);
  for (std::size_t ch = 0; ch < 2; ++ch) {
    EXPECT_EQ(std::vector<float>(dst[ch], dst[ch] + 6),
              std::vector<float>(data[ch].begin() + 4, data[ch].begin() + 10));
  }
  // Channel 2 wrapped: its 16 newest samples are data[2][6, 22).
  EXPECT_EQ(std::vector<float>(o2.begin(), o2.begin() + 12),
            std::vector<float>(data[2].begin() + 10, data[2].begin() + 22));
  EXPECT_EQ(buffers.Read(5, o2.data(), 3, 0), 0);
  EXPECT_EQ(Join(buffers.GetWorkChunks(1)[1]), std::vector<float>(data[1].begin() + 1, data[1].begin() + 10));
  buffers.Reset();
  EXPECT_EQ(buffers.GetValidDataSize(), 0);
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
// Missing source channels go in silent, missing ring channels come out silent.
TEST(AudioDelayBuffer, SetDelayGrowsTheLengthAndChannelMismatchesAreSilent) {
  dsp::AudioDelayBuffer ring;
  ring.Init(1, 10, 64);
  dsp::AudioBuffer in(1, 64), out(1, 64);
  for (std::uint32_t i = 0; i < 64; ++i) in[0][i] = 1.0f + static_cast<float>(i);
  ring.Write(in);
  ring.Read(out);
  ring.SetDelay(20);
  EXPECT_EQ(ring.GetUseSize(), 94u);
  ring.SetDelay(5);
  EXPECT_EQ(ring.GetUseSize(), 99u);
  ring.Write(in);
  ring.Read(out);
  for (std::uint32_t i = 0; i < 64; ++i) ASSERT_EQ(out[0][i], i < 5 ? 0.0f : static_cast<float>(i - 4)) << i;

  dsp::AudioDelayBuffer stereo;
  stereo.Init(2, 0, 8);
  dsp::AudioBuffer mono(1, 8), wide(3, 8);
  std::fill(mono[0], mono[0] + 8, 2.0f);
  for (std::uint32_t ch = 0; ch < 3; ++ch) std::fill(wide[ch], wide[ch] + 8, 7.0f);
  stereo.Write(mono);
  stereo.Read(wide);
  for (std::uint32_t ch = 0; ch < 3; ++ch) {
    EXPECT_EQ(std::vector<float>(wide[ch], wide[ch] + 8), std::vector<float>(8, ch == 0 ? 2.0f : 0.0f)) << ch;
  }
}

}  // namespace
