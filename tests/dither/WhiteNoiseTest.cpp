#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "vexaudiodsp/dither/WhiteNoise.h"

namespace dsp {
// Reaches the private single-generator step.
class WhiteNoiseProbe {
 public:
  static unsigned GetNext(WhiteNoise& noise, int i) { return noise.GetNext(i); }
};
}  // namespace dsp

namespace {

// The generator written out from its published constants in 64-bit
// arithmetic reduced by hand, sharing nothing with the class.
struct Reference {
  std::uint64_t state[11];
  std::uint64_t out[11];
  std::uint64_t index;

  static std::uint64_t Lcg(std::uint64_t x, std::uint64_t a, std::uint64_t c) { return (x * a + c) & 0xFFFFFFFFull; }

  explicit Reference(std::uint32_t seed) {
    const std::uint64_t a = 196314165, c = 907633515, a2 = 0xFFB38435, c2 = 1663851;
    const std::uint64_t xorConst[11] = {0,       0xC0EC,  0xF127,  0x12162, 0x1519D, 0x181D8,
                                        0x1B213, 0x1E24E, 0x21289, 0x242C4, 0x272FF};
    std::uint64_t x[12];
    x[1] = Lcg(seed, a, c);
    x[2] = Lcg(x[1], a, c);
    x[3] = Lcg(x[2], a, c);
    x[4] = Lcg(x[3], a, c);
    x[5] = Lcg(x[4], a, c);
    x[6] = Lcg(x[5], a, c);
    x[7] = Lcg(x[6], a, c2);
    x[8] = Lcg(x[7], a2, c2);
    x[9] = Lcg(x[8], a2, c2);
    x[10] = Lcg(x[9], a2, c2);
    x[11] = Lcg(x[10], a2, c2);
    for (int i = 1; i <= 10; ++i) {
      state[i] = ((x[i + 1] / 512) % 65536) ^ xorConst[i];
      out[i] = 0;
    }
    state[0] = Lcg(((x[1] / 512) % 65536) ^ 0x90B1, a, c);
    out[0] = state[0] / 512;
    index = out[0] % 11;
  }

  std::uint64_t Next() {
    index = (index + 1) % 11;
    state[index] = Lcg(state[index], 196314165, 907633515);
    out[index] = state[index] / 512;
    return out[index];
  }
};

TEST(WhiteNoise, SeedingMatchesTheConstantsForSeveralSeeds) {
  for (std::uint32_t seed : {0u, 1u, 12345u, 65535u, 0xDEADBEEFu}) {
    Reference ref(seed);
    dsp::WhiteNoise noise(seed);
    for (int i = 0; i < 11; ++i) {
      EXPECT_EQ(noise.GetState(i), ref.state[i]) << "seed " << seed << " generator " << i;
      EXPECT_EQ(noise.GetOutput(i), ref.out[i]) << "seed " << seed << " generator " << i;
    }
    EXPECT_EQ(noise.GetIndex(), ref.index) << "seed " << seed;
  }
}

TEST(WhiteNoise, WholeSequencesOfAllThreeOutputsMatchTheReference) {
  for (std::uint32_t seed : {7u, 4242u, 0xFFFFFFFFu}) {
    Reference ref(seed);
    dsp::WhiteNoise noise(seed);
    for (int n = 0; n < 5000; ++n) {
      switch (n % 3) {
        case 0:
          ASSERT_EQ(noise.dwWhite(), ref.Next()) << "seed " << seed << " step " << n;
          break;
        case 1:
          ASSERT_EQ(noise.fRandom(), static_cast<double>(ref.Next()) / 8388608.0) << "seed " << seed << " step " << n;
          break;
        default: {
          double sum = 0.0;
          for (int k = 0; k < 12; ++k) sum += static_cast<double>(ref.Next()) / 8388608.0;
          ASSERT_EQ(noise.fGaussian(3.0), (sum - 6.0) * 1.5) << "seed " << seed << " step " << n;
        }
      }
    }
  }
}

TEST(WhiteNoise, ReseedingRestartsAndCopiesContinueTheSameSequence) {
  dsp::WhiteNoise a(99), b(99);
  std::vector<unsigned> first;
  for (int i = 0; i < 100; ++i) first.push_back(a.dwWhite());
  for (int i = 0; i < 100; ++i) EXPECT_EQ(b.dwWhite(), first[i]);
  dsp::WhiteNoise copy = a;
  EXPECT_EQ(copy.dwWhite(), a.dwWhite());
  a.Seed(99);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(a.dwWhite(), first[i]);

  dsp::WhiteNoise other(100);
  int same = 0;
  for (int i = 0; i < 100; ++i) same += other.dwWhite() == first[i];
  EXPECT_LT(same, 3);
}

TEST(WhiteNoise, UniformRangeResolutionAndGaussianScale) {
  dsp::WhiteNoise noise(2024);
  double minV = 1.0, maxV = 0.0, sum = 0.0, sum2 = 0.0;
  const int n = 200000;
  for (int i = 0; i < n; ++i) {
    double r = noise.fRandom();
    ASSERT_GE(r, 0.0);
    ASSERT_LT(r, 1.0);
    ASSERT_EQ(r * 8388608.0, std::floor(r * 8388608.0));
    minV = std::min(minV, r);
    maxV = std::max(maxV, r);
    sum += r;
    sum2 += r * r;
  }
  EXPECT_LT(minV, 1e-4);
  EXPECT_GT(maxV, 1.0 - 1e-4);
  EXPECT_NEAR(sum / n, 0.5, 0.003);
  EXPECT_NEAR(sum2 / n - (sum / n) * (sum / n), 1.0 / 12.0, 0.002);

  EXPECT_EQ(noise.fGaussian(0.0), 0.0);
  double g = 0.0, g2 = 0.0;
  const int m = 40000;
  for (int i = 0; i < m; ++i) {
    double v = noise.fGaussian(2.0);
    ASSERT_LE(std::fabs(v), 6.0);
    g += v;
    g2 += v * v;
  }
  // sigma 2 promises a standard deviation of 1.
  EXPECT_NEAR(g / m, 0.0, 0.02);
  EXPECT_NEAR(std::sqrt(g2 / m), 1.0, 0.02);
}

TEST(WhiteNoise, GetNextStepsOnlyTheNamedGenerator) {
  dsp::WhiteNoise noise(31337);
  Reference ref(31337);
  const std::uint32_t index = noise.GetIndex();
  const std::uint64_t expected = Reference::Lcg(ref.state[4], 196314165, 907633515) / 512;
  EXPECT_EQ(dsp::WhiteNoiseProbe::GetNext(noise, 4), expected);
  EXPECT_EQ(noise.GetIndex(), index);
  for (int i = 0; i < 11; ++i) {
    if (i != 4) {
      EXPECT_EQ(noise.GetState(i), ref.state[i]) << i;
    }
  }
  // The turn order continues as if nothing happened, except generator 4.
  ref.state[4] = Reference::Lcg(ref.state[4], 196314165, 907633515);
  for (int i = 0; i < 30; ++i) EXPECT_EQ(noise.dwWhite(), ref.Next());
}

}  // namespace
