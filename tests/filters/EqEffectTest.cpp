#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "filters/Prototypes.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/host/Response.h"

namespace {

using vextest::Complex;
using vextest::kPi;
using vextest::Prototype;

std::unique_ptr<dsp::host::Effect> Create(const std::string& text) {
  std::string error;
  auto effect = dsp::host::CreateEffect(text, &error);
  EXPECT_TRUE(effect) << error;
  return effect;
}

std::vector<float> Filter(dsp::host::Effect& effect, std::vector<float> x) {
  float* p = x.data();
  effect.Process(&p, &p, 1, static_cast<int>(x.size()));
  return x;
}

const char* const kThreeBands =
    "eq:type1=highpass,freq1=80,q1=0.75,type2=peak,freq2=3000,gain2=-4,q2=2,"
    "type4=lowpass,freq4=12000,q4=1.5";

TEST(EqEffect, TextFormDrivesTheBandsAndTheTransferFunctionIsTheirProduct) {
  auto eq = Create(kThreeBands);
  eq->SetIOConfig(1, 48000.0f);
  eq->Start();
  std::vector<float> impulse(16384, 0.0f);
  impulse[0] = 1.0f;
  const std::vector<float> h = Filter(*eq, impulse);
  const Prototype hp{80.0, 0.75, 0.0}, peak{3000.0, 2.0, -4.0}, lp{12000.0, 1.5, 0.0};
  const std::vector<double> freqs = dsp::host::LogFrequencies(20.0, 20000.0, 30);
  std::vector<Complex> response(freqs.size());
  ASSERT_TRUE(eq->GetTransferFunction(freqs.data(), static_cast<int>(freqs.size()), response.data()));
  for (std::size_t i = 0; i < freqs.size(); ++i) {
    const double f = freqs[i];
    const Complex expected = hp.Highpass(f) * peak.Peak(f) * lp.Lowpass(f);
    EXPECT_NEAR(std::abs(response[i] - expected), 0.0, 1e-9 * std::abs(expected)) << f;
    Complex measured = 0.0;
    for (std::size_t n = 0; n < h.size(); ++n)
      measured += double{h[n]} * std::exp(Complex(0, -2 * kPi * f * n / 48000));
    EXPECT_NEAR(std::abs(measured), std::abs(expected), 1e-4 * std::abs(expected) + 1e-6) << f;
  }

  std::vector<Complex> computed;
  bool measured = true;
  std::string error;
  ASSERT_TRUE(dsp::host::ComputeResponse(*eq, 44100.0, freqs, &computed, &measured, &error)) << error;
  EXPECT_FALSE(measured);
  const Prototype peak441{3000.0, 2.0, -4.0, 44100.0};
  EXPECT_NEAR(std::abs(computed[20]),
              std::abs(Prototype{80.0, 0.75, 0.0, 44100.0}.Highpass(freqs[20]) * peak441.Peak(freqs[20]) *
                       Prototype{12000.0, 1.5, 0.0, 44100.0}.Lowpass(freqs[20])),
              1e-9);
}

TEST(EqEffect, DefaultsPassTheSignalAndOffBandsAreSkipped) {
  auto eq = Create("eq:gain1=12,gain3=-20,freq5=20000,q6=30");
  eq->SetIOConfig(2, 48000.0f);
  eq->Start();
  EXPECT_EQ(eq->GetTailFrames(), 0);
  std::vector<float> a = vextest::Noise(3000, 1), b = vextest::Noise(3000, 2);
  std::vector<float> a0 = a, b0 = b;
  float* p[] = {a.data(), b.data()};
  eq->Process(p, p, 2, 3000);
  EXPECT_EQ(a, a0);
  EXPECT_EQ(b, b0);
}

TEST(EqEffect, ParameterChangesWhileRunningKeepTheFilterState) {
  // Moving the gain between blocks must continue from the running state: the
  // output equals a library equaliser given the same change at the same
  // sample, not a restarted one.
  auto eq = Create("eq:type1=peak,freq1=1000,gain1=6,q1=4");
  eq->SetIOConfig(1, 48000.0f);
  eq->Start();
  const std::vector<float> x = vextest::Noise(4000, 3);
  std::vector<float> first(x.begin(), x.begin() + 2000), second(x.begin() + 2000, x.end());
  Filter(*eq, first);
  eq->SetValue(eq->FindParam("gain1"), -6.0);
  const std::vector<float> continued = Filter(*eq, second);
  auto restarted = Create("eq:type1=peak,freq1=1000,gain1=-6,q1=4");
  restarted->SetIOConfig(1, 48000.0f);
  restarted->Start();
  const std::vector<float> cold = Filter(*restarted, second);
  EXPECT_GT(std::fabs(continued[0] - cold[0]), 1e-4) << "the state carried over";
  EXPECT_LT(vextest::MaxAbsDiff(std::vector<float>(continued.end() - 100, continued.end()),
                                std::vector<float>(cold.end() - 100, cold.end())),
            1e-5)
      << "and has rung out by the end";
}

TEST(EqEffect, TailCoversTheSlowestBandAndExtremesStayFinite) {
  auto eq = Create(
      "eq:type1=lowpass,freq1=10,q1=40,type2=peak,gain2=30,q2=40,freq2=47000,type3=highpass,"
      "freq3=48000,type4=peak,freq4=10,gain4=-30,q4=0.1,type5=lowpass,freq5=24000,q5=40,"
      "type6=peak,freq6=24000,gain6=30,q6=40");
  eq->SetIOConfig(1, 48000.0f);
  eq->Start();
  EXPECT_EQ(eq->GetTailFrames(), 480000) << "capped at ten seconds";
  std::vector<float> loud = vextest::Noise(4800, 4);
  loud.resize(loud.size() + 48000, 0.0f);
  for (float v : Filter(*eq, loud)) ASSERT_TRUE(std::isfinite(v) && (v == 0.0f || std::fabs(v) >= FLT_MIN)) << v;

  auto short_ = Create("eq:type1=peak,freq1=1000,gain1=6,q1=1");
  short_->SetIOConfig(1, 48000.0f);
  short_->Start();
  // The tail lasts until the slowest pole has decayed by 100 dB: the poles of
  // the analog peak s^2 + s W0 / (A q) + W0^2, carried by z = (1 + s) / (1 - s).
  const Prototype peak{1000.0, 1.0, 6.0};
  const double w0 = peak.W0(), b = w0 / (peak.A() * peak.q);
  const Complex s = (-b + std::sqrt(Complex(b * b - 4.0 * w0 * w0))) / 2.0;
  const double radius = std::abs((1.0 + s) / (1.0 - s));
  EXPECT_NEAR(static_cast<double>(short_->GetTailFrames()), std::log(1e-5) / std::log(radius), 1.0);
}

}  // namespace
