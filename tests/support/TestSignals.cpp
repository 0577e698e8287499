#include "support/TestSignals.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vextest {

std::vector<float> Sine(std::size_t count, double frequency, double rate, double amplitude, double phase) {
  std::vector<float> out(count);
  const double w = 2.0 * M_PI * frequency / rate;
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<float>(amplitude * std::sin(w * double(i) + phase));
  return out;
}

std::vector<float> Noise(std::size_t count, std::uint32_t seed, double amplitude) {
  std::vector<float> out(count);
  std::uint64_t state = 0x9E3779B97F4A7C15ull ^ seed;
  for (std::size_t i = 0; i < count; ++i) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    const double u = double(state >> 11) * (1.0 / 9007199254740992.0);
    out[i] = static_cast<float>(amplitude * (2.0 * u - 1.0));
  }
  return out;
}

double MaxAbsDiff(const float* a, const float* b, std::size_t count) {
  double worst = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    const double d = std::fabs(double(a[i]) - double(b[i]));
    // A NaN on either side is the largest difference there is, not one to
    // skip (std::max would drop it). Equal infinities count as equal.
    if (std::isnan(d) && !(a[i] == b[i])) return std::numeric_limits<double>::infinity();
    if (d > worst) worst = d;
  }
  return worst;
}

double MaxAbsDiff(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return std::numeric_limits<double>::infinity();
  return MaxAbsDiff(a.data(), b.data(), a.size());
}

PlanarBlock::PlanarBlock(std::size_t channels, std::size_t frames, float value)
    : data_(channels, std::vector<float>(frames, value)), pointers_(channels) {
  for (std::size_t ch = 0; ch < channels; ++ch) pointers_[ch] = data_[ch].data();
}

}  // namespace vextest
