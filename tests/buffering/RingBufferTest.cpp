#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/RingBuffer.h"

namespace {

// Sample i of channel ch in the counter sequences below; exact in float for
// i < 2^23.
float Tag(std::int64_t i, int ch) { return ch == 0 ? static_cast<float>(i) : -0.5f - static_cast<float>(i); }

TEST(RingBuffer, FillLevelsAndWrapAgainstAReferenceQueue) {
  dsp::RingBuffer ring;
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(ring.CanBeWritten(), 0);
  ring.Allocate(2, 37);
  EXPECT_EQ(ring.GetSize(), 37);
  EXPECT_EQ(ring.GetNumChannels(), 2);
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(ring.CanBeWritten(), 36);

  std::deque<float> reference[2];
  std::mt19937 rng(31);
  std::int64_t produced = 0;
  std::vector<float> in0(40), in1(40), out0(40), out1(40);
  float* in[2] = {in0.data(), in1.data()};
  float* out[2] = {out0.data(), out1.data()};
  for (int step = 0; step < 5000; ++step) {
    if (rng() % 2 == 0) {
      const int n = std::uniform_int_distribution<int>(0, ring.CanBeWritten())(rng);
      for (int i = 0; i < n; ++i) {
        in0[static_cast<std::size_t>(i + 1)] = Tag(produced, 0);
        in1[static_cast<std::size_t>(i + 1)] = Tag(produced, 1);
        reference[0].push_back(Tag(produced, 0));
        reference[1].push_back(Tag(produced, 1));
        ++produced;
      }
      EXPECT_NO_ALLOCATION(ring.Write(in, 1, 2, n));
    } else {
      const int n = std::uniform_int_distribution<int>(0, ring.CanBeRead())(rng);
      EXPECT_NO_ALLOCATION(ring.Read(out, 2, n, n));
      for (int i = 0; i < n; ++i) {
        for (int ch = 0; ch < 2; ++ch) {
          ASSERT_EQ((ch == 0 ? out0 : out1)[static_cast<std::size_t>(i)], reference[ch].front());
          reference[ch].pop_front();
        }
      }
    }
    ASSERT_EQ(ring.CanBeRead(), static_cast<int>(reference[0].size()));
    ASSERT_EQ(ring.CanBeRead() + ring.CanBeWritten(), 36);
  }
  EXPECT_GT(produced, 20000);
}

// Read moves by `advance`, not by n: windows of 8 at a hop of 3 overlap, a
// hop of 11 skips samples, a hop of 0 reads the same window again.
TEST(RingBuffer, ReadWithAdvanceOtherThanTheCountGivesWindows) {
  dsp::RingBuffer ring;
  ring.Allocate(1, 50);
  std::vector<float> ramp(4000);
  for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i);
  float* src[1] = {ramp.data()};
  std::vector<float> window(8);
  float* dst[1] = {window.data()};
  int written = 0;
  int start = 0;
  for (int hop : {3, 8, 11, 1, 0, 5, 2}) {
    for (int round = 0; round < 40; ++round) {
      while (ring.CanBeRead() < std::max(8, hop)) {
        const int n = std::min(ring.CanBeWritten(), 13);
        ring.Write(src, written, 1, n);
        written += n;
      }
      EXPECT_NO_ALLOCATION(ring.Read(dst, 1, 8, hop));
      for (int i = 0; i < 8; ++i) ASSERT_EQ(window[static_cast<std::size_t>(i)], static_cast<float>(start + i));
      start += hop;
      ASSERT_EQ(ring.CanBeRead(), written - start);
    }
  }
}

TEST(RingBuffer, ReplaceAdvanceByFillZeroesAndReset) {
  dsp::RingBuffer ring;
  ring.Allocate(2, 10);
  std::vector<float> a = {1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<float> b = {-1, -2, -3, -4, -5, -6, -7, -8};
  float* src[2] = {a.data(), b.data()};
  std::vector<float> o0(10, 99.0f), o1(10, 99.0f);
  float* out[2] = {o0.data(), o1.data()};

  ring.Write(src, 0, 2, 8);
  ring.Read(out, 2, 7, 7);   // positions 7 / 8
  ring.Write(src, 0, 2, 6);  // wraps: write position 4
  ASSERT_EQ(ring.CanBeRead(), 7);
  std::vector<float> r0 = {50, 51, 52, 53}, r1 = {60, 61, 62, 63};
  float* rep[2] = {r0.data(), r1.data()};
  EXPECT_NO_ALLOCATION(ring.Replace(rep, 0, 2, 4));  // across the wrap
  EXPECT_EQ(ring.CanBeRead(), 7);
  ring.Read(out, 2, 7, 0);
  EXPECT_EQ(std::vector<float>(o0.begin(), o0.begin() + 7), (std::vector<float>{50, 51, 52, 53, 4, 5, 6}));
  EXPECT_EQ(std::vector<float>(o1.begin(), o1.begin() + 7), (std::vector<float>{60, 61, 62, 63, -4, -5, -6}));

  EXPECT_NO_ALLOCATION(ring.AdvanceBy(4));
  EXPECT_EQ(ring.CanBeRead(), 3);
  EXPECT_NO_ALLOCATION(ring.FillZeroes(5));
  EXPECT_EQ(ring.CanBeRead(), 8);
  EXPECT_EQ(ring.CanBeWritten(), 1);
  ring.Read(out, 2, 8, 8);
  EXPECT_EQ(std::vector<float>(o0.begin(), o0.begin() + 8), (std::vector<float>{4, 5, 6, 0, 0, 0, 0, 0}));
  EXPECT_EQ(std::vector<float>(o1.begin(), o1.begin() + 8), (std::vector<float>{-4, -5, -6, 0, 0, 0, 0, 0}));
  EXPECT_EQ(ring.CanBeRead(), 0);

  ring.Write(src, 0, 2, 5);
  ring.Reset();
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(ring.CanBeWritten(), 9);
  ring.Write(src, 2, 2, 3);
  ring.Read(out, 2, 3, 3);
  EXPECT_EQ(std::vector<float>(o0.begin(), o0.begin() + 3), (std::vector<float>{3, 4, 5}));
}

// Channel counts are cut to the ring's; null tables do nothing; a null
// channel is written as silence; counts beyond the size stay inside the ring.
TEST(RingBuffer, ChannelClampingAndNullPointers) {
  dsp::RingBuffer ring;
  ring.Allocate(2, 8);
  std::vector<float> a = {1, 2, 3, 4};
  float* five[5] = {a.data(), a.data(), a.data(), a.data(), a.data()};
  ring.Write(five, 0, 5, 4);
  ring.Write(nullptr, 0, 2, 4);
  EXPECT_EQ(ring.CanBeRead(), 4);
  float* onlyFirst[2] = {nullptr, a.data()};
  ring.Write(onlyFirst, 0, 2, 2);
  std::vector<float> o0(6, 9.0f), o1(6, 9.0f);
  float* out[2] = {o0.data(), o1.data()};
  ring.Read(out, 1, 6, 0);  // only channel 0, nothing consumed
  EXPECT_EQ(o0, (std::vector<float>{1, 2, 3, 4, 0, 0}));
  EXPECT_EQ(o1, std::vector<float>(6, 9.0f));
  ring.Read(out, 7, 6, 6);
  EXPECT_EQ(o1, (std::vector<float>{1, 2, 3, 4, 1, 2}));
  ring.Read(nullptr, 2, 3, 3);
  EXPECT_EQ(ring.CanBeRead(), 0);

  std::vector<float> big(100, 1.0f);
  float* bigSrc[2] = {big.data(), big.data()};
  ring.Write(bigSrc, 0, 2, 100);  // the caller broke the contract; stays in bounds
  std::vector<float> w0(100, 5.0f), w1(100, 5.0f);
  float* wide[2] = {w0.data(), w1.data()};
  ring.Read(wide, 2, 100, 0);
  EXPECT_EQ(w0[7], 1.0f);
  EXPECT_EQ(w0[8], 5.0f);
  ring.AdvanceBy(1000);
  EXPECT_GE(ring.CanBeRead(), 0);
  EXPECT_LT(ring.CanBeRead(), 8);
}

TEST(RingBuffer, CopiesAreDeep) {
  dsp::RingBuffer ring;
  ring.Allocate(2, 16);
  std::vector<float> a = vextest::Noise(12, 40), b = vextest::Noise(12, 41);
  float* src[2] = {a.data(), b.data()};
  ring.Write(src, 0, 2, 12);
  ring.AdvanceBy(5);
  dsp::RingBuffer copy(ring);
  dsp::RingBuffer assigned;
  assigned.Allocate(1, 3);
  assigned = ring;
  ring.FillZeroes(3);
  ring.Replace(src, 0, 2, 7);
  for (dsp::RingBuffer* r : {&copy, &assigned}) {
    EXPECT_EQ(r->GetSize(), 16);
    EXPECT_EQ(r->GetNumChannels(), 2);
    EXPECT_EQ(r->CanBeRead(), 7);
    std::vector<float> o0(7), o1(7);
    float* out[2] = {o0.data(), o1.data()};
    r->Read(out, 2, 7, 7);
    EXPECT_EQ(o0, std::vector<float>(a.begin() + 5, a.end()));
    EXPECT_EQ(o1, std::vector<float>(b.begin() + 5, b.end()));
  }
  ring.Deallocate();
  EXPECT_EQ(ring.GetSize(), 0);
  EXPECT_EQ(ring.CanBeRead(), 0);
  ring.Write(src, 0, 2, 3);
  EXPECT_EQ(ring.CanBeRead(), 0);
}

// One writer thread and one reader thread pass several million samples on two
// channels in randomly sized chunks through a small ring. Every sample is a
// counter value, so any loss, duplication or reordering shows. The reader
// sometimes peeks (advance < n). Neither side may allocate.
TEST(RingBuffer, OneWriterOneReaderPassEverySampleInOrder) {
  constexpr std::int64_t kTotal = 4000000;
  constexpr int kSize = 1021;
  dsp::RingBuffer ring;
  ring.Allocate(2, kSize);
  std::atomic<bool> stop{false};
  std::size_t writerAllocations = 0;
  std::size_t readerAllocations = 0;
  std::int64_t firstBad = -1;
  std::int64_t consumed = 0;

  std::thread writer([&] {
    std::vector<float> a(kSize + 3), b(kSize + 3);
    float* src[2] = {a.data(), b.data()};
    std::mt19937 rng(42);
    vextest::AllocationCounter counter;
    std::int64_t next = 0;
    while (next < kTotal && !stop.load(std::memory_order_relaxed)) {
      const int space = ring.CanBeWritten();
      if (space == 0) {
        std::this_thread::yield();
        continue;
      }
      const int limit = rng() % 4 == 0 ? std::min(space, 7) : space;
      const int n =
          static_cast<int>(std::min<std::int64_t>(std::uniform_int_distribution<int>(1, limit)(rng), kTotal - next));
      const int offset = static_cast<int>(rng() % 4);
      for (int i = 0; i < n; ++i) {
        a[static_cast<std::size_t>(offset + i)] = Tag(next + i, 0);
        b[static_cast<std::size_t>(offset + i)] = Tag(next + i, 1);
      }
      ring.Write(src, offset, 2, n);
      next += n;
    }
    writerAllocations = counter.Count();
  });

  std::thread reader([&] {
    std::vector<float> a(kSize), b(kSize);
    float* dst[2] = {a.data(), b.data()};
    std::mt19937 rng(43);
    vextest::AllocationCounter counter;
    while (consumed < kTotal) {
      const int available = ring.CanBeRead();
      if (available == 0) {
        std::this_thread::yield();
        continue;
      }
      const int limit = rng() % 4 == 0 ? std::min(available, 5) : available;
      const int n = std::uniform_int_distribution<int>(1, limit)(rng);
      const int advance = rng() % 5 == 0 ? std::uniform_int_distribution<int>(0, n)(rng) : n;
      ring.Read(dst, 2, n, advance);
      for (int i = 0; i < n; ++i) {
        if (a[static_cast<std::size_t>(i)] != Tag(consumed + i, 0) ||
            b[static_cast<std::size_t>(i)] != Tag(consumed + i, 1)) {
          firstBad = consumed + i;
          stop.store(true, std::memory_order_relaxed);
          return;
        }
      }
      consumed += advance;
    }
    readerAllocations = counter.Count();
  });

  writer.join();
  reader.join();
  EXPECT_EQ(firstBad, -1) << "wrong sample at index " << firstBad;
  EXPECT_EQ(consumed, kTotal);
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(writerAllocations, 0u);
  EXPECT_EQ(readerAllocations, 0u);
}

}  // namespace
