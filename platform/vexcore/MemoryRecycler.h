#pragma once

#include <cstddef>

#include "vexcore/Export.h"

namespace vexcore {
namespace utility {

/// Process-wide cache of freed memory blocks, kept by size class so that a
/// buffer re-shaped to an equal size gets its old block back instead of a new
/// heap allocation. Blocks are 64-byte aligned. Thread-safe (one mutex);
/// Allocate may reach the heap, so it belongs in configuration code only.
class VEX_API MemoryRecycler {
 public:
  struct Stats {
    std::size_t heapAllocations;  ///< blocks obtained from the heap so far
    std::size_t reuses;           ///< requests served from the cache
    std::size_t cachedBlocks;     ///< blocks waiting in the cache now
    std::size_t cachedBytes;
  };

  /// A block of at least `bytes` bytes (null for 0 bytes). `sizeToken`
  /// receives the size class, to be given back to Recycle.
  static void* Allocate(std::size_t bytes, std::size_t& sizeToken);
  /// Returns a block to the cache (null is ignored).
  static void Recycle(void* block, std::size_t sizeToken) noexcept;
  /// Frees every cached block.
  static void Purge() noexcept;
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

  /// Releases the current block and obtains one of at least `bytes` bytes.
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
