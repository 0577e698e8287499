#include "vexaudiodsp/utils/FFTWindow.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDefaultBlackmanAlpha = 0.16;
constexpr double kDefaultKaiserBeta = 8.6;

void BlackmanHarris(std::size_t body, double* w) {
  const double n = static_cast<double>(body);
  w[0] = 0.0;
  if (body < 2) return;
  for (std::size_t i = 0; i + 2 <= body / 2; ++i) {
    const double x = static_cast<double>(i);
    const double f = 0.35875 - 0.48829 * std::cos(2.0 * kPi * x / n) + 0.14128 * std::cos(4.0 * kPi * x / (n - 1.0)) -
                     0.01168 * std::cos(6.0 * kPi * x / n);
    w[i + 1] = f;
    w[body - 1 - i] = f;
  }
  w[body / 2] = 1.0;
}

}  // namespace

bool GetFFTWindow(void* out, int size, double fraction, unsigned flags, double param) {
  const unsigned shape = flags & kFFTWindowShapeMask;
  if (out == nullptr || size < 1 || shape > kFFTWindowBlackmanHarris) return false;
  const bool firstHalf = (flags & kFFTWindowFirstHalf) != 0;
  const bool secondHalf = !firstHalf && (flags & kFFTWindowSecondHalf) != 0;
  const std::size_t working = static_cast<std::size_t>(size) * (firstHalf || secondHalf ? 2 : 1);
  if (!(fraction > 0.0)) fraction = 0.0;
  fraction = std::min(fraction, 1.0);
  const std::size_t body = 2 * static_cast<std::size_t>(std::floor(fraction * static_cast<double>(working) / 2.0));
  const std::size_t lead = (working - body) / 2;

  // One extra point: the periodic shapes are the symmetric ones of B + 1.
  double* w = vu::Malloc_Double(working + 1);
  if (w == nullptr) return false;
  vu::Zero(working + 1, w);
  double* b = w + lead;
  if (body > 0) {
    switch (shape) {
      case kFFTWindowTriangle:
        vu::WindowBartlett(body + 1, b);
        break;
      case kFFTWindowHann:
        vu::WindowHann(body + 1, b);
        break;
      case kFFTWindowHamming:
        vu::WindowHamming(body + 1, b);
        break;
      case kFFTWindowBlackman:
        vu::WindowBlackman(body + 1, b, param > 0.0 && param < 1.0 ? param : kDefaultBlackmanAlpha);
        break;
      case kFFTWindowKaiser:
        vu::WindowKaiser(body + 1, b, param > 0.0 ? param : kDefaultKaiserBeta);
        break;
      default:
        BlackmanHarris(body, b);
        break;
    }
    // The extra point belongs to the trailing zeros again.
    b[body] = 0.0;
    if ((flags & kFFTWindowSqrt) != 0) {
      for (std::size_t i = 0; i < body; ++i) b[i] = std::sqrt(std::max(b[i], 0.0));
    }
    vu::MulConstant_InPlace(body, b, 1.0 / fraction);
  }
  const std::size_t from = secondHalf ? static_cast<std::size_t>(size) : 0;
  vu::Copy(static_cast<std::size_t>(size), w + from, static_cast<double*>(out));
  vu::Free(w);
  return true;
}

}  // namespace dsp
