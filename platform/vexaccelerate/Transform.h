#pragma once

#include <cstddef>

#include "vexcore/Export.h"

// Fast Fourier transforms of power-of-two length 2^order (order 1 ... 27).
//
// A state is planned once by FFTInit (which allocates and may take a while)
// and then used by FFTFwd/FFTInv, which never allocate or plan. A state may be
// used by one thread at a time; FFTInit and FFTFree may be called from any
// thread. Every call returns 0 on success and a non-zero status on failure
// (null state, bad order, null pointers).
//
// Layouts
//  - Complex states work on interleaved complex arrays: re0, im0, re1, im1, ...
//    (2N values), the same layout as std::complex.
//  - Real states take N real samples and produce the N/2 + 1 non-negative
//    frequency bins as interleaved complex values (re0, im0, ..., re(N/2),
//    im(N/2)): N + 2 values, im0 and im(N/2) are 0. FFTInv reads that layout and
//    ignores im0 and im(N/2).
// Scaling (chosen at FFTInit): by default the forward transform is unscaled
// and the inverse divides by N, so Inv(Fwd(x)) == x.
// In place (in == out) is allowed; for real states the buffer needs N + 2 values.
// `work` is an optional scratch buffer of FFTGetBufSize bytes, of any
// alignment; it may be null (the state's own scratch is used). Passing one
// lets threads share a state, each with its own work buffer.
//
// Built on FFTW 3 with FFTW_ESTIMATE plans (deterministic, planned in about
// a millisecond). Buffers at FFTW's SIMD alignment (16 bytes in the usual
// builds) are transformed directly; others are copied through the scratch.
namespace vexaccelerate {

struct FFTState_Float;          ///< real, float
struct FFTState_Double;         ///< real, double
struct FFTState_ComplexFloat;   ///< complex, float
struct FFTState_ComplexDouble;  ///< complex, double

namespace transform {

enum FFTScaling {
  kFFTDivInvByN = 0,   ///< forward unscaled, inverse / N (default)
  kFFTDivFwdByN = 1,   ///< forward / N, inverse unscaled
  kFFTDivBySqrtN = 2,  ///< both / sqrt(N)
  kFFTNoDivByAny = 3   ///< neither scaled
};

VEX_API int FFTInit(FFTState_Float** state, int order, FFTScaling scaling = kFFTDivInvByN);
VEX_API int FFTInit(FFTState_Double** state, int order, FFTScaling scaling = kFFTDivInvByN);
VEX_API int FFTInit(FFTState_ComplexFloat** state, int order, FFTScaling scaling = kFFTDivInvByN);
VEX_API int FFTInit(FFTState_ComplexDouble** state, int order, FFTScaling scaling = kFFTDivInvByN);

/// Bytes of scratch a transform of this state may use (`work`).
VEX_API int FFTGetBufSize(const FFTState_Float* state, int* bytes);
VEX_API int FFTGetBufSize(const FFTState_Double* state, int* bytes);
VEX_API int FFTGetBufSize(const FFTState_ComplexFloat* state, int* bytes);
VEX_API int FFTGetBufSize(const FFTState_ComplexDouble* state, int* bytes);

/// Transform length N of a state (0 for null).
VEX_API int FFTGetLength(const FFTState_Float* state);
VEX_API int FFTGetLength(const FFTState_Double* state);
VEX_API int FFTGetLength(const FFTState_ComplexFloat* state);
VEX_API int FFTGetLength(const FFTState_ComplexDouble* state);

VEX_API int FFTFwd(const FFTState_Float* state, const float* in, float* out, void* work = nullptr);
VEX_API int FFTFwd(const FFTState_Double* state, const double* in, double* out, void* work = nullptr);
VEX_API int FFTFwd(const FFTState_ComplexFloat* state, const float* in, float* out, void* work = nullptr);
VEX_API int FFTFwd(const FFTState_ComplexDouble* state, const double* in, double* out, void* work = nullptr);

VEX_API int FFTInv(const FFTState_Float* state, const float* in, float* out, void* work = nullptr);
VEX_API int FFTInv(const FFTState_Double* state, const double* in, double* out, void* work = nullptr);
VEX_API int FFTInv(const FFTState_ComplexFloat* state, const float* in, float* out, void* work = nullptr);
VEX_API int FFTInv(const FFTState_ComplexDouble* state, const double* in, double* out, void* work = nullptr);

/// Releases a state (null is ignored).
VEX_API void FFTFree(FFTState_Float* state);
VEX_API void FFTFree(FFTState_Double* state);
VEX_API void FFTFree(FFTState_ComplexFloat* state);
VEX_API void FFTFree(FFTState_ComplexDouble* state);

}  // namespace transform
}  // namespace vexaccelerate
