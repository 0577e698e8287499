#pragma once

#include <cmath>
#include <complex>

// Reference responses for filter tests, written from the textbook analog
// forms rather than from the library's coefficient formulas.
namespace vextest {

using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;
constexpr double kFs = 48000.0;

// (b0 + b1 z^-1 + b2 z^-2) / (a0 + a1 z^-1 + a2 z^-2) at z = e^(i 2 pi f / fs),
// with the powers of z written out.
inline Complex Digital(const double* c, double f, double fs = kFs) {
  const Complex z1 = std::exp(Complex(0.0, -2.0 * kPi * f / fs));
  const Complex z2 = z1 * z1;
  return (c[0] + c[1] * z1 + c[2] * z2) / (c[3] + c[4] * z1 + c[5] * z2);
}

// Textbook analog prototypes at s = i W, with the bilinear frequency mapping
// W = tan(pi f / fs) and the corner at W0 = tan(pi f0 / fs).
struct Prototype {
  double f0, q, gainDb;
  double fs = kFs;
  double W0() const { return std::tan(kPi * f0 / fs); }
  double A() const { return std::pow(10.0, gainDb / 40.0); }
  Complex S(double f) const { return Complex(0.0, std::tan(kPi * f / fs)); }
  Complex Denominator(Complex s) const { return s * s + s * W0() / q + W0() * W0(); }
  Complex Lowpass(double f) const { return W0() * W0() / Denominator(S(f)); }
  Complex Highpass(double f) const { return S(f) * S(f) / Denominator(S(f)); }
  Complex Bandpass(double f) const { return S(f) * W0() / q / Denominator(S(f)); }
  Complex Peak(double f) const {
    const Complex s = S(f);
    return (s * s + s * A() * W0() / q + W0() * W0()) / (s * s + s * W0() / (A() * q) + W0() * W0());
  }
  Complex LowShelf(double f) const {
    const Complex s = S(f) / W0();
    const double a = A(), r = std::sqrt(a) / q;
    return a * (s * s + r * s + a) / (a * s * s + r * s + 1.0);
  }
  Complex HighShelf(double f) const {
    const Complex s = S(f) / W0();
    const double a = A(), r = std::sqrt(a) / q;
    return a * (a * s * s + r * s + 1.0) / (s * s + r * s + a);
  }
  Complex DcBlocker(double f) const { return S(f) / (S(f) + W0()); }
};

}  // namespace vextest
