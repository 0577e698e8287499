#pragma once

#include <cstddef>

#include "vexcore/Export.h"

namespace vexcore {
namespace utility {

/// Process-wide cache of freed memory blocks, kept by size class so that a
/// buffer re-shaped to an equal size gets its old block back instead of a new
/// heap allocation. Size classes are the powers of two from 64 bytes to 1 GiB;
/// the size token is the class's byte count. Blocks are 64-byte aligned. Each
/// class caches at most 16 blocks (and at most 64 MiB, but always one block);
/// blocks recycled beyond that go back to the heap. Requests above 1 GiB are
/// served straight from the heap at their size rounded up to 64 bytes (that
/// rounded size is their token) and are freed, never cached, when recycled.
/// Thread-safe (one mutex); Allocate may reach the heap, so it belongs in
/// configuration code only. Recycle never allocates.
class VEX_API MemoryRecycler {
 public:
  struct Stats {
    std::size_t heapAllocations;  ///< blocks obtained from the heap so far
    std::size_t reuses;           ///< requests served from the cache
    std::size_t cachedBlocks;     ///< blocks waiting in the cache now
    std::size_t cachedBytes;
  };

  /// A block of at least `bytes` bytes, or null for 0 bytes, for a request
  /// above the heap ceiling (SetMaxHeapBlock) and when the heap is exhausted
  /// (never throws for those). `sizeToken` receives the size class (or the
  /// rounded size of a direct block), to be given back to Recycle (0 when
  /// null is returned).
  static void* Allocate(std::size_t bytes, std::size_t& sizeToken);
  /// Returns a block obtained from Allocate with its token to the cache (null
  /// is ignored; a token that names no class frees the block).
  static void Recycle(void* block, std::size_t sizeToken) noexcept;
  /// Frees every cached block.
  static void Purge() noexcept;
  /// The largest block Allocate takes from the heap; larger requests fail as
  /// an exhausted heap does (blocks already cached are still served). The
  /// default, 2^47 bytes, is all a 64-bit x86 process can address, so absurd
  /// sizes never reach the heap. A host may lower it to cap what one buffer
  /// can take; tests lower it to exercise the failure path.
  static void SetMaxHeapBlock(std::size_t bytes) noexcept;
  static std::size_t GetMaxHeapBlock() noexcept;
  static Stats GetStats() noexcept;
};

/// One owned block from the MemoryRecycler: pointer, byte count and size
/// token. Movable, not copyable; returns its block on destruction.
class VEX_API RecycledMemory {
 public:
  RecycledMemory() noexcept = default;
  ~RecycledMemory();
  RecycledMemory(RecycledMemory&& other) noexcept;
  RecycledMemory& operator=(RecycledMemory&& other) noexcept;
  RecycledMemory(const RecycledMemory&) = delete;
  RecycledMemory& operator=(const RecycledMemory&) = delete;

  /// Releases the current block and obtains one of at least `bytes` bytes;
  /// returns it (null on refusal, leaving the object empty). The byte count
  /// recorded is `bytes`, not the class size.
  void* Allocate(std::size_t bytes);
  /// Hands the block back to the recycler; afterwards Get() is null.
  void Release() noexcept;

  void* Get() const noexcept { return data_; }
  std::size_t GetByteCount() const noexcept { return bytes_; }
  std::size_t GetSizeToken() const noexcept { return sizeToken_; }

 private:
  void* data_ = nullptr;
  std::size_t bytes_ = 0;
  std::size_t sizeToken_ = 0;
};

}  // namespace utility
}  // namespace vexcore
