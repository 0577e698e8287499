#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "vexcore/Flags.h"
#include "vexcore/Localizer.h"
#include "vexcore/MemoryRecycler.h"
#include "vexcore/RecursiveMutex.h"
#include "vexcore/RefCounted.h"
#include "vexcore/SmallBlockAllocator.h"

namespace {

using vexcore::utility::ChannelFlags;
using vexcore::utility::MemoryRecycler;
using vexcore::utility::RecycledMemory;
using vexcore::utility::RefPtr;
using vexcore::utility::SmallBlockAllocator;
using vexcore::utility::SmallBlockPool;

void RunThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

TEST(Flags, BitsLowBitsAndIgnoredOutOfRangeIndices) {
  ChannelFlags flags(0x5);
  flags.SetBit(63);
  flags.SetBit(65);  // indices at or above the word width are ignored, not wrapped
  flags.ClearBit(64);
  flags.ClearBit(1026);
  EXPECT_TRUE(flags.Get() == (0x5u | std::uint64_t(1) << 63) && flags.IsSet(63) && !flags.IsSet(64));
  for (unsigned n = 0; n <= 65; ++n) {
    const std::uint64_t v = ChannelFlags::LowBits(n).Get();
    EXPECT_TRUE(unsigned(__builtin_popcountll(v)) == std::min(n, 64u) && (v & (v + 1)) == 0) << n;
  }
}

TEST(MemoryRecycler, EqualClassGetsTheSameBlockBackWithoutTheHeap) {
  MemoryRecycler::Purge();
  const std::pair<std::size_t, std::size_t> classes[] = {{1, 64}, {64, 64}, {65, 128}, {1500, 2048}, {4097, 8192}};
  for (const auto& c : classes) {
    std::size_t token = 0, token2 = 0;
    void* first = MemoryRecycler::Allocate(c.first, token);
    EXPECT_TRUE(first && token == c.second && reinterpret_cast<std::uintptr_t>(first) % 64 == 0) << c.first;
    MemoryRecycler::Recycle(first, token);
    const std::size_t heap = MemoryRecycler::GetStats().heapAllocations;
    void* second = nullptr;
    EXPECT_NO_ALLOCATION(second = MemoryRecycler::Allocate(c.second - c.second / 4, token2));  // same class
    EXPECT_TRUE(second == first && token2 == token && MemoryRecycler::GetStats().heapAllocations == heap) << c.first;
    MemoryRecycler::Recycle(second, token2);
  }
  for (std::size_t bytes : {std::size_t(0), std::numeric_limits<std::size_t>::max() - 10}) {
    std::size_t t = 12345;
    EXPECT_EQ(MemoryRecycler::Allocate(bytes, t), nullptr) << bytes;
    EXPECT_EQ(t, 0u) << bytes;
  }

  // RecycledMemory returns its block when moved over and when destroyed.
  MemoryRecycler::Purge();
  void* block = nullptr;
  {
    RecycledMemory a, c;
    block = a.Allocate(500);
    EXPECT_TRUE(a.GetByteCount() == 500u && a.GetSizeToken() == 512u);  // the request, not the class
    c.Allocate(100);
    c = std::move(a);
    EXPECT_TRUE(c.Get() == block && a.Get() == nullptr);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(MemoryRecycler::GetStats().cachedBytes, 128u);
  }
  EXPECT_EQ(RecycledMemory().Allocate(510), block);
}

// Overfilling a class keeps 16 blocks, or 64 MiB worth, but at least one.
TEST(MemoryRecycler, EachClassCachesUpToItsCap) {
  const struct {
    std::size_t bytes, allocated, cachedBlocks, cachedBytes;
  } cases[] = {{1000, 20, 16, 16 * 1024},
               {std::size_t(16) << 20, 6, 4, std::size_t(64) << 20},
               {std::size_t(128) << 20, 2, 1, std::size_t(128) << 20}};
  for (const auto& c : cases) {
    MemoryRecycler::Purge();
    std::vector<std::pair<void*, std::size_t>> blocks(c.allocated);
    for (auto& [block, token] : blocks) block = MemoryRecycler::Allocate(c.bytes, token);
    for (auto& [block, token] : blocks) {
      ASSERT_NE(block, nullptr);
      MemoryRecycler::Recycle(block, token);
    }
    const MemoryRecycler::Stats stats = MemoryRecycler::GetStats();
    EXPECT_EQ(stats.cachedBlocks, c.cachedBlocks) << c.bytes;
    EXPECT_EQ(stats.cachedBytes, c.cachedBytes) << c.bytes;
  }
  MemoryRecycler::Purge();
}

// Above the largest class a block is the request rounded to 64 bytes, taken
// from the heap and given back to it, never cached.
TEST(MemoryRecycler, BlocksAboveTheLargestClassAreDirect) {
  MemoryRecycler::Purge();
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  const std::size_t bytes = (std::size_t(1) << 30) + 1;
  std::size_t token = 0;
  auto* block = static_cast<unsigned char*>(MemoryRecycler::Allocate(bytes, token));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(token, (std::size_t(1) << 30) + 64);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 64, 0u);
  block[0] = 1;
  block[token - 1] = 2;
  MemoryRecycler::Recycle(block, token);
  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  EXPECT_EQ(after.heapAllocations, before.heapAllocations + 1);
  EXPECT_EQ(after.cachedBlocks, 0u);
  EXPECT_EQ(after.cachedBytes, 0u);
}

// The heap ceiling makes a request fail exactly as an exhausted heap does;
// what is cached is still served.
TEST(MemoryRecycler, RequestsAboveTheHeapCeilingFail) {
  MemoryRecycler::Purge();
  const std::size_t ceiling = MemoryRecycler::GetMaxHeapBlock();
  EXPECT_EQ(ceiling, std::size_t(1) << 47);
  std::size_t token = 0;
  void* cached = MemoryRecycler::Allocate(8192, token);
  MemoryRecycler::Recycle(cached, token);
  MemoryRecycler::SetMaxHeapBlock(4096);
  std::size_t refused = 99;
  EXPECT_EQ(MemoryRecycler::Allocate(20000, refused), nullptr);  // the 32 KiB class is empty
  EXPECT_EQ(refused, 0u);
  EXPECT_EQ(MemoryRecycler::Allocate(8000, token), cached);
  void* small = MemoryRecycler::Allocate(4096, refused);
  EXPECT_NE(small, nullptr);
  RecycledMemory memory;
  EXPECT_EQ(memory.Allocate(std::size_t(1) << 31), nullptr);
  EXPECT_EQ(memory.GetByteCount(), 0u);
  MemoryRecycler::SetMaxHeapBlock(ceiling);
  MemoryRecycler::Recycle(cached, token);
  MemoryRecycler::Recycle(small, refused);
  MemoryRecycler::Purge();
}

TEST(MemoryRecycler, ConcurrentUseLosesAndSharesNothing) {
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  std::atomic<int> corrupted{0};
  RunThreads(8, [&](int t) {
    std::mt19937 rng(static_cast<unsigned>(t) + 1);
    std::vector<std::tuple<std::uint32_t*, std::size_t, std::uint32_t>> live;  // block, token, tag
    auto release = [&](const std::tuple<std::uint32_t*, std::size_t, std::uint32_t>& b) {
      const auto [p, token, tag] = b;
      for (std::size_t w = 0; w < token / 4; ++w) corrupted += p[w] != tag + w;
      MemoryRecycler::Recycle(p, token);
    };
    for (int i = 0; i < 1000; ++i) {
      const auto tag = static_cast<std::uint32_t>(t << 24 | i << 12);
      std::size_t token = 0;
      auto* p = static_cast<std::uint32_t*>(MemoryRecycler::Allocate(4 + rng() % 5000, token));
      if (p == nullptr) continue;
      for (std::size_t w = 0; w < token / 4; ++w) p[w] = tag + static_cast<std::uint32_t>(w);  // the whole class
      live.emplace_back(p, token, tag);
      if (live.size() > 6 || (rng() & 1)) {
        const std::size_t victim = rng() % live.size();
        release(live[victim]);
        live.erase(live.begin() + static_cast<std::ptrdiff_t>(victim));
      }
    }
    for (const auto& b : live) release(b);
  });
  EXPECT_EQ(corrupted.load(), 0);
  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  EXPECT_EQ((after.heapAllocations - before.heapAllocations) + (after.reuses - before.reuses), 8000u);
  EXPECT_GT(after.reuses - before.reuses, 0u);
}

using PoolString = std::basic_string<char, std::char_traits<char>, SmallBlockAllocator<char>>;
using PoolMap = std::map<int, PoolString, std::less<int>, SmallBlockAllocator<std::pair<const int, PoolString>>>;

TEST(SmallBlockAllocator, ReusesWithoutHeapAndServesConcurrentContainers) {
  void* p = SmallBlockPool::Allocate(24);
  SmallBlockPool::Deallocate(p, 24);
  void* q = nullptr;
  EXPECT_NO_ALLOCATION(q = SmallBlockPool::Allocate(20));  // same 24-byte class
  EXPECT_EQ(q, p);
  SmallBlockPool::Deallocate(q, 20);

  constexpr int kThreads = 6;
  std::atomic<int> errors{0};
  std::vector<std::vector<PoolMap>> handOff(kThreads);
  RunThreads(kThreads, [&](int t) {
    const char fill = static_cast<char>('A' + t);
    for (int round = 0; round < 40; ++round) {
      PoolMap map;
      for (int i = 0; i < 200; ++i) map.emplace(i, PoolString(static_cast<std::size_t>(i % 40 + 1), fill));
      for (int i = 0; i < 200; ++i) {
        const PoolString& s = map.at(i);
        errors += s.size() != static_cast<std::size_t>(i % 40 + 1) || s.find_first_not_of(fill) != PoolString::npos;
      }
      if (round % 10 == 0) handOff[static_cast<std::size_t>(t)].push_back(std::move(map));
    }
  });
  // Blocks from the workers are freed on other threads, alongside new allocations.
  RunThreads(kThreads, [&](int t) {
    handOff[static_cast<std::size_t>(kThreads - 1 - t)].clear();
    PoolMap map;
    for (int i = 0; i < 100; ++i) map.emplace(i, PoolString("x"));
    errors += map.size() != 100;
  });
  EXPECT_EQ(errors.load(), 0);
}

// Every thread writes its own slot before dropping its reference; the
// destructor, on whichever thread runs it, must see all of them.
class SharedTally : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kSlots = 8;
  ~SharedTally() override {
    for (int s : slots) seenSum += s;
    ++destroyed;
  }
  int slots[kSlots] = {};
  static std::atomic<int> seenSum, destroyed;
};
std::atomic<int> SharedTally::seenSum{0}, SharedTally::destroyed{0};

TEST(RefCountedObject, CopiesKeepTheirCountAndManyThreadsDeleteOnce) {
  SharedTally::destroyed = 0;
  RefPtr<SharedTally> original = vexcore::utility::MakeRef<SharedTally>(), second = original;
  RefPtr<SharedTally> copy(new SharedTally(*original));  // copying an object does not copy its count
  *copy = *original;
  EXPECT_TRUE(copy->GetRefCount() == 1 && original->GetRefCount() == 2);

  for (int trial = 0; trial < 20; ++trial) {
    SharedTally::seenSum = 0;
    RefPtr<SharedTally> shared(new SharedTally);
    std::vector<RefPtr<SharedTally>> handles(SharedTally::kSlots, shared);
    std::atomic<int> ready{0};
    shared.reset();
    RunThreads(SharedTally::kSlots, [&](int t) {
      RefPtr<SharedTally> mine = std::move(handles[static_cast<std::size_t>(t)]);
      for (++ready; ready.load() < SharedTally::kSlots;) std::this_thread::yield();
      for (int i = 0; i < 1000; ++i) RefPtr<SharedTally>(mine)->slots[t] += 1;  // churn the count
    });
    EXPECT_EQ(SharedTally::destroyed.exchange(0), 1) << trial;
    EXPECT_EQ(SharedTally::seenSum.load(), SharedTally::kSlots * 1000) << trial;
  }
}

using vexcore::threads::RecursiveMutex;
using vexcore::threads::RecursiveMutexLock;

TEST(RecursiveMutex, ReentersNamesTheOutermostHolderAndExcludesOthers) {
  RecursiveMutex mutex;
  const char* const outer = "outer scope";
  mutex.Lock(outer);
  {
    RecursiveMutexLock lock(mutex, "inner scope");
    EXPECT_TRUE(mutex.TryLock("inner scope"));
    EXPECT_TRUE(mutex.GetOwnerLabel() == outer && mutex.GetLockDepth() == 3);
    mutex.Unlock();
  }
  // Another thread sees the holder and can neither release nor take the mutex.
  std::thread([&] {
    EXPECT_TRUE(mutex.GetOwnerLabel() == outer && mutex.GetLockDepth() == 0);
    mutex.Unlock();
    EXPECT_FALSE(mutex.TryLock("intruder"));
  }).join();
  mutex.Unlock();
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);

  static const char* const kLabels[] = {"t0", "t1", "t2", "t3"};
  long counter = 0;
  std::atomic<int> wrongOwner{0};
  RunThreads(4, [&](int t) {
    for (int i = 0; i < 20000; ++i) {
      RecursiveMutexLock lock(mutex, kLabels[t]);
      const long seen = counter;
      RecursiveMutexLock nested(mutex, "nested");
      wrongOwner += mutex.GetOwnerLabel() != kLabels[t] || mutex.GetLockDepth() != 2;
      counter = seen + 1;
    }
  });
  EXPECT_TRUE(counter == 4L * 20000 && wrongOwner.load() == 0 && mutex.GetOwnerLabel() == nullptr);
}

TEST(Localizer, DefaultTextLoadedTranslationsAndUtf8Decoding) {
  vexcore::config::Localizer& loc = vexcore::config::Localizer::Get();
  loc.Clear();
  EXPECT_EQ(loc.Localize("$$$/QRM/EncoderHost/Loudness/kIdentifier_LUFS=LUFS"), L"LUFS");
  EXPECT_EQ(loc.Localize("$$$/Test/Equation=a=b"), L"a=b");  // only the first '=' separates
  const std::string text =
      "\xEF\xBB\xBF$$$/A=first\r\nno equals sign here\n=text without key\n\n# $$$/Commented=never\n"
      "  $$$/B  = spaced text \r\n$$$/C=x=y\n$$$/A=L\xC3\xA4rm";  // the later line wins; no final newline
  EXPECT_EQ(loc.LoadTranslations(text), 4);
  auto expect = [&](const char* key, const wchar_t* want) { EXPECT_EQ(loc.Localize(key), want) << key; };
  expect("$$$/A=dflt", L"L\u00E4rm");
  expect("$$$/A", L"L\u00E4rm");
  expect("$$$/Ab=dflt", L"dflt");  // a prefix is another key
  expect("$$$/B=dflt", L" spaced text ");
  expect("$$$/C=dflt", L"x=y");
  expect("# $$$/Commented=dflt", L"dflt");
  expect("$$$/T=\x41\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xB5\xF4\x8F\xBF\xBF", L"A\u00E9\u20AC\U0001F3B5\U0010FFFF");
  // Malformed: truncated, bad continuation (next byte kept), overlong, surrogate, above U+10FFFF, stray.
  expect("$$$/T=ab\xC3", L"ab\uFFFD");
  expect("$$$/T=\xC3(x", L"\uFFFD(x");
  expect("$$$/T=\xC0\xAF", L"\uFFFD\uFFFD");
  expect("$$$/T=\xED\xA0\x80z", L"\uFFFDz");
  expect("$$$/T=\xF4\x90\x80\x80", L"\uFFFD");
  expect("$$$/T=\x80\xFF", L"\uFFFD\uFFFD");
  loc.Clear();
  EXPECT_EQ(loc.Localize("$$$/A=dflt"), L"dflt");
}

}  // namespace
