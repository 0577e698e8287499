#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Transform.h"
#include "vexaudiodsp/utils/FFTPool.h"
#include "vexaudiodsp/utils/IppFFT.h"
#include "vexaudiodsp/utils/LegacyFFT.h"

namespace {

using Cplx = std::complex<long double>;

// O(N^2) DFT with exact twiddles (angle reduced mod N in integers); sign -1
// is the forward transform.
std::vector<Cplx> NaiveDft(const std::vector<Cplx>& x, int sign) {
  const std::size_t n = x.size();
  const long double pi = 3.141592653589793238462643383279502884L;
  std::vector<Cplx> out(n);
  for (std::size_t k = 0; k < n; ++k) {
    for (std::size_t t = 0; t < n; ++t) {
      const long double angle = sign * 2.0L * pi * static_cast<long double>((k * t) % n) / static_cast<long double>(n);
      out[k] += x[t] * Cplx(std::cos(angle), std::sin(angle));
    }
  }
  return out;
}

std::vector<double> NoiseD(std::size_t n, std::uint32_t seed) {
  const std::vector<float> f = vextest::Noise(n, seed);
  return std::vector<double>(f.begin(), f.end());
}

TEST(IppFFTComplex, ForwardAndInverseMatchNaiveDftUnscaled) {
  for (int n : {8, 64, 512}) {
    const std::vector<double> re = NoiseD(n, 1), im = NoiseD(n, 2);
    std::vector<Cplx> x(n);
    for (int i = 0; i < n; ++i) x[i] = Cplx(re[i], im[i]);
    const std::vector<Cplx> fwd = NaiveDft(x, -1), inv = NaiveDft(x, +1);

    dsp::IppFFT engine(n);
    ASSERT_TRUE(engine.IsInitialized());
    std::vector<double> outRe(n), outIm(n);
    ASSERT_EQ(engine.FFT(const_cast<double*>(re.data()), const_cast<double*>(im.data()), outRe.data(), outIm.data(), 1),
              0);
    for (int k = 0; k < n; ++k) {
      EXPECT_NEAR(outRe[k], static_cast<double>(fwd[k].real()), 1e-12 * n) << "n " << n << " bin " << k;
      EXPECT_NEAR(outIm[k], static_cast<double>(fwd[k].imag()), 1e-12 * n) << "n " << n << " bin " << k;
    }
    // Any dir other than 1 is the inverse, unscaled.
    std::vector<double> r2 = re, i2 = im;
    ASSERT_EQ(engine.FFT(r2.data(), i2.data(), -7), 0);
    for (int k = 0; k < n; ++k) {
      EXPECT_NEAR(r2[k], static_cast<double>(inv[k].real()), 1e-12 * n);
      EXPECT_NEAR(i2[k], static_cast<double>(inv[k].imag()), 1e-12 * n);
    }

    dsp::IppFFT32 engine32(n);
    std::vector<float> fr(re.begin(), re.end()), fi(im.begin(), im.end());
    ASSERT_EQ(engine32.FFT(fr.data(), fi.data(), 1), 0);
    for (int k = 0; k < n; ++k) {
      EXPECT_NEAR(fr[k], static_cast<double>(fwd[k].real()), 2e-6 * n);
      EXPECT_NEAR(fi[k], static_cast<double>(fwd[k].imag()), 2e-6 * n);
    }
  }
}

// CCS layout: bins 0 ... N/2 as interleaved complex values.
TEST(IppFFTReal, CcsLayoutMatchesNaiveDftAndScalingPerEngine) {
  const int n = 256;
  const std::vector<double> x = NoiseD(n, 3);
  std::vector<Cplx> xc(x.begin(), x.end());
  const std::vector<Cplx> X = NaiveDft(xc, -1);

  dsp::IppFFT32R r32(n);
  dsp::IppFFT32fReal f32(n);
  dsp::IppFFT64fReal f64(n);
  std::vector<float> xf(x.begin(), x.end());
  std::vector<float> unscaled(n + 2), scaled(n + 2);
  std::vector<double> scaledD(n + 2);
  ASSERT_EQ(r32.FFT(xf.data(), unscaled.data(), 1), 0);
  ASSERT_EQ(f32.FFT(xf.data(), scaled.data()), 0);
  ASSERT_EQ(f64.FFT(const_cast<double*>(x.data()), scaledD.data()), 0);
  for (int k = 0; k <= n / 2; ++k) {
    const double re = static_cast<double>(X[k].real()), im = static_cast<double>(X[k].imag());
    EXPECT_NEAR(unscaled[2 * k], re, 1e-4) << k;
    EXPECT_NEAR(unscaled[2 * k + 1], im, 1e-4) << k;
    EXPECT_NEAR(scaled[2 * k], re / n, 1e-6) << k;
    EXPECT_NEAR(scaled[2 * k + 1], im / n, 1e-6) << k;
    EXPECT_NEAR(scaledD[2 * k], re / n, 1e-14) << k;
    EXPECT_NEAR(scaledD[2 * k + 1], im / n, 1e-14) << k;
  }

  // Unscaled inverse in place: N times the signal.
  ASSERT_EQ(r32.FFT(unscaled.data(), -1), 0);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(unscaled[i], n * x[i], 2e-3) << i;
}

TEST(IppFFTReal, ConstantInputGivesDcOfOneScaledOrNUnscaled) {
  std::vector<float> ones(1024, 1.0f), out(1026);
  dsp::IppFFT32fReal scaled(1024);
  ASSERT_EQ(scaled.FFT(ones.data(), out.data()), 0);
  EXPECT_FLOAT_EQ(out[0], 1.0f);
  dsp::IppFFT32R unscaled(1024);
  ASSERT_EQ(unscaled.FFT(ones.data(), out.data(), 1), 0);
  EXPECT_FLOAT_EQ(out[0], 1024.0f);
  EXPECT_NEAR(out[2], 0.0f, 1e-3f);
}

TEST(IppFFTLifecycle, UninitialisedEnginesReturnOneAndLeaveBuffers) {
  std::vector<float> a(16, 3.0f), b(16, 4.0f);
  dsp::IppFFT32 c32;
  EXPECT_EQ(c32.FFT(a.data(), b.data(), 1), 1);
  EXPECT_EQ(a[0], 3.0f);
  dsp::IppFFT32R r;
  EXPECT_EQ(r.FFT(a.data(), b.data(), 1), 1);
  EXPECT_EQ(b[0], 4.0f);
  dsp::IppFFT32fReal f;
  EXPECT_EQ(f.FFT(a.data(), b.data()), 1);
  std::vector<double> d(16, 1.0);
  dsp::IppFFT64fReal f64;
  EXPECT_EQ(f64.FFT(d.data(), d.data()), 1);
  dsp::IppFFT c64;
  EXPECT_EQ(c64.FFT(d.data(), d.data(), 1), 1);
  EXPECT_EQ(d[0], 1.0);

  dsp::IppFFT32R planned(16);
  planned.DeInit();
  EXPECT_FALSE(planned.IsInitialized());
  EXPECT_EQ(planned.GetSize(), 0);
  EXPECT_EQ(planned.FFT(a.data(), b.data(), 1), 1);
}

TEST(IppFFTLifecycle, HalvingLoopPlansOrderFourForThousand) {
  EXPECT_EQ(dsp::FFTOrderFromSize(1000), 4);
  EXPECT_EQ(dsp::FFTOrderFromSize(1024), 10);
  EXPECT_EQ(dsp::FFTOrderFromSize(2), 1);
  EXPECT_EQ(dsp::FFTOrderFromSize(0), -1);

  // Init(1000) keeps the size but transforms 16 points: a 16-point DC.
  dsp::IppFFT32fReal engine(1000);
  ASSERT_TRUE(engine.IsInitialized());
  EXPECT_EQ(engine.GetSize(), 1000);
  std::vector<float> in(1000, 0.0f), out(1002, -1.0f);
  for (int i = 0; i < 16; ++i) in[i] = 1.0f;
  ASSERT_EQ(engine.FFT(in.data(), out.data()), 0);
  EXPECT_FLOAT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[18], -1.0f);  // beyond N + 2 = 18 values nothing is written

  dsp::IppFFT32R bad(0);
  EXPECT_FALSE(bad.IsInitialized());
  dsp::IppFFT32R reInit(64);
  reInit.Init(-5);
  EXPECT_FALSE(reInit.IsInitialized());
}

TEST(IppFFTLifecycle, CopyTransfersStateAndSourceKeepsFlagAndSize) {
  dsp::IppFFT32R source(64);
  dsp::IppFFT32R target(source);
  EXPECT_TRUE(source.IsInitialized());
  EXPECT_EQ(source.GetSize(), 64);
  std::vector<float> in(66, 1.0f), out(66, 0.0f);
  EXPECT_EQ(source.FFT(in.data(), out.data(), 1), 1);
  EXPECT_EQ(out[0], 0.0f);
  ASSERT_EQ(target.FFT(in.data(), out.data(), 1), 0);
  EXPECT_FLOAT_EQ(out[0], 64.0f);

  dsp::IppFFT32R assigned(8);
  assigned = target;
  EXPECT_EQ(assigned.GetSize(), 64);
  EXPECT_EQ(target.FFT(in.data(), out.data(), 1), 1);
  ASSERT_EQ(assigned.FFT(in.data(), out.data(), 1), 0);
  EXPECT_FLOAT_EQ(out[0], 64.0f);
}

TEST(IppFFTLifecycle, TransformsDoNotAllocateAndAcceptUnalignedBuffers) {
  const int n = 1024;
  dsp::IppFFT engine(n);
  dsp::IppFFT32R real(n);
  std::vector<double> re = NoiseD(n, 5), im(n, 0.0);
  std::vector<float> buf(n + 3, 0.5f);
  float* unaligned = buf.data() + 1;
  EXPECT_NO_ALLOCATION(engine.FFT(re.data(), im.data(), 1));
  EXPECT_NO_ALLOCATION(real.FFT(unaligned, 1));
  EXPECT_NEAR(unaligned[0], 0.5f * n, 1e-3f);
}

TEST(FFTPool, CreatesOneStatePerOrderAndKeepsTheLargestBuffer) {
  dsp::FFTPool pool("TempPartConvFFTPool");
  EXPECT_EQ(pool.GetFFTBuffer(), nullptr);
  EXPECT_EQ(pool.GetFFT(32), nullptr);
  pool.AddOrder(10);
  vexaccelerate::FFTState_Float* ten = pool.GetFFT(10);
  ASSERT_NE(ten, nullptr);
  pool.AddOrder(10);
  EXPECT_EQ(pool.GetFFT(10), ten);

  int bytes12 = 0;
  vexaccelerate::FFTState_Float* probe = nullptr;
  ASSERT_EQ(vexaccelerate::transform::FFTInit(&probe, 12), 0);
  vexaccelerate::transform::FFTGetBufSize(probe, &bytes12);
  vexaccelerate::transform::FFTFree(probe);

  dsp::FFTPool grown("grown");
  grown.AddOrder(12);
  grown.AddOrder(10);
  EXPECT_EQ(grown.GetFFTBufferBytes(), static_cast<std::size_t>(bytes12));
  EXPECT_NE(grown.GetFFTBuffer(), nullptr);

  // The pool's state and buffer run a transform: DC of a constant.
  std::vector<float> in(1024, 0.25f), out(1026);
  ASSERT_EQ(vexaccelerate::transform::FFTFwd(grown.GetFFT(10), in.data(), out.data(), grown.GetFFTBuffer()), 0);
  EXPECT_FLOAT_EQ(out[0], 256.0f);

  dsp::FFTPool copy(grown);
  EXPECT_NE(copy.GetFFT(12), grown.GetFFT(12));
  EXPECT_NE(copy.GetFFT(12), nullptr);
  EXPECT_EQ(copy.GetName(), "grown");
}

// Two real channels through one complex FFT, against the naive DFT of each.
TEST(SplitCombine, SplitGivesEachChannelsSpectrumAndCombineInvertsIt) {
  const int n = 64;
  const std::vector<double> l = NoiseD(n, 7), r = NoiseD(n, 8);
  std::vector<float> re(l.begin(), l.end()), im(r.begin(), r.end());
  dsp::IppFFT32 engine(n);
  ASSERT_EQ(engine.FFT(re.data(), im.data(), 1), 0);
  const std::vector<float> zRe = re, zIm = im;

  std::vector<std::vector<float>> sr(3, std::vector<float>(n, 9.0f)), si = sr;
  float* outRe[3] = {sr[0].data(), sr[1].data(), sr[2].data()};
  float* outIm[3] = {si[0].data(), si[1].data(), si[2].data()};
  SplitComplexSpectrumToLR(re.data(), im.data(), 1, outRe, outIm, n);
  EXPECT_EQ(sr[0][0], 9.0f);  // channel 0 untouched

  const std::vector<Cplx> L = NaiveDft(std::vector<Cplx>(l.begin(), l.end()), -1);
  const std::vector<Cplx> R = NaiveDft(std::vector<Cplx>(r.begin(), r.end()), -1);
  for (int k = 0; k < n; ++k) {
    EXPECT_NEAR(sr[1][k], static_cast<double>(L[k].real()), 1e-4) << k;
    EXPECT_NEAR(si[1][k], static_cast<double>(L[k].imag()), 1e-4) << k;
    EXPECT_NEAR(sr[2][k], static_cast<double>(R[k].real()), 1e-4) << k;
    EXPECT_NEAR(si[2][k], static_cast<double>(R[k].imag()), 1e-4) << k;
  }

  std::vector<float> backRe(n), backIm(n);
  CombineLRSpectrumToComplex(1, outRe, outIm, backRe.data(), backIm.data(), n);
  for (int k = 0; k < n; ++k) {
    EXPECT_NEAR(backRe[k], zRe[k], 1e-5) << k;
    EXPECT_NEAR(backIm[k], zIm[k], 1e-5) << k;
  }
}

TEST(LegacyFFT, FunctionsRunOnMatchingDataAndIgnoreTheRest) {
  const int n = 32;
  const std::vector<double> x = NoiseD(n, 9), y = NoiseD(n, 10);
  std::vector<Cplx> xc(n);
  for (int i = 0; i < n; ++i) xc[i] = Cplx(x[i], y[i]);
  const std::vector<Cplx> X = NaiveDft(xc, -1);

  FFTWORKINGDATA_D dd(n);
  FFTWORKINGDATA_F fd(n);
  std::vector<double> re = x, im = y;
  LFFTD(re.data(), im.data(), n, 1, dd);
  for (int k = 0; k < n; ++k) EXPECT_NEAR(re[k], static_cast<double>(X[k].real()), 1e-12);

  std::vector<double> dre(n), dim(n);
  LFFTSD(const_cast<double*>(x.data()), const_cast<double*>(y.data()), dre.data(), dim.data(), n, 0, dd);
  for (int k = 0; k < n; ++k) EXPECT_NEAR(dim[k], static_cast<double>(X[k].imag()), 1e-12);
  LFFTSD(dre.data(), dim.data(), dre.data(), dim.data(), n, -1, dd);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(dre[i], n * x[i], 1e-11);

  // Wrong precision, wrong length or empty data: nothing happens.
  std::vector<double> keep = x;
  std::vector<double> keepIm = y;
  LFFTD(keep.data(), keepIm.data(), n, 1, fd);
  EXPECT_EQ(keep, x);
  FFTWORKINGDATA_D empty;
  LFFTD(keep.data(), keepIm.data(), n, 1, empty);
  EXPECT_EQ(keep, x);
  LFFTD(keep.data(), keepIm.data(), n / 2, 1, dd);
  EXPECT_EQ(keep, x);

  std::vector<float> fre(x.begin(), x.end()), fim(y.begin(), y.end());
  LFFTF(fre.data(), fim.data(), n, 1, fd);
  for (int k = 0; k < n; ++k) EXPECT_NEAR(fim[k], static_cast<double>(X[k].imag()), 1e-4);

  // Two real channels forward and back: n times the signals, inputs kept.
  std::vector<float> x1(x.begin(), x.end()), x2(y.begin(), y.end());
  const std::vector<float> x1Copy = x1;
  std::vector<float> r1(n), i1(n), r2(n), i2(n);
  LFFT2CF(x1.data(), x2.data(), r1.data(), i1.data(), r2.data(), i2.data(), n, 1, fd);
  EXPECT_EQ(x1, x1Copy);
  const std::vector<Cplx> X1 = NaiveDft(std::vector<Cplx>(x.begin(), x.end()), -1);
  for (int k = 0; k < n; ++k) EXPECT_NEAR(i1[k], static_cast<double>(X1[k].imag()), 1e-4) << k;
  std::vector<float> y1(n), y2(n);
  LFFT2CF(y1.data(), y2.data(), r1.data(), i1.data(), r2.data(), i2.data(), n, -1, fd);
  for (int i = 0; i < n; ++i) {
    EXPECT_NEAR(y1[i], n * x[i], 1e-4) << i;
    EXPECT_NEAR(y2[i], n * y[i], 1e-4) << i;
  }
}

}  // namespace
