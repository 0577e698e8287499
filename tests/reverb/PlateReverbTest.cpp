#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/reverb/PlateReverb.h"

namespace {

using dsp::PlateReverb::AllPass;
using dsp::PlateReverb::Comb;
using dsp::PlateReverb::PlateReverb;
using Planar = std::vector<std::vector<float>>;

constexpr double kPi = 3.14159265358979323846;

// ---------------------------------------------------------------------------
// An independent model of the plate, frame by frame in double precision,
// written from the description of the algorithm: its own comb and all-pass
// rings, its own RBJ biquads in direct form I.

struct Biquad {
  double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
  double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
  static Biquad Make(bool highpass, double fs, double f, double q) {
    Biquad s;
    if (f > fs / 2) {
      if (highpass) s.b0 = 0;  // a high-pass above Nyquist passes nothing
      return s;
    }
    const double w = 2 * kPi * f / fs, cw = std::cos(w), alpha = std::sin(w) / (2 * q), a0 = 1 + alpha;
    const double k = highpass ? (1 + cw) / 2 : (1 - cw) / 2;
    s.b0 = k / a0;
    s.b1 = (highpass ? -2 * k : 2 * k) / a0;
    s.b2 = k / a0;
    s.a1 = -2 * cw / a0;
    s.a2 = (1 - alpha) / a0;
    return s;
  }
  double Run(double x) {
    const double y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1;
    x1 = x;
    y2 = y1;
    y1 = y;
    return y;
  }
};

struct Settings {
  double dry = 100, wet = 0, room = 0.8, dampLF = 0, dampHF = 0.73, reflMs = 0, width = 1;
  double lowF = 50, lowQ = 2, highF = 7000, highQ = 2;
  void Apply(PlateReverb& r) const {
    r.SetDryOutPercent(float(dry));
    r.SetWetOutPercent(float(wet));
    r.SetRoomSize(float(room));
    r.SetDampingLF(float(dampLF));
    r.SetDampingHF(float(dampHF));
    r.SetReflectionsDelay(float(reflMs));
    r.SetWidth(float(width));
    r.SetLowCutoffFreq(float(lowF));
    r.SetLowCutoffQ(float(lowQ));
    r.SetHighCutoffFreq(float(highF));
    r.SetHighCutoffQ(float(highQ));
  }
};

Planar ReferencePlate(const Settings& s, double fs, const Planar& in) {
  const std::size_t channels = in.size(), frames = in[0].size();
  const unsigned combLen[] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
  const unsigned apLen[] = {556, 441, 341, 225};
  struct Line {
    std::vector<double> buf;
    std::size_t pos = 0;
    double lp = 0, low = 0;
  };
  std::vector<std::vector<Line>> combs(channels, std::vector<Line>(8)), aps(channels, std::vector<Line>(4));
  std::vector<Biquad> lowCut, highCut;
  for (std::size_t ch = 0; ch < channels; ++ch) {
    for (int i = 0; i < 8; ++i) combs[ch][i].buf.assign(combLen[i] + 23 * ch, 0.0);
    for (int j = 0; j < 4; ++j) aps[ch][j].buf.assign(apLen[j] + 23 * ch, 0.0);
    lowCut.push_back(Biquad::Make(true, fs, s.lowF, s.lowQ));
    highCut.push_back(Biquad::Make(false, fs, s.highF, s.highQ));
  }
  const std::size_t reflLen =
      std::max<std::size_t>(1, static_cast<std::size_t>(std::floor(s.reflMs * fs / 1000 + 0.5)));
  std::vector<std::vector<double>> refl(channels, std::vector<double>(reflLen, 0.0));
  std::size_t reflPos = 0;
  const double feedback = 0.28 * s.room + 0.7, hf = 0.4 * s.dampHF, lf = 0.4 * s.dampLF;
  const double wet1 = (0.5 + s.width * 0.5) * s.wet / 100, wet2 = s.wet / 100 * (0.5 - s.width * 0.5);
  Planar out(channels, std::vector<float>(frames));
  std::vector<double> acc(channels), wetv(channels);
  for (std::size_t n = 0; n < frames; ++n) {
    double input = 0;
    for (std::size_t ch = 0; ch < channels; ++ch) input += in[ch][n];
    input *= 0.015;
    for (std::size_t ch = 0; ch < channels; ++ch) {
      acc[ch] = 0;
      for (Line& c : combs[ch]) {
        const double y = c.buf[c.pos];
        c.lp += (y - c.lp) * (1 - hf);
        c.low += (c.lp - c.low) * lf;
        c.buf[c.pos] = input + (c.lp - c.low) * feedback;
        c.pos = (c.pos + 1) % c.buf.size();
        acc[ch] += y;
      }
      for (Line& a : aps[ch]) {
        const double y = a.buf[a.pos];
        a.buf[a.pos] = 0.5 * y + acc[ch];
        a.pos = (a.pos + 1) % a.buf.size();
        acc[ch] = y - acc[ch];
      }
    }
    for (std::size_t ch = 0; ch < channels; ++ch) {
      refl[ch][reflPos] = wet1 * acc[ch] + (channels == 2 ? wet2 * acc[ch ^ 1] : 0.0);
    }
    reflPos = (reflPos + 1) % reflLen;
    for (std::size_t ch = 0; ch < channels; ++ch) {
      const double w = highCut[ch].Run(lowCut[ch].Run(refl[ch][reflPos]));
      out[ch][n] = static_cast<float>(in[ch][n] * s.dry / 100 + w);
    }
  }
  return out;
}

Planar Noise(std::size_t channels, std::size_t frames, std::uint32_t seed, double amplitude = 0.5) {
  Planar x;
  for (std::size_t ch = 0; ch < channels; ++ch)
    x.push_back(vextest::Noise(frames, seed + std::uint32_t(ch), amplitude));
  return x;
}

Planar Process(PlateReverb& reverb, Planar x, std::size_t block) {
  const std::size_t frames = x[0].size();
  std::vector<float*> p(x.size());
  for (std::size_t done = 0; done < frames; done += block) {
    for (std::size_t ch = 0; ch < x.size(); ++ch) p[ch] = x[ch].data() + done;
    reverb.ProcessInPlace(static_cast<unsigned>(std::min(block, frames - done)), p.data());
  }
  return x;
}

double MaxDiff(const Planar& a, const Planar& b) {
  double worst = 0;
  for (std::size_t ch = 0; ch < a.size(); ++ch) worst = std::max(worst, vextest::MaxAbsDiff(a[ch], b[ch]));
  return worst;
}

// ---------------------------------------------------------------------------

TEST(PlateReverbElements, CombAndAllPassFollowTheirDifferenceEquations) {
  Comb comb(5);
  comb.SetFeedback(0.9f);
  comb.SetDampingHF(0.3f);
  comb.SetDampingLF(0.2f);
  std::vector<double> ring(5, 0.0);
  double lp = 0, low = 0;
  const std::vector<float> x = vextest::Noise(200, 1);
  for (std::size_t n = 0; n < x.size(); ++n) {
    const double y = ring[n % 5];
    lp += (y - lp) * 0.7;
    low += (lp - low) * 0.2;
    ring[n % 5] = x[n] + (lp - low) * 0.9;
    ASSERT_NEAR(comb.ProcessSample(x[n]), y, 1e-5) << n;
  }
  AllPass allPass(3);
  allPass.SetFeedback(0.5f);
  std::vector<double> apRing(3, 0.0);
  for (std::size_t n = 0; n < x.size(); ++n) {
    const double y = apRing[n % 3];
    apRing[n % 3] = 0.5 * y + x[n];
    ASSERT_NEAR(allPass.ProcessSample(x[n]), y - x[n], 1e-5) << n;
  }
  // Copies carry the buffer; SetBufferSize and Reset clear it; empty lines
  // are harmless.
  Comb copy = comb;
  EXPECT_EQ(copy.ProcessSample(0.0f), comb.ProcessSample(0.0f));
  comb.SetBufferSize(8);
  EXPECT_EQ(comb.GetBufferSize(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(comb.ProcessSample(0.0f), 0.0f);
  copy.Reset();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(copy.ProcessSample(0.0f), 0.0f);
  Comb empty(0);
  EXPECT_EQ(empty.ProcessSample(1.0f), 0.0f);
  AllPass emptyAp(0);
  EXPECT_EQ(emptyAp.ProcessSample(1.0f), -1.0f);
}

TEST(PlateReverb, NewObjectPassesItsInputUnchanged) {
  PlateReverb reverb(48000.0f, 2);
  const Planar x = Noise(2, 3000, 3);
  EXPECT_EQ(Process(reverb, x, 3000), x);
  EXPECT_EQ(reverb.GetSystemDelay(), 0u);
}

// Whole outputs against the model: stereo with cross-feed, reflections and
// damping, mono, and three channels (no cross-feed, 23-sample spread); then
// a low cut above Nyquist (the wet path goes silent) and a high cut above it
// (no high cut).
TEST(PlateReverb, MatchesTheReferenceModel) {
  Settings s;
  s.dry = 60;
  s.wet = 80;
  s.room = 0.9;
  s.dampLF = 0.3;
  s.dampHF = 0.5;
  s.reflMs = 3;
  s.width = 0.4;
  s.lowF = 120;
  s.lowQ = 0.9;
  s.highF = 9000;
  s.highQ = 1.3;
  for (std::size_t channels : {2u, 1u, 3u}) {
    for (float rate : {48000.0f, 44100.0f}) {
      PlateReverb reverb(rate, static_cast<int>(channels));
      s.Apply(reverb);
      const Planar x = Noise(channels, 6000, 10);
      EXPECT_LT(MaxDiff(Process(reverb, x, 1000), ReferencePlate(s, rate, x)), 2e-5)
          << channels << " channels at " << rate;
    }
  }
  const Planar x = Noise(2, 3000, 5);
  s.lowF = 40000;
  PlateReverb silent(48000.0f, 2);
  s.Apply(silent);
  const Planar y = Process(silent, x, 3000);
  for (std::size_t ch = 0; ch < 2; ++ch) {
    for (std::size_t n = 0; n < 3000; ++n) ASSERT_FLOAT_EQ(y[ch][n], 0.6f * x[ch][n]);
  }
  s.lowF = 20;
  s.highF = 40000;
  PlateReverb open(48000.0f, 2);
  s.Apply(open);
  EXPECT_LT(MaxDiff(Process(open, x, 3000), ReferencePlate(s, 48000, x)), 2e-5);
}

// Room size 1 gives comb feedback 0.98, never 1; the reflections line is
// held to its 100 ms reserve and to at least one sample.
TEST(PlateReverb, RoomSizeAndReflectionsLineLimits) {
  PlateReverb reverb(48000.0f, 2);
  reverb.SetRoomSize(1.0f);
  EXPECT_FLOAT_EQ(reverb.GetComb(1, 7).GetFeedback(), 0.98f);
  reverb.SetReflectionsDelay(500.0f);
  EXPECT_EQ(reverb.GetReflectionsDelay(), 500.0f);
  EXPECT_EQ(reverb.GetReflectionsLength(), 4800u);
  reverb.SetReflectionsDelay(-3.0f);
  EXPECT_EQ(reverb.GetReflectionsLength(), 1u);
}

// Any split gives the same output; Reset restarts exactly like a fresh
// object; after the first block nothing allocates.
TEST(PlateReverb, BlockSplitResetAndAllocation) {
  Settings s;
  s.wet = 70;
  s.reflMs = 7;
  s.width = 0.5;
  s.dampLF = 0.4;  // so that every comb state matters to Reset
  const Planar x = Noise(2, 12000, 6);
  PlateReverb whole(48000.0f, 2);
  s.Apply(whole);
  const Planar want = Process(whole, x, 12000);
  for (std::size_t block : {1u, 7u, 256u, 257u, 1000u}) {
    PlateReverb split(48000.0f, 2);
    s.Apply(split);
    EXPECT_EQ(Process(split, x, block), want) << "blocks of " << block;
  }
  whole.Reset();
  EXPECT_EQ(Process(whole, x, 12000), want);

  PlateReverb reverb(8000.0f, 2);  // one second of reserve is 8000 frames
  s.Apply(reverb);
  reverb.SetMaxProcessingBlockSize(12000);
  Planar y = x;
  float* p[] = {y[0].data(), y[1].data()};
  EXPECT_NO_ALLOCATION(reverb.ProcessInPlace(12000, p));
  EXPECT_NO_ALLOCATION(reverb.SetRoomSize(0.3f));
  EXPECT_NO_ALLOCATION(reverb.SetReflectionsDelay(100.0f));
  EXPECT_NO_ALLOCATION(reverb.SetHighCutoffFreq(3000.0f));
  EXPECT_NO_ALLOCATION(reverb.Reset());
  EXPECT_NO_ALLOCATION(reverb.ProcessInPlace(512, p));
}

// The same rate keeps the tail, a new rate or channel count rebuilds.
TEST(PlateReverb, RebuildRules) {
  Settings s;
  s.dry = 0;
  s.wet = 100;
  PlateReverb reverb(48000.0f, 2);
  s.Apply(reverb);
  Process(reverb, Noise(2, 2000, 7), 2000);
  reverb.SetSampleRate(48000.0f);
  const Planar silence(2, std::vector<float>(500, 0.0f));
  EXPECT_GT(MaxDiff(Process(reverb, silence, 500), silence), 1e-4) << "tail kept";
  reverb.SetSampleRate(96000.0f);
  EXPECT_EQ(Process(reverb, silence, 500), silence) << "tail lost";
  EXPECT_EQ(reverb.GetComb(0, 0).GetBufferSize(), 1116u) << "lengths are not scaled by the rate";
  Process(reverb, Noise(2, 2000, 8), 2000);
  reverb.SetChannelCount(2);
  EXPECT_EQ(Process(reverb, silence, 500), silence);
  reverb.SetSampleRate(-5.0f);
  reverb.SetSampleRate(std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(reverb.GetSampleRate(), 96000.0f);
}

// Odd channel counts, NaN settings and a minute of loud noise at the
// largest room: nothing leaves memory (sanitizers), output stays bounded.
TEST(PlateReverb, BadInputAndLongRunsStayBounded) {
  PlateReverb none(48000.0f, 0);
  none.SetWetOutPercent(100.0f);
  none.ProcessInPlace(100, nullptr);
  for (int channels : {1, 8}) {
    PlateReverb reverb(48000.0f, channels);
    reverb.SetWetOutPercent(100.0f);
    const Planar y = Process(reverb, Noise(static_cast<std::size_t>(channels), 5000, 9), 700);
    for (const auto& channel : y) {
      for (float v : channel) ASSERT_TRUE(std::isfinite(v));
    }
  }
  PlateReverb reverb(48000.0f, 2);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  reverb.SetWetOutPercent(100.0f);
  for (auto set : {&PlateReverb::SetDryOutPercent, &PlateReverb::SetWetOutPercent, &PlateReverb::SetWidth,
                   &PlateReverb::SetRoomSize, &PlateReverb::SetDampingLF, &PlateReverb::SetDampingHF,
                   &PlateReverb::SetReflectionsDelay, &PlateReverb::SetLowCutoffFreq, &PlateReverb::SetLowCutoffQ,
                   &PlateReverb::SetHighCutoffFreq, &PlateReverb::SetHighCutoffQ}) {
    (reverb.*set)(nan);
  }
  EXPECT_EQ(reverb.GetWetOutPercent(), 100.0f);
  reverb.SetRoomSize(1.0f);
  reverb.SetDampingHF(0.0f);
  reverb.SetDampingLF(0.0f);
  reverb.SetLowCutoffFreq(20.0f);
  reverb.SetHighCutoffFreq(20000.0f);
  double peak = 0;
  for (int second = 0; second < 60; ++second) {
    const Planar y = Process(reverb, Noise(2, 48000, 100 + second, 1.0), 4096);
    for (const auto& channel : y) {
      for (float v : channel) {
        ASSERT_TRUE(std::isfinite(v));
        peak = std::max(peak, static_cast<double>(std::fabs(v)));
      }
    }
  }
  EXPECT_LT(peak, 20.0);
  EXPECT_GT(peak, 1.0);
}

}  // namespace
