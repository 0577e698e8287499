#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "vexaudiodsp/utils/FFTWindow.h"

namespace {

const double kPi = std::acos(-1.0);

std::vector<double> Window(int size, double fraction, unsigned flags, double param = 0.0) {
  std::vector<double> w(size, -1.0);
  EXPECT_TRUE(dsp::GetFFTWindow(w.data(), size, fraction, flags, param));
  return w;
}

TEST(FFTWindow, TriangleWithFractionHasLeadingZerosAndGain) {
  // size 16, fraction 0.5: body 8 after 4 zeros, (1 - |1 - 2i/8|) x 2.
  const std::vector<double> w = Window(16, 0.5, dsp::kFFTWindowTriangle);
  for (int i = 0; i < 16; ++i) {
    const int j = i - 4;
    const double expect = (j >= 0 && j < 8) ? 2.0 * (1.0 - std::fabs(1.0 - 2.0 * j / 8.0)) : 0.0;
    EXPECT_NEAR(w[i], expect, 1e-15) << i;
  }
  // 2 floor(0.3 x 10 / 2) = 2 points after 4 zeros.
  const std::vector<double> odd = Window(10, 0.3, dsp::kFFTWindowTriangle);
  EXPECT_EQ(odd[3], 0.0);
  EXPECT_NEAR(odd[5], 1.0 / 0.3, 1e-12);
  EXPECT_EQ(odd[6], 0.0);
}

TEST(FFTWindow, PeriodicShapesMatchTheirClosedForms) {
  const int n = 64;
  const std::vector<double> hann = Window(n, 1.0, dsp::kFFTWindowHann);
  const std::vector<double> hamming = Window(n, 1.0, dsp::kFFTWindowHamming);
  const std::vector<double> blackman = Window(n, 1.0, dsp::kFFTWindowBlackman);
  const std::vector<double> kaiser = Window(n, 1.0, dsp::kFFTWindowKaiser, 5.0);
  for (int i = 0; i < n; ++i) {
    const double x = 2.0 * kPi * i / n;
    EXPECT_NEAR(hann[i], 0.5 - 0.5 * std::cos(x), 1e-12) << i;
    EXPECT_NEAR(hamming[i], 0.54 - 0.46 * std::cos(x), 1e-12) << i;
    EXPECT_NEAR(blackman[i], 0.42 - 0.5 * std::cos(x) + 0.08 * std::cos(2 * x), 1e-12) << i;
    const double t = 2.0 * i / n - 1.0;
    EXPECT_NEAR(kaiser[i], std::cyl_bessel_i(0.0, 5.0 * std::sqrt(1.0 - t * t)) / std::cyl_bessel_i(0.0, 5.0), 1e-12);
  }
  // Periodic Hann at hop N/2 sums to 1.
  for (int i = 0; i < n / 2; ++i) EXPECT_NEAR(hann[i] + hann[i + n / 2], 1.0, 1e-12);
}

TEST(FFTWindow, BlackmanHarrisOfTheNoisePrintTools) {
  const int n = 32;
  const std::vector<double> w = Window(n, 1.0, dsp::kFFTWindowBlackmanHarris);
  EXPECT_EQ(w[0], 0.0);
  EXPECT_EQ(w[n / 2], 1.0);
  for (int i = 0; i <= n / 2 - 2; ++i) {
    const double f = 0.35875 - 0.48829 * std::cos(2 * kPi * i / n) + 0.14128 * std::cos(4 * kPi * i / (n - 1)) -
                     0.01168 * std::cos(6 * kPi * i / n);
    EXPECT_NEAR(w[i + 1], f, 1e-15) << i;
    EXPECT_NEAR(w[n - 1 - i], f, 1e-15) << i;
  }
}

TEST(FFTWindow, HalvesSquareRootAndBadArguments) {
  const std::vector<double> full = Window(32, 1.0, dsp::kFFTWindowHann);
  const std::vector<double> rising = Window(16, 1.0, dsp::kFFTWindowHann | dsp::kFFTWindowFirstHalf);
  const std::vector<double> falling = Window(16, 1.0, dsp::kFFTWindowHann | dsp::kFFTWindowSecondHalf);
  const std::vector<double> root = Window(32, 1.0, dsp::kFFTWindowHann | dsp::kFFTWindowSqrt);
  for (int i = 0; i < 16; ++i) {
    EXPECT_NEAR(rising[i], full[i], 1e-15);
    EXPECT_NEAR(falling[i], full[i + 16], 1e-15);
  }
  for (int i = 0; i < 32; ++i) EXPECT_NEAR(root[i] * root[i], full[i], 1e-15);

  double out[4] = {7, 7, 7, 7};
  EXPECT_FALSE(dsp::GetFFTWindow(out, 4, 1.0, 6, 0.0));
  EXPECT_FALSE(dsp::GetFFTWindow(out, 0, 1.0, 1, 0.0));
  EXPECT_FALSE(dsp::GetFFTWindow(nullptr, 4, 1.0, 1, 0.0));
  EXPECT_EQ(out[0], 7.0);
  EXPECT_TRUE(dsp::GetFFTWindow(out, 4, 0.0, 1, 0.0));
  EXPECT_EQ(out[0], 0.0);
}

}  // namespace
