#pragma once

// Timing whole command lines (ours and a peer's) from a benchmark: the
// command runs through std::system once per iteration and is reported as a
// multiple of real time (x_realtime, from wall time) and by the CPU time its
// process used (child_cpu_s).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vexbench {

/// The vexdsp binary: VEXDSP_BINARY, or the one built beside this program;
/// empty when there is none.
inline std::string FindVexdsp() {
  namespace fs = std::filesystem;
  if (const char* env = std::getenv("VEXDSP_BINARY")) return env;
  const fs::path self = fs::read_symlink("/proc/self/exe").parent_path();
  for (const fs::path& p : {self / "../tools/vexdsp/vexdsp", self / "../tests/tools/vexdsp/vexdsp"}) {
    if (fs::exists(p)) return fs::canonical(p).string();
  }
  return {};
}

/// User plus system time of the finished child processes, in seconds.
inline double ChildCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

/// Runs `command` once per iteration over `audioSeconds` of audio and sets
/// x_realtime and child_cpu_s; false (and the benchmark marked as skipped)
/// when the command fails.
inline bool TimeCommand(benchmark::State& state, const std::string& command, double audioSeconds) {
  double cpu = 0.0;
  for (auto _ : state) {
    const double before = ChildCpuSeconds();
    if (std::system(command.c_str()) != 0) {
      state.SkipWithError(("failed: " + command).c_str());
      return false;
    }
    cpu += ChildCpuSeconds() - before;
  }
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["x_realtime"] = benchmark::Counter(audioSeconds * iterations, benchmark::Counter::kIsRate);
  state.counters["child_cpu_s"] = cpu / iterations;
  return true;
}

}  // namespace vexbench
