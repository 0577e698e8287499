#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vexcore/Export.h"

namespace vexcore {
namespace utility {

/// Pooled storage for small objects: requests up to kMaxPooledBytes come
/// from per-size free lists (8-byte steps) carved out of 64 KiB chunks; larger
/// ones go to operator new. Blocks are 8-byte aligned, 16-byte aligned when
/// their size is a multiple of 16. Deallocate must get the byte count given to
/// Allocate. Thread-safe (one mutex); Allocate may reach the heap and throws
/// std::bad_alloc like operator new. Chunks are kept for the life of the
/// process.
class VEX_API SmallBlockPool {
 public:
  static constexpr std::size_t kMaxPooledBytes = 256;
  static void* Allocate(std::size_t bytes);
  static void Deallocate(void* p, std::size_t bytes) noexcept;
};

/// STL allocator over SmallBlockPool, for the small containers of effect
/// objects (layouts, coefficient vectors).
template <typename T>
class SmallBlockAllocator {
 public:
  using value_type = T;

  SmallBlockAllocator() noexcept = default;
  template <typename U>
  SmallBlockAllocator(const SmallBlockAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) { return static_cast<T*>(SmallBlockPool::Allocate(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { SmallBlockPool::Deallocate(p, n * sizeof(T)); }

  template <typename U>
  bool operator==(const SmallBlockAllocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const SmallBlockAllocator<U>&) const noexcept {
    return false;
  }
};

template <typename T>
using SmallBlockVector = std::vector<T, SmallBlockAllocator<T>>;
using SmallBlockWString = std::basic_string<wchar_t, std::char_traits<wchar_t>, SmallBlockAllocator<wchar_t>>;

}  // namespace utility
}  // namespace vexcore
