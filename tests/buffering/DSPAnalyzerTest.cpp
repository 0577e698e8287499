#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"

namespace {

// A single-pass analyzer relying on every default of the base.
class PeakAnalyzer : public dsp::DSPAnalyzer {
 public:
  int GetDesiredBlockSize() const override { return 64; }
  bool IsCompleted() const override { return false; }
  float GetProgress() const override { return 0.0f; }
  std::int64_t Analyze(float** buffers, int numChannels, int numSamples) override {
    for (int ch = 0; ch < numChannels; ++ch)
      for (int i = 0; i < numSamples; ++i) *GetResult() = std::max(*GetResult(), buffers[ch][i]);
    return numSamples;
  }
  using dsp::DSPAnalyzer::GetResult;
};

struct BlockRecord {
  int pass;
  std::int64_t position;  // analyzer position when the block arrived
  int numSamples;
  float first;  // first sample of channel 0
};

// Records what each pass sees. A well-behaved analyzer consumes at most up to
// the end of its pass (start + length + latency); with `greedy` it consumes
// whatever it is given, overshooting the end.
class RecordingMultiPass : public dsp::DSPMultiPassAnalyzer {
 public:
  RecordingMultiPass(int passes, std::vector<int> latencies, bool greedy = false)
      : DSPMultiPassAnalyzer(passes), latencies_(std::move(latencies)), greedy_(greedy) {
    blocks.reserve(4096);
    passesDone.reserve(64);
    seen.resize(static_cast<std::size_t>(passes));
    for (auto& s : seen) s.reserve(1 << 16);
  }
  using dsp::DSPMultiPassAnalyzer::Analyze;
  using dsp::DSPMultiPassAnalyzer::GetCurrentPosition;
  using dsp::DSPMultiPassAnalyzer::GetLatency;
  using dsp::DSPMultiPassAnalyzer::GetSelectionLength;
  using dsp::DSPMultiPassAnalyzer::GetSelectionStart;

  int GetDesiredBlockSize() const override { return 100; }

  std::vector<BlockRecord> blocks;
  std::vector<int> passesDone;
  std::vector<std::vector<float>> seen;

 protected:
  int GetLatency(int pass) const override {
    return pass < static_cast<int>(latencies_.size()) ? latencies_[static_cast<std::size_t>(pass)] : 0;
  }
  std::int64_t Analyze(int pass, float** buffers, int, int numSamples) override {
    blocks.push_back({pass, GetCurrentPosition(), numSamples, buffers[0][0]});
    const std::int64_t end = GetSelectionStart() + GetSelectionLength() + GetLatency(pass);
    const std::int64_t take = greedy_ ? numSamples : std::min<std::int64_t>(numSamples, end - GetCurrentPosition());
    if (pass < static_cast<int>(seen.size()))
      seen[static_cast<std::size_t>(pass)].insert(seen[static_cast<std::size_t>(pass)].end(), buffers[0],
                                                  buffers[0] + take);
    return take;
  }
  void OnPassDone(int pass) override { passesDone.push_back(pass); }

 private:
  std::vector<int> latencies_;
  bool greedy_;
};

TEST(DSPAnalyzerTest, BaseDefaultsAndResultPointer) {
  PeakAnalyzer a;
  EXPECT_TRUE(a.SetSelection(5, -3));
  EXPECT_EQ(a.GetLatency(), 0);
  EXPECT_EQ(a.GetResult(), nullptr);
  a.SetIOConfig(2, 48000.0f);
  float peak = -1.0f;
  a.Start(&peak);
  EXPECT_EQ(a.GetResult(), &peak);
  vextest::PlanarBlock block(2, 64, 0.0f);
  block.Channel(1)[17] = 0.75f;
  EXPECT_EQ(a.Analyze(block.Pointers(), 2, 64), 64);
  a.Done();
  EXPECT_EQ(peak, 0.75f);
}

// Drives the analyzer as a host does: read GetDesiredBlockSize() samples from
// the host position, advance by the returned count, poll IsCompleted().
TEST(DSPMultiPassAnalyzerTest, HostLoopSeesTheSelectionOncePerPass) {
  const std::int64_t start = 250;
  const std::int64_t length = 1037;
  const std::vector<int> latencies = {0, 40, 300};
  std::vector<float> signal(4000);
  for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = static_cast<float>(i);

  RecordingMultiPass a(3, latencies);
  a.SetIOConfig(1, 48000.0f);
  ASSERT_TRUE(a.SetSelection(start, length));
  float result = 0.0f;
  a.Start(&result);
  EXPECT_EQ(a.GetProgress(), 0.0f);

  std::int64_t host = start;
  std::vector<float> progress;
  int polls = 0;
  int completions = 0;
  for (;;) {
    bool done = false;
    EXPECT_NO_ALLOCATION(done = a.IsCompleted());
    ++polls;
    if (done) {
      ++completions;
      break;
    }
    ASSERT_LT(polls, 1000);
    const int pass = a.GetCurrentPass();
    const std::int64_t before = a.GetCurrentPosition();
    // The host reads from where the analyzer expects the next sample.
    ASSERT_EQ(host, before);
    float* ptr = signal.data() + host;
    std::int64_t advance = 0;
    EXPECT_NO_ALLOCATION(advance = a.Analyze(&ptr, 1, a.GetDesiredBlockSize()));
    host += advance;
    const std::int64_t span = length + latencies[static_cast<std::size_t>(pass)];
    const float expectedProgress =
        (static_cast<float>(a.GetCurrentPosition() - start) / static_cast<float>(span) + static_cast<float>(pass)) *
        (1.0f / 3.0f) * 100.0f;
    if (a.GetCurrentPosition() < start + span) {
      EXPECT_EQ(advance, a.GetCurrentPosition() - before);
      EXPECT_NEAR(a.GetProgress(), expectedProgress, 1e-4);
    } else {
      // The block that reaches the end returns consumed - (length + latency),
      // which puts a host that consumed exactly up to the end back at start.
      EXPECT_EQ(advance, (a.GetCurrentPosition() - before) - span);
      EXPECT_EQ(host, start);
      EXPECT_NEAR(a.GetProgress(), (static_cast<float>(pass) + 1.0f) * 100.0f / 3.0f, 1e-4);
    }
    progress.push_back(a.GetProgress());
  }
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1, 2}));
  EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));

  for (int pass = 0; pass < 3; ++pass) {
    const std::int64_t span = length + latencies[static_cast<std::size_t>(pass)];
    const auto& seen = a.seen[static_cast<std::size_t>(pass)];
    ASSERT_EQ(static_cast<std::int64_t>(seen.size()), span) << pass;
    for (std::int64_t i = 0; i < span; ++i)
      ASSERT_EQ(seen[static_cast<std::size_t>(i)], static_cast<float>(start + i)) << pass << " " << i;
    // Block positions walk the pass in steps of the block size from start.
    std::int64_t expect = start;
    for (const BlockRecord& b : a.blocks) {
      if (b.pass != pass) continue;
      EXPECT_EQ(b.position, expect);
      EXPECT_EQ(b.first, static_cast<float>(expect));
      expect += 100;
    }
    EXPECT_EQ(expect, start + (span + 99) / 100 * 100);
  }
  a.Done();
}

TEST(DSPMultiPassAnalyzerTest, ReturnedCountArithmeticWhenOvershooting) {
  RecordingMultiPass a(2, {30, 0}, /*greedy=*/true);
  a.SetSelection(1000, 250);
  a.Start(nullptr);
  EXPECT_EQ(a.GetLatency(), 30);
  vextest::PlanarBlock block(1, 200, 1.0f);
  // Pass 0 ends at 1000 + 250 + 30 = 1280.
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200);
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200 - (30 + 250));
  EXPECT_EQ(a.GetCurrentPosition(), 1400);
  EXPECT_FLOAT_EQ(a.GetProgress(), (400.0f / 280.0f) * 50.0f);
  EXPECT_FALSE(a.IsCompleted());  // pass 0 finished, pass 1 remains
  EXPECT_EQ(a.passesDone, std::vector<int>{0});
  EXPECT_EQ(a.GetCurrentPass(), 1);
  EXPECT_EQ(a.GetCurrentPosition(), 1000);
  EXPECT_EQ(a.GetLatency(), 0);
  EXPECT_FLOAT_EQ(a.GetProgress(), 50.0f);
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 200), 200);
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_EQ(a.Analyze(block.Pointers(), 1, 50), 50 - 250);
  EXPECT_TRUE(a.IsCompleted());
  EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1}));
  // Once done, the position rests at the start: a further poll finds the
  // (non-existent) next pass unfinished and answers false.
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_EQ(a.passesDone.size(), 2u);
  EXPECT_FLOAT_EQ(a.GetProgress(), 100.0f);
}

TEST(DSPMultiPassAnalyzerTest, StartRewindsThePassButNotThePosition) {
  RecordingMultiPass a(2, {0, 0});
  a.SetSelection(10, 100);
  a.Start(nullptr);
  vextest::PlanarBlock block(1, 100, 0.0f);
  a.Analyze(block.Pointers(), 1, 100);
  EXPECT_TRUE(!a.IsCompleted());
  EXPECT_EQ(a.GetCurrentPass(), 1);
  a.Analyze(block.Pointers(), 1, 40);
  a.Start(nullptr);
  EXPECT_EQ(a.GetCurrentPass(), 0);
  EXPECT_EQ(a.GetCurrentPosition(), 50);
  EXPECT_EQ(a.GetSelectionStart(), 10);
  EXPECT_EQ(a.GetSelectionLength(), 100);
  // A new selection moves the position.
  EXPECT_TRUE(a.SetSelection(7, 3));
  EXPECT_EQ(a.GetCurrentPosition(), 7);
}

TEST(DSPMultiPassAnalyzerTest, EmptySelectionFinishesOnePassPerPoll) {
  RecordingMultiPass a(3, {});
  a.SetSelection(0, 0);
  a.Start(nullptr);
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_FALSE(a.IsCompleted());
  EXPECT_TRUE(a.IsCompleted());
  EXPECT_EQ(a.passesDone, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(a.GetProgress(), 100.0f);

  RecordingMultiPass clamped(0, {});
  EXPECT_EQ(clamped.GetNumPasses(), 1);
}

}  // namespace
