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
using vexcore::utility::SmallBlockAllocator;
using vexcore::utility::SmallBlockPool;

std::uintptr_t Address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

void RunThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

// ---------------------------------------------------------------- Flags

TEST(Flags, SingleBitsAcrossTheWholeWord) {
  for (unsigned bit = 0; bit < 64; ++bit) {
    ChannelFlags flags;
    flags.SetBit(bit);
    EXPECT_EQ(flags.Get(), std::uint64_t(1) << bit) << bit;
    for (unsigned other = 0; other < 64; ++other) EXPECT_EQ(flags.IsSet(other), other == bit);
    flags.ClearBit(bit);
    EXPECT_TRUE(flags.None()) << bit;
  }
}

TEST(Flags, IndicesBeyondTheWordAreIgnored) {
  ChannelFlags flags(0x5);
  flags.SetBit(64);
  flags.SetBit(1000);
  EXPECT_EQ(flags.Get(), 0x5u);
  flags = ChannelFlags::AllOnes();
  flags.ClearBit(64);
  EXPECT_EQ(flags, ChannelFlags::AllOnes());
  EXPECT_FALSE(flags.IsSet(64));
  EXPECT_TRUE(flags.IsSet(63));
}

TEST(Flags, LowBitsIsAContiguousRunOfTheRequestedLength) {
  EXPECT_EQ(ChannelFlags::LowBits(0).Get(), 0u);
  EXPECT_EQ(ChannelFlags::LowBits(1).Get(), 1u);
  EXPECT_EQ(ChannelFlags::LowBits(63).Get(), std::numeric_limits<std::uint64_t>::max() >> 1);
  EXPECT_EQ(ChannelFlags::LowBits(64), ChannelFlags::AllOnes());
  EXPECT_EQ(ChannelFlags::LowBits(65), ChannelFlags::AllOnes());
  EXPECT_EQ(ChannelFlags::AllOnes().Get(), std::numeric_limits<std::uint64_t>::max());
  for (unsigned n = 0; n <= 64; ++n) {
    const std::uint64_t v = ChannelFlags::LowBits(n).Get();
    EXPECT_EQ(static_cast<unsigned>(__builtin_popcountll(v)), n) << n;
    EXPECT_EQ(v & (v + 1), 0u) << "not a run from bit 0: " << n;
  }
  using ByteFlags = vexcore::utility::Flags<std::uint8_t>;
  EXPECT_EQ(ByteFlags::LowBits(7).Get(), 0x7F);
  EXPECT_EQ(ByteFlags::LowBits(8).Get(), 0xFF);
  EXPECT_EQ((~ByteFlags(0x0F)).Get(), 0xF0);
}

TEST(Flags, OperatorsMatchThePlainWordArithmetic) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 200; ++i) {
    const std::uint64_t a = rng(), b = rng();
    const ChannelFlags fa(a), fb(b);
    EXPECT_EQ((fa | fb).Get(), a | b);
    EXPECT_EQ((fa & fb).Get(), a & b);
    EXPECT_EQ((fa ^ fb).Get(), a ^ b);
    EXPECT_EQ((~fa).Get(), ~a);
    EXPECT_EQ(fa == fb, a == b);
    EXPECT_NE(fa, ~fa);
  }
  ChannelFlags f;
  EXPECT_TRUE(f.None());
  f |= ChannelFlags(0x80);
  EXPECT_TRUE(f.Any());
  f ^= ChannelFlags(0x81);
  EXPECT_EQ(f.Get(), 0x1u);
  f &= ChannelFlags(0x2);
  EXPECT_TRUE(f.None());
}

// ---------------------------------------------------------------- MemoryRecycler

class MemoryRecyclerTest : public ::testing::Test {
 protected:
  void SetUp() override { MemoryRecycler::Purge(); }
  void TearDown() override { MemoryRecycler::Purge(); }
};

TEST_F(MemoryRecyclerTest, EqualShapeGetsTheSameBlockBack) {
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  std::size_t token = 0;
  void* first = MemoryRecycler::Allocate(1000, token);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(token, 1024u);
  MemoryRecycler::Recycle(first, token);

  MemoryRecycler::Stats mid = MemoryRecycler::GetStats();
  EXPECT_EQ(mid.heapAllocations - before.heapAllocations, 1u);
  EXPECT_EQ(mid.cachedBlocks, 1u);
  EXPECT_EQ(mid.cachedBytes, 1024u);

  std::size_t token2 = 0;
  void* second = nullptr;
  // A cache hit must not touch the heap.
  EXPECT_NO_ALLOCATION(second = MemoryRecycler::Allocate(1000, token2));
  EXPECT_EQ(second, first);
  EXPECT_EQ(token2, token);

  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  EXPECT_EQ(after.heapAllocations, mid.heapAllocations);
  EXPECT_EQ(after.reuses - before.reuses, 1u);
  EXPECT_EQ(after.cachedBlocks, 0u);
  EXPECT_EQ(after.cachedBytes, 0u);
  MemoryRecycler::Recycle(second, token2);
}

TEST_F(MemoryRecyclerTest, SizeClassesArePowersOfTwoFrom64) {
  const std::pair<std::size_t, std::size_t> cases[] = {{1, 64},      {63, 64},     {64, 64},          {65, 128},
                                                       {4096, 4096}, {4097, 8192}, {3 << 20, 4 << 20}};
  for (const auto& c : cases) {
    std::size_t token = 0;
    void* p = MemoryRecycler::Allocate(c.first, token);
    ASSERT_NE(p, nullptr) << c.first;
    EXPECT_EQ(token, c.second) << c.first;
    MemoryRecycler::Recycle(p, token);
  }
  // A request of another size within the same class reuses the block.
  std::size_t token = 0;
  void* a = MemoryRecycler::Allocate(3000, token);
  MemoryRecycler::Recycle(a, token);
  void* b = MemoryRecycler::Allocate(2049, token);
  EXPECT_EQ(a, b);
  // ... but a block of a smaller class is not handed out for a larger request.
  void* c = MemoryRecycler::Allocate(5000, token);
  EXPECT_NE(c, b);
  MemoryRecycler::Recycle(c, token);
  MemoryRecycler::Recycle(b, 4096);
}

TEST_F(MemoryRecyclerTest, RefusesZeroHugeAndOverflowingRequests) {
  const std::size_t requests[] = {0, (std::size_t(1) << 30) + 1, std::size_t(1) << 40,
                                  std::numeric_limits<std::size_t>::max(),
                                  std::numeric_limits<std::size_t>::max() / 2 + 2};
  for (std::size_t bytes : requests) {
    std::size_t token = 12345;
    EXPECT_EQ(MemoryRecycler::Allocate(bytes, token), nullptr) << bytes;
    EXPECT_EQ(token, 0u) << bytes;
  }
  MemoryRecycler::Recycle(nullptr, 64);  // ignored
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 0u);
}

TEST_F(MemoryRecyclerTest, BlocksAreAlignedAndFullyWritable) {
  std::vector<std::pair<void*, std::size_t>> blocks;
  for (std::size_t bytes : {1u, 8u, 100u, 640u, 1500u, 65536u, 100000u}) {
    std::size_t token = 0;
    void* p = MemoryRecycler::Allocate(bytes, token);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Address(p) % 64, 0u) << bytes;
    std::memset(p, 0xA5, token);  // the whole class is usable
    blocks.emplace_back(p, token);
  }
  for (auto& b : blocks) MemoryRecycler::Recycle(b.first, b.second);
}

TEST_F(MemoryRecyclerTest, CacheKeepsAtMostSixteenBlocksPerClass) {
  std::vector<void*> blocks;
  std::size_t token = 0;
  for (int i = 0; i < 20; ++i) blocks.push_back(MemoryRecycler::Allocate(128, token));
  EXPECT_EQ(std::set<void*>(blocks.begin(), blocks.end()).size(), 20u);
  for (void* p : blocks) MemoryRecycler::Recycle(p, token);
  MemoryRecycler::Stats stats = MemoryRecycler::GetStats();
  EXPECT_EQ(stats.cachedBlocks, 16u);
  EXPECT_EQ(stats.cachedBytes, 16u * 128u);

  // Another class has its own allowance.
  void* other = MemoryRecycler::Allocate(300, token);
  MemoryRecycler::Recycle(other, token);
  stats = MemoryRecycler::GetStats();
  EXPECT_EQ(stats.cachedBlocks, 17u);
  EXPECT_EQ(stats.cachedBytes, 16u * 128u + 512u);

  MemoryRecycler::Purge();
  stats = MemoryRecycler::GetStats();
  EXPECT_EQ(stats.cachedBlocks, 0u);
  EXPECT_EQ(stats.cachedBytes, 0u);
}

TEST_F(MemoryRecyclerTest, LargeClassesKeepFewerBlocks) {
  // 32 MiB blocks: the per-class byte budget admits two of them.
  std::vector<void*> blocks;
  std::size_t token = 0;
  for (int i = 0; i < 4; ++i) blocks.push_back(MemoryRecycler::Allocate(std::size_t(32) << 20, token));
  for (void* p : blocks) MemoryRecycler::Recycle(p, token);
  EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 2u);
}

TEST_F(MemoryRecyclerTest, ConcurrentUseLosesAndSharesNothing) {
  constexpr int kThreads = 8;
  constexpr int kIterations = 3000;
  const MemoryRecycler::Stats before = MemoryRecycler::GetStats();
  std::atomic<std::size_t> allocations{0};
  std::atomic<int> corrupted{0};

  RunThreads(kThreads, [&](int t) {
    std::mt19937 rng(static_cast<unsigned>(t) + 1);
    std::uniform_int_distribution<std::size_t> size(1, 5000);
    struct Live {
      std::uint32_t* p;
      std::size_t words;
      std::size_t token;
      std::uint32_t tag;
    };
    std::vector<Live> live;
    for (int i = 0; i < kIterations; ++i) {
      const std::size_t bytes = size(rng) & ~std::size_t(3);
      std::size_t token = 0;
      void* p = MemoryRecycler::Allocate(bytes + 4, token);
      if (p == nullptr) {
        ++corrupted;
        continue;
      }
      ++allocations;
      Live l{static_cast<std::uint32_t*>(p), (bytes + 4) / 4, token, static_cast<std::uint32_t>(t << 24 | i)};
      for (std::size_t w = 0; w < l.words; ++w) l.p[w] = l.tag + static_cast<std::uint32_t>(w);
      live.push_back(l);
      if (live.size() > 6 || (rng() & 1)) {
        const std::size_t victim = rng() % live.size();
        const Live v = live[victim];
        for (std::size_t w = 0; w < v.words; ++w)
          if (v.p[w] != v.tag + static_cast<std::uint32_t>(w)) {
            ++corrupted;
            break;
          }
        MemoryRecycler::Recycle(v.p, v.token);
        live.erase(live.begin() + static_cast<std::ptrdiff_t>(victim));
      }
    }
    for (const Live& v : live) MemoryRecycler::Recycle(v.p, v.token);
  });

  EXPECT_EQ(corrupted.load(), 0);
  const MemoryRecycler::Stats after = MemoryRecycler::GetStats();
  // Every request was served either from the heap or from the cache.
  EXPECT_EQ((after.heapAllocations - before.heapAllocations) + (after.reuses - before.reuses), allocations.load());
  EXPECT_GT(after.reuses - before.reuses, 0u);
  // 5 KiB requests span classes 64 ... 8192: eight classes of 16 blocks at most.
  EXPECT_LE(after.cachedBlocks, 8u * 16u);
}

TEST_F(MemoryRecyclerTest, RecycledMemoryOwnsAndMovesItsBlock) {
  RecycledMemory empty;
  EXPECT_EQ(empty.Get(), nullptr);
  EXPECT_EQ(empty.GetByteCount(), 0u);

  void* block = nullptr;
  {
    RecycledMemory a;
    block = a.Allocate(500);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(a.Get(), block);
    EXPECT_EQ(a.GetByteCount(), 500u);
    EXPECT_EQ(a.GetSizeToken(), 512u);

    RecycledMemory b(std::move(a));
    EXPECT_EQ(a.Get(), nullptr);  // NOLINT(bugprone-use-after-move): moved-from state is defined
    EXPECT_EQ(a.GetByteCount(), 0u);
    EXPECT_EQ(a.GetSizeToken(), 0u);
    EXPECT_EQ(b.Get(), block);
    EXPECT_EQ(b.GetByteCount(), 500u);

    RecycledMemory c;
    void* old = c.Allocate(100);
    c = std::move(b);  // c's own block goes back to the recycler
    EXPECT_EQ(c.Get(), block);
    EXPECT_EQ(b.Get(), nullptr);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(MemoryRecycler::GetStats().cachedBlocks, 1u);
    std::size_t token = 0;
    void* again = MemoryRecycler::Allocate(128, token);
    EXPECT_EQ(again, old);
    MemoryRecycler::Recycle(again, token);

    RecycledMemory& self = c;
    c = std::move(self);
    EXPECT_EQ(c.Get(), block);
  }
  // Destruction returned the block: the next equal shape gets it.
  RecycledMemory d;
  EXPECT_EQ(d.Allocate(510), block);

  // Re-allocation releases first, so the same class comes straight back.
  EXPECT_EQ(d.Allocate(300), block);
  EXPECT_EQ(d.GetByteCount(), 300u);
  d.Release();
  EXPECT_EQ(d.Get(), nullptr);
  EXPECT_EQ(d.GetByteCount(), 0u);
  EXPECT_EQ(d.Allocate(0), nullptr);
  EXPECT_EQ(d.GetByteCount(), 0u);
}

// ---------------------------------------------------------------- SmallBlockAllocator

TEST(SmallBlockPool, FreedBlockIsReusedWithoutTheHeap) {
  void* p = SmallBlockPool::Allocate(24);
  ASSERT_NE(p, nullptr);
  SmallBlockPool::Deallocate(p, 24);
  void* q = nullptr;
  EXPECT_NO_ALLOCATION(q = SmallBlockPool::Allocate(20));  // same 24-byte class
  EXPECT_EQ(q, p);
  SmallBlockPool::Deallocate(q, 20);

  // Beyond the pooled range every request is a heap allocation.
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
    const std::size_t rounded = (bytes + 7) & ~std::size_t(7);
    EXPECT_EQ(Address(p) % 8, 0u);
    if (rounded % 16 == 0) {
      EXPECT_EQ(Address(p) % 16, 0u) << bytes;
    }
    const auto tag = static_cast<unsigned char>(i);
    std::memset(p, tag, bytes);
    blocks.push_back({p, bytes, tag});
    if (rng() % 3 == 0) {  // churn the free lists
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

TEST(SmallBlockAllocator, WorksInStandardContainers) {
  vexcore::utility::SmallBlockVector<int> v;
  for (int i = 0; i < 10000; ++i) v.push_back(i * 3);  // grows far past the pooled range
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(v[static_cast<std::size_t>(i)], i * 3);
  v.resize(5);
  v.shrink_to_fit();
  EXPECT_EQ(v, (vexcore::utility::SmallBlockVector<int>{0, 3, 6, 9, 12}));

  PoolMap map;
  for (int i = 0; i < 500; ++i) map.emplace(i, PoolString("value number ") + std::to_string(i).c_str());
  for (auto it = map.begin(); it != map.end();) it = (it->first % 2 == 0) ? map.erase(it) : std::next(it);
  ASSERT_EQ(map.size(), 250u);
  for (const auto& entry : map) {
    EXPECT_EQ(entry.first % 2, 1);
    EXPECT_EQ(std::string(entry.second.c_str()), "value number " + std::to_string(entry.first));
  }

  vexcore::utility::SmallBlockWString ws;
  std::wstring reference;
  for (int i = 0; i < 300; ++i) {
    const wchar_t c = static_cast<wchar_t>(L'a' + i % 26);
    ws.push_back(c);
    reference.push_back(c);
  }
  ws += L"\u97F3\u91CF";
  reference += L"\u97F3\u91CF";
  EXPECT_EQ(std::wstring(ws.c_str()), reference);
  vexcore::utility::SmallBlockWString copy = ws;
  copy.erase(0, 290);
  EXPECT_EQ(std::wstring(copy.c_str()), reference.substr(290));

  SmallBlockAllocator<int> a;
  SmallBlockAllocator<double> b(a);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
}

TEST(SmallBlockAllocator, ConcurrentContainersAndCrossThreadFrees) {
  constexpr int kThreads = 6;
  std::atomic<int> errors{0};
  std::vector<std::vector<PoolMap>> handOff(kThreads);
  RunThreads(kThreads, [&](int t) {
    for (int round = 0; round < 40; ++round) {
      PoolMap map;
      vexcore::utility::SmallBlockVector<std::uint64_t> values;
      for (int i = 0; i < 200; ++i) {
        map.emplace(i, PoolString(static_cast<std::size_t>(i % 40 + 1), static_cast<char>('A' + t)));
        values.push_back(static_cast<std::uint64_t>(t) << 32 | static_cast<std::uint64_t>(i));
      }
      for (int i = 0; i < 200; ++i) {
        const PoolString& s = map.at(i);
        if (s.size() != static_cast<std::size_t>(i % 40 + 1) ||
            s.find_first_not_of(static_cast<char>('A' + t)) != PoolString::npos)
          ++errors;
        if (values[static_cast<std::size_t>(i)] !=
            (static_cast<std::uint64_t>(t) << 32 | static_cast<std::uint64_t>(i)))
          ++errors;
      }
      if (round % 10 == 0) handOff[static_cast<std::size_t>(t)].push_back(std::move(map));
    }
  });
  EXPECT_EQ(errors.load(), 0);
  // Blocks allocated on the worker threads are freed here, on another thread,
  // concurrently with fresh allocations.
  RunThreads(kThreads, [&](int t) {
    handOff[static_cast<std::size_t>(t)].clear();
    PoolMap map;
    for (int i = 0; i < 100; ++i) map.emplace(i, PoolString("x"));
    if (map.size() != 100) ++errors;
  });
  EXPECT_EQ(errors.load(), 0);
}

// ---------------------------------------------------------------- RefCountedObject

std::atomic<int> gDestroyed{0};

class Tracked : public vexcore::utility::RefCountedObject {
 public:
  Tracked() = default;
  Tracked(const Tracked&) = default;
  Tracked& operator=(const Tracked&) = default;
  ~Tracked() override { ++gDestroyed; }
  int value = 0;
};

class ReaderInterface : public virtual vexcore::utility::RefCountedInterface {
 public:
  virtual int Read() const = 0;
};
class WriterInterface : public virtual vexcore::utility::RefCountedInterface {
 public:
  virtual void Write(int v) = 0;
};
class Register : public vexcore::utility::RefCountedObject, public ReaderInterface, public WriterInterface {
 public:
  ~Register() override { ++gDestroyed; }
  int Read() const override { return v_; }
  void Write(int v) override { v_ = v; }

 private:
  int v_ = 0;
};

using vexcore::utility::RefPtr;

TEST(RefCountedObject, CountsReferencesAndDeletesOnce) {
  gDestroyed = 0;
  Tracked* raw = new Tracked;
  EXPECT_EQ(raw->GetRefCount(), 0);
  {
    RefPtr<Tracked> a(raw);
    EXPECT_EQ(raw->GetRefCount(), 1);
    {
      RefPtr<Tracked> b = a;
      RefPtr<Tracked> c;
      c = b;
      EXPECT_EQ(raw->GetRefCount(), 3);
      RefPtr<Tracked> d = std::move(c);
      EXPECT_EQ(raw->GetRefCount(), 3);
    }
    EXPECT_EQ(raw->GetRefCount(), 1);
    EXPECT_EQ(gDestroyed.load(), 0);
  }
  EXPECT_EQ(gDestroyed.load(), 1);

  RefPtr<Tracked> made = vexcore::utility::MakeRef<Tracked>();
  EXPECT_EQ(made->GetRefCount(), 1);
  made.reset();
  EXPECT_EQ(gDestroyed.load(), 2);
}

TEST(RefCountedObject, DiamondThroughVirtualBaseHasOneCount) {
  gDestroyed = 0;
  {
    RefPtr<Register> whole(new Register);
    RefPtr<ReaderInterface> reader(whole.get());
    RefPtr<WriterInterface> writer(whole.get());
    RefPtr<vexcore::utility::RefCountedInterface> base(whole.get());
    EXPECT_EQ(whole->GetRefCount(), 4);
    EXPECT_EQ(reader->GetRefCount(), 4);
    EXPECT_EQ(writer->GetRefCount(), 4);
    writer->Write(42);
    EXPECT_EQ(reader->Read(), 42);
    whole.reset();
    writer.reset();
    EXPECT_EQ(reader->GetRefCount(), 2);
    base.reset();
    EXPECT_EQ(gDestroyed.load(), 0);
  }
  EXPECT_EQ(gDestroyed.load(), 1);
}

TEST(RefCountedObject, CopyingDoesNotCopyTheCount) {
  gDestroyed = 0;
  RefPtr<Tracked> original(new Tracked);
  original->value = 7;
  RefPtr<Tracked> second = original;
  {
    Tracked copy(*original);
    EXPECT_EQ(copy.value, 7);
    EXPECT_EQ(copy.GetRefCount(), 0);
    RefPtr<Tracked> heapCopy(new Tracked(*original));
    EXPECT_EQ(heapCopy->GetRefCount(), 1);
    *heapCopy = *original;  // assignment keeps each side's own count
    EXPECT_EQ(heapCopy->GetRefCount(), 1);
    EXPECT_EQ(original->GetRefCount(), 2);
    EXPECT_EQ(heapCopy->value, 7);
  }
  EXPECT_EQ(gDestroyed.load(), 2);  // the stack copy and the heap copy
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

// ---------------------------------------------------------------- RecursiveMutex

using vexcore::threads::RecursiveMutex;
using vexcore::threads::RecursiveMutexLock;

TEST(RecursiveMutex, ReentersAndNamesTheOutermostHolder) {
  RecursiveMutex mutex;
  const char* const outer = "outer scope";
  const char* const inner = "inner scope";
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
  EXPECT_EQ(mutex.GetLockDepth(), 0);
  mutex.Lock(outer);
  {
    RecursiveMutexLock lock(mutex, inner);
    EXPECT_EQ(mutex.GetOwnerLabel(), outer);
    EXPECT_EQ(mutex.GetLockDepth(), 2);
    EXPECT_TRUE(mutex.TryLock(inner));
    EXPECT_EQ(mutex.GetLockDepth(), 3);
    mutex.Unlock();
  }
  EXPECT_EQ(mutex.GetLockDepth(), 1);
  EXPECT_EQ(mutex.GetOwnerLabel(), outer);

  // Another thread sees the holder, cannot take the mutex and cannot release it.
  std::thread other([&] {
    EXPECT_EQ(mutex.GetOwnerLabel(), outer);
    EXPECT_EQ(mutex.GetLockDepth(), 0);
    EXPECT_FALSE(mutex.TryLock("intruder"));
    mutex.Unlock();
    EXPECT_FALSE(mutex.TryLock("intruder"));
  });
  other.join();
  EXPECT_EQ(mutex.GetLockDepth(), 1);
  mutex.Unlock();
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
  EXPECT_EQ(mutex.GetLockDepth(), 0);

  const char* const later = "later";
  std::thread taker([&] {
    ASSERT_TRUE(mutex.TryLock(later));
    EXPECT_EQ(mutex.GetOwnerLabel(), later);
    mutex.Unlock();
  });
  taker.join();
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
}

TEST(RecursiveMutex, LockWaitsForTheHolder) {
  RecursiveMutex mutex;
  std::atomic<bool> entered{false};
  mutex.Lock("main");
  std::thread waiter([&] {
    RecursiveMutexLock lock(mutex, "waiter");
    entered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered.load());
  mutex.Unlock();
  waiter.join();
  EXPECT_TRUE(entered.load());
}

TEST(RecursiveMutex, ProtectsACounterUnderContention) {
  RecursiveMutex mutex;
  constexpr int kThreads = 4;
  constexpr int kIterations = 20000;
  static const char* const kLabels[kThreads] = {"t0", "t1", "t2", "t3"};
  long counter = 0;
  std::atomic<int> wrongOwner{0};
  RunThreads(kThreads, [&](int t) {
    for (int i = 0; i < kIterations; ++i) {
      RecursiveMutexLock lock(mutex, kLabels[t]);
      const long seen = counter;
      {
        RecursiveMutexLock nested(mutex, "nested");
        if (mutex.GetOwnerLabel() != kLabels[t] || mutex.GetLockDepth() != 2) ++wrongOwner;
        counter = seen + 1;
      }
    }
  });
  EXPECT_EQ(counter, long(kThreads) * kIterations);
  EXPECT_EQ(wrongOwner.load(), 0);
  EXPECT_EQ(mutex.GetOwnerLabel(), nullptr);
}

// ---------------------------------------------------------------- Localizer

using vexcore::config::Localizer;

class LocalizerTest : public ::testing::Test {
 protected:
  void SetUp() override { Localizer::Get().Clear(); }
  void TearDown() override { Localizer::Get().Clear(); }
  Localizer& loc = Localizer::Get();
};

TEST_F(LocalizerTest, DefaultTextWithoutTranslation) {
  EXPECT_EQ(&Localizer::Get(), &loc);
  EXPECT_EQ(loc.Localize("$$$/QRM/EncoderHost/Loudness/kIdentifier_LUFS=LUFS"), L"LUFS");
  EXPECT_EQ(loc.Localize("$$$/Test/Equation=a=b"), L"a=b");  // only the first '=' separates
  EXPECT_EQ(loc.Localize("$$$/Test/Empty="), L"");
  EXPECT_EQ(loc.Localize("plain text"), L"plain text");
  EXPECT_EQ(loc.Localize(""), L"");
}

TEST_F(LocalizerTest, LoadedTranslationReplacesTheDefault) {
  EXPECT_EQ(loc.LoadTranslations("$$$/Test/Loudness=Lautheit\n$$$/Test/Volume=\xE9\x9F\xB3\xE9\x87\x8F\n"), 2);
  // The key matches with or without its own default.
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Lautheit");
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness"), L"Lautheit");
  EXPECT_EQ(loc.Localize("$$$/Test/Volume=Volume"), L"\u97F3\u91CF");
  EXPECT_EQ(loc.Localize("$$$/Test/Loud=Loud"), L"Loud");  // a prefix is another key

  EXPECT_EQ(loc.LoadTranslations("$$$/Test/Loudness=Lautst\xC3\xA4rke"), 1);  // no final newline
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Lautst\u00E4rke");
  EXPECT_EQ(loc.Localize("$$$/Test/Volume=Volume"), L"\u97F3\u91CF");  // earlier loads stay

  loc.Clear();
  EXPECT_EQ(loc.Localize("$$$/Test/Loudness=Loudness"), L"Loudness");
}

TEST_F(LocalizerTest, DecodesEveryUtf8Length) {
  EXPECT_EQ(loc.Localize("$$$/T=\x41\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xB5"), L"A\u00E9\u20AC\U0001F3B5");
  EXPECT_EQ(loc.Localize("$$$/T=\xF4\x8F\xBF\xBF"), L"\U0010FFFF");
}

TEST_F(LocalizerTest, MalformedUtf8BecomesReplacementCharacters) {
  EXPECT_EQ(loc.Localize("$$$/T=ab\xC3"), L"ab\uFFFD");          // truncated at the end
  EXPECT_EQ(loc.Localize("$$$/T=\xC3(x"), L"\uFFFD(x");          // bad continuation kept
  EXPECT_EQ(loc.Localize("$$$/T=\xC0\xAF"), L"\uFFFD\uFFFD");    // overlong '/'
  EXPECT_EQ(loc.Localize("$$$/T=\xE0\x80\xAF"), L"\uFFFD");      // overlong, 3 bytes
  EXPECT_EQ(loc.Localize("$$$/T=\xED\xA0\x80z"), L"\uFFFDz");    // UTF-16 surrogate
  EXPECT_EQ(loc.Localize("$$$/T=\xF4\x90\x80\x80"), L"\uFFFD");  // above U+10FFFF
  EXPECT_EQ(loc.Localize("$$$/T=\x80\xFF"), L"\uFFFD\uFFFD");    // stray bytes
  EXPECT_EQ(loc.Localize("$$$/T=\xE9\x9F"), L"\uFFFD");          // cut three-byte form
}

TEST_F(LocalizerTest, MalformedAndSpecialLinesAreSkipped) {
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
  EXPECT_EQ(loc.Localize("no equals sign here"), L"no equals sign here");
  EXPECT_EQ(loc.LoadTranslations(""), 0);
  EXPECT_EQ(loc.LoadTranslations("\n\n# only comments\n"), 0);
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
