#pragma once

#include <cstddef>
#include <cstdint>

#include "vexcore/Export.h"

// Vector operations on float and double arrays. Argument order throughout:
// count first, then sources, then the destination, then scalars. Pointers may
// be unaligned; unless said otherwise source and destination must not overlap
// partially (identical pointers are fine for the element-wise operations).
// None of these allocate, lock or throw. A count of 0 does nothing.
//
// The arithmetic kernels are built for AVX2 and for baseline SSE2 and the
// loader picks one per machine; results are identical either way (no fused
// multiply-add). Element-wise results are exactly those of the scalar
// expression; Dot and Sum keep several partial sums, so their rounding
// differs from a left-to-right loop by a few ulps of double.
namespace vexaccelerate {
namespace utility {

VEX_API void Copy(std::size_t n, const float* src, float* dst) noexcept;
VEX_API void Copy(std::size_t n, const double* src, double* dst) noexcept;
/// Copy that is safe for overlapping ranges.
VEX_API void Move(std::size_t n, const float* src, float* dst) noexcept;
VEX_API void Move(std::size_t n, const double* src, double* dst) noexcept;
VEX_API void Zero(std::size_t n, float* dst) noexcept;
VEX_API void Zero(std::size_t n, double* dst) noexcept;
VEX_API void Set(std::size_t n, float value, float* dst) noexcept;
VEX_API void Set(std::size_t n, double value, double* dst) noexcept;

/// dst[i] = a[i] + b[i]
VEX_API void Add(std::size_t n, const float* a, const float* b, float* dst) noexcept;
VEX_API void Add(std::size_t n, const double* a, const double* b, double* dst) noexcept;
/// srcDst[i] += src[i]
VEX_API void Add_InPlace(std::size_t n, const float* src, float* srcDst) noexcept;
VEX_API void Add_InPlace(std::size_t n, const double* src, double* srcDst) noexcept;
/// dst[i] = a[i] * b[i]
VEX_API void Mul(std::size_t n, const float* a, const float* b, float* dst) noexcept;
VEX_API void Mul(std::size_t n, const double* a, const double* b, double* dst) noexcept;
/// srcDst[i] *= src[i]
VEX_API void Mul_InPlace(std::size_t n, const float* src, float* srcDst) noexcept;
VEX_API void Mul_InPlace(std::size_t n, const double* src, double* srcDst) noexcept;
/// dst[i] = src[i] * value
VEX_API void MulConstant(std::size_t n, const float* src, float* dst, float value) noexcept;
VEX_API void MulConstant(std::size_t n, const double* src, double* dst, double value) noexcept;
/// srcDst[i] *= value
VEX_API void MulConstant_InPlace(std::size_t n, float* srcDst, float value) noexcept;
VEX_API void MulConstant_InPlace(std::size_t n, double* srcDst, double value) noexcept;

/// Sum of a[i] * b[i]; the float form accumulates in double.
VEX_API double Dot(std::size_t n, const float* a, const float* b) noexcept;
VEX_API double Dot(std::size_t n, const double* a, const double* b) noexcept;
/// Sum of src[i]; the float form accumulates in double.
VEX_API double Sum(std::size_t n, const float* src) noexcept;
VEX_API double Sum(std::size_t n, const double* src) noexcept;
/// Largest value (signed); -infinity for n == 0. NaNs are skipped.
VEX_API float Max(std::size_t n, const float* src) noexcept;
VEX_API double Max(std::size_t n, const double* src) noexcept;

/// Precision conversions.
VEX_API void Convert(std::size_t n, const float* src, double* dst) noexcept;
VEX_API void Convert(std::size_t n, const double* src, float* dst) noexcept;
/// int16 to float scales by 2^-15.
VEX_API void Convert(std::size_t n, const std::int16_t* src, float* dst) noexcept;
/// float to int16 scales by 2^15, rounds to nearest (ties to even) and
/// saturates to [-32768, 32767]; NaN becomes 0.
VEX_API void Convert(std::size_t n, const float* src, std::int16_t* dst) noexcept;

/// Split to interleaved complex: dst[2i] = re[i], dst[2i + 1] = im[i] for
/// i < n. The arrays may not overlap.
VEX_API void RealToComplex(std::size_t n, const float* re, const float* im, float* dst) noexcept;
VEX_API void RealToComplex(std::size_t n, const double* re, const double* im, double* dst) noexcept;
/// Interleaved to split complex: re[i] = src[2i], im[i] = src[2i + 1]. The
/// arrays may not overlap.
VEX_API void ComplexToReal(std::size_t n, const float* src, float* re, float* im) noexcept;
VEX_API void ComplexToReal(std::size_t n, const double* src, double* re, double* im) noexcept;

/// dst[i * channels + c] = src[c][i] for i < n.
VEX_API void Interleave(const float* const* src, std::size_t channels, std::size_t n, float* dst) noexcept;
/// dst[c][i] = src[i * channels + c] for i < n.
VEX_API void Deinterleave(const float* src, std::size_t channels, std::size_t n, float* const* dst) noexcept;

// Analysis windows, symmetric, of length n written to w (n == 1 gives 1.0).
VEX_API void WindowHann(std::size_t n, float* w) noexcept;
VEX_API void WindowHann(std::size_t n, double* w) noexcept;
VEX_API void WindowHamming(std::size_t n, float* w) noexcept;
VEX_API void WindowHamming(std::size_t n, double* w) noexcept;
/// Blackman with parameter alpha: 0.5(1-alpha) - 0.5cos(2pi i/(n-1)) +
/// 0.5 alpha cos(4pi i/(n-1)); alpha = 0.16 is the classic window.
VEX_API void WindowBlackman(std::size_t n, float* w, double alpha) noexcept;
VEX_API void WindowBlackman(std::size_t n, double* w, double alpha) noexcept;
VEX_API void WindowBartlett(std::size_t n, float* w) noexcept;
VEX_API void WindowBartlett(std::size_t n, double* w) noexcept;
/// Kaiser: I0(beta sqrt(1 - (2i/(n-1) - 1)^2)) / I0(beta), beta >= 0; I0 is
/// summed from its power series to full double precision.
VEX_API void WindowKaiser(std::size_t n, float* w, double beta) noexcept;
VEX_API void WindowKaiser(std::size_t n, double* w, double beta) noexcept;

/// 64-byte aligned arrays (null for n == 0 or on failure), released by Free.
/// These allocate: configuration code only.
VEX_API float* Malloc_Float(std::size_t n);
VEX_API double* Malloc_Double(std::size_t n);
VEX_API void Free(void* p) noexcept;

}  // namespace utility
}  // namespace vexaccelerate
