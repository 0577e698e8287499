#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DelayBuffer.h"

namespace {

// The samples a DelayBuffer of capacity `capacity` holds after `written`,
// oldest first.
std::vector<float> Valid(const std::vector<float>& written, std::size_t capacity) {
  const std::size_t count = std::min(capacity, written.size());
  return std::vector<float>(written.end() - static_cast<long>(count), written.end());
}

std::vector<float> Join(const dsp::DelayBuffer::WorkChunks& c) {
  std::vector<float> out(c.firstBegin, c.firstEnd);
  out.insert(out.end(), c.secondBegin, c.secondEnd);
  return out;
}

// After every write of a random size, Read and GetWorkChunks at every offset
// (and a spread of lengths) agree with the reference history, before and
// after the first wrap.
TEST(DelayBuffer, ReadAndWorkChunksMatchTheHistoryAcrossWraps) {
  constexpr int kCapacity = 61;
  dsp::DelayBuffer buffer;
  buffer.Init(kCapacity);
  EXPECT_EQ(buffer.GetSize(), kCapacity);
  EXPECT_EQ(buffer.GetValidDataSize(), 0);
  const std::vector<float> stream = vextest::Noise(3000, 51);
  std::vector<float> written;
  std::vector<float> out(kCapacity + 10);
  std::mt19937 rng(52);
  std::size_t done = 0;
  while (done + kCapacity < stream.size()) {
    const int n = std::uniform_int_distribution<int>(1, kCapacity)(rng);
    EXPECT_NO_ALLOCATION(buffer.Write(stream.data() + done, n));
    written.insert(written.end(), stream.begin() + static_cast<long>(done),
                   stream.begin() + static_cast<long>(done) + n);
    done += static_cast<std::size_t>(n);
    const std::vector<float> valid = Valid(written, kCapacity);
    ASSERT_EQ(buffer.GetValidDataSize(), static_cast<int>(valid.size()));
    for (int offset = -1; offset <= static_cast<int>(valid.size()) + 1; ++offset) {
      const std::size_t skip = static_cast<std::size_t>(std::max(0, offset));
      const std::vector<float> rest = skip < valid.size()
                                          ? std::vector<float>(valid.begin() + static_cast<long>(skip), valid.end())
                                          : std::vector<float>();
      for (int len : {1, 7, kCapacity + 10}) {
        int got = -1;
        EXPECT_NO_ALLOCATION(got = buffer.Read(out.data(), len, offset));
        const std::size_t expected = std::min(rest.size(), static_cast<std::size_t>(len));
        ASSERT_EQ(got, static_cast<int>(expected)) << "offset " << offset << " len " << len;
        ASSERT_EQ(std::vector<float>(out.begin(), out.begin() + got),
                  std::vector<float>(rest.begin(), rest.begin() + static_cast<long>(expected)));
      }
      dsp::DelayBuffer::WorkChunks chunks{};
      EXPECT_NO_ALLOCATION(chunks = buffer.GetWorkChunks(offset));
      ASSERT_EQ(Join(chunks), rest) << "offset " << offset;
    }
  }
}

// A write that ends exactly on the end of the array wraps the position to
// the start: the whole capacity is valid and is one stretch.
TEST(DelayBuffer, WriteEndingOnTheEndWraps) {
  dsp::DelayBuffer buffer;
  buffer.Init(8);
  const std::vector<float> a = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  buffer.Write(a.data(), 5);
  EXPECT_EQ(buffer.GetValidDataSize(), 5);
  const dsp::DelayBuffer::WorkChunks before = buffer.GetWorkChunks(0);
  EXPECT_EQ(before.secondBegin, before.secondEnd);
  buffer.Write(a.data() + 5, 3);
  EXPECT_EQ(buffer.GetValidDataSize(), 8);
  const dsp::DelayBuffer::WorkChunks after = buffer.GetWorkChunks(0);
  EXPECT_EQ(after.firstEnd - after.firstBegin, 8);
  EXPECT_EQ(after.secondBegin, after.secondEnd);
  EXPECT_EQ(Join(after), std::vector<float>(a.begin(), a.begin() + 8));

  // Past both stretches: both empty, at the start of the array.
  const dsp::DelayBuffer::WorkChunks none = buffer.GetWorkChunks(8);
  EXPECT_EQ(none.firstBegin, none.firstEnd);
  EXPECT_EQ(none.secondBegin, none.secondEnd);
  EXPECT_EQ(none.firstBegin, after.firstBegin);

  // Writing straight into the work chunks is seen by Read.
  *buffer.GetWorkChunks(2).firstBegin = 100.0f;
  std::vector<float> out(8);
  EXPECT_EQ(buffer.Read(out.data(), 8, 0), 8);
  EXPECT_EQ(out[2], 100.0f);

  // Longer than the capacity: the newest samples survive, in order.
  buffer.Write(a.data(), 12);
  EXPECT_EQ(buffer.Read(out.data(), 8, 0), 8);
  EXPECT_EQ(out, std::vector<float>(a.begin() + 4, a.end()));
  buffer.Write(a.data(), 3);
  EXPECT_EQ(buffer.Read(out.data(), 8, 0), 8);
  EXPECT_EQ(out, (std::vector<float>{8, 9, 10, 11, 12, 1, 2, 3}));

  buffer.Reset();
  EXPECT_EQ(buffer.GetValidDataSize(), 0);
  EXPECT_EQ(buffer.Read(out.data(), 8, 0), 0);
  buffer.Write(nullptr, 3);
  buffer.Write(a.data(), -2);
  EXPECT_EQ(buffer.GetValidDataSize(), 0);

  dsp::DelayBuffer copy(buffer);
  buffer.Write(a.data(), 2);
  EXPECT_EQ(copy.GetValidDataSize(), 0);
  copy = buffer;
  EXPECT_EQ(copy.Read(out.data(), 8, 0), 2);
  EXPECT_EQ(out[1], 2.0f);
}

TEST(MultiChannelDelayBuffer, ChannelsAreIndependentAndOutOfRangeIsIgnored) {
  dsp::MultiChannelDelayBuffer buffers;
  EXPECT_EQ(buffers.GetValidDataSize(), 0);
  buffers.Init(3, 16);
  EXPECT_EQ(buffers.GetNumChannels(), 3);
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
  EXPECT_EQ(std::vector<float>(o0.begin(), o0.begin() + 6),
            std::vector<float>(data[0].begin() + 4, data[0].begin() + 10));
  EXPECT_EQ(std::vector<float>(o1.begin(), o1.begin() + 6),
            std::vector<float>(data[1].begin() + 4, data[1].begin() + 10));
  // Channel 2 wrapped: its 16 newest samples are data[2][6, 22).
  EXPECT_EQ(std::vector<float>(o2.begin(), o2.begin() + 12),
            std::vector<float>(data[2].begin() + 10, data[2].begin() + 22));
  EXPECT_EQ(buffers.Read(2, o2.data(), 3, 0), 3);
  EXPECT_EQ(o2[0], data[2][6]);
  EXPECT_EQ(buffers.Read(5, o2.data(), 3, 0), 0);

  const std::vector<dsp::DelayBuffer::WorkChunks> chunks = buffers.GetWorkChunks(1);
  ASSERT_EQ(chunks.size(), 3u);
  EXPECT_EQ(Join(chunks[1]), std::vector<float>(data[1].begin() + 1, data[1].begin() + 10));

  dsp::MultiChannelDelayBuffer copy(buffers);
  buffers.Reset();
  EXPECT_EQ(buffers.GetValidDataSize(), 0);
  EXPECT_EQ(copy.GetValidDataSize(), 10);
  EXPECT_EQ(copy.Read(0, o0.data(), 2, 0), 2);
  EXPECT_EQ(o0[1], data[0][1]);
}

// Blocks of varying size (never above the max block size) written and read
// once per cycle come back delayed by exactly the delay; channels the source
// flags as silent go in as zeros whatever their samples hold; the read block
// is marked as carrying sound.
TEST(AudioDelayBuffer, DelaysExactlyOverManyCycles) {
  constexpr std::uint32_t kMaxBlock = 256;
  for (std::uint32_t delay : {0u, 1u, 100u, 256u, 1000u}) {
    dsp::AudioDelayBuffer ring;
    ring.Init(2, delay, kMaxBlock);
    EXPECT_EQ(ring.GetDelay(), delay);
    EXPECT_EQ(ring.GetUseSize(), kMaxBlock + delay);
    dsp::AudioBuffer in(2, kMaxBlock);
    dsp::AudioBuffer out(2, kMaxBlock);
    std::vector<float> stream[2];
    std::vector<float> delayed[2];
    const std::vector<float> noise = vextest::Noise(kMaxBlock * 2, 71);
    std::mt19937 rng(72 + delay);
    for (int cycle = 0; cycle < 300; ++cycle) {
      const std::uint32_t n = std::uniform_int_distribution<std::uint32_t>(1, kMaxBlock)(rng);
      in.SetUseSize(n);
      out.SetUseSize(n);
      in.ClearZero();
      const bool silentRight = cycle % 3 == 1;
      for (std::uint32_t ch = 0; ch < 2; ++ch) {
        for (std::uint32_t i = 0; i < n; ++i) in[ch][i] = noise[(cycle * 37 + i + ch * kMaxBlock) % noise.size()];
        for (std::uint32_t i = 0; i < n; ++i) stream[ch].push_back(ch == 1 && silentRight ? 0.0f : in[ch][i]);
      }
      if (silentRight) in.SetChannelZero(1);
      out.SetChannelZero(0);
      EXPECT_NO_ALLOCATION(ring.Write(in));
      EXPECT_NO_ALLOCATION(ring.Read(out));
      EXPECT_FALSE(out.IsChannelZero(0));
      EXPECT_FALSE(out.IsChannelZero(1));
      for (std::uint32_t ch = 0; ch < 2; ++ch) delayed[ch].insert(delayed[ch].end(), out[ch], out[ch] + n);
    }
    for (std::uint32_t ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(delayed[ch].size(), stream[ch].size());
      for (std::size_t t = 0; t < stream[ch].size(); ++t) {
        const float expected = t < delay ? 0.0f : stream[ch][t - delay];
        ASSERT_EQ(delayed[ch][t], expected) << "delay " << delay << " channel " << ch << " sample " << t;
      }
    }
  }
}

// SetDelay re-initialises with the current length plus the new delay, so the
// length grows with every call; the new delay is exact and the ring silent.
TEST(AudioDelayBuffer, SetDelayGrowsTheLengthAndRestartsSilent) {
  dsp::AudioDelayBuffer ring;
  ring.Init(1, 10, 64);
  EXPECT_EQ(ring.GetUseSize(), 74u);
  dsp::AudioBuffer in(1, 64);
  dsp::AudioBuffer out(1, 64);
  for (std::uint32_t i = 0; i < 64; ++i) in[0][i] = 1.0f + static_cast<float>(i);
  ring.Write(in);
  ring.Read(out);
  ring.SetDelay(20);
  EXPECT_EQ(ring.GetDelay(), 20u);
  EXPECT_EQ(ring.GetUseSize(), 94u);
  ring.SetDelay(5);
  EXPECT_EQ(ring.GetUseSize(), 99u);
  ring.Write(in);
  ring.Read(out);
  for (std::uint32_t i = 0; i < 64; ++i) ASSERT_EQ(out[0][i], i < 5 ? 0.0f : static_cast<float>(i - 4)) << i;

  // A mono source into a stereo ring, read into three channels: missing
  // source channels go in silent, missing ring channels come out silent.
  dsp::AudioDelayBuffer stereo;
  stereo.Init(2, 0, 8);
  dsp::AudioBuffer mono(1, 8);
  for (std::uint32_t i = 0; i < 8; ++i) mono[0][i] = 2.0f;
  dsp::AudioBuffer wide(3, 8);
  for (std::uint32_t ch = 0; ch < 3; ++ch) std::fill(wide[ch], wide[ch] + 8, 7.0f);
  stereo.Write(mono);
  stereo.Read(wide);
  EXPECT_EQ(std::vector<float>(wide[0], wide[0] + 8), std::vector<float>(8, 2.0f));
  EXPECT_EQ(std::vector<float>(wide[1], wide[1] + 8), std::vector<float>(8, 0.0f));
  EXPECT_EQ(std::vector<float>(wide[2], wide[2] + 8), std::vector<float>(8, 0.0f));
}

}  // namespace
