#include "vexcore/MemoryRecycler.h"

#include <atomic>
#include <limits>
#include <mutex>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define VEX_RECYCLER_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define VEX_RECYCLER_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define VEX_RECYCLER_POISON(p, n) ((void)(p), (void)(n))
#define VEX_RECYCLER_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace vexcore {
namespace utility {

namespace {

constexpr std::size_t kBlockAlignment = 64;
constexpr unsigned kMinClassShift = 6;   // 64 bytes: one cache line, room for the free-list link
constexpr unsigned kMaxClassShift = 30;  // 1 GiB: anything larger is allocated at its own size, not rounded to 2 GiB
constexpr unsigned kNumClasses = kMaxClassShift - kMinClassShift + 1;
constexpr std::size_t kMaxCachedBlocksPerClass = 16;
// Large classes would otherwise let sixteen idle buffers of hundreds of MiB sit in
// the cache; beyond this budget a class keeps a single block.
constexpr std::size_t kMaxCachedBytesPerClass = std::size_t(64) << 20;
constexpr std::size_t kDefaultMaxHeapBlock = std::size_t(1) << 47;

// A cached block stores the link to the next one in its own first bytes, so
// recycling never needs memory of its own.
struct FreeBlock {
  FreeBlock* next;
};

struct Cache {
  std::mutex mutex;
  FreeBlock* heads[kNumClasses] = {};
  std::size_t counts[kNumClasses] = {};
  std::size_t reuses = 0;
  std::size_t cachedBlocks = 0;
  std::size_t cachedBytes = 0;
  // Counted outside the lock: heap calls are made with the mutex released.
  std::atomic<std::size_t> heapAllocations{0};
  std::atomic<std::size_t> maxHeapBlock{kDefaultMaxHeapBlock};
};

// Built in static storage and never destroyed, so buffers released by other
// static objects during process exit still find a live cache.
Cache& GetCache() noexcept {
  alignas(Cache) static unsigned char storage[sizeof(Cache)];
  static Cache* const cache = new (storage) Cache();
  return *cache;
}

constexpr std::size_t ClassBytes(unsigned index) noexcept { return std::size_t(1) << (index + kMinClassShift); }

std::size_t MaxCachedBlocks(unsigned index) noexcept {
  const std::size_t byBudget = kMaxCachedBytesPerClass / ClassBytes(index);
  if (byBudget < 1) return 1;
  return byBudget < kMaxCachedBlocksPerClass ? byBudget : kMaxCachedBlocksPerClass;
}

// Class index for a request, or -1 when no class can hold it.
int ClassForBytes(std::size_t bytes) noexcept {
  if (bytes <= ClassBytes(0)) return 0;
  if (bytes > ClassBytes(kNumClasses - 1)) return -1;
  const unsigned shift = 64u - static_cast<unsigned>(__builtin_clzll(static_cast<unsigned long long>(bytes - 1)));
  return static_cast<int>(shift - kMinClassShift);
}

// Class index a size token names, or -1 when the token names no class.
int ClassForToken(std::size_t token) noexcept {
  if (token < ClassBytes(0) || token > ClassBytes(kNumClasses - 1) || (token & (token - 1)) != 0) return -1;
  return __builtin_ctzll(static_cast<unsigned long long>(token)) - static_cast<int>(kMinClassShift);
}

void FreeToHeap(void* block) noexcept { ::operator delete(block, std::align_val_t(kBlockAlignment)); }

// A fresh block from the heap, or null when it is refused or exhausted. The
// throwing form, paired with the aligned delete above: replacements of
// operator new (leak checkers, allocation counters) do not always provide the
// aligned nothrow variant.
void* TakeFromHeap(Cache& cache, std::size_t bytes) noexcept {
  if (bytes > cache.maxHeapBlock.load(std::memory_order_relaxed)) return nullptr;
  void* block = nullptr;
  try {
    block = ::operator new(bytes, std::align_val_t(kBlockAlignment));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  cache.heapAllocations.fetch_add(1, std::memory_order_relaxed);
  return block;
}

}  // namespace

void* MemoryRecycler::Allocate(std::size_t bytes, std::size_t& sizeToken) {
  sizeToken = 0;
  if (bytes == 0) return nullptr;
  Cache& cache = GetCache();
  const int index = ClassForBytes(bytes);
  if (index < 0) {
    // Beyond the largest class: rounding up to the next power of two could
    // waste up to half the block, and one such block is too big to keep idle.
    if (bytes > std::numeric_limits<std::size_t>::max() - (kBlockAlignment - 1)) return nullptr;
    const std::size_t rounded = (bytes + kBlockAlignment - 1) & ~(kBlockAlignment - 1);
    void* block = TakeFromHeap(cache, rounded);
    if (block != nullptr) sizeToken = rounded;
    return block;
  }
  const std::size_t classBytes = ClassBytes(static_cast<unsigned>(index));
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (FreeBlock* block = cache.heads[index]) {
      // Under AddressSanitizer a cached block is poisoned, so writes through a
      // pointer kept after Recycle are reported.
      VEX_RECYCLER_UNPOISON(block, classBytes);
      cache.heads[index] = block->next;
      --cache.counts[index];
      --cache.cachedBlocks;
      cache.cachedBytes -= classBytes;
      ++cache.reuses;
      sizeToken = classBytes;
      return block;
    }
  }
  void* block = TakeFromHeap(cache, classBytes);
  if (block != nullptr) sizeToken = classBytes;
  return block;
}

void MemoryRecycler::Recycle(void* block, std::size_t sizeToken) noexcept {
  if (block == nullptr) return;
  const int index = ClassForToken(sizeToken);
  // A token that names no class (a direct block above the largest class)
  // cannot be filed; the block still came from the aligned heap, so it is
  // simply freed.
  if (index < 0) {
    FreeToHeap(block);
    return;
  }
  Cache& cache = GetCache();
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.counts[index] < MaxCachedBlocks(static_cast<unsigned>(index))) {
      FreeBlock* node = static_cast<FreeBlock*>(block);
      node->next = cache.heads[index];
      cache.heads[index] = node;
      // The link stays readable so LeakSanitizer can follow the chain and
      // does not report cached blocks as leaks.
      VEX_RECYCLER_POISON(node + 1, sizeToken - sizeof(FreeBlock));
      ++cache.counts[index];
      ++cache.cachedBlocks;
      cache.cachedBytes += sizeToken;
      return;
    }
  }
  FreeToHeap(block);
}

void MemoryRecycler::Purge() noexcept {
  FreeBlock* lists[kNumClasses];
  Cache& cache = GetCache();
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    for (unsigned i = 0; i < kNumClasses; ++i) {
      lists[i] = cache.heads[i];
      cache.heads[i] = nullptr;
      cache.counts[i] = 0;
    }
    cache.cachedBlocks = 0;
    cache.cachedBytes = 0;
  }
  for (FreeBlock* head : lists) {
    while (head != nullptr) {
      VEX_RECYCLER_UNPOISON(head, sizeof(FreeBlock));
      FreeBlock* next = head->next;
      FreeToHeap(head);
      head = next;
    }
  }
}

void MemoryRecycler::SetMaxHeapBlock(std::size_t bytes) noexcept {
  GetCache().maxHeapBlock.store(bytes, std::memory_order_relaxed);
}

std::size_t MemoryRecycler::GetMaxHeapBlock() noexcept {
  return GetCache().maxHeapBlock.load(std::memory_order_relaxed);
}

MemoryRecycler::Stats MemoryRecycler::GetStats() noexcept {
  Cache& cache = GetCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  Stats stats;
  stats.heapAllocations = cache.heapAllocations.load(std::memory_order_relaxed);
  stats.reuses = cache.reuses;
  stats.cachedBlocks = cache.cachedBlocks;
  stats.cachedBytes = cache.cachedBytes;
  return stats;
}

RecycledMemory::~RecycledMemory() { Release(); }

RecycledMemory::RecycledMemory(RecycledMemory&& other) noexcept
    : data_(other.data_), bytes_(other.bytes_), sizeToken_(other.sizeToken_) {
  other.data_ = nullptr;
  other.bytes_ = 0;
  other.sizeToken_ = 0;
}

RecycledMemory& RecycledMemory::operator=(RecycledMemory&& other) noexcept {
  if (this != &other) {
    Release();
    data_ = other.data_;
    bytes_ = other.bytes_;
    sizeToken_ = other.sizeToken_;
    other.data_ = nullptr;
    other.bytes_ = 0;
    other.sizeToken_ = 0;
  }
  return *this;
}

void* RecycledMemory::Allocate(std::size_t bytes) {
  Release();
  data_ = MemoryRecycler::Allocate(bytes, sizeToken_);
  bytes_ = data_ != nullptr ? bytes : 0;
  return data_;
}

void RecycledMemory::Release() noexcept {
  MemoryRecycler::Recycle(data_, sizeToken_);
  data_ = nullptr;
  bytes_ = 0;
  sizeToken_ = 0;
}

}  // namespace utility
}  // namespace vexcore
