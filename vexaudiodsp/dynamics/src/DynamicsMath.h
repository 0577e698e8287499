#pragma once

#include <cmath>

// Conversions shared by the dynamics classes (not installed).
namespace dsp {
namespace dynamics {
namespace detail {

// ln(10) / 20.
constexpr float kDbToLog = 0.115129255f;

inline float DbToLinear(float db) { return std::exp(db * kDbToLog); }

// Envelope coefficient for a time of `ms` milliseconds, which spans two
// time constants; 0 (instantaneous) for ms <= 0.
inline float TimeCoefficient(float ms, float sampleRate) {
  return ms > 0.0f ? std::exp(-1000.0f / ms / (sampleRate * 0.5f)) : 0.0f;
}

// One-pole smoothing factor 1 - coefficient; 1 for ms <= 0.
inline float SmoothingFactor(float ms, float sampleRate) {
  return ms > 0.0f ? 1.0f - TimeCoefficient(ms, sampleRate) : 1.0f;
}

// The peak detector falls to 3 % in 50 ms.
inline float PeakDecayFactor(float sampleRate) {
  return static_cast<float>(std::pow(0.03, 1.0 / (0.05 * static_cast<double>(sampleRate))));
}

// round(0.001 fs), at least one sample.
inline unsigned DelayLineSamples(float sampleRate) {
  const long n = std::lround(static_cast<double>(sampleRate) * 0.001);
  return n < 1 ? 1u : static_cast<unsigned>(n);
}

}  // namespace detail
}  // namespace dynamics
}  // namespace dsp
