// Vector primitives against plain scalar loops that the compiler is told not
// to vectorise, on 512-sample blocks (a 48 kHz host block size).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "BenchSupport.h"
#include "vexaccelerate/Utility.h"

namespace u = vexaccelerate::utility;

namespace {

constexpr std::size_t kBlock = 512;

#define SCALAR __attribute__((noinline, optimize("no-tree-vectorize")))

SCALAR void ScalarAddInPlace(std::size_t n, const float* src, float* srcDst) {
  for (std::size_t i = 0; i < n; ++i) srcDst[i] += src[i];
}
SCALAR void ScalarMulConstant(std::size_t n, const float* src, float* dst, float v) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = src[i] * v;
}
SCALAR double ScalarDot(std::size_t n, const float* a, const float* b) {
  double acc = 0.0;
  for (std::size_t i = 0; i < n; ++i) acc += static_cast<double>(a[i]) * b[i];
  return acc;
}
SCALAR void ScalarToDouble(std::size_t n, const float* src, double* dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = src[i];
}
SCALAR void ScalarToInt16(std::size_t n, const float* src, std::int16_t* dst) {
  for (std::size_t i = 0; i < n; ++i) {
    float v = src[i] * 32768.0f;
    if (v != v) v = 0.0f;
    v = v < -32768.0f ? -32768.0f : (v > 32767.0f ? 32767.0f : v);
    dst[i] = static_cast<std::int16_t>(std::lrint(v));
  }
}
SCALAR void ScalarCopy(std::size_t n, const float* src, float* dst) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = src[i];
}

struct Data {
  Data() : a(kBlock + 1), b(kBlock + 1), d(kBlock), pcm(kBlock) {
    for (std::size_t i = 0; i < a.size(); ++i) {
      a[i] = static_cast<float>(std::sin(0.01 * static_cast<double>(i)));
      b[i] = static_cast<float>(std::cos(0.03 * static_cast<double>(i))) * 1e-3f;
    }
  }
  std::vector<float> a, b;
  std::vector<double> d;
  std::vector<std::int16_t> pcm;
};

void Report(benchmark::State& state) { vexbench::ReportTimePerSample(state, static_cast<double>(kBlock)); }

void BM_AddInPlace_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    u::Add_InPlace(kBlock, x.b.data(), x.a.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_AddInPlace_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    ScalarAddInPlace(kBlock, x.b.data(), x.a.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_MulConstant_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    u::MulConstant(kBlock, x.a.data(), x.b.data(), 0.5f);
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_MulConstant_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    ScalarMulConstant(kBlock, x.a.data(), x.b.data(), 0.5f);
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_Dot_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) benchmark::DoNotOptimize(u::Dot(kBlock, x.a.data(), x.b.data()));
  Report(state);
}
void BM_Dot_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) benchmark::DoNotOptimize(ScalarDot(kBlock, x.a.data(), x.b.data()));
  Report(state);
}
void BM_ConvertToDouble_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    u::Convert(kBlock, x.a.data(), x.d.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_ConvertToDouble_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    ScalarToDouble(kBlock, x.a.data(), x.d.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_ConvertToInt16_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    u::Convert(kBlock, x.a.data(), x.pcm.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_ConvertToInt16_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    ScalarToInt16(kBlock, x.a.data(), x.pcm.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
// Unaligned source (offset by one float) to show hosts' buffers cost nothing.
void BM_Copy_Vex(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    u::Copy(kBlock, x.a.data() + 1, x.b.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}
void BM_Copy_Scalar(benchmark::State& state) {
  Data x;
  for (auto _ : state) {
    ScalarCopy(kBlock, x.a.data() + 1, x.b.data());
    benchmark::ClobberMemory();
  }
  Report(state);
}

}  // namespace

BENCHMARK(BM_AddInPlace_Vex);
BENCHMARK(BM_AddInPlace_Scalar);
BENCHMARK(BM_MulConstant_Vex);
BENCHMARK(BM_MulConstant_Scalar);
BENCHMARK(BM_Dot_Vex);
BENCHMARK(BM_Dot_Scalar);
BENCHMARK(BM_ConvertToDouble_Vex);
BENCHMARK(BM_ConvertToDouble_Scalar);
BENCHMARK(BM_ConvertToInt16_Vex);
BENCHMARK(BM_ConvertToInt16_Scalar);
BENCHMARK(BM_Copy_Vex);
BENCHMARK(BM_Copy_Scalar);
