#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioProcessor.h"
#include "vexaudiodsp/buffering/Initializer.h"

namespace {

using dsp::AudioProcessor;

constexpr double kPi = 3.14159265358979323846;

// Exposes the protected Bessel helpers and records how the base reconfigures.
class ProbeProcessor : public AudioProcessor {
 public:
  using AudioProcessor::BesselI0;
  using AudioProcessor::I0;

  explicit ProbeProcessor(bool* destroyed = nullptr) : destroyed_(destroyed) {}
  ~ProbeProcessor() override {
    if (destroyed_ != nullptr) *destroyed_ = true;
  }
  void SetMode(int numChannels, int samplingRate, int maxBlockSize) override {
    ++setModeCalls;
    AudioProcessor::SetMode(numChannels, samplingRate, maxBlockSize);
  }
  int setModeCalls = 0;

 private:
  bool* destroyed_;
};

double ReferenceI0(double x) { return std::cyl_bessel_i(0.0, x); }

// Normalisation as documented: 0 -> divide by RMS, 1 -> by mean, 2 -> none.
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

std::vector<double> ReferenceKaiser(int size, double beta) {
  std::vector<double> w(static_cast<std::size_t>(size), 1.0);
  if (size == 1) return w;
  for (int i = 0; i < size; ++i) {
    const double r = 2.0 * i / (size - 1) - 1.0;
    w[static_cast<std::size_t>(i)] = ReferenceI0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r))) / ReferenceI0(beta);
  }
  return w;
}

// Kaiser-Bessel-derived window of even size 2M straight from its definition.
std::vector<double> ReferenceKbd(int size, double alpha) {
  const int m = size / 2;
  std::vector<double> kaiser = ReferenceKaiser(m + 1, kPi * alpha);
  double total = 0.0;
  for (double v : kaiser) total += v;
  std::vector<double> w(static_cast<std::size_t>(size));
  double running = 0.0;
  for (int n = 0; n < m; ++n) {
    running += kaiser[static_cast<std::size_t>(n)];
    w[static_cast<std::size_t>(n)] = std::sqrt(running / total);
    w[static_cast<std::size_t>(size - 1 - n)] = w[static_cast<std::size_t>(n)];
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

  for (int size : {1, 2, 3, 4, 7, 16, 255, 1024}) {
    for (float power : {1.0f, 2.0f, 0.5f}) {
      for (int normMode : {0, 1, 2}) {
        std::vector<double> ref(static_cast<std::size_t>(size));
        for (int i = 0; i < size; ++i)
          ref[static_cast<std::size_t>(i)] = std::pow(0.5 * (1.0 - std::cos(2.0 * kPi * (i + 0.5) / size)), power);
        ref = Normalised(ref, normMode);
        std::vector<float> w(static_cast<std::size_t>(size), -7.0f);
        AudioProcessor::HanningWindow(w.data(), size, normMode, power);
        for (int i = 0; i < size; ++i)
          ASSERT_NEAR(w[static_cast<std::size_t>(i)], ref[static_cast<std::size_t>(i)],
                      1e-6 * ref[static_cast<std::size_t>(i)] + 1e-9)
              << "size " << size << " power " << power << " mode " << normMode << " i " << i;
      }
    }
  }
}

TEST(AudioProcessorWindows, KaiserMultipliesDataByTheBesselWindow) {
  for (int size : {1, 2, 5, 64, 65, 1000}) {
    for (double beta : {0.0, 3.0, 8.6, 14.0}) {
      for (int normMode : {0, 1, 2}) {
        const std::vector<double> window = ReferenceKaiser(size, beta);
        // The normalisation uses the window values, not the data.
        const std::vector<double> scaled = Normalised(window, normMode);
        const double gain = scaled[0] / window[0];
        const std::vector<float> data = vextest::Noise(static_cast<std::size_t>(size), 11u + size);

        std::vector<float> f(data);
        std::vector<double> d(data.begin(), data.end());
        EXPECT_NO_ALLOCATION(AudioProcessor::ApplyKaiserWindow(f.data(), size, beta, normMode));
        EXPECT_NO_ALLOCATION(AudioProcessor::ApplyKaiserWindow(d.data(), size, beta, normMode));
        for (int i = 0; i < size; ++i) {
          const std::size_t k = static_cast<std::size_t>(i);
          const double expected = data[k] * window[k] * gain;
          ASSERT_NEAR(f[k], expected, 1e-5 * std::fmax(1.0, std::fabs(expected)))
              << "size " << size << " beta " << beta << " i " << i;
          ASSERT_NEAR(d[k], expected, 1e-8 * std::fmax(1.0, std::fabs(expected)))
              << "size " << size << " beta " << beta << " i " << i;
        }
      }
    }
  }
}

TEST(AudioProcessorWindows, KbdSatisfiesPrincenBradleyAndMatchesDefinition) {
  for (int size : {2, 4, 16, 256, 2048}) {
    for (float alpha : {0.0f, 1.0f, 4.0f, 6.0f, 9.0f}) {
      std::vector<float> w(static_cast<std::size_t>(size));
      EXPECT_NO_ALLOCATION(AudioProcessor::KBDWindow(w.data(), size, alpha));
      const std::vector<double> ref = ReferenceKbd(size, alpha);
      const int half = size / 2;
      for (int n = 0; n < size; ++n) {
        const std::size_t k = static_cast<std::size_t>(n);
        ASSERT_NEAR(w[k], ref[k], 2e-6) << "size " << size << " alpha " << alpha << " n " << n;
        ASSERT_EQ(w[k], w[static_cast<std::size_t>(size - 1 - n)]);
      }
      for (int n = 0; n < half; ++n) {
        const double a = w[static_cast<std::size_t>(n)];
        const double b = w[static_cast<std::size_t>(n + half)];
        ASSERT_NEAR(a * a + b * b, 1.0, 1e-6) << "size " << size << " alpha " << alpha << " n " << n;
        if (n > 0) {
          ASSERT_GE(w[static_cast<std::size_t>(n)], w[static_cast<std::size_t>(n - 1)]);
        }
      }
    }
  }
  // alpha 0 makes the Kaiser kernel flat: w[n] = sqrt((n + 1) / (M + 1)).
  std::vector<float> flat(8);
  AudioProcessor::KBDWindow(flat.data(), 8, 0.0f);
  for (int n = 0; n < 4; ++n) EXPECT_NEAR(flat[static_cast<std::size_t>(n)], std::sqrt((n + 1) / 5.0), 1e-7);
}

TEST(AudioProcessorWindows, KbdOddSizesUseTheEvenHalvesAroundAUnitCentre) {
  float one = 0.0f;
  AudioProcessor::KBDWindow(&one, 1, 4.0f);
  EXPECT_EQ(one, 1.0f);

  for (int half : {1, 3, 64}) {
    const int size = 2 * half + 1;
    std::vector<float> odd(static_cast<std::size_t>(size));
    std::vector<float> even(static_cast<std::size_t>(2 * half));
    AudioProcessor::KBDWindow(odd.data(), size, 4.0f);
    AudioProcessor::KBDWindow(even.data(), 2 * half, 4.0f);
    EXPECT_EQ(odd[static_cast<std::size_t>(half)], 1.0f);
    for (int n = 0; n < half; ++n) {
      EXPECT_EQ(odd[static_cast<std::size_t>(n)], even[static_cast<std::size_t>(n)]);
      EXPECT_EQ(odd[static_cast<std::size_t>(size - 1 - n)], even[static_cast<std::size_t>(n)]);
    }
  }
}

TEST(AudioProcessorBessel, SeriesAndRationalFormsAgreeWithTheLibraryFunction) {
  double worstRational = 0.0;
  double worstSeries = 0.0;
  for (int k = 0; k <= 2000; ++k) {
    const double x = k * 0.01;
    const double ref = ReferenceI0(x);
    worstRational = std::fmax(worstRational, std::fabs(ProbeProcessor::BesselI0(x) - ref) / ref);
    worstSeries = std::fmax(worstSeries, std::fabs(ProbeProcessor::I0(x) - ref) / ref);
  }
  EXPECT_LT(worstRational, 1e-6);
  EXPECT_LT(worstSeries, 1e-9);
  EXPECT_EQ(ProbeProcessor::BesselI0(0.0), 1.0);
  EXPECT_EQ(ProbeProcessor::I0(0.0), 1.0);
  // The series keeps its accuracy where the rational form is no longer used.
  for (double x : {25.0, 35.0, 45.0}) EXPECT_NEAR(ProbeProcessor::I0(x) / ReferenceI0(x), 1.0, 1e-9) << x;
  // I0 is even.
  EXPECT_DOUBLE_EQ(ProbeProcessor::I0(-3.5), ProbeProcessor::I0(3.5));
  EXPECT_DOUBLE_EQ(ProbeProcessor::BesselI0(-3.5), ProbeProcessor::BesselI0(3.5));
}

TEST(AudioProcessorLevels, DecibelConversionsAreAnInversePairWithAFloor) {
  EXPECT_EQ(AudioProcessor::Amp2DB(0.0f), -400.0f);
  EXPECT_EQ(AudioProcessor::Amp2DB(1e-21f), -400.0f);
  EXPECT_EQ(AudioProcessor::Amp2DB(-0.5f), -400.0f);
  EXPECT_GT(AudioProcessor::Amp2DB(2e-20f), -400.0f);
  EXPECT_NEAR(AudioProcessor::Amp2DB(1.0f), 0.0f, 1e-7);
  EXPECT_NEAR(AudioProcessor::Amp2DB(10.0f), 20.0f, 1e-5);
  EXPECT_NEAR(AudioProcessor::Amp2DB(0.5f), 20.0 * std::log10(0.5), 1e-5);
  EXPECT_NEAR(AudioProcessor::DB2Amp(-20.0f), 0.1, 1e-7);
  EXPECT_NEAR(AudioProcessor::DB2Amp(6.0f), std::pow(10.0, 6.0 / 20.0), 1e-6);

  for (double dB = -120.0; dB <= 60.0; dB += 0.37) {
    const float amp = AudioProcessor::DB2Amp(static_cast<float>(dB));
    ASSERT_NEAR(amp / std::pow(10.0, dB / 20.0), 1.0, 1e-6) << dB;
    ASSERT_NEAR(AudioProcessor::Amp2DB(amp), dB, 1e-4) << dB;
  }
  for (double amp = 1e-6; amp < 1e3; amp *= 1.7) {
    const float back = AudioProcessor::DB2Amp(AudioProcessor::Amp2DB(static_cast<float>(amp)));
    ASSERT_NEAR(back / amp, 1.0, 2e-6) << amp;
  }
}

TEST(AudioProcessorLevels, TimeToIirAGivesTheOnePoleTimeConstant) {
  EXPECT_EQ(AudioProcessor::TimeToIirA(0.0f, 48000.0f), 1.0f);
  for (float time : {0.001f, 0.01f, 0.1f}) {
    const float rate = 48000.0f;
    const float a = AudioProcessor::TimeToIirA(time, rate);
    EXPECT_NEAR(a, 1.0 - std::exp(-1.0 / (static_cast<double>(time) * rate)), 1e-7);
    // A unit step through y += a (x - y) reaches 1 - 1/e after time * rate
    // samples.
    const int samples = static_cast<int>(std::lround(time * rate));
    double y = 0.0;
    for (int n = 0; n < samples; ++n) y += a * (1.0 - y);
    EXPECT_NEAR(y, 1.0 - std::exp(-1.0), 2e-4) << time;
  }
}

TEST(AudioProcessorDecisions, FindMaxAndSoftDecision) {
  const float data[] = {1.0f, 5.0f, 3.0f, 5.0f, 2.0f, -1.0f, -3.0f, -2.0f};
  EXPECT_EQ(AudioProcessor::FindMax(data, 0, 7), 1);  // earliest of the tie
  EXPECT_EQ(AudioProcessor::FindMax(data, 2, 4), 3);
  EXPECT_EQ(AudioProcessor::FindMax(data, 5, 7), 5);  // signed, not magnitude
  EXPECT_EQ(AudioProcessor::FindMax(data, 6, 7), 7);
  EXPECT_EQ(AudioProcessor::FindMax(data, 4, 4), 4);
  EXPECT_EQ(AudioProcessor::FindMax(data, 4, 2), 4);

  EXPECT_EQ(AudioProcessor::SoftDecision(-1.0f, 0.0f, 2.0f), 0.0f);
  EXPECT_EQ(AudioProcessor::SoftDecision(0.0f, 0.0f, 2.0f), 0.0f);
  EXPECT_EQ(AudioProcessor::SoftDecision(2.0f, 0.0f, 2.0f), 1.0f);
  EXPECT_EQ(AudioProcessor::SoftDecision(5.0f, 0.0f, 2.0f), 1.0f);
  EXPECT_FLOAT_EQ(AudioProcessor::SoftDecision(0.5f, 0.0f, 2.0f), 0.25f);
  EXPECT_FLOAT_EQ(AudioProcessor::SoftDecision(-15.0f, -20.0f, -10.0f), 0.5f);
}

TEST(AudioProcessorMode, ProcessGrowsTheBlockSizeThroughSetMode) {
  bool destroyed = false;
  {
    vexcore::utility::RefPtr<ProbeProcessor> p = vexcore::utility::MakeRef<ProbeProcessor>(&destroyed);
    EXPECT_EQ(p->GetMaxBlockSize(), 0);
    EXPECT_EQ(p->GetNumChannels(), 0);
    EXPECT_EQ(p->GetSamplingRate(), 0);
    EXPECT_EQ(p->GetSystemDelay(), 0);
    EXPECT_EQ(p->GetLookAhead(), 0);

    p->SetMode(2, 48000, 512);
    EXPECT_EQ(p->setModeCalls, 1);
    vextest::PlanarBlock in(2, 2048, 0.25f), out(2, 2048, 9.0f);
    p->Process(in.Pointers(), 512, out.Pointers());
    p->Process(in.Pointers(), 100, out.Pointers());
    EXPECT_EQ(p->setModeCalls, 1);
    p->Process(in.Pointers(), 2048, out.Pointers());
    EXPECT_EQ(p->setModeCalls, 2);
    EXPECT_EQ(p->GetMaxBlockSize(), 2048);
    EXPECT_EQ(p->GetNumChannels(), 2);
    EXPECT_EQ(p->GetSamplingRate(), 48000);
    EXPECT_EQ(out.Channel(0)[0], 9.0f);  // the base does no processing

    p->ChangeBufferSize(64);
    EXPECT_EQ(p->GetMaxBlockSize(), 64);
    EXPECT_EQ(p->GetSamplingRate(), 48000);
    p->SetSystemDelay(17);
    p->SetLookAhead(33);
    p->Reset();
    EXPECT_EQ(p->GetSystemDelay(), 17);
    EXPECT_EQ(p->GetLookAhead(), 33);

    vexcore::utility::RefPtr<AudioProcessor> second(p.get());
    EXPECT_EQ(p->GetRefCount(), 2);
    p.reset();
    EXPECT_FALSE(destroyed);
  }
  EXPECT_TRUE(destroyed);
}

TEST(InitializerTest, FlagFollowsInitializeAndTerminate) {
  dsp::Initializer init;
  EXPECT_FALSE(init.IsInitialized());
  init.Initialize();
  EXPECT_TRUE(init.IsInitialized());
  init.Initialize();
  EXPECT_TRUE(init.IsInitialized());
  init.Terminate();
  EXPECT_FALSE(init.IsInitialized());
}

}  // namespace
