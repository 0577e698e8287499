#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <vector>

#include "loudness/ToneSequence.h"
#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/loudness/Itu1770.h"
#include "vexaudiodsp/loudness/Loudness.h"
#include "vexaudiodsp/loudness/SecondOrderIIRFilter.h"
#include "vexcore/Localizer.h"

namespace {

using Label = dsp::Itu1770::ChannelLabel;
using vextest::ToneSequence;

const std::vector<Label> kStereo = {dsp::Itu1770::kLeft, dsp::Itu1770::kRight};

float Measure(const std::vector<Label>& labels, ToneSequence tones, int rate = 48000) {
  dsp::Itu1770 meter;
  meter.Init(4096, rate, labels);
  vextest::Feed(meter, std::move(tones), labels.size(), 4096);
  return meter.GetLKFS();
}

// The direct-form-II biquad against a long-double direct-form-I difference
// equation on the same coefficients; in place equals out of place; Reset
// returns to rest.
TEST(SecondOrderIIRFilter, MatchesTheDifferenceEquation) {
  const dsp::SecondOrderIIRCoefficients c{-1.6, 0.7, 0.9, -0.3, 0.2};
  dsp::SecondOrderIIRFilter f;
  f.SetCoefficients(c);
  const std::vector<float> x = vextest::Noise(2000, 2);
  std::vector<float> y(x.size());
  f.Process(x.data(), y.data(), 700);
  f.Process(x.data() + 700, y.data() + 700, x.size() - 700);
  long double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    const long double v = c.b0 * (long double)x[i] + c.b1 * x1 + c.b2 * x2 - c.a1 * y1 - c.a2 * y2;
    x2 = x1;
    x1 = x[i];
    y2 = y1;
    y1 = v;
    ASSERT_NEAR(y[i], static_cast<double>(v), 2e-6) << i;
  }
  f.Reset();
  std::vector<float> inPlace = x;
  f.Process(inPlace.data(), inPlace.data(), inPlace.size());
  EXPECT_EQ(inPlace, y);
  // The cascade equals two passes exactly.
  dsp::SecondOrderIIRFilter first, second, first2, second2;
  first.SetCoefficients(c);
  first2.SetCoefficients(c);
  second.SetCoefficients({-1.99, 0.9901, 0.995, -1.99, 0.995});
  second2.SetCoefficients(second.GetCoefficients());
  std::vector<float> twoPass(x.size()), fused(x.size());
  first.Process(x.data(), twoPass.data(), x.size());
  second.Process(twoPass.data(), twoPass.data(), x.size());
  dsp::SecondOrderIIRFilter::ProcessCascade(first2, second2, x.data(), fused.data(), 1000);
  dsp::SecondOrderIIRFilter::ProcessCascade(first2, second2, x.data() + 1000, fused.data() + 1000, x.size() - 1000);
  EXPECT_EQ(fused, twoPass);
  // And the pair of cascades equals each alone.
  dsp::SecondOrderIIRFilter a1, a2, b1, b2;
  a1.SetCoefficients(c);
  a2.SetCoefficients(second.GetCoefficients());
  b1.SetCoefficients(second.GetCoefficients());
  b2.SetCoefficients(c);
  std::vector<float> pa(x.size()), pb(x.size());
  const std::vector<float> other = vextest::Noise(x.size(), 3);
  dsp::SecondOrderIIRFilter* const firsts[2] = {&a1, &b1};
  dsp::SecondOrderIIRFilter* const seconds[2] = {&a2, &b2};
  const float* const ins[2] = {x.data(), other.data()};
  float* const outs[2] = {pa.data(), pb.data()};
  dsp::SecondOrderIIRFilter::ProcessCascadePair(firsts, seconds, ins, outs, x.size());
  EXPECT_EQ(pa, twoPass);
  dsp::SecondOrderIIRFilter c1, c2;
  c1.SetCoefficients(second.GetCoefficients());
  c2.SetCoefficients(c);
  std::vector<float> pc(x.size());
  dsp::SecondOrderIIRFilter::ProcessCascade(c1, c2, other.data(), pc.data(), x.size());
  EXPECT_EQ(pb, pc);

  dsp::SecondOrderIIRFilter copy = f;
  float one = 1.0f, a = 0.0f, b = 0.0f;
  f.Process(&one, &a, 1);
  copy.Process(&one, &b, 1);
  EXPECT_EQ(a, b);
}

// At 48 kHz the high pass has the poles of the ITU-R BS.1770-4 table, and
// its numerator is normalised so that its gain at Nyquist is one (the
// table's is not). The shelf uses Q = 1/sqrt(2) exactly rather than the Q
// fitted for the table, so only its zeros' sum and the shelf gains agree
// with the table to four digits.
TEST(Itu1770, KWeightingCoefficients) {
  dsp::SecondOrderIIRCoefficients shelf, hp;
  dsp::Itu1770::DesignKWeighting(48000.0, shelf, hp);
  EXPECT_NEAR(hp.a1, -1.99004745483398, 2e-7);
  EXPECT_NEAR(hp.a2, 0.99007225036621, 2e-7);
  EXPECT_EQ(hp.b1, -2.0 * hp.b0);
  EXPECT_EQ(hp.b2, hp.b0);
  EXPECT_NEAR((hp.b0 - hp.b1 + hp.b2) / (1.0 - hp.a1 + hp.a2), 1.0, 1e-6);
  const double shelfDc = (shelf.b0 + shelf.b1 + shelf.b2) / (1.0 + shelf.a1 + shelf.a2);
  const double shelfNyquist = (shelf.b0 - shelf.b1 + shelf.b2) / (1.0 - shelf.a1 + shelf.a2);
  EXPECT_NEAR(shelfDc, 1.0, 1e-5);
  EXPECT_NEAR(shelfNyquist,
              (1.53512485958697 + 2.69169618940638 + 1.19839281085285) / (1.0 + 1.69065929318241 + 0.73248077421585),
              1e-4);
  // Every coefficient is a float value.
  for (double v : {shelf.b0, shelf.b1, shelf.b2, shelf.a1, shelf.a2, hp.b0, hp.b1, hp.b2, hp.a1, hp.a2}) {
    EXPECT_EQ(v, static_cast<double>(static_cast<float>(v)));
  }
}

// Steady-state gain of sines through a channel's filters against the
// BS.1770 table's transfer function, evaluated with std::complex and
// divided by the table high pass's gain at Nyquist (4 / (1 - a1 + a2)).
TEST(Itu1770, KWeightedSineGainFollowsTheTableResponse) {
  const auto tableGain = [](double f) {
    const std::complex<double> z1 = std::polar(1.0, -2.0 * M_PI * f / 48000.0);
    const std::complex<double> z2 = z1 * z1;
    const std::complex<double> shelf = (1.53512485958697 - 2.69169618940638 * z1 + 1.19839281085285 * z2) /
                                       (1.0 - 1.69065929318241 * z1 + 0.73248077421585 * z2);
    const std::complex<double> hp = (1.0 - 2.0 * z1 + z2) / (1.0 - 1.99004745483398 * z1 + 0.99007225036621 * z2);
    return std::abs(shelf * hp) / (4.0 / (1.0 + 1.99004745483398 + 0.99007225036621));
  };
  for (double f : {40.0, 100.0, 997.0, 3000.0, 10000.0, 20000.0}) {
    dsp::Itu1770 meter;
    meter.Init(48000, 48000, {dsp::Itu1770::kCenter});
    const std::vector<float> x = vextest::Sine(48000, f, 48000.0);
    const float* p = x.data();
    meter.Process(&p, x.size());
    const float* y = meter.GetWeightedSamples(0);
    double power = 0.0;
    for (std::size_t i = 24000; i < x.size(); ++i) power += double(y[i]) * double(y[i]);
    const double gain = std::sqrt(2.0 * power / 24000.0);
    EXPECT_NEAR(20.0 * std::log10(gain), 20.0 * std::log10(tableGain(f)), 0.01) << f << " Hz";
  }
}

TEST(Itu1770, BlockGeometry) {
  dsp::Itu1770 meter;
  meter.Init(512, 48000, kStereo);
  EXPECT_EQ(meter.GetBlockLength(), 19200u);
  EXPECT_EQ(meter.GetStepLength(), 4800u);
  meter.Init(512, 44100, kStereo);
  EXPECT_EQ(meter.GetBlockLength(), 17640u);
  EXPECT_EQ(meter.GetStepLength(), 4410u);
}

// EBU Tech 3341 cases 1-5 (1 kHz sines, levels in dBFS peak): integrated
// loudness within +/- 0.1 LU of the published values. Cases 3 to 5 need the
// relative gate, case 4 the absolute gate too. Then the gates themselves: a
// stereo tone at L dBFS reads L LKFS, so blocks 12 dB under a louder part
// (0.74 LU above the relative gate) count, and a programme at -69 counts
// while one at -71 is gated away entirely.
TEST(Itu1770, Tech3341IntegratedLoudnessAndGates) {
  struct Case {
    std::vector<ToneSequence::Segment> segments;
    float expected;
  };
  const Case cases[] = {
      {{{-23, 20}}, -23.0f},
      {{{-33, 20}}, -33.0f},
      {{{-36, 10}, {-23, 60}, {-36, 10}}, -23.0f},
      {{{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}, -23.0f},
      {{{-26, 20}, {-20, 20.1}, {-26, 20}}, -23.0f},
      {{{-20, 20}, {-32, 20}}, static_cast<float>(-20.0 + 10.0 * std::log10((1.0 + std::pow(10.0, -1.2)) / 2.0))},
      {{{-69, 10}}, -69.0f},
      {{{-71, 10}}, -300.0f},
  };
  for (const Case& c : cases) {
    EXPECT_NEAR(Measure(kStereo, ToneSequence(1000, 48000, c.segments)), c.expected, 0.1)
        << c.segments.size() << " segments from " << c.segments[0].dbfs << " dBFS";
  }

  // Case 6, 5.0: L and R at -28, C at -24, Ls and Rs at -30 dBFS, and an LFE
  // channel carrying a loud tone that must be ignored.
  dsp::Itu1770 meter;
  const std::vector<Label> labels = {dsp::Itu1770::kLeft,         dsp::Itu1770::kRight,
                                     dsp::Itu1770::kCenter,       dsp::Itu1770::kLowFrequencyEffects,
                                     dsp::Itu1770::kLeftSurround, dsp::Itu1770::kRightSurround};
  meter.Init(4096, 48000, labels);
  const double levels[] = {-28, -28, -24, 0, -30, -30};
  std::vector<std::vector<float>> data;
  for (double db : levels) data.push_back(vextest::Sine(48000 * 20, 1000.0, 48000.0, std::pow(10.0, db / 20.0)));
  std::vector<const float*> ptr(6);
  for (std::size_t i = 0; i < data[0].size(); i += 4096) {
    for (std::size_t c = 0; c < 6; ++c) ptr[c] = data[c].data() + i;
    meter.Process(ptr.data(), std::min<std::size_t>(4096, data[0].size() - i));
  }
  EXPECT_NEAR(meter.GetLKFS(), -23.0, 0.1);
}

// BS.1770: a 997 Hz sine at 0 dBFS in one front channel reads -3.01 LKFS,
// so at -20 dBFS -23.01, here 0.043 LU lower for the normalised high pass
// (20 log10 of the table high pass's Nyquist gain); in a surround channel 10 log10(1.41) higher; in the LFE
// channel it is not measured at all.
TEST(Itu1770, ChannelWeights) {
  const auto oneChannel = [](Label label) {
    dsp::Itu1770 meter;
    meter.Init(48000, 48000, {dsp::Itu1770::kLeft, label});
    const std::vector<float> x = vextest::Sine(48000 * 3, 997.0, 48000.0, 0.1);
    const std::vector<float> silence(x.size(), 0.0f);
    const float* p[2] = {silence.data(), x.data()};
    meter.Process(p, x.size());
    return meter.GetLKFS();
  };
  const float front = oneChannel(dsp::Itu1770::kRight);
  EXPECT_NEAR(front, -23.01 - 0.0433, 0.01);
  EXPECT_NEAR(oneChannel(dsp::Itu1770::kLeftSurround) - front, 10.0 * std::log10(1.41), 1e-3);
  EXPECT_NEAR(oneChannel(dsp::Itu1770::kRightSurround) - front, 10.0 * std::log10(1.41), 1e-3);
  EXPECT_EQ(oneChannel(dsp::Itu1770::kLowFrequencyEffects), -300.0f);
}

// Nothing to measure: shorter than one gating block, digital silence,
// channels marked silent, no labels at all.
TEST(Itu1770, FloorValuesWhenNothingIsMeasured) {
  const std::vector<float> x = vextest::Sine(48000, 1000.0, 48000.0, 0.5);
  const float* p[2] = {x.data(), x.data()};
  dsp::Itu1770 meter;
  meter.Init(48000, 48000, kStereo);
  meter.Process(p, 19199);
  EXPECT_EQ(meter.GetLKFS(), -300.0f);
  EXPECT_FALSE(meter.IsValid());
  meter.Process(p, 1);
  EXPECT_TRUE(meter.IsValid());
  EXPECT_EQ(meter.GetBlockPowers().size(), 1u);

  meter.Init(48000, 48000, kStereo);
  meter.SetChannelsZero(vexcore::utility::Flags<std::uint64_t>(0b11));
  meter.Process(p, x.size());
  EXPECT_EQ(meter.GetLKFS(), -300.0f);

  // One channel marked silent counts as silence: the other alone is 3 dB
  // below the pair.
  dsp::Itu1770 pair, half;
  pair.Init(48000, 48000, kStereo);
  half.Init(48000, 48000, kStereo);
  half.SetChannelsZero(vexcore::utility::Flags<std::uint64_t>(0b10));
  pair.Process(p, x.size());
  half.Process(p, x.size());
  EXPECT_NEAR(pair.GetLKFS() - half.GetLKFS(), 10.0 * std::log10(2.0), 1e-3);

  const std::vector<float> silence(x.size(), 0.0f);
  const float* s[2] = {silence.data(), silence.data()};
  meter.Init(48000, 48000, kStereo);
  meter.Process(s, silence.size());
  EXPECT_EQ(meter.GetLKFS(), -300.0f);

  meter.Init(48000, 48000, {});
  meter.Process(p, x.size());
  EXPECT_EQ(meter.GetLKFS(), -300.0f);
  EXPECT_FALSE(meter.IsValid());

  // The silence mask has 64 bits: channel 64 shares bit 0 with channel 0.
  std::vector<const float*> many(65, silence.data());
  many[64] = x.data();
  dsp::Itu1770 wide;
  wide.Init(48000, 48000, std::vector<Label>(65, dsp::Itu1770::kOther));
  wide.SetChannelsZero(vexcore::utility::Flags<std::uint64_t>(1));
  wide.Process(many.data(), x.size());
  EXPECT_EQ(wide.GetLKFS(), -300.0f);
  wide.Init(48000, 48000, std::vector<Label>(65, dsp::Itu1770::kOther));
  wide.Process(many.data(), x.size());
  EXPECT_NEAR(wide.GetLKFS(), half.GetLKFS(), 1e-4);
}

// The result does not depend on how the stream is cut, even into blocks
// longer than maxFrames; Process does not allocate; Init starts afresh.
TEST(Itu1770, BlockSplitInitAndAllocation) {
  const std::vector<float> l = vextest::Noise(48000 * 3, 1, 0.3);
  const std::vector<float> r = vextest::Noise(48000 * 3, 2, 0.1);
  dsp::Itu1770 whole;
  whole.Init(l.size(), 48000, kStereo);
  const float* p[2] = {l.data(), r.data()};
  whole.Process(p, l.size());
  for (std::size_t block : {1u, 7u, 512u, 8192u, 10000u}) {
    dsp::Itu1770 meter;
    meter.Init(block == 10000u ? 777u : block, 48000, kStereo);
    for (std::size_t i = 0; i < l.size(); i += block) {
      const float* q[2] = {l.data() + i, r.data() + i};
      EXPECT_NO_ALLOCATION(meter.Process(q, std::min(block, l.size() - i)));
    }
    EXPECT_EQ(meter.GetBlockPowers(), whole.GetBlockPowers()) << block;
    EXPECT_EQ(meter.GetLKFS(), whole.GetLKFS()) << block;
  }
  dsp::Itu1770 again = whole;
  again.Init(l.size(), 48000, kStereo);
  again.Process(p, l.size());
  EXPECT_EQ(again.GetLKFS(), whole.GetLKFS());
}

// A NaN poisons its channel's filters: every later block is dropped, the
// blocks before it stay, and the reading stays finite.
TEST(Itu1770, NaNInputKeepsTheBlocksBeforeIt) {
  std::vector<float> x = vextest::Sine(48000 * 2, 1000.0, 48000.0, 0.5);
  x[48000] = std::numeric_limits<float>::quiet_NaN();
  dsp::Itu1770 meter;
  meter.Init(4800, 48000, {dsp::Itu1770::kCenter});
  for (std::size_t i = 0; i < x.size(); i += 4800) {
    const float* p = x.data() + i;
    meter.Process(&p, 4800);
  }
  // Blocks ending at 0.4, 0.5, ... 1.0 s passed; none after the NaN did.
  EXPECT_EQ(meter.GetBlockPowers().size(), 7u);
  EXPECT_TRUE(std::isfinite(meter.GetLKFS()));
}

TEST(LoudnessStandards, TablesConstantsAndUnits) {
  namespace L = dsp::loudness;
  double v = 99.0;
  EXPECT_TRUE(L::GetTargetLoudnessForLoudnessStandard(0, v));
  EXPECT_EQ(v, -24.0);
  EXPECT_TRUE(L::GetTargetLoudnessForLoudnessStandard(1, v));
  EXPECT_EQ(v, -23.0);
  EXPECT_TRUE(L::GetLoudnessToleranceForLoudnessStandard(0, v));
  EXPECT_EQ(v, 2.0);
  EXPECT_TRUE(L::GetLoudnessToleranceForLoudnessStandard(1, v));
  EXPECT_EQ(v, 0.5);
  EXPECT_TRUE(L::GetMaxTruePeakLevelForLoudnessStandard(0, v));
  EXPECT_EQ(v, -2.0);
  EXPECT_TRUE(L::GetMaxTruePeakLevelForLoudnessStandard(1, v));
  EXPECT_EQ(v, -1.0);
  v = 99.0;
  EXPECT_FALSE(L::GetTargetLoudnessForLoudnessStandard(2, v));
  EXPECT_FALSE(L::GetLoudnessToleranceForLoudnessStandard(-1, v));
  EXPECT_FALSE(L::GetMaxTruePeakLevelForLoudnessStandard(7, v));
  EXPECT_EQ(v, 99.0);
  EXPECT_EQ(L::GetUnitForLoudnessStandard(0), 1);
  EXPECT_EQ(L::GetUnitForLoudnessStandard(1), 0);
  EXPECT_EQ(L::GetUnitForLoudnessStandard(5), 1);

  EXPECT_FALSE(L::AreCustomLoudnessSettings(1, 0.5, -1.0));
  EXPECT_TRUE(L::AreCustomLoudnessSettings(1, 0.6, -1.0));
  EXPECT_TRUE(L::AreCustomLoudnessSettings(0, 2.0, -1.0));
  EXPECT_TRUE(L::AreCustomLoudnessSettings(0, std::nan(""), -2.0));
  EXPECT_FALSE(L::AreCustomLoudnessSettings(3, 9.0, 9.0));

  EXPECT_EQ(L::kTargetLoudnessMin, -36.0);
  EXPECT_EQ(L::kTargetLoudnessMax, -6.0);
  EXPECT_EQ(L::kLoudnessToleranceMax, 6.0);
  EXPECT_EQ(L::kTruePeakLevelMin, -12.0);
  EXPECT_EQ(L::kTruePeakLevelMax, -0.1);
  EXPECT_EQ(L::kLookAheadTimeDefault, 12.0);
  EXPECT_EQ(L::kReleaseTimeMin, 40.0);
  EXPECT_EQ(L::kReleaseTimeDefault, 200.0);

  using W = vexcore::utility::SmallBlockWString;
  EXPECT_EQ(L::GetLoudnessUnitString(1, true), W(L"LKFS"));
  EXPECT_EQ(L::GetLoudnessUnitString(0, true), W(L"LUFS"));
  EXPECT_EQ(L::GetLoudnessUnitString(1, false), W(L"LK"));
  EXPECT_EQ(L::GetLoudnessUnitString(3, false), W(L"LU"));
  auto& localizer = vexcore::config::Localizer::Get();
  localizer.LoadTranslations("$$$/QRM/EncoderHost/Loudness/kIdentifier_LU=UL\n");
  EXPECT_EQ(L::GetLoudnessUnitString(0, false), W(L"UL"));
  localizer.Clear();

  EXPECT_TRUE(L::IsCompliant(1, true, -23.4, -1.0));
  EXPECT_FALSE(L::IsCompliant(1, true, -23.6, -1.5));
  EXPECT_FALSE(L::IsCompliant(1, true, -23.0, -0.9));
  EXPECT_FALSE(L::IsCompliant(1, false, -23.0, -3.0));
  EXPECT_TRUE(L::IsCompliant(0, true, -22.0, -2.0));
  EXPECT_FALSE(L::IsCompliant(2, true, -23.0, -3.0));
}

}  // namespace
