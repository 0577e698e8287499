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

TEST(VectorOps, DestinationMayBeASource) {
  const std::size_t n = 1001;
  const std::vector<float> a = vextest::Noise(n, 3);
  const std::vector<float> b = vextest::Noise(n, 4);
  std::vector<float> x = a;
  u::Add(n, x.data(), b.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] + b[i]);
  x = a;
  u::Add(n, b.data(), x.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] + b[i]);
  x = a;
  u::Add(n, x.data(), x.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] + a[i]);
  x = a;
  u::Add_InPlace(n, x.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] + a[i]);
  x = a;
  u::Mul(n, x.data(), x.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] * a[i]);
  x = a;
  u::Mul(n, b.data(), x.data(), x.data());
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] * b[i]);
  x = a;
  u::MulConstant(n, x.data(), x.data(), 3.0f);
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(x[i], a[i] * 3.0f);
  x = a;
  u::Copy(n, x.data(), x.data());
  EXPECT_EQ(x, a);
}

TEST(VectorOps, MoveHandlesOverlapInBothDirections) {
  for (std::size_t shift : {1u, 5u, 40u}) {
    std::vector<float> x(300);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(i);
    u::Move(200, x.data(), x.data() + shift);  // forward: destination above source
    for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(x[i + shift], static_cast<float>(i));
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(i);
    u::Move(200, x.data() + shift, x.data());  // backward
    for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(x[i], static_cast<float>(i + shift));

    std::vector<double> d(300);
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<double>(i);
    u::Move(200, d.data(), d.data() + shift);
    for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(d[i + shift], static_cast<double>(i));
    for (std::size_t i = 0; i < d.size(); ++i) d[i] = static_cast<double>(i);
    u::Move(200, d.data() + shift, d.data());
    for (std::size_t i = 0; i < 200; ++i) ASSERT_EQ(d[i], static_cast<double>(i + shift));
  }
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
    if (o.A()[i] > mx) mx = o.A()[i];
  }
  // Double accumulation: error within n * eps(double) * sum of magnitudes.
  const double scale = 1e-15 * static_cast<double>(n + 1);
  EXPECT_NEAR(u::Dot(n, o.A(), o.B()), static_cast<double>(dot), scale * static_cast<double>(dotMag + 1));
  EXPECT_NEAR(u::Sum(n, o.A()), static_cast<double>(sum), scale * static_cast<double>(sumMag + 1));
  EXPECT_EQ(u::Max(n, o.A()), mx);
}

TEST(VectorOps, ReductionsMatchLongDoubleReference) {
  for (std::size_t n : kLengths) {
    for (std::size_t off : kOffsets) {
      SCOPED_TRACE(testing::Message() << "n " << n << " offset " << off);
      CheckReductions<float>(n, off);
      CheckReductions<double>(n, off);
    }
  }
}

TEST(VectorOps, FloatDotKeepsDoublePrecision) {
  // After 1e8 the 2^-23 part of every term is lost in a float sum; in double
  // every partial sum here is exact.
  std::vector<float> a(1000, 1.0f + 1.0f / 16777216.0f * 2.0f);
  std::vector<float> ones(1000, 1.0f);
  a[0] = 1.0e8f;
  const long double expect = 1.0e8L + 999.0L * (1.0L + 2.0L / 16777216.0L);
  EXPECT_DOUBLE_EQ(u::Dot(a.size(), a.data(), ones.data()), static_cast<double>(expect));
  EXPECT_DOUBLE_EQ(u::Sum(a.size(), a.data()), static_cast<double>(expect));
}

TEST(VectorOps, MaxSkipsNaNAndHandlesEmpty) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(u::Max(0, static_cast<const float*>(nullptr)), -inf);
  EXPECT_EQ(u::Max(0, static_cast<const double*>(nullptr)), -static_cast<double>(inf));
  for (std::size_t n : {1u, 7u, 33u, 100u}) {
    std::vector<float> x(n, nan);
    EXPECT_EQ(u::Max(n, x.data()), -inf) << "all NaN, n " << n;
    for (std::size_t i = 0; i < n; ++i) x[i] = -static_cast<float>(i) - 3.0f;
    for (std::size_t i = 0; i < n; i += 2) x[i] = nan;  // NaN first and scattered
    const float expect = n > 1 ? -4.0f : -inf;
    EXPECT_EQ(u::Max(n, x.data()), expect) << "n " << n;
    std::vector<double> d(x.begin(), x.end());
    EXPECT_EQ(u::Max(n, d.data()), static_cast<double>(expect)) << "n " << n;
    x[n - 1] = 5.0f;
    d[n - 1] = 5.0;
    EXPECT_EQ(u::Max(n, x.data()), 5.0f);
    EXPECT_EQ(u::Max(n, d.data()), 5.0);
  }
}

TEST(VectorOps, PrecisionConversions) {
  for (std::size_t n : kLengths) {
    const std::vector<float> f = NoiseOf<float>(n + 1, 13);
    const std::vector<double> d = NoiseOf<double>(n + 1, 14);
    std::vector<double> wide(n + 2);
    std::vector<float> narrow(n + 2);
    u::Convert(n, f.data() + 1, wide.data() + 1);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(wide[i + 1], static_cast<double>(f[i + 1]));
    std::vector<double> third(n + 1, 1.0 / 3.0);
    u::Convert(n, third.data() + 1, narrow.data());
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(narrow[i], 0.333333343f);  // rounded to nearest
    u::Convert(n, d.data(), narrow.data() + 1);
    for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(narrow[i + 1], static_cast<float>(d[i]));
  }
}

TEST(VectorOps, Int16ConversionScalesRoundsAndSaturates) {
  std::vector<std::int16_t> all(65536);
  for (int i = 0; i < 65536; ++i) all[i] = static_cast<std::int16_t>(i - 32768);
  std::vector<float> f(all.size());
  u::Convert(all.size(), all.data(), f.data());
  for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(f[i], static_cast<float>(all[i]) / 32768.0f);
  // Every int16 survives the round trip.
  std::vector<std::int16_t> back(all.size());
  u::Convert(f.size(), f.data(), back.data());
  EXPECT_EQ(back, all);

  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const float s = 1.0f / 32768.0f;
  struct Case {
    float in;
    std::int16_t out;
  };
  const Case cases[] = {{0.0f, 0},
                        {1.4f * s, 1},
                        {1.6f * s, 2},
                        {-1.4f * s, -1},
                        {-1.6f * s, -2},
                        {2.5f * s, 2},
                        {3.5f * s, 4},
                        {-2.5f * s, -2},
                        {1.0f, 32767},
                        {-1.0f, -32768},
                        {32766.6f * s, 32767},
                        {-32767.6f * s, -32768},
                        {2.0f, 32767},
                        {-2.0f, -32768},
                        {1.0e30f, 32767},
                        {-1.0e30f, -32768},
                        {inf, 32767},
                        {-inf, -32768},
                        {nan, 0},
                        {-nan, 0},
                        {1.0e-40f, 0},
                        {0.99999f, 32767},
                        {-0.99999f, -32768}};
  // Run them inside a longer array so the vector path, not only the tail,
  // sees every case.
  std::vector<float> in;
  std::vector<std::int16_t> expect;
  for (int rep = 0; rep < 3; ++rep) {
    for (const Case& c : cases) {
      in.push_back(c.in);
      expect.push_back(c.out);
    }
  }
  std::vector<std::int16_t> out(in.size());
  u::Convert(in.size(), in.data(), out.data());
  for (std::size_t i = 0; i < in.size(); ++i) EXPECT_EQ(out[i], expect[i]) << "input " << in[i];
}

TEST(VectorOps, InterleaveRoundTrip) {
  for (std::size_t channels : {1u, 2u, 3u, 6u}) {
    const std::size_t n = 37;
    vextest::PlanarBlock planar(channels, n);
    for (std::size_t c = 0; c < channels; ++c) {
      const std::vector<float> noise = vextest::Noise(n, static_cast<std::uint32_t>(c + 1));
      std::copy(noise.begin(), noise.end(), planar.Channel(c).begin());
    }
    std::vector<float> inter(channels * n, 0.0f);
    u::Interleave(planar.Pointers(), channels, n, inter.data());
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t c = 0; c < channels; ++c) ASSERT_EQ(inter[i * channels + c], planar.Channel(c)[i]);
    }
    vextest::PlanarBlock back(channels, n);
    u::Deinterleave(inter.data(), channels, n, back.Pointers());
    for (std::size_t c = 0; c < channels; ++c) EXPECT_EQ(back.Channel(c), planar.Channel(c)) << channels;
  }
}

TEST(VectorOps, WindowsMatchClosedForms) {
  double w4[4], w5[5];
  u::WindowHann(4, w4);
  EXPECT_NEAR(w4[0], 0.0, 1e-15);
  EXPECT_NEAR(w4[1], 0.75, 1e-15);
  EXPECT_NEAR(w4[2], 0.75, 1e-15);
  EXPECT_NEAR(w4[3], 0.0, 1e-15);
  u::WindowHann(5, w5);
  const double hann5[] = {0.0, 0.5, 1.0, 0.5, 0.0};
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(w5[i], hann5[i], 1e-15);
  u::WindowHamming(5, w5);
  const double hamming5[] = {0.08, 0.54, 1.0, 0.54, 0.08};
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(w5[i], hamming5[i], 1e-15);
  u::WindowBlackman(5, w5, 0.16);
  const double blackman5[] = {0.0, 0.34, 1.0, 0.34, 0.0};
  for (int i = 0; i < 5; ++i) EXPECT_NEAR(w5[i], blackman5[i], 1e-15);
  u::WindowBartlett(4, w4);
  const double bartlett4[] = {0.0, 2.0 / 3.0, 2.0 / 3.0, 0.0};
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(w4[i], bartlett4[i], 1e-15);

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
  // General Blackman alpha and the float forms against the formulas.
  const std::size_t n = 64;
  std::vector<float> hann(n), hamming(n), blackman(n), bartlett(n);
  u::WindowHann(n, hann.data());
  u::WindowHamming(n, hamming.data());
  u::WindowBlackman(n, blackman.data(), 0.2);
  u::WindowBartlett(n, bartlett.data());
  const double pi = 3.141592653589793;
  for (std::size_t i = 0; i < n; ++i) {
    const double x = static_cast<double>(i) / (n - 1);
    EXPECT_NEAR(hann[i], 0.5 - 0.5 * std::cos(2 * pi * x), 1e-7);
    EXPECT_NEAR(hamming[i], 0.54 - 0.46 * std::cos(2 * pi * x), 1e-7);
    EXPECT_NEAR(blackman[i], 0.4 - 0.5 * std::cos(2 * pi * x) + 0.1 * std::cos(4 * pi * x), 1e-7);
    EXPECT_NEAR(bartlett[i], 1.0 - std::fabs(2.0 * x - 1.0), 1e-7);
    EXPECT_EQ(hann[i], hann[n - 1 - i]);
  }
}

TEST(VectorOps, WindowsOfLengthOneAndZero) {
  float one = -1.0f;
  double oned = -1.0;
  u::WindowHann(1, &one);
  EXPECT_EQ(one, 1.0f);
  one = -1.0f;
  u::WindowKaiser(1, &one, 5.0);
  EXPECT_EQ(one, 1.0f);
  u::WindowBlackman(1, &oned, 0.16);
  EXPECT_EQ(oned, 1.0);
  oned = -1.0;
  u::WindowBartlett(1, &oned);
  EXPECT_EQ(oned, 1.0);
  oned = -1.0;
  u::WindowHamming(0, &oned);
  EXPECT_EQ(oned, -1.0);
}

TEST(VectorOps, AlignedAllocation) {
  for (std::size_t n : {1u, 3u, 1000u}) {
    float* f = u::Malloc_Float(n);
    double* d = u::Malloc_Double(n);
    ASSERT_NE(f, nullptr);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(f) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(d) % 64, 0u);
    u::Set(n, 1.0f, f);
    u::Set(n, 1.0, d);
    u::Free(f);
    u::Free(d);
  }
  EXPECT_EQ(u::Malloc_Float(0), nullptr);
  EXPECT_EQ(u::Malloc_Double(std::numeric_limits<std::size_t>::max() / 4), nullptr);
  u::Free(nullptr);
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
