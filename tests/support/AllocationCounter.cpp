#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

// Plain TLS words: safe to touch from inside operator new before any
// constructor of this file has run.
thread_local bool tArmed = false;
thread_local std::size_t tCount = 0;

inline void Note() noexcept {
  if (tArmed) ++tCount;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCountMalloc = false;
#else
constexpr bool kCountMalloc = true;
#endif

void* AllocOrThrow(std::size_t n) {
  Note();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}

void* AlignedOrThrow(std::size_t n, std::align_val_t al) {
  Note();
  void* p = nullptr;
  std::size_t a = static_cast<std::size_t>(al);
  if (a < sizeof(void*)) a = sizeof(void*);
  if (posix_memalign(&p, a, n ? n : 1) != 0) throw std::bad_alloc();
  return p;
}

}  // namespace

namespace vextest {

AllocationCounter::AllocationCounter() : start_(tCount), wasArmed_(tArmed) { tArmed = true; }
AllocationCounter::~AllocationCounter() { tArmed = wasArmed_; }
std::size_t AllocationCounter::Count() const { return tCount - start_; }
void AllocationCounter::Restart() { start_ = tCount; }
bool AllocationCounter::CountsMalloc() { return kCountMalloc; }

}  // namespace vextest

// operator new: the malloc-family counting below sees these too, so they
// count only when malloc is not counted separately.
void* operator new(std::size_t n) {
  if (kCountMalloc) {
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
  }
  return AllocOrThrow(n);
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  try {
    return operator new(n);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void* operator new(std::size_t n, std::align_val_t al) {
  if (kCountMalloc) {
    void* p = nullptr;
    std::size_t a = static_cast<std::size_t>(al);
    if (a < sizeof(void*)) a = sizeof(void*);
    if (posix_memalign(&p, a, n ? n : 1) != 0) throw std::bad_alloc();
    return p;
  }
  return AlignedOrThrow(n, al);
}
void* operator new[](std::size_t n, std::align_val_t al) { return operator new(n, al); }
void* operator new(std::size_t n, std::align_val_t al, const std::nothrow_t&) noexcept {
  try {
    return operator new(n, al);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t n, std::align_val_t al, const std::nothrow_t& t) noexcept {
  return operator new(n, al, t);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free(p); }

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// glibc keeps its allocator reachable under these names, so the public
// malloc family can be replaced here and still reach the real one. This also
// catches allocations made inside libvexaudiodsp.so and its dependencies.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t n) noexcept {
  Note();
  return __libc_malloc(n);
}
void* calloc(std::size_t a, std::size_t b) noexcept {
  Note();
  return __libc_calloc(a, b);
}
void* realloc(void* p, std::size_t n) noexcept {
  Note();
  return __libc_realloc(p, n);
}
void free(void* p) noexcept { __libc_free(p); }
void* memalign(std::size_t a, std::size_t n) noexcept {
  Note();
  return __libc_memalign(a, n);
}
void* aligned_alloc(std::size_t a, std::size_t n) noexcept {
  Note();
  return __libc_memalign(a, n);
}
int posix_memalign(void** out, std::size_t a, std::size_t n) noexcept {
  Note();
  if (a % sizeof(void*) != 0 || (a & (a - 1)) != 0) return 22;  // EINVAL
  void* p = __libc_memalign(a, n);
  if (!p) return 12;  // ENOMEM
  *out = p;
  return 0;
}
}
#endif
