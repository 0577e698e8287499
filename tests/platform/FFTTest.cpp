#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Transform.h"

using namespace vexaccelerate;
using namespace vexaccelerate::transform;

namespace {

using Cplx = std::complex<long double>;

// O(N^2) reference with exact twiddles (angle reduced mod N in integers).
std::vector<Cplx> NaiveDft(const std::vector<Cplx>& x, int sign) {
  const std::size_t n = x.size();
  const long double pi = 3.141592653589793238462643383279502884L;
  std::vector<Cplx> out(n);
  for (std::size_t k = 0; k < n; ++k) {
    Cplx acc = 0;
    for (std::size_t t = 0; t < n; ++t) {
      const long double angle = sign * 2.0L * pi * static_cast<long double>((k * t) % n) / static_cast<long double>(n);
      acc += x[t] * Cplx(std::cos(angle), std::sin(angle));
    }
    out[k] = acc;
  }
  return out;
}

template <typename T>
std::vector<T> NoiseOf(std::size_t n, std::uint32_t seed) {
  const std::vector<float> f = vextest::Noise(n, seed);
  return std::vector<T>(f.begin(), f.end());
}

// FFT rounding error grows like eps * log2(N) * ||x||.
template <typename T>
double Tolerance(int order, const std::vector<T>& x) {
  long double norm2 = 0;
  for (T v : x) norm2 += static_cast<long double>(v) * v;
  return 4.0 * std::numeric_limits<T>::epsilon() * (order + 1) * static_cast<double>(std::sqrt(norm2) + 1);
}

// The four state kinds behind one interface for the typed tests.
template <typename State, typename T, bool kComplex>
struct Kind {
  using Value = T;
  static constexpr bool complex = kComplex;
  State* s = nullptr;
  Kind(int order, FFTScaling scaling = kFFTDivInvByN) { EXPECT_EQ(FFTInit(&s, order, scaling), 0); }
  ~Kind() { FFTFree(s); }
  int Fwd(const T* in, T* out, void* work = nullptr) const { return FFTFwd(s, in, out, work); }
  int Inv(const T* in, T* out, void* work = nullptr) const { return FFTInv(s, in, out, work); }
  static std::size_t TimeCount(std::size_t n) { return kComplex ? 2 * n : n; }
  static std::size_t FreqCount(std::size_t n) { return kComplex ? 2 * n : n + 2; }
};

using RealF = Kind<FFTState_Float, float, false>;
using RealD = Kind<FFTState_Double, double, false>;
using CplxF = Kind<FFTState_ComplexFloat, float, true>;
using CplxD = Kind<FFTState_ComplexDouble, double, true>;

template <typename K>
class FFTKinds : public testing::Test {};
using AllKinds = testing::Types<RealF, RealD, CplxF, CplxD>;
TYPED_TEST_SUITE(FFTKinds, AllKinds);

// The forward transform's output, in its layout, by the naive DFT.
template <typename K>
std::vector<long double> ReferenceSpectrum(const std::vector<typename K::Value>& t) {
  std::vector<Cplx> x;
  for (std::size_t i = 0; i < t.size(); i += K::complex ? 2 : 1) x.emplace_back(t[i], K::complex ? t[i + 1] : 0);
  const std::vector<Cplx> spectrum = NaiveDft(x, -1);
  std::vector<long double> v;
  for (std::size_t k = 0; k < (K::complex ? x.size() : x.size() / 2 + 1); ++k) {
    v.insert(v.end(), {spectrum[k].real(), spectrum[k].imag()});
  }
  return v;
}

template <typename T>
double MaxDiff(const T* got, const std::vector<long double>& expect) {
  double m = 0;
  for (std::size_t i = 0; i < expect.size(); ++i) {
    m = std::max(m, static_cast<double>(std::fabs(static_cast<long double>(got[i]) - expect[i])));
  }
  return m;
}

TYPED_TEST(FFTKinds, MatchesNaiveDftBothWaysAndRoundTrips) {
  using T = typename TypeParam::Value;
  for (int order : {1, 2, 3, 5, 8, 10}) {
    SCOPED_TRACE(testing::Message() << "order " << order);
    const std::size_t n = std::size_t{1} << order;
    TypeParam fft(order);
    EXPECT_EQ(FFTGetLength(fft.s), static_cast<int>(n));
    const std::vector<T> x = NoiseOf<T>(TypeParam::TimeCount(n), 100 + order);
    const double tol = Tolerance<T>(order, x);
    std::vector<T> spectrum(TypeParam::FreqCount(n), std::numeric_limits<T>::quiet_NaN());
    std::vector<T> in = x;
    ASSERT_EQ(fft.Fwd(in.data(), spectrum.data()), 0);
    EXPECT_EQ(in, x) << "forward wrote to its input";
    EXPECT_LT(MaxDiff(spectrum.data(), ReferenceSpectrum<TypeParam>(x)), tol);
    if (!TypeParam::complex) {
      EXPECT_EQ(spectrum[1], T(0));
      EXPECT_EQ(spectrum[n + 1], T(0));
      // The inverse of a real state must not depend on im0 and im(N/2).
      spectrum[1] = T(123);
      spectrum[n + 1] = T(-45);
    }
    const std::vector<T> spectrumCopy = spectrum;
    std::vector<T> back(TypeParam::TimeCount(n));
    ASSERT_EQ(fft.Inv(spectrum.data(), back.data()), 0);
    EXPECT_EQ(spectrum, spectrumCopy) << "inverse wrote to its input";
    const double invTol = tol / std::sqrt(double(n)) * 4;
    EXPECT_LT(MaxDiff(back.data(), std::vector<long double>(x.begin(), x.end())), invTol);

    // Inverse of an arbitrary spectrum against the naive inverse DFT / N.
    const std::vector<T> arbitrary = NoiseOf<T>(TypeParam::FreqCount(n), 300 + order);
    std::vector<Cplx> full(n);
    for (std::size_t k = 0; k < (TypeParam::complex ? n : n / 2 + 1); ++k) {
      const bool edge = !TypeParam::complex && (k == 0 || k == n / 2);
      full[k] = Cplx(arbitrary[2 * k], edge ? 0 : arbitrary[2 * k + 1]);
      if (!TypeParam::complex && k != 0) full[n - k] = std::conj(full[k]);
    }
    std::vector<long double> timeExpect;
    for (const Cplx& c : NaiveDft(full, +1)) {
      timeExpect.push_back(c.real() / n);
      if (TypeParam::complex) timeExpect.push_back(c.imag() / n);
    }
    ASSERT_EQ(fft.Inv(arbitrary.data(), back.data()), 0);
    EXPECT_LT(MaxDiff(back.data(), timeExpect), Tolerance<T>(order, arbitrary) / std::sqrt(double(n)) * 4);
  }
}

TYPED_TEST(FFTKinds, ScalingModes) {
  using T = typename TypeParam::Value;
  const std::size_t n = 64;
  struct Mode {
    FFTScaling scaling;
    double dc;         // forward of all ones, bin 0
    double roundTrip;  // Inv(Fwd(x)) / x
  };
  const Mode modes[] = {
      {kFFTDivInvByN, 64.0, 1.0}, {kFFTDivFwdByN, 1.0, 1.0}, {kFFTDivBySqrtN, 8.0, 1.0}, {kFFTNoDivByAny, 64.0, 64.0}};
  for (const Mode& m : modes) {
    SCOPED_TRACE(testing::Message() << "scaling " << m.scaling);
    TypeParam fft(6, m.scaling);
    std::vector<T> ones(TypeParam::TimeCount(n), T(0)), spectrum(TypeParam::FreqCount(n));
    for (std::size_t i = 0; i < n; ++i) ones[TypeParam::complex ? 2 * i : i] = T(1);
    ASSERT_EQ(fft.Fwd(ones.data(), spectrum.data()), 0);
    EXPECT_NEAR(spectrum[0], m.dc, 1e-5 * m.dc);
    EXPECT_NEAR(spectrum[2], 0.0, 1e-5);
    const std::vector<T> x = NoiseOf<T>(TypeParam::TimeCount(n), 7);
    std::vector<T> back(x.size());
    ASSERT_EQ(fft.Fwd(x.data(), spectrum.data()), 0);
    ASSERT_EQ(fft.Inv(spectrum.data(), back.data()), 0);
    for (std::size_t i = 0; i < x.size(); ++i) ASSERT_NEAR(back[i], x[i] * m.roundTrip, 1e-5 * m.roundTrip);
  }
}

// Host buffers come at any alignment, transforms may run in place and may use
// a caller's work buffer; every combination must give the reference result.
TYPED_TEST(FFTKinds, InPlaceUnalignedAndWorkBuffers) {
  using T = typename TypeParam::Value;
  const int order = 9;
  const std::size_t n = 512, len = TypeParam::FreqCount(n);
  TypeParam fft(order);
  const std::vector<T> x = NoiseOf<T>(TypeParam::TimeCount(n), 9);
  std::vector<T> reference(len), backReference(x.size());
  ASSERT_EQ(fft.Fwd(x.data(), reference.data()), 0);
  ASSERT_EQ(fft.Inv(reference.data(), backReference.data()), 0);
  const std::vector<long double> expect(reference.begin(), reference.end());
  const std::vector<long double> timeExpect(x.begin(), x.end());
  const double tol = Tolerance<T>(order, x);

  for (std::size_t inOffset : {0u, 1u, 3u}) {
    for (std::size_t outOffset : {0u, 1u, 2u}) {
      SCOPED_TRACE(testing::Message() << "offsets " << inOffset << " " << outOffset);
      std::vector<T> in(len + 4), out(len + 4);
      std::copy(x.begin(), x.end(), in.begin() + inOffset);
      ASSERT_EQ(fft.Fwd(in.data() + inOffset, out.data() + outOffset), 0);
      EXPECT_LT(MaxDiff(out.data() + outOffset, expect), tol);
      ASSERT_EQ(fft.Inv(out.data() + outOffset, in.data() + inOffset), 0);
      EXPECT_LT(MaxDiff(in.data() + inOffset, timeExpect), tol);
    }
    std::vector<T> buffer(len + 4);
    std::copy(x.begin(), x.end(), buffer.begin() + inOffset);
    T* p = buffer.data() + inOffset;
    ASSERT_EQ(fft.Fwd(p, p), 0);
    EXPECT_LT(MaxDiff(p, expect), tol) << "in place, offset " << inOffset;
    ASSERT_EQ(fft.Inv(p, p), 0);
    EXPECT_LT(MaxDiff(p, timeExpect), tol) << "in place, offset " << inOffset;
  }

  // A work buffer of the reported size, misaligned by one byte, gives identical results.
  int bytes = -1;
  ASSERT_EQ(FFTGetBufSize(fft.s, &bytes), 0);
  ASSERT_GE(bytes, 0);
  std::vector<unsigned char> work(static_cast<std::size_t>(bytes) + 1);
  void* w = bytes > 0 ? work.data() + 1 : nullptr;
  std::vector<T> spectrum(len), back(x.size());
  ASSERT_EQ(fft.Fwd(x.data(), spectrum.data(), w), 0);
  EXPECT_EQ(spectrum, reference);
  ASSERT_EQ(fft.Inv(reference.data(), back.data(), w), 0);
  EXPECT_EQ(back, backReference);
}

TYPED_TEST(FFTKinds, TransformsNeverAllocate) {
  using T = typename TypeParam::Value;
  // Large orders included: FFTW picks other algorithms there.
  for (int order : {1, 4, 10, 16}) {
    SCOPED_TRACE(testing::Message() << "order " << order);
    TypeParam fft(order);
    std::vector<T> x = NoiseOf<T>(TypeParam::FreqCount(std::size_t{1} << order) + 1, 5);
    std::vector<T> y(x.size());
    EXPECT_NO_ALLOCATION(fft.Fwd(x.data(), y.data()));
    EXPECT_NO_ALLOCATION(fft.Inv(y.data(), x.data()));
    EXPECT_NO_ALLOCATION(fft.Fwd(x.data() + 1, y.data()));
    EXPECT_NO_ALLOCATION(fft.Inv(y.data(), x.data() + 1));
    EXPECT_NO_ALLOCATION(fft.Fwd(x.data(), x.data()));
    EXPECT_NO_ALLOCATION(fft.Inv(x.data() + 1, x.data() + 1));
  }
}

TYPED_TEST(FFTKinds, BadArgumentsFail) {
  using T = typename TypeParam::Value;
  using State = std::remove_pointer_t<decltype(TypeParam(1).s)>;
  for (int order : {-1, 0, 28, 40}) {
    State* s = reinterpret_cast<State*>(&order);  // must be overwritten with null
    EXPECT_NE(FFTInit(&s, order), 0) << order;
    EXPECT_EQ(s, nullptr);
  }
  State* s = nullptr;
  EXPECT_NE(FFTInit(&s, 4, static_cast<FFTScaling>(9)), 0);
  EXPECT_EQ(s, nullptr);
  EXPECT_NE(FFTInit(static_cast<State**>(nullptr), 4), 0);
  T buf[64] = {};
  const State* none = nullptr;
  EXPECT_NE(FFTFwd(none, buf, buf), 0);
  EXPECT_NE(FFTInv(none, buf, buf), 0);
  EXPECT_EQ(FFTGetLength(none), 0);
  TypeParam fft(4);
  EXPECT_NE(fft.Fwd(nullptr, buf), 0);
  EXPECT_NE(fft.Inv(buf, nullptr), 0);
  EXPECT_NE(FFTGetBufSize(fft.s, nullptr), 0);
  FFTFree(static_cast<State*>(nullptr));
}

TEST(FFT, LargeOrderRoundTrip) {
  const std::size_t n = std::size_t{1} << 20;
  FFTState_Float* s = nullptr;
  ASSERT_EQ(FFTInit(&s, 20), 0);
  std::vector<float> x = vextest::Noise(n + 2, 77);
  const std::vector<float> original(x.begin(), x.begin() + n);
  ASSERT_EQ(FFTFwd(s, x.data(), x.data()), 0);
  // Parseval: sum |x|^2 = (|X0|^2 + |X(N/2)|^2 + 2 sum |Xk|^2) / N.
  long double timeEnergy = 0, freqEnergy = 0;
  for (float v : original) timeEnergy += static_cast<long double>(v) * v;
  for (std::size_t k = 0; k <= n / 2; ++k) {
    const long double e = std::norm(std::complex<long double>(x[2 * k], x[2 * k + 1]));
    freqEnergy += (k == 0 || k == n / 2) ? e : 2 * e;
  }
  EXPECT_NEAR(static_cast<double>(freqEnergy / n / timeEnergy), 1.0, 1e-5);
  ASSERT_EQ(FFTInv(s, x.data(), x.data()), 0);
  EXPECT_LT(vextest::MaxAbsDiff(x.data(), original.data(), n), 2e-5);
  FFTFree(s);
}

// Planning shares FFTW's global planner; states made on many threads at once
// must all work.
TEST(FFT, ConcurrentPlanningIsSafe) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int rep = 0; rep < 20; ++rep) {
        const int order = 3 + (rep + t) % 8;
        FFTState_ComplexDouble* c = nullptr;
        FFTState_Float* r = nullptr;
        std::vector<float> ones((std::size_t{1} << order) + 2, 1.0f);
        if (FFTInit(&c, order) != 0 || FFTInit(&r, order, kFFTDivFwdByN) != 0 ||
            FFTFwd(r, ones.data(), ones.data()) != 0 || std::fabs(ones[0] - 1.0f) > 1e-6f)
          ++failures[t];
        FFTFree(c);
        FFTFree(r);
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (int f : failures) EXPECT_EQ(f, 0);
}

}  // namespace
