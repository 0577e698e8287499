#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/dynamics/DynamicsBand.h"
#include "vexaudiodsp/dynamics/SingleBandCompressorDSP.h"

namespace {

using dsp::dynamics::DynamicsBand;
using dsp::dynamics::SingleBandCompressorDSP;
using Mask = vexcore::utility::Flags<std::uint64_t>;

const vexmediatypes::AudioChannelLayout kStereo = vexmediatypes::CreateStereoChannelLayout();

// Copies into the block's own arrays (assigning a vector would leave its
// pointer table dangling).
void Fill(vextest::PlanarBlock& block, const std::vector<float>& a, const std::vector<float>& b) {
  std::copy(a.begin(), a.end(), block.Channel(0).begin());
  std::copy(b.begin(), b.end(), block.Channel(1).begin());
}

double Db(double x) { return 20.0 * std::log10(std::fabs(x)); }

// Runs a constant level through both channels and returns the last output
// sample of channel 0.
float SettleDc(DynamicsBand& band, float level, int frames) {
  vextest::PlanarBlock block(2, static_cast<std::size_t>(frames), level);
  Mask out;
  band.ProcessInPlace(static_cast<unsigned>(frames), block.Pointers(), Mask(), out);
  return block.Channel(0).back();
}

TEST(DynamicsBand, DelayLineAndDefaultsArePureDelayWithTheDenormalOffset) {
  DynamicsBand band(44100.0f, kStereo);
  EXPECT_EQ(DynamicsBand::GetDelayLineSamples(44100.0f), 44u);
  EXPECT_EQ(band.GetSystemDelay(), 43u);
  band.SetSampleRate(48000.0f);
  EXPECT_EQ(DynamicsBand::GetDelayLineSamples(48000.0f), 48u);
  EXPECT_EQ(band.GetSystemDelay(), 47u);
  EXPECT_EQ(band.GetCompRatio(), 1.0f);
  EXPECT_EQ(band.GetGateThreshold(), -120.0f);
  EXPECT_NEAR(band.GetFactorDetection(), std::pow(0.03, 1.0 / 2400.0), 1e-7);

  const std::vector<float> x = vextest::Noise(1000, 3, 0.5);
  vextest::PlanarBlock block(2, x.size());
  Fill(block, x, x);
  Mask out;
  band.ProcessInPlace(static_cast<unsigned>(x.size()), block.Pointers(), Mask(), out);
  for (std::size_t n = 0; n < x.size(); ++n) {
    const float delayed = n >= 47 ? x[n - 47] : 0.0f;
    const float offset = (n % 256) < 128 ? 1e-10f : -1e-10f;
    ASSERT_EQ(block.Channel(0)[n], delayed + offset) << n;
  }
}

// Closed forms of the static curves, on DC in RMS mode (the detector then
// settles on the level itself):
// - 0 dB into a -6 dB threshold at 2:1 gives -3 dB;
// - above the limiter threshold the limiter curve continues the
//   compressor's: comp -20 dB 4:1, limiter -10 dB 10:1, 0 dB in gives
//   -20 + 10/4 + 10/10 = -16.5 dB;
// - a -60 dB level under a -40 dB gate at ratio 2 is pushed down by the
//   20 dB it lies below: -80 dB.
TEST(DynamicsBand, StaticCurvesClosedForm) {
  DynamicsBand band(48000.0f, kStereo);
  band.SetRMSDetection(true);
  band.SetCompThreshold(-6.0f);
  band.SetCompRatio(2.0f);
  EXPECT_NEAR(Db(SettleDc(band, 1.0f, 48000)), -3.0, 0.01);

  band.Reset();
  band.SetCompThreshold(-20.0f);
  band.SetCompRatio(4.0f);
  band.SetLimThreshold(-10.0f);
  band.SetLimRatio(10.0f);
  EXPECT_NEAR(Db(SettleDc(band, 1.0f, 48000)), -16.5, 0.01);
  // Below the limiter threshold only the compressor acts: -14 dB in is 6 dB
  // over -20 at 4:1, -18.5 dB out.
  band.Reset();
  EXPECT_NEAR(Db(SettleDc(band, std::pow(10.0f, -14.0f / 20.0f), 48000)), -18.5, 0.01);

  DynamicsBand gate(48000.0f, kStereo);
  gate.SetRMSDetection(true);
  gate.SetGateThreshold(-40.0f);
  gate.SetGateRatio(2.0f);
  EXPECT_NEAR(Db(SettleDc(gate, 0.001f, 48000)), -80.0, 0.05);
  EXPECT_NEAR(Db(gate.GetGateGainReduction()), -20.0, 0.05);

  // Output gain adds on top.
  band.Reset();
  band.SetOutputGain(6.0f);
  EXPECT_NEAR(Db(SettleDc(band, std::pow(10.0f, -14.0f / 20.0f), 48000)), -12.5, 0.01);
}

// A time t is two time constants: after a step the compressor envelope has
// covered 1 - e^-2 of its way to the static gain t ms later (peak mode with
// an instant peak detector; release 1 s so the decay of the detector between
// samples cannot pull the envelope back).
TEST(DynamicsBand, AttackIsTwoTimeConstants) {
  DynamicsBand band(48000.0f, kStereo);
  band.SetCompThreshold(-20.0f);
  band.SetCompRatio(1000.0f);
  band.SetCompAttack(10.0f);
  band.SetCompRelease(1000.0f);
  band.SetFactorDetection(1.0f);
  // 0.9 stays below the limiter's default 0 dB threshold, whose faster
  // attack would otherwise take over.
  SettleDc(band, 0.9f, 480);
  const double target = std::pow(9.0, 1.0 / 1000.0 - 1.0);
  const double expected = target + (1.0 - target) * std::exp(-2.0);
  EXPECT_NEAR(band.GetGainReduction(), expected, 2e-3);
}

// With automatic make-up gain the mean of 1/g^2 over 4 s restores the level
// of a steadily compressed signal.
TEST(DynamicsBand, AutoMakeupRestoresSteadyLevel) {
  DynamicsBand band(8000.0f, kStereo);
  band.SetRMSDetection(true);
  band.SetCompThreshold(-20.0f);
  band.SetCompRatio(4.0f);
  band.SetAutoMakeupGain(true);
  EXPECT_NEAR(Db(SettleDc(band, 0.5f, 8000 * 5)), Db(0.5), 0.05);
  // Smoothing changes the path, not the steady state.
  band.SetAutoSmoothing(true);
  band.Reset();
  EXPECT_NEAR(Db(SettleDc(band, 0.5f, 8000 * 5)), Db(0.5), 0.05);
}

TEST(DynamicsBand, ThresholdOrderingKeepsDisplayValuesOrdered) {
  DynamicsBand band(48000.0f, kStereo);
  band.SetCompThreshold(6.0f);
  EXPECT_EQ(band.GetDisplayCompThreshold(), 6.0f);
  EXPECT_EQ(band.GetDisplayLimThreshold(), 6.0f);
  EXPECT_EQ(band.GetDisplayGateThreshold(), -120.0f);
  band.SetLimThreshold(-30.0f);
  EXPECT_EQ(band.GetDisplayLimThreshold(), -30.0f);
  EXPECT_EQ(band.GetDisplayCompThreshold(), -30.0f);
  EXPECT_EQ(band.GetDisplayGateThreshold(), -120.0f);
  band.SetGateThreshold(-10.0f);
  EXPECT_EQ(band.GetDisplayGateThreshold(), -10.0f);
  EXPECT_EQ(band.GetDisplayCompThreshold(), -10.0f);
  EXPECT_EQ(band.GetDisplayLimThreshold(), -10.0f);
  band.SetCompThreshold(-50.0f);
  EXPECT_EQ(band.GetDisplayGateThreshold(), -50.0f);
  // The getters return what was set.
  EXPECT_EQ(band.GetCompThreshold(), -50.0f);
  EXPECT_EQ(band.GetLimThreshold(), -30.0f);
  EXPECT_EQ(band.GetGateThreshold(), -10.0f);
}

// Skipped channels are neither detected nor written; the flags are copied.
// Meters: GetLevels needs a right-sized vector, GetGainReduction resets.
TEST(DynamicsBand, SkipMaskAndMeters) {
  DynamicsBand band(48000.0f, kStereo);
  band.SetCompThreshold(-20.0f);
  band.SetCompRatio(10.0f);
  vextest::PlanarBlock block(2, 4800);
  const std::vector<float> quiet = vextest::Sine(4800, 1000.0, 48000.0, 0.01);
  std::copy(quiet.begin(), quiet.end(), block.Channel(0).begin());
  std::fill(block.Channel(1).begin(), block.Channel(1).end(), 0.9f);
  const std::vector<float> loud = block.Channel(1);
  Mask out;
  band.ProcessInPlace(4800, block.Pointers(), Mask(0b10), out);
  EXPECT_EQ(out, Mask(0b10));
  EXPECT_EQ(block.Channel(1), loud);
  EXPECT_EQ(band.GetGainReduction(), 1.0f);
  std::vector<float> levels(2, -1.0f);
  band.GetLevels(levels);
  EXPECT_NEAR(levels[0], 0.01f, 1e-4);
  EXPECT_EQ(levels[1], 0.0f);
  std::vector<float> wrong(3, -1.0f);
  band.GetLevels(wrong);
  EXPECT_EQ(wrong, std::vector<float>(3, -1.0f));
  band.ProcessInPlace(0, block.Pointers(), Mask(0b01), out);
  EXPECT_EQ(out, Mask(0b01));

  band.ProcessInPlace(4800, block.Pointers(), Mask(), out);
  EXPECT_LT(band.GetGainReduction(), 0.5f);
  EXPECT_EQ(band.GetGainReduction(), 1.0f);
}

// Split blocks give the same output; Reset equals a fresh band; Process
// and ProcessInPlace agree and do not allocate.
TEST(DynamicsBand, BlockSplitResetAndAllocation) {
  const auto configure = [](DynamicsBand& b) {
    b.SetCompThreshold(-18.0f);
    b.SetCompRatio(3.0f);
    b.SetLimThreshold(-6.0f);
    b.SetLimRatio(20.0f);
    b.SetGateThreshold(-50.0f);
    b.SetGateRatio(3.0f);
    b.SetAutoSmoothing(true);
    b.SetAutoMakeupGain(true);
  };
  std::vector<float> x = vextest::Noise(12000, 9, 0.6);
  for (std::size_t i = 4000; i < 6000; ++i) x[i] *= 0.001f;
  const std::vector<float> y = vextest::Noise(12000, 10, 0.2);
  DynamicsBand whole(44100.0f, kStereo);
  configure(whole);
  vextest::PlanarBlock ref(2, x.size());
  Fill(ref, x, y);
  Mask out;
  whole.ProcessInPlace(static_cast<unsigned>(x.size()), ref.Pointers(), Mask(), out);

  for (bool rms : {false, true}) {
    DynamicsBand band(44100.0f, kStereo);
    configure(band);
    band.SetRMSDetection(rms);
    DynamicsBand fresh = band;
    std::vector<float> first;
    for (int pass = 0; pass < 2; ++pass) {
      vextest::PlanarBlock got(2, x.size());
      std::size_t done = 0;
      for (std::size_t block : {1u, 7u, 256u, 257u, 1000u, 8192u}) {
        if (done >= x.size()) break;
        const std::size_t n = std::min(block, x.size() - done);
        const float* in[2] = {x.data() + done, y.data() + done};
        float* o[2] = {got.Channel(0).data() + done, got.Channel(1).data() + done};
        EXPECT_NO_ALLOCATION(band.Process(static_cast<unsigned>(n), in, o, Mask(), out));
        done += n;
      }
      const float* in[2] = {x.data() + done, y.data() + done};
      float* o[2] = {got.Channel(0).data() + done, got.Channel(1).data() + done};
      band.Process(static_cast<unsigned>(x.size() - done), in, o, Mask(), out);
      if (pass == 0) {
        first = got.Channel(0);
        if (!rms) {
          EXPECT_EQ(got.Channel(0), ref.Channel(0));
          EXPECT_EQ(got.Channel(1), ref.Channel(1));
        }
        band.Reset();
      } else {
        EXPECT_EQ(got.Channel(0), first) << "Reset must equal fresh, rms " << rms;
      }
    }
    vextest::PlanarBlock f(2, x.size());
    Fill(f, x, y);
    fresh.ProcessInPlace(static_cast<unsigned>(x.size()), f.Pointers(), Mask(), out);
    EXPECT_EQ(f.Channel(0), first) << "copy before processing equals fresh, rms " << rms;
  }
}

// Non-finite samples pass through at their own position but do not reach
// the detector: the gain afterwards is that of the finite signal.
TEST(DynamicsBand, NonFiniteSamplesDoNotFreezeTheGain) {
  for (bool rms : {false, true}) {
    DynamicsBand clean(48000.0f, kStereo), dirty(48000.0f, kStereo);
    for (DynamicsBand* b : {&clean, &dirty}) {
      b->SetRMSDetection(rms);
      b->SetCompThreshold(-20.0f);
      b->SetCompRatio(4.0f);
    }
    vextest::PlanarBlock a(2, 4800, 0.3f), b(2, 4800, 0.3f);
    b.Channel(0)[100] = std::numeric_limits<float>::infinity();
    b.Channel(1)[200] = std::numeric_limits<float>::quiet_NaN();
    Mask out;
    clean.ProcessInPlace(4800, a.Pointers(), Mask(), out);
    dirty.ProcessInPlace(4800, b.Pointers(), Mask(), out);
    EXPECT_TRUE(std::isinf(b.Channel(0)[147]));
    EXPECT_TRUE(std::isnan(b.Channel(1)[247]));
    EXPECT_EQ(b.Channel(0).back(), a.Channel(0).back()) << rms;
  }
}

TEST(SingleBandCompressorDSP, DefaultsLatencyAndPureDelay) {
  SingleBandCompressorDSP comp(44100.0f, kStereo);
  EXPECT_EQ(comp.GetLatency(), 43u);
  EXPECT_EQ(comp.GetRelease(), 0.0f);
  EXPECT_EQ(comp.GetAttack(), 10.0f);
  comp.SetSampleRate(48000.0f);
  EXPECT_EQ(comp.GetLatency(), 47u);
  const std::vector<float> x = vextest::Noise(500, 4, 0.9);
  vextest::PlanarBlock block(2, x.size());
  Fill(block, x, x);
  comp.Process(block.Pointers(), block.Pointers(), static_cast<int>(x.size()), Mask());
  for (std::size_t n = 0; n < x.size(); ++n) ASSERT_EQ(block.Channel(1)[n], n >= 47 ? x[n - 47] : 0.0f) << n;
}

// Static curve on DC (peak mode holds a constant level within the
// detector's decay), the make-up gain (mean reduction in dB over 2 s), the
// skip mask, meters, split blocks and Reset.
TEST(SingleBandCompressorDSP, CurveMakeupMaskSplitAndReset) {
  SingleBandCompressorDSP comp(8000.0f, kStereo);
  comp.SetThreshold(-6.0f);
  comp.SetRatio(2.0f);
  comp.SetRelease(50.0f);
  vextest::PlanarBlock block(2, 8000, 1.0f);
  comp.Process(block.Pointers(), block.Pointers(), 8000, Mask());
  EXPECT_NEAR(Db(block.Channel(0).back()), -3.0, 0.05);
  EXPECT_NEAR(Db(comp.GetGainReduction()), -3.0, 0.1);
  EXPECT_EQ(comp.GetGainReduction(), 1.0f);

  comp.SetAutoMakeupGain(true);
  comp.Reset();
  vextest::PlanarBlock longer(2, 8000 * 3, 1.0f);
  comp.Process(longer.Pointers(), longer.Pointers(), 8000 * 3, Mask());
  EXPECT_NEAR(Db(longer.Channel(0).back()), 0.0, 0.05);

  std::vector<float> levels(2);
  comp.GetLevels(levels);
  EXPECT_EQ(levels[0], 1.0f);
  vextest::PlanarBlock masked(2, 800, 1.0f);
  comp.Process(masked.Pointers(), masked.Pointers(), 800, Mask(0b01));
  EXPECT_EQ(masked.Channel(0), std::vector<float>(800, 1.0f));
  comp.GetLevels(levels);
  EXPECT_EQ(levels[0], 0.0f);
  EXPECT_EQ(levels[1], 1.0f);

  const std::vector<float> x = vextest::Noise(9000, 5, 0.8);
  comp.Reset();
  vextest::PlanarBlock whole(2, x.size());
  Fill(whole, x, x);
  comp.Process(whole.Pointers(), whole.Pointers(), static_cast<int>(x.size()), Mask());
  comp.Reset();
  vextest::PlanarBlock split(2, x.size());
  Fill(split, x, x);
  std::size_t done = 0;
  for (std::size_t n : {1u, 7u, 256u, 257u, 1000u}) {
    float* p[2] = {split.Channel(0).data() + done, split.Channel(1).data() + done};
    EXPECT_NO_ALLOCATION(comp.Process(p, p, static_cast<int>(n), Mask()));
    done += n;
  }
  float* p[2] = {split.Channel(0).data() + done, split.Channel(1).data() + done};
  comp.Process(p, p, static_cast<int>(x.size() - done), Mask());
  EXPECT_EQ(split.Channel(0), whole.Channel(0));
}

}  // namespace
