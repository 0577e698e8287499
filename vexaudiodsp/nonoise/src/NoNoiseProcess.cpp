#include "vexaudiodsp/nonoise/NoNoiseProcess.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

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

// Bitwise choice between two doubles: branch-free (the choices of noisy
// bins are unpredictable) and exact, unlike an arithmetic blend.
inline double Select(bool pick, double a, double b) {
  std::uint64_t ua, ub;
  std::memcpy(&ua, &a, sizeof ua);
  std::memcpy(&ub, &b, sizeof ub);
  const std::uint64_t mask = std::uint64_t{0} - static_cast<std::uint64_t>(pick);
  const std::uint64_t r = (ua & mask) | (ub & ~mask);
  double out;
  std::memcpy(&out, &r, sizeof out);
  return out;
}

void MagnitudesScalar(int count, const float* re, const float* im, double scale, double* m) {
  for (int k = 0; k < count; ++k) {
    const double x = re[k];
    const double y = im[k];
    m[k] = std::sqrt(x * x + y * y) * scale;
  }
}

// The case analysis of the rule, every case computed and the rule's order of
// tests picking one; a zero magnitude keeps the bin (gain exactly 1). The
// in-band interpolation multiplies by the cached 1 / (hi - lo) (equal to the
// rule's division up to rounding; one division per bin fewer).
inline double BinGain(double m, double lo, double hi, double inverseSpan, double base) {
  const double inBand = m + (m - lo) * inverseSpan * (hi - m);
  double v = Select(hi > m, inBand, hi);
  v = Select(lo > m, m, v);
  return Select(m != 0.0, 1.0 - std::min(base, v / m), 1.0);
}

void ScaleBinsScalar(int count, const double* magnitude, const double* lowLevel, const double* highLevel,
                     const double* inverseSpan, const double* baseReduction, float* re, float* im) {
  for (int k = 0; k < count; ++k) {
    const double gain = BinGain(magnitude[k], lowLevel[k], highLevel[k], inverseSpan[k], baseReduction[k]);
    re[k] = static_cast<float>(re[k] * gain);
    im[k] = static_cast<float>(im[k] * gain);
  }
}

#if defined(__x86_64__) && defined(__GNUC__)
// Four bins at a time in double precision. No fused multiply-add, so the
// results equal the scalar ones bit for bit.
__attribute__((target("avx2"))) void MagnitudesAvx2(int count, const float* re, const float* im, double scale,
                                                    double* m) {
  const __m256d s = _mm256_set1_pd(scale);
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const __m256d x = _mm256_cvtps_pd(_mm_loadu_ps(re + k));
    const __m256d y = _mm256_cvtps_pd(_mm_loadu_ps(im + k));
    const __m256d p = _mm256_add_pd(_mm256_mul_pd(x, x), _mm256_mul_pd(y, y));
    _mm256_storeu_pd(m + k, _mm256_mul_pd(_mm256_sqrt_pd(p), s));
  }
  MagnitudesScalar(count - k, re + k, im + k, scale, m + k);
}

__attribute__((target("avx2"))) void ScaleBinsAvx2(int count, const double* magnitude, const double* lowLevel,
                                                   const double* highLevel, const double* inverseSpan,
                                                   const double* baseReduction, float* re, float* im) {
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d zero = _mm256_setzero_pd();
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const __m256d m = _mm256_loadu_pd(magnitude + k);
    const __m256d lo = _mm256_loadu_pd(lowLevel + k);
    const __m256d hi = _mm256_loadu_pd(highLevel + k);
    const __m256d base = _mm256_loadu_pd(baseReduction + k);
    const __m256d inBand = _mm256_add_pd(
        m, _mm256_mul_pd(_mm256_mul_pd(_mm256_sub_pd(m, lo), _mm256_loadu_pd(inverseSpan + k)), _mm256_sub_pd(hi, m)));
    __m256d v = _mm256_blendv_pd(hi, inBand, _mm256_cmp_pd(hi, m, _CMP_GT_OQ));
    v = _mm256_blendv_pd(v, m, _mm256_cmp_pd(lo, m, _CMP_GT_OQ));
    // std::min(base, v / m) returns base unless v / m < base (NaN included).
    const __m256d ratio = _mm256_div_pd(v, m);
    const __m256d r = _mm256_blendv_pd(base, ratio, _mm256_cmp_pd(ratio, base, _CMP_LT_OQ));
    const __m256d gain = _mm256_blendv_pd(one, _mm256_sub_pd(one, r), _mm256_cmp_pd(m, zero, _CMP_NEQ_UQ));
    const __m256d xr = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(re + k)), gain);
    const __m256d xi = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(im + k)), gain);
    _mm_storeu_ps(re + k, _mm256_cvtpd_ps(xr));
    _mm_storeu_ps(im + k, _mm256_cvtpd_ps(xi));
  }
  ScaleBinsScalar(count - k, magnitude + k, lowLevel + k, highLevel + k, inverseSpan + k, baseReduction + k, re + k,
                  im + k);
}

const bool kHasAvx2 = __builtin_cpu_supports("avx2");
#else
constexpr bool kHasAvx2 = false;
#endif

void Magnitudes(int count, const float* re, const float* im, double scale, double* m) {
#if defined(__x86_64__) && defined(__GNUC__)
  if (kHasAvx2) return MagnitudesAvx2(count, re, im, scale, m);
#endif
  MagnitudesScalar(count, re, im, scale, m);
}

void ScaleBins(int count, const double* magnitude, const double* lowLevel, const double* highLevel,
               const double* inverseSpan, const double* baseReduction, float* re, float* im) {
#if defined(__x86_64__) && defined(__GNUC__)
  if (kHasAvx2) return ScaleBinsAvx2(count, magnitude, lowLevel, highLevel, inverseSpan, baseReduction, re, im);
#endif
  ScaleBinsScalar(count, magnitude, lowLevel, highLevel, inverseSpan, baseReduction, re, im);
}

// One pair of channels (or one channel twice), the two chains in the two
// lanes of an SSE2 register. Rows of s hold the previous frame; bins k - 1
// and k - 2 of this frame are carried in registers, so bins run in order.
// The terms not involving s[k - 1] are gathered first, which leaves one
// multiply and one add on the bin-to-bin chain: the rule's spread and both
// updates with their s[k - 1] parts factored out (equal up to rounding).
void SmoothPair(int count, double smoothing, double complement, double* m0, double* m1, double* s0, double* s1) {
  const __m128d c01 = _mm_set1_pd(0.1);
  const __m128d c02 = _mm_set1_pd(0.2);
  const __m128d c04 = _mm_set1_pd(0.4);
  const __m128d c093 = _mm_set1_pd(0.93);
  const __m128d c007 = _mm_set1_pd(0.07);
  const __m128d rise = _mm_set1_pd(0.93 * 0.2);
  const __m128d fall = _mm_set1_pd(complement * 0.2);
  const __m128d keep = _mm_set1_pd(smoothing);
  const __m128d comp = _mm_set1_pd(complement);
  // Bins -1 and -2 lie outside the band: zero.
  __m128d prev1 = _mm_setzero_pd();
  __m128d prev2 = _mm_setzero_pd();
  for (int k = 0; k < count; ++k) {
    const __m128d old = _mm_set_pd(s1[k], s0[k]);
    const __m128d next1 = _mm_set_pd(s1[k + 1], s0[k + 1]);
    const __m128d next2 = _mm_set_pd(s1[k + 2], s0[k + 2]);
    const __m128d m = _mm_set_pd(m1[k], m0[k]);
    const __m128d rest =
        _mm_add_pd(_mm_add_pd(_mm_mul_pd(c02, next1), _mm_mul_pd(c01, _mm_add_pd(prev2, next2))), _mm_mul_pd(c04, m));
    const __m128d up = _mm_add_pd(_mm_mul_pd(rise, prev1), _mm_add_pd(_mm_mul_pd(c093, rest), _mm_mul_pd(c007, old)));
    const __m128d down = _mm_add_pd(_mm_mul_pd(fall, prev1), _mm_add_pd(_mm_mul_pd(comp, rest), _mm_mul_pd(keep, old)));
    // spread > old, with the comparison moved off the chain: 0.2 s[k-1] >
    // old - rest.
    const __m128d rising = _mm_cmpgt_pd(_mm_mul_pd(c02, prev1), _mm_sub_pd(old, rest));
    const __m128d smoothed = _mm_or_pd(_mm_and_pd(rising, up), _mm_andnot_pd(rising, down));
    _mm_storel_pd(s0 + k, smoothed);
    _mm_storeh_pd(s1 + k, smoothed);
    _mm_storel_pd(m0 + k, smoothed);
    _mm_storeh_pd(m1 + k, smoothed);
    prev2 = prev1;
    prev1 = smoothed;
  }
}

void Smooth(int count, int channels, double smoothing, double complement, double* const* magnitude,
            double* const* rows) {
  for (int c = 0; c < channels; c += 2) {
    const int d = c + 1 < channels ? c + 1 : c;
    SmoothPair(count, smoothing, complement, magnitude[c], magnitude[d], rows[c], rows[d]);
  }
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
  r->magnitude = NewRows(r->channels, Count(r->bins));
  r->inverseSpan = NewRows(r->channels, Count(r->bins));
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
  DeleteRows(r->magnitude, r->channels);
  DeleteRows(r->inverseSpan, r->channels);
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
      // Only read when lo <= m < hi, so hi > lo wherever it matters.
      r->inverseSpan[c][k] = hi > lo ? 1.0 / (hi - lo) : 0.0;
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

// Measure, smooth, scale: the first and last passes run bin-parallel
// (vectorised, with an AVX2 clone where the CPU has it); only the smoothing,
// whose bin k reads bins k - 1 and k - 2 of the same frame, is serial, and
// it steps all channels together so their chains overlap.
void NoNoiseProcess::OnSpectrum(float** re, float** im, int channels, int bins) {
  NOISEREDUCER* r = reducer_;
  if (param_.reductionDb == 0.0 || r == nullptr || !HasArrays(&param_)) return;
  const int count = std::min(bins, r->bins);
  const int used = std::min(channels, std::min(r->channels, static_cast<int>(param_.channelCount)));
  for (int c = 0; c < used; ++c) Magnitudes(count, re[c], im[c], r->magnitudeScale, r->magnitude[c]);
  if (r->smoothing > 0.0) {
    if (r->firstFrame) {
      for (int c = 0; c < used; ++c) std::copy(r->magnitude[c], r->magnitude[c] + count, r->smoothingRows[c]);
    } else {
      Smooth(count, used, r->smoothing, r->smoothingComplement, r->magnitude, r->smoothingRows);
    }
  }
  for (int c = 0; c < used; ++c) {
    ScaleBins(count, r->magnitude[c], r->lowLevel[c], r->highLevel[c], r->inverseSpan[c], r->baseReduction[c], re[c],
              im[c]);
  }
  r->firstFrame = false;
}

}  // namespace nonoise
}  // namespace dsp
