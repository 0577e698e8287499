#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DataTail.h"

namespace {

// The `count` samples of `stream` that end at `end`, with silence standing in
// for samples before the stream began.
std::vector<float> History(const std::vector<float>& stream, std::size_t end, std::size_t count) {
  std::vector<float> out(count, 0.0f);
  for (std::size_t i = 0; i < count; ++i) {
    if (end + i >= count) out[i] = stream[end + i - count];
  }
  return out;
}

std::vector<float> Head(const float* p, int n) { return std::vector<float>(p, p + n); }

// The usual cycle over many blocks of varying size: before processing, the
// buffer holds the tail of history (silence at first, even over old
// contents) followed by the new block; after Shift the newest tail samples
// are at the front.
TEST(DataTail, AppendShiftCyclesReproduceTheHistory) {
  constexpr int kTail = 300;
  constexpr int kBlock = 512;
  const std::vector<std::vector<float>> streams = {vextest::Noise(60000, 1), vextest::Noise(60000, 2)};
  dsp::DataTail tail;
  tail.SetTailMode(2, 44100, kBlock, kTail, false);
  tail.ResetToVal(3.0f);
  tail.SetTailMode(2, 44100, kBlock, kTail, true);
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> sizes(1, kBlock);
  std::size_t done = 0;
  for (int block = 0; done + kBlock <= streams[0].size(); ++block) {
    const int n = block % 5 == 0 ? kBlock : sizes(rng);
    const float* src[2] = {streams[0].data() + done, streams[1].data() + done};
    EXPECT_NO_ALLOCATION(tail.Append(src, static_cast<unsigned>(n), 0));
    ASSERT_EQ(tail.GetTotal(), kTail + n);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(Head(tail.GetPointer()[ch], kTail + n), History(streams[ch], done + n, kTail + n)) << block;
    }
    EXPECT_NO_ALLOCATION(tail.Shift(n));
    done += static_cast<std::size_t>(n);
    ASSERT_EQ(tail.GetTotal(), kTail);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(Head(tail.GetPointer()[ch], kTail), History(streams[ch], done, kTail)) << block;
    }
  }
}

// Source offset, a null channel (silence), Shift with less than a full tail
// (keeps total - n), ShiftAll (keeps everything) and appends cut at the
// capacity.
TEST(DataTail, PartialFillsShiftsAndCapacityCut) {
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 512, 256, true);
  const std::vector<float> a = vextest::Noise(1000, 3);
  tail.ResetToVal(9.0f);
  tail.ResetTotal();
  const float* withNull[2] = {a.data(), nullptr};
  tail.Append(withNull, 3, 2);
  EXPECT_EQ(Head(tail.GetPointer()[0], 4), (std::vector<float>{a[2], a[3], a[4], 9}));
  EXPECT_EQ(Head(tail.GetPointer()[1], 4), (std::vector<float>{0, 0, 0, 9}));
  tail.Append(nullptr, 3, 0);
  EXPECT_EQ(tail.GetTotal(), 3);

  const float* src[2] = {a.data(), a.data() + 500};
  tail.ResetTotal();
  tail.Append(src, 300, 0);
  tail.Shift(100);  // 300 < 100 + 256: keeps 200
  EXPECT_EQ(tail.GetTotal(), 200);
  EXPECT_EQ(Head(tail.GetPointer()[1], 200), std::vector<float>(a.begin() + 600, a.begin() + 800));
  tail.Shift(500);
  EXPECT_EQ(tail.GetTotal(), 0);
  tail.Shift(-3);
  EXPECT_EQ(tail.GetTotal(), 0);

  // Past the capacity the append is cut; a Shift beyond the block size still
  // keeps total - n.
  tail.Append(src, 400, 0);
  tail.Append(src, 400, 0);
  EXPECT_EQ(tail.GetTotal(), 768);
  EXPECT_EQ(Head(tail.GetPointer()[0] + 400, 368), std::vector<float>(a.begin(), a.begin() + 368));
  tail.Shift(600);
  EXPECT_EQ(tail.GetTotal(), 168);
  EXPECT_EQ(Head(tail.GetPointer()[0], 168), std::vector<float>(a.begin() + 200, a.begin() + 368));

  EXPECT_NO_ALLOCATION(tail.ShiftAll(25));
  EXPECT_EQ(tail.GetTotal(), 143);
  EXPECT_EQ(Head(tail.GetPointer()[1], 143), std::vector<float>(a.begin() + 725, a.begin() + 868));
  tail.ShiftAll(1000);
  EXPECT_EQ(tail.GetTotal(), 0);
  tail.SetTotal(1000);
  EXPECT_EQ(tail.GetTotal(), 768);
  tail.AddTotal(-1000);
  EXPECT_EQ(tail.GetTotal(), 0);
}

// Circular use: after every append, the newest m samples read back through a
// negative offset equal the end of the stream, across many wraps.
TEST(DataTail, CircularAppendExtractRoundTrip) {
  constexpr int kCapacity = 100;
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 70, 30, true);
  tail.ResetTotal();
  const std::vector<std::vector<float>> streams = {vextest::Noise(20000, 8), vextest::Noise(20000, 9)};
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> sizes(1, kCapacity);
  std::vector<float> out0(kCapacity), out1(kCapacity);
  float* dst[2] = {out0.data(), out1.data()};
  const float* src[2] = {streams[0].data(), streams[1].data()};
  std::size_t done = 0;
  while (done + kCapacity <= streams[0].size()) {
    const int n = sizes(rng);
    EXPECT_NO_ALLOCATION(tail.AppendCircular(src, static_cast<unsigned>(n), static_cast<int>(done)));
    done += static_cast<std::size_t>(n);
    const int m = std::min<int>(static_cast<int>(done), sizes(rng));
    EXPECT_NO_ALLOCATION(tail.ExtractCircular(dst, static_cast<unsigned>(m), -m, 0, 0xFFFFFFFFu));
    ASSERT_EQ(Head(out0.data(), m), History(streams[0], done, static_cast<std::size_t>(m)));
    ASSERT_EQ(Head(out1.data(), m), History(streams[1], done, static_cast<std::size_t>(m)));
  }
  // Offset 0 reads the whole ring oldest first (more than the capacity is
  // cut); a destination offset shifts the output; one channel leaves the
  // other alone.
  std::vector<float> wide(kCapacity + 10, -1.0f);
  std::fill(out0.begin(), out0.end(), -1.0f);
  float* single[2] = {out0.data(), wide.data()};
  tail.ExtractCircular(single, kCapacity + 5, 0, 5, 1);
  EXPECT_EQ(out0, std::vector<float>(kCapacity, -1.0f));
  EXPECT_EQ(std::vector<float>(wide.begin() + 5, wide.end() - 5), History(streams[1], done, kCapacity));
  EXPECT_EQ(wide[4], -1.0f);
  EXPECT_EQ(wide[kCapacity + 5], -1.0f);

  // More than the capacity in one append keeps the newest samples.
  tail.AppendCircular(src, 237, 0);
  tail.ExtractCircular(dst, kCapacity, 0, 0, 0xFFFFFFFFu);
  EXPECT_EQ(out0, std::vector<float>(streams[0].begin() + 137, streams[0].begin() + 237));
}

// Growing the tail puts silence in front of the old history; once a full
// new tail has passed, the history is the true one again. Shrinking keeps the
// newest samples. Changing the block size keeps everything that fits.
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
  EXPECT_EQ(tail.GetTotal(), 100);
  std::vector<float> expected(60, 0.0f);
  const std::vector<float> old = History(stream, done, 40);
  expected.insert(expected.end(), old.begin(), old.end());
  EXPECT_EQ(held(100), expected);
  feed(64);
  feed(64);
  EXPECT_EQ(held(100), History(stream, done, 100));

  tail.ChangeBufferSize(300);
  EXPECT_EQ(tail.GetTotalSize(), 400);
  EXPECT_EQ(held(100), History(stream, done, 100));
  feed(300);
  EXPECT_EQ(held(100), History(stream, done, 100));

  tail.ChangeTailSize(30);
  EXPECT_EQ(held(30), History(stream, done, 30));
  feed(7);
  EXPECT_EQ(held(30), History(stream, done, 30));

  // Shrinking the block below the held samples drops the oldest.
  const float* src[1] = {stream.data() + done};
  tail.Append(src, 200, 0);
  tail.ChangeBufferSize(50);
  EXPECT_EQ(tail.GetTotal(), 80);
  EXPECT_EQ(held(80), History(stream, done + 200, 80));
}

TEST(DataTail, CopiesAreDeepAndReservedShapingKeepsTheStorage) {
  dsp::DataTail a;
  a.ReserveMemory(2, 1024);
  a.SetTailMode(2, 48000, 16, 4, true);
  const float* before = a.GetPointer()[0];
  a.SetTailMode(2, 48000, 500, 4, true);
  EXPECT_EQ(a.GetPointer()[0], before) << "shaping within the reserved size must not reallocate";
  a.ResetToVal(0.5f);

  dsp::DataTail b(a);
  dsp::DataTail c;
  c = a;
  a.ResetToVal(2.0f);
  for (const dsp::DataTail* t : {&b, &c}) EXPECT_EQ(Head(t->GetPointer()[1], 504), std::vector<float>(504, 0.5f));
  float** offset = nullptr;
  EXPECT_NO_ALLOCATION(offset = b.MakeOffsetPointer(4));
  EXPECT_EQ(offset[1], b.GetPointer()[1] + 4);
}

TEST(DataTail1D, AppendShiftCyclesAndTailChangesFollowTheHistory) {
  constexpr int kTail = 128;
  const std::vector<float> stream = vextest::Noise(30000, 14);
  dsp::DataTail1D tail;
  tail.SetTailMode(256, kTail, true);
  std::mt19937 rng(15);
  std::uniform_int_distribution<int> sizes(1, 256);
  std::size_t done = 0;
  while (done + 256 <= 20000) {
    const int n = sizes(rng);
    EXPECT_NO_ALLOCATION(tail.Append(stream.data(), n, static_cast<int>(done)));
    ASSERT_EQ(Head(tail, kTail + n), History(stream, done + n, kTail + n));
    EXPECT_NO_ALLOCATION(tail.Shift(n));
    done += static_cast<std::size_t>(n);
    ASSERT_EQ(Head(tail, kTail), History(stream, done, kTail));
  }
  tail.ChangeTailSize(40);
  EXPECT_EQ(Head(tail, 40), History(stream, done, 40));
  tail.ChangeBufferSize(1000);
  tail.Append(stream.data() + done, 1000, 0);
  tail.Shift(1000);
  done += 1000;
  EXPECT_EQ(Head(tail, 40), History(stream, done, 40));
  tail.ShiftAll(15);
  EXPECT_EQ(Head(tail, 25), History(stream, done, 25));
  tail.Append(stream.data(), 5000, 0);
  EXPECT_EQ(tail.GetTotal(), 1040);
}

}  // namespace
