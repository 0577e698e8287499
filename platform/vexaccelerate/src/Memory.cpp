#include <cstdlib>
#include <limits>

#include "vexaccelerate/Utility.h"

namespace vexaccelerate {
namespace utility {
namespace {

constexpr std::size_t kAlignment = 64;

void* AlignedBytes(std::size_t count, std::size_t elementSize) {
  if (count == 0 || count > std::numeric_limits<std::size_t>::max() / elementSize) return nullptr;
  void* p = nullptr;
  return posix_memalign(&p, kAlignment, count * elementSize) == 0 ? p : nullptr;
}

}  // namespace

float* Malloc_Float(std::size_t n) { return static_cast<float*>(AlignedBytes(n, sizeof(float))); }
double* Malloc_Double(std::size_t n) { return static_cast<double*>(AlignedBytes(n, sizeof(double))); }
void Free(void* p) noexcept { std::free(p); }

}  // namespace utility
}  // namespace vexaccelerate
