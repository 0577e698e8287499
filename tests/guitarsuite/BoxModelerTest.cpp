#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <set>
#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/guitarsuite/BoxModeler.h"
#include "vexaudiodsp/guitarsuite/PartitionedConvolution.h"

namespace {

using dsp::guitarsuite::PartitionedConvolution;
using dsp::guitarsuite::boxmodeler::BoxModeler;
using Mask = vexcore::utility::Flags<std::uint64_t>;
constexpr double kPi = 3.14159265358979323846;

std::vector<float> RunMono(BoxModeler& box, std::vector<float> x, unsigned block) {
  for (unsigned start = 0; start < x.size(); start += block) {
    float* p[] = {x.data() + start};
    box.ProcessInPlace(std::min<unsigned>(block, static_cast<unsigned>(x.size()) - start), p, Mask());
  }
  return x;
}

double Gain(const std::vector<float>& h, double hz, double fs) {
  const std::complex<double> step = std::polar(1.0, -2 * kPi * hz / fs);
  std::complex<double> sum = 0.0, phasor = 1.0;
  for (float v : h) {
    sum += static_cast<double>(v) * phasor;
    phasor *= step;
  }
  return std::abs(sum);
}

// Overlap-save partitions against a direct long-double convolution, for
// responses shorter than, equal to and longer than one block.
TEST(BoxModeler, PartitionedConvolutionIsTheLinearConvolution) {
  const std::vector<float> x = vextest::Noise(6 * 1024, 3);
  for (int length : {1, 700, 1024, 3000}) {
    const std::vector<float> h = vextest::Noise(static_cast<std::size_t>(length), 4, 0.3);
    PartitionedConvolution conv;
    ASSERT_TRUE(conv.Init(h.data(), length));
    EXPECT_EQ(conv.GetNumPartitions(), (length + 1023) / 1024);
    std::vector<float> y(x.size());
    for (std::size_t b = 0; b < x.size(); b += 1024) conv.ProcessBlock(x.data() + b, y.data() + b);
    double worst = 0.0;
    for (std::size_t n = 0; n < x.size(); ++n) {
      long double acc = 0;
      for (int m = 0; m < length && m <= static_cast<int>(n); ++m) acc += static_cast<long double>(h[m]) * x[n - m];
      worst = std::max(worst, static_cast<double>(std::fabs(y[n] - acc)));
    }
    EXPECT_LT(worst, 2e-5) << length;
  }
  PartitionedConvolution empty;
  ASSERT_TRUE(empty.Init(nullptr, 0));
  std::vector<float> y(1024, 5.0f);
  empty.ProcessBlock(x.data(), y.data());
  EXPECT_EQ(y, std::vector<float>(1024, 0.0f));
}

// At 100 % mix a unit impulse comes out as the generated impulse, sample for
// sample, at every model and microphone, in any block split, with and
// without a tail (8 kHz impulses fit in the head).
TEST(BoxModeler, ImpulseInGivesTheGeneratedImpulseOut) {
  const auto mono = vexmediatypes::CreateMonoChannelLayout();
  for (float rate : {48000.0f, 8000.0f}) {
    BoxModeler box(rate, mono, 512);
    for (int model = 0; model < BoxModeler::kNumModels; model += 7) {
      for (int mic = 0; mic < BoxModeler::kNumMicTypes; ++mic) {
        box.SetBoxModel(model);
        box.SetMicType(mic);
        const std::vector<float> impulse = box.GetImpulse();
        ASSERT_EQ(static_cast<int>(impulse.size()), BoxModeler::GetImpulseLength(model, mic, rate));
        EXPECT_EQ(impulse.size() > 1024, rate == 48000.0f);
        std::vector<float> in(impulse.size() + 3000, 0.0f);
        in[0] = 1.0f;
        for (unsigned block : {1u, 7u, 1000u, 4096u}) {
          if (block == 1 && model != 7) continue;  // one per-sample run is enough
          box.Reset();
          const std::vector<float> out = RunMono(box, in, block);
          double worst = 0.0;
          for (std::size_t n = 0; n < out.size(); ++n) {
            worst = std::max(worst, std::fabs(out[n] - (n < impulse.size() ? impulse[n] : 0.0)));
          }
          EXPECT_LT(worst, 1e-6) << "model " << model << " mic " << mic << " block " << block << " rate " << rate;
        }
      }
    }
  }
}

// Deterministic, distinct per model and microphone, peak gain 0 dB, and
// shaped like a guitar cabinet: little below the low cut, a roll-off above
// the cone's limit.
TEST(BoxModeler, GeneratedImpulsesHaveACabinetCharacter) {
  std::set<std::string> names;
  std::set<std::vector<float>> impulses;
  for (int model = 0; model < BoxModeler::kNumModels; ++model) {
    for (int mic = 0; mic < BoxModeler::kNumMicTypes; ++mic) {
      names.insert(BoxModeler::GetImpulseName(model, mic));
      std::vector<float> h(static_cast<std::size_t>(BoxModeler::GetImpulseLength(model, mic, 48000.0f)));
      ASSERT_TRUE(BoxModeler::GenerateImpulse(model, mic, 48000.0f, h.data()));
      std::vector<float> again(h.size());
      BoxModeler::GenerateImpulse(model, mic, 48000.0f, again.data());
      EXPECT_EQ(h, again);
      impulses.insert(h);
      double peak = 0.0, mid = 0.0;
      for (int k = 0; k < 512; k += model % 7 == 0 ? 1 : 8) peak = std::max(peak, Gain(h, k * 24000.0 / 511, 48000.0));
      for (double hz : {800.0, 1500.0, 2500.0}) mid = std::max(mid, Gain(h, hz, 48000.0));
      EXPECT_LE(peak, 1.0 + 1e-4);
      if (model % 7 == 0) {
        EXPECT_GT(peak, 1.0 - 1e-4);
      }
      EXPECT_GT(mid, 0.25) << model << " " << mic;
      EXPECT_LT(Gain(h, 20.0, 48000.0), 0.35 * mid) << model << " " << mic;
      EXPECT_LT(Gain(h, 12000.0, 48000.0), 0.1 * mid) << model << " " << mic;
    }
  }
  EXPECT_EQ(names.size(), 45u);
  EXPECT_EQ(*names.begin(), "Model0.dat0");
  EXPECT_TRUE(names.count("Model14.dat2"));
  EXPECT_EQ(impulses.size(), 45u);
  EXPECT_EQ(BoxModeler::GetImpulseLength(15, 0, 48000.0f), 0);
  EXPECT_FALSE(BoxModeler::GenerateImpulse(0, 3, 48000.0f, nullptr));
}

TEST(BoxModeler, MixSeparationAndSpread) {
  const auto stereo = vexmediatypes::CreateStereoChannelLayout();
  BoxModeler box(48000.0f, stereo, 256);
  const std::vector<float> l = vextest::Noise(3000, 1), r = vextest::Noise(3000, 2);
  box.SetMixPercent(0.0f);
  box.SetMicSeparation(2.0f);  // left 96 samples late
  box.SetMicSpread(0.5f);
  std::vector<float> left = l, right = r;
  float* p[] = {left.data(), right.data()};
  EXPECT_NO_ALLOCATION(box.ProcessInPlace(3000, p, Mask()));
  for (int n = 0; n < 3000; ++n) {
    const double dl = n >= 96 ? l[n - 96] : 0.0, dr = r[n];
    const double s = dl + dr, d = (dl - dr) * 0.5;
    ASSERT_NEAR(left[n], (s + d) / 2, 1e-6) << n;
    ASSERT_NEAR(right[n], (s - d) / 2, 1e-6) << n;
  }
  // Mix 50 %: half dry, half the convolution; a skipped channel 0 turns the
  // stereo stage off and keeps channel 0 as it was.
  BoxModeler half(48000.0f, stereo, 256);
  half.SetMixPercent(50.0f);
  half.SetMicSeparation(-1.0f);
  left = l;
  right = r;
  half.ProcessInPlace(3000, p, Mask(1));
  EXPECT_EQ(left, l);
  const std::vector<float>& h = half.GetImpulse();
  for (int n : {0, 1, 500, 2999}) {
    long double wet = 0;
    for (int m = 0; m <= n && m < static_cast<int>(h.size()); ++m) wet += static_cast<long double>(h[m]) * r[n - m];
    EXPECT_NEAR(right[n], 0.5 * r[n] + 0.5 * wet, 1e-5) << n;
  }
  EXPECT_EQ(half.GetTailFrames(), static_cast<int>(h.size()) + 48);
}

TEST(BoxModeler, ResetEqualsFreshAndRateChangesRebuild) {
  const auto stereo = vexmediatypes::CreateStereoChannelLayout();
  BoxModeler used(44100.0f, stereo, 700);
  used.SetBoxModel(9);
  used.SetMicType(2);
  used.SetMicSeparation(-3.0f);
  const std::vector<float> x = vextest::Noise(5000, 6);
  std::vector<float> a = x, b = x;
  float* p[] = {a.data(), b.data()};
  used.ProcessInPlace(5000, p, Mask());
  const std::vector<float> firstLeft = a, firstRight = b;
  a = x;
  b = x;
  used.Reset();
  used.ProcessInPlace(5000, p, Mask());
  EXPECT_EQ(a, firstLeft);
  EXPECT_EQ(b, firstRight);
  used.SetSampleRate(96000.0f);
  EXPECT_EQ(used.GetImpulse().size(), static_cast<std::size_t>(BoxModeler::GetImpulseLength(9, 2, 96000.0f)));
}

}  // namespace
