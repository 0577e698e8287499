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
// the host position, advance by the returned count, poll IsCompleted(). A
// greedy analyzer overshoots each pass end, so its host does not land back
// at the start.
TEST(DSPMultiPassAnalyzerTest, HostLoopSeesTheSelectionOncePerPass) {
  const std::int64_t start = 250, length = 1037;
  const std::vector<int> latencies = {0, 40, 300};
  std::vector<float> signal(8000);
  for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = static_cast<float>(i);

  for (bool greedy : {false, true}) {
    RecordingMultiPass a(latencies, greedy);
    ASSERT_TRUE(a.SetSelection(start, length));
    a.Start(nullptr);
    EXPECT_EQ(a.GetProgress(), 0.0f);
    std::int64_t host = start;
    for (int polls = 0;; ++polls) {
      bool done = false;
      EXPECT_NO_ALLOCATION(done = a.IsCompleted());
      if (done) break;
      ASSERT_LT(polls, 1000);
      const int pass = a.GetCurrentPass();
      const std::int64_t before = a.GetCurrentPosition(), span = length + latencies[static_cast<std::size_t>(pass)];
      ASSERT_EQ(greedy ? before : host, before);  // the host reads where the analyzer expects the next sample
      float* ptr = signal.data() + before;
      std::int64_t advance = 0;
      EXPECT_NO_ALLOCATION(advance = a.Analyze(&ptr, 1, a.GetDesiredBlockSize()));
      host += advance;
      // The block that reaches the pass end returns consumed - (length + latency).
      const std::int64_t consumed = a.GetCurrentPosition() - before;
      EXPECT_EQ(advance, a.GetCurrentPosition() < start + span ? consumed : consumed - span);
      EXPECT_NEAR(a.GetProgress(), (static_cast<double>(a.GetCurrentPosition() - start) / span + pass) * 100.0 / 3.0,
                  1e-4);
    }
    EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1, 2}));
    EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
    EXPECT_FALSE(a.IsCompleted());  // a further poll answers false
    for (std::size_t pass = 0; pass < 3; ++pass) {
      const std::size_t n = greedy ? (length + latencies[pass] + 99) / 100 * 100 : length + latencies[pass];
      const auto first = signal.begin() + start;
      EXPECT_EQ(a.seen[pass], std::vector<float>(first, first + n)) << pass << " greedy " << greedy;
    }
    EXPECT_EQ(greedy ? start : host, start);
  }
}

}  // namespace
