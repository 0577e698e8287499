#include "vexaudiodsp/filters/IIRFilter.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Filter.h"
#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

namespace vf = vexaccelerate::filter;
namespace vu = vexaccelerate::utility;

constexpr double kTwoPi = 6.28318530717958647692;

unsigned SectionLength(unsigned order) { return 2 * order + 2; }

bool IsSupportedShape(unsigned order, unsigned cascades) { return order != 0 && (cascades < 2 || order == 2); }

void WriteIdentity(double* c, unsigned order, unsigned cascades) {
  const unsigned stride = SectionLength(order);
  std::fill(c, c + stride * cascades, 0.0);
  for (unsigned j = 0; j < cascades; ++j) {
    c[j * stride] = 1.0;
    c[j * stride + order + 1] = 1.0;
  }
}

// Sum of p_k e^(-i w k) and of k p_k e^(-i w k) by Horner's rule in
// e^(-i w); the second feeds the group delay.
struct PolyValue {
  std::complex<double> value;
  std::complex<double> weighted;
};

PolyValue EvaluatePolynomial(const double* p, unsigned order, double w) {
  const std::complex<double> zInv = std::polar(1.0, -w);
  std::complex<double> value = 0.0, weighted = 0.0;
  for (unsigned k = order + 1; k-- > 0;) {
    value = value * zInv + p[k];
    weighted = weighted * zInv + static_cast<double>(k) * p[k];
  }
  return {value, weighted};
}

// Group delay of one polynomial: Re(sum k p_k z^-k / sum p_k z^-k). A zero
// exactly on the unit circle has no defined delay and contributes nothing.
double PolynomialDelay(const PolyValue& v) {
  const double norm = std::norm(v.value);
  return norm == 0.0 ? 0.0 : (v.weighted * std::conj(v.value)).real() / norm;
}

}  // namespace

IIRFilter::IIRFilter(unsigned int order, const double* coefficients, unsigned int numCascades)
    : order_(order),
      cascades_(numCascades),
      coefficients_(static_cast<std::size_t>(SectionLength(order)) * numCascades),
      inScratch_(kMaxChunk),
      outScratch_(kMaxChunk) {
  if (!IsSupportedShape(order_, cascades_) || cascades_ == 0) return;
  if (coefficients != nullptr) {
    std::copy(coefficients, coefficients + coefficients_.size(), coefficients_.begin());
  } else {
    WriteIdentity(coefficients_.data(), order_, cascades_);
  }
  CreateState();
}

void IIRFilter::CreateState() {
  const int status = cascades_ == 1
                         ? vf::IIRInit(&state_, coefficients_.data(), static_cast<int>(order_), nullptr)
                         : vf::IIRInit_BiQuad(&state_, coefficients_.data(), static_cast<int>(cascades_), nullptr);
  if (status != 0) {
    state_ = nullptr;
    return;
  }
  runningTaps_ = coefficients_;
}

IIRFilter::IIRFilter(const IIRFilter& other)
    : order_(other.order_),
      cascades_(other.cascades_),
      coefficients_(other.coefficients_),
      inScratch_(other.inScratch_.size()),
      outScratch_(other.outScratch_.size()) {
  if (other.state_ == nullptr) return;
  // Built from the taps the other filter runs, which differ from its stored
  // array after a refused a0 = 0 set.
  const int status = cascades_ == 1
                         ? vf::IIRInit(&state_, other.runningTaps_.data(), static_cast<int>(order_), nullptr)
                         : vf::IIRInit_BiQuad(&state_, other.runningTaps_.data(), static_cast<int>(cascades_), nullptr);
  if (status != 0) {
    state_ = nullptr;
    return;
  }
  runningTaps_ = other.runningTaps_;
  std::vector<double> delay(static_cast<std::size_t>(vf::IIRGetDlyLineLength(other.state_)));
  vf::IIRGetDlyLine(other.state_, delay.data());
  vf::IIRSetDlyLine(state_, delay.data());
}

IIRFilter& IIRFilter::operator=(const IIRFilter& other) {
  if (this == &other) return *this;
  IIRFilter copy(other);
  std::swap(state_, copy.state_);
  order_ = copy.order_;
  cascades_ = copy.cascades_;
  coefficients_.swap(copy.coefficients_);
  runningTaps_.swap(copy.runningTaps_);
  inScratch_.swap(copy.inScratch_);
  outScratch_.swap(copy.outScratch_);
  return *this;
}

IIRFilter::~IIRFilter() { vf::IIRFree(state_); }

void IIRFilter::Allocate(unsigned int maxFrames) {
  const std::size_t wanted = std::min(maxFrames, kMaxChunk);
  if (inScratch_.size() < wanted) inScratch_.resize(wanted);
  if (outScratch_.size() < wanted) outScratch_.resize(wanted);
}

void IIRFilter::SetCoefficients(const double* coefficients, bool keepState) {
  if (state_ == nullptr) return;
  if (coefficients != nullptr) {
    std::copy(coefficients, coefficients + coefficients_.size(), coefficients_.begin());
  } else {
    WriteIdentity(coefficients_.data(), order_, cascades_);
  }
  const unsigned stride = SectionLength(order_);
  for (unsigned j = 0; j < cascades_; ++j) {
    double* section = coefficients_.data() + j * stride;
    const double a0 = section[order_ + 1];
    if (a0 == 0.0) continue;
    for (unsigned k = 0; k < stride; ++k) section[k] /= a0;
  }
  if (vf::IIRSetTaps(state_, coefficients_.data()) == 0) runningTaps_ = coefficients_;
  if (!keepState) vf::IIRSetDlyLine(state_, nullptr);
}

void IIRFilter::Reset() {
  if (state_ != nullptr) vf::IIRSetDlyLine(state_, nullptr);
}

float IIRFilter::ProcessSingle(float x) { return static_cast<float>(vf::IIR(static_cast<double>(x), state_)); }

double IIRFilter::ProcessSingle(double x) { return vf::IIR(x, state_); }

void IIRFilter::Process(unsigned int frames, const float* in, float* out) { Run(frames, in, out); }

void IIRFilter::ProcessInPlace(unsigned int frames, float* data) { Run(frames, data, data); }

void IIRFilter::Run(unsigned int frames, const float* in, float* out) {
  if (state_ == nullptr || frames == 0) return;
  const std::size_t needed = std::min(frames, kMaxChunk);
  if (inScratch_.size() < needed || outScratch_.size() < needed) return;
  // Also covers the conversion back to float: a double tail below the float
  // range comes out as 0, not as a subnormal float.
  vu::ScopedFlushDenormals flush;
  double* inScratch = inScratch_.data();
  double* outScratch = outScratch_.data();
  for (unsigned done = 0; done < frames;) {
    const std::size_t count = std::min(frames - done, kMaxChunk);
    vu::Convert(count, in + done, inScratch);
    vf::IIR(count, inScratch, outScratch, state_);
    vu::Convert(count, outScratch, out + done);
    done += static_cast<unsigned>(count);
  }
}

void IIRFilter::GetCoefficients(std::vector<double>& out) const {
  out.assign(coefficients_.begin(), coefficients_.end());
}

void IIRFilter::GetCoefficients(double* out) const { std::copy(coefficients_.begin(), coefficients_.end(), out); }

double IIRFilter::GetMagnitudeResponse(float frequency) const {
  return state_ == nullptr ? 1.0 : GetMagnitudeResponse(frequency, coefficients_.data(), order_, cascades_);
}

double IIRFilter::GetPhaseResponse(float frequency) const {
  return state_ == nullptr ? 0.0 : GetPhaseResponse(frequency, coefficients_.data(), order_, cascades_);
}

double IIRFilter::GetGroupDelay(float frequency) const {
  return state_ == nullptr ? 0.0 : GetGroupDelay(frequency, coefficients_.data(), order_, cascades_);
}

std::complex<double> IIRFilter::GetFrequencyResponse(double frequency, const double* coefficients, unsigned order,
                                                     unsigned cascades) {
  const double w = kTwoPi * frequency;
  std::complex<double> h = 1.0;
  for (unsigned j = 0; j < cascades; ++j) {
    const double* section = coefficients + j * SectionLength(order);
    h *= EvaluatePolynomial(section, order, w).value / EvaluatePolynomial(section + order + 1, order, w).value;
  }
  return h;
}

double IIRFilter::GetMagnitudeResponse(float frequency, const double* coefficients, unsigned order, unsigned cascades) {
  return std::abs(GetFrequencyResponse(frequency, coefficients, order, cascades));
}

double IIRFilter::GetPhaseResponse(float frequency, const double* coefficients, unsigned order, unsigned cascades) {
  return std::arg(GetFrequencyResponse(frequency, coefficients, order, cascades));
}

double IIRFilter::GetGroupDelay(float frequency, const double* coefficients, unsigned order, unsigned cascades) {
  const double w = kTwoPi * frequency;
  double delay = 0.0;
  for (unsigned j = 0; j < cascades; ++j) {
    const double* section = coefficients + j * SectionLength(order);
    delay += PolynomialDelay(EvaluatePolynomial(section, order, w)) -
             PolynomialDelay(EvaluatePolynomial(section + order + 1, order, w));
  }
  return delay;
}

}  // namespace dsp
