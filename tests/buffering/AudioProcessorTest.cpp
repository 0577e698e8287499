#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioProcessor.h"

namespace {

using dsp::AudioProcessor;

constexpr double kPi = 3.14159265358979323846;

struct ProbeProcessor : AudioProcessor {  // exposes the protected Bessel helpers
  using AudioProcessor::BesselI0;
  using AudioProcessor::I0;
};

double RefI0(double x) { return std::cyl_bessel_i(0.0, x); }

// What a window is divided by: 0 its RMS, 1 its mean, 2 nothing.
double Level(const std::vector<double>& w, int normMode) {
  double sum = 0.0, squares = 0.0;
  for (double v : w) sum += v, squares += v * v;
  const double n = static_cast<double>(w.size());
  return normMode == 0 ? std::sqrt(squares / n) : normMode == 1 ? sum / n : 1.0;
}

std::vector<double> RefKaiser(int size, double beta) {
  std::vector<double> w(static_cast<std::size_t>(size), 1.0);
  for (int i = 0; size > 1 && i < size; ++i) {
    const double r = 2.0 * i / (size - 1) - 1.0;
    w[static_cast<std::size_t>(i)] = RefI0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r))) / RefI0(beta);
  }
  return w;
}

TEST(AudioProcessorWindows, HanningMatchesClosedForm) {
  float w4[4];
  EXPECT_NO_ALLOCATION(AudioProcessor::HanningWindow(w4, 4, 2, 1.0f));
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(w4[i], i == 0 || i == 3 ? 0.1464466 : 0.8535534, 1e-7) << i;
  std::vector<double> ref(1024);  // periodic, squared, RMS-normalised
  for (std::size_t i = 0; i < ref.size(); ++i) ref[i] = std::pow(std::sin(kPi * (i + 0.5) / 1024.0), 4.0);
  const double rms = Level(ref, 0);
  std::vector<float> w(1024);
  AudioProcessor::HanningWindow(w.data(), 1024, 0, 2.0f);
  for (std::size_t i = 0; i < w.size(); ++i) ASSERT_NEAR(w[i], ref[i] / rms, 1e-6 * ref[i] + 1e-9) << i;
}

TEST(AudioProcessorWindows, KaiserMultipliesDataByTheBesselWindow) {
  for (int size : {1, 2, 65, 1000}) {
    for (double beta : {0.0, 3.0, 8.6, 14.0}) {
      for (int normMode : {0, 1, 2}) {
        const std::vector<double> window = RefKaiser(size, beta);
        const double gain = 1.0 / Level(window, normMode);  // from the window, not the data
        const std::vector<float> data = vextest::Noise(static_cast<std::size_t>(size), 11u + size);
        std::vector<float> f(data);
        std::vector<double> d(data.begin(), data.end());
        EXPECT_NO_ALLOCATION(AudioProcessor::ApplyKaiserWindow(f.data(), size, beta, normMode));
        AudioProcessor::ApplyKaiserWindow(d.data(), size, beta, normMode);
        for (std::size_t k = 0; k < data.size(); ++k) {
          const double expected = data[k] * window[k] * gain, tol = std::fmax(1.0, std::fabs(expected));
          ASSERT_NEAR(f[k], expected, 1e-5 * tol) << size << " " << beta << " " << k;
          ASSERT_NEAR(d[k], expected, 1e-8 * tol) << size << " " << beta << " " << k;
        }
      }
    }
  }
}

TEST(AudioProcessorWindows, KbdSatisfiesPrincenBradleyAndMatchesDefinition) {
  for (int half : {1, 8, 1024}) {
    for (float alpha : {0.0f, 4.0f, 9.0f}) {
      const int size = 2 * half;
      const std::vector<double> kaiser = RefKaiser(half + 1, kPi * alpha);
      double total = 0.0, running = 0.0;
      for (double v : kaiser) total += v;
      std::vector<float> w(static_cast<std::size_t>(size));
      EXPECT_NO_ALLOCATION(AudioProcessor::KBDWindow(w.data(), size, alpha));
      for (std::size_t k = 0; k < static_cast<std::size_t>(half); ++k) {
        const std::size_t mirror = static_cast<std::size_t>(size) - 1 - k, m = k + static_cast<std::size_t>(half);
        running += kaiser[k];
        ASSERT_NEAR(w[k], std::sqrt(running / total), 2e-6) << size << " " << alpha << " " << k;
        ASSERT_NEAR(w[k] * w[k] + w[m] * w[m], 1.0, 1e-6);
        ASSERT_EQ(w[mirror], w[k]);
      }
    }
  }
}

TEST(AudioProcessorBessel, SeriesAndRationalFormsAgreeWithTheLibraryFunction) {
  double worstRational = 0.0, worstSeries = 0.0;
  for (int k = 0; k <= 2000; ++k) {
    const double x = k * 0.01, ref = RefI0(x);
    worstRational = std::fmax(worstRational, std::fabs(ProbeProcessor::BesselI0(x) - ref) / ref);
    worstSeries = std::fmax(worstSeries, std::fabs(ProbeProcessor::I0(x) - ref) / ref);
  }
  EXPECT_LT(worstRational, 1e-6);
  EXPECT_LT(worstSeries, 1e-9);
  for (double x : {25.0, 45.0}) EXPECT_NEAR(ProbeProcessor::I0(x) / RefI0(x), 1.0, 1e-9) << x;  // beyond the rational
}

TEST(AudioProcessorLevels, DecibelsAndTimeConstants) {
  for (float a : {0.0f, 1e-21f, -0.5f}) EXPECT_EQ(AudioProcessor::Amp2DB(a), -400.0f) << a;
  for (double dB = -120.0; dB <= 60.0; dB += 0.37) {
    const double amp = std::pow(10.0, dB / 20.0);
    ASSERT_NEAR(AudioProcessor::DB2Amp(static_cast<float>(dB)) / amp, 1.0, 1e-6) << dB;
    ASSERT_NEAR(AudioProcessor::Amp2DB(static_cast<float>(amp)), dB, 1e-4) << dB;
  }
  EXPECT_EQ(AudioProcessor::TimeToIirA(0.0f, 48000.0f), 1.0f);
  // A unit step through y += a (x - y) reaches 1 - 1/e after time * rate samples.
  const float a = AudioProcessor::TimeToIirA(0.01f, 48000.0f);
  double y = 0.0;
  for (int n = 0; n < 480; ++n) y += a * (1.0 - y);
  EXPECT_NEAR(y, 1.0 - std::exp(-1.0), 2e-4);
}

}  // namespace
