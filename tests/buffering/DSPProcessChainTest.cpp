#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

using dsp::DSPProcessChain;
using dsp::SlotInfo;
using Signal = std::vector<std::vector<float>>;

struct Call {
  float* in0;
  float* out0;
  int numChannels;
  int numSamples;
};

// Scales every sample and records each call (in a log reserved up front, so
// Process never allocates) and lifecycle event.
class MockProcess : public dsp::DSPProcess {
 public:
  explicit MockProcess(float gain, int latency = 0) : gain_(gain), latency_(latency) { calls.reserve(1 << 10); }
  void SetIOConfig(int numChannels, float sampleRate) override { configs.push_back({numChannels, sampleRate}); }
  void Start() override { ++starts; }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    calls.push_back({in[0], out[0], numChannels, numSamples});
    for (int ch = 0; ch < numChannels; ++ch)
      for (int i = 0; i < numSamples; ++i) out[ch][i] = in[ch][i] * gain_;
  }
  void Done() override { ++dones; }
  int GetLatency() const override { return latency_; }
  void ParameterChanged() override { ++parameterChanges; }

  std::vector<Call> calls;
  std::vector<std::pair<int, float>> configs;
  int starts = 0, dones = 0, parameterChanges = 0;

 private:
  float gain_;
  int latency_;
};

// y[n] = x[n] + g y[n - d] per channel. Stateful and split-invariant, so a
// chain must match the processes applied one after another by hand.
class Comb : public dsp::DSPProcess {
 public:
  Comb(float g, int d) : g_(g), d_(d) {}
  void SetIOConfig(int numChannels, float) override {
    ring_.assign(static_cast<std::size_t>(numChannels * d_), 0.0f);
    pos_ = 0;
  }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (int i = 0; i < numSamples; ++i, pos_ = (pos_ + 1) % d_) {
      for (int ch = 0; ch < numChannels; ++ch) {
        float& y = ring_[static_cast<std::size_t>(ch * d_ + pos_)];
        out[ch][i] = y = in[ch][i] + g_ * y;
      }
    }
  }
  int GetLatency() const override { return d_; }

 private:
  float g_;
  int d_, pos_ = 0;
  std::vector<float> ring_;
};

std::vector<std::shared_ptr<dsp::DSPProcess>> MakePipeline(int channels) {
  std::vector<std::shared_ptr<dsp::DSPProcess>> p = {
      std::make_shared<Comb>(0.5f, 37), std::make_shared<Comb>(-0.25f, 1), std::make_shared<Comb>(0.9f, 5000)};
  for (auto& proc : p) proc->SetIOConfig(channels, 48000.0f);
  return p;
}

std::vector<float*> Pointers(Signal& s, int offset) {
  std::vector<float*> p;
  for (auto& ch : s) p.push_back(ch.data() + offset);
  return p;
}

void Configure(DSPProcessChain& chain, int channels, std::initializer_list<std::pair<int, SlotInfo>> slots) {
  for (const auto& slot : slots) chain.Add(slot.first, slot.second);
  chain.SetIOConfig(channels, 48000.0f);
  chain.Start();
}

Signal ApplyByHand(Signal a, bool skipSecond) {
  const int channels = static_cast<int>(a.size());
  auto processes = MakePipeline(channels);
  Signal b = a;
  for (std::size_t k = 0; k < processes.size(); ++k) {
    if (skipSecond && k == 1) continue;
    processes[k]->Process(Pointers(a, 0).data(), Pointers(b, 0).data(), channels, static_cast<int>(a[0].size()));
    std::swap(a, b);
  }
  return a;
}

// The pipeline in chain slots 10..30 (the second disabled when asked), fed in
// host blocks of `block` samples.
Signal ApplyByChain(Signal input, int block, bool disableSecond) {
  const int channels = static_cast<int>(input.size());
  const int frames = static_cast<int>(input[0].size());
  auto processes = MakePipeline(channels);
  DSPProcessChain chain;
  Configure(chain, channels,
            {{10, SlotInfo(processes[0], true)},
             {20, SlotInfo(processes[1], !disableSecond)},
             {30, SlotInfo(processes[2], true)}});
  Signal output(input.size(), std::vector<float>(input[0].size(), -99.0f));
  for (int offset = 0; offset < frames; offset += block) {
    auto in = Pointers(input, offset), out = Pointers(output, offset);
    EXPECT_NO_ALLOCATION(chain.Process(in.data(), out.data(), channels, std::min(block, frames - offset)));
  }
  return output;
}

Signal TestInput(int channels, int frames) {
  Signal in;
  for (int ch = 0; ch < channels; ++ch)
    in.push_back(vextest::Noise(static_cast<std::size_t>(frames), 100u + static_cast<std::uint32_t>(ch)));
  return in;
}

TEST(DSPProcessChainProcess, MatchesTheSlotsAppliedByHandForAnySplit) {
  for (int frames : {1, 8191, 8192, 8193, 20000}) {
    for (bool disableSecond : {false, true}) {
      const auto input = TestInput(2, frames);
      EXPECT_TRUE(ApplyByChain(input, frames, disableSecond) == ApplyByHand(input, disableSecond))
          << frames << " disabled " << disableSecond;
    }
  }
  const auto input = TestInput(3, 30011);
  const auto whole = ApplyByHand(input, false);
  for (int block : {1, 7, 256, 257, 1000, 8192, 8193, 30011})
    EXPECT_TRUE(ApplyByChain(input, block, false) == whole) << block;
}

TEST(DSPProcessChainProcess, LongBlocksAreSplitButASingleSlotSeesTheCallerBuffers) {
  auto first = std::make_shared<MockProcess>(2.0f);
  auto second = std::make_shared<MockProcess>(3.0f);
  DSPProcessChain chain;
  Configure(chain, 2, {{1, SlotInfo(first, true)}, {2, SlotInfo(second, true)}});
  Signal input = TestInput(2, 20000), output(2, std::vector<float>(20000));
  auto in = Pointers(input, 0), out = Pointers(output, 0);
  EXPECT_NO_ALLOCATION(chain.Process(in.data(), out.data(), 2, 20000));
  for (const auto* p : {first.get(), second.get()}) {
    ASSERT_EQ(p->calls.size(), 3u);
    EXPECT_EQ(p->calls[0].numSamples, 8192);
    EXPECT_EQ(p->calls[1].numSamples, 8192);
    EXPECT_EQ(p->calls[2].numSamples, 3616);
    for (const Call& c : p->calls) EXPECT_NE(c.in0, c.out0);  // always out-of-place
  }
  EXPECT_EQ(second->calls[0].in0, first->calls[0].out0);  // ping-pong
  for (std::size_t ch = 0; ch < 2; ++ch)
    for (std::size_t i = 0; i < 20000; ++i) ASSERT_EQ(output[ch][i], input[ch][i] * 6.0f);

  chain.Remove(2);  // one slot: a single unsplit call on the caller's own buffers
  EXPECT_NO_ALLOCATION(chain.Process(in.data(), out.data(), 2, 20000));
  ASSERT_EQ(first->calls.size(), 4u);
  EXPECT_EQ(first->calls[3].in0, in[0]);
  EXPECT_EQ(first->calls[3].out0, out[0]);
  EXPECT_EQ(first->calls[3].numSamples, 20000);
}

TEST(DSPProcessChainLifecycle, ConfigurationStartLatencyAndForwarding) {
  auto on = std::make_shared<MockProcess>(1.0f, 100);
  auto off = std::make_shared<MockProcess>(1.0f, 30);
  auto on2 = std::make_shared<MockProcess>(1.0f, 5);
  DSPProcessChain chain;
  chain.Add(1, SlotInfo(on, true));
  chain.Add(2, SlotInfo(off, false));
  chain.Add(3, SlotInfo(on2, true));
  EXPECT_TRUE(on->configs.empty());  // adding neither configures nor starts
  chain.SetIOConfig(2, 48000.0f);
  chain.SetIOConfig(2, 48000.0f);  // unchanged: not forwarded again
  chain.SetIOConfig(6, 96000.0f);
  chain.Start();
  EXPECT_EQ(chain.GetLatency(), 105);
  chain.Add(2, SlotInfo(off, true));
  EXPECT_EQ(chain.GetLatency(), 135);
  EXPECT_EQ(chain.GetStartLatency(), 105);
  chain.Add(2, SlotInfo(off, false));
  chain.ParameterChanged();
  chain.Done();
  using Config = std::vector<std::pair<int, float>>;
  for (const auto* p : {on.get(), off.get(), on2.get()}) {  // disabled slots included
    EXPECT_EQ(p->configs, (Config{{2, 48000.0f}, {6, 96000.0f}}));
    EXPECT_EQ((std::vector<int>{p->starts, p->parameterChanges, p->dones}), (std::vector<int>{1, 1, 1}));
  }

  // The reconfigured channel count is what Process hands the slots.
  vextest::PlanarBlock in(6, 9000, 0.25f), out(6, 9000);
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 6, 9000));
  EXPECT_EQ(out.Channel(5)[8999], 0.25f);
  EXPECT_EQ(on->calls.back().numChannels, 6);
  EXPECT_TRUE(off->calls.empty());  // bypassed
}

// Latencies that would wrap an int saturate instead.
TEST(DSPProcessChainLifecycle, LatencySumsSaturate) {
  const int max = std::numeric_limits<int>::max(), min = std::numeric_limits<int>::min();
  DSPProcessChain chain;
  chain.Add(1, SlotInfo(std::make_shared<MockProcess>(1.0f, max - 10), true));
  chain.Add(2, SlotInfo(std::make_shared<MockProcess>(1.0f, 100), true));
  EXPECT_EQ(chain.GetLatency(), max);
  chain.Add(3, SlotInfo(std::make_shared<MockProcess>(1.0f, max), true));
  EXPECT_EQ(chain.GetLatency(), max);
  chain.SetIOConfig(1, 48000.0f);
  chain.Start();
  EXPECT_EQ(chain.GetStartLatency(), max);
  chain.Add(2, SlotInfo(std::make_shared<MockProcess>(1.0f, -50), true));
  EXPECT_EQ(chain.GetLatency(), max);  // (max - 10) + (-50) + max
  DSPProcessChain negative;
  negative.Add(1, SlotInfo(std::make_shared<MockProcess>(1.0f, min + 5), true));
  negative.Add(2, SlotInfo(std::make_shared<MockProcess>(1.0f, -10), true));
  EXPECT_EQ(negative.GetLatency(), min);
}

}  // namespace
