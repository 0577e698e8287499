#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "loudness/ToneSequence.h"
#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/loudness/LoudnessMeter.h"

namespace {

using vextest::ToneSequence;
const std::vector<dsp::Itu1770::ChannelLabel> kStereo = {dsp::Itu1770::kLeft, dsp::Itu1770::kRight};

std::vector<ToneSequence::Segment> Repeat(std::vector<ToneSequence::Segment> period, int times) {
  std::vector<ToneSequence::Segment> out;
  for (int i = 0; i < times; ++i) out.insert(out.end(), period.begin(), period.end());
  return out;
}

// Feeds 100 ms blocks and collects the momentary and short-term readings
// after each.
struct Readings {
  std::vector<double> momentary;
  std::vector<double> shortTerm;
};

Readings Track(dsp::LoudnessMeter& meter, ToneSequence tones) {
  Readings r;
  std::vector<float> block(4800);
  const float* p[2] = {block.data(), block.data()};
  for (std::size_t n; (n = tones.Next(block.data(), block.size())) > 0;) {
    meter.Process(p, n);
    r.momentary.push_back(meter.GetMomentary());
    r.shortTerm.push_back(meter.GetShortTerm());
  }
  return r;
}

// EBU Tech 3341 case 9: 1.34 s at -20 dBFS and 1.66 s at -30 dBFS repeated;
// every full 3 s window holds one period, so the short-term loudness is
// -23.0 +/- 0.1 throughout once 3 s have passed.
TEST(LoudnessMeter, Tech3341ShortTermIsConstant) {
  dsp::LoudnessMeter meter;
  meter.Init(4800, 48000, kStereo, false);
  const Readings r = Track(meter, ToneSequence(1000, 48000, Repeat({{-20, 1.34}, {-30, 1.66}}, 5)));
  ASSERT_EQ(r.shortTerm.size(), 150u);
  for (std::size_t i = 0; i < 29; ++i) EXPECT_EQ(r.shortTerm[i], -300.0) << i;
  for (std::size_t i = 29; i < r.shortTerm.size(); ++i) EXPECT_NEAR(r.shortTerm[i], -23.0, 0.1) << i;
  EXPECT_NEAR(meter.GetShortTermMax(), -23.0, 0.1);
}

// Case 12's pattern for 400 ms windows: 0.18 s at -20 dBFS and 0.22 s at
// -30 dBFS; the momentary loudness is -23.0 +/- 0.1 once 400 ms have passed.
TEST(LoudnessMeter, Tech3341MomentaryIsConstant) {
  dsp::LoudnessMeter meter;
  meter.Init(4800, 48000, kStereo, false);
  const Readings r = Track(meter, ToneSequence(1000, 48000, Repeat({{-20, 0.18}, {-30, 0.22}}, 25)));
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(r.momentary[i], -300.0) << i;
  for (std::size_t i = 3; i < r.momentary.size(); ++i) EXPECT_NEAR(r.momentary[i], -23.0, 0.1) << i;
  // A steady -23 dBFS sine: every figure at -23.
  meter.Init(4800, 48000, kStereo, true);
  Track(meter, ToneSequence(1000, 48000, {{-23, 4}}));
  const dsp::LoudnessSummary s = meter.GetSummary();
  EXPECT_NEAR(s.integrated, -23.0, 0.1);
  EXPECT_NEAR(s.momentaryMax, -23.0, 0.1);
  EXPECT_NEAR(s.shortTermMax, -23.0, 0.1);
  EXPECT_NEAR(s.truePeakDb, -23.0, 0.1);
  EXPECT_NEAR(s.loudnessRange, 0.0, 0.1);
  EXPECT_TRUE(s.valid);
  EXPECT_EQ(s.frames, 4 * 48000);
}

// EBU Tech 3342 cases 1-4: loudness range within +/- 1 LU.
TEST(LoudnessMeter, Tech3342LoudnessRange) {
  struct Case {
    std::vector<ToneSequence::Segment> segments;
    double lra;
  };
  const Case cases[] = {
      {{{-20, 20}, {-30, 20}}, 10.0},
      {{{-20, 20}, {-15, 20}}, 5.0},
      {{{-40, 20}, {-20, 20}}, 20.0},
      {{{-50, 20}, {-35, 20}, {-20, 20}, {-35, 20}, {-50, 20}}, 15.0},
  };
  for (const Case& c : cases) {
    dsp::LoudnessMeter meter;
    meter.Init(8192, 48000, kStereo, false);
    vextest::Feed(meter, ToneSequence(1000, 48000, c.segments), 2, 8192);
    EXPECT_NEAR(meter.GetLoudnessRange(), c.lra, 1.0) << c.lra;
  }
}

// The meter's integrated value is Itu1770's, its true peak the loudest
// channel's; block size changes nothing; Process does not allocate.
TEST(LoudnessMeter, AgreesWithItsPartsAndIgnoresBlockSize) {
  const std::vector<float> l = vextest::Noise(48000 * 4, 3, 0.2);
  std::vector<float> r = vextest::Noise(48000 * 4, 4, 0.4);
  r[100000] = 0.95f;
  const float* p[2] = {l.data(), r.data()};
  dsp::Itu1770 itu;
  itu.Init(l.size(), 48000, kStereo);
  itu.Process(p, l.size());

  dsp::LoudnessMeter whole;
  whole.Init(l.size(), 48000, kStereo);
  whole.Process(p, l.size());
  const dsp::LoudnessSummary s = whole.GetSummary();
  EXPECT_EQ(s.integrated, itu.GetLKFS());
  EXPECT_NEAR(s.truePeakDb, 20.0 * std::log10(0.95), 1e-4);
  EXPECT_EQ(s.truePeakPosition, 100000);

  for (std::size_t block : {61u, 512u, 10000u}) {
    dsp::LoudnessMeter meter;
    meter.Init(block == 10000u ? 4096u : block, 48000, kStereo);
    for (std::size_t i = 0; i < l.size(); i += block) {
      const float* q[2] = {l.data() + i, r.data() + i};
      EXPECT_NO_ALLOCATION(meter.Process(q, std::min(block, l.size() - i)));
    }
    const dsp::LoudnessSummary t = meter.GetSummary();
    EXPECT_EQ(t.integrated, s.integrated) << block;
    EXPECT_NEAR(t.momentaryMax, s.momentaryMax, 1e-9) << block;
    EXPECT_NEAR(t.shortTermMax, s.shortTermMax, 1e-9) << block;
    EXPECT_NEAR(t.loudnessRange, s.loudnessRange, 1e-6) << block;
    EXPECT_EQ(t.truePeakDb, s.truePeakDb) << block;
    EXPECT_EQ(t.truePeakPosition, s.truePeakPosition) << block;
  }
}

// A NaN poisons the K-weighting: later windows read -300, the maxima and
// the integrated value keep what came before; an infinity does the same
// and reads +inf dBTP.
TEST(LoudnessMeter, NonFiniteInput) {
  std::vector<float> x = vextest::Sine(48000 * 4, 1000.0, 48000.0, std::pow(10.0, -23.0 / 20.0));
  x[48000 * 3] = std::nanf("");
  const float* p[2] = {x.data(), x.data()};
  dsp::LoudnessMeter meter;
  meter.Init(4800, 48000, kStereo);
  meter.Process(p, x.size());
  const dsp::LoudnessSummary s = meter.GetSummary();
  EXPECT_EQ(meter.GetMomentary(), -300.0);
  EXPECT_EQ(meter.GetShortTerm(), -300.0);
  EXPECT_NEAR(s.momentaryMax, -23.0, 0.1);
  EXPECT_NEAR(s.shortTermMax, -23.0, 0.1);
  EXPECT_NEAR(s.integrated, -23.0, 0.1);
  EXPECT_NEAR(s.truePeakDb, -23.0, 0.1);
  x[48000 * 3] = std::numeric_limits<float>::infinity();
  meter.Init(4800, 48000, kStereo);
  meter.Process(p, x.size());
  EXPECT_EQ(meter.GetSummary().truePeakDb, std::numeric_limits<double>::infinity());
  EXPECT_NEAR(meter.GetSummary().integrated, -23.0, 0.1);
}

}  // namespace
