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

inline double Magnitude(float re, float im, double scale) {
  const double x = re;
  const double y = im;
  return std::sqrt(x * x + y * y) * scale;
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

// The cached per-bin terms of one channel.
struct Band {
  const double* low;
  const double* high;
  const double* inverseSpan;
  const double* base;
};

// The smoothing, rearranged. With spread = 0.2 s[k-1] + 0.1 s[k-2] + R and
// R = 0.2 S[k+1] + 0.1 S[k+2] + 0.4 m (previous frame's row and this
// frame's magnitude, known before the bin-to-bin pass), the rise is
// 0.186 s[k-1] + 0.093 s[k-2] + (0.93 R + 0.07 S[k]) and the fall
// 0.2c s[k-1] + 0.1c s[k-2] + (c R + (1 - c) S[k]), c the complement.
// Rise minus fall is (0.93 - c)(spread - S[k]), so the rule's choice is the
// larger of the two when c < 0.93 and the smaller otherwise (at c = 0.93
// they are equal): a max instead of a compare on the chain. Equal to the
// rule up to rounding.
struct SmoothingTerms {
  double riseNear, riseFar, fallNear, fallFar, smoothing, complement;
  bool keepLarger;
};

SmoothingTerms MakeSmoothingTerms(double smoothing, double complement) {
  return {0.93 * 0.2, 0.93 * 0.1, complement * 0.2, complement * 0.1, smoothing, complement, complement < 0.93};
}

// Writes the bin-parallel parts of rise and fall of one channel into lane
// `lane` of the pair arrays (bin k at 2k + lane), reading the previous row.
void SpreadTermsScalar(int count, const float* re, const float* im, double scale, const double* row,
                       const SmoothingTerms& t, int lane, double* rise, double* fall) {
  for (int k = 0; k < count; ++k) {
    const double rest = 0.2 * row[k + 1] + 0.1 * row[k + 2] + 0.4 * Magnitude(re[k], im[k], scale);
    rise[2 * k + lane] = 0.93 * rest + 0.07 * row[k];
    fall[2 * k + lane] = t.complement * rest + t.smoothing * row[k];
  }
}

// The bin-to-bin pass of two chains in the two lanes of an SSE2 register:
// one multiply, one add and a max on the chain per bin.
template <bool kLarger>
void SmoothPairSse2(int count, const SmoothingTerms& t, const double* rise, const double* fall, double* row0,
                    double* row1) {
  const __m128d riseNear = _mm_set1_pd(t.riseNear);
  const __m128d riseFar = _mm_set1_pd(t.riseFar);
  const __m128d fallNear = _mm_set1_pd(t.fallNear);
  const __m128d fallFar = _mm_set1_pd(t.fallFar);
  // Bins -1 and -2 lie outside the band: zero.
  __m128d near = _mm_setzero_pd();
  __m128d far = _mm_setzero_pd();
  for (int k = 0; k < count; ++k) {
    const __m128d up0 = _mm_add_pd(_mm_mul_pd(riseFar, far), _mm_loadu_pd(rise + 2 * k));
    const __m128d down0 = _mm_add_pd(_mm_mul_pd(fallFar, far), _mm_loadu_pd(fall + 2 * k));
    const __m128d up = _mm_add_pd(_mm_mul_pd(riseNear, near), up0);
    const __m128d down = _mm_add_pd(_mm_mul_pd(fallNear, near), down0);
    const __m128d s = kLarger ? _mm_max_pd(up, down) : _mm_min_pd(up, down);
    _mm_storel_pd(row0 + k, s);
    _mm_storeh_pd(row1 + k, s);
    far = near;
    near = s;
  }
}

void ScaleBinsScalar(int count, const double* smoothed, double scale, const Band& band, float* re, float* im) {
  for (int k = 0; k < count; ++k) {
    const double m = smoothed != nullptr ? smoothed[k] : Magnitude(re[k], im[k], scale);
    const double gain = BinGain(m, band.low[k], band.high[k], band.inverseSpan[k], band.base[k]);
    re[k] = static_cast<float>(re[k] * gain);
    im[k] = static_cast<float>(im[k] * gain);
  }
}

void MeasureScalar(int count, const float* re, const float* im, double scale, double* m) {
  for (int k = 0; k < count; ++k) m[k] = Magnitude(re[k], im[k], scale);
}

#if defined(__x86_64__) && defined(__GNUC__)
#define VEX_NONOISE_AVX2 1
// Four bins at a time in double precision, no fused multiply-add: the
// results equal the scalar ones bit for bit.
__attribute__((target("avx2"))) inline __m256d MagnitudesAvx2(const float* re, const float* im, __m256d scale) {
  const __m256d x = _mm256_cvtps_pd(_mm_loadu_ps(re));
  const __m256d y = _mm256_cvtps_pd(_mm_loadu_ps(im));
  return _mm256_mul_pd(_mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(x, x), _mm256_mul_pd(y, y))), scale);
}

__attribute__((target("avx2"))) void MeasureAvx2(int count, const float* re, const float* im, double scale, double* m) {
  const __m256d s = _mm256_set1_pd(scale);
  int k = 0;
  for (; k + 4 <= count; k += 4) _mm256_storeu_pd(m + k, MagnitudesAvx2(re + k, im + k, s));
  MeasureScalar(count - k, re + k, im + k, scale, m + k);
}

// The smoothing of a pair with AVX2 and FMA. Bins go in groups of four:
// the bin-parallel terms of a group (both channels, interleaved into lanes)
// are computed while the bin-to-bin chain runs through the group before,
// which does not depend on them, so the square roots hide under the chain's
// latency. The chain takes one fused multiply-add and a max per bin. The
// terms of a group read the previous frame's row from bin k on, the chain
// has written it only below k.
// The serial part of the smoothing for both channels at once (one lane
// each): bin k from its gathered terms and the two bins below it, which the
// chain itself has just written.
template <bool kLarger>
struct SmoothingChain {
  __attribute__((target("avx2,fma"))) explicit SmoothingChain(const SmoothingTerms& t)
      : riseNear(_mm_set1_pd(t.riseNear)),
        riseFar(_mm_set1_pd(t.riseFar)),
        fallNear(_mm_set1_pd(t.fallNear)),
        fallFar(_mm_set1_pd(t.fallFar)) {}

  __attribute__((target("avx2,fma"), always_inline)) inline void Run(int from, int to, const double* rise,
                                                                     const double* fall, double* row0, double* row1) {
    for (int k = from; k < to; ++k) {
      const __m128d up = _mm_fmadd_pd(riseFar, far, _mm_loadu_pd(rise + 2 * k));
      const __m128d down = _mm_fmadd_pd(fallFar, far, _mm_loadu_pd(fall + 2 * k));
      const __m128d sm = kLarger ? _mm_max_pd(_mm_fmadd_pd(riseNear, near, up), _mm_fmadd_pd(fallNear, near, down))
                                 : _mm_min_pd(_mm_fmadd_pd(riseNear, near, up), _mm_fmadd_pd(fallNear, near, down));
      _mm_storel_pd(row0 + k, sm);
      _mm_storeh_pd(row1 + k, sm);
      far = near;
      near = sm;
    }
  }

  __m128d riseNear, riseFar, fallNear, fallFar;
  // Bins -1 and -2 lie outside the band: zero.
  __m128d near = _mm_setzero_pd();
  __m128d far = _mm_setzero_pd();
};

template <bool kLarger>
__attribute__((target("avx2,fma"))) void SmoothPairAvx2(int count, const float* const* re, const float* const* im,
                                                        double scale, const SmoothingTerms& t, double* const* rows,
                                                        double* rise, double* fall) {
  const __m256d s = _mm256_set1_pd(scale);
  const __m256d c01 = _mm256_set1_pd(0.1);
  const __m256d c02 = _mm256_set1_pd(0.2);
  const __m256d c04 = _mm256_set1_pd(0.4);
  const __m256d c093 = _mm256_set1_pd(0.93);
  const __m256d c007 = _mm256_set1_pd(0.07);
  const __m256d comp = _mm256_set1_pd(t.complement);
  const __m256d keep = _mm256_set1_pd(t.smoothing);
  SmoothingChain<kLarger> chain(t);
  double* row0 = rows[0];
  double* row1 = rows[1];
  int chained = 0;
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    __m256d up[2], down[2];
    for (int lane = 0; lane < 2; ++lane) {
      const double* row = rows[lane];
      const __m256d old = _mm256_loadu_pd(row + k);
      const __m256d rest = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(c02, _mm256_loadu_pd(row + k + 1)),
                                                       _mm256_mul_pd(c01, _mm256_loadu_pd(row + k + 2))),
                                         _mm256_mul_pd(c04, MagnitudesAvx2(re[lane] + k, im[lane] + k, s)));
      up[lane] = _mm256_add_pd(_mm256_mul_pd(c093, rest), _mm256_mul_pd(c007, old));
      down[lane] = _mm256_add_pd(_mm256_mul_pd(comp, rest), _mm256_mul_pd(keep, old));
    }
    const __m256d upLow = _mm256_unpacklo_pd(up[0], up[1]);
    const __m256d upHigh = _mm256_unpackhi_pd(up[0], up[1]);
    const __m256d downLow = _mm256_unpacklo_pd(down[0], down[1]);
    const __m256d downHigh = _mm256_unpackhi_pd(down[0], down[1]);
    _mm256_storeu_pd(rise + 2 * k, _mm256_permute2f128_pd(upLow, upHigh, 0x20));
    _mm256_storeu_pd(rise + 2 * k + 4, _mm256_permute2f128_pd(upLow, upHigh, 0x31));
    _mm256_storeu_pd(fall + 2 * k, _mm256_permute2f128_pd(downLow, downHigh, 0x20));
    _mm256_storeu_pd(fall + 2 * k + 4, _mm256_permute2f128_pd(downLow, downHigh, 0x31));
    // The group before this one.
    chain.Run(chained, k, rise, fall, row0, row1);
    chained = k;
  }
  for (int lane = 0; lane < 2; ++lane) {
    SpreadTermsScalar(count - k, re[lane] + k, im[lane] + k, scale, rows[lane] + k, t, lane, rise + 2 * k,
                      fall + 2 * k);
  }
  chain.Run(chained, count, rise, fall, row0, row1);
}

template <bool kMeasure>
__attribute__((target("avx2"))) void ScaleBinsAvx2(int count, const double* smoothed, double scale, const Band& band,
                                                   float* re, float* im) {
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d zero = _mm256_setzero_pd();
  const __m256d s = _mm256_set1_pd(scale);
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const __m256d m = kMeasure ? MagnitudesAvx2(re + k, im + k, s) : _mm256_loadu_pd(smoothed + k);
    const __m256d lo = _mm256_loadu_pd(band.low + k);
    const __m256d hi = _mm256_loadu_pd(band.high + k);
    const __m256d base = _mm256_loadu_pd(band.base + k);
    const __m256d inBand =
        _mm256_add_pd(m, _mm256_mul_pd(_mm256_mul_pd(_mm256_sub_pd(m, lo), _mm256_loadu_pd(band.inverseSpan + k)),
                                       _mm256_sub_pd(hi, m)));
    __m256d v = _mm256_blendv_pd(hi, inBand, _mm256_cmp_pd(hi, m, _CMP_GT_OQ));
    v = _mm256_blendv_pd(v, m, _mm256_cmp_pd(lo, m, _CMP_GT_OQ));
    // std::min(base, v / m) returns base unless v / m < base (NaN included).
    // Mostly v / m is not below base (bins under the band have v = m), and
    // the division, the slowest step, is skipped for such groups of four.
    __m256d r = base;
    if (_mm256_movemask_pd(_mm256_cmp_pd(v, _mm256_mul_pd(base, m), _CMP_NLT_UQ)) != 0xF) {
      const __m256d ratio = _mm256_div_pd(v, m);
      r = _mm256_blendv_pd(base, ratio, _mm256_cmp_pd(ratio, base, _CMP_LT_OQ));
    }
    const __m256d gain = _mm256_blendv_pd(one, _mm256_sub_pd(one, r), _mm256_cmp_pd(m, zero, _CMP_NEQ_UQ));
    const __m256d xr = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(re + k)), gain);
    const __m256d xi = _mm256_mul_pd(_mm256_cvtps_pd(_mm_loadu_ps(im + k)), gain);
    _mm_storeu_ps(re + k, _mm256_cvtpd_ps(xr));
    _mm_storeu_ps(im + k, _mm256_cvtpd_ps(xi));
  }
  const Band tail{band.low + k, band.high + k, band.inverseSpan + k, band.base + k};
  ScaleBinsScalar(count - k, kMeasure ? nullptr : smoothed + k, scale, tail, re + k, im + k);
}

bool CpuHasVectorKernels() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }
#else
bool CpuHasVectorKernels() { return false; }
#endif

void Measure(bool vector, int count, const float* re, const float* im, double scale, double* m) {
#ifdef VEX_NONOISE_AVX2
  if (vector) return MeasureAvx2(count, re, im, scale, m);
#endif
  (void)vector;
  MeasureScalar(count, re, im, scale, m);
}

// Scales one channel's bins by the rule, against its smoothed magnitudes or,
// when `smoothed` is null, against magnitudes measured on the way.
void ScaleBins(bool vector, int count, const double* smoothed, double scale, const Band& band, float* re, float* im) {
#ifdef VEX_NONOISE_AVX2
  if (vector) {
    if (smoothed == nullptr) return ScaleBinsAvx2<true>(count, nullptr, scale, band, re, im);
    return ScaleBinsAvx2<false>(count, smoothed, scale, band, re, im);
  }
#endif
  (void)vector;
  ScaleBinsScalar(count, smoothed, scale, band, re, im);
}

// One pair of channels (or one channel in both lanes): the bin-parallel
// terms first, then the bin-to-bin pass, whose two chains overlap.
void SmoothPair(bool vector, int count, const float* const* re, const float* const* im, double scale,
                const SmoothingTerms& t, double* const* rows, double* rise, double* fall) {
  const double* previous[2] = {rows[0], rows[1]};
#ifdef VEX_NONOISE_AVX2
  if (vector) {
    if (t.keepLarger) return SmoothPairAvx2<true>(count, re, im, scale, t, rows, rise, fall);
    return SmoothPairAvx2<false>(count, re, im, scale, t, rows, rise, fall);
  }
#endif
  (void)vector;
  for (int lane = 0; lane < 2; ++lane)
    SpreadTermsScalar(count, re[lane], im[lane], scale, previous[lane], t, lane, rise, fall);
  if (t.keepLarger) return SmoothPairSse2<true>(count, t, rise, fall, rows[0], rows[1]);
  SmoothPairSse2<false>(count, t, rise, fall, rows[0], rows[1]);
}

}  // namespace

NoNoiseProcess::NoNoiseProcess() : vectorKernels_(CpuHasVectorKernels()) {
  SetDefaultParameter(&param_);
  SetupFrame();
}

NoNoiseProcess::NoNoiseProcess(const NONOISE* param) : vectorKernels_(CpuHasVectorKernels()) { Init(param); }

void NoNoiseProcess::SetPortableKernels(bool portable) { vectorKernels_ = !portable && CpuHasVectorKernels(); }

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
  r->riseTerms = new double[2 * Count(r->bins)]();
  r->fallTerms = new double[2 * Count(r->bins)]();
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
  delete[] r->riseTerms;
  delete[] r->fallTerms;
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

// Measure, smooth, scale: everything but the smoothing's bin-to-bin pass
// runs bin-parallel (vectorised, with an AVX2 clone where the CPU has it);
// the bin-to-bin pass steps two channels together so their chains overlap.
void NoNoiseProcess::OnSpectrum(float** re, float** im, int channels, int bins) {
  NOISEREDUCER* r = reducer_;
  if (param_.reductionDb == 0.0 || r == nullptr || !HasArrays(&param_)) return;
  const int count = std::min(bins, r->bins);
  const int used = std::min(channels, std::min(r->channels, static_cast<int>(param_.channelCount)));
  const double scale = r->magnitudeScale;
  const bool smoothed = r->smoothing > 0.0;
  if (smoothed && r->firstFrame) {
    for (int c = 0; c < used; ++c) Measure(vectorKernels_, count, re[c], im[c], scale, r->smoothingRows[c]);
  } else if (smoothed) {
    const SmoothingTerms terms = MakeSmoothingTerms(r->smoothing, r->smoothingComplement);
    for (int c = 0; c < used; c += 2) {
      const int d = c + 1 < used ? c + 1 : c;
      const float* pairRe[2] = {re[c], re[d]};
      const float* pairIm[2] = {im[c], im[d]};
      double* rows[2] = {r->smoothingRows[c], r->smoothingRows[d]};
      SmoothPair(vectorKernels_, count, pairRe, pairIm, scale, terms, rows, r->riseTerms, r->fallTerms);
    }
  }
  for (int c = 0; c < used; ++c) {
    const Band band{r->lowLevel[c], r->highLevel[c], r->inverseSpan[c], r->baseReduction[c]};
    ScaleBins(vectorKernels_, count, smoothed ? r->smoothingRows[c] : nullptr, scale, band, re[c], im[c]);
  }
  r->firstFrame = false;
}

}  // namespace nonoise
}  // namespace dsp
