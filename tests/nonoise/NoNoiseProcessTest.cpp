#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/nonoise/NoNoiseProcess.h"
#include "vexaudiodsp/nonoise/NoisePrint.h"
#include "vexaudiodsp/utils/IppFFT.h"

namespace {

using dsp::nonoise::NONOISE;
using dsp::nonoise::NoNoiseProcess;

// Reaches the spectrum hook directly, so the reduction rule is tested bin
// by bin without the frame around it.
class Exposed : public NoNoiseProcess {
 public:
  using NoNoiseProcess::NoNoiseProcess;
  using NoNoiseProcess::OnSpectrum;
};

// A one-channel record of size 16 with the given curves in every bin.
struct Curves {
  double a, b, c;
};
NONOISE MakeRecord(const std::vector<Curves>& bins) {
  NONOISE p;
  p.fftSize = 16;
  p.overlap = 4;
  p.channelCount = 1;
  dsp::nonoise::AllocateArrays(&p);
  for (int k = 0; k < 16; ++k) {
    const Curves& v = bins[static_cast<std::size_t>(std::min(k, 16 - k)) % bins.size()];
    p.averageCurve[0][k] = v.a;
    p.maxCurve[0][k] = v.b;
    p.minCurve[0][k] = v.c;
  }
  return p;
}

// The reduction rule transcribed from its statement, with its own
// smoothing row (zeros beyond the band), for `frames` spectra in turn.
struct Reference {
  double levelPosition = 1.0, thresholdDb = 0.0, exponent = 1.0, reductionDb = 40.0, smoothingPercent = 65.0;
  std::vector<long double> row = std::vector<long double>(9 + 8, 0.0L);
  bool first = true;

  void Apply(const NONOISE& p, std::vector<float>& re, std::vector<float>& im) {
    const int n = 16, bins = 9;
    long double r0dB = reductionDb == 0.0 ? 100.0L : reductionDb;
    r0dB = std::max(r0dB, 1.0L);
    const long double maxReduction = 1.0L - std::pow(10.0L, -r0dB / 20.0L);
    const long double gain = std::pow(10.0L, thresholdDb / 20.0L);
    const long double smoothing = smoothingPercent / 100.0L;
    long double* s = row.data() + 4;
    for (int k = 0; k < bins; ++k) {
      const long double a = p.averageCurve[0][k], b = p.maxCurve[0][k], c = p.minCurve[0][k];
      const long double t = levelPosition;
      const long double level =
          std::max(0.0L, c + (2 * b + 2 * c - 4 * a) * t + (4 * a - b - 3 * c) * t * std::fabs(t));
      long double g = gain;
      if (exponent != 0.0 && b != 0.0) g = gain * std::pow(10.0L, exponent * std::log10(a / b));
      const long double lo = std::min(level, level * g), hi = std::max(level, level * g);
      long double m =
          std::sqrt(static_cast<long double>(re[k]) * re[k] + static_cast<long double>(im[k]) * im[k]) / (n * 0.25L);
      if (smoothing > 0) {
        if (!first) {
          const long double spread = 0.2L * (s[k - 1] + s[k + 1]) + 0.1L * (s[k - 2] + s[k + 2]) + 0.4L * m;
          m = spread > s[k] ? 0.07L * s[k] + 0.93L * spread : (1 - smoothing) * spread + smoothing * s[k];
        }
        s[k] = m;
      }
      long double v = hi;
      if (lo > m) {
        v = m;
      } else if (hi > m) {
        v = m + (m - lo) / (hi - lo) * (hi - m);
      }
      long double r = maxReduction;
      if (c != 0) r += 5 / (b / c) * (1 - r);
      if (m != 0) {
        r = std::min(r, v / m);
        re[k] = static_cast<float>(re[k] * (1 - r));
        im[k] = static_cast<float>(im[k] * (1 - r));
      }
    }
    first = false;
  }
};

TEST(NoNoiseReduction, MatchesTheRuleOverSeveralSmoothedFrames) {
  NONOISE p = MakeRecord({{0.5, 1.0, 0.0}, {0.3, 0.6, 0.01}, {0.2, 0.25, 0.1}, {1.0, 2.0, 0.5}});
  for (double t : {1.0, 0.4, -0.3}) {
    for (double exponent : {1.0, 0.0, -0.5}) {
      p.levelPosition = t;
      p.exponent = exponent;
      p.thresholdDb = 3.0;
      Exposed proc(&p);
      proc.Start();
      Reference ref;
      ref.levelPosition = t;
      ref.exponent = exponent;
      ref.thresholdDb = 3.0;
      for (int frame = 0; frame < 5; ++frame) {
        std::vector<float> re(9), im(9);
        const std::vector<float> noise = vextest::Noise(18, static_cast<std::uint32_t>(frame + 10), 8.0);
        for (int k = 0; k < 9; ++k) {
          re[k] = noise[2 * k];
          im[k] = noise[2 * k + 1];
        }
        std::vector<float> eRe = re, eIm = im;
        ref.Apply(p, eRe, eIm);
        float* pr[1] = {re.data()};
        float* pi[1] = {im.data()};
        proc.OnSpectrum(pr, pi, 1, 9);
        for (int k = 0; k < 9; ++k) {
          EXPECT_NEAR(re[k], eRe[k], 1e-5 * (1 + std::fabs(eRe[k])))
              << "t " << t << " e " << exponent << " f " << frame;
          EXPECT_NEAR(im[k], eIm[k], 1e-5 * (1 + std::fabs(eIm[k])));
        }
      }
      EXPECT_FALSE(proc.GetReducer()->firstFrame);
    }
  }
  dsp::nonoise::FreeArrays(&p);
}

// t = 1, threshold gain 1, exponent 0 and a minimum curve of 0: below the
// maximum the full reduction (40 dB: 0.01 remains), at twice the maximum a
// reduction of 0.5; a zero bin is never scaled; reduction 0 is off.
TEST(NoNoiseReduction, ClosedFormCases) {
  NONOISE p = MakeRecord({{0.5, 1.0, 0.0}});
  p.exponent = 0.0;
  p.smoothingPercent = 0.0;
  Exposed proc(&p);
  proc.Start();
  EXPECT_NEAR(proc.GetMaxReduction(), 0.99, 1e-12);
  const float scale = 16 * 0.25f;
  std::vector<float> re = {0.5f * scale, 2.0f * scale, 0.0f, -0.9f * scale, 0, 0, 0, 0, 0};
  std::vector<float> im(9, 0.0f);
  float* pr[1] = {re.data()};
  float* pi[1] = {im.data()};
  proc.OnSpectrum(pr, pi, 1, 9);
  EXPECT_NEAR(re[0], 0.01f * 0.5f * scale, 1e-6);
  EXPECT_NEAR(re[1], 0.5f * 2.0f * scale, 1e-6);
  EXPECT_EQ(re[2], 0.0f);
  EXPECT_NEAR(re[3], -0.01f * 0.9f * scale, 1e-6);

  proc.GetParam()->reductionDb = 0.0;
  proc.ParameterChanged();
  EXPECT_NEAR(proc.GetMaxReduction(), 1.0 - 1e-5, 1e-12);  // read as 100 dB
  std::vector<float> keep = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  std::vector<float> keepIm = keep;
  float* kr[1] = {keep.data()};
  float* ki[1] = {keepIm.data()};
  proc.OnSpectrum(kr, ki, 1, 9);
  EXPECT_EQ(keep[4], 5.0f);
  EXPECT_EQ(keepIm[8], 9.0f);
  dsp::nonoise::FreeArrays(&p);

  // C / B > 0.2: the base reduction 0.99 + 5 x 0.5 x 0.01 = 1.015 passes 1.
  // With A / B = 0.6 the band is [0.6, 1] at t = 1: m = 0.8 gives v = 0.9,
  // v / m = 1.125, r = 1.015 and the bin changes sign; m = 0.3 (below the
  // band) gives r = min(1.015, 1) and the bin is zeroed.
  NONOISE flip = MakeRecord({{0.6, 1.0, 0.5}});
  flip.smoothingPercent = 0.0;
  Exposed flipper(&flip);
  flipper.Start();
  std::vector<float> x = {0.8f * scale, 0.3f * scale, 0, 0, 0, 0, 0, 0, 0}, y(9, 0.0f);
  float* xr[1] = {x.data()};
  float* yr[1] = {y.data()};
  flipper.OnSpectrum(xr, yr, 1, 9);
  EXPECT_NEAR(x[0], -0.015f * 0.8f * scale, 1e-5);
  EXPECT_NEAR(x[1], 0.0f, 1e-6);
  dsp::nonoise::FreeArrays(&flip);
}

// The reduction rule written out from its formulas in plain doubles, with
// its own smoothing rows, for any channel count; bins 0 ... bins - 1 of an
// N-point transform.
struct LiteralRule {
  std::vector<std::vector<double>> rows;
  bool first = true;

  void Apply(const NONOISE& p, std::vector<std::vector<float>>& re, std::vector<std::vector<float>>& im) {
    if (p.reductionDb == 0.0) return;
    const int n = p.fftSize;
    const int channels = static_cast<int>(re.size());
    const int bins = static_cast<int>(re[0].size());
    if (rows.empty())
      rows.assign(static_cast<std::size_t>(channels), std::vector<double>(static_cast<std::size_t>(n + 8), 0.0));
    double reduction = p.reductionDb == 0.0 ? 100.0 : p.reductionDb;
    if (reduction < 1.0) reduction = 1.0;
    const double maxReduction = 1.0 - std::pow(10.0, -reduction / 20.0);
    const double thresholdGain = std::pow(10.0, p.thresholdDb / 20.0);
    const double smoothing = p.smoothingPercent / 100.0;
    const double complement = 1.0 - smoothing;
    const double scale = 1.0 / (n * 0.25);
    for (int c = 0; c < channels; ++c) {
      double* s = rows[static_cast<std::size_t>(c)].data() + 4;
      for (int k = 0; k < bins; ++k) {
        const double a = p.averageCurve[c][k], b = p.maxCurve[c][k], cc = p.minCurve[c][k];
        const double t = (k == 0 || k == n / 2) ? p.levelPosition : p.binCurve[k] + p.levelPosition;
        double level = cc + (2 * b + 2 * cc - 4 * a) * t + (4 * a - b - 3 * cc) * t * std::fabs(t);
        if (level < 0.0) level = 0.0;
        double g = thresholdGain;
        if (p.exponent != 0.0 && b != 0.0) g = thresholdGain * std::pow(10.0, p.exponent * std::log10(a / b));
        const double lo = std::min(level, level * g);
        const double hi = std::max(level, level * g);
        const double x = re[c][k], y = im[c][k];
        double m = std::sqrt(x * x + y * y) * scale;
        if (smoothing > 0.0) {
          if (!first) {
            const double spread = 0.2 * (s[k - 1] + s[k + 1]) + 0.1 * (s[k - 2] + s[k + 2]) + 0.4 * m;
            if (spread > s[k]) {
              m = 0.07 * s[k] + 0.93 * spread;
            } else {
              m = complement * spread + smoothing * s[k];
            }
          }
          s[k] = m;
        }
        double v = hi;
        if (lo > m) {
          v = m;
        } else if (hi > m) {
          v = m + (m - lo) / (hi - lo) * (hi - m);
        }
        double r = maxReduction;
        if (cc != 0.0) r += 5.0 / (b / cc) * (1.0 - r);
        if (m != 0.0) {
          r = std::min(r, v / m);
          re[c][k] = static_cast<float>(x * (1.0 - r));
          im[c][k] = static_cast<float>(y * (1.0 - r));
        }
      }
    }
    first = false;
  }
};

// A random print of N = 64 for `channels` channels: minimum, average and
// maximum in order, some minimum curves high enough (C / B > 0.2) to flip
// signs, a few silent bins and random per-bin curve positions.
NONOISE RandomPrint(int channels, std::uint32_t seed) {
  NONOISE p;
  p.fftSize = 64;
  p.overlap = 4;
  p.channelCount = static_cast<std::int16_t>(channels);
  dsp::nonoise::AllocateArrays(&p);
  const std::vector<float> u = vextest::Noise(static_cast<std::size_t>(3 * 64 * channels + 64), seed, 1.0);
  std::size_t next = 0;
  auto unit = [&] { return 0.5 + 0.5 * static_cast<double>(u[next++]); };
  for (int c = 0; c < channels; ++c) {
    for (int k = 0; k < 64; ++k) {
      const double b = 0.05 + 2.0 * unit();
      const double cMin = (k % 5 == 0 ? 0.0 : 0.6 * unit()) * b;
      const double a = cMin + (b - cMin) * unit();
      const bool silent = k % 11 == 7;
      p.maxCurve[c][k] = silent ? 0.0 : b;
      p.minCurve[c][k] = silent ? 0.0 : cMin;
      p.averageCurve[c][k] = silent ? 0.0 : a;
    }
  }
  for (int k = 0; k < 64; ++k) p.binCurve[k] = static_cast<float>(0.6 * (unit() - 0.5));
  return p;
}

// Frame after frame on random bins, with the settings changed between
// frames (smoothing off and on again, a small smoothing whose rise is the
// smaller choice, full smoothing, reduction off, negative positions and
// exponents), for one, two and three channels and both kernel sets: the
// processor's OnSpectrum equals the literal rule within rounding.
TEST(NoNoiseReduction, MatchesTheLiteralRuleOnRandomPrintsAndSettings) {
  struct Settings {
    double reductionDb, thresholdDb, exponent, smoothingPercent, levelPosition;
  };
  const std::vector<Settings> schedule = {{40, 0, 1, 65, 1},      {40, 0, 1, 65, 1},      {25, 4, -0.7, 65, 0.6},
                                          {25, 4, -0.7, 0, 0.6},  {60, -3, 0, 0, 1.4},    {60, -3, 0, 3, 1.4},
                                          {12, 2, 1.3, 3, -0.4},  {12, 2, 1.3, 100, 0.2}, {0, 2, 1.3, 100, 0.2},
                                          {100, 0, 0.5, 65, 2.0}, {1, 6, 2, 40, 0.9},     {0.5, 0, 1, 80, 1}};
  for (int channels : {1, 2, 3}) {
    for (bool portable : {false, true}) {
      NONOISE p = RandomPrint(channels, static_cast<std::uint32_t>(40 + channels));
      Exposed proc(&p);
      proc.SetPortableKernels(portable);
      proc.Start();
      LiteralRule rule;
      for (std::size_t frame = 0; frame < schedule.size(); ++frame) {
        const Settings& set = schedule[frame];
        for (NONOISE* q : {&p, proc.GetParam()}) {
          q->reductionDb = set.reductionDb;
          q->thresholdDb = set.thresholdDb;
          q->exponent = set.exponent;
          q->smoothingPercent = set.smoothingPercent;
          q->levelPosition = set.levelPosition;
        }
        proc.ParameterChanged();
        std::vector<std::vector<float>> re(static_cast<std::size_t>(channels)), im = re;
        for (int c = 0; c < channels; ++c) {
          const auto seed = static_cast<std::uint32_t>(1000 * frame + 10 * static_cast<std::size_t>(c) + 1);
          const std::vector<float> x = vextest::Noise(2 * 33, seed, 30.0);
          re[static_cast<std::size_t>(c)].assign(x.begin(), x.begin() + 33);
          im[static_cast<std::size_t>(c)].assign(x.begin() + 33, x.end());
          // A tone-like bin well above the print and a silent one.
          re[static_cast<std::size_t>(c)][9] = 400.0f;
          if (frame == 0) re[static_cast<std::size_t>(c)][20] = im[static_cast<std::size_t>(c)][20] = 0.0f;
        }
        std::vector<std::vector<float>> wantRe = re, wantIm = im;
        rule.Apply(p, wantRe, wantIm);
        std::vector<float*> pr, pi;
        for (int c = 0; c < channels; ++c) {
          pr.push_back(re[static_cast<std::size_t>(c)].data());
          pi.push_back(im[static_cast<std::size_t>(c)].data());
        }
        proc.OnSpectrum(pr.data(), pi.data(), channels, 33);
        for (int c = 0; c < channels; ++c) {
          for (int k = 0; k < 33; ++k) {
            const auto ci = static_cast<std::size_t>(c);
            const auto ki = static_cast<std::size_t>(k);
            // Rounding of the float output, on the scale of the input bin.
            const double tol = 1e-6 * (std::fabs(wantRe[ci][ki]) + std::fabs(wantIm[ci][ki]) + 30.0);
            ASSERT_NEAR(re[ci][ki], wantRe[ci][ki], tol) << "channels " << channels << " portable " << portable
                                                         << " frame " << frame << " c " << c << " k " << k;
            ASSERT_NEAR(im[ci][ki], wantIm[ci][ki], tol) << "frame " << frame << " c " << c << " k " << k;
          }
        }
      }
      dsp::nonoise::FreeArrays(&p);
    }
  }
}

TEST(NoNoiseProcess, FrameOfTheRecordAndRefusedRecords) {
  NoNoiseProcess defaults;
  EXPECT_TRUE(defaults.IsConfigured());
  EXPECT_EQ(defaults.GetHop(), 585);
  EXPECT_EQ(defaults.GetLatency(), 1755);
  EXPECT_EQ(defaults.GetNumChannels(), 2);
  EXPECT_EQ(defaults.GetWindowKind(), 5);

  NONOISE p;
  for (int overlap : {0, 1, 2, -3}) {
    p.overlap = static_cast<std::int16_t>(overlap);
    NoNoiseProcess bad(&p);
    EXPECT_FALSE(bad.IsConfigured()) << overlap;
    EXPECT_EQ(bad.GetLatency(), 0);
  }
  p.overlap = 7;
  p.fftSize = 3000;
  EXPECT_FALSE(NoNoiseProcess(&p).IsConfigured());
  p.fftSize = 1024;
  p.overlap = 4;
  NoNoiseProcess small(&p);
  EXPECT_EQ(small.GetLatency(), 384);  // (3 x 1024 / 4) / 2
}

// Tones with white noise, print from a noise-only stretch: in the gaps the
// noise falls by at least 20 dB, the tones keep their level within 1 dB.
TEST(NoNoiseProcess, QualityOnTonesInWhiteNoise) {
  const double rate = 48000.0;
  const std::size_t total = 4 * 48000;
  const std::size_t noiseOnly = 48000;
  std::vector<float> noise = vextest::Noise(total, 77, 0.05);
  std::vector<float> clean(total, 0.0f);
  // Bursts of 0.3 s every 0.9 s after the first second: 440 Hz and 3 kHz.
  struct Burst {
    std::size_t start;
    double freq;
  };
  std::vector<Burst> bursts;
  for (std::size_t s = noiseOnly; s + 14400 <= total; s += 43200) {
    bursts.push_back({s, bursts.size() % 2 == 0 ? 440.0 : 3000.0});
    const std::vector<float> tone = vextest::Sine(14400, bursts.back().freq, rate, 0.5);
    std::copy(tone.begin(), tone.end(), clean.begin() + static_cast<std::ptrdiff_t>(s));
  }
  std::vector<float> input(total);
  for (std::size_t i = 0; i < total; ++i) input[i] = clean[i] + noise[i];

  dsp::host::MemorySource printSource({input.data()}, static_cast<std::int64_t>(noiseOnly));
  dsp::nonoise::NoisePrint print;
  std::string error;
  ASSERT_TRUE(dsp::nonoise::CaptureNoisePrintFromSource(printSource, 1, rate, 0, static_cast<std::int64_t>(noiseOnly),
                                                        4096, &print, &error))
      << error;
  NoNoiseProcess proc(&print.GetRecord());
  proc.Start();
  const int latency = proc.GetLatency();
  std::vector<float> out(total + static_cast<std::size_t>(latency), 0.0f);
  std::copy(input.begin(), input.end(), out.begin());
  float* ptr[1] = {out.data()};
  for (std::size_t pos = 0; pos < out.size(); pos += 1000) {
    ptr[0] = out.data() + pos;
    proc.Process(ptr, ptr, 1, static_cast<int>(std::min<std::size_t>(1000, out.size() - pos)));
  }
  out.erase(out.begin(), out.begin() + latency);

  const auto rms = [](const std::vector<float>& x, std::size_t from, std::size_t to) {
    double s = 0.0;
    for (std::size_t i = from; i < to; ++i) s += static_cast<double>(x[i]) * x[i];
    return std::sqrt(s / static_cast<double>(to - from));
  };
  // Gaps, away from the bursts' edges by more than one FFT length before a
  // burst and by the smoothing's release (0.65 per hop, about 14 hops from a
  // tone down to the noise) after one.
  for (std::size_t b = 0; b + 1 < bursts.size(); ++b) {
    const std::size_t from = bursts[b].start + 14400 + 10000, to = bursts[b + 1].start - 4500;
    const double reductionDb = 20.0 * std::log10(rms(noise, from, to) / rms(out, from, to));
    EXPECT_GE(reductionDb, 20.0) << "gap after burst " << b;
  }
  // Tone level: Hann-windowed 8192-point spectrum of the middle of a burst.
  dsp::IppFFT32fReal fft(8192);
  std::vector<float> win(8192), buf(8192), bins(8194);
  for (int i = 0; i < 8192; ++i)
    win[static_cast<std::size_t>(i)] = static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * i / 8192));
  const auto toneLevel = [&](const std::vector<float>& x, std::size_t start, double freq) {
    for (std::size_t i = 0; i < 8192; ++i) buf[i] = x[start + 3100 + i] * win[i];
    fft.FFT(buf.data(), bins.data());
    const int k = static_cast<int>(std::lround(freq * 8192 / rate));
    double peak = 0.0;
    for (int j = k - 2; j <= k + 2; ++j)
      peak = std::max(peak, static_cast<double>(std::hypot(bins[2 * j], bins[2 * j + 1])));
    return 20.0 * std::log10(peak);
  };
  for (const Burst& b : bursts) {
    EXPECT_NEAR(toneLevel(out, b.start, b.freq), toneLevel(clean, b.start, b.freq), 1.0) << b.freq;
  }
}

// Shared setup for the streaming properties: a stereo print of two noise
// levels and the signal to run.
class NoNoiseStreaming : public ::testing::Test {
 protected:
  void SetUp() override {
    l_ = vextest::Noise(32000, 8, 0.05);
    r_ = vextest::Noise(32000, 9, 0.2);
    const std::vector<float> tone = vextest::Sine(32000, 1000.0, 48000.0, 0.3);
    for (std::size_t i = 16000; i < 32000; ++i) {
      l_[i] += tone[i];
      r_[i] += tone[i];
    }
    dsp::host::MemorySource source({l_.data(), r_.data()}, 16000);
    ASSERT_TRUE(dsp::nonoise::CaptureNoisePrintFromSource(source, 2, 48000.0, 0, 16000, 2048, &print_, nullptr));
  }

  std::vector<std::vector<float>> Run(NoNoiseProcess& proc, int block) {
    std::vector<std::vector<float>> out = {l_, r_};
    float* ptr[2];
    for (std::size_t pos = 0; pos < l_.size(); pos += static_cast<std::size_t>(block)) {
      const int n = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(block), l_.size() - pos));
      ptr[0] = out[0].data() + pos;
      ptr[1] = out[1].data() + pos;
      proc.Process(ptr, ptr, 2, n);
    }
    return out;
  }

  std::vector<float> l_, r_;
  dsp::nonoise::NoisePrint print_;
};

TEST_F(NoNoiseStreaming, BlockSplitResetAndSegmentsPath) {
  for (int mode : {1, 2}) {
    NoNoiseProcess whole(&print_.GetRecord());
    whole.GetParam()->mode = static_cast<std::int16_t>(mode);
    whole.Start();
    const auto reference = Run(whole, 32000);
    for (int block : {1, 7, 512, 4096, 10000}) {
      if (block == 1 && mode == 2) continue;
      NoNoiseProcess split(&print_.GetRecord());
      split.GetParam()->mode = static_cast<std::int16_t>(mode);
      split.Start();
      EXPECT_EQ(Run(split, block), reference) << "block " << block << " mode " << mode;
    }
    whole.Reset();
    EXPECT_EQ(Run(whole, 3000), reference) << "after Reset, mode " << mode;
  }
  // The two paths differ (segments do not crossfade) but both reduce.
  NoNoiseProcess a(&print_.GetRecord());
  a.Start();
  NoNoiseProcess b(&print_.GetRecord());
  b.GetParam()->mode = 2;
  b.Start();
  EXPECT_NE(Run(a, 4096), Run(b, 4096));
}

TEST_F(NoNoiseStreaming, ChannelsAreIndependentAndSingleChannelMatches) {
  NoNoiseProcess stereo(&print_.GetRecord());
  stereo.Start();
  const auto both = Run(stereo, 4096);
  NoNoiseProcess mono;
  mono.InitAsSingleChannel(&print_.GetRecord(), 1);
  mono.Start();
  ASSERT_EQ(mono.GetNumChannels(), 1);
  std::vector<float> right = r_;
  float* ptr[1];
  for (std::size_t pos = 0; pos < right.size(); pos += 4096) {
    ptr[0] = right.data() + pos;
    mono.Process(ptr, ptr, 1, static_cast<int>(std::min<std::size_t>(4096, right.size() - pos)));
  }
  EXPECT_EQ(right, both[1]);

  NoNoiseProcess fromMulti;
  fromMulti.InitAsSingleChannel(&print_.GetRecord(), 0);
  fromMulti.Start();
  NONOISE* multi = const_cast<NONOISE*>(&print_.GetRecord());
  fromMulti.SetParamFromMultiChannelParam(multi, 1);
  EXPECT_EQ(fromMulti.GetParam()->averageCurve[0][100], print_.GetRecord().averageCurve[1][100]);
}

TEST_F(NoNoiseStreaming, ProcessDoesNotAllocateAndSuspendResume) {
  NoNoiseProcess proc(&print_.GetRecord());
  proc.Start();
  vextest::PlanarBlock block(2, 8192, 0.1f);
  EXPECT_NO_ALLOCATION(proc.Process(block.Pointers(), block.Pointers(), 2, 8192));
  EXPECT_NO_ALLOCATION(proc.GetParam()->reductionDb = 12.0; proc.ParameterChanged());
  EXPECT_NO_ALLOCATION(proc.Process(block.Pointers(), block.Pointers(), 2, 8192));

  proc.Suspend();
  EXPECT_EQ(proc.GetReducer(), nullptr);
  vextest::PlanarBlock pass(2, 64, 0.25f);
  proc.Process(pass.Pointers(), pass.Pointers(), 2, 64);
  EXPECT_EQ(pass.Channel(0)[10], 0.25f);
  proc.Resume();
  ASSERT_NE(proc.GetReducer(), nullptr);
  EXPECT_TRUE(proc.GetReducer()->firstFrame);
  const auto resumed = Run(proc, 4096);
  NoNoiseProcess fresh(&print_.GetRecord());
  fresh.GetParam()->reductionDb = 12.0;
  fresh.Start();
  EXPECT_EQ(Run(fresh, 4096), resumed);
}

}  // namespace
