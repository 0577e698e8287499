#pragma once

#include <benchmark/benchmark.h>

namespace vexbench {

/// Reports "ns_per_sample": CPU nanoseconds per processed sample (per channel
/// when `samplesPerIteration` counts every channel's samples). The 1e-9 scale
/// makes the inverted rate come out in nanoseconds rather than seconds.
inline void ReportNsPerSample(benchmark::State& state, double samplesPerIteration) {
  state.counters["ns_per_sample"] = benchmark::Counter(
      samplesPerIteration * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace vexbench
