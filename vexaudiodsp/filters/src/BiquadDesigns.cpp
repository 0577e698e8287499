#include "vexaudiodsp/filters/BiquadDesigns.h"

#include <cmath>

namespace dsp {
namespace {

constexpr double kPi = 3.14159265358979323846;

void Write(double* c, double b0, double b1, double b2, double a0, double a1, double a2) {
  c[0] = b0;
  c[1] = b1;
  c[2] = b2;
  c[3] = a0;
  c[4] = a1;
  c[5] = a2;
}

// A constant gain: the identity for 1, silence for 0. Used digitally and
// analog alike, where it is the same six numbers.
void WriteConstant(double* c, double gain) { Write(c, gain, 0.0, 0.0, 1.0, 0.0, 0.0); }

bool Finite(double x) { return std::isfinite(x); }

// What a design does with its arguments before any formula runs.
enum class Range { kDesign, kBeyondNyquist, kMeaningless };

// After the sample rate, `f <= fs / 2` is tested first and written so that a
// NaN f fails it: the high-pass's silence for a NaN frequency wins over the
// checks of the other arguments.
Range Classify(double fs, double f, double q, double gainDb = 0.0) {
  if (!Finite(fs) || !(fs > 0.0)) return Range::kMeaningless;
  if (!(f <= fs / 2)) return Range::kBeyondNyquist;
  if (!(f >= 0.0) || !Finite(q) || !(q > 0.0) || !Finite(gainDb)) return Range::kMeaningless;
  return Range::kDesign;
}

double DbToAmplitude(double gainDb) { return std::pow(10.0, gainDb / 20.0); }

// Normalised prototype frequency of the bilinear transform.
double PreWarp(double fs, double f) { return std::tan(kPi * f / fs); }

}  // namespace

void PeakingEQCoefficients(double* c, double fs, double f, double gainDb, double q) {
  if (Classify(fs, f, q, gainDb) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w0 = 2.0 * kPi * f / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double a = std::pow(10.0, gainDb / 40.0);
  const double n = 1.0 + alpha / a;
  const double b1 = -2.0 * std::cos(w0) / n;
  Write(c, (1.0 + alpha * a) / n, b1, (1.0 - alpha * a) / n, 1.0, b1, (1.0 - alpha / a) / n);
}

void LowpassCoefficients(double* c, double fs, double f, double q) {
  if (Classify(fs, f, q) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w0 = 2.0 * kPi * f / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double cw = std::cos(w0);
  const double n = 1.0 + alpha;
  const double b0 = (1.0 - cw) / 2.0 / n;
  Write(c, b0, (1.0 - cw) / n, b0, 1.0, -2.0 * cw / n, (1.0 - alpha) / n);
}

void HighpassCoefficients(double* c, double fs, double f, double q) {
  const Range range = Classify(fs, f, q);
  if (range != Range::kDesign) return WriteConstant(c, range == Range::kBeyondNyquist ? 0.0 : 1.0);
  const double w0 = 2.0 * kPi * f / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double cw = std::cos(w0);
  const double n = 1.0 + alpha;
  const double b0 = (1.0 + cw) / 2.0 / n;
  Write(c, b0, -(1.0 + cw) / n, b0, 1.0, -2.0 * cw / n, (1.0 - alpha) / n);
}

void LowShelfCoefficients(double* c, double fs, double f, double gainDb, double q) {
  const Range range = Classify(fs, f, q, gainDb);
  if (range != Range::kDesign) {
    return WriteConstant(c, range == Range::kBeyondNyquist && Finite(gainDb) ? DbToAmplitude(gainDb) : 1.0);
  }
  const double w0 = 2.0 * kPi * f / fs;
  const double a = std::pow(10.0, gainDb / 40.0);
  const double cw = std::cos(w0);
  const double twoRootAAlpha = 2.0 * std::sqrt(a) * std::sin(w0) / (2.0 * q);
  const double n = (a + 1.0) + (a - 1.0) * cw + twoRootAAlpha;
  Write(c, a * ((a + 1.0) - (a - 1.0) * cw + twoRootAAlpha) / n, 2.0 * a * ((a - 1.0) - (a + 1.0) * cw) / n,
        a * ((a + 1.0) - (a - 1.0) * cw - twoRootAAlpha) / n, 1.0, -2.0 * ((a - 1.0) + (a + 1.0) * cw) / n,
        ((a + 1.0) + (a - 1.0) * cw - twoRootAAlpha) / n);
}

void HighShelfCoefficients(double* c, double fs, double f, double gainDb, double q) {
  if (Classify(fs, f, q, gainDb) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w0 = 2.0 * kPi * f / fs;
  const double a = std::pow(10.0, gainDb / 40.0);
  const double cw = std::cos(w0);
  const double twoRootAAlpha = 2.0 * std::sqrt(a) * std::sin(w0) / (2.0 * q);
  const double n = (a + 1.0) - (a - 1.0) * cw + twoRootAAlpha;
  Write(c, a * ((a + 1.0) + (a - 1.0) * cw + twoRootAAlpha) / n, -2.0 * a * ((a - 1.0) + (a + 1.0) * cw) / n,
        a * ((a + 1.0) + (a - 1.0) * cw - twoRootAAlpha) / n, 1.0, 2.0 * ((a - 1.0) - (a + 1.0) * cw) / n,
        ((a + 1.0) - (a - 1.0) * cw - twoRootAAlpha) / n);
}

void BandpassCoefficients(double* c, double fs, double f, double q) {
  const Range range = Classify(fs, f, q);
  if (range != Range::kDesign) return WriteConstant(c, range == Range::kBeyondNyquist ? 0.0 : 1.0);
  const double w0 = 2.0 * kPi * f / fs;
  const double alpha = std::sin(w0) / (2.0 * q);
  const double n = 1.0 + alpha;
  Write(c, alpha / n, 0.0, -alpha / n, 1.0, -2.0 * std::cos(w0) / n, (1.0 - alpha) / n);
}

void DCBlockingCoefficients(double* c, double fs, double f) {
  const Range range = Classify(fs, f, 1.0);
  if (range == Range::kMeaningless || f == 0.0) return WriteConstant(c, 1.0);
  // At Nyquist tan() overflows towards a pole on the unit circle.
  if (range == Range::kBeyondNyquist || f == fs / 2) return WriteConstant(c, 0.0);
  const double k = PreWarp(fs, f);
  const double g = 1.0 / (1.0 + k);
  Write(c, g, -g, 0.0, 1.0, (k - 1.0) / (k + 1.0), 0.0);
}

void IdentityCoefficients(double* c) { WriteConstant(c, 1.0); }

void AnalogLowpassCoefficients(double* c, double fs, double f, double q) {
  if (Classify(fs, f, q) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w = PreWarp(fs, f);
  Write(c, w * w, 0.0, 0.0, w * w, w / q, 1.0);
}

void AnalogHighpassCoefficients(double* c, double fs, double f, double q) {
  const Range range = Classify(fs, f, q);
  if (range != Range::kDesign) return WriteConstant(c, range == Range::kBeyondNyquist ? 0.0 : 1.0);
  const double w = PreWarp(fs, f);
  Write(c, 0.0, 0.0, 1.0, w * w, w / q, 1.0);
}

void AnalogPeakingEQCoefficients(double* c, double fs, double f, double gainDb, double q) {
  if (Classify(fs, f, q, gainDb) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w = PreWarp(fs, f);
  const double a = std::pow(10.0, gainDb / 40.0);
  Write(c, w * w, a * w / q, 1.0, w * w, w / (a * q), 1.0);
}

void AnalogLowShelfCoefficients(double* c, double fs, double f, double gainDb, double q) {
  const Range range = Classify(fs, f, q, gainDb);
  if (range != Range::kDesign) {
    return WriteConstant(c, range == Range::kBeyondNyquist && Finite(gainDb) ? DbToAmplitude(gainDb) : 1.0);
  }
  const double w = PreWarp(fs, f);
  const double a = std::pow(10.0, gainDb / 40.0);
  const double slope = std::sqrt(a) / q;
  Write(c, a * a, a * slope / w, a / (w * w), 1.0, slope / w, a / (w * w));
}

void AnalogHighShelfCoefficients(double* c, double fs, double f, double gainDb, double q) {
  if (Classify(fs, f, q, gainDb) != Range::kDesign) return WriteConstant(c, 1.0);
  const double w = PreWarp(fs, f);
  const double a = std::pow(10.0, gainDb / 40.0);
  const double slope = std::sqrt(a) / q;
  Write(c, a, a * slope / w, a * a / (w * w), a, slope / w, 1.0 / (w * w));
}

void BilinearTransformCoefficients(const double* analog, double* c) {
  // Multiplying through by (1 + z^-1)^2: s^k becomes
  // (1 - z^-1)^k (1 + z^-1)^(2 - k).
  const auto map = [](const double* p, double* out) {
    out[0] = p[0] + p[1] + p[2];
    out[1] = 2.0 * (p[0] - p[2]);
    out[2] = p[0] - p[1] + p[2];
  };
  double b[3], a[3];
  map(analog, b);
  map(analog + 3, a);
  if (a[0] == 0.0 || !Finite(a[0])) return WriteConstant(c, 1.0);
  Write(c, b[0] / a[0], b[1] / a[0], b[2] / a[0], 1.0, a[1] / a[0], a[2] / a[0]);
}

void GeneralCoefficients(double* c, double zero1, double zero2, double pole1, double pole2, double gain) {
  Write(c, gain, -gain * (zero1 + zero2), gain * zero1 * zero2, 1.0, -(pole1 + pole2), pole1 * pole2);
}

void GeneralCoefficients(double* c, std::complex<double> zero, std::complex<double> pole, double gain) {
  Write(c, gain, -2.0 * gain * zero.real(), gain * std::norm(zero), 1.0, -2.0 * pole.real(), std::norm(pole));
}

}  // namespace dsp
