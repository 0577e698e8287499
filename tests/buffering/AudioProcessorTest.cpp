#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioProcessor.h"

namespace {

using dsp::AudioProcessor;

constexpr double kPi = 3.14159265358979323846;

// Exposes the protected Bessel helpers and counts reconfigurations.
class ProbeProcessor : public AudioProcessor {
 public:
  using AudioProcessor::BesselI0;
  using AudioProcessor::I0;
  void SetMode(int numChannels, int samplingRate, int maxBlockSize) override {
    ++setModeCalls;
    AudioProcessor::SetMode(numChannels, samplingRate, maxBlockSize);
  }
  int setModeCalls = 0;
};

double RefI0(double x) { return std::cyl_bessel_i(0.0, x); }

// 0 divides by the RMS, 1 by the mean, 2 leaves the window alone.
std::vector<double> Normalised(std::vector<double> w, int normMode) {
  double sum = 0.0, squares = 0.0;
  for (double v : w) {
    sum += v;
    squares += v * v;
  }
  const double n = static_cast<double>(w.size());
  const double level = normMode == 0 ? std::sqrt(squares / n) : normMode == 1 ? sum / n : 1.0;
  for (double& v : w) v /= level;
  return w;
}

std::vector<double> RefKaiser(int size, double beta) {
  std::vector<double> w(static_cast<std::size_t>(size), 1.0);
  for (int i = 0; size > 1 && i < size; ++i) {
    const double r = 2.0 * i / (size - 1) - 1.0;
    w[static_cast<std::size_t>(i)] = RefI0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r))) / RefI0(beta);
  }
  return w;
}

TEST(AudioProcessorWindows, HanningMatchesClosedFormForEveryNormalisation) {
  EXPECT_NO_ALLOCATION({
    float w4[4];
    AudioProcessor::HanningWindow(w4, 4, 2, 1.0f);
    EXPECT_NEAR(w4[0], 0.1464466, 1e-7);
    EXPECT_NEAR(w4[1], 0.8535534, 1e-7);
    EXPECT_NEAR(w4[2], 0.8535534, 1e-7);
    EXPECT_NEAR(w4[3], 0.1464466, 1e-7);
  });
  for (int size : {1, 2, 7, 16, 1024}) {
    for (float power : {1.0f, 2.0f, 0.5f}) {
      for (int normMode : {0, 1, 2}) {
        std::vector<double> ref(static_cast<std::size_t>(size));
        for (int i = 0; i < size; ++i)
          ref[static_cast<std::size_t>(i)] = std::pow(0.5 * (1.0 - std::cos(2.0 * kPi * (i + 0.5) / size)), power);
        ref = Normalised(ref, normMode);
        std::vector<float> w(static_cast<std::size_t>(size), -7.0f);
        AudioProcessor::HanningWindow(w.data(), size, normMode, power);
        for (std::size_t i = 0; i < w.size(); ++i)
          ASSERT_NEAR(w[i], ref[i], 1e-6 * ref[i] + 1e-9) << size << " " << power << " " << normMode << " " << i;
      }
    }
  }
}

TEST(AudioProcessorWindows, KaiserMultipliesDataByTheBesselWindow) {
  for (int size : {1, 2, 65, 1000}) {
    for (double beta : {0.0, 3.0, 8.6, 14.0}) {
      for (int normMode : {0, 1, 2}) {
        const std::vector<double> window = RefKaiser(size, beta);
        const double gain = Normalised(window, normMode)[0] / window[0];  // from the window, not the data
        const std::vector<float> data = vextest::Noise(static_cast<std::size_t>(size), 11u + size);
        std::vector<float> f(data);
        std::vector<double> d(data.begin(), data.end());
        EXPECT_NO_ALLOCATION(AudioProcessor::ApplyKaiserWindow(f.data(), size, beta, normMode));
        EXPECT_NO_ALLOCATION(AudioProcessor::ApplyKaiserWindow(d.data(), size, beta, normMode));
        for (std::size_t k = 0; k < data.size(); ++k) {
          const double expected = data[k] * window[k] * gain;
          ASSERT_NEAR(f[k], expected, 1e-5 * std::fmax(1.0, std::fabs(expected))) << size << " " << beta << " " << k;
          ASSERT_NEAR(d[k], expected, 1e-8 * std::fmax(1.0, std::fabs(expected))) << size << " " << beta << " " << k;
        }
      }
    }
  }
}

TEST(AudioProcessorWindows, KbdSatisfiesPrincenBradleyAndMatchesDefinition) {
  for (int half : {1, 2, 8, 128, 1024}) {
    for (float alpha : {0.0f, 1.0f, 4.0f, 9.0f}) {
      const int size = 2 * half;
      const std::vector<double> kaiser = RefKaiser(half + 1, kPi * alpha);
      double total = 0.0, running = 0.0;
      for (double v : kaiser) total += v;
      std::vector<float> w(static_cast<std::size_t>(size)), odd(static_cast<std::size_t>(size + 1));
      EXPECT_NO_ALLOCATION(AudioProcessor::KBDWindow(w.data(), size, alpha));
      AudioProcessor::KBDWindow(odd.data(), size + 1, alpha);
      EXPECT_EQ(odd[static_cast<std::size_t>(half)], 1.0f);  // odd sizes: the even halves around a unit centre
      for (int n = 0; n < half; ++n) {
        const std::size_t k = static_cast<std::size_t>(n), mirror = static_cast<std::size_t>(size - 1 - n);
        running += kaiser[k];
        ASSERT_NEAR(w[k], std::sqrt(running / total), 2e-6) << size << " " << alpha << " " << n;
        ASSERT_EQ(w[mirror], w[k]);
        ASSERT_NEAR(w[k] * w[k] + w[k + static_cast<std::size_t>(half)] * w[k + static_cast<std::size_t>(half)], 1.0,
                    1e-6);
        ASSERT_EQ(odd[k], w[k]);
        ASSERT_EQ(odd[mirror + 1], w[k]);
      }
    }
  }
  float one = 0.0f;
  AudioProcessor::KBDWindow(&one, 1, 4.0f);
  EXPECT_EQ(one, 1.0f);
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
  // The series keeps its accuracy where the rational form is no longer used.
  for (double x : {25.0, 45.0}) EXPECT_NEAR(ProbeProcessor::I0(x) / RefI0(x), 1.0, 1e-9) << x;
  EXPECT_DOUBLE_EQ(ProbeProcessor::I0(-3.5), ProbeProcessor::I0(3.5));
  EXPECT_DOUBLE_EQ(ProbeProcessor::BesselI0(-3.5), ProbeProcessor::BesselI0(3.5));
}

TEST(AudioProcessorLevels, DecibelsTimeConstantsAndDecisions) {
  for (float a : {0.0f, 1e-21f, -0.5f}) EXPECT_EQ(AudioProcessor::Amp2DB(a), -400.0f) << a;
  EXPECT_GT(AudioProcessor::Amp2DB(2e-20f), -400.0f);
  for (double dB = -120.0; dB <= 60.0; dB += 0.37) {
    const float amp = AudioProcessor::DB2Amp(static_cast<float>(dB));
    ASSERT_NEAR(amp / std::pow(10.0, dB / 20.0), 1.0, 1e-6) << dB;
    ASSERT_NEAR(AudioProcessor::Amp2DB(amp), dB, 1e-4) << dB;
  }

  // A unit step through y += a (x - y) reaches 1 - 1/e after time * rate samples.
  EXPECT_EQ(AudioProcessor::TimeToIirA(0.0f, 48000.0f), 1.0f);
  for (float time : {0.001f, 0.01f, 0.1f}) {
    const float a = AudioProcessor::TimeToIirA(time, 48000.0f);
    double y = 0.0;
    for (long n = std::lround(time * 48000.0f); n > 0; --n) y += a * (1.0 - y);
    EXPECT_NEAR(y, 1.0 - std::exp(-1.0), 2e-4) << time;
  }

  const float data[] = {1.0f, 5.0f, 3.0f, 5.0f, 2.0f, -1.0f, -3.0f, -2.0f};
  EXPECT_EQ(AudioProcessor::FindMax(data, 0, 7), 1);  // earliest of the tie
  EXPECT_EQ(AudioProcessor::FindMax(data, 5, 7), 5);  // signed, not magnitude
  EXPECT_EQ(AudioProcessor::FindMax(data, 4, 2), 4);
  EXPECT_EQ(AudioProcessor::SoftDecision(-1.0f, 0.0f, 2.0f), 0.0f);
  EXPECT_EQ(AudioProcessor::SoftDecision(5.0f, 0.0f, 2.0f), 1.0f);
  EXPECT_FLOAT_EQ(AudioProcessor::SoftDecision(-15.0f, -20.0f, -10.0f), 0.5f);
}

TEST(AudioProcessorMode, ProcessGrowsTheBlockSizeThroughSetMode) {
  auto p = vexcore::utility::MakeRef<ProbeProcessor>();
  p->SetMode(2, 48000, 512);
  vextest::PlanarBlock in(2, 2048, 0.25f), out(2, 2048, 9.0f);
  p->Process(in.Pointers(), 512, out.Pointers());
  EXPECT_EQ(p->setModeCalls, 1);
  p->Process(in.Pointers(), 2048, out.Pointers());
  EXPECT_EQ(p->setModeCalls, 2);
  EXPECT_EQ(p->GetMaxBlockSize(), 2048);
  EXPECT_EQ(p->GetNumChannels(), 2);
  EXPECT_EQ(p->GetSamplingRate(), 48000);
  EXPECT_EQ(out.Channel(0)[0], 9.0f);  // the base does no processing
}

}  // namespace
