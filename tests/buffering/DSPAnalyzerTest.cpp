#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"

namespace {

// Records what each pass sees. It consumes up to the end of its pass
// (start + length + latency), or with `greedy` whatever it is given.
class RecordingMultiPass : public dsp::DSPMultiPassAnalyzer {
 public:
  RecordingMultiPass(std::vector<int> latencies, bool greedy)
      : DSPMultiPassAnalyzer(static_cast<int>(latencies.size())), latencies_(std::move(latencies)), greedy_(greedy) {
    passesDone.reserve(64);  // so Analyze and IsCompleted never allocate
    seen.assign(latencies_.size(), {});
    for (auto& s : seen) s.reserve(1 << 12);
  }
  using dsp::DSPMultiPassAnalyzer::Analyze;
  using dsp::DSPMultiPassAnalyzer::GetCurrentPosition;
  using dsp::DSPMultiPassAnalyzer::GetLatency;
  int GetDesiredBlockSize() const override { return 100; }

  std::vector<int> passesDone;
  std::vector<std::vector<float>> seen;

 protected:
  int GetLatency(int pass) const override {
    return pass < static_cast<int>(latencies_.size()) ? latencies_[static_cast<std::size_t>(pass)] : 0;
  }
  std::int64_t Analyze(int pass, float** buffers, int, int numSamples) override {
    const std::int64_t end = GetSelectionStart() + GetSelectionLength() + GetLatency(pass);
    const std::int64_t take = greedy_ ? numSamples : std::min<std::int64_t>(numSamples, end - GetCurrentPosition());
    auto& log = seen[static_cast<std::size_t>(pass)];
    log.insert(log.end(), buffers[0], buffers[0] + take);
    return take;
  }
  void OnPassDone(int pass) override { passesDone.push_back(pass); }

 private:
  std::vector<int> latencies_;
  bool greedy_;
};

// Drives the analyzer as a host does: read GetDesiredBlockSize() samples from
// the analyzer's position, advance by the returned count, poll IsCompleted().
// The expected advances and progress are worked out by hand for a selection
// of 1037 samples from 250 and pass latencies 0, 40 and 300 (spans 1037,
// 1077 and 1337): the block that reaches a pass end returns what it consumed
// minus the span.
TEST(DSPMultiPassAnalyzerTest, HostLoopSeesTheSelectionOncePerPass) {
  const std::int64_t start = 250, length = 1037;
  const std::vector<int> latencies = {0, 40, 300};
  std::vector<float> signal(8000);
  for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = static_cast<float>(i);
  const auto repeat = [](std::vector<std::int64_t> v, int n, std::int64_t last) {
    v.insert(v.end(), static_cast<std::size_t>(n), 100);
    v.push_back(last);
    return v;
  };
  // Exact: 37 - 1037, 77 - 1077, 37 - 1337. Greedy: 100 - span at the block that passes the end.
  const std::vector<std::int64_t> exact = repeat(repeat(repeat({}, 10, -1000), 10, -1000), 13, -1300);
  const std::vector<std::int64_t> greedyAdvances = repeat(repeat(repeat({}, 10, -937), 10, -977), 13, -1237);
  // Progress after the first block of each pass: (100 / span + pass) / 3 x 100.
  const float firstBlockProgress[3] = {3.2144005f, 36.428350f, 69.159811f};

  for (bool greedy : {false, true}) {
    SCOPED_TRACE(greedy ? "greedy" : "exact");
    RecordingMultiPass a(latencies, greedy);
    ASSERT_TRUE(a.SetSelection(start, length));
    a.Start(nullptr);
    EXPECT_EQ(a.GetProgress(), 0.0f);
    std::vector<std::int64_t> advances;
    advances.reserve(64);
    std::int64_t host = start;
    int blockInPass = 0, lastPass = 0;
    for (int polls = 0;; ++polls) {
      bool done = false;
      EXPECT_NO_ALLOCATION(done = a.IsCompleted());
      if (done) break;
      ASSERT_LT(polls, 1000);
      const int pass = a.GetCurrentPass();
      if (pass != lastPass) {
        EXPECT_EQ(host, start) << "an exact host is back at the start for pass " << pass;
        blockInPass = 0;
        lastPass = pass;
      }
      float* ptr = signal.data() + a.GetCurrentPosition();
      std::int64_t advance = 0;
      EXPECT_NO_ALLOCATION(advance = a.Analyze(&ptr, 1, a.GetDesiredBlockSize()));
      advances.push_back(advance);
      host += greedy ? 0 : advance;
      if (blockInPass++ == 0) {
        EXPECT_NEAR(a.GetProgress(), firstBlockProgress[pass], 1e-4) << pass;
      }
    }
    EXPECT_EQ(advances, greedy ? greedyAdvances : exact);
    EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1, 2}));
    EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
    EXPECT_FALSE(a.IsCompleted());  // a further poll answers false
    for (std::size_t pass = 0; pass < 3; ++pass) {
      const std::size_t n = greedy ? (length + latencies[pass] + 99) / 100 * 100 : length + latencies[pass];
      const auto first = signal.begin() + start;
      EXPECT_EQ(a.seen[pass], std::vector<float>(first, first + n)) << pass;
    }
  }
}

}  // namespace
