// FFT cost per transform and per sample for the block sizes the effects use
// (orders 9 ... 12), aligned buffers and a host-style unaligned one. The
// per_sample counter is the time of one transform divided by its length.
// BM_FftwDirect* call FFTW itself with the same planning flags, so the cost
// of the wrapper shows as the ratio to them.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <cmath>

#include "BenchSupport.h"
#include "vexaccelerate/Transform.h"
#include "vexaccelerate/Utility.h"

using namespace vexaccelerate;
using namespace vexaccelerate::transform;

namespace {

void Report(benchmark::State& state, std::size_t n) { vexbench::ReportTimePerSample(state, static_cast<double>(n)); }

template <typename T>
T* Allocate(std::size_t n);
template <>
float* Allocate<float>(std::size_t n) {
  return vexaccelerate::utility::Malloc_Float(n);
}
template <>
double* Allocate<double>(std::size_t n) {
  return vexaccelerate::utility::Malloc_Double(n);
}

template <typename State, typename T, bool kComplex>
void RunFft(benchmark::State& state, bool inverse, std::size_t offset) {
  const int order = static_cast<int>(state.range(0));
  const std::size_t n = std::size_t{1} << order;
  State* fft = nullptr;
  if (FFTInit(&fft, order) != 0) {
    state.SkipWithError("FFTInit failed");
    return;
  }
  const std::size_t values = kComplex ? 2 * n : n + 2;
  // 64-byte aligned like the library's own buffers, then optionally offset.
  T* in = Allocate<T>(values + offset);
  T* out = Allocate<T>(values + offset);
  for (std::size_t i = 0; i < values + offset; ++i) {
    in[i] = static_cast<T>(std::sin(0.37 * static_cast<double>(i)));
    out[i] = T(0);
  }
  T* src = in + offset;
  T* dst = out + offset;
  for (auto _ : state) {
    if (inverse) {
      FFTInv(fft, src, dst);
    } else {
      FFTFwd(fft, src, dst);
    }
    benchmark::ClobberMemory();
  }
  Report(state, n);
  FFTFree(fft);
  vexaccelerate::utility::Free(in);
  vexaccelerate::utility::Free(out);
}

void BM_RealFloatFwd(benchmark::State& s) { RunFft<FFTState_Float, float, false>(s, false, 0); }
void BM_RealFloatInv(benchmark::State& s) { RunFft<FFTState_Float, float, false>(s, true, 0); }
void BM_RealFloatFwdUnaligned(benchmark::State& s) { RunFft<FFTState_Float, float, false>(s, false, 1); }
void BM_RealDoubleFwd(benchmark::State& s) { RunFft<FFTState_Double, double, false>(s, false, 0); }
void BM_ComplexFloatFwd(benchmark::State& s) { RunFft<FFTState_ComplexFloat, float, true>(s, false, 0); }
void BM_ComplexFloatInv(benchmark::State& s) { RunFft<FFTState_ComplexFloat, float, true>(s, true, 0); }
void BM_ComplexDoubleFwd(benchmark::State& s) { RunFft<FFTState_ComplexDouble, double, true>(s, false, 0); }

// The peer: one FFTW plan executed on the buffers it was planned for, with a
// complex input whose imaginary half is unused by the real plan.
void RunFftwDirect(benchmark::State& state, bool complex) {
  const int n = 1 << state.range(0);
  fftwf_complex* in = fftwf_alloc_complex(static_cast<std::size_t>(n));
  fftwf_complex* out = fftwf_alloc_complex(static_cast<std::size_t>(n));
  float* real = reinterpret_cast<float*>(in);
  fftwf_plan plan = complex ? fftwf_plan_dft_1d(n, in, out, FFTW_FORWARD, FFTW_ESTIMATE)
                            : fftwf_plan_dft_r2c_1d(n, real, out, FFTW_ESTIMATE);
  for (int i = 0; i < 2 * n; ++i) real[i] = static_cast<float>(std::sin(0.37 * i));
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::ClobberMemory();
  }
  Report(state, static_cast<std::size_t>(n));
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(out);
}

void BM_FftwDirectRealFloatFwd(benchmark::State& s) { RunFftwDirect(s, false); }
void BM_FftwDirectComplexFloatFwd(benchmark::State& s) { RunFftwDirect(s, true); }

}  // namespace

BENCHMARK(BM_FftwDirectRealFloatFwd)->DenseRange(9, 12);
BENCHMARK(BM_FftwDirectComplexFloatFwd)->DenseRange(9, 12);
BENCHMARK(BM_RealFloatFwd)->DenseRange(9, 12);
BENCHMARK(BM_RealFloatInv)->DenseRange(9, 12);
BENCHMARK(BM_RealFloatFwdUnaligned)->DenseRange(9, 12);
BENCHMARK(BM_RealDoubleFwd)->DenseRange(9, 12);
BENCHMARK(BM_ComplexFloatFwd)->DenseRange(9, 12);
BENCHMARK(BM_ComplexFloatInv)->DenseRange(9, 12);
BENCHMARK(BM_ComplexDoubleFwd)->DenseRange(9, 12);
