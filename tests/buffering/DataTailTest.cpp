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

TEST(DataTail, SetTailModeWithResetHoldsAFullTailOfSilence) {
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 512, 256, false);
  tail.ResetToVal(3.0f);
  tail.SetTailMode(2, 48000, 512, 256, true);
  EXPECT_EQ(tail.GetTotal(), 256);
  EXPECT_EQ(tail.GetTotalSize(), 768);
  EXPECT_EQ(tail.GetNumChannels(), 2);
  EXPECT_EQ(tail.GetSamplingRate(), 48000);
  for (int ch = 0; ch < 2; ++ch) {
    EXPECT_EQ(Head(tail.GetPointer()[ch], 768), std::vector<float>(768, 0.0f));
  }
}

// The usual cycle over many blocks of varying size: before processing, the
// buffer holds the tail of history followed by the new block; after Shift the
// newest tail samples are at the front.
TEST(DataTail, AppendShiftCyclesReproduceTheHistory) {
  constexpr int kTail = 300;
  constexpr int kBlock = 512;
  const std::vector<std::vector<float>> streams = {vextest::Noise(60000, 1), vextest::Noise(60000, 2)};
  dsp::DataTail tail;
  tail.SetTailMode(2, 44100, kBlock, kTail, true);
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> sizes(1, kBlock);
  std::size_t done = 0;
  int blocks = 0;
  while (done + kBlock <= streams[0].size()) {
    const int n = blocks % 5 == 0 ? kBlock : sizes(rng);
    const float* src[2] = {streams[0].data() + done, streams[1].data() + done};
    EXPECT_NO_ALLOCATION(tail.Append(src, static_cast<unsigned>(n), 0));
    ASSERT_EQ(tail.GetTotal(), kTail + n);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(Head(tail.GetPointer()[ch], kTail + n), History(streams[ch], done + n, kTail + n))
          << "block " << blocks;
    }
    EXPECT_NO_ALLOCATION(tail.Shift(n));
    done += static_cast<std::size_t>(n);
    ASSERT_EQ(tail.GetTotal(), kTail);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(Head(tail.GetPointer()[ch], kTail), History(streams[ch], done, kTail)) << "block " << blocks;
    }
    ++blocks;
  }
  EXPECT_GT(blocks, 100);
}

TEST(DataTail, AppendWithSourceOffsetAndSilentChannel) {
  dsp::DataTail tail(2, 8);
  EXPECT_EQ(tail.GetTailSize(), 0);
  EXPECT_EQ(tail.GetTotal(), 0);
  const std::vector<float> a = {1, 2, 3, 4, 5, 6};
  tail.ResetToVal(9.0f);
  const float* src[2] = {a.data(), nullptr};
  tail.Append(src, 3, 2);
  EXPECT_EQ(Head(tail.GetPointer()[0], 4), (std::vector<float>{3, 4, 5, 9}));
  EXPECT_EQ(Head(tail.GetPointer()[1], 4), (std::vector<float>{0, 0, 0, 9}));
  tail.Append(src, 0, 0);
  tail.Append(nullptr, 3, 0);
  EXPECT_EQ(tail.GetTotal(), 3);
}

TEST(DataTail, ShiftWithLessThanAFullTailKeepsTotalMinusN) {
  dsp::DataTail tail;
  tail.SetTailMode(1, 48000, 512, 256, true);
  const std::vector<float> ramp = vextest::Noise(400, 3);
  const float* src[1] = {ramp.data()};
  tail.ResetTotal();
  tail.Append(src, 300, 0);
  tail.Shift(100);  // 300 < 100 + 256: keeps 200
  EXPECT_EQ(tail.GetTotal(), 200);
  EXPECT_EQ(Head(tail.GetPointer()[0], 200), std::vector<float>(ramp.begin() + 100, ramp.begin() + 300));
  tail.Shift(500);  // more than held: nothing kept
  EXPECT_EQ(tail.GetTotal(), 0);
  tail.Shift(-3);
  EXPECT_EQ(tail.GetTotal(), 0);

  // Dropping more than the block size keeps at most capacity - n samples.
  tail.Append(src, 400, 0);
  tail.Append(src, 368, 0);
  EXPECT_EQ(tail.GetTotal(), 768);
  tail.Shift(600);
  EXPECT_EQ(tail.GetTotal(), 168);
  EXPECT_EQ(Head(tail.GetPointer()[0], 168), std::vector<float>(ramp.begin() + 200, ramp.begin() + 368));
}

TEST(DataTail, ShiftAllKeepsEverythingBehindTheDroppedSamples) {
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 64, 16, true);
  const std::vector<float> a = vextest::Noise(80, 4);
  const std::vector<float> b = vextest::Noise(80, 5);
  const float* src[2] = {a.data(), b.data()};
  tail.ResetTotal();
  tail.Append(src, 70, 0);
  EXPECT_NO_ALLOCATION(tail.ShiftAll(25));
  EXPECT_EQ(tail.GetTotal(), 45);
  EXPECT_EQ(Head(tail.GetPointer()[0], 45), std::vector<float>(a.begin() + 25, a.begin() + 70));
  EXPECT_EQ(Head(tail.GetPointer()[1], 45), std::vector<float>(b.begin() + 25, b.begin() + 70));
  tail.ShiftAll(1000);
  EXPECT_EQ(tail.GetTotal(), 0);
}

TEST(DataTail, AppendBeyondCapacityIsCutAtTheCapacity) {
  dsp::DataTail tail;
  tail.SetTailMode(2, 48000, 32, 8, true);
  const std::vector<float> a = vextest::Noise(100, 6);
  const float* src[2] = {a.data(), a.data()};
  tail.Append(src, 100, 0);
  EXPECT_EQ(tail.GetTotal(), 40);
  EXPECT_EQ(Head(tail.GetPointer()[1], 40), History(std::vector<float>(a.begin(), a.begin() + 32), 32, 40));
  tail.Append(src, 5, 0);
  EXPECT_EQ(tail.GetTotal(), 40);
  tail.SetTotal(1000);
  EXPECT_EQ(tail.GetTotal(), 40);
  tail.AddTotal(-100);
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
  std::size_t done = 0;
  while (done + kCapacity <= streams[0].size()) {
    const int n = sizes(rng);
    const float* src[2] = {streams[0].data(), streams[1].data()};
    EXPECT_NO_ALLOCATION(tail.AppendCircular(src, static_cast<unsigned>(n), static_cast<int>(done)));
    done += static_cast<std::size_t>(n);
    const int m = std::min<int>(static_cast<int>(done), sizes(rng));
    EXPECT_NO_ALLOCATION(tail.ExtractCircular(dst, static_cast<unsigned>(m), -m, 0, 0xFFFFFFFFu));
    ASSERT_EQ(Head(out0.data(), m), History(streams[0], done, static_cast<std::size_t>(m)));
    ASSERT_EQ(Head(out1.data(), m), History(streams[1], done, static_cast<std::size_t>(m)));
  }
  // Offset 0 reads the whole ring oldest first; a destination offset shifts
  // the output; a single channel leaves the other alone.
  std::vector<float> wide(kCapacity + 5, -1.0f);
  std::fill(out0.begin(), out0.end(), -1.0f);
  float* single[2] = {out0.data(), wide.data()};
  tail.ExtractCircular(single, kCapacity, 0, 5, 1);
  EXPECT_EQ(out0, std::vector<float>(kCapacity, -1.0f));
  EXPECT_EQ(std::vector<float>(wide.begin() + 5, wide.end()), History(streams[1], done, kCapacity));
  EXPECT_EQ(wide[4], -1.0f);
}

TEST(DataTail, AppendCircularOfMoreThanTheCapacityKeepsTheNewest) {
  dsp::DataTail tail;
  tail.SetTailMode(1, 48000, 40, 10, true);
  tail.SetTotal(17);
  const std::vector<float> a = vextest::Noise(137, 12);
  const float* src[1] = {a.data()};
  tail.AppendCircular(src, 137, 0);
  std::vector<float> out(50);
  float* dst[1] = {out.data()};
  tail.ExtractCircular(dst, 50, 0, 0, 0xFFFFFFFFu);
  EXPECT_EQ(out, std::vector<float>(a.end() - 50, a.end()));
  // Extracting more than the capacity is cut to the capacity.
  std::vector<float> big(60, -1.0f);
  float* bigDst[1] = {big.data()};
  tail.ExtractCircular(bigDst, 60, 0, 0, 0);
  EXPECT_EQ(std::vector<float>(big.begin(), big.begin() + 50), out);
  EXPECT_EQ(big[50], -1.0f);
}

// Growing the tail puts silence in front of the old history; once a full
// new tail has passed, the history is the true one again. Shrinking keeps the
// newest samples. Changing the block size keeps everything.
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
  for (int i = 0; i < 10; ++i) feed(64);

  tail.ChangeTailSize(100);
  EXPECT_EQ(tail.GetTotal(), 100);
  EXPECT_EQ(tail.GetTotalSize(), 164);
  std::vector<float> expected(60, 0.0f);
  const std::vector<float> old = History(stream, done, 40);
  expected.insert(expected.end(), old.begin(), old.end());
  EXPECT_EQ(Head(tail.GetPointer()[0], 100), expected);
  feed(64);
  feed(64);
  EXPECT_EQ(Head(tail.GetPointer()[0], 100), History(stream, done, 100));

  tail.ChangeBufferSize(300);
  EXPECT_EQ(tail.GetTotalSize(), 400);
  EXPECT_EQ(tail.GetMaxBlockSize(), 300);
  EXPECT_EQ(Head(tail.GetPointer()[0], 100), History(stream, done, 100));
  feed(300);
  EXPECT_EQ(Head(tail.GetPointer()[0], 100), History(stream, done, 100));

  tail.ChangeTailSize(30);
  EXPECT_EQ(tail.GetTotal(), 30);
  EXPECT_EQ(Head(tail.GetPointer()[0], 30), History(stream, done, 30));
  feed(7);
  EXPECT_EQ(Head(tail.GetPointer()[0], 30), History(stream, done, 30));

  // Shrinking the block below the held samples drops the oldest.
  const float* src[1] = {stream.data() + done};
  tail.Append(src, 200, 0);
  tail.ChangeBufferSize(50);
  EXPECT_EQ(tail.GetTotal(), 80);
  EXPECT_EQ(Head(tail.GetPointer()[0], 80), History(stream, done + 200, 80));
}

TEST(DataTail, SetModeThenChangeTailSizeEqualsSetTailMode) {
  dsp::DataTail a;
  a.SetMode(3, 96000, 128);
  a.ChangeTailSize(64);
  EXPECT_EQ(a.GetTotal(), 64);
  EXPECT_EQ(a.GetTotalSize(), 192);
  EXPECT_EQ(a.GetSamplingRate(), 96000);
  for (int ch = 0; ch < 3; ++ch) EXPECT_EQ(Head(a.GetPointer()[ch], 192), std::vector<float>(192, 0.0f));
}

TEST(DataTail, CopiesAreDeepAndOffsetPointersTrackTheStorage) {
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
  for (const dsp::DataTail* t : {&b, &c}) {
    EXPECT_NE(t->GetPointer()[0], a.GetPointer()[0]);
    EXPECT_EQ(Head(t->GetPointer()[1], 504), std::vector<float>(504, 0.5f));
  }
  float** offset = nullptr;
  EXPECT_NO_ALLOCATION(offset = b.MakeOffsetPointer(4));
  EXPECT_EQ(offset[0], b.GetPointer()[0] + 4);
  EXPECT_EQ(offset[1], b.GetPointer()[1] + 4);
  const float* const* view = b;
  EXPECT_EQ(view[1], b.GetPointer()[1]);
}

TEST(DataTail1D, AppendShiftCyclesAndTailChangesFollowTheHistory) {
  constexpr int kTail = 128;
  const std::vector<float> stream = vextest::Noise(30000, 14);
  dsp::DataTail1D tail;
  tail.SetTailMode(256, kTail, true);
  EXPECT_EQ(tail.GetTotal(), kTail);
  EXPECT_EQ(tail.GetTotalSize(), 384);
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
  EXPECT_EQ(tail.GetTotalSize(), 1040);
  tail.Append(stream.data() + done, 1000, 0);
  tail.Shift(1000);
  done += 1000;
  EXPECT_EQ(Head(tail, 40), History(stream, done, 40));

  tail.ShiftAll(15);
  EXPECT_EQ(Head(tail, 25), History(stream, done, 25));
  tail.Append(stream.data(), 5000, 0);
  EXPECT_EQ(tail.GetTotal(), 1040);
  tail.ResetToVal(-1.0f);
  EXPECT_EQ(Head(tail, 1040), std::vector<float>(1040, -1.0f));
  tail.SetMode(10);
  EXPECT_EQ(tail.GetTotalSize(), 50);
  EXPECT_EQ(Head(tail, 50), std::vector<float>(50, 0.0f));
}

}  // namespace
