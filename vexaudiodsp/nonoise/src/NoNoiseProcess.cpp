#include "vexaudiodsp/nonoise/NoNoiseProcess.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace dsp {
namespace nonoise {

namespace {

constexpr int kMinFFTSize = 16;
constexpr int kMaxFFTSize = 16384;
constexpr int kMinOverlap = 3;
constexpr int kWindowKind = 5;
// Where a silent print makes log10(A / B) infinite, the threshold gain
// stops here instead of turning the interpolation into inf / inf.
constexpr double kMaxThresholdGain = 1e30;

std::size_t Count(std::int64_t n) { return n > 0 ? static_cast<std::size_t>(n) : 0; }

double** NewRows(int channels, std::size_t size) {
  double** rows = new double*[Count(channels)];
  for (int c = 0; c < channels; ++c) rows[c] = new double[size]();
  return rows;
}

void DeleteRows(double** rows, int channels) {
  if (rows == nullptr) return;
  for (int c = 0; c < channels; ++c) delete[] rows[c];
  delete[] rows;
}

}  // namespace

NoNoiseProcess::NoNoiseProcess() {
  SetDefaultParameter(&param_);
  SetupFrame();
}

NoNoiseProcess::NoNoiseProcess(const NONOISE* param) { Init(param); }

NoNoiseProcess::~NoNoiseProcess() {
  DestroyNoiseReducer(reducer_);
  reducer_ = nullptr;
  FreeArrays(&param_);
}

void NoNoiseProcess::Init(const NONOISE* param) {
  DestroyNoiseReducer(reducer_);
  reducer_ = nullptr;
  FreeArrays(&param_);
  if (param != nullptr) {
    CopyNoNoise(param, &param_, true);
  } else {
    SetDefaultParameter(&param_);
  }
  SetupFrame();
}

void NoNoiseProcess::InitAsSingleChannel(const NONOISE* param, int channel) {
  if (param == nullptr) return;
  DestroyNoiseReducer(reducer_);
  reducer_ = nullptr;
  FreeArrays(&param_);
  if (HasArrays(param)) {
    CopyMultiChannelNoNoiseToSingleChannelNoNoise(param, &param_, channel, true);
  } else {
    CopyMultiChannelNoNoiseToSingleChannelNoNoise(param, &param_, channel, false);
  }
  SetupFrame();
}

void NoNoiseProcess::SetParamFromMultiChannelParam(NONOISE* param, int channel) {
  if (param == nullptr) return;
  const bool sameFrame =
      IsConfigured() && param->fftSize == param_.fftSize && param->overlap == param_.overlap && GetNumChannels() == 1;
  if (!sameFrame) {
    const bool hadReducer = reducer_ != nullptr;
    InitAsSingleChannel(param, channel);
    if (hadReducer) reducer_ = CreateNoiseReducer();
    UpdateParameter();
    return;
  }
  CopyMultiChannelNoNoiseToSingleChannelNoNoise(param, &param_, channel, HasArrays(param));
  UpdateParameter();
}

void NoNoiseProcess::SetupFrame() {
  const int n = param_.fftSize;
  const int overlap = param_.overlap;
  const bool valid = n >= kMinFFTSize && n <= kMaxFFTSize && (n & (n - 1)) == 0 && overlap >= kMinOverlap &&
                     overlap <= n && param_.channelCount > 0;
  if (!valid) {
    // Leaves the frame unconfigured: audio passes through.
    Setup(0, 0, 0, 0, kWindowKind);
    UpdateParameter();
    return;
  }
  const int hop = n / overlap;
  const int latency = ((overlap - 1) * n / overlap) / 2;
  Setup(n, param_.channelCount, latency, hop, kWindowKind);
  SetScalers(1.0f, 1.0f);
  UpdateParameter();
}

NOISEREDUCER* NoNoiseProcess::CreateNoiseReducer() {
  if (!IsConfigured()) return nullptr;
  auto* r = new NOISEREDUCER();
  const int n = GetFFTSize();
  r->size = n;
  r->position = new double[Count(n)]();
  r->magnitudeScale = 1.0 / (n * 0.25);
  r->channels = GetNumChannels();
  r->bins = n / 2 + 1;
  r->smoothingStore = NewRows(r->channels, Count(n) + 8);
  r->smoothingRows = new double*[Count(r->channels)];
  for (int c = 0; c < r->channels; ++c) r->smoothingRows[c] = r->smoothingStore[c] + 4;
  r->lowLevel = NewRows(r->channels, Count(r->bins));
  r->highLevel = NewRows(r->channels, Count(r->bins));
  r->baseReduction = NewRows(r->channels, Count(r->bins));
  r->firstFrame = true;
  return r;
}

void NoNoiseProcess::DestroyNoiseReducer(NOISEREDUCER* r) {
  if (r == nullptr) return;
  delete[] r->position;
  DeleteRows(r->smoothingStore, r->channels);
  delete[] r->smoothingRows;
  DeleteRows(r->lowLevel, r->channels);
  DeleteRows(r->highLevel, r->channels);
  DeleteRows(r->baseReduction, r->channels);
  delete r;
}

void NoNoiseProcess::ParameterChanged() { UpdateParameter(); }

void NoNoiseProcess::UpdateParameter() {
  double reduction = param_.reductionDb == 0.0 ? 100.0 : param_.reductionDb;
  reduction = std::max(reduction, 1.0);
  maxReduction_ = 1.0 - std::pow(10.0, -reduction / 20.0);

  NOISEREDUCER* r = reducer_;
  if (r == nullptr) return;
  const int n = static_cast<int>(r->size);
  const int half = n / 2;
  const float* binCurve = param_.binCurve;
  r->position[0] = param_.levelPosition;
  r->position[half] = param_.levelPosition;
  for (int k = 1; k < half; ++k) {
    const double t = (binCurve != nullptr ? binCurve[k] : 0.0f) + param_.levelPosition;
    r->position[k] = t;
    r->position[n - k] = t;
  }
  r->thresholdGain = std::pow(10.0, param_.thresholdDb / 20.0);
  r->smoothing = param_.smoothingPercent / 100.0;
  r->smoothingComplement = 1.0 - r->smoothing;

  // The threshold band and base reduction of every bin depend only on the
  // print and these settings: computed here once, not per frame.
  if (!HasArrays(&param_) || param_.fftSize != n) return;
  const int channels = std::min(r->channels, static_cast<int>(param_.channelCount));
  for (int c = 0; c < channels; ++c) {
    const double* avg = param_.averageCurve[c];
    const double* maxC = param_.maxCurve[c];
    const double* minC = param_.minCurve[c];
    for (int k = 0; k < r->bins; ++k) {
      const double a = avg[k];
      const double b = maxC[k];
      const double cMin = minC[k];
      const double t = r->position[k];
      const double level =
          std::max(0.0, cMin + (2.0 * b + 2.0 * cMin - 4.0 * a) * t + (4.0 * a - b - 3.0 * cMin) * t * std::fabs(t));
      double g = r->thresholdGain;
      if (param_.exponent != 0.0 && b != 0.0) {
        g = r->thresholdGain * std::pow(10.0, param_.exponent * std::log10(a / b));
        if (!(g <= kMaxThresholdGain)) g = kMaxThresholdGain;
      }
      const double lo = std::min(level, level * g);
      const double hi = std::max(level, level * g);
      double base = maxReduction_;
      if (cMin != 0.0) base += 5.0 / (b / cMin) * (1.0 - base);
      r->lowLevel[c][k] = lo;
      r->highLevel[c][k] = hi;
      r->baseReduction[c][k] = base;
    }
  }
}

void NoNoiseProcess::Start() {
  if (reducer_ == nullptr) reducer_ = CreateNoiseReducer();
  UpdateParameter();
  OverlapSave::Start();
}

void NoNoiseProcess::SetIOConfig(int /*numChannels*/, float /*sampleRate*/) {}

void NoNoiseProcess::Reset() {
  OverlapSave::Reset();
  NOISEREDUCER* r = reducer_;
  if (r == nullptr) return;
  for (int c = 0; c < r->channels; ++c) std::fill(r->smoothingStore[c], r->smoothingStore[c] + r->size + 8, 0.0);
  r->firstFrame = true;
}

void NoNoiseProcess::Suspend() {
  DestroyNoiseReducer(reducer_);
  reducer_ = nullptr;
  OverlapSave::Suspend();
}

void NoNoiseProcess::Resume() {
  OverlapSave::Resume();
  DestroyNoiseReducer(reducer_);
  reducer_ = CreateNoiseReducer();
  UpdateParameter();
}

void NoNoiseProcess::OnAudio(float** data, int numChannels, int numSamples, bool /*flushing*/) {
  RunFrames(data, numChannels, numSamples, param_.reductionDb != 0.0 && param_.mode == 2);
}

void NoNoiseProcess::OnSpectrum(float** re, float** im, int channels, int bins) {
  NOISEREDUCER* r = reducer_;
  if (param_.reductionDb == 0.0 || r == nullptr || !HasArrays(&param_)) return;
  const int count = std::min(bins, r->bins);
  const int used = std::min(channels, std::min(r->channels, static_cast<int>(param_.channelCount)));
  const double scale = r->magnitudeScale;
  const double smoothing = r->smoothing;
  const double complement = r->smoothingComplement;
  const bool first = r->firstFrame;
  for (int c = 0; c < used; ++c) {
    float* xr = re[c];
    float* xi = im[c];
    double* s = r->smoothingRows[c];
    const double* lowLevel = r->lowLevel[c];
    const double* highLevel = r->highLevel[c];
    const double* baseReduction = r->baseReduction[c];
    for (int k = 0; k < count; ++k) {
      const double xre = xr[k];
      const double xim = xi[k];
      double m = std::sqrt(xre * xre + xim * xim) * scale;
      if (smoothing > 0.0) {
        if (!first) {
          const double spread = 0.2 * (s[k - 1] + s[k + 1]) + 0.1 * (s[k - 2] + s[k + 2]) + 0.4 * m;
          m = spread > s[k] ? 0.07 * s[k] + 0.93 * spread : complement * spread + smoothing * s[k];
        }
        s[k] = m;
      }
      const double lo = lowLevel[k];
      const double hi = highLevel[k];
      double v = hi;
      if (lo > m) {
        v = m;
      } else if (hi > m) {
        v = m + (m - lo) / (hi - lo) * (hi - m);
      }
      if (m != 0.0) {
        const double gain = 1.0 - std::min(baseReduction[k], v / m);
        xr[k] = static_cast<float>(xre * gain);
        xi[k] = static_cast<float>(xim * gain);
      }
    }
  }
  r->firstFrame = false;
}

}  // namespace nonoise
}  // namespace dsp
