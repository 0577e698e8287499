#include "ResampleKernels.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

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
// and the sum of vector v lands in lane kLane[v]. Written out index by
// index (as are the kernels below, with fold expressions) so that the
// compiler keeps every accumulator in a register.

VEX_AVX2 VEX_INLINE __m256 PairHalves(__m256 a, __m256 b) {
  return _mm256_add_ps(_mm256_permute2f128_ps(a, b, 0x20), _mm256_permute2f128_ps(a, b, 0x31));
}
VEX_AVX2 VEX_INLINE __m256 PairQuads(__m256 a, __m256 b) {
  const __m256d x = _mm256_castps_pd(a);
  const __m256d y = _mm256_castps_pd(b);
  return _mm256_add_ps(_mm256_castpd_ps(_mm256_unpacklo_pd(x, y)), _mm256_castpd_ps(_mm256_unpackhi_pd(x, y)));
}
VEX_AVX2 VEX_INLINE __m256 PairPairs(__m256 a, __m256 b) {
  return _mm256_add_ps(_mm256_shuffle_ps(a, b, 0x88), _mm256_shuffle_ps(a, b, 0xDD));
}

// AVX2, 8 floats: the sum of vector v lands in lane 4 (v % 2) + v / 2.
VEX_AVX2 VEX_INLINE __m256 Reduce(const __m256 (&a)[8]) {
  return PairPairs(PairQuads(PairHalves(a[0], a[1]), PairHalves(a[2], a[3])),
                   PairQuads(PairHalves(a[4], a[5]), PairHalves(a[6], a[7])));
}
constexpr int kLaneAvx2Float[8] = {0, 4, 1, 5, 2, 6, 3, 7};

VEX_AVX2 VEX_INLINE __m256d PairHalves(__m256d a, __m256d b) {
  return _mm256_add_pd(_mm256_permute2f128_pd(a, b, 0x20), _mm256_permute2f128_pd(a, b, 0x31));
}
VEX_AVX2 VEX_INLINE __m256d PairPairs(__m256d a, __m256d b) {
  return _mm256_add_pd(_mm256_unpacklo_pd(a, b), _mm256_unpackhi_pd(a, b));
}

// AVX2, 4 doubles from a[first]: the sum of vector v lands in lane
// 2 (v % 2) + v / 2.
template <int first>
VEX_AVX2 VEX_INLINE __m256d Reduce(const __m256d (&a)[8]) {
  return PairPairs(PairHalves(a[first], a[first + 1]), PairHalves(a[first + 2], a[first + 3]));
}
constexpr int kLaneAvx2Double[8] = {0, 2, 1, 3, 4, 6, 5, 7};

VEX_AVX512 VEX_INLINE __m512 PairHalves(__m512 a, __m512 b) {
  return _mm512_add_ps(_mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(1, 0, 1, 0)),
                       _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(3, 2, 3, 2)));
}
VEX_AVX512 VEX_INLINE __m512 PairBlocks(__m512 a, __m512 b) {
  return _mm512_add_ps(_mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(2, 0, 2, 0)),
                       _mm512_shuffle_f32x4(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
}
VEX_AVX512 VEX_INLINE __m512 PairQuads(__m512 a, __m512 b) {
  const __m512d x = _mm512_castps_pd(a);
  const __m512d y = _mm512_castps_pd(b);
  return _mm512_add_ps(_mm512_castpd_ps(_mm512_unpacklo_pd(x, y)), _mm512_castpd_ps(_mm512_unpackhi_pd(x, y)));
}
VEX_AVX512 VEX_INLINE __m512 PairPairs(__m512 a, __m512 b) {
  return _mm512_add_ps(_mm512_shuffle_ps(a, b, 0x88), _mm512_shuffle_ps(a, b, 0xDD));
}

// AVX-512, 16 floats: the sum of vector v lands in lane 4 (v % 4) + v / 4.
VEX_AVX512 VEX_INLINE __m512 Reduce(const __m512 (&a)[16]) {
  const __m512 d0 = PairBlocks(PairHalves(a[0], a[1]), PairHalves(a[2], a[3]));
  const __m512 d1 = PairBlocks(PairHalves(a[4], a[5]), PairHalves(a[6], a[7]));
  const __m512 d2 = PairBlocks(PairHalves(a[8], a[9]), PairHalves(a[10], a[11]));
  const __m512 d3 = PairBlocks(PairHalves(a[12], a[13]), PairHalves(a[14], a[15]));
  return PairPairs(PairQuads(d0, d1), PairQuads(d2, d3));
}
constexpr int kLaneAvx512Float[16] = {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15};

VEX_AVX512 VEX_INLINE __m512d PairHalves(__m512d a, __m512d b) {
  return _mm512_add_pd(_mm512_shuffle_f64x2(a, b, _MM_SHUFFLE(1, 0, 1, 0)),
                       _mm512_shuffle_f64x2(a, b, _MM_SHUFFLE(3, 2, 3, 2)));
}
VEX_AVX512 VEX_INLINE __m512d PairBlocks(__m512d a, __m512d b) {
  return _mm512_add_pd(_mm512_shuffle_f64x2(a, b, _MM_SHUFFLE(2, 0, 2, 0)),
                       _mm512_shuffle_f64x2(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
}
VEX_AVX512 VEX_INLINE __m512d PairPairs(__m512d a, __m512d b) {
  return _mm512_add_pd(_mm512_unpacklo_pd(a, b), _mm512_unpackhi_pd(a, b));
}

// AVX-512, 8 doubles from a[first]: the sum of vector v lands in lane
// 2 (v % 4) + v / 4.
template <int first>
VEX_AVX512 VEX_INLINE __m512d Reduce(const __m512d (&a)[16]) {
  return PairPairs(PairBlocks(PairHalves(a[first], a[first + 1]), PairHalves(a[first + 2], a[first + 3])),
                   PairBlocks(PairHalves(a[first + 4], a[first + 5]), PairHalves(a[first + 6], a[first + 7])));
}
constexpr int kLaneAvx512Double[16] = {0, 2, 4, 6, 1, 3, 5, 7, 8, 10, 12, 14, 9, 11, 13, 15};

// The windows of a group, `stride` samples apart, addressed as one of four
// base pointers plus one of four offsets. The empty asm hides the offsets'
// values from the optimiser, which would otherwise turn every window into a
// pointer of its own and run out of registers.
template <typename T>
struct Windows {
  const char* base[4];
  std::ptrdiff_t offset[4];
  VEX_INLINE Windows(const T* window, int stride) {
    const std::ptrdiff_t s = static_cast<std::ptrdiff_t>(stride) * static_cast<std::ptrdiff_t>(sizeof(T));
    base[0] = reinterpret_cast<const char*>(window);
    base[1] = base[0] + 4 * s;
    base[2] = base[0] + 8 * s;
    base[3] = base[0] + 12 * s;
    offset[0] = 0;
    offset[1] = s;
    offset[2] = 2 * s;
    offset[3] = 3 * s;
  }
  VEX_INLINE void Hide() { asm("" : "+r"(offset[1]), "+r"(offset[2]), "+r"(offset[3])); }
  template <std::size_t g>
  VEX_INLINE const T* At() const {
    return reinterpret_cast<const T*>(base[g / 4] + offset[g % 4]);
  }
  VEX_INLINE void Advance(std::ptrdiff_t samples) {
    for (int q = 0; q < 4; ++q) base[q] += samples * static_cast<std::ptrdiff_t>(sizeof(T));
  }
};

// One group of G outputs of one row (G = the length of the index
// sequence): the row is loaded once per step and feeds G independent FMA
// chains, enough to hide the FMA latency, so the loop runs at about one
// window load per FMA. Unused accumulators stay zero; the reductions never
// mix vectors, so they cost no accuracy. The G sums are written in output
// order.
//
// AVX-512 also has an aligned form for windows a multiple of a vector
// apart, which then share their alignment: they are read from the 64-byte
// boundary at or before their start, so no load splits across cache lines,
// against the row shifted by the same o samples and one vector longer, its
// cut ends masked off. Either way lane l sums the taps of one residue class
// modulo the vector width in the same order; the aligned form only rotates
// the classes among the lanes, and the reduction pairs classes by residue
// (mod 2, 4, 8), so rotation changes no bit: an output's sum never depends
// on its alignment or on the group it ran in.
struct Avx2 {
  static constexpr int kGroup = 8;

  template <int G>
  VEX_AVX2 static void Group(const float* row, int rowLength, const float* window, int stride, float* sums) {
    Run(std::make_index_sequence<G>(), row, rowLength, window, stride, sums);
  }
  template <int G>
  VEX_AVX2 static void Group(const double* row, int rowLength, const double* window, int stride, double* sums) {
    Run(std::make_index_sequence<G>(), row, rowLength, window, stride, sums);
  }

  template <std::size_t... g>
  VEX_AVX2 static VEX_INLINE void Run(std::index_sequence<g...>, const float* row, int rowLength, const float* window,
                                      int stride, float* sums) {
    __m256 acc[8] = {};
    Windows<float> w(window, stride);
    for (int i = 0; i < rowLength; i += 8) {
      w.Hide();
      const __m256 h = _mm256_load_ps(row + i);
      ((acc[g] = _mm256_fmadd_ps(h, _mm256_loadu_ps(w.At<g>()), acc[g])), ...);
      w.Advance(8);
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, Reduce(acc));
    ((sums[g] = lanes[kLaneAvx2Float[g]]), ...);
  }

  template <std::size_t... g>
  VEX_AVX2 static VEX_INLINE void Run(std::index_sequence<g...>, const double* row, int rowLength, const double* window,
                                      int stride, double* sums) {
    __m256d acc[8] = {};
    Windows<double> w(window, stride);
    for (int i = 0; i < rowLength; i += 4) {
      w.Hide();
      const __m256d h = _mm256_load_pd(row + i);
      ((acc[g] = _mm256_fmadd_pd(h, _mm256_loadu_pd(w.At<g>()), acc[g])), ...);
      w.Advance(4);
    }
    alignas(32) double lanes[8];
    _mm256_store_pd(lanes, Reduce<0>(acc));
    if (sizeof...(g) > 4) _mm256_store_pd(lanes + 4, Reduce<4>(acc));
    ((sums[g] = lanes[kLaneAvx2Double[g]]), ...);
  }
};

struct Avx512 {
  static constexpr int kGroup = 16;

  template <int G>
  VEX_AVX512 static void Group(const float* row, int rowLength, const float* window, int stride, float* sums) {
    Run(std::make_index_sequence<G>(), row, rowLength, window, stride, sums);
  }
  template <int G>
  VEX_AVX512 static void Group(const double* row, int rowLength, const double* window, int stride, double* sums) {
    Run(std::make_index_sequence<G>(), row, rowLength, window, stride, sums);
  }

  template <std::size_t... g>
  VEX_AVX512 static VEX_INLINE void Run(std::index_sequence<g...>, const float* row, int rowLength, const float* window,
                                        int stride, float* sums) {
    __m512 acc[16] = {};
    if (stride % 16 == 0) {
      const int o = static_cast<int>(reinterpret_cast<std::uintptr_t>(window) / sizeof(float) % 16);
      Windows<float> w(window - o, stride);
      const int vectors = rowLength / 16;
      const __mmask16 head = static_cast<__mmask16>(0xFFFFu << o);
      __m512 h = _mm512_maskz_loadu_ps(head, row - o);
      ((acc[g] = _mm512_maskz_mul_ps(head, h, _mm512_load_ps(w.At<g>()))), ...);
      w.Advance(16);
      for (int i = 1; i < vectors; ++i) {
        w.Hide();
        h = _mm512_loadu_ps(row + 16 * i - o);
        ((acc[g] = _mm512_fmadd_ps(h, _mm512_load_ps(w.At<g>()), acc[g])), ...);
        w.Advance(16);
      }
      if (o != 0) {
        const __mmask16 tail = static_cast<__mmask16>(~head);
        h = _mm512_maskz_loadu_ps(tail, row + 16 * vectors - o);
        ((acc[g] = _mm512_mask3_fmadd_ps(h, _mm512_load_ps(w.At<g>()), acc[g], tail)), ...);
      }
    } else {
      Windows<float> w(window, stride);
      for (int i = 0; i < rowLength; i += 16) {
        w.Hide();
        const __m512 h = _mm512_load_ps(row + i);
        ((acc[g] = _mm512_fmadd_ps(h, _mm512_loadu_ps(w.At<g>()), acc[g])), ...);
        w.Advance(16);
      }
    }
    alignas(64) float lanes[16];
    _mm512_store_ps(lanes, Reduce(acc));
    ((sums[g] = lanes[kLaneAvx512Float[g]]), ...);
  }

  template <std::size_t... g>
  VEX_AVX512 static VEX_INLINE void Run(std::index_sequence<g...>, const double* row, int rowLength,
                                        const double* window, int stride, double* sums) {
    __m512d acc[16] = {};
    if (stride % 8 == 0) {
      const int o = static_cast<int>(reinterpret_cast<std::uintptr_t>(window) / sizeof(double) % 8);
      Windows<double> w(window - o, stride);
      const int vectors = rowLength / 8;
      const __mmask8 head = static_cast<__mmask8>(0xFFu << o);
      __m512d h = _mm512_maskz_loadu_pd(head, row - o);
      ((acc[g] = _mm512_maskz_mul_pd(head, h, _mm512_load_pd(w.At<g>()))), ...);
      w.Advance(8);
      for (int i = 1; i < vectors; ++i) {
        w.Hide();
        h = _mm512_loadu_pd(row + 8 * i - o);
        ((acc[g] = _mm512_fmadd_pd(h, _mm512_load_pd(w.At<g>()), acc[g])), ...);
        w.Advance(8);
      }
      if (o != 0) {
        const __mmask8 tail = static_cast<__mmask8>(~head);
        h = _mm512_maskz_loadu_pd(tail, row + 8 * vectors - o);
        ((acc[g] = _mm512_mask3_fmadd_pd(h, _mm512_load_pd(w.At<g>()), acc[g], tail)), ...);
      }
    } else {
      Windows<double> w(window, stride);
      for (int i = 0; i < rowLength; i += 8) {
        w.Hide();
        const __m512d h = _mm512_load_pd(row + i);
        ((acc[g] = _mm512_fmadd_pd(h, _mm512_loadu_pd(w.At<g>()), acc[g])), ...);
        w.Advance(8);
      }
    }
    alignas(64) double lanes[16];
    _mm512_store_pd(lanes, Reduce<0>(acc));
    if (sizeof...(g) > 8) _mm512_store_pd(lanes + 8, Reduce<8>(acc));
    ((sums[g] = lanes[kLaneAvx512Double[g]]), ...);
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
