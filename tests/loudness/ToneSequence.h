#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

#include "vexaudiodsp/loudness/Itu1770.h"

namespace vextest {

// The test signals of EBU Tech 3341/3342: a sine of one frequency whose
// peak level steps through a list of (dBFS, seconds) segments with
// continuous phase, the same in every channel. Streamed block by block so
// that 100 s programmes need no 100 s arrays.
class ToneSequence {
 public:
  struct Segment {
    double dbfs;
    double seconds;
  };

  ToneSequence(double frequency, int rate, std::vector<Segment> segments)
      : w_(2.0 * M_PI * frequency / rate), rate_(rate), segments_(std::move(segments)) {
    for (const Segment& s : segments_) total_ += static_cast<std::size_t>(std::lround(s.seconds * rate));
  }

  std::size_t TotalFrames() const { return total_; }

  // Fills up to n samples; returns how many (0 at the end).
  std::size_t Next(float* out, std::size_t n) {
    std::size_t written = 0;
    while (written < n && segment_ < segments_.size()) {
      const std::size_t length = static_cast<std::size_t>(std::lround(segments_[segment_].seconds * rate_));
      const double amplitude = std::pow(10.0, segments_[segment_].dbfs / 20.0);
      while (written < n && inSegment_ < length) {
        out[written++] = static_cast<float>(amplitude * std::sin(w_ * static_cast<double>(index_++)));
        ++inSegment_;
      }
      if (inSegment_ == length) {
        ++segment_;
        inSegment_ = 0;
      }
    }
    return written;
  }

 private:
  double w_;
  int rate_;
  std::vector<Segment> segments_;
  std::size_t total_ = 0;
  std::size_t segment_ = 0;
  std::size_t inSegment_ = 0;
  std::size_t index_ = 0;
};

// Runs a tone sequence through any meter with Process(const float* const*,
// size_t), copying the one generated channel into `channels` channels.
template <typename Meter>
void Feed(Meter& meter, ToneSequence tones, std::size_t channels, std::size_t block) {
  std::vector<float> mono(block);
  std::vector<const float*> table(channels, mono.data());
  for (std::size_t n; (n = tones.Next(mono.data(), block)) > 0;) meter.Process(table.data(), n);
}

}  // namespace vextest
