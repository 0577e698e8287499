#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <vector>

#include "filters/Prototypes.h"
#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/filters/ParametricEQ.h"

namespace {

using dsp::eq::ParametricEQ;
using vextest::Complex;
using vextest::kFs;
using vextest::kPi;
using vextest::Prototype;

vexmediatypes::AudioChannelLayout Layout(int channels) { return vexmediatypes::CreateDefaultChannelLayout(channels); }

// Runs `in` (one vector per channel) through the equaliser in blocks.
std::vector<std::vector<float>> Process(ParametricEQ& eq, std::vector<std::vector<float>> in, std::size_t block) {
  std::vector<float*> ptr(in.size());
  for (std::size_t i = 0; i < in[0].size(); i += block) {
    const auto n = static_cast<unsigned>(std::min(block, in[0].size() - i));
    for (std::size_t c = 0; c < in.size(); ++c) ptr[c] = in[c].data() + i;
    eq.ProcessInPlace(n, ptr.data());
  }
  return in;
}

std::vector<float> ProcessMono(ParametricEQ& eq, const std::vector<float>& in, std::size_t block = 512) {
  return Process(eq, {in}, block)[0];
}

// A peak at 200 Hz, a low-pass at 9 kHz and a high-pass at 40 Hz.
void ThreeBands(ParametricEQ& eq) {
  eq.SetFrequency(0, 200.0f);
  eq.SetGain(0, 9.0f);
  eq.SetQ(0, 2.0f);
  eq.SetBandShape(3, dsp::eq::kLowpass);
  eq.SetFrequency(3, 9000.0f);
  eq.SetQ(3, 0.75f);
  eq.SetBandShape(5, dsp::eq::kHighpass);
  eq.SetFrequency(5, 40.0f);
  eq.SetQ(5, 1.5f);
}

TEST(ParametricEQ, DefaultsAreNeutralAndZeroDbPeaksAreSkipped) {
  ParametricEQ eq(48000.0f, Layout(1));
  const float expected[] = {100, 250, 630, 1600, 4000, 10000};
  for (unsigned b = 0; b < 6; ++b) {
    EXPECT_EQ(eq.GetBand(b).frequency, expected[b]);
    EXPECT_TRUE(eq.GetBand(b).enabled);
    EXPECT_TRUE(eq.GetBand(b).bypassed);
  }
  // A 0 dB peak designs to the identity only up to rounding; skipping it
  // leaves the samples bit for bit.
  eq.SetQ(2, 9.0f);
  eq.SetFrequency(2, 777.0f);
  const std::vector<float> x = vextest::Noise(2000, 1);
  EXPECT_EQ(ProcessMono(eq, x), x);
  eq.SetGain(2, 3.0f);
  EXPECT_FALSE(eq.GetBand(2).bypassed);
  EXPECT_NE(ProcessMono(eq, x), x);
  eq.SetGain(2, 0.0f);
  eq.SetBandShape(1, dsp::eq::kLowpass);
  EXPECT_FALSE(eq.GetBand(1).bypassed) << "only peaking bands are bypassed at 0 dB";
}

TEST(ParametricEQ, ImpulseResponseIsTheProductOfTheBandPrototypes) {
  ParametricEQ eq(48000.0f, Layout(1));
  ThreeBands(eq);
  std::vector<float> impulse(8192, 0.0f);
  impulse[0] = 1.0f;
  const std::vector<float> h = ProcessMono(eq, impulse, 8192);
  const Prototype peak{200.0, 2.0, 9.0}, lowpass{9000.0, 0.75, 0.0}, highpass{40.0, 1.5, 0.0};
  for (double f = 20.0; f < 20000.0; f *= 1.25) {
    Complex sum = 0.0;
    for (std::size_t n = 0; n < h.size(); ++n) sum += double{h[n]} * std::exp(Complex(0.0, -2.0 * kPi * f * n / kFs));
    const Complex expected = peak.Peak(f) * lowpass.Lowpass(f) * highpass.Highpass(f);
    EXPECT_NEAR(std::abs(sum), std::abs(expected), 1e-4 * std::abs(expected) + 1e-6) << f;
    EXPECT_NEAR(std::abs(eq.GetResponse(f) - expected), 0.0, 1e-9 * std::abs(expected) + 1e-12) << f;
  }
}

TEST(ParametricEQ, BandsRunInSeriesFromZeroToFive) {
  ParametricEQ eq(48000.0f, Layout(1));
  ThreeBands(eq);
  const std::vector<float> x = vextest::Noise(3000, 2);
  std::vector<float> forward = x, backward = x;
  for (unsigned b : {0u, 3u, 5u})
    dsp::IIRFilter(2, eq.GetBandCoefficients(b).data()).ProcessInPlace(3000, forward.data());
  for (unsigned b : {5u, 3u, 0u})
    dsp::IIRFilter(2, eq.GetBandCoefficients(b).data()).ProcessInPlace(3000, backward.data());
  ASSERT_NE(forward, backward) << "float storage between bands makes the order observable";
  EXPECT_EQ(ProcessMono(eq, x, 3000), forward);
}

TEST(ParametricEQ, DisabledBandsAreSkippedButKeepTheirDesign) {
  ParametricEQ eq(48000.0f, Layout(1));
  eq.SetBandEnable(4, false);
  eq.SetGain(4, 12.0f);
  eq.SetFrequency(4, 3000.0f);
  const std::vector<float> x = vextest::Noise(1000, 3);
  EXPECT_EQ(ProcessMono(eq, x), x);
  eq.SetBandEnable(4, true);
  EXPECT_NEAR(20.0 * std::log10(std::abs(eq.GetResponse(3000.0))), 12.0, 1e-9);
}

TEST(ParametricEQ, FrequencyMovesBelowAnOctaveKeepTheState) {
  const std::vector<float> loud = vextest::Noise(2000, 4);
  const std::vector<float> silence(32, 0.0f);
  struct Move {
    float to;
    bool rings;
  };
  for (Move m : {Move{1900.0f, true}, Move{2000.0f, false}, Move{526.4f, true}, Move{500.0f, false}}) {
    ParametricEQ eq(48000.0f, Layout(1));
    eq.SetFrequency(0, 1000.0f);
    eq.SetGain(0, 12.0f);
    eq.SetQ(0, 4.0f);
    ProcessMono(eq, loud);
    eq.SetFrequency(0, m.to);
    const std::vector<float> y = ProcessMono(eq, silence);
    double energy = 0;
    for (float v : y) energy += double{v} * v;
    if (m.rings) {
      EXPECT_GT(energy, 1e-8) << m.to;
    } else {
      EXPECT_EQ(energy, 0.0) << m.to;
    }
    EXPECT_EQ(eq.GetBand(0).previousFrequency, m.to);
  }
}

TEST(ParametricEQ, BeyondNyquistAndBadValues) {
  const std::vector<float> x = vextest::Noise(1000, 5);
  ParametricEQ muted(48000.0f, Layout(1));
  muted.SetBandShape(0, dsp::eq::kHighpass);
  muted.SetFrequency(0, 30000.0f);
  for (float v : ProcessMono(muted, x)) ASSERT_EQ(v, 0.0f);

  ParametricEQ open(48000.0f, Layout(1));
  open.SetBandShape(0, dsp::eq::kLowpass);
  open.SetFrequency(0, 30000.0f);
  open.SetFrequency(1, 30000.0f);
  open.SetGain(1, 12.0f);
  EXPECT_EQ(ProcessMono(open, x), x);

  const float nan = std::numeric_limits<float>::quiet_NaN();
  ParametricEQ bad(48000.0f, Layout(1));
  bad.SetGain(0, 6.0f);
  bad.SetQ(0, 0.0f);
  bad.SetGain(1, nan);
  bad.SetGain(2, 6.0f);
  bad.SetQ(2, -3.0f);
  bad.SetGain(3, 6.0f);
  bad.SetFrequency(3, nan);
  bad.SetGain(4, 6.0f);
  bad.SetFrequency(4, -100.0f);
  bad.SetBandShape(5, 7);
  EXPECT_EQ(ProcessMono(bad, x), x);
}

TEST(ParametricEQ, ChannelsBlocksResetAndCopies) {
  const std::vector<std::vector<float>> x = {vextest::Noise(5000, 6), vextest::Noise(5000, 7)};
  ParametricEQ eq(44100.0f, Layout(2));
  ThreeBands(eq);
  const std::vector<std::vector<float>> whole = Process(eq, x, 5000);
  ParametricEQ mono(44100.0f, Layout(1));
  ThreeBands(mono);
  EXPECT_EQ(ProcessMono(mono, x[1], 5000), whole[1]) << "channels are independent";

  for (std::size_t block : {1, 7, 256, 257, 1000}) {
    ParametricEQ split(44100.0f, Layout(2));
    ThreeBands(split);
    EXPECT_EQ(Process(split, x, block), whole) << block;
  }
  eq.Reset();
  EXPECT_EQ(Process(eq, x, 5000), whole);

  ParametricEQ original(44100.0f, Layout(2));
  ThreeBands(original);
  Process(original, {std::vector<float>(x[0].begin(), x[0].begin() + 100), std::vector<float>(100, 0.5f)}, 100);
  ParametricEQ copy(original);
  EXPECT_EQ(Process(copy, x, 500), Process(original, x, 500));
  ParametricEQ moved(std::move(copy));
  EXPECT_EQ(moved.GetNumChannels(), 2u);
}

TEST(ParametricEQ, SampleRateAndLayoutChangesRebuildEveryBand) {
  ParametricEQ eq(48000.0f, Layout(1));
  eq.SetFrequency(1, 5000.0f);
  eq.SetGain(1, -8.0f);
  eq.SetSampleRate(96000.0f);
  EXPECT_NEAR(20.0 * std::log10(std::abs(eq.GetResponse(5000.0))), -8.0, 1e-9);
  eq.SetAudioChannelLayout(Layout(6));
  EXPECT_EQ(eq.GetNumChannels(), 6u);
  std::vector<float> impulse(4096, 0.0f);
  impulse[0] = 1.0f;
  std::vector<std::vector<float>> in(6, impulse);
  const auto out = Process(eq, in, 4096);
  Complex sum = 0.0;
  for (std::size_t n = 0; n < out[5].size(); ++n)
    sum += double{out[5][n]} * std::exp(Complex(0, -2 * kPi * 5000.0 * n / 96000.0));
  EXPECT_NEAR(20.0 * std::log10(std::abs(sum)), -8.0, 1e-3);
}

TEST(ParametricEQ, SettersAndProcessingNeverAllocate) {
  ParametricEQ eq(48000.0f, Layout(2));
  ThreeBands(eq);
  std::vector<float> a = vextest::Noise(4096, 8), b = vextest::Noise(4096, 9);
  float* channels[] = {a.data(), b.data()};
  EXPECT_NO_ALLOCATION(eq.ProcessInPlace(4096, channels));
  EXPECT_NO_ALLOCATION(eq.SetFrequency(1, 2345.0f));
  EXPECT_NO_ALLOCATION(eq.SetGain(1, -3.0f));
  EXPECT_NO_ALLOCATION(eq.SetQ(1, 3.0f));
  EXPECT_NO_ALLOCATION(eq.SetBandShape(1, dsp::eq::kLowpass));
  EXPECT_NO_ALLOCATION(eq.Reset());
  EXPECT_NO_ALLOCATION(eq.GetResponse(1000.0));
}

}  // namespace
