#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaccelerate/Utility.h"

namespace u = vexaccelerate::utility;

namespace {

// Odd lengths exercise every vector tail; offsets make the pointers
// unaligned relative to each other and to any SIMD width.
const std::size_t kLengths[] = {0, 1, 3, 17, 1000, 1001};
const std::size_t kOffsets[] = {0, 1, 3};

template <typename T>
std::vector<T> NoiseOf(std::size_t n, std::uint32_t seed, double amplitude = 1.0) {
  const std::vector<float> f = vextest::Noise(n, seed, amplitude);
  return std::vector<T>(f.begin(), f.end());
}

// Sources and destination at different odd offsets inside guarded arrays.
template <typename T>
struct Operands {
  Operands(std::size_t n, std::size_t offset)
      : n(n), offset(offset), a(NoiseOf<T>(n + 8, 11)), b(NoiseOf<T>(n + 8, 12, 4.0)), out(n + 8, T(-7)) {}
  const T* A() const { return a.data() + offset; }
  const T* B() const { return b.data() + offset + 1; }
  T* Out() { return out.data() + offset + 2; }

  std::size_t n, offset;
  std::vector<T> a, b, out;
};

// Products and sums of two floats are exact in double, so the reference
// rounded back to T is the correctly rounded result the kernel must give.
template <typename T>
void CheckElementWise(std::size_t n, std::size_t off) {
  Operands<T> o(n, off);
  const T* a = o.A();
  const T* b = o.B();
  T* y = o.Out();
  auto expect = [&](const char* name, auto reference) {
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(y[i], static_cast<T>(reference(i))) << name << " at " << i;
  };
  u::Add(n, a, b, y);
  expect("Add", [&](std::size_t i) { return double(a[i]) + double(b[i]); });
  u::Mul(n, a, b, y);
  expect("Mul", [&](std::size_t i) { return double(a[i]) * double(b[i]); });
  u::MulConstant(n, a, y, T(-0.3));
  expect("MulConstant", [&](std::size_t i) { return double(a[i]) * double(T(-0.3)); });
  u::Copy(n, b, y);
  expect("Copy", [&](std::size_t i) { return b[i]; });
  u::Add_InPlace(n, a, y);
  expect("Add_InPlace", [&](std::size_t i) { return double(a[i]) + double(b[i]); });
  u::Copy(n, b, y);
  u::Mul_InPlace(n, a, y);
  expect("Mul_InPlace", [&](std::size_t i) { return double(a[i]) * double(b[i]); });
  u::Copy(n, b, y);
  u::MulConstant_InPlace(n, y, T(2.5));
  expect("MulConstant_InPlace", [&](std::size_t i) { return double(b[i]) * 2.5; });
  u::Set(n, T(0.25), y);
  expect("Set", [](std::size_t) { return 0.25; });
  u::Zero(n, y);
  expect("Zero", [](std::size_t) { return 0.0; });
  // Nothing before or after the destination range is touched.
  for (std::size_t i = 0; i < o.out.size(); ++i) {
    if (i < off + 2 || i >= off + 2 + n) {
      ASSERT_EQ(o.out[i], T(-7)) << "guard " << i;
    }
  }
}

TEST(VectorOps, ElementWiseMatchScalarReference) {
  for (std::size_t n : kLengths) {
    for (std::size_t off : kOffsets) {
      SCOPED_TRACE(testing::Message() << "n " << n << " offset " << off);
      CheckElementWise<float>(n, off);
      CheckElementWise<double>(n, off);
    }
  }
}

// Identical source and destination pointers are allowed.
TEST(VectorOps, DestinationMayBeASource) {
  const std::size_t n = 1001;
  const std::vector<float> a = vextest::Noise(n, 3), b = vextest::Noise(n, 4);
  std::vector<float> sum = a, twice = a, prod = a, square = a, scaled = a, copy = a;
  u::Add(n, b.data(), sum.data(), sum.data());
  u::Add_InPlace(n, twice.data(), twice.data());
  u::Mul(n, prod.data(), b.data(), prod.data());
  u::Mul(n, square.data(), square.data(), square.data());
  u::MulConstant(n, scaled.data(), scaled.data(), 3.0f);
  u::Copy(n, copy.data(), copy.data());
  for (std::size_t i = 0; i < n; ++i) {
    ASSERT_EQ(sum[i], a[i] + b[i]) << i;
    ASSERT_EQ(twice[i], a[i] + a[i]) << i;
    ASSERT_EQ(prod[i], a[i] * b[i]) << i;
    ASSERT_EQ(square[i], a[i] * a[i]) << i;
    ASSERT_EQ(scaled[i], a[i] * 3.0f) << i;
    ASSERT_EQ(copy[i], a[i]) << i;
  }
}

template <typename T>
void CheckMove(std::size_t shift) {
  std::vector<T> x(300);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<T>(i);
  u::Move(200, x.data(), x.data() + shift);  // destination above source
  for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(x[i + shift], static_cast<T>(i));
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<T>(i);
  u::Move(200, x.data() + shift, x.data());  // destination below source
  for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(x[i], static_cast<T>(i + shift));
}

template <typename T>
void CheckReductions(std::size_t n, std::size_t off) {
  Operands<T> o(n, off);
  long double dot = 0, sum = 0, dotMag = 0, sumMag = 0;
  T mx = -std::numeric_limits<T>::infinity();
  for (std::size_t i = 0; i < n; ++i) {
    dot += static_cast<long double>(o.A()[i]) * o.B()[i];
    sum += o.A()[i];
    dotMag += std::fabs(static_cast<long double>(o.A()[i]) * o.B()[i]);
    sumMag += std::fabs(static_cast<long double>(o.A()[i]));
    mx = std::max(mx, o.A()[i]);
  }
  // Double accumulation: error within n * eps(double) * sum of magnitudes.
  const double scale = 1e-15 * static_cast<double>(n + 1);
  EXPECT_NEAR(u::Dot(n, o.A(), o.B()), static_cast<double>(dot), scale * static_cast<double>(dotMag + 1));
  EXPECT_NEAR(u::Sum(n, o.A()), static_cast<double>(sum), scale * static_cast<double>(sumMag + 1));
  EXPECT_EQ(u::Max(n, o.A()), mx);
}

TEST(VectorOps, MoveAndReductionsMatchReferences) {
  for (std::size_t shift : {1u, 5u, 40u}) {
    SCOPED_TRACE(testing::Message() << "move shift " << shift);
    CheckMove<float>(shift);
    CheckMove<double>(shift);
  }
  for (std::size_t n : kLengths) {
    for (std::size_t off : kOffsets) {
      SCOPED_TRACE(testing::Message() << "n " << n << " offset " << off);
      CheckReductions<float>(n, off);
      CheckReductions<double>(n, off);
    }
  }
  // After 1e8 the 2^-23 part of every term is lost in a float sum; in double
  // every partial sum here is exact.
  std::vector<float> a(1000, 1.0f + 2.0f / 16777216.0f), ones(1000, 1.0f);
  a[0] = 1.0e8f;
  const double expect = static_cast<double>(1.0e8L + 999.0L * (1.0L + 2.0L / 16777216.0L));
  EXPECT_DOUBLE_EQ(u::Dot(a.size(), a.data(), ones.data()), expect);
  EXPECT_DOUBLE_EQ(u::Sum(a.size(), a.data()), expect);
}

TEST(VectorOps, MaxSkipsNaNAndHandlesEmpty) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(u::Max(0, static_cast<const float*>(nullptr)), -inf);
  for (std::size_t n : {1u, 7u, 33u, 100u}) {
    std::vector<float> x(n, nan);
    EXPECT_EQ(u::Max(n, x.data()), -inf) << "all NaN, n " << n;
    for (std::size_t i = 0; i < n; ++i) x[i] = -static_cast<float>(i) - 3.0f;
    for (std::size_t i = 0; i < n; i += 2) x[i] = nan;  // NaN first and scattered
    const float expect = n > 1 ? -4.0f : -inf;
    std::vector<double> d(x.begin(), x.end());
    EXPECT_EQ(u::Max(n, x.data()), expect) << "n " << n;
    EXPECT_EQ(u::Max(n, d.data()), static_cast<double>(expect)) << "n " << n;
  }
}

TEST(VectorOps, PrecisionConversions) {
  for (std::size_t n : kLengths) {
    const std::vector<float> f = NoiseOf<float>(n + 1, 13);
    const std::vector<double> d = NoiseOf<double>(n + 1, 14);
    std::vector<double> wide(n + 2), third(n + 1, 1.0 / 3.0);
    std::vector<float> narrow(n + 2);
    u::Convert(n, f.data() + 1, wide.data() + 1);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(wide[i + 1], static_cast<double>(f[i + 1]));
    u::Convert(n, third.data() + 1, narrow.data());
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(narrow[i], 0.333333343f);  // rounded to nearest
    u::Convert(n, d.data(), narrow.data() + 1);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(narrow[i + 1], static_cast<float>(d[i]));
  }
}

TEST(VectorOps, Int16ConversionScalesRoundsAndSaturates) {
  std::vector<std::int16_t> all(65536), back(65536);
  for (int i = 0; i < 65536; ++i) all[i] = static_cast<std::int16_t>(i - 32768);
  std::vector<float> f(all.size());
  u::Convert(all.size(), all.data(), f.data());
  for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(f[i], static_cast<float>(all[i]) / 32768.0f);
  u::Convert(f.size(), f.data(), back.data());
  EXPECT_EQ(back, all);  // every int16 survives the round trip

  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const float s = 1.0f / 32768.0f;
  // Rounding to nearest with ties to even, then saturation, NaN, tiny values.
  const float cases[] = {0.0f, 1.4f * s, 1.6f * s, -1.4f * s, -1.6f * s, 2.5f * s,     3.5f * s,     -2.5f * s,  //
                         1.0f, -1.0f,    2.0f,     -2.0f,     1.0e30f,   -1.0e30f,     inf,          -inf,       //
                         nan,  -nan,     1.0e-40f, 0.99999f,  -0.99999f, 32766.6f * s, -32767.6f * s};
  const std::int16_t expected[] = {0,     1,      2,     -1,     -2,     2,      4,     -2,      //
                                   32767, -32768, 32767, -32768, 32767,  -32768, 32767, -32768,  //
                                   0,     0,      0,     32767,  -32768, 32767,  -32768};
  static_assert(sizeof(cases) / sizeof(float) == sizeof(expected) / sizeof(std::int16_t), "one result per case");
  // Repeated so the vector path, not only the tail, sees every case.
  std::vector<float> in;
  std::vector<std::int16_t> expect;
  for (int rep = 0; rep < 3; ++rep) {
    in.insert(in.end(), std::begin(cases), std::end(cases));
    expect.insert(expect.end(), std::begin(expected), std::end(expected));
  }
  std::vector<std::int16_t> out(in.size());
  u::Convert(in.size(), in.data(), out.data());
  for (std::size_t i = 0; i < in.size(); ++i) EXPECT_EQ(out[i], expect[i]) << "input " << in[i];
}

TEST(VectorOps, InterleaveRoundTrip) {
  const std::size_t n = 37;
  for (std::size_t channels : {1u, 2u, 3u, 6u}) {
    vextest::PlanarBlock planar(channels, n), back(channels, n);
    for (std::size_t c = 0; c < channels; ++c) {
      const std::vector<float> noise = vextest::Noise(n, static_cast<std::uint32_t>(c + 1));
      std::copy(noise.begin(), noise.end(), planar.Channel(c).begin());  // keeps the pointer table valid
    }
    std::vector<float> inter(channels * n, 0.0f);
    u::Interleave(planar.Pointers(), channels, n, inter.data());
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t c = 0; c < channels; ++c) ASSERT_EQ(inter[i * channels + c], planar.Channel(c)[i]);
    }
    u::Deinterleave(inter.data(), channels, n, back.Pointers());
    for (std::size_t c = 0; c < channels; ++c) EXPECT_EQ(back.Channel(c), planar.Channel(c)) << channels;
  }
}

TEST(VectorOps, WindowsMatchClosedForms) {
  const double pi = 3.141592653589793;
  for (std::size_t n : {std::size_t(4), std::size_t(5), std::size_t(64)}) {
    SCOPED_TRACE(testing::Message() << "n " << n);
    std::vector<double> hann(n), hamming(n), blackman(n), blackman2(n), bartlett(n);
    std::vector<float> hannF(n), blackmanF(n);
    u::WindowHann(n, hann.data());
    u::WindowHamming(n, hamming.data());
    u::WindowBlackman(n, blackman.data(), 0.16);
    u::WindowBlackman(n, blackman2.data(), 0.2);
    u::WindowBartlett(n, bartlett.data());
    u::WindowHann(n, hannF.data());
    u::WindowBlackman(n, blackmanF.data(), 0.2);
    for (std::size_t i = 0; i < n; ++i) {
      const double x = static_cast<double>(i) / static_cast<double>(n - 1);
      const double c1 = std::cos(2 * pi * x), c2 = std::cos(4 * pi * x);
      EXPECT_NEAR(hann[i], 0.5 - 0.5 * c1, 1e-15);
      EXPECT_NEAR(hamming[i], 0.54 - 0.46 * c1, 1e-15);
      EXPECT_NEAR(blackman[i], 0.42 - 0.5 * c1 + 0.08 * c2, 1e-15);
      EXPECT_NEAR(blackman2[i], 0.4 - 0.5 * c1 + 0.1 * c2, 1e-15);
      EXPECT_NEAR(bartlett[i], 1.0 - std::fabs(2.0 * x - 1.0), 1e-15);
      EXPECT_NEAR(hannF[i], 0.5 - 0.5 * c1, 1e-7);
      EXPECT_NEAR(blackmanF[i], 0.4 - 0.5 * c1 + 0.1 * c2, 1e-7);
      EXPECT_EQ(hann[i], hann[n - 1 - i]);
    }
  }
  for (double beta : {0.0, 2.5, 8.0, 14.0}) {
    const std::size_t n = 31;
    std::vector<double> w(n);
    std::vector<float> wf(n);
    u::WindowKaiser(n, w.data(), beta);
    u::WindowKaiser(n, wf.data(), beta);
    for (std::size_t i = 0; i < n; ++i) {
      const double t = 2.0 * static_cast<double>(i) / (n - 1) - 1.0;
      const double expect = std::cyl_bessel_i(0.0, beta * std::sqrt(1.0 - t * t)) / std::cyl_bessel_i(0.0, beta);
      EXPECT_NEAR(w[i], expect, 1e-13 * (1.0 + expect)) << "beta " << beta << " i " << i;
      EXPECT_NEAR(wf[i], expect, 1e-7) << "beta " << beta << " i " << i;
    }
  }
  // Length 1 gives 1.0; length 0 writes nothing.
  float one = -1.0f;
  double oned = -1.0;
  u::WindowKaiser(1, &one, 5.0);
  u::WindowBlackman(1, &oned, 0.16);
  EXPECT_EQ(one, 1.0f);
  EXPECT_EQ(oned, 1.0);
  u::WindowHamming(0, &oned);
  EXPECT_EQ(oned, 1.0);
}

TEST(VectorOps, AlignedAllocation) {
  float* f = u::Malloc_Float(1000);
  double* d = u::Malloc_Double(3);
  ASSERT_TRUE(f != nullptr && d != nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(f) % 64, 0u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(d) % 64, 0u);
  u::Set(1000, 1.0f, f);  // the whole array is usable (ASan checks)
  u::Set(3, 1.0, d);
  u::Free(f);
  u::Free(d);
  EXPECT_EQ(u::Malloc_Float(0), nullptr);
  EXPECT_EQ(u::Malloc_Double(std::numeric_limits<std::size_t>::max() / 4), nullptr);
}

TEST(VectorOps, NothingAllocates) {
  Operands<float> o(1001, 1);
  std::vector<std::int16_t> pcm(1001);
  std::vector<double> wide(1001);
  EXPECT_NO_ALLOCATION(u::Add(o.n, o.A(), o.B(), o.Out()));
  EXPECT_NO_ALLOCATION(u::Add_InPlace(o.n, o.A(), o.Out()));
  EXPECT_NO_ALLOCATION(u::MulConstant_InPlace(o.n, o.Out(), 0.5f));
  EXPECT_NO_ALLOCATION(u::Dot(o.n, o.A(), o.B()));
  EXPECT_NO_ALLOCATION(u::Max(o.n, o.A()));
  EXPECT_NO_ALLOCATION(u::Convert(o.n, o.A(), pcm.data()));
  EXPECT_NO_ALLOCATION(u::Convert(o.n, o.A(), wide.data()));
  EXPECT_NO_ALLOCATION(u::Move(o.n - 1, o.Out(), o.Out() + 1));
  EXPECT_NO_ALLOCATION(u::WindowKaiser(o.n, o.Out(), 8.0));
}

}  // namespace
