#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Utility.h"

namespace u = vexaccelerate::utility;

namespace {

constexpr double kPi = 3.14159265358979323846;

// Divided by 3 so that doubles are not representable in float and a conversion has to round.
template <typename T>
std::vector<T> NoiseOf(std::size_t n, std::uint32_t seed, double amplitude = 1.0) {
  const std::vector<float> f = vextest::Noise(n, seed, amplitude);
  std::vector<T> v(f.begin(), f.end());
  for (T& x : v) x /= 3;
  return v;
}

// Every kernel against a plain loop. Odd lengths reach every vector tail; sources and destination sit at
// different offsets, unaligned to each other and to any SIMD width. Sums and products of two floats are
// exact in double, so the double reference rounded to T is the correctly rounded result.
template <typename T>
void CheckAgainstLoops(std::size_t n, std::size_t off) {
  using Other = std::conditional_t<std::is_same_v<T, float>, double, float>;
  const std::vector<T> av = NoiseOf<T>(n + 8, 11), bv = NoiseOf<T>(n + 8, 12, 4.0);
  std::vector<T> out(n + 8);
  std::vector<Other> other(n + 1);
  const T *a = av.data() + off, *b = bv.data() + off + 1, k = T(-0.3);
  T* y = out.data() + off + 2;
  const std::size_t s = n / 3;  // the Move ranges overlap
  const std::pair<std::function<void()>, std::function<double(std::size_t)>> rows[] = {
      {[&] { u::Add(n, a, b, y); }, [&](std::size_t i) { return double(a[i]) + double(b[i]); }},
      {[&] { u::Mul(n, a, b, y); }, [&](std::size_t i) { return double(a[i]) * double(b[i]); }},
      {[&] { u::MulConstant(n, a, y, k); }, [&](std::size_t i) { return double(a[i]) * double(k); }},
      {[&] { u::Copy(n, b, y), u::Add_InPlace(n, a, y); }, [&](std::size_t i) { return double(a[i]) + double(b[i]); }},
      {[&] { u::Copy(n, b, y), u::Mul_InPlace(n, a, y); }, [&](std::size_t i) { return double(a[i]) * double(b[i]); }},
      {[&] { u::Copy(n, b, y), u::MulConstant_InPlace(n, y, T(2.5)); }, [&](std::size_t i) { return b[i] * 2.5; }},
      {[&] { u::Set(n, T(0.25), y); }, [](std::size_t) { return 0.25; }},
      {[&] { u::Zero(n, y); }, [](std::size_t) { return 0.0; }},
      // The destination may be a source.
      {[&] { u::Copy(n, a, y), u::Add(n, y, b, y); }, [&](std::size_t i) { return double(a[i]) + double(b[i]); }},
      {[&] { u::Copy(n, a, y), u::Mul(n, y, y, y); }, [&](std::size_t i) { return double(a[i]) * double(a[i]); }},
      {[&] { u::Copy(n, a, y), u::Add_InPlace(n, y, y); }, [&](std::size_t i) { return 2.0 * a[i]; }},
      {[&] { u::Copy(n, a, y), u::MulConstant(n, y, y, k); }, [&](std::size_t i) { return double(a[i]) * k; }},
      {[&] { u::Copy(n, a, y), u::Move(n - s, y, y + s); }, [&](std::size_t i) { return a[i < s ? i : i - s]; }},
      {[&] { u::Copy(n, a, y), u::Move(n - s, y + s, y); }, [&](std::size_t i) { return a[i < n - s ? i + s : i]; }},
      {[&] { u::Convert(n, a, other.data() + 1), u::Convert(n, other.data() + 1, y); },
       [&](std::size_t i) { return static_cast<T>(static_cast<Other>(a[i])); }},  // double to float rounds
  };
  for (std::size_t r = 0; r < std::size(rows); ++r) {
    std::fill(out.begin(), out.end(), T(-7));
    EXPECT_NO_ALLOCATION(rows[r].first());
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(y[i], static_cast<T>(rows[r].second(i))) << "row " << r << " i " << i;
    ASSERT_EQ(static_cast<std::size_t>(std::count(out.begin(), out.end(), T(-7))), 8u) << "row " << r << " overran";
  }
  // Reductions; Max skips NaNs (here the first and every third element).
  std::vector<T> gaps(av);
  for (std::size_t i = off; i < gaps.size(); i += 3) gaps[i] = std::numeric_limits<T>::quiet_NaN();
  long double dot = 0, sum = 0, magnitude = 0;
  T mx = -std::numeric_limits<T>::infinity();
  for (std::size_t i = 0; i < n; ++i) {
    dot += static_cast<long double>(a[i]) * b[i];
    sum += a[i];
    magnitude += std::fabs(a[i]);
    if (i % 3 != 0) mx = std::max(mx, a[i]);
  }
  const double tol = 1e-15 * static_cast<double>(n + 1) * static_cast<double>(4 * magnitude + 1);  // |b| < 4/3
  EXPECT_NEAR(u::Dot(n, a, b), static_cast<double>(dot), tol);
  EXPECT_NEAR(u::Sum(n, a), static_cast<double>(sum), tol);
  EXPECT_EQ(u::Max(n, gaps.data() + off), mx);
}

TEST(VectorOps, KernelsMatchPlainLoopsAtOddLengthsAndOffsets) {
  for (std::size_t n : {0, 1, 3, 17, 1000, 1001}) {
    for (std::size_t off : {0, 1, 3}) {
      SCOPED_TRACE(testing::Message() << "n " << n << " offset " << off);
      CheckAgainstLoops<float>(n, off);
      CheckAgainstLoops<double>(n, off);
    }
  }
  // Float Dot and Sum accumulate in double: after 1e8 a float sum would lose the 2^-23 part of each term.
  std::vector<float> a(1000, 1.0f + 2.0f / 16777216.0f), ones(1000, 1.0f);
  a[0] = 1.0e8f;
  const double expect = static_cast<double>(1.0e8L + 999.0L * (1.0L + 2.0L / 16777216.0L));
  EXPECT_DOUBLE_EQ(u::Dot(a.size(), a.data(), ones.data()), expect);
  EXPECT_DOUBLE_EQ(u::Sum(a.size(), a.data()), expect);
}

TEST(VectorOps, Int16ConversionScalesRoundsAndSaturates) {
  std::vector<std::int16_t> all(65536), back(65536);
  for (int i = 0; i < 65536; ++i) all[i] = static_cast<std::int16_t>(i - 32768);
  std::vector<float> f(all.size());
  u::Convert(all.size(), all.data(), f.data());
  for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(f[i], static_cast<float>(all[i]) / 32768.0f);
  u::Convert(f.size(), f.data(), back.data());
  EXPECT_EQ(back, all);  // every int16 survives the round trip

  // Nearest with ties to even, saturation, NaN and tiny values; repeated so the vector path sees every case.
  const float nan = NAN, inf = HUGE_VALF, s = 1.0f / 32768.0f;
  const std::pair<float, std::int16_t> cases[] = {
      {1.4f * s, 1}, {-1.4f * s, -1}, {0.99999f, 32767}, {1.6f * s, 2},         {-1.6f * s, -2},        {2.5f * s, 2},
      {3.5f * s, 4}, {-2.5f * s, -2}, {1.0f, 32767},     {-1.0f, -32768},       {1.0e30f, 32767},       {-inf, -32768},
      {nan, 0},      {-nan, 0},       {1.0e-40f, 0},     {32766.6f * s, 32767}, {-32767.6f * s, -32768}};
  std::vector<float> in;
  for (std::size_t i = 0; i < 3 * std::size(cases); ++i) in.push_back(cases[i % std::size(cases)].first);
  std::vector<std::int16_t> out(in.size());
  EXPECT_NO_ALLOCATION(u::Convert(in.size(), in.data(), out.data()));
  for (std::size_t i = 0; i < in.size(); ++i) EXPECT_EQ(out[i], cases[i % std::size(cases)].second) << in[i];
}

TEST(VectorOps, InterleaveRoundTrip) {
  const std::size_t n = 37;
  for (std::size_t channels : {1u, 2u, 3u, 6u}) {  // stereo has a path of its own
    vextest::PlanarBlock planar(channels, n), back(channels, n);
    const std::vector<float> noise = vextest::Noise(channels * n, 1);
    for (std::size_t c = 0; c < channels; ++c) std::copy_n(noise.begin() + c * n, n, planar.Channel(c).begin());
    std::vector<float> inter(channels * n);
    u::Interleave(planar.Pointers(), channels, n, inter.data());
    for (std::size_t i = 0; i < inter.size(); ++i) ASSERT_EQ(inter[i], planar.Channel(i % channels)[i / channels]);
    u::Deinterleave(inter.data(), channels, n, back.Pointers());
    for (std::size_t c = 0; c < channels; ++c) EXPECT_EQ(back.Channel(c), planar.Channel(c)) << channels;
  }
}

// Odd lengths leave a tail after the vector loop of the dispatched kernel.
template <typename T>
void CheckComplexSplitRoundTrip(std::size_t n) {
  std::vector<T> re(n), im(n), inter(2 * n, T(-1)), re2(n), im2(n);
  for (std::size_t i = 0; i < n; ++i) {
    re[i] = static_cast<T>(i) + T(0.25);
    im[i] = -static_cast<T>(i) - T(0.5);
  }
  u::RealToComplex(n, re.data(), im.data(), inter.data());
  for (std::size_t i = 0; i < n; ++i) {
    ASSERT_EQ(inter[2 * i], re[i]) << n << " " << i;
    ASSERT_EQ(inter[2 * i + 1], im[i]) << n << " " << i;
  }
  u::ComplexToReal(n, inter.data(), re2.data(), im2.data());
  EXPECT_EQ(re2, re) << n;
  EXPECT_EQ(im2, im) << n;
}

TEST(VectorOps, ComplexSplitRoundTrip) {
  for (std::size_t n : {0u, 1u, 7u, 16u, 37u, 1024u}) {
    CheckComplexSplitRoundTrip<float>(n);
    CheckComplexSplitRoundTrip<double>(n);
  }
}

TEST(VectorOps, WindowsMatchClosedForms) {
  const std::tuple<std::size_t, double, double> cases[] = {
      {4, 0.0, 0.16}, {5, 2.5, 0.2}, {31, 8.0, 0.16}, {64, 14.0, 0.3}};
  for (const auto& [n, beta, alpha] : cases) {  // Kaiser beta, Blackman alpha
    std::vector<double> hann(n), hamming(n), blackman(n), bartlett(n), kaiser(n);
    std::vector<float> hannF(n), kaiserF(n);
    u::WindowHann(n, hann.data());
    u::WindowHann(n, hannF.data());
    u::WindowHamming(n, hamming.data());
    u::WindowBlackman(n, blackman.data(), alpha);
    u::WindowBartlett(n, bartlett.data());
    EXPECT_NO_ALLOCATION(u::WindowKaiser(n, kaiser.data(), beta));
    u::WindowKaiser(n, kaiserF.data(), beta);
    for (std::size_t i = 0; i < n; ++i) {
      SCOPED_TRACE(testing::Message() << "n " << n << " i " << i);
      const double x = static_cast<double>(i) / static_cast<double>(n - 1), t = 2.0 * x - 1.0;
      const double c1 = std::cos(2 * kPi * x), c2 = std::cos(4 * kPi * x);
      const double k = std::cyl_bessel_i(0.0, beta * std::sqrt(1.0 - t * t)) / std::cyl_bessel_i(0.0, beta);
      EXPECT_NEAR(hann[i], 0.5 - 0.5 * c1, 1e-15);
      EXPECT_NEAR(hannF[i], 0.5 - 0.5 * c1, 1e-7);
      EXPECT_NEAR(hamming[i], 0.54 - 0.46 * c1, 1e-15);
      EXPECT_NEAR(blackman[i], 0.5 * (1 - alpha) - 0.5 * c1 + 0.5 * alpha * c2, 1e-15);
      EXPECT_NEAR(bartlett[i], 1.0 - std::fabs(t), 1e-15);
      EXPECT_NEAR(kaiser[i], k, 1e-13 * (1.0 + k)) << "beta " << beta;
      EXPECT_NEAR(kaiserF[i], k, 1e-7) << "beta " << beta;
    }
  }
  double one = -1.0;  // length 1 gives 1.0
  u::WindowKaiser(1, &one, 5.0);
  EXPECT_EQ(one, 1.0);
}

TEST(VectorOps, AlignedArrays) {
  float* f = u::Malloc_Float(1001);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(f) % 64, 0u);
  u::Set(1001, 1.0f, f);  // the whole array is usable
  EXPECT_EQ(std::count(f, f + 1001, 1.0f), 1001);
  u::Free(f);
  EXPECT_EQ(u::Malloc_Float(0), nullptr);
  EXPECT_EQ(u::Malloc_Double(std::numeric_limits<std::size_t>::max() / 4), nullptr);
}

}  // namespace
