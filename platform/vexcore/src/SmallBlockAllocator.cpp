#include "vexcore/SmallBlockAllocator.h"

#include <cstdint>
#include <mutex>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define VEX_POOL_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define VEX_POOL_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define VEX_POOL_POISON(p, n) ((void)(p), (void)(n))
#define VEX_POOL_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace vexcore {
namespace utility {

namespace {

constexpr std::size_t kGranule = 8;
constexpr std::size_t kNumClasses = SmallBlockPool::kMaxPooledBytes / kGranule;
constexpr std::size_t kChunkBytes = 64 * 1024;
// The chunk's first bytes link it into the list of all chunks; 16 keeps the
// carving area at the alignment operator new guarantees.
constexpr std::size_t kChunkHeaderBytes = 16;

struct FreeNode {
  FreeNode* next;
};

struct ChunkHeader {
  ChunkHeader* next;
};

struct Pool {
  std::mutex mutex;
  FreeNode* freeLists[kNumClasses] = {};
  char* carve = nullptr;
  char* carveEnd = nullptr;
  // Every chunk stays listed, so the pool owns its memory visibly to leak
  // checkers even when no block of a chunk is in use.
  ChunkHeader* chunks = nullptr;
};

// Never destroyed: containers owned by static objects may give their blocks
// back during process exit.
Pool& GetPool() noexcept {
  alignas(Pool) static unsigned char storage[sizeof(Pool)];
  static Pool* const pool = new (storage) Pool();
  return *pool;
}

constexpr std::size_t RoundedSize(std::size_t bytes) noexcept {
  return bytes == 0 ? kGranule : (bytes + kGranule - 1) & ~(kGranule - 1);
}

}  // namespace

void* SmallBlockPool::Allocate(std::size_t bytes) {
  if (bytes > kMaxPooledBytes) return ::operator new(bytes);
  const std::size_t size = RoundedSize(bytes);
  const std::size_t index = size / kGranule - 1;

  Pool& pool = GetPool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  if (FreeNode* node = pool.freeLists[index]) {
    // Under AddressSanitizer idle blocks are poisoned, so a use after
    // deallocation is reported even though the pool never frees to the heap.
    VEX_POOL_UNPOISON(node, size);
    pool.freeLists[index] = node->next;
    return node;
  }

  // A size that is a multiple of 16 may hold a type aligned to 16 (the
  // fundamental alignment container users may rely on); other sizes can only
  // hold types aligned to 8 at most.
  const std::uintptr_t align = (size % 16 == 0) ? 16 : kGranule;
  std::uintptr_t at = (reinterpret_cast<std::uintptr_t>(pool.carve) + align - 1) & ~(align - 1);
  if (pool.carve == nullptr || at + size > reinterpret_cast<std::uintptr_t>(pool.carveEnd)) {
    // The unused tail of the old chunk (under 256 bytes) is abandoned.
    char* chunk = static_cast<char*>(::operator new(kChunkBytes));
    ChunkHeader* header = reinterpret_cast<ChunkHeader*>(chunk);
    header->next = pool.chunks;
    pool.chunks = header;
    pool.carve = chunk + kChunkHeaderBytes;
    pool.carveEnd = chunk + kChunkBytes;
    VEX_POOL_POISON(pool.carve, kChunkBytes - kChunkHeaderBytes);
    at = reinterpret_cast<std::uintptr_t>(pool.carve);
  }
  char* block = reinterpret_cast<char*>(at);
  pool.carve = block + size;
  VEX_POOL_UNPOISON(block, size);
  return block;
}

void SmallBlockPool::Deallocate(void* p, std::size_t bytes) noexcept {
  if (p == nullptr) return;
  if (bytes > kMaxPooledBytes) {
    ::operator delete(p);
    return;
  }
  const std::size_t size = RoundedSize(bytes);
  const std::size_t index = size / kGranule - 1;
  Pool& pool = GetPool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  FreeNode* node = static_cast<FreeNode*>(p);
  node->next = pool.freeLists[index];
  pool.freeLists[index] = node;
  VEX_POOL_POISON(node, size);
}

}  // namespace utility
}  // namespace vexcore
