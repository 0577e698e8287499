#pragma once

#include <cstddef>

namespace vextest {

/// Counts heap allocations made by the current thread while armed. Every form
/// of operator new is replaced in the test binary; in builds without a
/// sanitizer malloc, calloc, realloc, aligned_alloc, posix_memalign and
/// memalign are counted as well (sanitizers own those symbols).
class AllocationCounter {
 public:
  AllocationCounter();
  ~AllocationCounter();
  AllocationCounter(const AllocationCounter&) = delete;
  AllocationCounter& operator=(const AllocationCounter&) = delete;

  /// Allocations seen since construction (or the last Restart).
  std::size_t Count() const;
  void Restart();
  /// Whether malloc-family calls are counted too in this build.
  static bool CountsMalloc();

 private:
  std::size_t start_;
  bool wasArmed_;
};

}  // namespace vextest

/// Runs `statement` and fails the test if it allocated on the heap.
#define EXPECT_NO_ALLOCATION(statement)                                          \
  do {                                                                           \
    ::vextest::AllocationCounter vextestCounter_;                                \
    statement;                                                                   \
    EXPECT_EQ(vextestCounter_.Count(), 0u) << "heap allocation in: " #statement; \
  } while (0)
