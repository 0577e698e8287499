#pragma once

#include <xmmintrin.h>

namespace vexaccelerate {
namespace utility {

/// Sets flush-to-zero and denormals-are-zero in MXCSR for its lifetime and
/// restores the caller's mode on destruction. Recursions (IIR states,
/// feedback delays, envelopes) decaying towards zero then reach exactly 0
/// instead of crawling through the subnormal range, where every operation
/// costs ~100 cycles. Put one at the top of every per-block entry point that
/// runs a recursion; it costs two MXCSR accesses and never allocates.
///
/// Keep the filtering itself in a separate, non-inlined function when the
/// exact results matter: the compiler may otherwise move arithmetic across
/// the mode switch.
///
/// Guards nest freely: writing MXCSR stalls the pipeline, so a guard inside
/// one that already set the mode (an effect's block around a filter's
/// per-sample call) reads the register and writes nothing.
class ScopedFlushDenormals {
 public:
  ScopedFlushDenormals() noexcept : saved_(_mm_getcsr()) {
    if ((saved_ & kFtzDaz) != kFtzDaz) {
      _mm_setcsr(saved_ | kFtzDaz);
    }
  }
  ~ScopedFlushDenormals() {
    if ((saved_ & kFtzDaz) != kFtzDaz) {
      _mm_setcsr(saved_);
    }
  }
  ScopedFlushDenormals(const ScopedFlushDenormals&) = delete;
  ScopedFlushDenormals& operator=(const ScopedFlushDenormals&) = delete;

 private:
  static constexpr unsigned kFtzDaz = 0x8040;
  unsigned saved_;
};

}  // namespace utility
}  // namespace vexaccelerate
