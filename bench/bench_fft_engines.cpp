// The five fixed-size FFT engines of the utils folder beside FFTW 3 called
// directly with the same planning flags (FFTW_ESTIMATE) on the same layout:
// split arrays through FFTW's guru split interface for the complex engines,
// r2c/c2r for the real ones. Each iteration is a forward plus inverse
// transform with the 1/N rescale (forward only for the forward-scaled
// engines); per_sample = time / N.
//
// BM_Single times one side alone. BM_Paired times ours and FFTW's in
// alternating bursts inside one benchmark and reports ratio = ours / FFTW:
// on a shared machine two separate benchmarks see different loads, which
// moved the ratio by 15 % between runs, while alternating bursts see the
// same load.
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/utils/IppFFT.h"

namespace {

namespace vu = vexaccelerate::utility;

template <typename T>
void FillSignal(T* x, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) x[i] = static_cast<T>(std::sin(0.37 * static_cast<double>(i)));
}

// An aligned array from the library's allocator or FFTW's, freed alike.
template <typename T, bool kFftw>
struct Buffer {
  explicit Buffer(std::size_t count) : data(Allocate(count)) { FillSignal(data, count); }
  ~Buffer() {
    if (kFftw) {
      fftw_free(data);
    } else {
      vu::Free(data);
    }
  }
  static T* Allocate(std::size_t count) {
    if (kFftw) return static_cast<T*>(fftw_malloc(count * sizeof(T)));
    if constexpr (sizeof(T) == sizeof(float)) {
      return vu::Malloc_Float(count);
    } else {
      return vu::Malloc_Double(count);
    }
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  T* data;
};

// ---- Ours -----------------------------------------------------------------

template <typename Engine, typename T>
struct OursComplex {
  explicit OursComplex(int size) : n(size), fft(size), re(n), im(n) {}
  void Run() {
    fft.FFT(re.data, im.data, 1);
    fft.FFT(re.data, im.data, -1);
    vu::MulConstant_InPlace(static_cast<std::size_t>(n), re.data, T(1) / static_cast<T>(n));
    vu::MulConstant_InPlace(static_cast<std::size_t>(n), im.data, T(1) / static_cast<T>(n));
  }
  int n;
  Engine fft;
  Buffer<T, false> re, im;
};

struct OursRealFloat {
  explicit OursRealFloat(int size) : n(size), fft(size), time(n + 2), freq(n + 2) {}
  void Run() {
    fft.FFT(time.data, freq.data, 1);
    fft.FFT(freq.data, time.data, -1);
    vu::MulConstant_InPlace(static_cast<std::size_t>(n), time.data, 1.0f / static_cast<float>(n));
  }
  int n;
  dsp::IppFFT32R fft;
  Buffer<float, false> time, freq;
};

template <typename Engine, typename T>
struct OursForwardScaled {
  explicit OursForwardScaled(int size) : fft(size), time(size), freq(size + 2) {}
  void Run() { fft.FFT(time.data, freq.data); }
  Engine fft;
  Buffer<T, false> time, freq;
};

// ---- FFTW -----------------------------------------------------------------

template <typename T>
struct FftwApi;

template <>
struct FftwApi<double> {
  using Plan = fftw_plan;
  using Complex = fftw_complex;
  using Dim = fftw_iodim;
  static Plan Split(Dim* d, double* ri, double* ii, double* ro, double* io) {
    return fftw_plan_guru_split_dft(1, d, 0, nullptr, ri, ii, ro, io, FFTW_ESTIMATE);
  }
  static Plan R2c(int n, double* in, Complex* out) { return fftw_plan_dft_r2c_1d(n, in, out, FFTW_ESTIMATE); }
  static Plan C2r(int n, Complex* in, double* out) { return fftw_plan_dft_c2r_1d(n, in, out, FFTW_ESTIMATE); }
  static void Execute(Plan p) { fftw_execute(p); }
  static void Destroy(Plan p) { fftw_destroy_plan(p); }
};

template <>
struct FftwApi<float> {
  using Plan = fftwf_plan;
  using Complex = fftwf_complex;
  using Dim = fftwf_iodim;
  static Plan Split(Dim* d, float* ri, float* ii, float* ro, float* io) {
    return fftwf_plan_guru_split_dft(1, d, 0, nullptr, ri, ii, ro, io, FFTW_ESTIMATE);
  }
  static Plan R2c(int n, float* in, Complex* out) { return fftwf_plan_dft_r2c_1d(n, in, out, FFTW_ESTIMATE); }
  static Plan C2r(int n, Complex* in, float* out) { return fftwf_plan_dft_c2r_1d(n, in, out, FFTW_ESTIMATE); }
  static void Execute(Plan p) { fftwf_execute(p); }
  static void Destroy(Plan p) { fftwf_destroy_plan(p); }
};

template <typename T>
struct FftwSplit {
  using A = FftwApi<T>;
  explicit FftwSplit(int size) : n(size), re(n), im(n) {
    typename A::Dim dim{n, 1, 1};
    forward = A::Split(&dim, re.data, im.data, re.data, im.data);
    // The inverse is the forward transform with the parts swapped, planned
    // as such (executing the forward plan on swapped arrays is not allowed).
    inverse = A::Split(&dim, im.data, re.data, im.data, re.data);
  }
  ~FftwSplit() {
    A::Destroy(forward);
    A::Destroy(inverse);
  }
  void Run() {
    A::Execute(forward);
    A::Execute(inverse);
    vu::MulConstant_InPlace(static_cast<std::size_t>(n), re.data, T(1) / static_cast<T>(n));
    vu::MulConstant_InPlace(static_cast<std::size_t>(n), im.data, T(1) / static_cast<T>(n));
  }
  int n;
  Buffer<T, true> re, im;
  typename A::Plan forward, inverse;
};

// With `kInverse` a forward plus inverse round trip with the 1/N rescale,
// otherwise a forward transform divided by N.
template <typename T, bool kInverse>
struct FftwReal {
  using A = FftwApi<T>;
  explicit FftwReal(int size) : n(size), time(n + 2), freq(n + 2) {
    auto* spectrum = reinterpret_cast<typename A::Complex*>(freq.data);
    forward = A::R2c(n, time.data, spectrum);
    inverse = kInverse ? A::C2r(n, spectrum, time.data) : nullptr;
  }
  ~FftwReal() {
    A::Destroy(forward);
    if (inverse) A::Destroy(inverse);
  }
  void Run() {
    A::Execute(forward);
    if (kInverse) {
      A::Execute(inverse);
      vu::MulConstant_InPlace(static_cast<std::size_t>(n), time.data, T(1) / static_cast<T>(n));
    } else {
      vu::MulConstant_InPlace(static_cast<std::size_t>(n) + 2, freq.data, T(1) / static_cast<T>(n));
    }
  }
  int n;
  Buffer<T, true> time, freq;
  typename A::Plan forward, inverse;
};

// ---- Benchmarks -----------------------------------------------------------

template <typename Side>
void BM_Single(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Side side(n);
  for (auto _ : state) {
    side.Run();
    benchmark::ClobberMemory();
  }
  vexbench::ReportTimePerSample(state, n);
}

template <typename Ours, typename Fftw>
void BM_Paired(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  constexpr int kBurst = 16;
  const int n = static_cast<int>(state.range(0));
  Ours ours(n);
  Fftw fftw(n);
  Clock::duration oursTime{}, fftwTime{};
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (int i = 0; i < kBurst; ++i) ours.Run();
    benchmark::ClobberMemory();
    const auto t1 = Clock::now();
    for (int i = 0; i < kBurst; ++i) fftw.Run();
    benchmark::ClobberMemory();
    const auto t2 = Clock::now();
    oursTime += t1 - t0;
    fftwTime += t2 - t1;
  }
  const double samples = static_cast<double>(state.iterations()) * kBurst * n;
  state.counters["ours_ns"] = std::chrono::duration<double, std::nano>(oursTime).count() / samples;
  state.counters["fftw_ns"] = std::chrono::duration<double, std::nano>(fftwTime).count() / samples;
  state.counters["ratio"] = std::chrono::duration<double>(oursTime) / std::chrono::duration<double>(fftwTime);
}

using IppFFT = OursComplex<dsp::IppFFT, double>;
using IppFFT32 = OursComplex<dsp::IppFFT32, float>;
using IppFFT32R = OursRealFloat;
using IppFFT32fReal = OursForwardScaled<dsp::IppFFT32fReal, float>;
using IppFFT64fReal = OursForwardScaled<dsp::IppFFT64fReal, double>;

void EngineSizes(benchmark::internal::Benchmark* b) { b->Arg(1024)->Arg(4096)->Arg(8192); }

}  // namespace

BENCHMARK_TEMPLATE(BM_Single, IppFFT)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, FftwSplit<double>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, IppFFT32)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, FftwSplit<float>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, IppFFT32R)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, FftwReal<float, true>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, IppFFT32fReal)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, FftwReal<float, false>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, IppFFT64fReal)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Single, FftwReal<double, false>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Paired, IppFFT, FftwSplit<double>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Paired, IppFFT32, FftwSplit<float>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Paired, IppFFT32R, FftwReal<float, true>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Paired, IppFFT32fReal, FftwReal<float, false>)->Apply(EngineSizes);
BENCHMARK_TEMPLATE(BM_Paired, IppFFT64fReal, FftwReal<double, false>)->Apply(EngineSizes);
