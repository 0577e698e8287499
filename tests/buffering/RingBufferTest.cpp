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

// Random Write / FillZeroes / Read (advance independent of the count, so
// windows overlap, repeat or skip) / Replace / AdvanceBy against a deque
// model; one slot always stays free. Copies then hold the same queue.
TEST(RingBuffer, EveryOperationMatchesAReferenceQueueAcrossWraps) {
  constexpr int kSize = 37;
  dsp::RingBuffer ring;
  ring.Allocate(2, kSize);
  std::deque<float> ref[2];
  std::mt19937 rng(31);
  std::int64_t produced = 0;
  std::vector<float> buf[2] = {std::vector<float>(kSize + 2), std::vector<float>(kSize + 2)};
  float* io[2] = {buf[0].data(), buf[1].data()};
  auto upTo = [&](int hi) { return std::uniform_int_distribution<int>(0, hi)(rng); };
  auto expectFront = [&](dsp::RingBuffer& r, int n, int advance) {
    r.Read(io, 2, n, advance);
    for (int ch = 0; ch < 2; ++ch) {
      ASSERT_TRUE(std::equal(buf[ch].begin(), buf[ch].begin() + n, ref[ch].begin()));
    }
  };
  for (int step = 0; step < 8000; ++step) {
    const int op = static_cast<int>(rng() % 6);
    int n = upTo(op <= 2 ? ring.CanBeWritten() : ring.CanBeRead());
    if (op <= 1) {
      for (int i = 0; i < n; ++i, ++produced) {
        for (int ch = 0; ch < 2; ++ch) ref[ch].push_back(buf[ch][static_cast<std::size_t>(i + 1)] = Tag(produced, ch));
      }
      EXPECT_NO_ALLOCATION(ring.Write(io, 1, 2, n));
    } else if (op == 2) {
      n = std::min(n, 5);
      for (auto& r : ref) r.insert(r.end(), static_cast<std::size_t>(n), 0.0f);
      EXPECT_NO_ALLOCATION(ring.FillZeroes(n));
    } else if (op == 3) {
      const int advance = upTo(ring.CanBeRead());
      EXPECT_NO_ALLOCATION(expectFront(ring, n, advance));
      for (auto& r : ref) r.erase(r.begin(), r.begin() + advance);
    } else if (op == 4) {
      for (int ch = 0; ch < 2; ++ch) {
        for (int i = 0; i < n; ++i)
          ref[ch][static_cast<std::size_t>(i)] = buf[ch][static_cast<std::size_t>(i)] = -step - i;
      }
      EXPECT_NO_ALLOCATION(ring.Replace(io, 0, 2, n));
    } else {
      EXPECT_NO_ALLOCATION(ring.AdvanceBy(n));
      for (auto& r : ref) r.erase(r.begin(), r.begin() + n);
    }
    ASSERT_EQ(ring.CanBeRead(), static_cast<int>(ref[0].size()));
    ASSERT_EQ(ring.CanBeRead() + ring.CanBeWritten(), kSize - 1);
  }
  EXPECT_GT(produced, 20000);

  dsp::RingBuffer copy(ring), assigned;
  assigned.Allocate(1, 3);
  assigned = ring;
  const int held = ring.CanBeRead();
  ring.Reset();
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(ring.CanBeWritten(), kSize - 1);
  ring.FillZeroes(kSize - 1);
  for (dsp::RingBuffer* r : {&copy, &assigned}) {
    ASSERT_EQ(r->CanBeRead(), held);
    expectFront(*r, held, 0);
  }
  ring.Deallocate();
  ring.Write(io, 0, 2, 3);
  EXPECT_EQ(ring.CanBeRead(), 0);
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
  float* onlySecond[2] = {nullptr, a.data()};
  ring.Write(onlySecond, 0, 2, 2);
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
  std::vector<float> w0(100, 5.0f);
  float* wide[1] = {w0.data()};
  ring.Read(wide, 1, 100, 0);
  EXPECT_EQ(w0[7], 1.0f);
  EXPECT_EQ(w0[8], 5.0f);
  ring.AdvanceBy(1000);
  EXPECT_GE(ring.CanBeRead(), 0);
  EXPECT_LT(ring.CanBeRead(), 8);
}

// One writer thread and one reader thread pass millions of counter samples
// on two channels in random chunks through a small ring, so any loss,
// duplication or reordering shows. The reader sometimes peeks (advance < n).
// Neither side may allocate.
TEST(RingBuffer, OneWriterOneReaderPassEverySampleInOrder) {
  constexpr std::int64_t kTotal = 4000000;
  constexpr int kSize = 1021;
  dsp::RingBuffer ring;
  ring.Allocate(2, kSize);
  std::atomic<bool> stop{false};
  std::size_t writerAllocations = 0, readerAllocations = 0;
  std::int64_t firstBad = -1, consumed = 0;

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
