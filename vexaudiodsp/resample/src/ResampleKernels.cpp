#include "ResampleKernels.h"

#include <algorithm>
#include <cstddef>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VEX_RESAMPLE_X86 1
#define VEX_AVX2 __attribute__((target("avx2,fma")))
#define VEX_AVX512 __attribute__((target("avx512f,avx2,fma")))
#define VEX_INLINE inline __attribute__((always_inline))
#endif

namespace dsp {
namespace resamplekernels {

namespace {

// Eight lanes summed as (i, i+4), then (i, i+2), then (i, i+1), the order
// the vector kernels' reductions use.
template <typename T>
T SumLanes(const T* a) {
  return ((a[0] + a[4]) + (a[2] + a[6])) + ((a[1] + a[5]) + (a[3] + a[7]));
}

template <typename T>
void RowsPortable(const T* row, int rowLength, const T* window, int inStride, int count, float* out, int outStride) {
  constexpr int kLanes = 8;
  for (int j = 0; j < count; ++j) {
    const T* w = window + static_cast<std::ptrdiff_t>(j) * inStride;
    T acc[kLanes] = {};
    for (int i = 0; i < rowLength; i += kLanes) {
      for (int l = 0; l < kLanes; ++l) acc[l] += row[i + l] * w[i + l];
    }
    out[static_cast<std::ptrdiff_t>(j) * outStride] = static_cast<float>(SumLanes(acc));
  }
}

double DotPortable(const double* a, const double* b, int n) {
  double acc[8] = {};
  for (int i = 0; i < n; i += 8) {
    for (int l = 0; l < 8; ++l) acc[l] += a[i + l] * b[i + l];
  }
  return SumLanes(acc);
}

// Runs the outputs of one row in groups of Isa::kGroup. The last few run
// as one more full group that ends at the last output (its first sums were
// already written and are identical), or, when a row has fewer outputs
// than a group in this block, in groups of 8, 4, 2 and 1.
template <typename Isa, typename T>
void RowsInGroups(const T* row, int rowLength, const T* window, int inStride, int count, float* out, int outStride) {
  constexpr int kGroup = Isa::kGroup;
  T sums[kGroup];
  auto write = [&](int first, int n, int skip) {
    for (int g = skip; g < n; ++g)
      out[static_cast<std::ptrdiff_t>(first + g) * outStride] = static_cast<float>(sums[g]);
  };
  auto at = [&](int j) { return window + static_cast<std::ptrdiff_t>(j) * inStride; };
  int j = 0;
  for (; j + kGroup <= count; j += kGroup) {
    Isa::template Group<kGroup>(row, rowLength, at(j), inStride, sums);
    write(j, kGroup, 0);
  }
  if (j == count) return;
  if (j > 0) {
    Isa::template Group<kGroup>(row, rowLength, at(count - kGroup), inStride, sums);
    write(count - kGroup, kGroup, kGroup - (count - j));
    return;
  }
  if constexpr (kGroup > 8) {
    if (count - j >= 8) {
      Isa::template Group<8>(row, rowLength, at(j), inStride, sums);
      write(j, 8, 0);
      j += 8;
    }
  }
  if (count - j >= 4) {
    Isa::template Group<4>(row, rowLength, at(j), inStride, sums);
    write(j, 4, 0);
    j += 4;
  }
  if (count - j >= 2) {
    Isa::template Group<2>(row, rowLength, at(j), inStride, sums);
    write(j, 2, 0);
    j += 2;
  }
  if (count - j >= 1) {
    Isa::template Group<1>(row, rowLength, at(j), inStride, sums);
    write(j, 1, 0);
  }
}

#ifdef VEX_RESAMPLE_X86

// GCC 12's AVX-512 intrinsics start several operations from an undefined
// vector, which its -Wuninitialized flags inside the header.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

// Transposed reductions: n accumulators of n lanes each become one vector
// of their n sums in log2(n) add steps, instead of a reduction per output.
// Every lane is summed in the order of SumLanes (widened to 16 for float),
// and the sum of vector v lands in lane kLane[v].

// AVX2, 8 floats: the sum of vector v lands in lane 4 (v % 2) + v / 2.
VEX_AVX2 VEX_INLINE __m256 Reduce8(const __m256* a) {
  __m256 c[4];
  for (int p = 0; p < 4; ++p) {
    c[p] = _mm256_add_ps(_mm256_permute2f128_ps(a[2 * p], a[2 * p + 1], 0x20),
                         _mm256_permute2f128_ps(a[2 * p], a[2 * p + 1], 0x31));
  }
  __m256 d[2];
  for (int q = 0; q < 2; ++q) {
    const __m256d x = _mm256_castps_pd(c[2 * q]);
    const __m256d y = _mm256_castps_pd(c[2 * q + 1]);
    d[q] = _mm256_add_ps(_mm256_castpd_ps(_mm256_unpacklo_pd(x, y)), _mm256_castpd_ps(_mm256_unpackhi_pd(x, y)));
  }
  return _mm256_add_ps(_mm256_shuffle_ps(d[0], d[1], 0x88), _mm256_shuffle_ps(d[0], d[1], 0xDD));
}
constexpr int kLaneAvx2Float[8] = {0, 4, 1, 5, 2, 6, 3, 7};

// AVX2, 4 doubles: the sum of vector v lands in lane 2 (v % 2) + v / 2.
VEX_AVX2 VEX_INLINE __m256d Reduce4(const __m256d* a) {
  const __m256d c0 = _mm256_add_pd(_mm256_permute2f128_pd(a[0], a[1], 0x20), _mm256_permute2f128_pd(a[0], a[1], 0x31));
  const __m256d c1 = _mm256_add_pd(_mm256_permute2f128_pd(a[2], a[3], 0x20), _mm256_permute2f128_pd(a[2], a[3], 0x31));
  return _mm256_add_pd(_mm256_unpacklo_pd(c0, c1), _mm256_unpackhi_pd(c0, c1));
}
constexpr int kLaneAvx2Double[4] = {0, 2, 1, 3};

// AVX-512, 16 floats: the sum of vector v lands in lane 4 (v % 4) + v / 4.
VEX_AVX512 VEX_INLINE __m512 Reduce16(const __m512* a) {
  __m512 c[8];
  for (int p = 0; p < 8; ++p) {
    c[p] = _mm512_add_ps(_mm512_shuffle_f32x4(a[2 * p], a[2 * p + 1], _MM_SHUFFLE(1, 0, 1, 0)),
                         _mm512_shuffle_f32x4(a[2 * p], a[2 * p + 1], _MM_SHUFFLE(3, 2, 3, 2)));
  }
  __m512 d[4];
  for (int q = 0; q < 4; ++q) {
    d[q] = _mm512_add_ps(_mm512_shuffle_f32x4(c[2 * q], c[2 * q + 1], _MM_SHUFFLE(2, 0, 2, 0)),
                         _mm512_shuffle_f32x4(c[2 * q], c[2 * q + 1], _MM_SHUFFLE(3, 1, 3, 1)));
  }
  __m512 e[2];
  for (int r = 0; r < 2; ++r) {
    const __m512d x = _mm512_castps_pd(d[2 * r]);
    const __m512d y = _mm512_castps_pd(d[2 * r + 1]);
    e[r] = _mm512_add_ps(_mm512_castpd_ps(_mm512_unpacklo_pd(x, y)), _mm512_castpd_ps(_mm512_unpackhi_pd(x, y)));
  }
  return _mm512_add_ps(_mm512_shuffle_ps(e[0], e[1], 0x88), _mm512_shuffle_ps(e[0], e[1], 0xDD));
}
constexpr int kLaneAvx512Float[16] = {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15};

// AVX-512, 8 doubles: the sum of vector v lands in lane 2 (v % 4) + v / 4.
VEX_AVX512 VEX_INLINE __m512d Reduce8(const __m512d* a) {
  __m512d c[4];
  for (int p = 0; p < 4; ++p) {
    c[p] = _mm512_add_pd(_mm512_shuffle_f64x2(a[2 * p], a[2 * p + 1], _MM_SHUFFLE(1, 0, 1, 0)),
                         _mm512_shuffle_f64x2(a[2 * p], a[2 * p + 1], _MM_SHUFFLE(3, 2, 3, 2)));
  }
  __m512d d[2];
  for (int q = 0; q < 2; ++q) {
    d[q] = _mm512_add_pd(_mm512_shuffle_f64x2(c[2 * q], c[2 * q + 1], _MM_SHUFFLE(2, 0, 2, 0)),
                         _mm512_shuffle_f64x2(c[2 * q], c[2 * q + 1], _MM_SHUFFLE(3, 1, 3, 1)));
  }
  return _mm512_add_pd(_mm512_unpacklo_pd(d[0], d[1]), _mm512_unpackhi_pd(d[0], d[1]));
}
constexpr int kLaneAvx512Double[8] = {0, 2, 4, 6, 1, 3, 5, 7};

// The G windows of a group, `stride` samples apart, addressed as one of
// four base pointers plus one of four offsets. The empty asm hides the
// offsets' values from the optimiser, which would otherwise turn every
// window into a pointer of its own and run out of registers.
template <int G, typename T>
struct Windows {
  const char* base[4];
  std::ptrdiff_t offset[4];
  Windows(const T* window, int stride) {
    const std::ptrdiff_t s = static_cast<std::ptrdiff_t>(stride) * static_cast<std::ptrdiff_t>(sizeof(T));
    for (int q = 0; q < 4; ++q) base[q] = reinterpret_cast<const char*>(window) + 4 * q * s;
    for (int m = 0; m < 4; ++m) offset[m] = m * s;
  }
  VEX_INLINE void Hide() {
    if (G > 1) asm("" : "+r"(offset[1]));
    if (G > 2) asm("" : "+r"(offset[2]), "+r"(offset[3]));
  }
  VEX_INLINE const T* At(int g) const { return reinterpret_cast<const T*>(base[g / 4] + offset[g % 4]); }
  VEX_INLINE void Advance(std::ptrdiff_t bytes) {
    for (int q = 0; q < (G + 3) / 4; ++q) base[q] += bytes;
  }
};

// One group of G outputs of one row: the row is loaded once per step and
// feeds G independent FMA chains, enough to hide the FMA latency, so the
// loop runs at about one window load per FMA. Unused accumulators stay
// zero; the reduction never mixes vectors, so they cost no accuracy. The G
// sums are written in output order.
struct Avx2 {
  static constexpr int kGroup = 8;

  template <int G>
  VEX_AVX2 static void Group(const float* row, int rowLength, const float* window, int stride, float* sums) {
    __m256 acc[8];
#pragma GCC unroll 8
    for (int g = 0; g < 8; ++g) acc[g] = _mm256_setzero_ps();
    Windows<G, float> w(window, stride);
    for (int i = 0; i < rowLength; i += 8) {
      w.Hide();
      const __m256 h = _mm256_load_ps(row + i);
#pragma GCC unroll 8
      for (int g = 0; g < G; ++g) acc[g] = _mm256_fmadd_ps(h, _mm256_loadu_ps(w.At(g)), acc[g]);
      w.Advance(8 * sizeof(float));
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, Reduce8(acc));
    for (int g = 0; g < G; ++g) sums[g] = lanes[kLaneAvx2Float[g]];
  }

  template <int G>
  VEX_AVX2 static void Group(const double* row, int rowLength, const double* window, int stride, double* sums) {
    __m256d acc[8];
#pragma GCC unroll 8
    for (int g = 0; g < 8; ++g) acc[g] = _mm256_setzero_pd();
    Windows<G, double> w(window, stride);
    for (int i = 0; i < rowLength; i += 4) {
      w.Hide();
      const __m256d h = _mm256_load_pd(row + i);
#pragma GCC unroll 8
      for (int g = 0; g < G; ++g) acc[g] = _mm256_fmadd_pd(h, _mm256_loadu_pd(w.At(g)), acc[g]);
      w.Advance(4 * sizeof(double));
    }
    alignas(32) double lanes[8];
    _mm256_store_pd(lanes, Reduce4(acc));
    _mm256_store_pd(lanes + 4, Reduce4(acc + 4));
    for (int g = 0; g < G; ++g) sums[g] = lanes[g / 4 * 4 + kLaneAvx2Double[g % 4]];
  }
};

struct Avx512 {
  static constexpr int kGroup = 16;

  template <int G>
  VEX_AVX512 static void Group(const float* row, int rowLength, const float* window, int stride, float* sums) {
    __m512 acc[16];
#pragma GCC unroll 16
    for (int g = 0; g < 16; ++g) acc[g] = _mm512_setzero_ps();
    Windows<G, float> w(window, stride);
    for (int i = 0; i < rowLength; i += 16) {
      w.Hide();
      const __m512 h = _mm512_load_ps(row + i);
#pragma GCC unroll 16
      for (int g = 0; g < G; ++g) acc[g] = _mm512_fmadd_ps(h, _mm512_loadu_ps(w.At(g)), acc[g]);
      w.Advance(16 * sizeof(float));
    }
    alignas(64) float lanes[16];
    _mm512_store_ps(lanes, Reduce16(acc));
    for (int g = 0; g < G; ++g) sums[g] = lanes[kLaneAvx512Float[g]];
  }

  template <int G>
  VEX_AVX512 static void Group(const double* row, int rowLength, const double* window, int stride, double* sums) {
    __m512d acc[16];
#pragma GCC unroll 16
    for (int g = 0; g < 16; ++g) acc[g] = _mm512_setzero_pd();
    Windows<G, double> w(window, stride);
    for (int i = 0; i < rowLength; i += 8) {
      w.Hide();
      const __m512d h = _mm512_load_pd(row + i);
#pragma GCC unroll 16
      for (int g = 0; g < G; ++g) acc[g] = _mm512_fmadd_pd(h, _mm512_loadu_pd(w.At(g)), acc[g]);
      w.Advance(8 * sizeof(double));
    }
    alignas(64) double lanes[16];
    _mm512_store_pd(lanes, Reduce8(acc));
    if (G > 8) _mm512_store_pd(lanes + 8, Reduce8(acc + 8));
    for (int g = 0; g < G; ++g) sums[g] = lanes[g / 8 * 8 + kLaneAvx512Double[g % 8]];
  }
};

VEX_AVX2 double DotAvx2(const double* a, const double* b, int n) {
  __m256d s[4] = {_mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd(), _mm256_setzero_pd()};
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    for (int k = 0; k < 4; ++k)
      s[k] = _mm256_fmadd_pd(_mm256_loadu_pd(a + i + 4 * k), _mm256_loadu_pd(b + i + 4 * k), s[k]);
  }
  for (; i < n; i += 8) {
    s[0] = _mm256_fmadd_pd(_mm256_loadu_pd(a + i), _mm256_loadu_pd(b + i), s[0]);
    s[1] = _mm256_fmadd_pd(_mm256_loadu_pd(a + i + 4), _mm256_loadu_pd(b + i + 4), s[1]);
  }
  const __m256d t = _mm256_add_pd(_mm256_add_pd(s[0], s[1]), _mm256_add_pd(s[2], s[3]));
  __m128d q = _mm_add_pd(_mm256_castpd256_pd128(t), _mm256_extractf128_pd(t, 1));
  q = _mm_add_sd(q, _mm_unpackhi_pd(q, q));
  return _mm_cvtsd_f64(q);
}

VEX_AVX512 double DotAvx512(const double* a, const double* b, int n) {
  __m512d s[4] = {_mm512_setzero_pd(), _mm512_setzero_pd(), _mm512_setzero_pd(), _mm512_setzero_pd()};
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    for (int k = 0; k < 4; ++k)
      s[k] = _mm512_fmadd_pd(_mm512_loadu_pd(a + i + 8 * k), _mm512_loadu_pd(b + i + 8 * k), s[k]);
  }
  for (; i < n; i += 8) s[0] = _mm512_fmadd_pd(_mm512_loadu_pd(a + i), _mm512_loadu_pd(b + i), s[0]);
  const __m512d t = _mm512_add_pd(_mm512_add_pd(s[0], s[1]), _mm512_add_pd(s[2], s[3]));
  const __m256d h = _mm256_add_pd(_mm512_castpd512_pd256(t), _mm512_extractf64x4_pd(t, 1));
  __m128d q = _mm_add_pd(_mm256_castpd256_pd128(h), _mm256_extractf128_pd(h, 1));
  q = _mm_add_sd(q, _mm_unpackhi_pd(q, q));
  return _mm_cvtsd_f64(q);
}

#pragma GCC diagnostic pop
#endif

}  // namespace

bool Supported(Resample::InstructionSet set) {
  switch (set) {
    case Resample::InstructionSet::kPortable:
      return true;
#ifdef VEX_RESAMPLE_X86
    case Resample::InstructionSet::kAvx2:
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    case Resample::InstructionSet::kAvx512:
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#endif
    default:
      return false;
  }
}

Kernels Get(Resample::InstructionSet set) {
#ifdef VEX_RESAMPLE_X86
  if (set == Resample::InstructionSet::kAvx512) {
    return {RowsInGroups<Avx512, float>, RowsInGroups<Avx512, double>, DotAvx512};
  }
  if (set == Resample::InstructionSet::kAvx2) {
    return {RowsInGroups<Avx2, float>, RowsInGroups<Avx2, double>, DotAvx2};
  }
#endif
  (void)set;
  return {RowsPortable<float>, RowsPortable<double>, DotPortable};
}

}  // namespace resamplekernels
}  // namespace dsp
