#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace vexdsp {

namespace {
constexpr double kShowAfterSeconds = 0.5;
constexpr double kLongWorkSeconds = 2.0;
constexpr double kRedrawSeconds = 0.1;
constexpr int kBarWidth = 30;

double Fraction(std::int64_t done, std::int64_t total) {
  return std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
}
}  // namespace

std::string FormatProgressLine(const std::string& label, std::int64_t done, std::int64_t total, double sampleRate,
                               double elapsedSeconds) {
  char text[160];
  if (total < 0) {
    const double audio = sampleRate > 0.0 ? static_cast<double>(std::max<std::int64_t>(done, 0)) / sampleRate : 0.0;
    const auto tenths = static_cast<std::int64_t>(audio * 10.0);
    const std::int64_t seconds = tenths / 10;
    int length = std::snprintf(text, sizeof(text), "%s %" PRId64 ":%02d:%02d.%d of audio", label.c_str(),
                               seconds / 3600, static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60),
                               static_cast<int>(tenths % 10));
    if (elapsedSeconds > 0.0 && length > 0 && static_cast<std::size_t>(length) < sizeof(text)) {
      std::snprintf(text + length, sizeof(text) - static_cast<std::size_t>(length), "  %.1fx real time",
                    audio / elapsedSeconds);
    }
    return text;
  }
  const double fraction = total > 0 ? Fraction(done, total) : 1.0;
  const int filled = static_cast<int>(fraction * kBarWidth);
  char bar[kBarWidth + 1];
  for (int i = 0; i < kBarWidth; ++i) {
    bar[i] = i < filled ? '#' : '.';
  }
  bar[kBarWidth] = '\0';
  const double remaining = fraction > 0.0 ? elapsedSeconds * (1.0 - fraction) / fraction : 0.0;
  std::snprintf(text, sizeof(text), "%s [%s] %3d%%  %.0f s left", label.c_str(), bar,
                static_cast<int>(fraction * 100.0), remaining);
  return text;
}

Progress::Progress(std::string label, std::int64_t total, double sampleRate)
    : label_(std::move(label)),
      total_(total),
      sampleRate_(sampleRate),
      enabled_((total > 0 || (total < 0 && sampleRate > 0.0)) && isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      lastDraw_(start_) {}

Progress::~Progress() { Finish(); }

void Progress::Update(std::int64_t done) {
  if (!enabled_) {
    return;
  }
  const Clock::time_point now = Clock::now();
  const double elapsed = std::chrono::duration<double>(now - start_).count();
  const double fraction = total_ > 0 ? Fraction(done, total_) : 0.0;
  if (!shown_) {
    if (elapsed < kShowAfterSeconds) {
      return;
    }
    // Without a total nothing predicts a long run but the time already taken.
    const double expected = fraction > 0.0 ? elapsed / fraction : kLongWorkSeconds;
    if ((total_ < 0 || expected < kLongWorkSeconds) && elapsed < kLongWorkSeconds) {
      return;
    }
    shown_ = true;
  } else if (std::chrono::duration<double>(now - lastDraw_).count() < kRedrawSeconds && fraction < 1.0) {
    return;
  }
  lastDraw_ = now;
  std::fprintf(stderr, "\r%s\033[K", FormatProgressLine(label_, done, total_, sampleRate_, elapsed).c_str());
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
