#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DataTail.h"

namespace {

// The `count` samples of `stream` that end at `end`, silence before its start.
std::vector<float> History(const std::vector<float>& stream, std::size_t end, std::size_t count) {
  std::vector<float> out(count, 0.0f);
  for (std::size_t i = 0; i < count; ++i) {
    if (end + i >= count) out[i] = stream[end + i - count];
  }
  return out;
}

std::vector<float> Head(const float* p, int n) { return std::vector<float>(p, p + n); }

// Blocks of varying size: before processing the buffer holds the tail of
// history (silence at first, even over old contents) then the new block;
// Shift leaves the newest tail at the front, which the next block's check
// sees. DataTail1D follows the same history.
TEST(DataTail, AppendShiftCyclesReproduceTheHistory) {
  constexpr int kTail = 300, kBlock = 512;
  const std::vector<std::vector<float>> streams = {vextest::Noise(60000, 1), vextest::Noise(60000, 2)};
  dsp::DataTail tail;
  tail.SetTailMode(2, 44100, kBlock, kTail, false);
  tail.ResetToVal(3.0f);
  tail.SetTailMode(2, 44100, kBlock, kTail, true);
  dsp::DataTail1D mono;
  mono.SetTailMode(kBlock, kTail, true);
  std::mt19937 rng(7);
  for (std::size_t block = 0, done = 0; done + kBlock <= streams[0].size(); ++block) {
    const int n = block % 5 == 0 ? kBlock : std::uniform_int_distribution<int>(1, kBlock)(rng);
    const float* src[2] = {streams[0].data() + done, streams[1].data() + done};
    EXPECT_NO_ALLOCATION(tail.Append(src, static_cast<unsigned>(n), 0));
    EXPECT_NO_ALLOCATION(mono.Append(streams[0].data(), n, static_cast<int>(done)));
    ASSERT_EQ(tail.GetTotal(), kTail + n);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(Head(tail.GetPointer()[ch], kTail + n), History(streams[ch], done + n, kTail + n)) << block;
    }
    ASSERT_EQ(Head(mono, kTail + n), History(streams[0], done + n, kTail + n)) << block;
    EXPECT_NO_ALLOCATION(tail.Shift(n));
    EXPECT_NO_ALLOCATION(mono.Shift(n));
    ASSERT_EQ(tail.GetTotal(), kTail);
    done += static_cast<std::size_t>(n);
  }
}

// A null channel appends silence; Shift with less than a full tail held keeps
// total - n; appends past the capacity are cut.
TEST(DataTail, NullChannelPartialShiftAndCapacityCut) {
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 512, 256, true);
  const std::vector<float> a = vextest::Noise(1000, 3);
  tail.ResetToVal(9.0f);
  tail.ResetTotal();
  const float* withNull[2] = {a.data(), nullptr};
  tail.Append(withNull, 3, 2);
  EXPECT_EQ(Head(tail.GetPointer()[0], 4), (std::vector<float>{a[2], a[3], a[4], 9}));
  EXPECT_EQ(Head(tail.GetPointer()[1], 4), (std::vector<float>{0, 0, 0, 9}));
  const float* src[2] = {a.data(), a.data() + 500};
  tail.ResetTotal();
  tail.Append(src, 300, 0);
  tail.Shift(100);
  EXPECT_EQ(Head(tail.GetPointer()[1], tail.GetTotal()), std::vector<float>(a.begin() + 600, a.begin() + 800));
  tail.Append(src, 400, 0);
  tail.Append(src, 400, 0);
  EXPECT_EQ(tail.GetTotal(), 768);
  EXPECT_EQ(Head(tail.GetPointer()[0] + 600, 168), std::vector<float>(a.begin(), a.begin() + 168));
}

// Circular use: after every append the newest m samples, read back through a
// negative offset, end the stream, across many wraps; one append longer than
// the capacity keeps the newest samples.
TEST(DataTail, CircularAppendExtractRoundTrip) {
  constexpr int kCapacity = 100;
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 70, 30, true);
  tail.ResetTotal();
  const std::vector<std::vector<float>> streams = {vextest::Noise(20000, 8), vextest::Noise(20000, 9)};
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> sizes(1, kCapacity);
  std::vector<float> out[2] = {std::vector<float>(kCapacity), std::vector<float>(kCapacity)};
  float* dst[2] = {out[0].data(), out[1].data()};
  const float* src[2] = {streams[0].data(), streams[1].data()};
  for (std::size_t done = 0; done + kCapacity <= streams[0].size();) {
    const int n = sizes(rng);
    EXPECT_NO_ALLOCATION(tail.AppendCircular(src, static_cast<unsigned>(n), static_cast<int>(done)));
    done += static_cast<std::size_t>(n);
    const int m = std::min<int>(static_cast<int>(done), sizes(rng));
    EXPECT_NO_ALLOCATION(tail.ExtractCircular(dst, static_cast<unsigned>(m), -m, 0, 0xFFFFFFFFu));
    for (int ch = 0; ch < 2; ++ch) ASSERT_EQ(Head(dst[ch], m), History(streams[ch], done, static_cast<std::size_t>(m)));
  }
  tail.AppendCircular(src, 237, 0);
  tail.ExtractCircular(dst, kCapacity, 0, 0, 0xFFFFFFFFu);
  EXPECT_EQ(out[0], std::vector<float>(streams[0].begin() + 137, streams[0].begin() + 237));
}

// Growing the tail puts silence in front of the old history; shrinking keeps
// the newest samples; changing the block size keeps everything that fits.
TEST(DataTail, ChangeTailAndBufferSizeKeepTheHistory) {
  const std::vector<float> stream = vextest::Noise(5000, 13);
  dsp::DataTail tail;
  tail.SetTailMode(1, 48000, 64, 40, true);
  std::size_t done = 0;
  auto feed = [&](int n) {
    const float* src[1] = {stream.data() + done};
    tail.Append(src, static_cast<unsigned>(n), 0);
    tail.Shift(n);
    done += static_cast<std::size_t>(n);
  };
  auto held = [&](int n) { return Head(tail.GetPointer()[0], n); };
  for (int i = 0; i < 10; ++i) feed(64);
  tail.ChangeTailSize(100);
  std::vector<float> expected(60, 0.0f);
  const std::vector<float> old = History(stream, done, 40);
  expected.insert(expected.end(), old.begin(), old.end());
  EXPECT_EQ(held(100), expected);
  feed(64);
  feed(64);
  EXPECT_EQ(held(100), History(stream, done, 100));
  tail.ChangeBufferSize(300);
  feed(300);
  EXPECT_EQ(held(100), History(stream, done, 100));
  tail.ChangeTailSize(30);
  EXPECT_EQ(held(30), History(stream, done, 30));
  const float* src[1] = {stream.data() + done};
  tail.Append(src, 200, 0);
  tail.ChangeBufferSize(50);  // the oldest held samples no longer fit
  EXPECT_EQ(held(80), History(stream, done + 200, 80));
}

TEST(DataTail, ReservedShapingKeepsTheStorage) {
  dsp::DataTail a;
  a.ReserveMemory(2, 1024);
  a.SetTailMode(2, 48000, 16, 4, true);
  const float* before = a.GetPointer()[0];
  a.SetTailMode(2, 48000, 500, 4, true);
  EXPECT_EQ(a.GetPointer()[0], before);
}

}  // namespace
