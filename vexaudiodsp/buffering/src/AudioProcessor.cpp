#include "vexaudiodsp/buffering/AudioProcessor.h"

#include <cmath>

#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

namespace {

constexpr float kTwoPiF = 6.2831855f;
constexpr double kPi = 3.14159265358979323846;
// Above this argument the rational BesselI0 drifts from the true function.
constexpr double kRationalI0Limit = 20.0;

// Factor that normalises a window whose values sum to `sum` and whose squares
// sum to `sumSquares` over `size` points; 1 when nothing is to be done.
double NormalisationGain(int normMode, double sum, double sumSquares, int size) {
  double level = 1.0;
  if (normMode == 0)
    level = std::sqrt(sumSquares / size);
  else if (normMode == 1)
    level = sum / size;
  return level > 0.0 ? 1.0 / level : 1.0;
}

template <typename T>
void ApplyKaiser(T* data, int size, double beta, int normMode, double (*i0)(double)) {
  if (size <= 0 || data == nullptr) return;
  const double c = (size - 1) / 2.0;
  const double norm = 1.0 / i0(beta);
  double sum = 0.0;
  double sumSquares = 0.0;
  for (int i = 0; i < (size + 1) / 2; ++i) {
    double w = 1.0;
    if (c > 0.0) {
      const double r = (i - c) / c;
      w = i0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r))) * norm;
    }
    data[i] = static_cast<T>(data[i] * w);
    sum += w;
    sumSquares += w * w;
    if (i < size / 2) {
      data[size - 1 - i] = static_cast<T>(data[size - 1 - i] * w);
      sum += w;
      sumSquares += w * w;
    }
  }
  const double gain = NormalisationGain(normMode, sum, sumSquares, size);
  if (gain != 1.0) vu::MulConstant_InPlace(static_cast<std::size_t>(size), data, static_cast<T>(gain));
}

}  // namespace

AudioProcessor::AudioProcessor() = default;
AudioProcessor::~AudioProcessor() = default;

void AudioProcessor::SetMode(int numChannels, int samplingRate, int maxBlockSize) {
  numChannels_ = numChannels;
  samplingRate_ = samplingRate;
  maxBlockSize_ = maxBlockSize;
}

void AudioProcessor::Process(const float* const*, int numSamples, float* const*) {
  if (numSamples > maxBlockSize_) ChangeBufferSize(numSamples);
}

void AudioProcessor::Reset() {}

void AudioProcessor::ChangeBufferSize(int maxBlockSize) { SetMode(numChannels_, samplingRate_, maxBlockSize); }

void AudioProcessor::HanningWindow(float* w, int size, int normMode, float power) {
  if (size <= 0 || w == nullptr) return;
  // The cosine is taken in double: near the window edges 1 - cos(x) in float
  // keeps only a few significant bits.
  const double step = static_cast<double>(kTwoPiF) / size;
  for (int i = 0; i < (size + 1) / 2; ++i) {
    double v = 0.5 * (1.0 - std::cos(step * (i + 0.5)));
    if (power != 1.0f) v = std::pow(v, static_cast<double>(power));
    w[i] = static_cast<float>(v);
    w[size - 1 - i] = static_cast<float>(v);
  }
  const double gain = NormalisationGain(normMode, vu::Sum(static_cast<std::size_t>(size), w),
                                        vu::Dot(static_cast<std::size_t>(size), w, w), size);
  if (gain != 1.0) vu::MulConstant_InPlace(static_cast<std::size_t>(size), w, static_cast<float>(gain));
}

void AudioProcessor::ApplyKaiserWindow(float* data, int size, double beta, int normMode) {
  ApplyKaiser(data, size, beta, normMode, &AudioProcessor::I0);
}

void AudioProcessor::ApplyKaiserWindow(double* data, int size, double beta, int normMode) {
  ApplyKaiser(data, size, beta, normMode, &AudioProcessor::I0);
}

void AudioProcessor::KBDWindow(float* w, int size, float alpha) {
  if (size <= 0 || w == nullptr) return;
  const int half = size / 2;
  if (half == 0) {
    w[0] = 1.0f;
    return;
  }
  const double beta = kPi * static_cast<double>(alpha);
  double (*i0)(double) = std::fabs(beta) <= kRationalI0Limit ? &AudioProcessor::BesselI0 : &AudioProcessor::I0;

  // Kaiser window v_j of half + 1 points; the normalising I0(beta) cancels in
  // the ratio of cumulative sums and is left out.
  double total = 0.0;
  for (int j = 0; j <= half; ++j) {
    const double r = 2.0 * j / half - 1.0;
    total += i0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r)));
  }
  double running = 0.0;
  for (int n = 0; n < half; ++n) {
    const double r = 2.0 * n / half - 1.0;
    running += i0(beta * std::sqrt(std::fmax(0.0, 1.0 - r * r)));
    const float v = static_cast<float>(std::sqrt(running / total));
    w[n] = v;
    w[size - 1 - n] = v;
  }
  if ((size & 1) != 0) w[half] = 1.0f;
}

float AudioProcessor::Amp2DB(float a) {
  if (static_cast<double>(a) < 1e-20) return -400.0f;
  return static_cast<float>(std::log(static_cast<double>(a)) * 8.68588924407959);
}

float AudioProcessor::DB2Amp(float dB) { return static_cast<float>(std::exp(dB * 0.115129254758358)); }

float AudioProcessor::TimeToIirA(float time, float rate) {
  if (time == 0.0f) return 1.0f;
  return static_cast<float>(1.0 - std::exp(-1.0 / (static_cast<double>(time) * rate)));
}

int AudioProcessor::FindMax(const float* data, int first, int last) {
  int best = first;
  for (int i = first + 1; i <= last; ++i) {
    if (data[i] > data[best]) best = i;
  }
  return best;
}

float AudioProcessor::SoftDecision(float x, float lo, float hi) {
  if (x <= lo) return 0.0f;
  if (x >= hi) return 1.0f;
  return (x - lo) / (hi - lo);
}

double AudioProcessor::I0(double x) {
  double sum = 1.0;
  double term = 1.0;
  const double halfX = x / 2.0;
  for (int k = 1; k < 50; ++k) {
    term *= halfX / k;
    const double square = term * term;
    sum += square;
    if (square < sum * 1e-10) break;
  }
  return sum;
}

double AudioProcessor::BesselI0(double x) {
  if (x == 0.0) return 1.0;
  static constexpr double kNumerator[15] = {
      2.10580722890567e-23, 3.80715242345326e-20, 4.794402575483e-17,  4.35125971262668e-14, 3.0093112711296e-11,
      1.60224679395361e-08, 6.54858370096785e-06, 0.00202591084143397, 0.463076284721,       75.4337328948189,
      8307.92541809429,     571661.130563785,     21641557.2361227,    356644482.244025,     1440482982.27235};
  const double y = x * x;
  // Horner from c14 down to c0, then one more step onto the constant term.
  double num = kNumerator[0];
  for (int k = 1; k < 14; ++k) num = num * y + kNumerator[k];
  num = num * y + kNumerator[14];
  const double den = y * ((y - 3076.46912682801) * y + 3476263.32405882) - 1440482982.27235;
  return -num / den;
}

}  // namespace dsp
