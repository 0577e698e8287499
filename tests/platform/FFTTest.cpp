#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <tuple>
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
    for (std::size_t t = 0; t < n; ++t) {
      const long double angle = sign * 2.0L * pi * static_cast<long double>((k * t) % n) / static_cast<long double>(n);
      out[k] += x[t] * Cplx(std::cos(angle), std::sin(angle));
    }
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

template <typename T>
double MaxDiff(const T* got, const std::vector<long double>& expect) {
  long double m = 0;
  for (std::size_t i = 0; i < expect.size(); ++i) m = std::max(m, std::fabs(got[i] - expect[i]));
  return static_cast<double>(m);
}

// The four state kinds behind one interface for the typed tests. A real spectrum holds bins 0 ... N/2.
template <typename State, typename T, bool kComplex>
struct Kind {
  using StateType = State;
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

template <typename K>
class FFTKinds : public testing::Test {};
using AllKinds = testing::Types<Kind<FFTState_Float, float, false>, Kind<FFTState_Double, double, false>,
                                Kind<FFTState_ComplexFloat, float, true>, Kind<FFTState_ComplexDouble, double, true>>;
TYPED_TEST_SUITE(FFTKinds, AllKinds);

// The naive forward DFT, or inverse DFT / N, of `in`, in the layouts of kind K. A real inverse builds the
// Hermitian spectrum from bins 0 ... N/2 and ignores the imaginary parts at DC and N/2.
template <typename K>
std::vector<long double> Reference(const std::vector<typename K::Value>& in, std::size_t n, bool forward) {
  std::vector<Cplx> x(n);
  for (std::size_t k = 0; k < n; ++k) {
    if (forward || K::complex)
      x[k] = K::complex ? Cplx(in[2 * k], in[2 * k + 1]) : Cplx(in[k], 0);
    else
      x[k] = k > n / 2 ? std::conj(x[n - k]) : Cplx(in[2 * k], k == 0 || k == n / 2 ? 0 : in[2 * k + 1]);
  }
  std::vector<long double> out;
  const std::vector<Cplx> y = NaiveDft(x, forward ? -1 : 1);
  for (std::size_t k = 0; k < (forward && !K::complex ? n / 2 + 1 : n); ++k) {
    const Cplx v = forward ? y[k] : y[k] / static_cast<long double>(n);
    out.push_back(v.real());
    if (forward || K::complex) out.push_back(v.imag());
  }
  return out;
}

TYPED_TEST(FFTKinds, MatchesNaiveDftBothWaysAndRoundTripsWithoutAllocating) {
  using T = typename TypeParam::Value;
  for (int order : {1, 2, 3, 5, 8, 10}) {
    SCOPED_TRACE(testing::Message() << "order " << order);
    const std::size_t n = std::size_t{1} << order;
    TypeParam fft(order);
    const std::vector<T> x = NoiseOf<T>(TypeParam::TimeCount(n), 100 + order);
    const std::vector<T> arbitrary = NoiseOf<T>(TypeParam::FreqCount(n), 300 + order);
    std::vector<T> spectrum(TypeParam::FreqCount(n)), back(x.size()), arbitraryIn = arbitrary;
    const double tol = Tolerance<T>(order, x), invTol = Tolerance<T>(order, arbitrary) / std::sqrt(double(n)) * 4;
    EXPECT_NO_ALLOCATION(ASSERT_EQ(fft.Fwd(x.data(), spectrum.data()), 0));
    EXPECT_LT(MaxDiff(spectrum.data(), Reference<TypeParam>(x, n, true)), tol);
    EXPECT_TRUE(TypeParam::complex || (spectrum[1] == T(0) && spectrum[n + 1] == T(0))) << "im0, im(N/2)";
    ASSERT_EQ(fft.Inv(spectrum.data(), back.data()), 0);
    EXPECT_LT(MaxDiff(back.data(), std::vector<long double>(x.begin(), x.end())), tol / std::sqrt(double(n)) * 4);
    EXPECT_NO_ALLOCATION(ASSERT_EQ(fft.Inv(arbitraryIn.data(), back.data()), 0));
    EXPECT_EQ(arbitraryIn, arbitrary) << "inverse wrote to its input";  // FFTW's c2r would
    EXPECT_LT(MaxDiff(back.data(), Reference<TypeParam>(arbitrary, n, false)), invTol);
  }
}

TYPED_TEST(FFTKinds, ScalingModes) {
  // The forward transform's DC for 64 ones and the gain of a round trip.
  const std::tuple<FFTScaling, double, double> modes[] = {
      {kFFTDivInvByN, 64.0, 1.0}, {kFFTDivFwdByN, 1.0, 1.0}, {kFFTDivBySqrtN, 8.0, 1.0}, {kFFTNoDivByAny, 64.0, 64.0}};
  for (const auto& [scaling, dc, gain] : modes) {
    TypeParam fft(6, scaling);
    std::vector<typename TypeParam::Value> x(TypeParam::TimeCount(64), 1), spectrum(TypeParam::FreqCount(64));
    ASSERT_EQ(fft.Fwd(x.data(), spectrum.data()), 0);
    ASSERT_EQ(fft.Inv(spectrum.data(), x.data()), 0);
    EXPECT_TRUE(std::fabs(spectrum[0] - dc) < 1e-5 * dc && std::fabs(x[5] - gain) < 1e-5 * gain) << scaling;
  }
}

// Host buffers come at any alignment, transforms may run in place and may use a caller's work buffer (misaligned
// by a byte); all give the aligned result without allocating. At order 16 FFTW picks other algorithms.
TYPED_TEST(FFTKinds, InPlaceUnalignedAndWorkBuffers) {
  using T = typename TypeParam::Value;
  for (int order : {9, 16}) {
    const std::size_t n = std::size_t{1} << order, len = TypeParam::FreqCount(n);
    TypeParam fft(order);
    const std::vector<T> x = NoiseOf<T>(TypeParam::TimeCount(n), 9);
    std::vector<T> reference(len);
    ASSERT_EQ(fft.Fwd(x.data(), reference.data()), 0);
    const std::vector<long double> expect(reference.begin(), reference.end()), timeExpect(x.begin(), x.end());
    const double tol = Tolerance<T>(order, x);
    int bytes = -1;
    ASSERT_EQ(FFTGetBufSize(fft.s, &bytes), 0);
    std::vector<unsigned char> work(static_cast<std::size_t>(bytes) + 1);
    for (std::size_t inOffset : {0u, 1u, 3u}) {
      for (std::size_t outOffset : {std::size_t{0}, std::size_t{2}, SIZE_MAX}) {  // the last: in place
        SCOPED_TRACE(testing::Message() << "order " << order << " offsets " << inOffset << " " << outOffset);
        std::vector<T> in(len + 4), out(len + 4);
        std::copy(x.begin(), x.end(), in.begin() + inOffset);
        T* p = in.data() + inOffset;
        T* q = outOffset == SIZE_MAX ? p : out.data() + outOffset;
        void* w = inOffset != 0 && bytes > 0 ? work.data() + 1 : nullptr;
        EXPECT_NO_ALLOCATION(ASSERT_EQ(fft.Fwd(p, q, w), 0));
        EXPECT_LT(MaxDiff(q, expect), tol);
        EXPECT_NO_ALLOCATION(ASSERT_EQ(fft.Inv(q, p, w), 0));
        EXPECT_LT(MaxDiff(p, timeExpect), tol);
      }
    }
  }
}

TYPED_TEST(FFTKinds, BadArgumentsFail) {
  using T = typename TypeParam::Value;
  using State = typename TypeParam::StateType;
  for (int order : {0, 28}) {
    State* s = reinterpret_cast<State*>(&order);  // must be overwritten with null
    EXPECT_TRUE(FFTInit(&s, order) != 0 && s == nullptr) << order;
  }
  T buf[64] = {};
  TypeParam fft(4);
  EXPECT_NE(FFTFwd(static_cast<const State*>(nullptr), buf, buf), 0);
  EXPECT_NE(fft.Fwd(nullptr, buf), 0);
  EXPECT_NE(fft.Inv(buf, nullptr), 0);
}

}  // namespace
