#include "Levels.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "vexaccelerate/Utility.h"

namespace vexdsp {

LevelMeter::LevelMeter(int numChannels)
    : peaks_(static_cast<std::size_t>(std::max(numChannels, 0)), 0.0),
      sumsOfSquares_(static_cast<std::size_t>(std::max(numChannels, 0)), 0.0),
      nonFinite_(static_cast<std::size_t>(std::max(numChannels, 0)), 0) {}

void LevelMeter::Add(const float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return;
  }
  const auto n = static_cast<std::size_t>(numFrames);
  squares_.resize(std::max(squares_.size(), n));
  for (std::size_t ch = 0; ch < peaks_.size(); ++ch) {
    const float* x = planar[ch];
    // The peak is taken on squares because the vector library has a maximum
    // but no absolute maximum; sqrt of a correctly rounded square gives the
    // magnitude back exactly.
    vexaccelerate::utility::Mul(n, x, x, squares_.data());
    const float maxSquare = vexaccelerate::utility::Max(n, squares_.data());
    const double sum = vexaccelerate::utility::Dot(n, x, x);
    // The sum of squares is finite exactly when every sample is (squares
    // cannot cancel), and the largest float square is finite unless a sample
    // is beyond 2^64; only then is the block looked at sample by sample.
    if (std::isfinite(sum) && std::isfinite(maxSquare)) {
      peaks_[ch] = std::max(peaks_[ch], std::sqrt(static_cast<double>(maxSquare)));
      sumsOfSquares_[ch] += sum;
      continue;
    }
    double peak = peaks_[ch];
    double squares = 0.0;
    std::int64_t bad = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const double v = x[i];
      if (!std::isfinite(v)) {
        ++bad;
        continue;
      }
      peak = std::max(peak, std::fabs(v));
      squares += v * v;
    }
    peaks_[ch] = peak;
    sumsOfSquares_[ch] += squares;
    nonFinite_[ch] += bad;
  }
  numFrames_ += numFrames;
}

double LevelMeter::GetPeak(int channel) const { return peaks_.at(static_cast<std::size_t>(channel)); }

double LevelMeter::GetRms(int channel) const {
  const auto ch = static_cast<std::size_t>(channel);
  const std::int64_t finite = numFrames_ - nonFinite_.at(ch);
  if (finite <= 0) {
    return 0.0;
  }
  return std::sqrt(sumsOfSquares_.at(ch) / static_cast<double>(finite));
}

double LevelMeter::GetMaxPeak() const {
  double peak = 0.0;
  for (double channelPeak : peaks_) {
    peak = std::max(peak, channelPeak);
  }
  return peak;
}

double LevelMeter::GetTotalRms() const {
  const std::int64_t finite = numFrames_ * static_cast<std::int64_t>(peaks_.size()) - GetNumNonFinite();
  if (finite <= 0) {
    return 0.0;
  }
  double sum = 0.0;
  for (double channelSum : sumsOfSquares_) {
    sum += channelSum;
  }
  return std::sqrt(sum / static_cast<double>(finite));
}

std::int64_t LevelMeter::GetNumNonFinite(int channel) const { return nonFinite_.at(static_cast<std::size_t>(channel)); }

std::int64_t LevelMeter::GetNumNonFinite() const {
  std::int64_t total = 0;
  for (std::int64_t count : nonFinite_) {
    total += count;
  }
  return total;
}

double ToDb(double linear) {
  return linear > 0.0 ? 20.0 * std::log10(linear) : -std::numeric_limits<double>::infinity();
}

std::string FormatDb(double linear) {
  if (!(linear > 0.0)) {
    return "-inf";
  }
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", ToDb(linear));
  return text;
}

}  // namespace vexdsp
