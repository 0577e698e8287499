// Cost of obtaining and returning the storage of one 512-sample stereo block:
// the recycler's cache hit and the small-block pool against the plain heap.
// Reported per sample per channel of the block the storage would hold, so the
// figure compares directly with the processing cost of a block.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <new>

#include "BenchSupport.h"
#include "vexcore/MemoryRecycler.h"
#include "vexcore/SmallBlockAllocator.h"

namespace {

constexpr std::size_t kBlock = 512;
constexpr std::size_t kChannels = 2;
constexpr std::size_t kBytes = kBlock * kChannels * sizeof(float);

void SetCounters(benchmark::State& state) {
  vexbench::ReportTimePerSample(state, static_cast<double>(kBlock * kChannels));
}

void BM_RecyclerReuse(benchmark::State& state) {
  std::size_t token = 0;
  vexcore::utility::MemoryRecycler::Recycle(vexcore::utility::MemoryRecycler::Allocate(kBytes, token), token);
  for (auto _ : state) {
    void* p = vexcore::utility::MemoryRecycler::Allocate(kBytes, token);
    benchmark::DoNotOptimize(p);
    vexcore::utility::MemoryRecycler::Recycle(p, token);
  }
  SetCounters(state);
}
BENCHMARK(BM_RecyclerReuse);

void BM_AlignedHeapBaseline(benchmark::State& state) {
  for (auto _ : state) {
    void* p = ::operator new(kBytes, std::align_val_t(64));
    benchmark::DoNotOptimize(p);
    ::operator delete(p, std::align_val_t(64));
  }
  SetCounters(state);
}
BENCHMARK(BM_AlignedHeapBaseline);

// The channel pointer table of the same block: a 16-byte small object.
void BM_SmallBlockPool(benchmark::State& state) {
  for (auto _ : state) {
    void* p = vexcore::utility::SmallBlockPool::Allocate(kChannels * sizeof(float*));
    benchmark::DoNotOptimize(p);
    vexcore::utility::SmallBlockPool::Deallocate(p, kChannels * sizeof(float*));
  }
  SetCounters(state);
}
BENCHMARK(BM_SmallBlockPool)->Threads(1)->Threads(2);

void BM_SmallHeapBaseline(benchmark::State& state) {
  for (auto _ : state) {
    void* p = ::operator new(kChannels * sizeof(float*));
    benchmark::DoNotOptimize(p);
    ::operator delete(p);
  }
  SetCounters(state);
}
BENCHMARK(BM_SmallHeapBaseline)->Threads(1)->Threads(2);

}  // namespace
