#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/stereo/StereoExpanderDSP.h"

namespace {

using dsp::StereoExpanderDSP;

// Runs a noise pair through the expander out of place and checks every frame
// against out = M (L, R) for the matrix given.
void ExpectMatrix(StereoExpanderDSP& expander, float m0, float m1, float m2, float m3) {
  const std::size_t n = 257;
  std::vector<float> l = vextest::Noise(n, 1);
  std::vector<float> r = vextest::Noise(n, 2);
  std::vector<float> outL(n), outR(n);
  float* in[] = {l.data(), r.data()};
  float* out[] = {outL.data(), outR.data()};
  EXPECT_NO_ALLOCATION(expander.Process(in, out, static_cast<int>(n)));
  for (std::size_t i = 0; i < n; ++i) {
    ASSERT_NEAR(outL[i], m0 * l[i] + m2 * r[i], 2e-6) << "frame " << i;
    ASSERT_NEAR(outR[i], m1 * l[i] + m3 * r[i], 2e-6) << "frame " << i;
  }
}

TEST(StereoExpander, MatrixAtTheDesignPoints) {
  StereoExpanderDSP expander;
  ExpectMatrix(expander, 1.0f, 0.0f, 0.0f, 1.0f);  // defaults: unchanged

  expander.SetParameter(1, 0.0f);  // mono: both carry the mean
  ExpectMatrix(expander, 0.5f, 0.5f, 0.5f, 0.5f);

  expander.SetParameter(1, 300.0f);  // L' = 2L - R, R' = 2R - L
  ExpectMatrix(expander, 2.0f, -1.0f, -1.0f, 2.0f);

  // A full shift keeps a centred source's level: rows of norm 1.
  const float h = std::sqrt(0.5f);
  expander.SetParameter(0, 100.0f);
  expander.SetParameter(1, 100.0f);
  ExpectMatrix(expander, h, h, -h, h);
  expander.SetParameter(0, -100.0f);
  ExpectMatrix(expander, h, -h, h, h);
}

// Between the design points: the shift moves a centred source (L = R) toward
// one side, and at 50 % width a shift of 0 halves the side signal.
TEST(StereoExpander, ShiftMovesTheCentreAndWidthScalesTheSide) {
  StereoExpanderDSP expander;
  expander.SetParameter(1, 50.0f);
  // Mid (L + R)/2 kept, side (L - R)/2 halved.
  ExpectMatrix(expander, 0.75f, 0.25f, 0.25f, 0.75f);

  expander.SetParameter(0, 50.0f);
  expander.SetParameter(1, 100.0f);
  expander.Resume();
  const float* m = expander.GetMatrix();
  const float centreL = m[0] + m[2];
  const float centreR = m[1] + m[3];
  EXPECT_GT(centreR, centreL) << "a positive shift moves the centre to the right";
  // k = 0.25 / sqrt(1 - 0.75 * 0.5); with w = 1 the left gain of a centred
  // source is 2 (1.5 - 0.5) k and the right one 2 (1.5 + 0.5) k.
  const double k = 0.25 / std::sqrt(1.0 - 0.75 * 0.5);
  EXPECT_NEAR(centreL, 2.0 * k, 1e-6);
  EXPECT_NEAR(centreR, 4.0 * k, 1e-6);
}

TEST(StereoExpander, InPlaceChannelCountsAndIndexes) {
  StereoExpanderDSP expander;
  expander.SetParameter(1, 300.0f);
  // In place: both inputs are read before either output is written.
  std::vector<float> l{1.0f, 0.5f}, r{0.25f, -1.0f};
  float* io[] = {l.data(), r.data()};
  expander.Process(io, io, 2);
  EXPECT_FLOAT_EQ(l[0], 1.75f);
  EXPECT_FLOAT_EQ(r[0], -0.5f);
  EXPECT_FLOAT_EQ(l[1], 2.0f);
  EXPECT_FLOAT_EQ(r[1], -2.5f);

  // Four channels: 2 and 3 of the output keep what they held.
  expander.SetChannels(4);
  std::vector<std::vector<float>> in(4, std::vector<float>(8, 0.3f)), out(4, std::vector<float>(8, 7.0f));
  float* inP[] = {in[0].data(), in[1].data(), in[2].data(), in[3].data()};
  float* outP[] = {out[0].data(), out[1].data(), out[2].data(), out[3].data()};
  expander.Process(inP, outP, 8);
  EXPECT_FLOAT_EQ(out[0][3], 0.3f);
  EXPECT_EQ(out[2], std::vector<float>(8, 7.0f));
  EXPECT_EQ(out[3], std::vector<float>(8, 7.0f));

  // Mono: an exact copy whatever the parameters; 0 channels or frames: nothing.
  expander.SetChannels(1);
  const std::vector<float> noise = vextest::Noise(100, 3);
  std::vector<float> mono(100, 9.0f);
  float* monoIn[] = {const_cast<float*>(noise.data())};
  float* monoOut[] = {mono.data()};
  expander.Process(monoIn, monoOut, 100);
  EXPECT_EQ(mono, noise);
  expander.SetChannels(0);
  mono.assign(100, 9.0f);
  expander.Process(monoIn, monoOut, 100);
  expander.SetChannels(2);
  expander.Process(monoIn, monoOut, 0);
  expander.Process(monoIn, monoOut, -5);
  EXPECT_EQ(mono, std::vector<float>(100, 9.0f));

  // Index 2 and negative indexes are ignored and read as 0; NaN is ignored.
  expander.SetParameter(2, 50.0f);
  expander.SetParameter(-1, 50.0f);
  expander.SetParameter(0, std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(expander.GetParameter(2), 0.0f);
  EXPECT_EQ(expander.GetParameter(-1), 0.0f);
  EXPECT_EQ(expander.GetParameter(0), 0.0f);
  EXPECT_EQ(expander.GetParameter(1), 300.0f);
  float lo = -7.0f, hi = -7.0f;
  expander.GetBounds(2, lo, hi);
  EXPECT_EQ(lo, -7.0f);
  expander.GetBounds(0, lo, hi);
  EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(-100.0f, 100.0f));
  expander.GetBounds(1, lo, hi);
  EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(0.0f, 300.0f));
  // Values beyond the bounds are stored as given.
  expander.SetParameter(1, 400.0f);
  EXPECT_EQ(expander.GetParameter(1), 400.0f);
}

// A change applies at the next block (or Resume), not before; Suspend does
// not stop processing.
TEST(StereoExpander, ChangesApplyAtTheNextBlock) {
  StereoExpanderDSP expander;
  expander.Resume();
  expander.SetParameter(1, 0.0f);
  EXPECT_EQ(expander.GetMatrix()[1], 0.0f) << "not recomputed before the block";
  expander.Suspend();
  EXPECT_FALSE(expander.IsActive());
  ExpectMatrix(expander, 0.5f, 0.5f, 0.5f, 0.5f);
}

}  // namespace
