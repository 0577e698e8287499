#pragma once

#include <benchmark/benchmark.h>

namespace vexbench {

/// Reports "per_sample": CPU time per processed sample (per channel when
/// `samplesPerIteration` counts every channel's samples), printed with its SI
/// prefix, e.g. "480p" is 0.48 ns per sample; JSON output holds seconds.
inline void ReportTimePerSample(benchmark::State& state, double samplesPerIteration) {
  state.counters["per_sample"] = benchmark::Counter(
      samplesPerIteration, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace vexbench
