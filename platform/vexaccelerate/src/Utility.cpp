#include "vexaccelerate/Utility.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "Dispatch.h"

// Each hot kernel is written once as an always-inline template and stamped out
// as a plain function per element type. On x86-64 those functions are built
// twice (AVX2 and baseline SSE2) and the loader picks one at start-up, so AVX2
// machines run 8-wide float code while older ones still work.
#define VEX_INLINE inline __attribute__((always_inline))

namespace vexaccelerate {
namespace utility {
namespace {

// Reductions keep this many independent lanes so the compiler may vectorise
// them without reassociating a single running sum (which it must not do
// without -ffast-math). Sixteen lanes are four AVX2 registers of doubles,
// enough to hide the latency of the adds. The lane count is fixed in the
// source, so both builds of a kernel round identically.
constexpr std::size_t kLanes = 16;

template <typename T>
VEX_INLINE void AddKernel(std::size_t n, const T* __restrict a, const T* __restrict b, T* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = a[i] + b[i];
}

template <typename T>
VEX_INLINE void AddInPlaceKernel(std::size_t n, const T* __restrict src, T* __restrict srcDst) {
  for (std::size_t i = 0; i < n; ++i) srcDst[i] += src[i];
}

template <typename T>
VEX_INLINE void MulKernel(std::size_t n, const T* __restrict a, const T* __restrict b, T* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = a[i] * b[i];
}

template <typename T>
VEX_INLINE void MulInPlaceKernel(std::size_t n, const T* __restrict src, T* __restrict srcDst) {
  for (std::size_t i = 0; i < n; ++i) srcDst[i] *= src[i];
}

template <typename T>
VEX_INLINE void MulConstantKernel(std::size_t n, const T* __restrict src, T* __restrict dst, T value) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = src[i] * value;
}

template <typename T>
VEX_INLINE void MulConstantInPlaceKernel(std::size_t n, T* __restrict srcDst, T value) {
  for (std::size_t i = 0; i < n; ++i) srcDst[i] *= value;
}

template <typename T>
VEX_INLINE void SetKernel(std::size_t n, T value, T* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = value;
}

// Products of two floats are exact in double, so the float dot product differs
// from an exact one only by the rounding of the double additions.
template <typename T>
VEX_INLINE double DotKernel(std::size_t n, const T* __restrict a, const T* __restrict b) {
  double acc[kLanes] = {};
  std::size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    for (std::size_t j = 0; j < kLanes; ++j) acc[j] += static_cast<double>(a[i + j]) * static_cast<double>(b[i + j]);
  }
  double tail = 0.0;
  for (; i < n; ++i) tail += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  for (std::size_t width = kLanes / 2; width > 0; width /= 2) {
    for (std::size_t j = 0; j < width; ++j) acc[j] += acc[j + width];
  }
  return acc[0] + tail;
}

template <typename T>
VEX_INLINE double SumKernel(std::size_t n, const T* __restrict src) {
  double acc[kLanes] = {};
  std::size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    for (std::size_t j = 0; j < kLanes; ++j) acc[j] += static_cast<double>(src[i + j]);
  }
  double tail = 0.0;
  for (; i < n; ++i) tail += static_cast<double>(src[i]);
  for (std::size_t width = kLanes / 2; width > 0; width /= 2) {
    for (std::size_t j = 0; j < width; ++j) acc[j] += acc[j + width];
  }
  return acc[0] + tail;
}

// `x > m ? x : m` is exactly what maxps computes: a NaN in x leaves m alone,
// and since every lane starts at -infinity a NaN can never become the
// maximum. The compiler does not turn independent scalar lanes of this into
// vector code by itself, so the lanes are spelled as 16-byte GCC vectors
// (native in SSE2 and AVX2 alike; 32-byte ones are scalarised without AVX).
template <typename T>
VEX_INLINE T MaxKernel(std::size_t n, const T* __restrict src) {
  constexpr std::size_t kWidth = 16 / sizeof(T);
  typedef T Vec __attribute__((vector_size(16)));
  constexpr T kLowest = -std::numeric_limits<T>::infinity();
  Vec m[4];
  for (Vec& v : m) {
    for (std::size_t j = 0; j < kWidth; ++j) v[j] = kLowest;
  }
  std::size_t i = 0;
  for (; i + 4 * kWidth <= n; i += 4 * kWidth) {
    for (std::size_t k = 0; k < 4; ++k) {
      Vec x;
      std::memcpy(&x, src + i + k * kWidth, sizeof(Vec));
      m[k] = x > m[k] ? x : m[k];
    }
  }
  m[0] = m[1] > m[0] ? m[1] : m[0];
  m[2] = m[3] > m[2] ? m[3] : m[2];
  m[0] = m[2] > m[0] ? m[2] : m[0];
  T result = kLowest;
  for (; i < n; ++i) result = src[i] > result ? src[i] : result;
  for (std::size_t j = 0; j < kWidth; ++j) result = m[0][j] > result ? m[0][j] : result;
  return result;
}

template <typename From, typename To>
VEX_INLINE void ConvertKernel(std::size_t n, const From* __restrict src, To* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<To>(src[i]);
}

VEX_KERNEL void AddK(std::size_t n, const float* a, const float* b, float* dst) { AddKernel(n, a, b, dst); }
VEX_KERNEL void AddK(std::size_t n, const double* a, const double* b, double* dst) { AddKernel(n, a, b, dst); }
VEX_KERNEL void AddInPlaceK(std::size_t n, const float* src, float* srcDst) { AddInPlaceKernel(n, src, srcDst); }
VEX_KERNEL void AddInPlaceK(std::size_t n, const double* src, double* srcDst) { AddInPlaceKernel(n, src, srcDst); }
VEX_KERNEL void MulK(std::size_t n, const float* a, const float* b, float* dst) { MulKernel(n, a, b, dst); }
VEX_KERNEL void MulK(std::size_t n, const double* a, const double* b, double* dst) { MulKernel(n, a, b, dst); }
VEX_KERNEL void MulInPlaceK(std::size_t n, const float* src, float* srcDst) { MulInPlaceKernel(n, src, srcDst); }
VEX_KERNEL void MulInPlaceK(std::size_t n, const double* src, double* srcDst) { MulInPlaceKernel(n, src, srcDst); }
VEX_KERNEL void MulConstantK(std::size_t n, const float* src, float* dst, float v) {
  MulConstantKernel(n, src, dst, v);
}
VEX_KERNEL void MulConstantK(std::size_t n, const double* src, double* dst, double v) {
  MulConstantKernel(n, src, dst, v);
}
VEX_KERNEL void MulConstantInPlaceK(std::size_t n, float* srcDst, float v) { MulConstantInPlaceKernel(n, srcDst, v); }
VEX_KERNEL void MulConstantInPlaceK(std::size_t n, double* srcDst, double v) { MulConstantInPlaceKernel(n, srcDst, v); }
VEX_KERNEL void SetK(std::size_t n, float v, float* dst) { SetKernel(n, v, dst); }
VEX_KERNEL void SetK(std::size_t n, double v, double* dst) { SetKernel(n, v, dst); }
VEX_KERNEL double DotK(std::size_t n, const float* a, const float* b) { return DotKernel(n, a, b); }
VEX_KERNEL double DotK(std::size_t n, const double* a, const double* b) { return DotKernel(n, a, b); }
VEX_KERNEL double SumK(std::size_t n, const float* src) { return SumKernel(n, src); }
VEX_KERNEL double SumK(std::size_t n, const double* src) { return SumKernel(n, src); }
VEX_KERNEL float MaxK(std::size_t n, const float* src) { return MaxKernel(n, src); }
VEX_KERNEL double MaxK(std::size_t n, const double* src) { return MaxKernel(n, src); }
// Two arrays <-> pairs (split and interleaved complex, stereo): the loops
// vectorise to unpack/permute pairs once the AVX2 clone is taken.
template <typename T>
VEX_INLINE void ZipKernel(std::size_t n, const T* __restrict re, const T* __restrict im, T* __restrict dst) {
  for (std::size_t i = 0; i < n; ++i) {
    dst[2 * i] = re[i];
    dst[2 * i + 1] = im[i];
  }
}

template <typename T>
VEX_INLINE void UnzipKernel(std::size_t n, const T* __restrict src, T* __restrict re, T* __restrict im) {
  for (std::size_t i = 0; i < n; ++i) {
    re[i] = src[2 * i];
    im[i] = src[2 * i + 1];
  }
}

VEX_KERNEL void ZipK(std::size_t n, const float* re, const float* im, float* dst) { ZipKernel(n, re, im, dst); }
VEX_KERNEL void ZipK(std::size_t n, const double* re, const double* im, double* dst) { ZipKernel(n, re, im, dst); }
VEX_KERNEL void UnzipK(std::size_t n, const float* src, float* re, float* im) { UnzipKernel(n, src, re, im); }
VEX_KERNEL void UnzipK(std::size_t n, const double* src, double* re, double* im) { UnzipKernel(n, src, re, im); }

VEX_KERNEL void FloatToDouble(std::size_t n, const float* src, double* dst) { ConvertKernel(n, src, dst); }
VEX_KERNEL void DoubleToFloat(std::size_t n, const double* src, float* dst) { ConvertKernel(n, src, dst); }

VEX_KERNEL void Int16ToFloat(std::size_t n, const std::int16_t* __restrict src, float* __restrict dst) {
  constexpr float kScale = 1.0f / 32768.0f;
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<float>(src[i]) * kScale;
}

// Adding and removing 1.5 * 2^23 rounds to the nearest integer (ties to
// even, the default rounding mode) with plain vector adds for |v| < 2^22;
// larger values come out of it still out of range and are clamped after.
// The clamps and the NaN test are selects rather than branches (NaN fails
// every comparison and ends as 0), which keeps the loop vectorisable; the
// truncating conversion that follows is then exact.
VEX_KERNEL void FloatToInt16(std::size_t n, const float* __restrict src, std::int16_t* __restrict dst) {
  constexpr float kMagic = 12582912.0f;
  for (std::size_t i = 0; i < n; ++i) {
    const float v = src[i] * 32768.0f;
    float r = (v + kMagic) - kMagic;
    r = r < -32768.0f ? -32768.0f : r;
    r = r > 32767.0f ? 32767.0f : r;
    r = r == r ? r : 0.0f;
    dst[i] = static_cast<std::int16_t>(static_cast<int>(r));
  }
}

// The modified Bessel function of the first kind, order 0, by its power
// series sum ((x/2)^k / k!)^2; the terms shrink fast enough for any beta a
// window uses (beta <= ~50 needs < 100 terms).
double BesselI0(double x) {
  const double q = 0.25 * x * x;
  double term = 1.0;
  double sum = 1.0;
  for (int k = 1; k < 500; ++k) {
    term *= q / (static_cast<double>(k) * static_cast<double>(k));
    sum += term;
    if (term < sum * 1e-17) break;
  }
  return sum;
}

// All windows are symmetric: sample i and n-1-i take the same value, computed
// from the position x = i / (n - 1) in [0, 1].
template <typename T, typename Shape>
void FillWindow(std::size_t n, T* w, Shape shape) {
  if (n == 0 || w == nullptr) return;
  if (n == 1) {
    w[0] = T(1);
    return;
  }
  const double last = static_cast<double>(n - 1);
  for (std::size_t i = 0; i <= (n - 1) / 2; ++i) {
    const T v = static_cast<T>(shape(static_cast<double>(i) / last));
    w[i] = v;
    w[n - 1 - i] = v;
  }
}

constexpr double kTwoPi = 6.283185307179586476925286766559;

template <typename T>
void Hann(std::size_t n, T* w) {
  FillWindow(n, w, [](double x) { return 0.5 - 0.5 * std::cos(kTwoPi * x); });
}
template <typename T>
void Hamming(std::size_t n, T* w) {
  FillWindow(n, w, [](double x) { return 0.54 - 0.46 * std::cos(kTwoPi * x); });
}
template <typename T>
void Blackman(std::size_t n, T* w, double alpha) {
  FillWindow(n, w, [alpha](double x) {
    return 0.5 * (1.0 - alpha) - 0.5 * std::cos(kTwoPi * x) + 0.5 * alpha * std::cos(2.0 * kTwoPi * x);
  });
}
template <typename T>
void Bartlett(std::size_t n, T* w) {
  FillWindow(n, w, [](double x) { return 1.0 - std::fabs(2.0 * x - 1.0); });
}
template <typename T>
void Kaiser(std::size_t n, T* w, double beta) {
  const double norm = 1.0 / BesselI0(beta);
  FillWindow(n, w, [beta, norm](double x) {
    const double t = 2.0 * x - 1.0;
    const double r = 1.0 - t * t;
    return BesselI0(beta * std::sqrt(r > 0.0 ? r : 0.0)) * norm;
  });
}

// The kernels promise the compiler that their arrays do not alias. Callers may
// legitimately pass the destination again as a source, so those cases are
// routed to the in-place kernels, which have a single written array.
template <typename T>
void AddRouted(std::size_t n, const T* a, const T* b, T* dst) {
  if (a == dst && b == dst) {
    MulConstantInPlaceK(n, dst, T(2));
  } else if (a == dst) {
    AddInPlaceK(n, b, dst);
  } else if (b == dst) {
    AddInPlaceK(n, a, dst);
  } else {
    AddK(n, a, b, dst);
  }
}

// Squaring in place has no kernel of its own: it is rare enough for a plain
// loop.
template <typename T>
void MulRouted(std::size_t n, const T* a, const T* b, T* dst) {
  if (a == dst && b == dst) {
    for (std::size_t i = 0; i < n; ++i) dst[i] *= dst[i];
  } else if (a == dst) {
    MulInPlaceK(n, b, dst);
  } else if (b == dst) {
    MulInPlaceK(n, a, dst);
  } else {
    MulK(n, a, b, dst);
  }
}

template <typename T>
void MulConstantRouted(std::size_t n, const T* src, T* dst, T value) {
  if (src == dst) {
    MulConstantInPlaceK(n, dst, value);
  } else {
    MulConstantK(n, src, dst, value);
  }
}

}  // namespace

void Copy(std::size_t n, const float* src, float* dst) noexcept {
  if (n != 0 && src != dst) std::memcpy(dst, src, n * sizeof(float));
}
void Copy(std::size_t n, const double* src, double* dst) noexcept {
  if (n != 0 && src != dst) std::memcpy(dst, src, n * sizeof(double));
}
void Move(std::size_t n, const float* src, float* dst) noexcept {
  if (n != 0 && src != dst) std::memmove(dst, src, n * sizeof(float));
}
void Move(std::size_t n, const double* src, double* dst) noexcept {
  if (n != 0 && src != dst) std::memmove(dst, src, n * sizeof(double));
}
// IEEE 754 +0.0 is all zero bits.
void Zero(std::size_t n, float* dst) noexcept {
  if (n != 0) std::memset(dst, 0, n * sizeof(float));
}
void Zero(std::size_t n, double* dst) noexcept {
  if (n != 0) std::memset(dst, 0, n * sizeof(double));
}
void Set(std::size_t n, float value, float* dst) noexcept { SetK(n, value, dst); }
void Set(std::size_t n, double value, double* dst) noexcept { SetK(n, value, dst); }

void Add(std::size_t n, const float* a, const float* b, float* dst) noexcept { AddRouted(n, a, b, dst); }
void Add(std::size_t n, const double* a, const double* b, double* dst) noexcept { AddRouted(n, a, b, dst); }
void Add_InPlace(std::size_t n, const float* src, float* srcDst) noexcept { AddRouted(n, src, srcDst, srcDst); }
void Add_InPlace(std::size_t n, const double* src, double* srcDst) noexcept { AddRouted(n, src, srcDst, srcDst); }
void Mul(std::size_t n, const float* a, const float* b, float* dst) noexcept { MulRouted(n, a, b, dst); }
void Mul(std::size_t n, const double* a, const double* b, double* dst) noexcept { MulRouted(n, a, b, dst); }
void Mul_InPlace(std::size_t n, const float* src, float* srcDst) noexcept { MulRouted(n, src, srcDst, srcDst); }
void Mul_InPlace(std::size_t n, const double* src, double* srcDst) noexcept { MulRouted(n, src, srcDst, srcDst); }
void MulConstant(std::size_t n, const float* src, float* dst, float value) noexcept {
  MulConstantRouted(n, src, dst, value);
}
void MulConstant(std::size_t n, const double* src, double* dst, double value) noexcept {
  MulConstantRouted(n, src, dst, value);
}
void MulConstant_InPlace(std::size_t n, float* srcDst, float value) noexcept { MulConstantInPlaceK(n, srcDst, value); }
void MulConstant_InPlace(std::size_t n, double* srcDst, double value) noexcept {
  MulConstantInPlaceK(n, srcDst, value);
}

double Dot(std::size_t n, const float* a, const float* b) noexcept { return DotK(n, a, b); }
double Dot(std::size_t n, const double* a, const double* b) noexcept { return DotK(n, a, b); }
double Sum(std::size_t n, const float* src) noexcept { return SumK(n, src); }
double Sum(std::size_t n, const double* src) noexcept { return SumK(n, src); }
float Max(std::size_t n, const float* src) noexcept { return MaxK(n, src); }
double Max(std::size_t n, const double* src) noexcept { return MaxK(n, src); }

void Convert(std::size_t n, const float* src, double* dst) noexcept { FloatToDouble(n, src, dst); }
void Convert(std::size_t n, const double* src, float* dst) noexcept { DoubleToFloat(n, src, dst); }
void Convert(std::size_t n, const std::int16_t* src, float* dst) noexcept { Int16ToFloat(n, src, dst); }
void Convert(std::size_t n, const float* src, std::int16_t* dst) noexcept { FloatToInt16(n, src, dst); }

void RealToComplex(std::size_t n, const float* re, const float* im, float* dst) noexcept { ZipK(n, re, im, dst); }
void RealToComplex(std::size_t n, const double* re, const double* im, double* dst) noexcept { ZipK(n, re, im, dst); }
void ComplexToReal(std::size_t n, const float* src, float* re, float* im) noexcept { UnzipK(n, src, re, im); }
void ComplexToReal(std::size_t n, const double* src, double* re, double* im) noexcept { UnzipK(n, src, re, im); }

void Interleave(const float* const* src, std::size_t channels, std::size_t n, float* dst) noexcept {
  if (channels == 2) {
    ZipK(n, src[0], src[1], dst);
    return;
  }
  for (std::size_t c = 0; c < channels; ++c) {
    const float* s = src[c];
    for (std::size_t i = 0; i < n; ++i) dst[i * channels + c] = s[i];
  }
}

void Deinterleave(const float* src, std::size_t channels, std::size_t n, float* const* dst) noexcept {
  if (channels == 2) {
    UnzipK(n, src, dst[0], dst[1]);
    return;
  }
  for (std::size_t c = 0; c < channels; ++c) {
    float* d = dst[c];
    for (std::size_t i = 0; i < n; ++i) d[i] = src[i * channels + c];
  }
}

void WindowHann(std::size_t n, float* w) noexcept { Hann(n, w); }
void WindowHann(std::size_t n, double* w) noexcept { Hann(n, w); }
void WindowHamming(std::size_t n, float* w) noexcept { Hamming(n, w); }
void WindowHamming(std::size_t n, double* w) noexcept { Hamming(n, w); }
void WindowBlackman(std::size_t n, float* w, double alpha) noexcept { Blackman(n, w, alpha); }
void WindowBlackman(std::size_t n, double* w, double alpha) noexcept { Blackman(n, w, alpha); }
void WindowBartlett(std::size_t n, float* w) noexcept { Bartlett(n, w); }
void WindowBartlett(std::size_t n, double* w) noexcept { Bartlett(n, w); }
void WindowKaiser(std::size_t n, float* w, double beta) noexcept { Kaiser(n, w, beta); }
void WindowKaiser(std::size_t n, double* w, double beta) noexcept { Kaiser(n, w, beta); }

}  // namespace utility
}  // namespace vexaccelerate
