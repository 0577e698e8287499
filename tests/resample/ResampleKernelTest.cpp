#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "support/TestSignals.h"
#include "vexaudiodsp/resample/Resample.h"

// Every inner-loop kernel (single and double precision, each instruction
// set this CPU runs) against a plain double loop written from the
// converter's definition: Kaiser-windowed sinc taps with the twenty-term
// Bessel series, the starting phase from the latency, and one output per
// phase step. A 60 dB Kaiser window keeps the outermost taps near 2% of the
// centre, so a lost, doubled or misplaced tap or lane shows far above
// rounding.
namespace {

using Set = dsp::Resample::InstructionSet;
constexpr double kPi = 3.141592653589793;

double I0Series(double z) {
  double sum = 1.0;
  for (int k = 1; k <= 19; ++k) {
    double term = 1.0;
    for (int i = 1; i <= k; ++i) term *= (z / 2) / i;
    sum += term * term;
  }
  return sum;
}

// The taps of the row at phase offset p: element j weighs input sample
// newest - (order - 1) + j.
std::vector<double> Row(int order, double noiseFloor, double c, double p) {
  const double beta = (noiseFloor - 8.7) * 0.1102;
  const double half = (order + 1) / 2;
  std::vector<double> taps(static_cast<std::size_t>(order));
  for (int j = 0; j < order; ++j) {
    const double t = j - (order - 1) / 2 - p;
    const double r = t / half;
    const double w = I0Series(beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / I0Series(beta);
    const double x = kPi * t / c;
    taps[static_cast<std::size_t>(j)] = w * (x == 0.0 ? 1.0 : std::sin(x) / x) / c;
  }
  return taps;
}

struct Reference {
  std::vector<double> y;      // the outputs in double
  std::vector<double> scale;  // sum of |tap * sample| of each output
};

// Outputs of `from -> to` for integer rates; phases are exact when
// to / gcd <= 1000 and interpolated between 1000 rows otherwise.
Reference Expected(const std::vector<float>& x, int from, int to, int order, double noiseFloor, double c) {
  const int g = std::gcd(from, to);
  const bool exact = to / g <= 1000;
  const int phases = exact ? to / g : 1000;
  const double step = exact ? from / g : 1000.0 * from / to;
  const double h = (order - 1) * 0.5 * static_cast<double>(static_cast<float>(to)) / static_cast<float>(from);
  const double start = (1e-12 + h - static_cast<int>(h)) * step + phases;
  double phase = std::fmod(start, phases);
  if (exact) phase = std::round(phase);
  if (phase >= phases) phase -= phases;
  long long newest = static_cast<long long>(std::floor(start / phases - 1.0));

  std::vector<std::vector<double>> rows(static_cast<std::size_t>(phases) + 1);
  for (int r = 0; r <= phases; ++r) rows[static_cast<std::size_t>(r)] = Row(order, noiseFloor, c, double(r) / phases);
  auto dot = [&](const std::vector<double>& row, double* scale) {
    double sum = 0.0;
    for (int j = 0; j < order; ++j) {
      const long long k = newest - (order - 1) + j;
      const double v = k >= 0 ? x[static_cast<std::size_t>(k)] : 0.0;
      sum += row[static_cast<std::size_t>(j)] * v;
      *scale += std::fabs(row[static_cast<std::size_t>(j)] * v);
    }
    return sum;
  };
  Reference ref;
  while (newest < static_cast<long long>(x.size())) {
    const int index = static_cast<int>(phase);
    double scale = 0.0;
    const double a = dot(rows[static_cast<std::size_t>(index)], &scale);
    double y = a;
    if (!exact) {
      const double alpha = phase - index;
      y = a + alpha * (dot(rows[static_cast<std::size_t>(index) + 1], &scale) - a);
    }
    ref.y.push_back(y);
    ref.scale.push_back(scale);
    phase += step;
    const double wraps = std::floor(phase / phases);
    phase -= wraps * phases;
    newest += static_cast<long long>(wraps);
  }
  return ref;
}

std::vector<float> Convert(dsp::Resample& r, const std::vector<float>& in, int block) {
  std::vector<float> input = in;
  std::vector<float> out(static_cast<std::size_t>(r.GetOutputBufferSize(static_cast<int>(in.size())) + 16));
  int produced = 0;
  for (int done = 0; done < static_cast<int>(in.size()); done += block) {
    const int n = std::min(block, static_cast<int>(in.size()) - done);
    produced += r.Process(input.data() + done, out.data() + produced, n);
  }
  out.resize(static_cast<std::size_t>(produced));
  return out;
}

std::vector<Set> Sets() {
  std::vector<Set> sets{Set::kPortable};
  dsp::Resample probe;
  for (Set s : {Set::kAvx2, Set::kAvx512}) {
    if (probe.SetInstructionSet(s)) sets.push_back(s);
  }
  return sets;
}

const char* Name(Set s) { return s == Set::kPortable ? "portable" : s == Set::kAvx2 ? "avx2" : "avx512"; }

struct Case {
  int from, to, order;
  std::vector<int> blocks;
};

void CheckAgainstReference(const Case& c, const std::vector<float>& x) {
  dsp::Resample probe;
  probe.SetFilterOrder(c.order);
  probe.SetNoiseFloor(60.0);
  ASSERT_TRUE(probe.SetSampleRates(static_cast<float>(c.from), static_cast<float>(c.to)));
  const Reference ref = Expected(x, c.from, c.to, c.order, 60.0, probe.GetCutoffDivisor());
  for (Set set : Sets()) {
    for (bool alwaysDouble : {false, true}) {
      std::vector<float> whole;
      for (int block : c.blocks) {
        dsp::Resample r = probe;
        r.SetAlwaysDouble(alwaysDouble);
        ASSERT_TRUE(r.SetInstructionSet(set));
        ASSERT_TRUE(r.Initialize());
        const std::vector<float> y = Convert(r, x, block);
        const std::string what = std::to_string(c.from) + "->" + std::to_string(c.to) + " order " +
                                 std::to_string(c.order) + " " + Name(set) +
                                 (r.UsesFloatArithmetic() ? " float" : " double") + " block " + std::to_string(block);
        ASSERT_EQ(y.size(), ref.y.size()) << what;
        // Float taps and sums round at about 2^-24 of the summed magnitudes;
        // double ones only where the output becomes float.
        const double relative = r.UsesFloatArithmetic() ? 4e-6 : 1e-9;
        std::size_t worst = 0;
        double worstExcess = -1.0;
        for (std::size_t n = 0; n < y.size(); ++n) {
          const double allowed = relative * ref.scale[n] + 6e-8 * std::fabs(ref.y[n]) + 1e-30;
          const double excess = std::fabs(y[n] - ref.y[n]) / allowed;
          if (excess > worstExcess) {
            worstExcess = excess;
            worst = n;
          }
        }
        EXPECT_LE(worstExcess, 1.0) << what << ": output " << worst << " is " << y[worst] << ", expected "
                                    << ref.y[worst];
        if (whole.empty()) {
          whole = y;
        } else {
          EXPECT_EQ(y, whole) << what << " differs from the first block size";
        }
        // The input length is no multiple of a vector: after Reset the
        // stream must start over at the alignment of a fresh one.
        r.Reset();
        EXPECT_EQ(Convert(r, x, 333), whole) << what << " after Reset";
      }
    }
  }
}

const std::vector<float>& Input() {
  static const std::vector<float> x = vextest::Noise(11003, 21, 0.7);
  return x;
}

const std::vector<int> kSplits = {10000, 1, 7, 512};

// 160 input samples between the outputs of one row (aligned AVX-512
// windows), 147 (unaligned), 441 (fewer outputs of a row in a block than a
// group holds) and a single row two samples apart.
TEST(ResampleKernels, ExactLayoutsMatchAPlainDoubleLoop) {
  for (const Case& c : {Case{48000, 44100, 101, kSplits}, Case{44100, 48000, 101, kSplits},
                        Case{44100, 32000, 101, kSplits}, Case{96000, 48000, 101, kSplits}}) {
    CheckAgainstReference(c, Input());
  }
}

// Interpolated phases, and the default order (whole 16-tap vectors).
TEST(ResampleKernels, InterpolatedLayoutAndDefaultOrderMatchAPlainDoubleLoop) {
  for (const Case& c :
       {Case{44100, 47999, 101, {10000, 7}}, Case{48000, 44100, 255, {512, 7}}, Case{44100, 48000, 255, {512}}}) {
    CheckAgainstReference(c, Input());
  }
}

TEST(ResampleKernels, PrecisionFollowsTheNoiseFloorAndLayout) {
  auto uses = [](float from, float to, double floor, bool alwaysDouble) {
    dsp::Resample r;
    r.SetNoiseFloor(floor);
    r.SetAlwaysDouble(alwaysDouble);
    EXPECT_TRUE(r.SetSampleRates(from, to));
    EXPECT_TRUE(r.Initialize());
    return r.UsesFloatArithmetic();
  };
  EXPECT_TRUE(uses(48000, 44100, 150.0, false));
  EXPECT_TRUE(uses(44100, 48000, 59.0, false));
  EXPECT_FALSE(uses(48000, 44100, 150.5, false));
  EXPECT_FALSE(uses(48000, 44100, 150.0, true));
  EXPECT_FALSE(uses(44100, 47999, 120.0, false)) << "interpolated phases run in double";
}

TEST(ResampleKernels, InstructionSetsAgreeAndUnknownOnesAreRefused) {
  dsp::Resample r;
  EXPECT_EQ(r.GetInstructionSet(), dsp::Resample::GetBestInstructionSet());
  EXPECT_TRUE(r.SetInstructionSet(Set::kPortable));
  EXPECT_EQ(r.GetInstructionSet(), Set::kPortable);
  const std::vector<Set> sets = Sets();
  for (Set s : {Set::kAvx2, Set::kAvx512}) {
    const bool listed = std::find(sets.begin(), sets.end(), s) != sets.end();
    EXPECT_EQ(r.SetInstructionSet(s), listed) << Name(s);
  }
  // The default converter, a full-scale tone: all sets within float
  // rounding of each other.
  const std::vector<float> x = vextest::Sine(6000, 997.0, 48000.0);
  std::vector<float> first;
  for (Set s : sets) {
    dsp::Resample c;
    ASSERT_TRUE(c.SetInstructionSet(s));
    ASSERT_TRUE(c.Initialize());
    const std::vector<float> y = Convert(c, x, 4096);
    if (first.empty()) {
      first = y;
      continue;
    }
    ASSERT_EQ(y.size(), first.size());
    for (std::size_t n = 0; n < y.size(); ++n) ASSERT_NEAR(y[n], first[n], 2e-6) << Name(s) << " at " << n;
  }
}

}  // namespace
