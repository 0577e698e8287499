#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/analogdelay/AnalogDelayDSP.h"

namespace {

using dsp::analogdelay::AnalogDelayDSP;
using Flags = AnalogDelayDSP::ChannelFlags;
using Planar = std::vector<std::vector<float>>;

constexpr double kPi = 3.14159265358979323846;

Planar Noise(std::size_t channels, std::size_t frames, std::uint32_t seed, double amplitude = 0.5) {
  Planar x;
  for (std::size_t ch = 0; ch < channels; ++ch)
    x.push_back(vextest::Noise(frames, seed + std::uint32_t(ch), amplitude));
  return x;
}

Planar Pass(AnalogDelayDSP& delay, const Planar& x, std::size_t block, Flags bypass = Flags()) {
  Planar y(x.size(), std::vector<float>(x[0].size(), -7.0f));
  std::vector<const float*> in(x.size());
  std::vector<float*> out(x.size());
  for (std::size_t done = 0; done < x[0].size(); done += block) {
    for (std::size_t ch = 0; ch < x.size(); ++ch) {
      in[ch] = x[ch].data() + done;
      out[ch] = y[ch].data() + done;
    }
    Flags flags;
    delay.Process(in.data(), out.data(), static_cast<int>(std::min(block, x[0].size() - done)), bypass, flags);
  }
  return y;
}

double MaxDiff(const Planar& a, const Planar& b) {
  double worst = 0;
  for (std::size_t ch = 0; ch < a.size(); ++ch) worst = std::max(worst, vextest::MaxAbsDiff(a[ch], b[ch]));
  return worst;
}

// ---------------------------------------------------------------------------
// An independent model written from the step list: audio in double, its own
// RBJ low-pass in direct form I and its own line; the delay bookkeeping
// (current delay, read position) in float as the object keeps it.
struct Model {
  double fs;
  int mode = 0;
  double trash = 25, feedback = 0.2, dry = 0.7, wet = 0.3, spread = 1;
  float delayMs = 200;

  Planar Run(const Planar& in) const {
    const std::size_t channels = in.size(), frames = in[0].size();
    const long L = std::lround(16.0 * fs) + 1;
    const double u = trash / 100;
    const double d0 = 0.1 + 1.14 * u, n0 = 1 / std::sin(kPi / 2 * d0);
    const double d1 = 0.01 + 0.61 * u, n1 = 1 / std::sin(kPi / 2 * d1), post1 = std::pow(10.0, 1.8 * u / 20);
    const double e2 = 1 + 6.5 * u;
    const double wetDrive = mode == 2 ? std::pow(10.0, 20 * u / 20) : 1, adjust = mode == 2 ? 1 - 0.5 * u : 1;
    const double periods[] = {500, 333, 750}, cutoffs[] = {5500, 4000, 1500}, qs[] = {0.38, 0.59, 0.9};
    const double lfoStep = 2 * kPi / (periods[mode] * 0.001 * fs);
    const double lfoDepth = 0.001 * fs * std::min<double>(delayMs, 0.1);
    const double w = 2 * kPi * cutoffs[mode] / fs, cw = std::cos(w), alpha = std::sin(w) / (2 * qs[mode]);
    const bool open = cutoffs[mode] > fs / 2;  // a low-pass above Nyquist passes everything
    const double b0 = open ? 1 : (1 - cw) / 2 / (1 + alpha), b1 = open ? 0 : 2 * b0, b2 = open ? 0 : b0,
                 a1 = open ? 0 : -2 * cw / (1 + alpha), a2 = open ? 0 : (1 - alpha) / (1 + alpha);
    std::vector<std::vector<double>> line(channels, std::vector<double>(static_cast<std::size_t>(L), 0.0));
    std::vector<std::array<double, 4>> z(channels, {0, 0, 0, 0});
    long write = std::lround(delayMs * 0.001 * fs) + 1;
    float read = 0;
    Planar out(channels, std::vector<float>(frames));
    std::vector<double> tap(channels);
    for (std::size_t n = 0; n < frames; ++n) {
      double m = std::sin(double(n) * float(lfoStep)) * float(lfoDepth) + read;
      if (m < 0) m += L;
      const long i = static_cast<long>(m);
      const double f = m - i;
      auto at = [&](std::size_t c, long k) { return line[c][static_cast<std::size_t>((k + L) % L)]; };
      for (std::size_t c = 0; c < channels; ++c) {
        const double ym1 = at(c, i - 1), y0 = at(c, i), y1 = at(c, i + 1), y2 = at(c, i + 2);
        const double a = y2 - y1 - ym1 + y0;
        tap[c] = a * f * f * f + (ym1 - a - y0) * f * f + (y1 - ym1) * f + y0;
      }
      read += 1;
      if (read > L - 1) read -= L - 1;
      for (std::size_t c = 0; c < channels; ++c) {
        const double x = feedback * tap[c] + in[c][n] * wetDrive;
        double s;
        if (mode == 0) {
          s = std::sin(kPi / 2 * x * d0) * n0;
        } else if (mode == 1) {
          s = std::sin(kPi / 2 * x * d1) * n1;
          if (u > 0) s = (post1 * s) / (1 + std::fabs(post1 * s));
        } else {
          s = std::pow(std::atan(std::pow(std::fabs(x), e2)), 1 / e2) * (x >= 0 ? -1 : 1);
        }
        auto& st = z[c];  // x1 x2 y1 y2
        const double y = b0 * s + b1 * st[0] + b2 * st[1] - a1 * st[2] - a2 * st[3];
        st = {s, st[0], y, st[2]};
        line[c][static_cast<std::size_t>(write)] = y;
      }
      write = (write + 1) % L;
      std::vector<double> wv(tap);
      if (channels == 2) {
        const double d = (tap[0] - tap[1]) * spread;
        wv[0] = (tap[0] + tap[1] + d) / 2;
        wv[1] = (tap[0] + tap[1] - d) / 2;
      }
      for (std::size_t c = 0; c < channels; ++c) {
        out[c][n] = static_cast<float>(wet * adjust * wv[c] + in[c][n] * dry);
      }
    }
    return out;
  }
};

AnalogDelayDSP& Configure(AnalogDelayDSP& d, const Model& m) {
  d.SetDistortionMode(static_cast<unsigned>(m.mode));
  d.SetTrash(static_cast<float>(m.trash));
  d.SetFeedback(static_cast<float>(m.feedback * 100));
  d.SetDryOutPercent(static_cast<float>(m.dry * 100));
  d.SetWetOutPercent(static_cast<float>(m.wet * 100));
  d.SetSpread(static_cast<float>(m.spread * 100));
  d.SetDelay(m.delayMs);
  d.Reset();
  return d;
}

// ---------------------------------------------------------------------------

TEST(AnalogDelay, DefaultsAndTempoSyncTable) {
  AnalogDelayDSP d(48000.0f, 2, false, true);
  float dry, wet, ms, fb;
  d.GetDelayValues(dry, wet, ms, fb);
  EXPECT_FLOAT_EQ(dry, 0.7f);
  EXPECT_FLOAT_EQ(wet, 0.3f);
  EXPECT_FLOAT_EQ(ms, 200.0f);
  EXPECT_FLOAT_EQ(fb, 0.2f);
  EXPECT_EQ(d.GetDistortionMode(), 0u);
  EXPECT_EQ(d.GetTrash(), 25.0f);
  EXPECT_EQ(d.GetSpread(), 100.0f);
  EXPECT_EQ(d.GetLineLength(), 768001u);

  // Note values in quarter-note beats: dotted, straight and triplet
  // 1/64 ... 1/2, then 1, 2, 4 and 8 bars of beatUnit beats.
  const double straight[] = {1.0 / 16, 1.0 / 8, 1.0 / 4, 1.0 / 2, 1.0, 2.0};  // 1/64 ... 1/2 in beats
  for (unsigned k = 0; k < 6; ++k) {
    EXPECT_FLOAT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(3 * k, 4.0f), straight[k] * 1.5) << 3 * k;
    EXPECT_FLOAT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(3 * k + 1, 4.0f), straight[k]) << 3 * k + 1;
    EXPECT_FLOAT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(3 * k + 2, 4.0f), straight[k] * 2 / 3) << 3 * k + 2;
  }
  for (unsigned k = 0; k < 4; ++k) {
    EXPECT_FLOAT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(18 + k, 3.0f), 3.0f * float(1 << k));
  }
  EXPECT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(22, 4.0f), 1.0f);
  EXPECT_EQ(AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(1000, 4.0f), 1.0f);

  d.SetHostTempoSync(true);
  EXPECT_FLOAT_EQ(d.GetDelayMillisOverride(), 500.0f);  // ratio 13 = one beat
  d.SetHostTempoSyncRatio(7);
  d.GetDelayValues(dry, wet, ms, fb);
  EXPECT_FLOAT_EQ(ms, 125.0f);
  d.SetHostTempoSyncRatio(20);
  d.GetDelayValues(dry, wet, ms, fb);
  EXPECT_FLOAT_EQ(ms, 8000.0f);
  d.SetHostTempo(90.0f, 3.0f);
  EXPECT_FLOAT_EQ(d.GetDelayMillisOverride(), 60000.0f / 90.0f * 12.0f);
  d.SetHostTempoSync(false);
  d.GetDelayValues(dry, wet, ms, fb);
  EXPECT_FLOAT_EQ(ms, 200.0f);
}

// Whole outputs against the model in each mode, stereo with feedback and a
// spread of 150 %, 0 % (both wet channels carry their mean) and 200 % (the
// side doubled), and in blocks of any size.
TEST(AnalogDelay, MatchesTheReferenceModel) {
  const Planar x = Noise(2, 9000, 1);
  for (int mode : {0, 1, 2}) {
    Model m{48000.0};
    m.mode = mode;
    m.trash = 40.0 + 20.0 * mode;
    m.feedback = 0.6;
    m.dry = 0.5;
    m.wet = 0.8;
    m.spread = mode == 0 ? 1.5 : mode == 1 ? 0.0 : 2.0;
    m.delayMs = 30;
    const Planar want = m.Run(x);
    AnalogDelayDSP d(48000.0f, 2, false, false);
    const Planar whole = Pass(Configure(d, m), x, 9000);
    EXPECT_LT(MaxDiff(whole, want), 2e-4) << "mode " << mode;
    for (std::size_t block : {1u, 7u, 257u, 1000u}) {
      AnalogDelayDSP split(48000.0f, 2, false, false);
      EXPECT_EQ(Pass(Configure(split, m), x, block), whole) << "mode " << mode << " blocks of " << block;
    }
  }
  Model mono{44100.0};
  mono.trash = 0;
  mono.mode = 1;
  mono.delayMs = 11;
  const Planar x1 = Noise(1, 4000, 2);
  AnalogDelayDSP d(44100.0f, 1, false, false);
  EXPECT_LT(MaxDiff(Pass(Configure(d, mono), x1, 512), mono.Run(x1)), 2e-4);

  // At 1 kHz the 16001-sample line is passed twice in 40 s: each time the
  // read side wraps one sample early and the delay shortens by a sample.
  Model slow{1000.0};
  slow.delayMs = 100;
  slow.feedback = 0.3;
  const Planar x2 = Noise(1, 40000, 3);
  AnalogDelayDSP s(1000.0f, 1, false, false);
  EXPECT_LT(MaxDiff(Pass(Configure(s, slow), x2, 4096), slow.Run(x2)), 2e-4);
}

// A delay change glides at most one sample per sample; with
// jumpOnDelayChange it jumps at once and clears the line.
TEST(AnalogDelay, GlideAndJump) {
  AnalogDelayDSP d(48000.0f, 1, false, false);
  const Planar x = Noise(1, 1, 3);
  Pass(d, Noise(1, 1000, 3), 1000);
  d.SetDelay(100.0f);
  EXPECT_EQ(d.GetCurrentDelayMs(), 200.0f);
  const float oneSample = 1000.0f / 48000.0f;
  float previous = d.GetCurrentDelayMs();
  int frames = 0;
  while (d.GetCurrentDelayMs() != 100.0f && frames < 10000) {
    Pass(d, x, 1);
    const float now = d.GetCurrentDelayMs();
    // Float rounding of the running delay allows a few ulps of 200 ms.
    ASSERT_LE(previous - now, oneSample + 2e-5f);
    ASSERT_GE(previous - now, 0.0f);
    previous = now;
    ++frames;
  }
  EXPECT_NEAR(frames, 4800, 2);

  AnalogDelayDSP jump(48000.0f, 1, true, false);
  jump.SetDryOutPercent(0.0f);
  jump.SetWetOutPercent(100.0f);
  Pass(jump, Noise(1, 12000, 4), 1000);
  jump.SetDelay(50.0f);
  EXPECT_EQ(jump.GetCurrentDelayMs(), 50.0f);
  const Planar silence(1, std::vector<float>(2000, 0.0f));
  EXPECT_EQ(Pass(jump, silence, 2000), silence) << "the line was cleared";
}

// Above 100 % feedback no wet value exceeds 0.975; a minute of loud noise
// at 200 % in every mode stays finite and bounded.
TEST(AnalogDelay, SoftLimitAboveFullFeedback) {
  for (unsigned mode : {0u, 1u, 2u}) {
    AnalogDelayDSP d(48000.0f, 2, false, false);
    d.SetDistortionMode(mode);
    d.SetTrash(mode == 1 ? 0.0f : 100.0f);
    d.SetDryOutPercent(0.0f);
    d.SetWetOutPercent(100.0f);
    d.SetFeedback(200.0f);
    d.SetDelay(mode == 2 ? 10.0f : 700.0f);
    d.Reset();
    const int seconds = mode == 0 ? 60 : 2;
    double peak = 0;
    for (int s = 0; s < seconds; ++s) {
      const Planar y = Pass(d, Noise(2, 48000, 40 + s, 1.0), 4096);
      for (const auto& channel : y) {
        for (float v : channel) {
          ASSERT_TRUE(std::isfinite(v));
          peak = std::max(peak, double(std::fabs(v)));
        }
      }
    }
    // mode 2 scales the wet output by 1 - 0.5 trash/100.
    EXPECT_LE(peak, (mode == 2 ? 0.4875 : 0.975) + 1e-6) << "mode " << mode;
    EXPECT_GT(peak, 0.3) << "mode " << mode;
  }
}

// Bypassed channels are neither fed nor written and come back in outFlags;
// an invalid mode writes nothing and flags every channel.
TEST(AnalogDelay, BypassFlagsAndInvalidMode) {
  AnalogDelayDSP d(48000.0f, 3, false, false);
  Planar x = Noise(3, 600, 6);
  Planar y(3, std::vector<float>(600, -7.0f));
  const float* in[] = {x[0].data(), x[1].data(), x[2].data()};
  float* out[] = {y[0].data(), y[1].data(), y[2].data()};
  Flags bypass;
  bypass.SetBit(1);
  Flags flags;
  EXPECT_NO_ALLOCATION(d.Process(in, out, 600, bypass, flags));
  EXPECT_EQ(flags, bypass);
  EXPECT_EQ(y[1], std::vector<float>(600, -7.0f));
  EXPECT_NE(y[0][5], -7.0f);
  flags = Flags();
  d.Process(in, out, 0, bypass, flags);
  EXPECT_EQ(flags, bypass);

  d.SetDistortionMode(5);
  Planar z(3, std::vector<float>(600, -7.0f));
  float* outZ[] = {z[0].data(), z[1].data(), z[2].data()};
  d.Process(in, outZ, 600, Flags(), flags);
  EXPECT_EQ(flags, Flags::LowBits(3));
  EXPECT_EQ(z[0], std::vector<float>(600, -7.0f));
}

TEST(AnalogDelay, MetersHoldPeaksUntilRead) {
  AnalogDelayDSP d(48000.0f, 1, false, false);
  Planar x(1, std::vector<float>(12000, 0.0f));
  x[0][10] = -0.8f;
  Pass(d, x, 12000);
  float in = 0, out = 0;
  d.GetLevels(in, out);
  EXPECT_FLOAT_EQ(in, 0.8f * 0.7f);
  EXPECT_GT(out, 0.01f);
  EXPECT_LT(out, 0.3f * 0.8f);
  d.GetLevels(in, out);
  EXPECT_EQ(in, 0.0f);
  EXPECT_EQ(out, 0.0f);
}

// Reset repeats a fresh run; nothing allocates after construction.
TEST(AnalogDelay, ResetAndAllocation) {
  const Planar x = Noise(2, 6000, 7);
  AnalogDelayDSP d(48000.0f, 2, false, true);
  d.SetDelay(40.0f);
  d.Reset();
  const Planar fresh = Pass(d, x, 512);
  Pass(d, Noise(2, 5000, 8), 999);
  d.SetDelay(60.0f);
  Pass(d, Noise(2, 100, 9), 100);
  d.SetDelay(40.0f);
  EXPECT_NO_ALLOCATION(d.Reset());
  EXPECT_EQ(Pass(d, x, 512), fresh);
  // Reset clears only what was written since the last clear; after the
  // write side has gone round the whole line, that is all of it.
  AnalogDelayDSP slow(1000.0f, 1, false, false);
  slow.SetFeedback(90.0f);
  slow.SetDelay(3000.0f);
  slow.Reset();
  const Planar y = Noise(1, 20000, 10);
  const Planar first = Pass(slow, y, 4096);
  for (std::size_t frames : {700u, 20000u}) {
    Pass(slow, Noise(1, frames, 11), 999);
    slow.Reset();
    EXPECT_EQ(Pass(slow, y, 4096), first) << frames;
  }
  EXPECT_NO_ALLOCATION(d.SetDistortionMode(2));
  EXPECT_NO_ALLOCATION(d.SetTrash(80.0f));
  EXPECT_NO_ALLOCATION(d.SetHostTempo(100.0f, 4.0f));
  EXPECT_NO_ALLOCATION(d.SetHostTempoSync(true));
}

// Delays beyond the line, rate and channel changes while running, odd
// channel counts and NaN settings stay inside memory (sanitizers).
TEST(AnalogDelay, BadInputStaysInsideTheLine) {
  AnalogDelayDSP d(48000.0f, 2, true, true);
  d.SetHostTempoSync(true);
  d.SetHostTempoSyncRatio(21);
  d.SetHostTempo(30.0f, 16.0f);  // 128 beats of 2 s: far beyond the line
  float dry, wet, ms, fb;
  d.GetDelayValues(dry, wet, ms, fb);
  EXPECT_EQ(ms, 16000.0f);
  Planar y = Pass(d, Noise(2, 3000, 10), 1000);
  d.SetHostTempo(-5.0f, 4.0f);
  d.SetHostTempo(std::numeric_limits<float>::quiet_NaN(), 4.0f);
  EXPECT_EQ(d.GetHostTempo(), 30.0f);
  d.SetHostTempoSync(false);
  d.SetDelay(-100.0f);
  Pass(d, Noise(2, 3000, 11), 1000);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (auto set : {&AnalogDelayDSP::SetDelay, &AnalogDelayDSP::SetFeedback, &AnalogDelayDSP::SetDryOutPercent,
                   &AnalogDelayDSP::SetWetOutPercent, &AnalogDelayDSP::SetTrash, &AnalogDelayDSP::SetSpread,
                   &AnalogDelayDSP::SetSampleRate}) {
    (d.*set)(nan);
  }
  EXPECT_EQ(d.GetDelay(), -100.0f);
  d.SetTrash(500.0f);
  EXPECT_EQ(d.GetTrash(), 100.0f);
  d.SetSampleRate(8000.0f);
  EXPECT_EQ(d.GetLineLength(), 128001u);
  y = Pass(d, Noise(2, 3000, 12), 700);
  for (int channels : {0, 1, 8}) {
    d.SetChannelCount(channels);
    if (channels == 0) {
      Flags flags;
      d.Process(nullptr, nullptr, 100, Flags(), flags);
      continue;
    }
    y = Pass(d, Noise(static_cast<std::size_t>(channels), 2000, 13), 300);
    for (const auto& channel : y) {
      for (float v : channel) ASSERT_TRUE(std::isfinite(v));
    }
  }
}

}  // namespace
