#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vexdsp {

/// A one-line progress bar on stderr for work that takes more than about two
/// seconds. It stays silent unless stderr is a terminal, and appears only
/// once the work has run half a second and looks set to take two seconds or
/// more, so short runs and piped output are never cluttered. Finish (or the
/// destructor) erases the line. When the total is unknown (below 0, a
/// stream) and a sample rate is given, it shows how much audio has passed
/// instead, once the work has run two seconds.
class Progress {
 public:
  Progress(std::string label, std::int64_t total, double sampleRate = 0.0);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(std::int64_t done);
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string label_;
  std::int64_t total_;
  double sampleRate_;
  bool enabled_;
  bool shown_ = false;
  Clock::time_point start_;
  Clock::time_point lastDraw_;
};

/// The text of one progress line: "label [#####.....]  42%  3 s left" for a
/// known total, "label 0:01:23.4 of audio  12.5x real time" for an unknown
/// one (total < 0) at sampleRate.
std::string FormatProgressLine(const std::string& label, std::int64_t done, std::int64_t total, double sampleRate,
                               double elapsedSeconds);

}  // namespace vexdsp
