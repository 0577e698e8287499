#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Transform.h"
#include "vexaudiodsp/resample/Resample.h"
#include "vexaudiodsp/resample/ResampleConverter.h"

namespace {

constexpr double kPi = 3.141592653589793238462643383;

std::vector<float> Convert(dsp::Resample& r, const std::vector<float>& in, int block = 0) {
  std::vector<float> out(static_cast<std::size_t>(r.GetOutputBufferSize(static_cast<int>(in.size())) + 8));
  int produced = 0;
  std::vector<float> input = in;
  const int total = static_cast<int>(in.size());
  if (block <= 0) block = total;
  for (int done = 0; done < total; done += block) {
    const int n = std::min(block, total - done);
    produced += r.Process(input.data() + done, out.data() + produced, n);
  }
  out.resize(static_cast<std::size_t>(produced));
  return out;
}

dsp::Resample Make(float from, float to) {
  dsp::Resample r;
  EXPECT_TRUE(r.SetSampleRates(from, to));
  EXPECT_TRUE(r.Initialize());
  return r;
}

// Level in dB of every bin of a Kaiser-windowed (beta 20, side lobes far
// below -200 dB) spectrum of 16384 samples, relative to a full-scale sine.
std::vector<double> SpectrumDb(const float* x) {
  constexpr int kOrder = 14, kN = 1 << kOrder;
  vexaccelerate::FFTState_Double* state = nullptr;
  vexaccelerate::transform::FFTInit(&state, kOrder);
  std::vector<double> buf(kN + 2);
  const double beta = 20.0, i0 = std::cyl_bessel_i(0.0, beta);
  double gain = 0.0;
  for (int n = 0; n < kN; ++n) {
    const double r = (2.0 * n - (kN - 1)) / (kN - 1);
    const double w = std::cyl_bessel_i(0.0, beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / i0;
    buf[n] = w * x[n];
    gain += w;
  }
  vexaccelerate::transform::FFTFwd(state, buf.data(), buf.data());
  vexaccelerate::transform::FFTFree(state);
  std::vector<double> db(kN / 2 + 1);
  for (int k = 0; k <= kN / 2; ++k) {
    const double mag = std::hypot(buf[2 * k], buf[2 * k + 1]) * 2.0 / gain;
    db[k] = 20.0 * std::log10(std::max(mag, 1e-30));
  }
  return db;
}

struct ToneResult {
  double worstSpurDb;  // relative to the tone
  double worstAnyDb;   // absolute, over every bin
};

// A full-scale tone at `freq` through from -> to; the steady state is
// analysed after the filter has filled.
ToneResult Tone(float from, float to, double freq) {
  dsp::Resample r = Make(from, to);
  const int kN = 16384;
  const int inFrames = static_cast<int>((kN + 1200) * static_cast<double>(from) / to);
  std::vector<float> out = Convert(r, vextest::Sine(static_cast<std::size_t>(inFrames), freq, from), 1024);
  EXPECT_GE(out.size(), static_cast<std::size_t>(kN + 600));
  std::vector<double> db = SpectrumDb(out.data() + 600);
  const double binHz = to / 16384.0;
  const int toneBin = static_cast<int>(std::lround(freq / binHz));
  // The level is tested by a fit elsewhere; here spurs are relative to the
  // full-scale input, as dBc is for a unity-gain converter.
  ToneResult result{-1000.0, -1000.0};
  for (int k = 0; k < static_cast<int>(db.size()); ++k) {
    result.worstAnyDb = std::max(result.worstAnyDb, db[k]);
    if (!(freq < to / 2 && std::abs(k - toneBin) <= 12)) result.worstSpurDb = std::max(result.worstSpurDb, db[k]);
  }
  return result;
}

// Amplitude of the steady-state output at `freq` by a least-squares fit.
double LevelDb(float from, float to, double freq) {
  dsp::Resample r = Make(from, to);
  const int inFrames = static_cast<int>(20000 * static_cast<double>(from) / to);
  std::vector<float> out = Convert(r, vextest::Sine(static_cast<std::size_t>(inFrames), freq, from), 777);
  double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
  for (std::size_t n = 600; n < out.size(); ++n) {
    const double s = std::sin(2 * kPi * freq * n / to), c = std::cos(2 * kPi * freq * n / to);
    ss += s * s;
    cc += c * c;
    sc += s * c;
    ys += out[n] * s;
    yc += out[n] * c;
  }
  const double det = ss * cc - sc * sc;
  const double a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
  return 20.0 * std::log10(std::hypot(a, b));
}

TEST(Resample, DefaultsAndOrderRounding) {
  dsp::Resample r;
  EXPECT_EQ(r.GetFilterOrder(), 255);
  EXPECT_EQ(r.GetPaddedOrder(), 256);
  EXPECT_EQ(r.GetLatency(), 116);
  EXPECT_EQ(r.GetPhaseStep(), 160.0);
  EXPECT_EQ(r.GetPhaseCount(), 0);
  EXPECT_EQ(r.GetOutputBufferSize(1000), 920);
  EXPECT_EQ(r.GetSourceSampleRate(), 48000.0f);
  EXPECT_EQ(r.GetDestSampleRate(), 44100.0f);

  r.SetFilterOrder(256);
  EXPECT_EQ(r.GetFilterOrder(), 255);
  EXPECT_EQ(r.GetPaddedOrder(), 256);
  r.SetFilterOrder(101);
  EXPECT_EQ(r.GetFilterOrder(), 101);
  EXPECT_EQ(r.GetPaddedOrder(), 104);
  EXPECT_EQ(r.GetLatency(), static_cast<int>(50 * 44100.0 / 48000.0));

  ASSERT_TRUE(r.Initialize());
  EXPECT_EQ(r.GetPhaseCount(), 147);
  r.SetFilterOrder(31);
  r.SetNyquistShift(0.9);
  EXPECT_FALSE(r.SetSampleRates(44100, 48000));
  EXPECT_EQ(r.GetFilterOrder(), 101);
  EXPECT_EQ(r.GetNyquistShift(), 0.3);
}

TEST(Resample, BadRatesAreRefusedAndEqualRatesPassThrough) {
  dsp::Resample r;
  EXPECT_FALSE(r.SetSampleRates(0.0f, 44100.0f));
  EXPECT_FALSE(r.SetSampleRates(48000.0f, -1.0f));
  EXPECT_FALSE(r.SetSampleRates(std::nanf(""), 44100.0f));
  EXPECT_FALSE(r.SetSampleRates(48000.0f, INFINITY));
  EXPECT_EQ(r.GetSourceSampleRate(), 48000.0f);
  std::vector<float> x = vextest::Noise(500, 3);
  std::vector<float> y(500);
  EXPECT_EQ(r.Process(x.data(), y.data(), 500), 0) << "uninitialised";

  ASSERT_TRUE(r.SetSampleRates(96000.0f, 96000.0f));
  ASSERT_TRUE(r.Initialize());
  EXPECT_EQ(r.GetLatency(), 0);
  EXPECT_EQ(Convert(r, x, 7), x);
}

// The impulse response is the kernel w(t) sinc(t / c) / c sampled at
// t = j - (n - latency) * src / dst, computed here from textbook formulas.
void CheckImpulse(double noiseFloor, bool kaiser) {
  dsp::Resample r;
  r.SetNoiseFloor(noiseFloor);
  r.SetFilterOrder(63);
  ASSERT_TRUE(r.Initialize());
  const double c = r.GetCutoffDivisor();
  const double ratio = 48000.0 / 44100.0;
  const int latency = r.GetLatency();
  EXPECT_EQ(latency, static_cast<int>(31 * 44100.0 / 48000.0));
  std::vector<float> x(300, 0.0f);
  const int j0 = 40;
  x[j0] = 1.0f;
  std::vector<float> y = Convert(r, x, 13);
  const double beta = (noiseFloor - 8.7) * 0.1102;
  double worst = 0.0;
  for (int n = 0; n < static_cast<int>(y.size()); ++n) {
    const double t = j0 - (n - latency) * ratio;
    double expected = 0.0;
    // Taps sit at k - p for k in -31..31 and a phase offset p in [0, 1).
    if (t > -32.0 && t <= 31.0 + 1e-9) {
      const double u = t / 31.0;
      const double w = kaiser ? std::cyl_bessel_i(0.0, beta * std::sqrt(1.0 - (t / 32.0) * (t / 32.0))) /
                                    std::cyl_bessel_i(0.0, beta)
                              : 0.42 + 0.5 * std::cos(kPi * u) + 0.08 * std::cos(2 * kPi * u);
      const double s = t == 0.0 ? 1.0 : std::sin(kPi * t / c) / (kPi * t / c);
      expected = w * s / c;
    }
    worst = std::max(worst, std::fabs(y[n] - expected));
  }
  EXPECT_LT(worst, 2e-6) << "noise floor " << noiseFloor;
  // The peak of an impulse at input 40 lands at output 40 * dst / src + latency.
  const auto peak = std::max_element(y.begin(), y.end()) - y.begin();
  EXPECT_EQ(peak, std::lround(j0 / ratio) + latency);
}

TEST(Resample, ImpulseResponseIsTheWindowedSincOfEitherWindow) {
  CheckImpulse(150.0, true);
  CheckImpulse(60.0, true);
  CheckImpulse(59.9, false);
}

TEST(Resample, CutoffCentresTheTransitionOnTheLowerNyquist) {
  // The -6 dB point of sinc(t / c) / c lies at 1 / (2c) cycles per input
  // sample: just above 22.05 kHz when downsampling at the default shift,
  // just below it when upsampling.
  dsp::Resample down;
  const double fDown = 48000.0 / (2.0 * down.GetCutoffDivisor());
  EXPECT_GT(fDown, 22050.0);
  EXPECT_LT(fDown, 22100.0);
  dsp::Resample up;
  ASSERT_TRUE(up.SetSampleRates(44100.0f, 48000.0f));
  const double fUp = 44100.0 / (2.0 * up.GetCutoffDivisor());
  EXPECT_GT(fUp, 21700.0);
  EXPECT_LT(fUp, 22050.0);
}

TEST(Resample, LevelAndPassbandEdgeBothDirections) {
  for (auto rates : {std::pair<float, float>{48000, 44100}, std::pair<float, float>{44100, 48000}}) {
    EXPECT_NEAR(LevelDb(rates.first, rates.second, 1000.0), 0.0, 0.01) << rates.first;
    EXPECT_NEAR(LevelDb(rates.first, rates.second, 20900.0), 0.0, 0.01) << rates.first;
  }
  EXPECT_NEAR(LevelDb(48000, 44100, 21000.0), 0.0, 0.01);
}

TEST(Resample, SpursOfPassbandTonesStayBelowMinus120dB) {
  for (double f : {997.0, 5000.0, 11025.0, 16000.0, 19000.0, 20900.0}) {
    const ToneResult down = Tone(48000, 44100, f);
    EXPECT_LT(down.worstSpurDb, -120.0) << "48000->44100 at " << f << " Hz";
    const ToneResult up = Tone(44100, 48000, f);
    EXPECT_LT(up.worstSpurDb, -120.0) << "44100->48000 at " << f << " Hz";
  }
}

TEST(Resample, StopBandIsAttenuatedBy120dB) {
  // Downsampling: tones at and above the stop-band edge alias into the
  // output at no more than -120 dB.
  for (double f : {23000.0, 23500.0, 23950.0}) {
    EXPECT_LT(Tone(48000, 44100, f).worstAnyDb, -120.0) << f;
  }
  // Upsampling: the image of a tone at 44100 - f lands in the stop band
  // when that is at least 22.7 kHz; the whole band above 22.7 kHz stays
  // below -120 dB.
  for (double f : {21400.0, 20000.0, 15000.0}) {
    dsp::Resample r = Make(44100, 48000);
    std::vector<float> out = Convert(r, vextest::Sine(17000, f, 44100), 4096);
    std::vector<double> db = SpectrumDb(out.data() + 600);
    const int first = static_cast<int>(std::ceil(22700.0 / (48000.0 / 16384)));
    EXPECT_LT(*std::max_element(db.begin() + first, db.end()), -120.0) << f;
  }
}

TEST(Resample, OtherRatePairsKeepTheirLevelAndLength) {
  struct Case {
    float from, to;
    int phases;
  };
  for (const Case& c :
       {Case{48000, 32000, 2}, Case{44100, 96000, 320}, Case{44100, 47999, 1000}, Case{22050.5f, 48000, 1000}}) {
    dsp::Resample r = Make(c.from, c.to);
    EXPECT_EQ(r.GetPhaseCount(), c.phases) << c.from << "->" << c.to;
    const int frames = 30000;
    std::vector<float> out = Convert(r, vextest::Sine(frames, 1000.0, c.from, 0.5), 1000);
    const double expectedLen = frames * static_cast<double>(c.to) / c.from;
    EXPECT_NEAR(static_cast<double>(out.size()), expectedLen, 2.0);
    // Against the ideal sine, delayed by the latency.
    double err = 0.0, ref = 0.0;
    for (std::size_t n = 600; n + 10 < out.size() - static_cast<std::size_t>(r.GetLatency()); ++n) {
      const double t = (static_cast<double>(n) - r.GetLatency()) / c.to;
      const double ideal = 0.5 * std::sin(2 * kPi * 1000.0 * t);
      err += (out[n] - ideal) * (out[n] - ideal);
      ref += ideal * ideal;
    }
    EXPECT_LT(10 * std::log10(err / ref), -100.0) << c.from << "->" << c.to;
  }
}

TEST(Resample, BlockSplitResetAndCopyGiveIdenticalOutput) {
  const std::vector<float> x = vextest::Noise(6000, 11, 0.8);
  for (auto rates : {std::pair<float, float>{48000, 44100}, std::pair<float, float>{44100, 47999}}) {
    dsp::Resample whole = Make(rates.first, rates.second);
    const std::vector<float> reference = Convert(whole, x);
    for (int block : {1, 7, 256, 257, 1000, 5000}) {
      dsp::Resample split = Make(rates.first, rates.second);
      EXPECT_EQ(Convert(split, x, block), reference) << "block " << block;
    }
    whole.Reset();
    EXPECT_EQ(Convert(whole, x, 333), reference) << "after Reset";

    dsp::Resample half = Make(rates.first, rates.second);
    std::vector<float> first(x.begin(), x.begin() + 2500), second(x.begin() + 2500, x.end());
    std::vector<float> a = Convert(half, first);
    dsp::Resample copy(half);
    std::vector<float> b = Convert(copy, second);
    a.insert(a.end(), b.begin(), b.end());
    EXPECT_EQ(a, reference) << "copy continues the stream";
  }
}

TEST(Resample, ProcessNeverAllocatesAndLongRunsStayFinite) {
  dsp::Resample r = Make(44100, 48000);
  std::vector<float> in = vextest::Noise(8192, 5, 1.0);
  std::vector<float> out(static_cast<std::size_t>(r.GetOutputBufferSize(8192)));
  double peak = 0.0;
  for (int i = 0; i < 20; ++i) {
    int n = 0;
    EXPECT_NO_ALLOCATION(n = r.Process(in.data(), out.data(), 8192));
    ASSERT_LE(n, r.GetOutputBufferSize(8192));
    for (int k = 0; k < n; ++k) {
      ASSERT_TRUE(std::isfinite(out[k]));
      peak = std::max(peak, static_cast<double>(std::fabs(out[k])));
    }
  }
  EXPECT_LT(peak, 2.0);
  EXPECT_GT(peak, 0.5);
}

TEST(Resample, TablesAreSharedUntilPushedOutOfTheCache) {
  dsp::Resample a, b;
  a.SetNyquistShift(0.123);
  b.SetNyquistShift(0.123 + 1e-7);
  ASSERT_TRUE(a.Initialize());
  ASSERT_TRUE(b.Initialize());
  EXPECT_TRUE(a.SharesTableWith(b));

  dsp::Resample other;
  other.SetNyquistShift(0.124);
  ASSERT_TRUE(other.Initialize());
  EXPECT_FALSE(a.SharesTableWith(other));

  // 64 tables with other keys push the first one out; `a` keeps its own.
  for (int i = 0; i < dsp::Resample::kCacheSize; ++i) {
    dsp::Resample filler;
    filler.SetFilterOrder(15);
    filler.SetNyquistShift(1.0 + i * 0.01);
    ASSERT_TRUE(filler.Initialize());
  }
  dsp::Resample late;
  late.SetNyquistShift(0.123);
  ASSERT_TRUE(late.Initialize());
  EXPECT_FALSE(late.SharesTableWith(a));
  const std::vector<float> x = vextest::Noise(3000, 8);
  a.Reset();
  EXPECT_EQ(Convert(late, x), Convert(a, x)) << "a table kept alive after eviction still works";

  // Rates that differ below a whole Hz share a key (an interpolated and an
  // exact layout of 1000 phases here), so they must also want the same
  // table: the one built first serves both.
  dsp::Resample fractional, whole;
  ASSERT_TRUE(fractional.SetSampleRates(1001.5f, 1000.0f));
  ASSERT_TRUE(whole.SetSampleRates(1001.0f, 1000.0f));
  ASSERT_TRUE(fractional.Initialize());
  ASSERT_TRUE(whole.Initialize());
  EXPECT_TRUE(whole.SharesTableWith(fractional));
  EXPECT_EQ(whole.GetCutoffDivisor(), fractional.GetCutoffDivisor());
}

}  // namespace

namespace {

TEST(MultiChannelResample, RefusesBadSettingsAndRendersAlignedChannels) {
  dsp::MultiChannelResample c;
  std::string error;
  EXPECT_FALSE(c.Configure(0, 48000, 44100, dsp::ResampleQuality::kHigh, &error));
  EXPECT_FALSE(c.Configure(2, 0.0, 44100, dsp::ResampleQuality::kHigh, &error));
  EXPECT_FALSE(c.Configure(2, 48000, std::nan(""), dsp::ResampleQuality::kHigh, &error));
  EXPECT_FALSE(c.Configure(2, 8000, 800000, dsp::ResampleQuality::kHigh, &error));
  EXPECT_NE(error.find("96"), std::string::npos) << error;
  dsp::ResampleQuality q;
  EXPECT_TRUE(dsp::ParseResampleQuality("best", &q));
  EXPECT_EQ(q, dsp::ResampleQuality::kBest);
  EXPECT_FALSE(dsp::ParseResampleQuality("High", &q));

  // An impulse per channel at different positions comes out at
  // position * ratio in each channel: the latency is removed.
  ASSERT_TRUE(c.Configure(3, 44100, 48000, dsp::ResampleQuality::kMedium, &error)) << error;
  EXPECT_EQ(c.GetChannel(2).GetFilterOrder(), 127);
  std::vector<std::vector<float>> in(3, std::vector<float>(4410, 0.0f));
  const int at[3] = {441, 882, 2205};
  for (int ch = 0; ch < 3; ++ch) in[ch][static_cast<std::size_t>(at[ch])] = 1.0f;
  dsp::host::MemorySource source({in[0].data(), in[1].data(), in[2].data()}, 4410);
  dsp::host::MemorySink sink(3);
  EXPECT_EQ(dsp::host::RenderRateChange(c, 3, source, sink), 4800);
  for (int ch = 0; ch < 3; ++ch) {
    const std::vector<float>& y = sink.GetAudio()[static_cast<std::size_t>(ch)];
    ASSERT_EQ(y.size(), 4800u);
    const auto peak = std::max_element(y.begin(), y.end()) - y.begin();
    EXPECT_EQ(peak, std::lround(at[ch] * 48000.0 / 44100.0)) << ch;
  }
}

}  // namespace
