#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vexdsp {

/// A one-line progress bar on stderr for work that takes more than about two
/// seconds. It stays silent unless stderr is a terminal, and appears only
/// once the work has run half a second and looks set to take two seconds or
/// more, so short runs and piped output are never cluttered. Finish (or the
/// destructor) erases the line.
class Progress {
 public:
  Progress(std::string label, std::int64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Update(std::int64_t done);
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string label_;
  std::int64_t total_;
  bool enabled_;
  bool shown_ = false;
  Clock::time_point start_;
  Clock::time_point lastDraw_;
};

}  // namespace vexdsp
