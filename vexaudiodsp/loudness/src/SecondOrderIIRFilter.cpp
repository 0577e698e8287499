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

}  // namespace dsp
