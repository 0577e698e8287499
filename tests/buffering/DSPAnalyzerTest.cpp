#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"

namespace {

// Records what each pass sees. It consumes up to the end of its pass
// (start + length + latency), or with `greedy` whatever it is given.
class RecordingMultiPass : public dsp::DSPMultiPassAnalyzer {
 public:
  RecordingMultiPass(int passes, std::vector<int> latencies, bool greedy = false)
      : DSPMultiPassAnalyzer(passes), latencies_(std::move(latencies)), greedy_(greedy) {
    passesDone.reserve(64);  // so Analyze and IsCompleted never allocate
    seen.assign(static_cast<std::size_t>(std::max(passes, 1)), {});
    for (auto& s : seen) s.reserve(1 << 16);
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
// the host position, advance by the returned count, poll IsCompleted().
TEST(DSPMultiPassAnalyzerTest, HostLoopSeesTheSelectionOncePerPass) {
  const std::int64_t start = 250, length = 1037;
  const std::vector<std::int64_t> latencies = {0, 40, 300};
  std::vector<float> signal(4000);
  for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = static_cast<float>(i);

  RecordingMultiPass a(3, {0, 40, 300});
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
    const std::int64_t before = a.GetCurrentPosition();
    ASSERT_EQ(host, before);  // the host reads where the analyzer expects the next sample
    float* ptr = signal.data() + host;
    std::int64_t advance = 0;
    EXPECT_NO_ALLOCATION(advance = a.Analyze(&ptr, 1, a.GetDesiredBlockSize()));
    host += advance;
    const std::int64_t span = length + latencies[static_cast<std::size_t>(pass)];
    const std::int64_t consumed = a.GetCurrentPosition() - before;
    // The block that reaches the pass end returns consumed - (length + latency),
    // which puts a host that consumed exactly up to the end back at start.
    EXPECT_EQ(advance, a.GetCurrentPosition() < start + span ? consumed : consumed - span);
    EXPECT_NEAR(a.GetProgress(), (static_cast<double>(a.GetCurrentPosition() - start) / span + pass) * 100.0 / 3.0,
                1e-4);
  }
  EXPECT_EQ(host, start);
  EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1, 2}));
  EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
  for (std::size_t pass = 0; pass < 3; ++pass) {
    const auto first = signal.begin() + start;
    EXPECT_EQ(a.seen[pass], std::vector<float>(first, first + length + latencies[pass])) << pass;
  }
}

TEST(DSPMultiPassAnalyzerTest, ReturnedCountArithmeticWhenOvershooting) {
  RecordingMultiPass a(2, {30, 0}, /*greedy=*/true);
  a.SetSelection(1000, 250);
  a.Start(nullptr);
  vextest::PlanarBlock block(1, 200, 1.0f);
  // Pass 0 ends at 1000 + 250 + 30 = 1280.
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200);
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200 - (30 + 250));
  EXPECT_EQ(a.GetCurrentPosition(), 1400);
  EXPECT_FLOAT_EQ(a.GetProgress(), (400.0f / 280.0f) * 50.0f);
  EXPECT_FALSE(a.IsCompleted());  // pass 0 finished, pass 1 remains
  EXPECT_EQ(a.passesDone, std::vector<int>{0});
  EXPECT_EQ(a.GetCurrentPosition(), 1000);
  EXPECT_FLOAT_EQ(a.GetProgress(), 50.0f);
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200);
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 50), 50 - 250);
  EXPECT_TRUE(a.IsCompleted());
  EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1}));
  // Once done, the position rests at the start: a further poll finds the
  // (non-existent) next pass unfinished and answers false.
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
}

TEST(DSPMultiPassAnalyzerTest, StartRewindsThePassNotThePositionAndEmptyPassesEndPerPoll) {
  RecordingMultiPass a(2, {0, 0});
  a.SetSelection(10, 100);
  a.Start(nullptr);
  vextest::PlanarBlock block(1, 100, 0.0f);
  a.Analyze(block.Pointers(), 1, 100);
  EXPECT_FALSE(a.IsCompleted());
  a.Analyze(block.Pointers(), 1, 40);
  a.Start(nullptr);
  EXPECT_EQ(a.GetCurrentPass(), 0);
  EXPECT_EQ(a.GetCurrentPosition(), 50);
  EXPECT_TRUE(a.SetSelection(7, 3));  // a new selection moves the position
  EXPECT_EQ(a.GetCurrentPosition(), 7);

  RecordingMultiPass empty(3, {});
  empty.SetSelection(0, 0);
  empty.Start(nullptr);
  EXPECT_FALSE(empty.IsCompleted());
  EXPECT_FALSE(empty.IsCompleted());
  EXPECT_TRUE(empty.IsCompleted());
  EXPECT_EQ(empty.passesDone, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(empty.GetProgress(), 100.0f);
  EXPECT_EQ(RecordingMultiPass(0, {}).GetNumPasses(), 1);
}

}  // namespace
