#pragma once

#include <complex>

#include "vexaudiodsp/Export.h"

// Second-order filter designs for dsp::IIRFilter (order 2, one section per
// design). Each is a pure function: it writes six doubles b0 b1 b2 a0 a1 a2
// into the caller's array, allocates nothing and keeps no state.
//
// The digital designs follow Robert Bristow-Johnson's "Cookbook formulae
// for audio EQ biquad filter coefficients": an analog prototype mapped by
// the bilinear transform with its characteristic frequency pre-warped, so
// the digital filter has its centre or corner exactly at f. Arguments: fs
// the sample rate in Hz, f the centre or corner frequency in Hz, gainDb the
// boost (positive) or cut (negative) in dB, q the quality factor (0.7071 is
// Butterworth for the low- and high-pass; for a peak, the bandwidth is f/q
// between the points of half the dB gain). With w0 = 2 pi f / fs and
// alpha = sin(w0) / (2 q), they are normalised to a0 = 1.
//
// Out-of-range arguments never produce NaN or an unstable section:
// - f above fs / 2 (a NaN f included): every design gives the gain it has
//   below its corner, at all frequencies. The peak, the low-pass and the
//   high shelf become the identity; the low shelf a constant gain of
//   10^(gainDb/20); the high-pass, band-pass and DC blocker silence
//   (b0 = b1 = b2 = 0): nothing they pass can be represented;
// - q <= 0, f < 0, fs <= 0 or any other non-finite argument gives the
//   identity: the argument names no filter, and passing the signal is the
//   least surprising reading.
// f = fs / 2 itself follows the formulas (the peak and low-pass then reduce
// to the identity in exact arithmetic); the DC blocker gives silence there.

namespace dsp {

/// RBJ peaking EQ: gain 1 at DC and Nyquist, 10^(gainDb/20) at f.
/// A = 10^(gainDb/40): b = (1 + alpha A, -2 cos w0, 1 - alpha A),
/// a = (1 + alpha / A, -2 cos w0, 1 - alpha / A).
VEXAUDIODSP_API void PeakingEQCoefficients(double* c, double fs, double f, double gainDb, double q);
/// RBJ low-pass: b = ((1 - cos w0) / 2, 1 - cos w0, (1 - cos w0) / 2),
/// a = (1 + alpha, -2 cos w0, 1 - alpha). Gain 1 at DC, 0 at Nyquist, q at f.
VEXAUDIODSP_API void LowpassCoefficients(double* c, double fs, double f, double q);
/// RBJ high-pass: b = ((1 + cos w0) / 2, -(1 + cos w0), (1 + cos w0) / 2),
/// a as the low-pass. Gain 0 at DC, 1 at Nyquist, q at f.
VEXAUDIODSP_API void HighpassCoefficients(double* c, double fs, double f, double q);
/// RBJ low shelf with A = 10^(gainDb/40): gain A^2 (gainDb) at DC, 1 at
/// Nyquist, A (half the dB gain) at f; q sets the slope at f (0.7071 is the
/// steepest without overshoot).
VEXAUDIODSP_API void LowShelfCoefficients(double* c, double fs, double f, double gainDb, double q);
/// RBJ high shelf: 1 at DC, gainDb at Nyquist, half the dB gain at f.
VEXAUDIODSP_API void HighShelfCoefficients(double* c, double fs, double f, double gainDb, double q);
/// RBJ band-pass with 0 dB peak gain at f: b = (alpha, 0, -alpha),
/// a as the low-pass; the -3 dB points are f/q apart (in the pre-warped
/// frequency).
VEXAUDIODSP_API void BandpassCoefficients(double* c, double fs, double f, double q);
/// First-order DC blocker, the bilinear transform of s / (s + wc) with
/// K = tan(pi f / fs): b = (1, -1, 0) / (1 + K), a = (1, (K - 1) / (K + 1), 0).
/// Zero at DC, -3 dB at f, 1 at Nyquist. f = 0 gives the identity.
VEXAUDIODSP_API void DCBlockingCoefficients(double* c, double fs, double f);
/// b0 = a0 = 1, all else 0.
VEXAUDIODSP_API void IdentityCoefficients(double* c);

// Analog prototypes, pre-warped: H(s) = (b0 + b1 s + b2 s^2) /
// (a0 + a1 s + a2 s^2), c = b0 b1 b2 a0 a1 a2 in ascending powers of s,
// where s is the bilinear variable (1 - z^-1) / (1 + z^-1): the analog
// frequency W corresponds to the digital frequency fs / pi * atan(W), and
// the corner sits at W0 = tan(pi f / fs). BilinearTransformCoefficients
// maps one of them onto the digital design of the same name. The same
// argument rules apply (the identity is 1 / 1, silence 0 / 1).

/// W0^2 / (W0^2 + (W0 / q) s + s^2).
VEXAUDIODSP_API void AnalogLowpassCoefficients(double* c, double fs, double f, double q);
/// s^2 / (W0^2 + (W0 / q) s + s^2).
VEXAUDIODSP_API void AnalogHighpassCoefficients(double* c, double fs, double f, double q);
/// (W0^2 + (A W0 / q) s + s^2) / (W0^2 + (W0 / (A q)) s + s^2), A = 10^(gainDb/40).
VEXAUDIODSP_API void AnalogPeakingEQCoefficients(double* c, double fs, double f, double gainDb, double q);
/// With S = s / W0: A (A + (sqrt(A) / q) S + S^2) / (1 + (sqrt(A) / q) S + A S^2).
VEXAUDIODSP_API void AnalogLowShelfCoefficients(double* c, double fs, double f, double gainDb, double q);
/// With S = s / W0: A (1 + (sqrt(A) / q) S + A S^2) / (A + (sqrt(A) / q) S + S^2).
VEXAUDIODSP_API void AnalogHighShelfCoefficients(double* c, double fs, double f, double gainDb, double q);
/// Digital coefficients (normalised to a0 = 1) of an analog prototype in the
/// layout above, by s = (1 - z^-1) / (1 + z^-1). An analog set whose
/// transformed a0 is 0 (a pole at s = 1, i.e. at z = infinity) gives the identity.
VEXAUDIODSP_API void BilinearTransformCoefficients(const double* analog, double* c);

/// gain (1 - z1 z^-1)(1 - z2 z^-1) / ((1 - p1 z^-1)(1 - p2 z^-1)): two real
/// zeros and two real poles (|p| < 1 for a stable section).
VEXAUDIODSP_API void GeneralCoefficients(double* c, double zero1, double zero2, double pole1, double pole2,
                                         double gain);
/// A conjugate pair of zeros and of poles: gain (1 - 2 Re(z) z^-1 + |z|^2 z^-2)
/// / (1 - 2 Re(p) z^-1 + |p|^2 z^-2).
VEXAUDIODSP_API void GeneralCoefficients(double* c, std::complex<double> zero, std::complex<double> pole, double gain);

}  // namespace dsp
