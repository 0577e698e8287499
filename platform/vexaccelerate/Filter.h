#pragma once

#include <cstddef>

#include "vexcore/Export.h"

// Recursive and non-recursive filters in double precision.
//
// Init and Free allocate; everything else never allocates, locks or throws.
// Every int-returning call gives 0 on success and non-zero on bad arguments.
//
// IIR filters run in transposed direct form II, per biquad section for
// cascades; the delay line holds that form's state (s0 ... s_(order-1), or s1
// s2 per section). Filtering runs with the CPU's flush-to-zero and
// denormals-are-zero modes set (and the caller's mode restored on return), so
// a decaying state reaches exactly 0 instead of lingering in the slow
// subnormal range; single-sample and block calls give bit-identical results.
namespace vexaccelerate {

struct IIRState_Double;
struct FIRState_Float;

namespace filter {

/// One direct-form IIR filter of `order` (1 ... 32). `taps` holds
/// b0 ... b_order then a0 ... a_order (2 * order + 2 values); they are
/// normalised by a0 (a0 must not be 0). `delayLine` (order values) may be null:
/// the filter starts at rest.
VEX_API int IIRInit(IIRState_Double** state, const double* taps, int order, const double* delayLine);
/// A cascade of `numBiquads` second-order sections, six taps each
/// (b0 b1 b2 a0 a1 a2), each normalised by its a0. `delayLine`
/// (2 * numBiquads values) may be null.
VEX_API int IIRInit_BiQuad(IIRState_Double** state, const double* taps, int numBiquads, const double* delayLine);
/// Replaces the taps (same layout and count as at init) and keeps the state.
/// A set with some a0 == 0 is refused (non-zero) and the old taps stay.
VEX_API int IIRSetTaps(IIRState_Double* state, const double* taps);
/// Sets the delay line (null clears it: back at rest).
VEX_API int IIRSetDlyLine(IIRState_Double* state, const double* delayLine);
/// Copies the delay line out (order or 2 * numBiquads values).
VEX_API int IIRGetDlyLine(const IIRState_Double* state, double* delayLine);
/// Length of the delay line in doubles.
VEX_API int IIRGetDlyLineLength(const IIRState_Double* state);
/// One sample through the filter. A null state returns x.
VEX_API double IIR(double x, IIRState_Double* state) noexcept;
/// A block; in == out is allowed.
VEX_API int IIR(std::size_t n, const double* in, double* out, IIRState_Double* state) noexcept;
VEX_API void IIRFree(IIRState_Double* state);

/// Single-rate FIR with a delay line that persists across calls, so blocks of
/// any split give the same output as one long block (bit-identical). `taps`
/// (numTaps values) in time order h[0] ... h[numTaps - 1]. Float arithmetic;
/// cost is numTaps multiply-adds per sample, 8 outputs at a time on AVX2.
VEX_API int FIRInit(FIRState_Float** state, const float* taps, int numTaps);
VEX_API int FIRSetTaps(FIRState_Float* state, const float* taps);
/// Clears the delay line.
VEX_API int FIRReset(FIRState_Float* state);
/// y[i] = sum_k h[k] x[i - k]; in == out is allowed.
VEX_API int FIR(std::size_t n, const float* in, float* out, FIRState_Float* state) noexcept;
VEX_API void FIRFree(FIRState_Float* state);

enum WindowType { kWindowRectangular, kWindowHann, kWindowHamming, kWindowBlackman, kWindowKaiser };

/// Windowed-sinc low-pass design, a pure function: numTaps values into
/// `taps`, cut-off `cutoff` as a fraction of the sample rate (0 < cutoff <
/// 0.5), unity gain at DC (the taps sum to 1), symmetric (linear phase,
/// delay (numTaps - 1) / 2 samples). `param` is the Kaiser beta (>= 0) or the
/// Blackman alpha, where 0 (the default) selects the classic 0.16; other
/// windows ignore it. Windows as in vexaccelerate::utility.
/// Returns non-zero for bad arguments (nothing written).
VEX_API int DesignLowpassSinc(double* taps, int numTaps, double cutoff, WindowType window, double param = 0.0);
VEX_API int DesignLowpassSinc(float* taps, int numTaps, double cutoff, WindowType window, double param = 0.0);

}  // namespace filter
}  // namespace vexaccelerate
