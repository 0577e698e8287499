#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/TestSignals.h"
#include "vexaudiodsp/resample/Resample.h"

// Built and run under ThreadSanitizer too: eight threads create, initialise
// and run resamplers on a few rate pairs at once, so the shared table cache
// is searched, filled and evicted concurrently while tables are in use.
namespace {

struct Pair {
  float from, to;
  int order;
};

const Pair kPairs[] = {{48000, 44100, 31}, {44100, 48000, 31}, {32000, 44100, 15}, {96000, 48000, 23}};

std::vector<float> Convert(const Pair& p, const std::vector<float>& in) {
  dsp::Resample r;
  r.SetFilterOrder(p.order);
  if (!r.SetSampleRates(p.from, p.to) || !r.Initialize()) return {};
  std::vector<float> out(static_cast<std::size_t>(r.GetOutputBufferSize(static_cast<int>(in.size()))));
  std::vector<float> input = in;
  int produced = 0;
  for (std::size_t done = 0; done < in.size(); done += 500) {
    const int n = static_cast<int>(std::min<std::size_t>(500, in.size() - done));
    produced += r.Process(input.data() + done, out.data() + produced, n);
  }
  out.resize(static_cast<std::size_t>(produced));
  return out;
}

TEST(ResampleThreads, EightThreadsShareTheCacheSafely) {
  const std::vector<float> input = vextest::Noise(3000, 77);
  std::vector<std::vector<float>> expected;
  for (const Pair& p : kPairs) expected.push_back(Convert(p, input));

  std::atomic<int> mismatches{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int round = 0; round < 12; ++round) {
        const int which = (t + round) % 4;
        if (Convert(kPairs[which], input) != expected[static_cast<std::size_t>(which)]) ++mismatches;
        // Distinct keys churn the cache so that entries in use are evicted.
        dsp::Resample churn;
        churn.SetFilterOrder(7);
        churn.SetNyquistShift(0.5 + 0.001 * (t * 12 + round));
        churn.Initialize();
      }
    });
  }
  go = true;
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
