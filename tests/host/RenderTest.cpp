// Offline rendering: latency compensation, what the chain is fed after the
// input ends, tails, inputs of unknown length, the analyzer protocol and
// rate converters.

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <vector>

#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"
#include "vexaudiodsp/host/Render.h"

namespace {

using dsp::host::MemorySink;
using dsp::host::MemorySource;
using Planar = std::vector<std::vector<float>>;

// A pure delay that reports its delay as latency, as a look-ahead effect
// does; it records everything it was fed.
struct LatentDelay final : dsp::DSPProcess {
  explicit LatentDelay(int latency) : latency_(latency) {}
  void SetIOConfig(int numChannels, float) override {
    history_.assign(static_cast<std::size_t>(numChannels), std::deque<float>(static_cast<std::size_t>(latency_)));
    fed_.assign(static_cast<std::size_t>(numChannels), {});
  }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (std::size_t ch = 0; ch < static_cast<std::size_t>(numChannels); ++ch) {
      for (int i = 0; i < numSamples; ++i) {
        fed_[ch].push_back(in[ch][i]);
        history_[ch].push_back(in[ch][i]);
        out[ch][i] = history_[ch].front();
        history_[ch].pop_front();
      }
    }
  }
  int GetLatency() const override { return latency_; }
  int latency_;
  std::vector<std::deque<float>> history_;
  Planar fed_;
};

std::vector<const float*> Pointers(const Planar& audio) {
  std::vector<const float*> pointers;
  for (const auto& channel : audio) {
    pointers.push_back(channel.data());
  }
  return pointers;
}

// A source that does not know its length and hands out odd-sized pieces.
class TrickleSource final : public dsp::host::FrameSource {
 public:
  explicit TrickleSource(const Planar& audio) : audio_(audio) {}
  int Read(float* const* planar, int numFrames) override {
    const int n = std::min({numFrames, 997, static_cast<int>(audio_[0].size()) - position_});
    for (std::size_t ch = 0; ch < audio_.size(); ++ch) {
      std::copy_n(audio_[ch].begin() + position_, n, planar[ch]);
    }
    position_ += n;
    return n;
  }

 private:
  const Planar& audio_;
  int position_ = 0;
};

// Latencies below, at and above the 4096-frame block, alone (the chain's
// direct path) and in pairs (its split, ping-pong path): the output is the
// input, sample for sample, at its full length; after the input the chain
// is fed nothing but silence, and no more than latency + tail frames of it.
TEST(RenderProcess, CompensatesLatencyAndFeedsSilenceAfterTheInput) {
  const std::vector<std::vector<int>> chains = {{0}, {100}, {4096}, {5000}, {37, 9000}, {0, 4097, 1}};
  for (const std::vector<int>& latencies : chains) {
    for (std::size_t frames : {0, 1, 4095, 4097, 20000}) {
      for (std::int64_t tail : {0, 3000}) {
        SCOPED_TRACE(std::to_string(frames) + " frames, tail " + std::to_string(tail));
        dsp::DSPProcessChain chain;
        std::vector<std::shared_ptr<LatentDelay>> slots;
        int total = 0;
        for (std::size_t slot = 0; slot < latencies.size(); ++slot) {
          slots.push_back(std::make_shared<LatentDelay>(latencies[slot]));
          chain.Add(static_cast<int>(slot), dsp::SlotInfo(slots.back(), true));
          total += latencies[slot];
        }
        chain.SetIOConfig(3, 48000.0f);
        chain.Start();
        Planar input;
        for (unsigned ch = 0; ch < 3; ++ch) {
          input.push_back(vextest::Noise(frames, unsigned(frames) + total + ch, 0.5));
        }
        MemorySource source(Pointers(input), static_cast<std::int64_t>(frames));
        MemorySink sink(3);
        const std::int64_t written = dsp::host::RenderProcess(chain, 3, source, sink, tail);
        ASSERT_EQ(written, static_cast<std::int64_t>(frames) + tail);
        for (std::size_t ch = 0; ch < 3; ++ch) {
          std::vector<float> expected = input[ch];
          expected.resize(frames + static_cast<std::size_t>(tail), 0.0f);
          EXPECT_EQ(sink.GetAudio()[ch], expected);
        }
        const Planar& fed = slots.front()->fed_;
        ASSERT_GE(fed[0].size(), frames);
        ASSERT_LE(fed[0].size(), frames + static_cast<std::size_t>(total + tail));
        for (std::size_t i = frames; i < fed[0].size(); ++i) {
          ASSERT_EQ(fed[0][i], 0.0f) << "frame " << i << " after the input";
        }
      }
    }
  }
}

TEST(RenderProcess, ReadsASourceOfUnknownLengthToItsEnd) {
  Planar input{vextest::Noise(30001, 4), vextest::Noise(30001, 5)};
  auto delay = std::make_shared<LatentDelay>(333);
  delay->SetIOConfig(2, 48000.0f);
  TrickleSource source(input);
  MemorySink sink(2);
  EXPECT_EQ(dsp::host::RenderProcess(*delay, 2, source, sink, 0), 30001);
  EXPECT_EQ(sink.GetAudio(), input);
}

// Reads 700 frames per block of a 2000-frame selection, twice, and sums
// each pass; the driver must rewind between passes.
class TwoPassSum final : public dsp::DSPMultiPassAnalyzer {
 public:
  TwoPassSum() : DSPMultiPassAnalyzer(2) {}
  int GetDesiredBlockSize() const override { return 700; }
  using DSPMultiPassAnalyzer::GetLatency;
  double sums[2] = {0.0, 0.0};
  std::int64_t seen[2] = {0, 0};

 protected:
  int GetLatency(int pass) const override { return pass == 0 ? 10 : 0; }
  std::int64_t Analyze(int pass, float** buffers, int, int numSamples) override {
    const std::int64_t left = GetSelectionStart() + GetSelectionLength() + GetLatency(pass) - GetCurrentPosition();
    const auto n = static_cast<int>(std::min<std::int64_t>(numSamples, left));
    for (int i = 0; i < n; ++i) {
      sums[pass] += buffers[0][i];
    }
    seen[pass] += n;
    return n;
  }
};

TEST(RunAnalyzer, DrivesEveryPassOverTheSelection) {
  std::vector<float> ramp(5000);
  for (std::size_t i = 0; i < ramp.size(); ++i) {
    ramp[i] = static_cast<float>(i);
  }
  TwoPassSum analyzer;
  MemorySource source({ramp.data()}, 5000);
  std::string error;
  ASSERT_TRUE(dsp::host::RunAnalyzer(analyzer, source, 1, 48000.0, 1000, 2000, nullptr, &error)) << error;
  // Pass 0 reads 10 frames of latency beyond the selection; pass 1 none.
  EXPECT_EQ(analyzer.seen[0], 2010);
  EXPECT_EQ(analyzer.seen[1], 2000);
  EXPECT_DOUBLE_EQ(analyzer.sums[0], (1000.0 + 3009.0) * 2010 / 2);
  EXPECT_DOUBLE_EQ(analyzer.sums[1], (1000.0 + 2999.0) * 2000 / 2);

  // A stream cannot be read twice.
  TwoPassSum again;
  TrickleSource stream(std::vector<std::vector<float>>{ramp});
  Planar held{ramp};
  TrickleSource once(held);
  EXPECT_FALSE(dsp::host::RunAnalyzer(again, once, 1, 48000.0, 0, 2000, nullptr, &error));
  EXPECT_NE(error.find("stream"), std::string::npos) << error;
}

// Doubles the rate by repeating each frame, 5 output frames late.
class Doubler final : public dsp::host::RateConverter {
 public:
  double GetRatio() const override { return 2.0; }
  std::int64_t GetOutputLatency() const override { return 5; }
  int GetMaxOutput(int numInput) const override { return 2 * numInput; }
  int Process(const float* const* in, int numInput, float* const* out) override {
    for (int i = 0; i < 2 * numInput; ++i) {
      history_.push_back(in[0][i / 2]);
      out[0][i] = history_.front();
      history_.pop_front();
    }
    return 2 * numInput;
  }

 private:
  std::deque<float> history_ = std::deque<float>(5, 0.0f);
};

TEST(RenderRateChange, RemovesTheLatencyAndGivesTheRoundedLength) {
  for (int frames : {0, 1, 4096, 10001}) {
    const std::vector<float> input = vextest::Noise(static_cast<std::size_t>(frames), 9);
    Doubler doubler;
    MemorySource source({input.data()}, frames);
    MemorySink sink(1);
    ASSERT_EQ(dsp::host::RenderRateChange(doubler, 1, source, sink), 2 * frames);
    for (int i = 0; i < 2 * frames; ++i) {
      ASSERT_EQ(sink.GetAudio()[0][static_cast<std::size_t>(i)], input[static_cast<std::size_t>(i / 2)]) << i;
    }
  }
}

}  // namespace
