#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "support/AllocationCounter.h"
#include "vexaudiodsp/buffering/RingBuffer.h"

namespace {

// Sample i of channel ch in the counter sequences below; exact in float for
// i < 2^23.
float Tag(std::int64_t i, int ch) { return ch == 0 ? static_cast<float>(i) : -0.5f - static_cast<float>(i); }

// Random Write (with a null channel written as silence) / FillZeroes / Read
// (advance independent of the count, so windows overlap, repeat or skip) /
// Replace / AdvanceBy against a deque model; one slot always stays free. A
// copy then holds the same queue.
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
    for (int ch = 0; ch < 2; ++ch) ASSERT_TRUE(std::equal(buf[ch].begin(), buf[ch].begin() + n, ref[ch].begin()));
  };
  for (int step = 0; step < 8000; ++step) {
    const int op = static_cast<int>(rng() % 6);
    int n = upTo(op <= 2 ? ring.CanBeWritten() : ring.CanBeRead());
    if (op <= 1) {
      const bool silent = step % 7 == 0;
      for (int i = 0; i < n; ++i, ++produced) {
        for (int ch = 0; ch < 2; ++ch) buf[ch][i + 1] = Tag(produced, ch);
        ref[0].push_back(silent ? 0.0f : buf[0][i + 1]);
        ref[1].push_back(buf[1][i + 1]);
      }
      float* src[2] = {silent ? nullptr : io[0], io[1]};
      EXPECT_NO_ALLOCATION(ring.Write(src, 1, 2, n));
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
        for (int i = 0; i < n; ++i) ref[ch][i] = buf[ch][i] = static_cast<float>(-step - i);
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
  dsp::RingBuffer copy(ring);
  ring.Reset();
  ring.FillZeroes(kSize - 1);
  expectFront(copy, static_cast<int>(ref[0].size()), 0);
}

// One writer and one reader thread pass millions of counter samples on two
// channels in random chunks through a small ring, so any loss, duplication or
// reordering shows; the reader sometimes peeks (advance < n). Neither side
// may allocate.
TEST(RingBuffer, OneWriterOneReaderPassEverySampleInOrder) {
  constexpr std::int64_t kTotal = 4000000;
  constexpr int kSize = 1021;
  dsp::RingBuffer ring;
  ring.Allocate(2, kSize);
  std::atomic<bool> stop{false};
  std::size_t allocations[2] = {0, 0};
  std::int64_t firstBad = -1, consumed = 0;
  // Random chunk of 1..available, often small so that both ends wrap often.
  auto chunk = [](std::mt19937& rng, int available, int small) {
    return std::uniform_int_distribution<int>(1, rng() % 4 == 0 ? std::min(available, small) : available)(rng);
  };
  std::thread writer([&] {
    std::vector<float> a(kSize + 3), b(kSize + 3);
    float* src[2] = {a.data(), b.data()};
    std::mt19937 rng(42);
    vextest::AllocationCounter counter;
    for (std::int64_t next = 0; next < kTotal && !stop.load(std::memory_order_relaxed);) {
      int space = 0;
      while ((space = ring.CanBeWritten()) == 0 && !stop.load(std::memory_order_relaxed)) std::this_thread::yield();
      if (space == 0) break;
      const int n = static_cast<int>(std::min<std::int64_t>(chunk(rng, space, 7), kTotal - next));
      const int offset = static_cast<int>(rng() % 4);
      for (int i = 0; i < n; ++i) a[offset + i] = Tag(next + i, 0), b[offset + i] = Tag(next + i, 1);
      ring.Write(src, offset, 2, n);
      next += n;
    }
    allocations[0] = counter.Count();
  });
  std::thread reader([&] {
    std::vector<float> a(kSize), b(kSize);
    float* dst[2] = {a.data(), b.data()};
    std::mt19937 rng(43);
    vextest::AllocationCounter counter;
    while (consumed < kTotal) {
      int available = 0;
      while ((available = ring.CanBeRead()) == 0) std::this_thread::yield();
      const int n = chunk(rng, available, 5);
      const int advance = rng() % 5 == 0 ? std::uniform_int_distribution<int>(0, n)(rng) : n;
      ring.Read(dst, 2, n, advance);
      for (int i = 0; i < n; ++i) {
        if (a[i] != Tag(consumed + i, 0) || b[i] != Tag(consumed + i, 1)) {
          firstBad = consumed + i;
          stop.store(true, std::memory_order_relaxed);
          return;
        }
      }
      consumed += advance;
    }
    allocations[1] = counter.Count();
  });
  writer.join();
  reader.join();
  EXPECT_EQ(firstBad, -1) << "wrong sample at index " << firstBad;
  EXPECT_EQ(consumed, kTotal);
  EXPECT_EQ(ring.CanBeRead(), 0);
  EXPECT_EQ(allocations[0] + allocations[1], 0u);
}

}  // namespace
