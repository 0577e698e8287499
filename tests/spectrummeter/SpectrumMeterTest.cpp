#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numeric>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/spectrummeter/SpectrumMeterDSP.h"

namespace {

using dsp::spectrummeter::SpectrumMeterDSP;
using Mask = vexcore::utility::Flags<std::uint64_t>;
constexpr double kPi = 3.14159265358979323846;

std::vector<float> Bands(SpectrumMeterDSP& meter, bool peek = true) {
  std::vector<float> out(SpectrumMeterDSP::kMaxValues, -1.0f);
  unsigned count = 0;
  SpectrumMeterDSP::SpectrumType type;
  meter.GetBands(out.data(), count, type, peek);
  out.resize(count);
  return out;
}

void Feed(SpectrumMeterDSP& meter, const std::vector<float>& mono) {
  const float* ch[] = {mono.data()};
  meter.Process(ch, static_cast<int>(mono.size()), Mask());
}

// Frame j of N samples holds amplitude[j] * sin on bin `bin`: with no
// overlap every frame reads back its own amplitude times one constant.
std::vector<float> OnBinFrames(const std::vector<double>& amplitude, int n, int bin) {
  std::vector<float> x;
  for (double a : amplitude) {
    for (int i = 0; i < n; ++i) x.push_back(static_cast<float>(a * std::sin(2.0 * kPi * bin * i / n)));
  }
  return x;
}

TEST(SpectrumMeter, SizesHopsAndBandTables) {
  EXPECT_EQ(SpectrumMeterDSP::GetFFTBlockSize(SpectrumMeterDSP::kFFT4096), 4096);
  EXPECT_EQ(SpectrumMeterDSP::GetFFTBlockSize(SpectrumMeterDSP::kFFT512), 512);
  EXPECT_EQ(SpectrumMeterDSP::GetFFTBlockSize(SpectrumMeterDSP::kFFT8192), 8192);
  SpectrumMeterDSP meter(48000.0f, 2);
  meter.SetFFTSize(SpectrumMeterDSP::kFFT2048);
  meter.SetFFTOverlap(SpectrumMeterDSP::kOverlap50);
  EXPECT_EQ(meter.GetHopSize(), 1024);
  meter.SetParams(SpectrumMeterDSP::kThirdOctave, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT512,
                  SpectrumMeterDSP::kOverlap10, SpectrumMeterDSP::kKaiser);
  EXPECT_EQ(meter.GetHopSize(), 460);  // (int)(0.9 * 512)
  EXPECT_EQ(meter.GetNumValues(), 32u);
  for (int i = 0; i < 32; ++i) {
    EXPECT_NEAR(SpectrumMeterDSP::GetThirdOctaveBand(i), 20.0 * std::pow(2.0, i / 3.0), 2e-3) << i;
  }
  EXPECT_EQ(SpectrumMeterDSP::GetCriticalBand(0), 20.0f);
  EXPECT_EQ(SpectrumMeterDSP::GetCriticalBand(5), 510.0f);
  EXPECT_EQ(SpectrumMeterDSP::GetCriticalBand(25), 20000.0f);
  EXPECT_EQ(SpectrumMeterDSP::GetNumCriticalBands(), 26);
}

// Linear values after one frame against an independent long-double DFT of
// the mixed, windowed signal: three channels, the last one masked, the
// middle one phase-flipped, the mix divided by all three.
TEST(SpectrumMeter, LinearValuesMatchADirectDft) {
  const int n = 512;
  SpectrumMeterDSP meter(44100.0f, 3);
  meter.SetParams(SpectrumMeterDSP::kLinear, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT512,
                  SpectrumMeterDSP::kOverlap0, SpectrumMeterDSP::kHamming);
  meter.SetFlipChannelPhase(true);
  const std::vector<float> a = vextest::Noise(n, 1), b = vextest::Noise(n, 2), c = vextest::Noise(n, 3);
  const float* ch[] = {a.data(), b.data(), c.data()};
  meter.Process(ch, n, Mask(4));
  const std::vector<float> got = Bands(meter);
  ASSERT_EQ(got.size(), 257u);
  std::vector<long double> w(n);
  long double sumW = 0;
  for (int i = 0; i < n; ++i) {
    w[i] = 0.54L - 0.46L * std::cos(2.0L * kPi * i / (n - 1));
    sumW += w[i];
  }
  double worst = 0.0;
  for (int k = 0; k < 257; ++k) {
    std::complex<long double> acc = 0;
    for (int i = 0; i < n; ++i) {
      const long double mixed = (static_cast<long double>(a[i]) - b[i]) / 3.0L;
      acc += mixed * w[i] * std::polar(1.0L, -2.0L * kPi * k * i / n);
    }
    const long double expected = std::abs(acc) * 2.0L / sumW;
    worst = std::max(worst, static_cast<double>(std::abs(got[k] - expected)));
  }
  EXPECT_LT(worst, 2e-6);
}

// Overlapping frames: at 30 % overlap of 512 the hop is (int)(0.7 * 512) =
// 358, so 870 samples make two frames, starting at 0 and 358; the
// cumulative mean is the mean of their two direct DFT magnitudes.
TEST(SpectrumMeter, OverlappedFramesStartOneHopApart) {
  const int n = 512, hop = 358;
  const std::vector<float> x = vextest::Noise(n + hop, 12);
  SpectrumMeterDSP meter(48000.0f, 1);
  meter.SetParams(SpectrumMeterDSP::kLinear, SpectrumMeterDSP::kInfinite, SpectrumMeterDSP::kFFT512,
                  SpectrumMeterDSP::kOverlap30, SpectrumMeterDSP::kBartlett);
  ASSERT_EQ(meter.GetHopSize(), hop);
  const float* first[] = {x.data()};
  meter.Process(first, 300, Mask());
  const float* rest[] = {x.data() + 300};
  meter.Process(rest, n + hop - 300, Mask());
  const std::vector<float> got = Bands(meter);
  std::vector<long double> w(n);
  long double sumW = 0;
  for (int i = 0; i < n; ++i) {
    w[i] = 1.0L - std::fabs((i - (n - 1) / 2.0L) / ((n - 1) / 2.0L));
    sumW += w[i];
  }
  double worst = 0.0;
  for (int k = 0; k <= n / 2; k += 3) {
    long double mean = 0;
    for (int start : {0, hop}) {
      std::complex<long double> acc = 0;
      for (int i = 0; i < n; ++i) acc += x[start + i] * w[i] * std::polar(1.0L, -2.0L * kPi * k * i / n);
      mean += std::abs(acc) * 2.0L / sumW / 2.0L;
    }
    worst = std::max(worst, static_cast<double>(std::fabs(got[k] - mean)));
  }
  EXPECT_LT(worst, 2e-6);
}

TEST(SpectrumMeter, OnBinSineReadsItsAmplitudeWithEveryWindow) {
  const int n = 2048;
  const int bin = 100;
  for (auto window : {SpectrumMeterDSP::kHamming, SpectrumMeterDSP::kBlackman, SpectrumMeterDSP::kBartlett,
                      SpectrumMeterDSP::kKaiser, SpectrumMeterDSP::kHann}) {
    SpectrumMeterDSP meter(48000.0f, 1);
    meter.SetFFTWindow(window);
    Feed(meter, vextest::Sine(n, bin * 48000.0 / n, 48000.0, 1.0));
    const std::vector<float> v = Bands(meter);
    ASSERT_EQ(v.size(), 1025u);
    EXPECT_NEAR(v[bin], 1.0, 2e-3) << window;
    EXPECT_LT(v[bin + 20], 1e-2) << window;
  }
}

TEST(SpectrumMeter, TonesLandInTheirThirdOctaveAndCriticalBands) {
  struct Case {
    double hz;
    int thirdOctave;
    int critical;
  };
  for (const Case& c : {Case{1000.0, 16, 8}, Case{150.0, 8, 1}, Case{5000.0, 23, 18}, Case{12500.0, 27, 23}}) {
    for (auto type : {SpectrumMeterDSP::kThirdOctave, SpectrumMeterDSP::kCriticalBand}) {
      SpectrumMeterDSP meter(48000.0f, 1);
      meter.SetParams(type, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT8192, SpectrumMeterDSP::kOverlap50,
                      SpectrumMeterDSP::kBlackman);
      Feed(meter, vextest::Sine(8192 * 2, c.hz, 48000.0, 0.5));
      const std::vector<float> v = Bands(meter);
      const auto loudest = std::max_element(v.begin(), v.end()) - v.begin();
      EXPECT_EQ(loudest, type == SpectrumMeterDSP::kThirdOctave ? c.thirdOctave : c.critical) << c.hz;
    }
  }
}

// A band value is the root of the band's power: the bins' powers m^2
// summed over the window's noise bandwidth (1.5 bins for Hann, computed here
// from the window), with bins at k (fs/2)/(N/2+1) Hz. At N = 512 and 48 kHz
// the bins sit 93.4 Hz apart, so the lowest third-octave bands get none:
// bands 0 to 5 read 0, bands 7 and 8 repeat band 6 and band 31 (above
// Nyquist) repeats band 30.
TEST(SpectrumMeter, BandValuesAreTheRootOfTheBandPower) {
  const std::vector<float> noise = vextest::Noise(512, 9);
  SpectrumMeterDSP linear(48000.0f, 1);
  linear.SetParams(SpectrumMeterDSP::kLinear, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT512,
                   SpectrumMeterDSP::kOverlap0, SpectrumMeterDSP::kHann);
  Feed(linear, noise);
  const std::vector<float> bins = Bands(linear);
  SpectrumMeterDSP bands(48000.0f, 1);
  bands.SetParams(SpectrumMeterDSP::kThirdOctave, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT512,
                  SpectrumMeterDSP::kOverlap0, SpectrumMeterDSP::kHann);
  Feed(bands, noise);
  const std::vector<float> v = Bands(bands);
  ASSERT_EQ(v.size(), 32u);
  double sumW = 0.0, sumW2 = 0.0;
  for (int i = 0; i < 512; ++i) {
    const double w = 0.5 - 0.5 * std::cos(2.0 * kPi * i / 511.0);
    sumW += w;
    sumW2 += w * w;
  }
  const double enbw = 512.0 * sumW2 / (sumW * sumW);
  EXPECT_NEAR(enbw, 1.5, 0.01);
  const double width = 24000.0 / 257.0;
  for (int b = 0; b < 32; ++b) {
    const double lo = 20.0 * std::pow(2.0, b / 3.0);
    const double hi = b == 31 ? 1e9 : 20.0 * std::pow(2.0, (b + 1) / 3.0);
    double power = 0.0;
    int count = 0;
    for (int k = 1; k < 257; ++k) {
      if (k * width >= lo && k * width < hi) {
        power += static_cast<double>(bins[k]) * bins[k];
        ++count;
      }
    }
    if (count > 0) {
      EXPECT_NEAR(v[b], std::sqrt(power / enbw), 1e-5) << b;
    }
  }
  for (int b = 0; b <= 5; ++b) EXPECT_EQ(v[b], 0.0f) << b;
  EXPECT_GT(v[6], 0.0f);
  EXPECT_EQ(v[7], v[6]);
  EXPECT_EQ(v[8], v[6]);
  EXPECT_EQ(v[31], v[30]);
}

// A tone well inside a band reads its amplitude there, whatever the window
// and frame size: 4500 Hz lies in third-octave band 23 (4064 to 5120 Hz)
// and critical band 18 (4400 to 5300 Hz).
TEST(SpectrumMeter, AToneReadsItsAmplitudeInItsBand) {
  for (auto size : {SpectrumMeterDSP::kFFT2048, SpectrumMeterDSP::kFFT8192}) {
    for (auto window : {SpectrumMeterDSP::kHann, SpectrumMeterDSP::kBlackman, SpectrumMeterDSP::kHamming}) {
      for (auto [type, band] :
           {std::pair{SpectrumMeterDSP::kThirdOctave, 23}, std::pair{SpectrumMeterDSP::kCriticalBand, 18}}) {
        SpectrumMeterDSP meter(48000.0f, 1);
        meter.SetParams(type, SpectrumMeterDSP::kInfinite, size, SpectrumMeterDSP::kOverlap50, window);
        Feed(meter, vextest::Sine(3 * 8192, 4500.0, 48000.0, 0.25));
        EXPECT_NEAR(Bands(meter)[band], 0.25, 0.25 * 0.03) << size << " " << window << " " << type;
      }
    }
  }
}

TEST(SpectrumMeter, GetBandsPeeksOrConsumes) {
  SpectrumMeterDSP meter(48000.0f, 1);
  std::vector<float> out(SpectrumMeterDSP::kMaxValues);
  unsigned count = 99;
  SpectrumMeterDSP::SpectrumType type = SpectrumMeterDSP::kCriticalBand;
  EXPECT_FALSE(meter.GetBands(out.data(), count, type, false));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(type, SpectrumMeterDSP::kLinear);
  Feed(meter, vextest::Noise(2048, 4));
  EXPECT_TRUE(meter.GetBands(out.data(), count, type, true));
  const std::vector<float> first(out.begin(), out.begin() + count);
  EXPECT_TRUE(meter.GetBands(out.data(), count, type, true));
  EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + count), first);
  EXPECT_TRUE(meter.GetBands(out.data(), count, type, false));
  EXPECT_EQ(count, 1025u);
  EXPECT_FALSE(meter.GetBands(out.data(), count, type, false));
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(meter.GetBands(out.data(), count, type, true)) << "peek still copies the old values";
  EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + count), first);
}

TEST(SpectrumMeter, PeakHoldNeverFallsAndDecaysOnlyWhenAsked) {
  SpectrumMeterDSP meter(48000.0f, 1);
  meter.SetFFTSize(SpectrumMeterDSP::kFFT1024);
  std::vector<float> previous(513, 0.0f);
  for (int block = 0; block < 12; ++block) {
    Feed(meter, vextest::Noise(700, static_cast<std::uint32_t>(block), block < 4 ? 1.0 : 0.01));
    const std::vector<float> now = Bands(meter);
    for (int k = 0; k < 513; ++k) ASSERT_GE(now[k], previous[k]) << block << " bin " << k;
    previous = now;
  }
  meter.ResetAverages();
  EXPECT_EQ(Bands(meter), std::vector<float>(513, 0.0f));

  // 20 dB/s: after one second of silence following the tone (measured in
  // whole hops) the held peak has fallen by 20 dB times the hops' duration.
  SpectrumMeterDSP decaying(48000.0f, 1);
  decaying.SetParams(SpectrumMeterDSP::kLinear, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT1024,
                     SpectrumMeterDSP::kOverlap0, SpectrumMeterDSP::kHann);
  decaying.SetPeakDecay(20.0f);
  Feed(decaying, OnBinFrames({1.0}, 1024, 32));
  const float held = Bands(decaying)[32];
  Feed(decaying, std::vector<float>(1024 * 47, 0.0f));
  const double seconds = 47.0 * 1024.0 / 48000.0;
  EXPECT_NEAR(Bands(decaying)[32], held * std::pow(10.0, -20.0 * seconds / 20.0), 1e-5);
}

TEST(SpectrumMeter, InfiniteAndWindowedAveragesAreMovingMeans) {
  const int n = 512;
  std::vector<double> amplitude;
  for (int j = 0; j < 300; ++j) amplitude.push_back(0.1 + 0.9 * ((j * 37) % 17) / 16.0);
  const std::vector<float> signal = OnBinFrames(amplitude, n, 40);

  SpectrumMeterDSP unit(48000.0f, 1);
  unit.SetParams(SpectrumMeterDSP::kLinear, SpectrumMeterDSP::kPeakHold, SpectrumMeterDSP::kFFT512,
                 SpectrumMeterDSP::kOverlap0, SpectrumMeterDSP::kHann);
  Feed(unit, OnBinFrames({1.0}, n, 40));
  const double perUnit = Bands(unit)[40];

  struct Case {
    SpectrumMeterDSP::AverageWindowSize average;
    int framesPerPartial;
    int ringSize;  // ceil(T/1000 * 48000/512 * 0.25)
  };
  for (const Case& c : {Case{SpectrumMeterDSP::kInfinite, 1, 1000}, Case{SpectrumMeterDSP::kAverage1s, 1, 24},
                        Case{SpectrumMeterDSP::kAverage3s, 2, 71}, Case{SpectrumMeterDSP::kAverage10s, 4, 235}}) {
    SpectrumMeterDSP meter(48000.0f, 1);
    meter.SetParams(SpectrumMeterDSP::kLinear, c.average, SpectrumMeterDSP::kFFT512, SpectrumMeterDSP::kOverlap0,
                    SpectrumMeterDSP::kHann);
    Feed(meter, signal);
    // Mean over the last ringSize complete partials, each the mean of its
    // frames.
    const int partials = static_cast<int>(amplitude.size()) / c.framesPerPartial;
    const int used = std::min(partials, c.ringSize);
    const int firstFrame = (partials - used) * c.framesPerPartial;
    const double mean =
        std::accumulate(amplitude.begin() + firstFrame, amplitude.begin() + partials * c.framesPerPartial, 0.0) /
        (used * c.framesPerPartial);
    EXPECT_NEAR(Bands(meter)[40], mean * perUnit, 2e-5) << c.average;
  }
}

TEST(SpectrumMeter, BlockSplitResetAndNoAllocation) {
  const std::vector<float> left = vextest::Noise(20000, 5), right = vextest::Noise(20000, 6);
  auto run = [&](SpectrumMeterDSP& meter, int block) {
    for (int start = 0; start < 20000; start += block) {
      const float* ch[] = {left.data() + start, right.data() + start};
      meter.Process(ch, std::min(block, 20000 - start), Mask());
    }
    return Bands(meter);
  };
  auto make = [] {
    auto meter = vexcore::utility::MakeRef<SpectrumMeterDSP>(44100.0f, 2);
    meter->SetParams(SpectrumMeterDSP::kCriticalBand, SpectrumMeterDSP::kAverage3s, SpectrumMeterDSP::kFFT1024,
                     SpectrumMeterDSP::kOverlap30, SpectrumMeterDSP::kBlackman);
    return meter;
  };
  auto whole = make();
  const std::vector<float> reference = run(*whole, 20000);
  for (int block : {1, 7, 257, 1000}) {
    auto meter = make();
    EXPECT_EQ(run(*meter, block), reference) << block;
  }
  run(*whole, 333);
  whole->Reset();
  EXPECT_EQ(run(*whole, 20000), reference);
  const float* ch[] = {left.data(), right.data()};
  std::vector<float> out(SpectrumMeterDSP::kMaxValues);
  unsigned count = 0;
  SpectrumMeterDSP::SpectrumType type;
  EXPECT_NO_ALLOCATION(whole->Process(ch, 20000, Mask()));
  EXPECT_NO_ALLOCATION(whole->GetBands(out.data(), count, type, false));
  EXPECT_NO_ALLOCATION(whole->ResetAverages());
  EXPECT_NO_ALLOCATION(whole->Reset());
}

TEST(SpectrumMeter, NoChannelsOrAllMaskedShowSilence) {
  const std::vector<float> loud = vextest::Noise(4096, 8);
  const float* ch[] = {loud.data(), loud.data()};
  SpectrumMeterDSP none(48000.0f, 0);
  none.Process(ch, 4096, Mask());
  const std::vector<float> zeros(1025, 0.0f);
  EXPECT_EQ(Bands(none), zeros);
  SpectrumMeterDSP masked(48000.0f, 2);
  masked.Process(ch, 4096, Mask(3));
  EXPECT_EQ(Bands(masked), zeros);
  masked.Process(nullptr, 4096, Mask());
  EXPECT_EQ(Bands(masked), zeros);
  // A flipped stereo pair of identical channels is pure side: silence too.
  SpectrumMeterDSP side(48000.0f, 2);
  side.SetFlipChannelPhase(true);
  side.Process(ch, 4096, Mask());
  EXPECT_EQ(Bands(side), zeros);
}

}  // namespace
