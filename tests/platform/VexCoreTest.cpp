#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
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

std::uintptr_t Address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

void RunThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

TEST(Flags, SingleBitsLowBitsAndOutOfRangeIndices) {
  for (unsigned bit = 0; bit < 64; ++bit) {
    ChannelFlags flags;
    flags.SetBit(bit);
    EXPECT_EQ(flags.Get(), std::uint64_t(1) << bit) << bit;
    EXPECT_TRUE(flags.IsSet(bit) && !flags.IsSet(bit ^ 1)) << bit;
    flags.ClearBit(bit);
    EXPECT_TRUE(flags.None()) << bit;
  }
  // Indices at or above the word width are ignored.
  ChannelFlags flags = ChannelFlags::AllOnes();
  flags.ClearBit(64);
  flags.ClearBit(1000);
  EXPECT_EQ(flags.Get(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_FALSE(flags.IsSet(64));
  flags = ChannelFlags(0x5);
  flags.SetBit(64);
  EXPECT_EQ(flags.Get(), 0x5u);

  for (unsigned n = 0; n <= 65; ++n) {
    const std::uint64_t v = ChannelFlags::LowBits(n).Get();
    EXPECT_EQ(static_cast<unsigned>(__builtin_popcountll(v)), std::min(n, 64u)) << n;
    EXPECT_EQ(v & (v + 1), 0u) << "not a run from bit 0: " << n;
  }
  EXPECT_EQ(vexcore::utility::Flags<std::uint8_t>::LowBits(8).Get(), 0xFF);
}

class MemoryRecyclerTest : public ::testing::Test {
 protected:
  void SetUp() override { MemoryRecycler::Purge(); }
  void TearDown() override { MemoryRecycler::Purge(); }
};

TEST_F(MemoryRecyclerTest, EqualShapeGetsTheSameBlockBackWithoutTheHeap) {
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  std::size_t token = 0;
  void* first = MemoryRecycler::Allocate(1000, token);
  ASSERT_NE(first, nullptr);
  MemoryRecycler::Recycle(first, token);
  const MemoryRecycler::Stats mid = MemoryRecycler::GetStats();
  EXPECT_EQ(mid.heapAllocations - before.heapAllocations, 1u);
  EXPECT_EQ(mid.cachedBlocks, 1u);
  EXPECT_EQ(mid.cachedBytes, 1024u);

  std::size_t token2 = 0;
  void* second = nullptr;
  EXPECT_NO_ALLOCATION(second = MemoryRecycler::Allocate(1000, token2));
  EXPECT_EQ(second, first);
  EXPECT_EQ(token2, token);
  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  EXPECT_EQ(after.heapAllocations, mid.heapAllocations);
  EXPECT_EQ(after.reuses - before.reuses, 1u);
  EXPECT_EQ(after.cachedBlocks, 0u);
  MemoryRecycler::Recycle(second, token2);
}

TEST_F(MemoryRecyclerTest, SizeClassesAlignmentAndRefusals) {
  const std::pair<std::size_t, std::size_t> cases[] = {{1, 64},      {63, 64},     {64, 64},     {65, 128},
                                                       {1500, 2048}, {4096, 4096}, {4097, 8192}, {3 << 20, 4 << 20}};
  for (const auto& c : cases) {
    std::size_t token = 0;
    void* p = MemoryRecycler::Allocate(c.first, token);
    ASSERT_NE(p, nullptr) << c.first;
    EXPECT_EQ(token, c.second) << c.first;
    EXPECT_EQ(Address(p) % 64, 0u) << c.first;
    std::memset(p, 0xA5, token);  // the whole class is usable
    MemoryRecycler::Recycle(p, token);
  }
  // Another size in the same class reuses the block; a larger class does not.
  std::size_t token = 0;
  void* a = MemoryRecycler::Allocate(3000, token);
  MemoryRecycler::Recycle(a, token);
  void* b = MemoryRecycler::Allocate(2049, token);
  EXPECT_EQ(a, b);
  void* c = MemoryRecycler::Allocate(5000, token);
  EXPECT_NE(c, b);
  MemoryRecycler::Recycle(c, token);
  MemoryRecycler::Recycle(b, 4096);

  MemoryRecycler::Purge();
  for (std::size_t bytes : {std::size_t(0), (std::size_t(1) << 30) + 1, std::numeric_limits<std::size_t>::max(),
                            std::numeric_limits<std::size_t>::max() / 2 + 2}) {
    std::size_t t = 12345;
    EXPECT_EQ(MemoryRecycler::Allocate(bytes, t), nullptr) << bytes;
    EXPECT_EQ(t, 0u) << bytes;
  }
  MemoryRecycler::Recycle(nullptr, 64);
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 0u);
}

TEST_F(MemoryRecyclerTest, CacheLimitsPerClass) {
  std::vector<void*> blocks;
  std::size_t token = 0;
  for (int i = 0; i < 20; ++i) blocks.push_back(MemoryRecycler::Allocate(128, token));
  EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), 20u);
  for (void* p : blocks) MemoryRecycler::Recycle(p, token);
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 16u);
  void* other = MemoryRecycler::Allocate(300, token);  // another class has its own allowance
  MemoryRecycler::Recycle(other, token);
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBytes, 16u * 128u + 512u);

  // 32 MiB blocks: the per-class byte budget admits two of them.
  MemoryRecycler::Purge();
  blocks.clear();
  for (int i = 0; i < 4; ++i) blocks.push_back(MemoryRecycler::Allocate(std::size_t(32) << 20, token));
  for (void* p : blocks) MemoryRecycler::Recycle(p, token);
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 2u);
}

TEST_F(MemoryRecyclerTest, ConcurrentUseLosesAndSharesNothing) {
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  std::atomic<std::size_t> allocations{0};
  std::atomic<int> corrupted{0};
  RunThreads(8, [&](int t) {
    std::mt19937 rng(static_cast<unsigned>(t) + 1);
    struct Live {
      std::uint32_t* p;
      std::size_t words, token;
      std::uint32_t tag;
    };
    std::vector<Live> live;
    for (int i = 0; i < 2000; ++i) {
      const std::size_t words = 1 + rng() % 1250;
      std::size_t token = 0;
      void* p = MemoryRecycler::Allocate(words * 4, token);
      if (p == nullptr) {
        ++corrupted;
        continue;
      }
      ++allocations;
      Live l{static_cast<std::uint32_t*>(p), words, token, static_cast<std::uint32_t>(t << 24 | i)};
      for (std::size_t w = 0; w < l.words; ++w) l.p[w] = l.tag + static_cast<std::uint32_t>(w);
      live.push_back(l);
      if (live.size() > 6 || (rng() & 1)) {
        const std::size_t victim = rng() % live.size();
        const Live v = live[victim];
        for (std::size_t w = 0; w < v.words; ++w) {
          if (v.p[w] != v.tag + static_cast<std::uint32_t>(w)) {
            ++corrupted;
            break;
          }
        }
        MemoryRecycler::Recycle(v.p, v.token);
        live.erase(live.begin() + static_cast<std::ptrdiff_t>(victim));
      }
    }
    for (const Live& v : live) MemoryRecycler::Recycle(v.p, v.token);
  });
  EXPECT_EQ(corrupted.load(), 0);
  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  EXPECT_EQ((after.heapAllocations - before.heapAllocations) + (after.reuses - before.reuses), allocations.load());
  EXPECT_GT(after.reuses - before.reuses, 0u);
  EXPECT_LE(after.cachedBlocks, 8u * 16u);  // classes 64 ... 8192, 16 blocks each
}

TEST_F(MemoryRecyclerTest, RecycledMemoryOwnsAndMovesItsBlock) {
  void* block = nullptr;
  {
    RecycledMemory a;
    block = a.Allocate(500);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(a.GetByteCount(), 500u);  // the request, not the class
    EXPECT_EQ(a.GetSizeToken(), 512u);
    RecycledMemory b(std::move(a));
    EXPECT_EQ(a.Get(), nullptr);  // NOLINT(bugprone-use-after-move): moved-from state is defined
    EXPECT_EQ(b.Get(), block);

    RecycledMemory c;
    c.Allocate(100);
    c = std::move(b);  // c's own block goes back to the recycler
    EXPECT_EQ(c.Get(), block);
    EXPECT_EQ(MemoryRecycler::GetStats().cachedBytes, 128u);
    RecycledMemory& self = c;
    c = std::move(self);
    EXPECT_EQ(c.Get(), block);
  }
  // Destruction returned the block; re-allocation releases first.
  RecycledMemory d;
  EXPECT_EQ(d.Allocate(510), block);
  EXPECT_EQ(d.Allocate(300), block);
  d.Release();
  EXPECT_EQ(d.Get(), nullptr);
  EXPECT_EQ(d.Allocate(0), nullptr);
  EXPECT_EQ(d.GetByteCount(), 0u);
}

TEST(SmallBlockPool, ReusesFreedBlocksWithoutTheHeap) {
  void* p = SmallBlockPool::Allocate(24);
  ASSERT_NE(p, nullptr);
  SmallBlockPool::Deallocate(p, 24);
  void* q = nullptr;
  EXPECT_NO_ALLOCATION(q = SmallBlockPool::Allocate(20));  // same 24-byte class
  EXPECT_EQ(q, p);
  SmallBlockPool::Deallocate(q, 20);
  vextest::AllocationCounter counter;
  void* big = SmallBlockPool::Allocate(SmallBlockPool::kMaxPooledBytes + 1);
  EXPECT_EQ(counter.Count(), 1u);
  SmallBlockPool::Deallocate(big, SmallBlockPool::kMaxPooledBytes + 1);
}

TEST(SmallBlockPool, BlocksAreAlignedAndDisjoint) {
  std::mt19937 rng(3);
  struct Block {
    unsigned char* p;
    std::size_t bytes;
    unsigned char tag;
  };
  std::vector<Block> blocks;
  for (int i = 0; i < 5000; ++i) {
    const std::size_t bytes = 1 + rng() % 300;  // a few beyond the pooled range
    auto* p = static_cast<unsigned char*>(SmallBlockPool::Allocate(bytes));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Address(p) % (((bytes + 7) & ~std::size_t(7)) % 16 == 0 ? 16 : 8), 0u) << bytes;
    std::memset(p, static_cast<unsigned char>(i), bytes);
    blocks.push_back({p, bytes, static_cast<unsigned char>(i)});
    if (rng() % 3 == 0) {
      const std::size_t victim = rng() % blocks.size();
      SmallBlockPool::Deallocate(blocks[victim].p, blocks[victim].bytes);
      blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(victim));
    }
  }
  for (const Block& b : blocks) {
    EXPECT_TRUE(std::all_of(b.p, b.p + b.bytes, [&](unsigned char c) { return c == b.tag; }));
    SmallBlockPool::Deallocate(b.p, b.bytes);
  }
}

using PoolString = std::basic_string<char, std::char_traits<char>, SmallBlockAllocator<char>>;
using PoolMap = std::map<int, PoolString, std::less<int>, SmallBlockAllocator<std::pair<const int, PoolString>>>;

TEST(SmallBlockAllocator, ConcurrentContainersAndCrossThreadFrees) {
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
        if (s.size() != static_cast<std::size_t>(i % 40 + 1) || s.find_first_not_of(fill) != PoolString::npos) ++errors;
      }
      if (round % 10 == 0) handOff[static_cast<std::size_t>(t)].push_back(std::move(map));
    }
  });
  // Blocks from the workers are freed on other threads, alongside new allocations.
  RunThreads(kThreads, [&](int t) {
    handOff[static_cast<std::size_t>(t)].clear();
    PoolMap map;
    for (int i = 0; i < 100; ++i) map.emplace(i, PoolString("x"));
    if (map.size() != 100) ++errors;
  });
  EXPECT_EQ(errors.load(), 0);
}

std::atomic<int> gDestroyed{0};

class Tracked : public vexcore::utility::RefCountedObject {
 public:
  Tracked() = default;
  Tracked(const Tracked&) = default;
  Tracked& operator=(const Tracked&) = default;
  ~Tracked() override { ++gDestroyed; }
  int value = 0;
};

TEST(RefCountedObject, CountsReferencesAndDeletesOnce) {
  gDestroyed = 0;
  Tracked* raw = new Tracked;
  EXPECT_EQ(raw->GetRefCount(), 0);
  {
    RefPtr<Tracked> a(raw);
    {
      RefPtr<Tracked> b = a;
      RefPtr<Tracked> c;
      c = b;
      RefPtr<Tracked> d = std::move(c);
      EXPECT_EQ(raw->GetRefCount(), 3);
    }
    EXPECT_EQ(raw->GetRefCount(), 1);
    EXPECT_EQ(gDestroyed.load(), 0);
  }
  EXPECT_EQ(gDestroyed.load(), 1);

  // Copying an object does not copy its count.
  RefPtr<Tracked> original = vexcore::utility::MakeRef<Tracked>();
  original->value = 7;
  RefPtr<Tracked> second = original;
  {
    RefPtr<Tracked> copy(new Tracked(*original));
    EXPECT_EQ(copy->GetRefCount(), 1);
    *copy = *original;
    EXPECT_EQ(copy->GetRefCount(), 1);
    EXPECT_EQ(copy->value, 7);
  }
  EXPECT_EQ(gDestroyed.load(), 2);
  EXPECT_EQ(original->GetRefCount(), 2);
}

// Every thread writes its own slot before dropping its reference; the
// destructor, on whichever thread runs it, must see all of them.
class SharedTally : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kSlots = 8;
  ~SharedTally() override {
    int sum = 0;
    for (int s : slots) sum += s;
    seenSum = sum;
    ++gDestroyed;
  }
  int slots[kSlots] = {};
  static std::atomic<int> seenSum;
};
std::atomic<int> SharedTally::seenSum{0};

TEST(RefCountedObject, ReleaseFromManyThreadsDeletesExactlyOnce) {
  for (int trial = 0; trial < 20; ++trial) {
    gDestroyed = 0;
    SharedTally::seenSum = 0;
    RefPtr<SharedTally> shared(new SharedTally);
    std::vector<RefPtr<SharedTally>> handles(SharedTally::kSlots, shared);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < SharedTally::kSlots; ++t) {
      threads.emplace_back([&, t] {
        RefPtr<SharedTally> mine = std::move(handles[static_cast<std::size_t>(t)]);
        while (!go.load()) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) {
          RefPtr<SharedTally> extra = mine;  // churn the count
          extra->slots[t] += 1;
        }
      });
    }
    shared.reset();
    go = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(gDestroyed.load(), 1) << trial;
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
    EXPECT_EQ(mutex.GetOwnerLabel(), outer);
    EXPECT_EQ(mutex.GetLockDepth(), 3);
    mutex.Unlock();
  }
  EXPECT_EQ(mutex.GetLockDepth(), 1);

  // Another thread sees the holder, cannot take the mutex and cannot release it.
  std::atomic<bool> entered{false};
  std::thread other([&] {
    EXPECT_EQ(mutex.GetOwnerLabel(), outer);
    EXPECT_EQ(mutex.GetLockDepth(), 0);
    EXPECT_FALSE(mutex.TryLock("intruder"));
    mutex.Unlock();
    EXPECT_FALSE(mutex.TryLock("intruder"));
    RecursiveMutexLock lock(mutex, "waiter");  // blocks until main unlocks
    entered = true;
    EXPECT_EQ(mutex.GetOwnerLabel(), std::string("waiter"));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered.load());
  EXPECT_EQ(mutex.GetLockDepth(), 1);
  mutex.Unlock();
  other.join();
  EXPECT_TRUE(entered.load());
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
  EXPECT_EQ(mutex.GetLockDepth(), 0);
}

TEST(RecursiveMutex, ProtectsACounterUnderContention) {
  RecursiveMutex mutex;
  static const char* const kLabels[] = {"t0", "t1", "t2", "t3"};
  long counter = 0;
  std::atomic<int> wrongOwner{0};
  RunThreads(4, [&](int t) {
    for (int i = 0; i < 20000; ++i) {
      RecursiveMutexLock lock(mutex, kLabels[t]);
      const long seen = counter;
      RecursiveMutexLock nested(mutex, "nested");
      if (mutex.GetOwnerLabel() != kLabels[t] || mutex.GetLockDepth() != 2) ++wrongOwner;
      counter = seen + 1;
    }
  });
  EXPECT_EQ(counter, 4L * 20000);
  EXPECT_EQ(wrongOwner.load(), 0);
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
}

using vexcore::config::Localizer;

class LocalizerTest : public ::testing::Test {
 protected:
  void SetUp() override { Localizer::Get().Clear(); }
  void TearDown() override { Localizer::Get().Clear(); }
  Localizer& loc = Localizer::Get();
};

TEST_F(LocalizerTest, DefaultTextAndLoadedTranslations) {
  EXPECT_EQ(loc.Localize("$$$/QRM/EncoderHost/Loudness/kIdentifier_LUFS=LUFS"), L"LUFS");
  EXPECT_EQ(loc.Localize("$$$/Test/Equation=a=b"), L"a=b");  // only the first '=' separates
  EXPECT_EQ(loc.Localize("plain text"), L"plain text");
  EXPECT_EQ(loc.LoadTranslations("$$$/Test/Loudness=Lautheit\n$$$/Test/Volume=\xE9\x9F\xB3\xE9\x87\x8F\n"), 2);
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Lautheit");
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness"), L"Lautheit");
  EXPECT_EQ(loc.Localize("$$$/Test/Loud=Loud"), L"Loud");                     // a prefix is another key
  EXPECT_EQ(loc.LoadTranslations("$$$/Test/Loudness=Lautst\xC3\xA4rke"), 1);  // no final newline
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Lautst\u00E4rke");
  EXPECT_EQ(loc.Localize("$$$/Test/Volume=Volume"), L"\u97F3\u91CF");  // earlier loads stay
  loc.Clear();
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Loudness");

  const std::string text =
      "\xEF\xBB\xBF$$$/A=first\r\n"
      "no equals sign here\n"
      "=text without key\n"
      "   \t \n"
      "\n"
      "# $$$/Commented=never\n"
      "  $$$/B  = spaced text \r\n"
      "$$$/C=x=y\n"
      "$$$/D=\n"
      "$$$/A=second\n";
  EXPECT_EQ(loc.LoadTranslations(text), 5);
  EXPECT_EQ(loc.Localize("$$$/A=dflt"), L"second");  // the later line wins
  EXPECT_EQ(loc.Localize("$$$/B=dflt"), L" spaced text ");
  EXPECT_EQ(loc.Localize("$$$/C=dflt"), L"x=y");
  EXPECT_EQ(loc.Localize("$$$/D=dflt"), L"");
  EXPECT_EQ(loc.Localize("# $$$/Commented=dflt"), L"dflt");
  EXPECT_EQ(loc.LoadTranslations("\n\n# only comments\n"), 0);
}

TEST_F(LocalizerTest, DecodesUtf8AndReplacesMalformedSequences) {
  const std::pair<const char*, const wchar_t*> cases[] = {
      {"$$$/T=\x41\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xB5", L"A\u00E9\u20AC\U0001F3B5"},
      {"$$$/T=\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
      {"$$$/T=ab\xC3", L"ab\uFFFD"},          // truncated at the end
      {"$$$/T=\xC3(x", L"\uFFFD(x"},          // bad continuation kept
      {"$$$/T=\xC0\xAF", L"\uFFFD\uFFFD"},    // overlong '/'
      {"$$$/T=\xE0\x80\xAF", L"\uFFFD"},      // overlong, 3 bytes
      {"$$$/T=\xED\xA0\x80z", L"\uFFFDz"},    // UTF-16 surrogate
      {"$$$/T=\xF4\x90\x80\x80", L"\uFFFD"},  // above U+10FFFF
      {"$$$/T=\x80\xFF", L"\uFFFD\uFFFD"},    // stray bytes
      {"$$$/T=\xE9\x9F", L"\uFFFD"},          // cut three-byte form
  };
  for (const auto& c : cases) EXPECT_EQ(loc.Localize(c.first), c.second) << c.first;
}

TEST_F(LocalizerTest, LookupsRaceWithLoadsSafely) {
  std::atomic<int> readersDone{0};
  std::atomic<int> wrong{0};
  std::thread writer([&] {
    while (readersDone.load() < 3) {
      loc.LoadTranslations(
          "$$$/Race/Key=\xC3\xBC"
          "bersetzt\n$$$/Race/Other=x\n");
      loc.Clear();
    }
  });
  RunThreads(3, [&](int) {
    for (int i = 0; i < 5000; ++i) {
      const std::wstring s = loc.Localize("$$$/Race/Key=default");
      if (s != L"default" && s != L"\u00FCbersetzt") ++wrong;
    }
    ++readersDone;
  });
  writer.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
