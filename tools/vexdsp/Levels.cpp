#include "Levels.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "vexaccelerate/Utility.h"

namespace vexdsp {

LevelMeter::LevelMeter(int numChannels)
    : peaks_(static_cast<std::size_t>(std::max(numChannels, 0)), 0.0),
      sumsOfSquares_(static_cast<std::size_t>(std::max(numChannels, 0)), 0.0) {}

void LevelMeter::Add(const float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return;
  }
  const auto n = static_cast<std::size_t>(numFrames);
  squares_.resize(std::max(squares_.size(), n));
  for (std::size_t ch = 0; ch < peaks_.size(); ++ch) {
    // The peak is taken on squares because the vector library has a maximum
    // but no absolute maximum; sqrt of a correctly rounded square gives the
    // magnitude back exactly.
    vexaccelerate::utility::Mul(n, planar[ch], planar[ch], squares_.data());
    const double peak = std::sqrt(static_cast<double>(vexaccelerate::utility::Max(n, squares_.data())));
    peaks_[ch] = std::max(peaks_[ch], peak);
    sumsOfSquares_[ch] += vexaccelerate::utility::Dot(n, planar[ch], planar[ch]);
  }
  numFrames_ += numFrames;
}

double LevelMeter::GetPeak(int channel) const { return peaks_.at(static_cast<std::size_t>(channel)); }

double LevelMeter::GetRms(int channel) const {
  if (numFrames_ == 0) {
    return 0.0;
  }
  return std::sqrt(sumsOfSquares_.at(static_cast<std::size_t>(channel)) / static_cast<double>(numFrames_));
}

double LevelMeter::GetMaxPeak() const {
  double peak = 0.0;
  for (double channelPeak : peaks_) {
    peak = std::max(peak, channelPeak);
  }
  return peak;
}

double LevelMeter::GetTotalRms() const {
  if (numFrames_ == 0 || peaks_.empty()) {
    return 0.0;
  }
  double sum = 0.0;
  for (double channelSum : sumsOfSquares_) {
    sum += channelSum;
  }
  return std::sqrt(sum / (static_cast<double>(numFrames_) * static_cast<double>(peaks_.size())));
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
