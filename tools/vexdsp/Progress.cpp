#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace vexdsp {

namespace {
constexpr double kShowAfterSeconds = 0.5;
constexpr double kLongWorkSeconds = 2.0;
constexpr double kRedrawSeconds = 0.1;
constexpr int kBarWidth = 30;
}  // namespace

Progress::Progress(std::string label, std::int64_t total)
    : label_(std::move(label)),
      total_(total),
      enabled_(total > 0 && isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      lastDraw_(start_) {}

Progress::~Progress() { Finish(); }

void Progress::Update(std::int64_t done) {
  if (!enabled_) {
    return;
  }
  const Clock::time_point now = Clock::now();
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  const double fraction = std::clamp(static_cast<double>(done) / static_cast<double>(total_), 0.0, 1.0);
  if (!shown_) {
    if (elapsed < kShowAfterSeconds) {
      return;
    }
    const double expected = fraction > 0.0 ? elapsed / fraction : kLongWorkSeconds;
    if (expected < kLongWorkSeconds && elapsed < kLongWorkSeconds) {
      return;
    }
    shown_ = true;
  } else if (std::chrono::duration<double>(now - lastDraw_).count() < kRedrawSeconds && fraction < 1.0) {
    return;
  }
  lastDraw_ = now;
  const int filled = static_cast<int>(fraction * kBarWidth);
  char bar[kBarWidth + 1];
  for (int i = 0; i < kBarWidth; ++i) {
    bar[i] = i < filled ? '#' : '.';
  }
  bar[kBarWidth] = '\0';
  const double remaining = fraction > 0.0 ? elapsed * (1.0 - fraction) / fraction : 0.0;
  std::fprintf(stderr, "\r%s [%s] %3d%%  %.0f s left\033[K", label_.c_str(), bar, static_cast<int>(fraction * 100.0),
               remaining);
  std::fflush(stderr);
}

void Progress::Finish() {
  if (shown_) {
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    shown_ = false;
  }
  enabled_ = false;
}

}  // namespace vexdsp
