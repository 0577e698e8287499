#include "vexaudiodsp/loudness/SecondOrderIIRFilter.h"

namespace dsp {

void SecondOrderIIRFilter::SetCoefficients(const SecondOrderIIRCoefficients& c) {
  a1_ = c.a1;
  a2_ = c.a2;
  b0_ = c.b0;
  b1_ = c.b1;
  b2_ = c.b2;
}

void SecondOrderIIRFilter::Reset() {
  w1_ = 0.0;
  w2_ = 0.0;
}

void SecondOrderIIRFilter::Process(const float* in, float* out, std::size_t n) {
  const double a1 = a1_, a2 = a2_, b0 = b0_, b1 = b1_, b2 = b2_;
  double w1 = w1_, w2 = w2_;
  for (std::size_t i = 0; i < n; ++i) {
    const double w = static_cast<double>(in[i]) - a1 * w1 - a2 * w2;
    out[i] = static_cast<float>(b0 * w + b1 * w1 + b2 * w2);
    w2 = w1;
    w1 = w;
  }
  w1_ = w1;
  w2_ = w2;
}

void SecondOrderIIRFilter::ProcessCascade(SecondOrderIIRFilter& first, SecondOrderIIRFilter& second, const float* in,
                                          float* out, std::size_t n) {
  const double fa1 = first.a1_, fa2 = first.a2_, fb0 = first.b0_, fb1 = first.b1_, fb2 = first.b2_;
  const double sa1 = second.a1_, sa2 = second.a2_, sb0 = second.b0_, sb1 = second.b1_, sb2 = second.b2_;
  double f1 = first.w1_, f2 = first.w2_, s1 = second.w1_, s2 = second.w2_;
  for (std::size_t i = 0; i < n; ++i) {
    const double u = static_cast<double>(in[i]) - fa1 * f1 - fa2 * f2;
    // The first stage's output is rounded to float, as between two passes.
    const float mid = static_cast<float>(fb0 * u + fb1 * f1 + fb2 * f2);
    f2 = f1;
    f1 = u;
    const double v = static_cast<double>(mid) - sa1 * s1 - sa2 * s2;
    out[i] = static_cast<float>(sb0 * v + sb1 * s1 + sb2 * s2);
    s2 = s1;
    s1 = v;
  }
  first.w1_ = f1;
  first.w2_ = f2;
  second.w1_ = s1;
  second.w2_ = s2;
}

}  // namespace dsp
