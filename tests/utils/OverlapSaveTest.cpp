#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/utils/OverlapSave.h"

namespace {

// A frame whose spectrum hook multiplies every bin by `gain` and records
// the strongest bin it saw; `alternative` picks the plain-segment path.
class ProbeFrame : public dsp::OverlapSave {
 public:
  float gain = 1.0f;
  bool alternative = false;
  int frames = 0;
  int lastBins = 0;
  int peakBin = -1;

 protected:
  void OnAudio(float** data, int numChannels, int numSamples, bool) override {
    RunFrames(data, numChannels, numSamples, alternative);
  }
  void OnSpectrum(float** re, float** im, int channels, int bins) override {
    ++frames;
    lastBins = bins;
    float best = -1.0f;
    for (int k = 0; k < bins; ++k) {
      const float m = re[0][k] * re[0][k] + im[0][k] * im[0][k];
      if (m > best) {
        best = m;
        peakBin = k;
      }
    }
    if (gain == 1.0f) return;
    for (int c = 0; c < channels; ++c) {
      for (int k = 0; k < bins; ++k) {
        re[c][k] *= gain;
        im[c][k] *= gain;
      }
    }
  }
};

// Runs `input` (per channel) through the frame in blocks of `block`.
std::vector<std::vector<float>> RunBlocks(dsp::OverlapSave& frame, const std::vector<std::vector<float>>& input,
                                          int block) {
  std::vector<std::vector<float>> out = input;
  const int total = static_cast<int>(input[0].size());
  std::vector<float*> ptr(input.size());
  for (int pos = 0; pos < total; pos += block) {
    const int n = std::min(block, total - pos);
    for (std::size_t c = 0; c < out.size(); ++c) ptr[c] = out[c].data() + pos;
    frame.Process(ptr.data(), ptr.data(), static_cast<int>(out.size()), n);
  }
  return out;
}

double MaxDelayedError(const std::vector<float>& in, const std::vector<float>& out, int delay, float gain = 1.0f) {
  double err = 0.0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double expect = i >= static_cast<std::size_t>(delay) ? gain * in[i - static_cast<std::size_t>(delay)] : 0.0;
    err = std::max(err, std::fabs(out[i] - expect));
  }
  return err;
}

struct Config {
  int n, overlap;
};

TEST(OverlapSave, IdentityIsTheInputDelayedByLatencyForAnyBlockSize) {
  for (Config cfg : {Config{4096, 7}, Config{512, 4}, Config{256, 3}, Config{1024, 16}}) {
    const int hop = cfg.n / cfg.overlap;
    const int latency = ((cfg.overlap - 1) * cfg.n / cfg.overlap) / 2;
    const std::vector<std::vector<float>> in = {vextest::Noise(16000, 11, 0.5), vextest::Sine(16000, 440, 48000)};
    for (bool alternative : {false, true}) {
      for (int block : {1, 7, 512, 4096, 10000}) {
        if (block == 1 && cfg.n == 4096 && alternative) continue;  // covered by the crossfade run
        ProbeFrame frame;
        frame.alternative = alternative;
        ASSERT_TRUE(frame.Setup(cfg.n, 2, latency, hop, 5));
        frame.Start();
        EXPECT_EQ(frame.GetLatency(), latency);
        const auto out = RunBlocks(frame, in, block);
        // Overlap 3 reaches the window's far tail, where 1/w amplifies rounding.
        const double tol = cfg.overlap == 3 ? 5e-3 : 1e-5;
        for (int c = 0; c < 2; ++c) {
          EXPECT_LT(MaxDelayedError(in[c], out[c], latency), tol)
              << "N " << cfg.n << " overlap " << cfg.overlap << " block " << block << " alt " << alternative;
        }
      }
    }
  }
}

TEST(OverlapSave, DefaultsOfTheNoiseReducerAndSpectrumHandedOver) {
  ProbeFrame frame;
  ASSERT_TRUE(frame.Setup(4096, 1, 1755, 585, 5));
  frame.Start();
  EXPECT_EQ(frame.GetBins(), 2049);
  // A sine on bin 100 peaks there; one frame per hop.
  std::vector<std::vector<float>> in = {vextest::Sine(585 * 20, 100.0 * 48000 / 4096, 48000)};
  RunBlocks(frame, in, 585 * 20);
  EXPECT_EQ(frame.frames, 20);
  EXPECT_EQ(frame.lastBins, 2049);
  EXPECT_EQ(frame.peakBin, 100);
}

TEST(OverlapSave, SpectralGainAndScalersScaleTheDelayedOutput) {
  const std::vector<std::vector<float>> in = {vextest::Noise(20000, 3, 0.5)};
  ProbeFrame frame;
  ASSERT_TRUE(frame.Setup(1024, 1, 438, 146, 5));
  frame.gain = 0.25f;
  frame.SetScalers(2.0f, 1.5f);
  frame.Start();
  const auto out = RunBlocks(frame, in, 333);
  EXPECT_LT(MaxDelayedError(in[0], out[0], 438, 0.25f * 2.0f * 1.5f), 2e-5);
}

TEST(OverlapSave, FlushDrainsTheLatencyAndResetEqualsFresh) {
  const std::vector<std::vector<float>> in = {vextest::Noise(5000, 4)};
  ProbeFrame frame;
  ASSERT_TRUE(frame.Setup(512, 1, 219, 73, 5));
  frame.Start();
  const auto first = RunBlocks(frame, in, 100);
  std::vector<float> tail(1000, 7.0f);
  float* tp[1] = {tail.data()};
  int got = 0, n = 0;
  while ((n = frame.Flush(tp, 1, 64)) > 0) {
    tp[0] += n;
    got += n;
  }
  EXPECT_EQ(got, 219);
  for (int i = 0; i < 219; ++i) EXPECT_NEAR(tail[i], in[0][5000 - 219 + i], 1e-5) << i;
  EXPECT_EQ(tail[219], 7.0f);

  frame.Reset();
  const auto again = RunBlocks(frame, in, 100);
  EXPECT_EQ(again, first);
}

TEST(OverlapSave, ProcessDoesNotAllocateAndSuspendPassesThrough) {
  ProbeFrame frame;
  ASSERT_TRUE(frame.Setup(4096, 2, 1755, 585, 5));
  frame.Start();
  vextest::PlanarBlock block(2, 4096, 0.25f);
  EXPECT_NO_ALLOCATION(frame.Process(block.Pointers(), block.Pointers(), 2, 4096));
  EXPECT_NO_ALLOCATION(frame.Flush(block.Pointers(), 2, 512));

  frame.Suspend();
  vextest::PlanarBlock pass(2, 16, 0.5f);
  frame.Process(pass.Pointers(), pass.Pointers(), 2, 16);
  EXPECT_EQ(pass.Channel(1)[0], 0.5f);
  frame.Resume();
  EXPECT_FALSE(frame.IsSuspended());
  frame.Process(pass.Pointers(), pass.Pointers(), 2, 16);
  EXPECT_NEAR(pass.Channel(1)[0], 0.0f, 1e-6f);  // delayed again from a cleared history
}

TEST(OverlapSave, SetupRefusesImpossibleFrames) {
  dsp::OverlapSave frame;
  EXPECT_FALSE(frame.Setup(1000, 1, 400, 100, 5));  // not a power of two
  EXPECT_FALSE(frame.Setup(1024, 1, 400, 0, 5));    // hop 0
  EXPECT_FALSE(frame.Setup(1024, 1, 256, 512, 5));  // latency below hop - 1 cannot be causal
  EXPECT_FALSE(frame.Setup(1024, 1, 1024, 256, 5));
  EXPECT_FALSE(frame.Setup(1024, 0, 400, 256, 5));
  EXPECT_FALSE(frame.Setup(1024, 1, 400, 256, 6));
  EXPECT_FALSE(frame.IsConfigured());
  // Unconfigured: audio passes through.
  vextest::PlanarBlock block(1, 8, 0.5f);
  vextest::PlanarBlock out(1, 8, 0.0f);
  frame.Process(block.Pointers(), out.Pointers(), 1, 8);
  EXPECT_EQ(out.Channel(0)[7], 0.5f);
  EXPECT_TRUE(frame.Setup(1024, 1, 511, 512, 5));
}

}  // namespace
