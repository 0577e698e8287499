#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace {

using dsp::DSPProcessChain;
using dsp::SlotInfo;

struct Call {
  float** in;
  float** out;
  float* in0;
  float* out0;
  int numChannels;
  int numSamples;
};

// Scales every sample and records each call; optional latency and selection
// answer. The call log is reserved up front so Process never allocates.
class MockProcess : public dsp::DSPProcess {
 public:
  explicit MockProcess(float gain = 1.0f, int latency = 0, bool acceptSelection = true)
      : gain_(gain), latency_(latency), accept_(acceptSelection) {
    calls.reserve(1 << 16);
  }
  bool SetSelection(std::int64_t start, std::int64_t length) override {
    ++selections;
    lastStart = start;
    lastLength = length;
    return accept_;
  }
  void SetIOConfig(int numChannels, float sampleRate) override {
    ++configs;
    channels = numChannels;
    rate = sampleRate;
  }
  void Start() override { ++starts; }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    calls.push_back({in, out, in[0], out[0], numChannels, numSamples});
    for (int ch = 0; ch < numChannels && ch < 8; ++ch) {
      lastInputAbsSum[ch] = 0.0;
      for (int i = 0; i < numSamples; ++i) lastInputAbsSum[ch] += std::fabs(in[ch][i]);
    }
    for (int ch = 0; ch < numChannels; ++ch)
      for (int i = 0; i < numSamples; ++i) out[ch][i] = in[ch][i] * gain_;
  }
  void Done() override { ++dones; }
  int GetLatency() const override { return latency_; }
  void ParameterChanged() override { ++parameterChanges; }

  std::vector<Call> calls;
  double lastInputAbsSum[8] = {};
  int selections = 0, configs = 0, starts = 0, dones = 0, parameterChanges = 0;
  int channels = 0;
  float rate = 0.0f;
  std::int64_t lastStart = -1, lastLength = -1;

 private:
  float gain_;
  int latency_;
  bool accept_;
};

// Stateful, split-invariant processes: a per-channel one-pole low-pass, a
// per-channel delay line and a time-varying gain ramp. Each gives the same
// result however its input is cut into blocks, so a chain must match them
// applied one after another by hand.
class OnePole : public dsp::DSPProcess {
 public:
  explicit OnePole(float a) : a_(a) {}
  void SetIOConfig(int numChannels, float) override { state_.assign(static_cast<std::size_t>(numChannels), 0.0f); }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (int ch = 0; ch < numChannels; ++ch) {
      float y = state_[static_cast<std::size_t>(ch)];
      for (int i = 0; i < numSamples; ++i) out[ch][i] = y += a_ * (in[ch][i] - y);
      state_[static_cast<std::size_t>(ch)] = y;
    }
  }

 private:
  float a_;
  std::vector<float> state_;
};

class Delay : public dsp::DSPProcess {
 public:
  explicit Delay(int samples) : delay_(samples) {}
  void SetIOConfig(int numChannels, float) override {
    lines_.assign(static_cast<std::size_t>(numChannels), std::vector<float>(static_cast<std::size_t>(delay_), 0.0f));
    pos_ = 0;
  }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    int pos = pos_;
    for (int ch = 0; ch < numChannels; ++ch) {
      std::vector<float>& line = lines_[static_cast<std::size_t>(ch)];
      pos = pos_;
      for (int i = 0; i < numSamples; ++i) {
        const float delayed = line[static_cast<std::size_t>(pos)];
        line[static_cast<std::size_t>(pos)] = in[ch][i];
        out[ch][i] = delayed;
        if (++pos == delay_) pos = 0;
      }
    }
    pos_ = pos;
  }
  int GetLatency() const override { return delay_; }

 private:
  int delay_;
  int pos_ = 0;
  std::vector<std::vector<float>> lines_;
};

class Ramp : public dsp::DSPProcess {
 public:
  void Start() override { t_ = 0; }
  void Process(float** in, float** out, int numChannels, int numSamples) override {
    for (int ch = 0; ch < numChannels; ++ch)
      for (int i = 0; i < numSamples; ++i)
        out[ch][i] = in[ch][i] * (1.0f + static_cast<float>((t_ + i) % 1000) * 1e-3f) + 0.125f * static_cast<float>(ch);
    t_ += numSamples;
  }

 private:
  std::int64_t t_ = 0;
};

struct Pipeline {
  std::vector<std::shared_ptr<dsp::DSPProcess>> processes;
};

// Fresh instances of the stateful pipeline, configured and started.
Pipeline MakePipeline(int channels) {
  Pipeline p;
  p.processes = {std::make_shared<OnePole>(0.05f), std::make_shared<Delay>(37), std::make_shared<Ramp>(),
                 std::make_shared<OnePole>(0.5f)};
  for (auto& proc : p.processes) {
    proc->SetIOConfig(channels, 48000.0f);
    proc->Start();
  }
  return p;
}

// The processes applied one after another on whole signals.
std::vector<std::vector<float>> ApplyByHand(const std::vector<std::vector<float>>& input, bool skipSecond) {
  const int channels = static_cast<int>(input.size());
  Pipeline p = MakePipeline(channels);
  std::vector<std::vector<float>> a = input, b = input;
  const int n = static_cast<int>(input[0].size());
  for (std::size_t k = 0; k < p.processes.size(); ++k) {
    if (skipSecond && k == 1) continue;
    std::vector<float*> in, out;
    for (int ch = 0; ch < channels; ++ch) {
      in.push_back(a[static_cast<std::size_t>(ch)].data());
      out.push_back(b[static_cast<std::size_t>(ch)].data());
    }
    p.processes[k]->Process(in.data(), out.data(), channels, n);
    std::swap(a, b);
  }
  return a;
}

std::vector<std::vector<float>> TestInput(int channels, int frames) {
  std::vector<std::vector<float>> in;
  for (int ch = 0; ch < channels; ++ch)
    in.push_back(vextest::Noise(static_cast<std::size_t>(frames), 100u + static_cast<std::uint32_t>(ch)));
  return in;
}

// Runs the pipeline through a chain (slots 10, 20, 30, 40; the second one
// disabled when asked) in host blocks of `block` samples.
std::vector<std::vector<float>> ApplyByChain(const std::vector<std::vector<float>>& input, int block,
                                             bool disableSecond) {
  const int channels = static_cast<int>(input.size());
  const int frames = static_cast<int>(input[0].size());
  Pipeline p = MakePipeline(channels);
  DSPProcessChain chain;
  for (std::size_t k = 0; k < p.processes.size(); ++k)
    chain.Add(static_cast<int>(10 * (k + 1)), SlotInfo(p.processes[k], !(disableSecond && k == 1)));
  chain.SetIOConfig(channels, 48000.0f);  // reaches the slots: reset again
  chain.Start();
  std::vector<std::vector<float>> output(static_cast<std::size_t>(channels),
                                         std::vector<float>(static_cast<std::size_t>(frames), -99.0f));
  std::vector<float*> in(static_cast<std::size_t>(channels)), out(static_cast<std::size_t>(channels));
  for (int offset = 0; offset < frames; offset += block) {
    const int n = std::min(block, frames - offset);
    for (int ch = 0; ch < channels; ++ch) {
      in[static_cast<std::size_t>(ch)] = const_cast<float*>(input[static_cast<std::size_t>(ch)].data()) + offset;
      out[static_cast<std::size_t>(ch)] = output[static_cast<std::size_t>(ch)].data() + offset;
    }
    EXPECT_NO_ALLOCATION(chain.Process(in.data(), out.data(), channels, n));
  }
  return output;
}

// Writes into the block's existing storage so its pointer table stays valid.
void Fill(vextest::PlanarBlock& block, std::size_t ch, const std::vector<float>& values) {
  std::copy(values.begin(), values.end(), block.Channel(ch).begin());
}

double MaxDiff(const std::vector<std::vector<float>>& a, const std::vector<std::vector<float>>& b) {
  double worst = 0.0;
  for (std::size_t ch = 0; ch < a.size(); ++ch) worst = std::max(worst, vextest::MaxAbsDiff(a[ch], b[ch]));
  return worst;
}

TEST(DSPProcessChainProcess, MatchesTheSlotsAppliedByHand) {
  for (int frames : {1, 8191, 8192, 8193, 20000}) {
    for (bool disableSecond : {false, true}) {
      const auto input = TestInput(2, frames);
      EXPECT_EQ(MaxDiff(ApplyByChain(input, frames, disableSecond), ApplyByHand(input, disableSecond)), 0.0)
          << frames << " disabled " << disableSecond;
    }
  }
}

TEST(DSPProcessChainProcess, SplitBlocksGiveIdenticalOutput) {
  const auto input = TestInput(3, 30011);
  const auto whole = ApplyByChain(input, 30011, false);
  EXPECT_EQ(MaxDiff(whole, ApplyByHand(input, false)), 0.0);
  for (int block : {1, 7, 256, 257, 1000, 8192, 8193})
    EXPECT_EQ(MaxDiff(ApplyByChain(input, block, false), whole), 0.0) << block;
}

TEST(DSPProcessChainProcess, EmptyChainLeavesOutputUntouched) {
  DSPProcessChain chain;
  chain.SetIOConfig(2, 48000.0f);
  chain.Start();
  vextest::PlanarBlock in(2, 300, 0.5f), out(2, 300, 7.0f);
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 2, 300));
  EXPECT_EQ(vextest::MaxAbsDiff(out.Channel(0), std::vector<float>(300, 7.0f)), 0.0);
  EXPECT_EQ(vextest::MaxAbsDiff(out.Channel(1), std::vector<float>(300, 7.0f)), 0.0);
  EXPECT_EQ(chain.GetLatency(), 0);
  EXPECT_TRUE(chain.SetSelection(0, 10));
  EXPECT_EQ(chain.Flush(out.Pointers(), 2, 300), 0);
}

TEST(DSPProcessChainProcess, SingleSlotSeesCallerBuffersOrIsACopy) {
  auto slot = std::make_shared<MockProcess>(2.0f);
  DSPProcessChain chain;
  chain.Add(3, SlotInfo(slot, true));
  chain.SetIOConfig(2, 48000.0f);
  chain.Start();
  vextest::PlanarBlock in(2, 20000), out(2, 20000, 7.0f);
  Fill(in, 0, vextest::Noise(20000, 1));
  Fill(in, 1, vextest::Noise(20000, 2));
  // A one-channel request still hands the slot the chain's two channels, in
  // one unsplit call on the caller's own pointer tables.
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 1, 20000));
  ASSERT_EQ(slot->calls.size(), 1u);
  EXPECT_EQ(slot->calls[0].in, in.Pointers());
  EXPECT_EQ(slot->calls[0].out, out.Pointers());
  EXPECT_EQ(slot->calls[0].numChannels, 2);
  EXPECT_EQ(slot->calls[0].numSamples, 20000);
  EXPECT_EQ(out.Channel(1)[19999], 2.0f * in.Channel(1)[19999]);

  chain.Add(3, SlotInfo(slot, false));
  vextest::PlanarBlock out2(2, 20000, 7.0f);
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out2.Pointers(), 2, 20000));
  EXPECT_EQ(slot->calls.size(), 1u);
  EXPECT_EQ(vextest::MaxAbsDiff(out2.Channel(0), in.Channel(0)), 0.0);
  EXPECT_EQ(vextest::MaxAbsDiff(out2.Channel(1), in.Channel(1)), 0.0);

  // A missing input channel copies as silence, a missing output is skipped.
  float* partialIn[2] = {nullptr, in.Pointers()[1]};
  float* partialOut[2] = {out2.Pointers()[0], nullptr};
  chain.Process(partialIn, partialOut, 2, 20000);
  EXPECT_EQ(vextest::MaxAbsDiff(out2.Channel(0), std::vector<float>(20000, 0.0f)), 0.0);
}

TEST(DSPProcessChainProcess, LongBlocksAreSplitIntoWorkBufferSizedPieces) {
  auto first = std::make_shared<MockProcess>(2.0f);
  auto second = std::make_shared<MockProcess>(3.0f);
  DSPProcessChain chain;
  chain.Add(1, SlotInfo(first, true));
  chain.Add(2, SlotInfo(second, true));
  chain.SetIOConfig(2, 48000.0f);
  chain.Start();
  vextest::PlanarBlock in(2, 20000), out(2, 20000);
  Fill(in, 0, vextest::Noise(20000, 5));
  Fill(in, 1, vextest::Noise(20000, 6));
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 2, 20000));
  for (const auto* p : {first.get(), second.get()}) {
    ASSERT_EQ(p->calls.size(), 3u);
    EXPECT_EQ(p->calls[0].numSamples, 8192);
    EXPECT_EQ(p->calls[1].numSamples, 8192);
    EXPECT_EQ(p->calls[2].numSamples, 3616);
    for (const Call& c : p->calls) {
      EXPECT_EQ(c.numChannels, 2);
      EXPECT_NE(c.in0, c.out0);  // always out-of-place
    }
  }
  // The second slot reads what the first wrote.
  EXPECT_EQ(second->calls[0].in0, first->calls[0].out0);
  EXPECT_EQ(second->calls[0].out0, first->calls[0].in0);
  for (int ch = 0; ch < 2; ++ch)
    for (int i = 0; i < 20000; ++i)
      ASSERT_EQ(out.Channel(static_cast<std::size_t>(ch))[static_cast<std::size_t>(i)],
                in.Channel(static_cast<std::size_t>(ch))[static_cast<std::size_t>(i)] * 2.0f * 3.0f);
}

TEST(DSPProcessChainProcess, DisabledSlotsAreBypassedAndOutputFollowsTheParity) {
  auto a = std::make_shared<MockProcess>(2.0f);
  auto b = std::make_shared<MockProcess>(5.0f);
  auto c = std::make_shared<MockProcess>(3.0f);
  DSPProcessChain chain;
  chain.Add(7, SlotInfo(c, true));
  chain.Add(-1, SlotInfo(a, true));
  chain.Add(4, SlotInfo(b, false));
  chain.SetIOConfig(1, 48000.0f);
  chain.Start();
  vextest::PlanarBlock in(1, 100), out(1, 100);
  Fill(in, 0, vextest::Noise(100, 9));
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 1, 100));
  EXPECT_TRUE(b->calls.empty());
  ASSERT_EQ(a->calls.size(), 1u);
  ASSERT_EQ(c->calls.size(), 1u);
  // Two processed slots: A -> B, then B -> A, so the result is in buffer A.
  const float* bufferA = a->calls[0].in0;
  EXPECT_EQ(c->calls[0].in0, a->calls[0].out0);
  EXPECT_EQ(c->calls[0].out0, bufferA);
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(out.Channel(0)[static_cast<std::size_t>(i)], in.Channel(0)[static_cast<std::size_t>(i)] * 6.0f);

  // Enabling the middle slot makes the count odd: A -> B -> A -> B.
  chain.Add(4, SlotInfo(b, true));
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 1, 100));
  ASSERT_EQ(b->calls.size(), 1u);
  EXPECT_EQ(a->calls[1].in0, bufferA);
  EXPECT_EQ(b->calls[0].in0, a->calls[1].out0);
  EXPECT_EQ(b->calls[0].out0, bufferA);
  EXPECT_EQ(c->calls[1].in0, bufferA);
  EXPECT_EQ(c->calls[1].out0, a->calls[1].out0);
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(out.Channel(0)[static_cast<std::size_t>(i)],
              in.Channel(0)[static_cast<std::size_t>(i)] * 2.0f * 5.0f * 3.0f);

  // All disabled: a plain copy out of buffer A.
  chain.Add(-1, SlotInfo(a, false));
  chain.Add(4, SlotInfo(b, false));
  chain.Add(7, SlotInfo(c, false));
  vextest::PlanarBlock out2(1, 100, 7.0f);
  chain.Process(in.Pointers(), out2.Pointers(), 1, 100);
  EXPECT_EQ(vextest::MaxAbsDiff(out2.Channel(0), in.Channel(0)), 0.0);
}

TEST(DSPProcessChainProcess, ChannelCountAndDegenerateArguments) {
  auto a = std::make_shared<MockProcess>(2.0f);
  auto b = std::make_shared<MockProcess>(1.0f);
  DSPProcessChain chain;
  chain.Add(0, SlotInfo(a, true));
  chain.Add(1, SlotInfo(b, true));
  chain.SetIOConfig(2, 48000.0f);
  chain.Start();

  // More host channels than configured: only the configured ones are written.
  vextest::PlanarBlock in(4, 64, 1.0f), out(4, 64, 7.0f);
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 4, 64));
  EXPECT_EQ(a->calls.back().numChannels, 2);
  EXPECT_EQ(out.Channel(1)[63], 2.0f);
  EXPECT_EQ(out.Channel(2)[0], 7.0f);
  EXPECT_EQ(out.Channel(3)[63], 7.0f);

  // Fewer: the slots still get two channels, the missing one reads silence,
  // and only the host's channel is written back.
  vextest::PlanarBlock one(1, 64, 0.5f), oneOut(2, 64, 7.0f);
  EXPECT_NO_ALLOCATION(chain.Process(one.Pointers(), oneOut.Pointers(), 1, 64));
  EXPECT_EQ(a->calls.back().numChannels, 2);
  EXPECT_EQ(oneOut.Channel(0)[10], 1.0f);
  EXPECT_EQ(oneOut.Channel(1)[10], 7.0f);
  EXPECT_EQ(a->lastInputAbsSum[0], 32.0);
  EXPECT_EQ(a->lastInputAbsSum[1], 0.0);

  float* holeIn[2] = {in.Pointers()[0], nullptr};
  EXPECT_NO_ALLOCATION(chain.Process(holeIn, out.Pointers(), 2, 64));
  EXPECT_EQ(a->lastInputAbsSum[0], 64.0);
  EXPECT_EQ(a->lastInputAbsSum[1], 0.0);

  const std::size_t before = a->calls.size();
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 2, 0));
  chain.Process(in.Pointers(), out.Pointers(), 2, -5);
  chain.Process(nullptr, out.Pointers(), 2, 64);
  chain.Process(in.Pointers(), nullptr, 2, 64);
  EXPECT_EQ(a->calls.size(), before);
}

TEST(DSPProcessChainSlots, AddRemoveGetAndReplace) {
  auto p1 = std::make_shared<MockProcess>();
  auto p2 = std::make_shared<MockProcess>();
  std::weak_ptr<MockProcess> watch = p1;
  DSPProcessChain chain;
  chain.Add(5, SlotInfo(p1, true));
  chain.Add(2, SlotInfo(p2, false));
  EXPECT_EQ(chain.GetNumSlots(), 2u);
  EXPECT_EQ(p1.use_count(), 2);

  SlotInfo got;
  ASSERT_TRUE(chain.Get(5, got));
  EXPECT_EQ(got, SlotInfo(p1, true));
  ASSERT_TRUE(chain.Get(2, got));
  EXPECT_EQ(got, SlotInfo(p2, false));
  {
    const SlotInfo untouched(p1, true);
    got = untouched;
    EXPECT_FALSE(chain.Get(3, got));
    EXPECT_EQ(got, untouched);
  }

  // Replacing keeps one entry; an empty SlotInfo removes.
  chain.Add(5, SlotInfo(p2, true));
  EXPECT_EQ(chain.GetNumSlots(), 2u);
  ASSERT_TRUE(chain.Get(5, got));
  EXPECT_EQ(got.process, p2);
  chain.Add(2, SlotInfo());
  EXPECT_EQ(chain.GetNumSlots(), 1u);
  EXPECT_FALSE(chain.Get(2, got));
  chain.Remove(5);
  chain.Remove(42);
  EXPECT_EQ(chain.GetNumSlots(), 0u);

  // Adding does not configure or start.
  chain.Add(1, SlotInfo(p1, true));
  EXPECT_EQ(p1->configs, 0);
  EXPECT_EQ(p1->starts, 0);
  // The chain's reference goes with the slot.
  got = SlotInfo();
  p1.reset();
  EXPECT_FALSE(watch.expired());
  chain.Remove(1);
  EXPECT_TRUE(watch.expired());
}

TEST(DSPProcessChainSlots, SlotInfoValueSemantics) {
  auto p = std::make_shared<MockProcess>();
  const SlotInfo empty;
  EXPECT_EQ(empty.process, nullptr);
  EXPECT_FALSE(empty.enabled);
  SlotInfo a(p, true), b(p, false), c(std::make_shared<MockProcess>(), true);
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(a != c);
  EXPECT_FALSE(a == c);
  SlotInfo copy(a);
  EXPECT_TRUE(copy == a);
  const auto other = c.process;
  copy.Swap(c);
  EXPECT_EQ(copy.process, other);
  EXPECT_TRUE(copy.enabled);
  EXPECT_EQ(c, a);
  b.Swap(c);
  EXPECT_EQ(b, a);
  EXPECT_EQ(c, SlotInfo(p, false));
}

TEST(DSPProcessChainSlots, CopiesShareProcesses) {
  auto p1 = std::make_shared<MockProcess>(2.0f);
  auto p2 = std::make_shared<MockProcess>(3.0f);
  DSPProcessChain chain;
  chain.Add(1, SlotInfo(p1, true));
  chain.Add(2, SlotInfo(p2, true));
  chain.SetIOConfig(2, 44100.0f);
  DSPProcessChain copy(chain);
  EXPECT_EQ(p1.use_count(), 3);
  DSPProcessChain assigned;
  assigned = chain;
  EXPECT_EQ(p1.use_count(), 4);
  copy.Remove(1);
  EXPECT_EQ(chain.GetNumSlots(), 2u);
  EXPECT_EQ(assigned.GetNumChannels(), 2);

  vextest::PlanarBlock in(2, 50, 1.0f), out(2, 50);
  EXPECT_NO_ALLOCATION(assigned.Process(in.Pointers(), out.Pointers(), 2, 50));
  EXPECT_EQ(out.Channel(1)[49], 6.0f);
  EXPECT_EQ(p2->calls.size(), 1u);
}

TEST(DSPProcessChainLifecycle, ConfigurationStartLatencyAndForwarding) {
  auto on = std::make_shared<MockProcess>(1.0f, 100);
  auto off = std::make_shared<MockProcess>(1.0f, 30, /*acceptSelection=*/false);
  auto on2 = std::make_shared<MockProcess>(1.0f, 5);
  DSPProcessChain chain;
  EXPECT_EQ(chain.GetNumChannels(), 0);
  EXPECT_EQ(chain.GetSampleRate(), 44100.0f);
  chain.Add(1, SlotInfo(on, true));
  chain.Add(2, SlotInfo(off, false));
  chain.Add(3, SlotInfo(on2, true));

  chain.SetIOConfig(2, 48000.0f);
  chain.SetIOConfig(2, 48000.0f);
  for (const auto* p : {on.get(), off.get(), on2.get()}) {
    EXPECT_EQ(p->configs, 1);
    EXPECT_EQ(p->channels, 2);
    EXPECT_EQ(p->rate, 48000.0f);
  }
  chain.SetIOConfig(2, 96000.0f);
  chain.SetIOConfig(6, 96000.0f);
  EXPECT_EQ(off->configs, 3);
  EXPECT_EQ(off->channels, 6);

  chain.Start();
  for (const auto* p : {on.get(), off.get(), on2.get()}) EXPECT_EQ(p->starts, 1);
  EXPECT_EQ(chain.GetLatency(), 105);
  EXPECT_EQ(chain.GetStartLatency(), 105);
  chain.Add(2, SlotInfo(off, true));
  EXPECT_EQ(chain.GetLatency(), 135);
  EXPECT_EQ(chain.GetStartLatency(), 105);

  // Every slot is asked even after one refuses; the answer is the AND.
  EXPECT_FALSE(chain.SetSelection(480, 960));
  for (const auto* p : {on.get(), off.get(), on2.get()}) {
    EXPECT_EQ(p->selections, 1);
    EXPECT_EQ(p->lastStart, 480);
    EXPECT_EQ(p->lastLength, 960);
  }
  chain.Remove(2);
  EXPECT_TRUE(chain.SetSelection(0, 1));

  chain.Add(2, SlotInfo(off, false));
  chain.ParameterChanged();
  chain.Done();
  for (const auto* p : {on.get(), off.get(), on2.get()}) {
    EXPECT_EQ(p->parameterChanges, 1);
    EXPECT_EQ(p->dones, 1);
  }

  // Reconfigured to more channels, processing still covers all of them.
  vextest::PlanarBlock in(6, 9000, 0.25f), out(6, 9000);
  EXPECT_NO_ALLOCATION(chain.Process(in.Pointers(), out.Pointers(), 6, 9000));
  for (int ch = 0; ch < 6; ++ch) EXPECT_EQ(out.Channel(static_cast<std::size_t>(ch))[8999], 0.25f);
  chain.SetIOConfig(1, 96000.0f);
  vextest::PlanarBlock in1(1, 9000, 0.5f), out1(1, 9000);
  EXPECT_NO_ALLOCATION(chain.Process(in1.Pointers(), out1.Pointers(), 1, 9000));
  EXPECT_EQ(out1.Channel(0)[8999], 0.5f);
  EXPECT_EQ(on->calls.back().numChannels, 1);
}

}  // namespace
