#pragma once

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Shapes for GetFFTWindow (the low byte of its flags).
enum FFTWindowShape : unsigned {
  kFFTWindowTriangle = 0,
  kFFTWindowHann = 1,
  kFFTWindowHamming = 2,
  /// param in (0, 1) is the Blackman alpha, otherwise 0.16 (the classic).
  kFFTWindowBlackman = 3,
  /// param > 0 is the Kaiser beta, otherwise 8.6 (sidelobes near -90 dB).
  kFFTWindowKaiser = 4,
  /// The four-term Blackman-Harris window of the noise-print tools: for a
  /// body of B points, f(i) = 0.35875 - 0.48829 cos(2 pi i / B) + 0.14128
  /// cos(4 pi i / (B - 1)) - 0.01168 cos(6 pi i / B), w[i + 1] = w[B - 1 - i]
  /// = f(i) for i = 0 ... B/2 - 2, w[0] = 0, w[B/2] = 1. The one-place shift
  /// and the B - 1 of the middle term are part of the definition those tools'
  /// prints were made with.
  kFFTWindowBlackmanHarris = 5,
};

/// Flag bits of GetFFTWindow beside the shape.
enum FFTWindowFlags : unsigned {
  kFFTWindowShapeMask = 0xFF,
  /// Square root of the shape, for power-complementary analysis/synthesis
  /// pairs (sqrt-Hann at hop N/2 sums to 1 in w^2).
  kFFTWindowSqrt = 0x100,
  /// Work on 2 x size points and write the first (rising) half.
  kFFTWindowFirstHalf = 0x200,
  /// Work on 2 x size points and write the second (falling) half.
  kFFTWindowSecondHalf = 0x400,
};

/// Writes `size` doubles of an analysis window to `out`.
///
/// The working length W is 2 x size when kFFTWindowFirstHalf or
/// kFFTWindowSecondHalf is set (the first wins when both are), else size. The
/// window body has B = 2 floor(fraction W / 2) points, preceded by (W - B) / 2
/// zeros and followed by the remaining zeros; fraction is clamped to [0, 1].
/// Shapes 0 ... 4 are periodic (DFT-even) over the body: the triangle
/// 1 - |1 - 2i/B| and the Hann, Hamming, Blackman and Kaiser windows of
/// vexaccelerate evaluated on B + 1 points with the last dropped. Shape 5 is
/// kFFTWindowBlackmanHarris above. The body is then scaled by 1 / fraction,
/// so shortening the body keeps the window's coherent gain relative to W
/// (the triangle of fraction 1/2 peaks at 2).
///
/// Returns false, with nothing written, for a null out, size < 1, an unknown
/// shape or when the temporary working array cannot be allocated. Allocates
/// (a configuration call).
VEXAUDIODSP_API bool GetFFTWindow(void* out, int size, double fraction, unsigned flags, double param);

}  // namespace dsp
