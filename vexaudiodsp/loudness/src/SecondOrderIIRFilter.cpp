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

void SecondOrderIIRFilter::ProcessCascadePair(SecondOrderIIRFilter* const first[2],
                                              SecondOrderIIRFilter* const second[2], const float* const in[2],
                                              float* const out[2], std::size_t n) {
  const SecondOrderIIRFilter &f0 = *first[0], &f1 = *first[1], &g0 = *second[0], &g1 = *second[1];
  double u0a = f0.w1_, u0b = f0.w2_, u1a = f1.w1_, u1b = f1.w2_;
  double v0a = g0.w1_, v0b = g0.w2_, v1a = g1.w1_, v1b = g1.w2_;
  const float* __restrict x0 = in[0];
  const float* __restrict x1 = in[1];
  float* __restrict y0 = out[0];
  float* __restrict y1 = out[1];
  for (std::size_t i = 0; i < n; ++i) {
    const double u0 = static_cast<double>(x0[i]) - f0.a1_ * u0a - f0.a2_ * u0b;
    const double u1 = static_cast<double>(x1[i]) - f1.a1_ * u1a - f1.a2_ * u1b;
    const float m0 = static_cast<float>(f0.b0_ * u0 + f0.b1_ * u0a + f0.b2_ * u0b);
    const float m1 = static_cast<float>(f1.b0_ * u1 + f1.b1_ * u1a + f1.b2_ * u1b);
    u0b = u0a;
    u0a = u0;
    u1b = u1a;
    u1a = u1;
    const double v0 = static_cast<double>(m0) - g0.a1_ * v0a - g0.a2_ * v0b;
    const double v1 = static_cast<double>(m1) - g1.a1_ * v1a - g1.a2_ * v1b;
    y0[i] = static_cast<float>(g0.b0_ * v0 + g0.b1_ * v0a + g0.b2_ * v0b);
    y1[i] = static_cast<float>(g1.b0_ * v1 + g1.b1_ * v1a + g1.b2_ * v1b);
    v0b = v0a;
    v0a = v0;
    v1b = v1a;
    v1a = v1;
  }
  first[0]->w1_ = u0a;
  first[0]->w2_ = u0b;
  first[1]->w1_ = u1a;
  first[1]->w2_ = u1b;
  second[0]->w1_ = v0a;
  second[0]->w2_ = v0b;
  second[1]->w1_ = v1a;
  second[1]->w2_ = v1b;
}

}  // namespace dsp
