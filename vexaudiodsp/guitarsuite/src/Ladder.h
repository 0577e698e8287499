#pragma once

// The four-pole ladder shared by Retro and TalkBox, and the polynomial
// helpers of the display coefficients. Internal to the guitar suite.

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace dsp {
namespace guitarsuite {
namespace detail {

struct LadderCoefficients {
  double p = 0.0;
  double k = 0.0;
  double r = 0.0;
};

inline float ClampParameter(float value, float lo, float hi) {
  return std::isnan(value) ? lo : std::min(std::max(value, lo), hi);
}

// Tuning and resonance compensation of the "Moog variation 1" ladder
// (musicdsp.org archive): p is the stage pole from the warped cutoff, r the
// feedback scaled so that resonance stays even across the cutoff range.
inline LadderCoefficients DesignLadder(double cutoff, double resonance, double sampleRate) {
  const double f = std::min(std::max(1.78 * cutoff / sampleRate, 0.0), 0.5);
  const double t = 1.0 - f;
  LadderCoefficients c;
  c.p = f + 0.8 * f * t;
  c.k = 2.0 * c.p - 1.0;
  c.r = 0.95 * resonance * (1.0 + 0.5 * t * (1.0 - t + 5.6 * t * t));
  return c;
}

// One channel; `s` holds s0 ... s4. Each stage reads the previous sample's
// state of the stage before it, so the stages are a true cascade of one-pole
// one-zero sections.
inline void RunLadder(const LadderCoefficients& c, unsigned mode, double* s, float* x, unsigned frames) {
  if (mode > 2) return;
  const double p = c.p, k = c.k, r = c.r;
  double s0 = s[0], s1 = s[1], s2 = s[2], s3 = s[3], s4 = s[4];
  for (unsigned i = 0; i < frames; ++i) {
    const double in = x[i] - r * s4;
    const double y1 = (in + s0) * p - k * s1;
    const double y2 = (s1 + y1) * p - k * s2;
    const double y3 = (s2 + y2) * p - k * s3;
    double y4 = (s3 + y3) * p - k * s4;
    y4 -= 0.166667 * y4 * y4 * y4;
    s0 = in;
    s1 = y1;
    s2 = y2;
    s3 = y3;
    s4 = y4;
    x[i] = static_cast<float>(mode == 0 ? y4 : mode == 1 ? in - y4 : 3.0 * (y3 - y4));
  }
  s[0] = s0;
  s[1] = s1;
  s[2] = s2;
  s[3] = s3;
  s[4] = s4;
}

// out = a * b for polynomials of na and nb coefficients; out has na + nb - 1.
inline void PolyMul(const double* a, int na, const double* b, int nb, double* out) {
  std::fill(out, out + na + nb - 1, 0.0);
  for (int i = 0; i < na; ++i) {
    for (int j = 0; j < nb; ++j) out[i + j] += a[i] * b[j];
  }
}

// The ladder's small-signal response in z^-1 (6 coefficients each). With G =
// p (1 + z^-1) / (1 + k z^-1) per stage and the input x - r z^-1 y4:
// y4 / x = N^4 / D, x' / x = K^4 / D with N = p (1 + z^-1), K = 1 + k z^-1
// and D = K^4 + r z^-1 N^4.
inline void LadderDisplay(const LadderCoefficients& c, unsigned mode, double* num, double* den) {
  const double n1[2] = {c.p, c.p};
  const double k1[2] = {1.0, c.k};
  double n2[3], n3[4], n4[5], k2[3], k4[5], n3k[5];
  PolyMul(n1, 2, n1, 2, n2);
  PolyMul(n2, 3, n1, 2, n3);
  PolyMul(n3, 4, n1, 2, n4);
  PolyMul(k1, 2, k1, 2, k2);
  PolyMul(k2, 3, k2, 3, k4);
  PolyMul(n3, 4, k1, 2, n3k);
  for (int i = 0; i < 6; ++i) {
    den[i] = (i < 5 ? k4[i] : 0.0) + (i >= 1 ? c.r * n4[i - 1] : 0.0);
    num[i] = 0.0;
  }
  for (int i = 0; i < 5; ++i) {
    switch (mode) {
      case 0:
        num[i] = n4[i];
        break;
      case 1:
        num[i] = k4[i] - n4[i];
        break;
      case 2:
        num[i] = 3.0 * (n3k[i] - n4[i]);
        break;
      default:
        break;
    }
  }
  if (mode > 2) std::copy(den, den + 6, num);
}

}  // namespace detail
}  // namespace guitarsuite
}  // namespace dsp
