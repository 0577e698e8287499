#include "vexaudiodsp/filters/FilterSection.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "vexaccelerate/Denormals.h"

namespace dsp {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSqrt2 = 1.41421356237;

// Below this |denominator| the magnitude formula divides by nearly zero
// (a pole on the unit circle); the ratio of the derivatives is the limit.
constexpr float kResponseFloor = 1e-20f;

// Beyond this |g^2 - gb^2| the second-order shelf's mid-slope ratio is
// well defined; at 0 dB both are 1 and e = 1 makes the section neutral.
constexpr double kShelf2Epsilon = 1.65436e-24;

struct DirectForm {
  double b0 = 1.0, b1 = 0.0, b2 = 0.0, a1 = 0.0, a2 = 0.0;
};

double BandwidthGainDb(double gainDb) {
  if (gainDb > 6.0) return gainDb - 3.0;
  if (gainDb > -6.0) return gainDb / 2.0;
  return gainDb + 3.0;
}

double DbToAmplitude(double dB) { return std::pow(10.0, dB / 20.0); }

// sqrt((gb^2 - 1) / (g^2 - gb^2)): the factor that puts the gain gb at the
// band edge of the bilinear peak and first-order shelves.
double EdgeFactor(double g, double gb) { return std::sqrt((gb * gb - 1.0) / (g * g - gb * gb)); }

DirectForm DesignPeak(double fs, double f, double gainDb, double q, bool clamp) {
  double w = f / fs;
  double bw = (f / q) / fs;
  if (clamp) {
    w = std::clamp(w, 0.00001, 0.99999);
    bw = std::clamp(bw, 0.00001, 0.49999);
  }
  if (gainDb == 0.0) return {};
  const double g = DbToAmplitude(gainDb), gb = DbToAmplitude(BandwidthGainDb(gainDb));
  const double beta = EdgeFactor(g, gb) * std::tan(2.0 * kPi * bw * 0.5);
  const double n = 1.0 + beta;
  DirectForm d;
  d.b0 = (1.0 + g * beta) / n;
  d.b1 = d.a1 = -2.0 * std::cos(2.0 * kPi * w) / n;
  d.b2 = (1.0 - g * beta) / n;
  d.a2 = (1.0 - beta) / n;
  return d;
}

DirectForm DesignShelf1(double fs, double f, double gainDb, bool high) {
  if (gainDb == 0.0) return {};
  const double g = DbToAmplitude(gainDb), gb = DbToAmplitude(BandwidthGainDb(gainDb));
  const double t = std::tan(kPi * f / fs);
  const double alpha = high ? EdgeFactor(g, gb) / t : EdgeFactor(g, gb) * t;
  const double n = 1.0 + alpha;
  DirectForm d;
  d.b0 = (1.0 + g * alpha) / n;
  d.b1 = (high ? 1.0 : -1.0) * (1.0 - g * alpha) / n;
  d.a1 = (high ? 1.0 : -1.0) * (1.0 - alpha) / n;
  return d;
}

DirectForm DesignShelf2(double fs, double f, double gainDb, bool high) {
  const double x = f / fs;
  const double t = high ? std::tan(((0.5 - x) - 0.25) * kPi) : std::tan((x - 0.25) * kPi);
  const double tt = t * t;
  const double g = DbToAmplitude(gainDb);
  double gb;
  if (gainDb >= 6.0 || gainDb <= -6.0) {
    gb = g <= 1.0 ? g * kSqrt2 : g / kSqrt2;
  } else {
    gb = std::sqrt(g);
  }
  const double d = g * g - gb * gb;
  const double e = std::fabs(d) > kShelf2Epsilon ? std::pow((gb * gb - 1.0) / d, 0.25) : 1.0;
  const double s = std::sqrt(g) * e;
  const double nP = s * s + 1.0 + kSqrt2 * s, nM = s * s + 1.0 - kSqrt2 * s, nm = -2.0 * (1.0 - s * s);
  const double dP = e * e + 1.0 + kSqrt2 * e, dM = e * e + 1.0 - kSqrt2 * e, dm = -2.0 * (1.0 - e * e);
  const double k = 1.0 / (dP + tt * dM + t * dm);
  DirectForm r;
  r.b0 = (tt * nM + nP + t * nm) * k;
  r.b2 = (tt * nP + nM + t * nm) * k;
  r.a2 = (tt * dP + dM + t * dm) * k;
  const double sign = high ? -1.0 : 1.0;
  r.b1 = sign * (nm * (tt + 1.0) + 2.0 * t * (nM + nP)) * k;
  r.a1 = sign * (dm * (tt + 1.0) + 2.0 * t * (dP + dM)) * k;
  return r;
}

}  // namespace

FilterSection::~FilterSection() = default;

void FilterSection::enable() { enabled_ = true; }
void FilterSection::disable() { enabled_ = false; }
void FilterSection::setEnable(bool enabled) { enabled_ = enabled; }
bool FilterSection::isEnabled() const { return enabled_; }

void FilterSection::Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
  SetupCoefficients(sampleRate, frequency, gainDb, q, p5, p6);
  ClearState();
  enabled_ = gainDb != 0.0f;
}

void FilterSection::setSmoothingTime(float seconds) {
  smoothingTime_ = seconds;
  // A negative length would glide away from the target for ever; NaN and
  // huge products would overflow the conversion.
  const float samples = sampleRate_ * seconds;
  if (!(samples > 0.0f)) {
    rampLength_ = 0;
  } else if (samples >= 2147483520.0f) {
    rampLength_ = 2147483520;
  } else {
    rampLength_ = static_cast<std::int32_t>(samples);
  }
}

float FilterSection::getSmoothingTime() const { return smoothingTime_; }

void FilterSection::setStateVariable(bool stateVariable) {
  if (stateVariable == stateVariable_) return;
  ClearState();
  stateVariable_ = stateVariable;
  if (stateVariable) SetupRamp();
}

bool FilterSection::isStateVariable() const { return stateVariable_; }

void FilterSection::StoreSettings(float sampleRate, float frequency, float gainDb, float p5, float p6) {
  sampleRate_ = sampleRate;
  frequency_ = frequency;
  gainDb_ = gainDb;
  spare5_ = p5;
  spare6_ = p6;
}

template <typename T>
typename FilterSectionOf<T>::Record FilterSectionOf<T>::Neutral() {
  Record r{};
  r[kB0] = T(1);
  r[kD] = T(1);
  return r;
}

template <typename T>
FilterSectionOf<T>::FilterSectionOf() : current_(Neutral()), step_(Neutral()), target_(Neutral()) {
  doublePrecision_ = std::is_same<T, double>::value;
  step_.fill(T(0));
}

template <typename T>
FilterSectionOf<T>::~FilterSectionOf() = default;

template <typename T>
void FilterSectionOf<T>::ClearState() {
  state_.clear();
}

template <typename T>
void FilterSectionOf<T>::enable() {
  if (!enabled_) {
    current_ = Neutral();
    SetupRamp();
  }
  enabled_ = true;
}

template <typename T>
void FilterSectionOf<T>::SmoothCoefficients() {
  if (rampCounter_ == 0) return;
  if (rampCounter_ == 1) {
    current_ = target_;
    rampCounter_ = 0;
    return;
  }
  for (int i = 0; i < kNumSectionCoefficients; ++i) current_[i] += step_[i];
  --rampCounter_;
}

template <typename T>
T FilterSectionOf<T>::Recurse(T x) {
  const Record& c = current_;
  FilterState<T>& s = state_;
  if (firstOrder_) {
    const T y = c[kB0] * x + c[kB1] * s.x1 - c[kA1] * s.y1;
    s.x1 = x;
    s.y1 = y;
    return y;
  }
  if (stateVariable_) {
    const T y = c[kV1] * s.x1 + c[kV2] * s.x2 + c[kD] * x;
    const T s1 = c[kS11] * s.x1 + c[kS12] * s.x2 + c[kU1] * x;
    const T s2 = c[kS21] * s.x1 + c[kS22] * s.x2 + c[kU2] * x;
    s.x1 = s1;
    s.x2 = s2;
    return std::is_same<T, double>::value ? static_cast<T>(static_cast<float>(y)) : y;
  }
  T y;
  if (std::is_same<T, double>::value) {
    const float feedForward = static_cast<float>(c[kB0] * x + c[kB1] * s.x1 + c[kB2] * s.x2);
    y = static_cast<T>(static_cast<float>(static_cast<T>(feedForward) - (c[kA1] * s.y1 + c[kA2] * s.y2)));
  } else {
    y = c[kB0] * x + c[kB1] * s.x1 + c[kB2] * s.x2 - (c[kA1] * s.y1 + c[kA2] * s.y2);
  }
  s.x2 = s.x1;
  s.x1 = x;
  s.y2 = s.y1;
  s.y1 = y;
  return y;
}

template <typename T>
float FilterSectionOf<T>::processOneSample(float x) {
  if (!enabled_) return x;
  const T y = Recurse(static_cast<T>(x));
  SmoothCoefficients();
  return static_cast<float>(y);
}

template <typename T>
double FilterSectionOf<T>::dprocessOneSample(double x) {
  if (!enabled_) return x;
  const T y = Recurse(static_cast<T>(x));
  SmoothCoefficients();
  return static_cast<double>(y);
}

template <typename T>
void FilterSectionOf<T>::processInplace(float* data, int count) {
  ProcessBlock(data, count);
}

template <typename T>
void FilterSectionOf<T>::dprocessInplace(double* data, int count) {
  ProcessBlock(data, count);
}

template <typename T>
template <typename S>
void FilterSectionOf<T>::ProcessBlock(S* data, int count) {
  if (!enabled_ || data == nullptr || count <= 0) return;
  vexaccelerate::utility::ScopedFlushDenormals flush;
  int i = 0;
  // While gliding the coefficients move after every sample, so the glide
  // goes sample by sample and the rest of the block runs with fixed ones.
  for (; i < count && rampCounter_ != 0; ++i) {
    data[i] = static_cast<S>(Recurse(static_cast<T>(data[i])));
    SmoothCoefficients();
  }
  if (i < count) RunStatic(data + i, count - i);
}

// Coefficients and history held in locals for the loop; the arithmetic is
// Recurse's, term for term, so block and per-sample runs agree bit for bit.
template <typename T>
template <typename S>
void FilterSectionOf<T>::RunStatic(S* data, int count) {
  const Record c = current_;
  T x1 = state_.x1, x2 = state_.x2, y1 = state_.y1, y2 = state_.y2;
  if (firstOrder_) {
    const T b0 = c[kB0], b1 = c[kB1], a1 = c[kA1];
    int i = 0;
    for (; i + 1 < count; i += 2) {
      const T xa = static_cast<T>(data[i]);
      const T ya = b0 * xa + b1 * x1 - a1 * y1;
      const T xb = static_cast<T>(data[i + 1]);
      const T yb = b0 * xb + b1 * xa - a1 * ya;
      data[i] = static_cast<S>(ya);
      data[i + 1] = static_cast<S>(yb);
      x1 = xb;
      y1 = yb;
    }
    if (i < count) {
      const T x = static_cast<T>(data[i]);
      const T y = b0 * x + b1 * x1 - a1 * y1;
      data[i] = static_cast<S>(y);
      x1 = x;
      y1 = y;
    }
  } else if (stateVariable_) {
    const T s11 = c[kS11], s12 = c[kS12], s21 = c[kS21], s22 = c[kS22];
    const T u1 = c[kU1], u2 = c[kU2], v1 = c[kV1], v2 = c[kV2], dd = c[kD];
    for (int i = 0; i < count; ++i) {
      const T x = static_cast<T>(data[i]);
      T y = v1 * x1 + v2 * x2 + dd * x;
      const T s1 = s11 * x1 + s12 * x2 + u1 * x;
      const T s2 = s21 * x1 + s22 * x2 + u2 * x;
      x1 = s1;
      x2 = s2;
      if (std::is_same<T, double>::value) y = static_cast<T>(static_cast<float>(y));
      data[i] = static_cast<S>(y);
    }
  } else {
    const T b0 = c[kB0], b1 = c[kB1], b2 = c[kB2], a1 = c[kA1], a2 = c[kA2];
    for (int i = 0; i < count; ++i) {
      const T x = static_cast<T>(data[i]);
      T y;
      if (std::is_same<T, double>::value) {
        const float feedForward = static_cast<float>(b0 * x + b1 * x1 + b2 * x2);
        y = static_cast<T>(static_cast<float>(static_cast<T>(feedForward) - (a1 * y1 + a2 * y2)));
      } else {
        y = b0 * x + b1 * x1 + b2 * x2 - (a1 * y1 + a2 * y2);
      }
      x2 = x1;
      x1 = x;
      y2 = y1;
      y1 = y;
      data[i] = static_cast<S>(y);
    }
  }
  state_.x1 = x1;
  state_.x2 = x2;
  state_.y1 = y1;
  state_.y2 = y2;
}

template <typename T>
float FilterSectionOf<T>::computeResponse(float frequency, float scale) {
  if (!enabled_) return scale;
  const double b0 = target_[kB0], b1 = target_[kB1], b2 = target_[kB2], a1 = target_[kA1], a2 = target_[kA2];
  const double w = 2.0 * kPi * frequency / sampleRate_;
  const double num = b0 * b0 + b1 * b1 + b2 * b2 + 2.0 * b1 * (b0 + b2) * std::cos(w) + 2.0 * b0 * b2 * std::cos(2 * w);
  const double den = 1.0 + a1 * a1 + a2 * a2 + 2.0 * a1 * (1.0 + a2) * std::cos(w) + 2.0 * a2 * std::cos(2.0 * w);
  if (std::fabs(den) >= kResponseFloor) return static_cast<float>(scale * std::sqrt(std::fabs(num / den)));
  const double dNum = -2.0 * b1 * (b0 + b2) * std::sin(w) - 4.0 * b0 * b2 * std::sin(2.0 * w);
  const double dDen = -2.0 * a1 * (1.0 + a2) * std::sin(w) - 4.0 * a2 * std::sin(2.0 * w);
  return static_cast<float>(scale * std::sqrt(std::fabs(dNum / dDen)));
}

template <typename T>
void FilterSectionOf<T>::ConvertCoefficientsToStateVariableForm() {
  const double b0 = target_[kB0], b1 = target_[kB1], b2 = target_[kB2], a1 = target_[kA1], a2 = target_[kA2];
  const double h = (a1 / 2.0) * (a1 / 2.0);
  const double p = (1.0 - a2) * ((1.0 + a2) * (1.0 + a2) - a1 * a1);
  const double u = b1 - a1 * b0;
  const double v = b2 - a2 * b0;
  double s12, s21, u1, u2, v1, v2;
  bool realForm = a1 * a1 - 4.0 * a2 >= 0.0;
  if (!realForm) {
    const double r = v / u;
    const double q = std::sqrt((r - a1) * r + a2);
    const double m = r - q, pp = r + q;
    const double e1 = -p / (2.0 * a1 * m - (m * m + 1.0) * (1.0 + a2));
    const double e2 = -p / (2.0 * a1 * pp - (pp * pp + 1.0) * (1.0 + a2));
    if (e1 >= 0.0 && e2 >= 0.0) {
      const double p2 = std::sqrt(e2), uu = std::sqrt(e1);
      const double k = std::sqrt((p2 * p2 - 1.0 + a2) * (h - a2) / (uu * uu - 1.0 + a2));
      const double l = (h - a2) / k;
      if (u >= 0.0) {
        s12 = l;
        s21 = k;
        u1 = uu;
        u2 = p2;
        v1 = u / (2.0 * uu);
        v2 = u / (2.0 * p2);
      } else {
        s12 = -k;
        s21 = -l;
        u1 = -p2;
        u2 = uu;
        v1 = -u / (2.0 * p2);
        v2 = u / (2.0 * uu);
      }
    } else {
      realForm = true;
    }
  }
  if (realForm) {
    const double r1 = std::sqrt(std::max(0.0, (a2 - 3.0) * h / (1.0 + a2) + 1.0));
    const double r2 = std::sqrt(std::max(0.0, p / ((1.0 + a2) * (1.0 + h) - a1 * a1)));
    s12 = r1;
    s21 = (h - a2) / r1;
    u1 = 0.0;
    u2 = r2;
    v1 = ((-a1 / 2.0) * u + v) / (r1 * r2);
    v2 = u / r2;
  }
  target_[kS11] = target_[kS22] = static_cast<T>(-a1 / 2.0);
  target_[kS12] = static_cast<T>(s12);
  target_[kS21] = static_cast<T>(s21);
  target_[kU1] = static_cast<T>(u1);
  target_[kU2] = static_cast<T>(u2);
  target_[kV1] = static_cast<T>(v1);
  target_[kV2] = static_cast<T>(v2);
  target_[kD] = static_cast<T>(b0);
}

template <typename T>
void FilterSectionOf<T>::CopyCoefficients(const FilterSection& other) {
  const auto* source = dynamic_cast<const FilterSectionOf<T>*>(&other);
  if (source == nullptr || source == this) return;
  current_ = source->current_;
  step_ = source->step_;
  target_ = source->target_;
  rampCounter_ = source->rampCounter_;
  rampLength_ = source->rampLength_;
  enabled_ = source->enabled_;
  ClearState();
}

template <typename T>
void FilterSectionOf<T>::SetupRamp() {
  if (stateVariable_) ConvertCoefficientsToStateVariableForm();
  const T length = static_cast<T>(static_cast<float>(rampLength_));
  for (int i = 0; i < kNumSectionCoefficients; ++i) step_[i] = (target_[i] - current_[i]) / length;
  const int first = stateVariable_ ? kS11 : kB0;
  const int last = stateVariable_ ? kD : kA2;
  bool moving = false;
  for (int i = first; i <= last; ++i) moving = moving || step_[i] != T(0);
  rampCounter_ = moving ? rampLength_ : 0;
}

template <typename T>
void FilterSectionOf<T>::TerminateRamp() {
  current_ = target_;
  rampCounter_ = 0;
}

template <typename T>
void FilterSectionOf<T>::ClearCoefficients() {
  rampCounter_ = 0;
  current_ = Neutral();
  target_ = Neutral();
}

template <typename T>
void FilterSectionOf<T>::SetTarget(double b0, double b1, double b2, double a1, double a2) {
  target_[kB0] = static_cast<T>(b0);
  target_[kB1] = static_cast<T>(b1);
  target_[kB2] = static_cast<T>(b2);
  target_[kA1] = static_cast<T>(a1);
  target_[kA2] = static_cast<T>(a2);
  SetupRamp();
}

template <typename T, SectionDesign kDesign>
DesignedSection<T, kDesign>::DesignedSection() {
  this->firstOrder_ = kDesign == SectionDesign::kHighShelf || kDesign == SectionDesign::kLowShelf;
}

template <typename T, SectionDesign kDesign>
void DesignedSection<T, kDesign>::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5,
                                                    float p6) {
  this->StoreSettings(sampleRate, frequency, gainDb, p5, p6);
  const double fs = sampleRate, f = frequency, g = gainDb, qd = q;
  DirectForm d;
  switch (kDesign) {
    case SectionDesign::kPara:
      d = DesignPeak(fs, f, g, qd, true);
      break;
    case SectionDesign::kNotch:
      d = DesignPeak(fs, f, g, qd, false);
      break;
    case SectionDesign::kHighShelf:
      d = DesignShelf1(fs, f, g, true);
      break;
    case SectionDesign::kLowShelf:
      d = DesignShelf1(fs, f, g, false);
      break;
    case SectionDesign::kHighShelf2:
      d = DesignShelf2(fs, f, g, true);
      break;
    case SectionDesign::kLowShelf2:
      d = DesignShelf2(fs, f, g, false);
      break;
  }
  if (kDesign == SectionDesign::kNotch || kDesign == SectionDesign::kHighShelf2 ||
      kDesign == SectionDesign::kLowShelf2) {
    this->bandwidthHz_ = static_cast<float>(f / qd);
  }
  // NaN settings, a shelf at 0 Hz or a notch with Q <= 0 design no filter;
  // their NaN coefficients would poison the history for good, so the
  // section keeps gliding to (or holding) the last real design.
  const bool finite =
      std::isfinite(d.b0) && std::isfinite(d.b1) && std::isfinite(d.b2) && std::isfinite(d.a1) && std::isfinite(d.a2);
  if (finite) {
    this->SetTarget(d.b0, d.b1, d.b2, d.a1, d.a2);
  } else {
    this->SetupRamp();
  }
}

template class FilterSectionOf<float>;
template class FilterSectionOf<double>;
template class DesignedSection<float, SectionDesign::kPara>;
template class DesignedSection<double, SectionDesign::kPara>;
template class DesignedSection<float, SectionDesign::kNotch>;
template class DesignedSection<double, SectionDesign::kNotch>;
template class DesignedSection<float, SectionDesign::kHighShelf>;
template class DesignedSection<double, SectionDesign::kHighShelf>;
template class DesignedSection<float, SectionDesign::kLowShelf>;
template class DesignedSection<double, SectionDesign::kLowShelf>;
template class DesignedSection<float, SectionDesign::kHighShelf2>;
template class DesignedSection<double, SectionDesign::kHighShelf2>;
template class DesignedSection<float, SectionDesign::kLowShelf2>;
template class DesignedSection<double, SectionDesign::kLowShelf2>;

}  // namespace dsp
