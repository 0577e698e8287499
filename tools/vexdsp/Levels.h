#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vexdsp {

/// Sample peak and RMS of every channel of a stream, fed block by block.
/// Sums are kept in double so hours of audio do not drift. Values are linear
/// full scale (1.0 = 0 dBFS); a stream of no frames reads 0. NaN and
/// infinite samples are counted per channel and kept out of the peak and the
/// RMS, which are then those of the finite samples.
class LevelMeter {
 public:
  explicit LevelMeter(int numChannels);

  void Add(const float* const* planar, int numFrames);

  int GetNumChannels() const { return static_cast<int>(peaks_.size()); }
  std::int64_t GetNumFrames() const { return numFrames_; }
  double GetPeak(int channel) const;
  double GetRms(int channel) const;
  /// The loudest channel's peak, and the RMS of all channels together.
  double GetMaxPeak() const;
  double GetTotalRms() const;
  /// NaN and infinite samples seen in one channel, and in all of them.
  std::int64_t GetNumNonFinite(int channel) const;
  std::int64_t GetNumNonFinite() const;

 private:
  std::vector<double> peaks_;
  std::vector<double> sumsOfSquares_;
  std::vector<std::int64_t> nonFinite_;
  std::vector<float> squares_;
  std::int64_t numFrames_ = 0;
};

/// 20·log10(linear); minus infinity for silence.
double ToDb(double linear);
/// ToDb with two decimals, "-inf" for silence.
std::string FormatDb(double linear);

}  // namespace vexdsp
