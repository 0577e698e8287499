#pragma once

#include <cstddef>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Coefficients of one biquad, normalised so that a0 = 1:
/// H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2).
struct SecondOrderIIRCoefficients {
  double a1 = 0.0;
  double a2 = 0.0;
  double b0 = 0.0;
  double b1 = 0.0;
  double b2 = 0.0;
};

/// One biquad in direct form II with double-precision state, fed and read in
/// single precision: w = x - a1 w1 - a2 w2, y = b0 w + b1 w1 + b2 w2. The
/// loudness meter's K-weighting runs on two of these per channel.
///
/// A plain value type: copying copies coefficients and state. Nothing here
/// allocates, locks or throws. Process keeps no guard against subnormal
/// states itself; callers that run it per block set one (Itu1770 does).
class VEXAUDIODSP_API SecondOrderIIRFilter {
 public:
  SecondOrderIIRFilter() = default;
  SecondOrderIIRFilter(const SecondOrderIIRFilter&) = default;
  SecondOrderIIRFilter(SecondOrderIIRFilter&&) noexcept = default;
  SecondOrderIIRFilter& operator=(const SecondOrderIIRFilter&) = default;
  SecondOrderIIRFilter& operator=(SecondOrderIIRFilter&&) noexcept = default;

  /// Copies the five coefficients; the state is kept.
  void SetCoefficients(const SecondOrderIIRCoefficients& c);
  SecondOrderIIRCoefficients GetCoefficients() const { return {a1_, a2_, b0_, b1_, b2_}; }
  /// Zeroes the state.
  void Reset();
  /// Filters n samples; `in` and `out` may be the same array.
  void Process(const float* in, float* out, std::size_t n);
  /// first.Process(in, out, n) then second.Process(out, out, n), bit for
  /// bit, in one pass: the two recursions overlap instead of running one
  /// after the other.
  static void ProcessCascade(SecondOrderIIRFilter& first, SecondOrderIIRFilter& second, const float* in, float* out,
                             std::size_t n);
  /// ProcessCascade on two channels at once (channel c through first[c]
  /// then second[c]), bit for bit: the four recursions interleave, which
  /// nearly halves the time of a stereo pair.
  static void ProcessCascadePair(SecondOrderIIRFilter* const first[2], SecondOrderIIRFilter* const second[2],
                                 const float* const in[2], float* const out[2], std::size_t n);

 private:
  double w1_ = 0.0;
  double w2_ = 0.0;
  double a1_ = 0.0;
  double a2_ = 0.0;
  double b0_ = 0.0;
  double b1_ = 0.0;
  double b2_ = 0.0;
};

}  // namespace dsp
