#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vextest {

/// amplitude * sin(2 pi f n / rate + phase) for n < count.
std::vector<float> Sine(std::size_t count, double frequency, double rate, double amplitude = 1.0, double phase = 0.0);
/// Uniform noise in [-amplitude, amplitude) from a fixed-seed generator, so
/// every run sees the same samples.
std::vector<float> Noise(std::size_t count, std::uint32_t seed, double amplitude = 1.0);
/// Largest |a[i] - b[i]| over the common length; infinity if lengths differ
/// or one side is NaN where the other is not equal to it.
double MaxAbsDiff(const std::vector<float>& a, const std::vector<float>& b);
double MaxAbsDiff(const float* a, const float* b, std::size_t count);

/// A planar multichannel block kept in vectors, with a pointer table a
/// processor can take.
class PlanarBlock {
 public:
  PlanarBlock(std::size_t channels, std::size_t frames, float value = 0.0f);
  float** Pointers() { return pointers_.data(); }
  std::vector<float>& Channel(std::size_t ch) { return data_[ch]; }
  const std::vector<float>& Channel(std::size_t ch) const { return data_[ch]; }
  std::size_t Channels() const { return data_.size(); }
  std::size_t Frames() const { return data_.empty() ? 0 : data_[0].size(); }

 private:
  std::vector<std::vector<float>> data_;
  std::vector<float*> pointers_;
};

}  // namespace vextest
