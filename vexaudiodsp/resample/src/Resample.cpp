#include "vexaudiodsp/resample/Resample.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <numeric>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"
#include "vexcore/RecursiveMutex.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define VEX_RESAMPLE_X86 1
#endif

namespace dsp {

namespace vu = vexaccelerate::utility;

// One coefficient table: the key it was built for and phaseCount + 1 rows of
// paddedOrder taps. The extra row (phase offset 1.0) lets interpolation
// between the last phase and the next input sample read a real neighbour
// instead of wrapping. Each row starts with paddedOrder - filterOrder zeros,
// so a window ending at the newest input sample never reads ahead of it.
struct ResampleTable {
  int sourceRate = 0;
  int destRate = 0;
  int phaseCount = 0;
  int paddedOrder = 0;
  int filterOrder = 0;
  double nyquistShift = 0.0;
  double noiseFloor = 0.0;
  double* coefficients = nullptr;

  ResampleTable() = default;
  ResampleTable(const ResampleTable&) = delete;
  ResampleTable& operator=(const ResampleTable&) = delete;
  ~ResampleTable() { vu::Free(coefficients); }

  bool Matches(const ResampleTable& key) const {
    return sourceRate == key.sourceRate && destRate == key.destRate && phaseCount == key.phaseCount &&
           paddedOrder == key.paddedOrder && filterOrder == key.filterOrder &&
           std::fabs(nyquistShift - key.nyquistShift) < 1e-5 && std::fabs(noiseFloor - key.noiseFloor) < 1e-5;
  }
};

namespace {

using TablePtr = std::shared_ptr<const ResampleTable>;

struct TableCache {
  vexcore::threads::RecursiveMutex mutex;
  std::deque<TablePtr> slots = std::deque<TablePtr>(Resample::kCacheSize);
};

TableCache& Cache() {
  static TableCache cache;
  return cache;
}

TablePtr FindInCache(const ResampleTable& key) {
  TableCache& cache = Cache();
  vexcore::threads::RecursiveMutexLock lock(cache.mutex, "dsp::Resample FindInCache(...)");
  for (const TablePtr& entry : cache.slots) {
    if (entry && entry->Matches(key)) return entry;
  }
  return nullptr;
}

void AddToCache(TablePtr entry) {
  TableCache& cache = Cache();
  vexcore::threads::RecursiveMutexLock lock(cache.mutex, "dsp::Resampled AddToCache(...)");
  cache.slots.pop_back();
  cache.slots.push_front(std::move(entry));
}

// The modified Bessel function of order 0 by exactly twenty terms of its
// power series: the table's window is defined by this truncation, so it is
// not replaced by a converged evaluation.
double BesselI0Series(double z) {
  const double half = 0.5 * z;
  double term = 1.0;
  double sum = 1.0;
  for (int k = 1; k <= 19; ++k) {
    term *= half / k;
    sum += term * term;
  }
  return sum;
}

// Dot products of one float window and one double phase row, `n` a
// multiple of 8. Double taps and sums keep the converter's own rounding
// below -160 dB, so its spurs are those of the filter design; float taps
// (tried first) left periodic coefficient rounding at -150 dBc, short of
// the better peers. Samples are widened on load, which costs less than the
// extra tap bandwidth.
double DotPortable(const float* a, const double* b, int n) {
  double acc[8] = {};
  for (int i = 0; i < n; i += 8) {
    for (int j = 0; j < 8; ++j) acc[j] += static_cast<double>(a[i + j]) * b[i + j];
  }
  return ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7]));
}

#ifdef VEX_RESAMPLE_X86
__attribute__((target("avx2,fma"))) double DotAvx2(const float* a, const double* b, int n) {
  // Four independent sums hide the FMA latency.
  __m256d s0 = _mm256_setzero_pd();
  __m256d s1 = _mm256_setzero_pd();
  __m256d s2 = _mm256_setzero_pd();
  __m256d s3 = _mm256_setzero_pd();
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    s0 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i)), _mm256_loadu_pd(b + i), s0);
    s1 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 4)), _mm256_loadu_pd(b + i + 4), s1);
    s2 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 8)), _mm256_loadu_pd(b + i + 8), s2);
    s3 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 12)), _mm256_loadu_pd(b + i + 12), s3);
  }
  if (i < n) {
    s0 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i)), _mm256_loadu_pd(b + i), s0);
    s1 = _mm256_fmadd_pd(_mm256_cvtps_pd(_mm_loadu_ps(a + i + 4)), _mm256_loadu_pd(b + i + 4), s1);
  }
  const __m256d s = _mm256_add_pd(_mm256_add_pd(s0, s1), _mm256_add_pd(s2, s3));
  __m128d q = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
  q = _mm_add_sd(q, _mm_unpackhi_pd(q, q));
  return _mm_cvtsd_f64(q);
}

// Twice the width of the AVX2 kernel.
// GCC 12's reduction helpers start from _mm256_undefined_pd, which its
// -Wuninitialized flags inside the intrinsics header.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
__attribute__((target("avx512f,avx2,fma"))) double DotAvx512(const float* a, const double* b, int n) {
  __m512d s0 = _mm512_setzero_pd();
  __m512d s1 = _mm512_setzero_pd();
  __m512d s2 = _mm512_setzero_pd();
  __m512d s3 = _mm512_setzero_pd();
  int i = 0;
  for (; i + 32 <= n; i += 32) {
    s0 = _mm512_fmadd_pd(_mm512_cvtps_pd(_mm256_loadu_ps(a + i)), _mm512_loadu_pd(b + i), s0);
    s1 = _mm512_fmadd_pd(_mm512_cvtps_pd(_mm256_loadu_ps(a + i + 8)), _mm512_loadu_pd(b + i + 8), s1);
    s2 = _mm512_fmadd_pd(_mm512_cvtps_pd(_mm256_loadu_ps(a + i + 16)), _mm512_loadu_pd(b + i + 16), s2);
    s3 = _mm512_fmadd_pd(_mm512_cvtps_pd(_mm256_loadu_ps(a + i + 24)), _mm512_loadu_pd(b + i + 24), s3);
  }
  for (; i < n; i += 8) s0 = _mm512_fmadd_pd(_mm512_cvtps_pd(_mm256_loadu_ps(a + i)), _mm512_loadu_pd(b + i), s0);
  return _mm512_reduce_add_pd(_mm512_add_pd(_mm512_add_pd(s0, s1), _mm512_add_pd(s2, s3)));
}
#pragma GCC diagnostic pop
#endif

using DotKernel = double (*)(const float*, const double*, int);

DotKernel ChooseDot() {
#ifdef VEX_RESAMPLE_X86
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("fma")) return DotAvx512;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return DotAvx2;
#endif
  return DotPortable;
}

// Chosen once at load; both kernels round differently, so one process
// always uses the same one.
const DotKernel kDot = ChooseDot();

}  // namespace

Resample::Resample() { ChoosePhaseLayout(); }

Resample::~Resample() { FreeWork(); }

Resample::Resample(const Resample& other) { *this = other; }

Resample& Resample::operator=(const Resample& other) {
  if (this == &other) return *this;
  FreeWork();
  initialized_ = other.initialized_;
  filterOrder_ = other.filterOrder_;
  sourceRate_ = other.sourceRate_;
  destRate_ = other.destRate_;
  phaseCount_ = other.phaseCount_;
  phaseStep_ = other.phaseStep_;
  latency_ = other.latency_;
  paddedOrder_ = other.paddedOrder_;
  phaseFraction_ = other.phaseFraction_;
  phasePosition_ = other.phasePosition_;
  layoutPhases_ = other.layoutPhases_;
  exactPhases_ = other.exactPhases_;
  nextInput_ = other.nextInput_;
  noiseFloor_ = other.noiseFloor_;
  nyquistShift_ = other.nyquistShift_;
  table_ = other.table_;
  if (other.work_ != nullptr) {
    AllocateWork();
    if (work_ != nullptr) vu::Copy(static_cast<std::size_t>(workSize_), other.work_, work_);
  }
  return *this;
}

bool Resample::SetSampleRates(float sourceRate, float destRate) {
  if (initialized_) return false;
  if (!(sourceRate > 0.0f) || !(destRate > 0.0f) || !std::isfinite(sourceRate) || !std::isfinite(destRate)) {
    return false;
  }
  sourceRate_ = sourceRate;
  destRate_ = destRate;
  ChoosePhaseLayout();
  PreComputeStuff();
  return true;
}

void Resample::SetFilterOrder(int order) {
  if (initialized_) return;
  filterOrder_ = std::max(3, (order - 1) | 1);
  paddedOrder_ = (filterOrder_ + 7) / 8 * 8;
  PreComputeStuff();
}

void Resample::SetNyquistShift(double shift) {
  if (initialized_ || !std::isfinite(shift)) return;
  nyquistShift_ = shift;
}

int Resample::GetOutputBufferSize(int inputFrames) const {
  return static_cast<int>(static_cast<float>(inputFrames) * destRate_ / sourceRate_ + 2.0f);
}

void Resample::ChoosePhaseLayout() {
  const double src = sourceRate_;
  const double dst = destRate_;
  const long long s = static_cast<long long>(src);
  const long long d = static_cast<long long>(dst);
  if (s > 0 && d > 0 && static_cast<double>(s) == src && static_cast<double>(d) == dst) {
    const long long g = std::gcd(s, d);
    if (d / g <= kMaxPhases) {
      layoutPhases_ = static_cast<int>(d / g);
      phaseStep_ = static_cast<double>(s / g);
      exactPhases_ = true;
      return;
    }
  }
  layoutPhases_ = kMaxPhases;
  phaseStep_ = kMaxPhases * src / dst;
  exactPhases_ = false;
}

double Resample::GetCutoffDivisor() const {
  if (sourceRate_ == destRate_) return 1.0;
  const double ratio = phaseStep_ / layoutPhases_;
  const bool down = sourceRate_ > destRate_;
  const double transition = 12.5 / filterOrder_ * (down ? nyquistShift_ - 0.31 : 0.6 * nyquistShift_);
  // The kernel sinc(t / c) / c has its -6 dB point at 1 / (2c) cycles per
  // input sample; placing it at (1 - transition) times the lower Nyquist
  // frequency centres the Kaiser transition band (about 25 / filterOrder of
  // the lower Nyquist wide at 150 dB) on that Nyquist frequency, so an alias
  // that reaches the output has already passed the middle of the band.
  const double relative = std::max(1e-3, 1.0 - transition);
  return std::max(1.0, (down ? ratio : 1.0) / relative);
}

void Resample::PreComputeStuff() {
  if (sourceRate_ == destRate_) {
    phaseCount_ = 0;
    latency_ = 0;
    phaseFraction_ = 0.0;
    phasePosition_ = 0.0;
    nextInput_ = 0;
    if (work_ != nullptr) vu::Zero(static_cast<std::size_t>(workSize_), work_);
    return;
  }
  const double h = (filterOrder_ - 1) * 0.5 * static_cast<double>(destRate_) / static_cast<double>(sourceRate_);
  latency_ = static_cast<int>(h);
  const int phases = phaseCount_ > 0 ? phaseCount_ : layoutPhases_;
  const double x = (1e-12 + h - latency_) * phaseStep_ + phases;
  phaseFraction_ = std::fmod(x, static_cast<double>(phases));
  phasePosition_ = x / phases - 1.0;
  if (exactPhases_) phaseFraction_ = std::round(phaseFraction_);
  if (phaseFraction_ >= phases) phaseFraction_ -= phases;
  nextInput_ = static_cast<long long>(std::floor(phasePosition_));
  if (work_ != nullptr) vu::Zero(static_cast<std::size_t>(workSize_), work_);
}

void Resample::BuildTable(int order, double phaseOffset, double cutoff, double* taps) const {
  const int halfOrder = (order - 1) / 2;
  const double halfSpan = 0.5 * (order - 1);
  const double windowHalf = static_cast<double>((order + 1) / 2);
  const bool kaiser = noiseFloor_ >= 60.0;
  const double halfBeta = (noiseFloor_ - 8.7) * 0.1102 * 0.5;
  const double beta = 2.0 * halfBeta;
  const double i0Beta = BesselI0Series(beta);
  for (int k = -halfOrder; k <= halfOrder; ++k) {
    const double t = k - phaseOffset;
    const double u = t / halfSpan;
    const double x = pi_ * (order - 1) * u / (2.0 * cutoff);
    const double s = x == 0.0 ? 1.0 : std::sin(x) / x;
    double w;
    if (kaiser) {
      const double r = t / windowHalf;
      w = BesselI0Series(beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / i0Beta;
    } else {
      w = 0.42 + 0.5 * std::cos(pi_ * u) + 0.08 * std::cos(twoPi_ * u);
    }
    taps[k + halfOrder] = w * s / cutoff;
  }
}

bool Resample::Initialize() {
  if (initialized_) return true;
  if (sourceRate_ == destRate_) {
    phaseCount_ = 0;
    table_.reset();
    FreeWork();
    PreComputeStuff();
    initialized_ = 1;
    return true;
  }

  phaseCount_ = layoutPhases_;
  ResampleTable key;
  key.sourceRate = static_cast<int>(sourceRate_);
  key.destRate = static_cast<int>(destRate_);
  key.phaseCount = phaseCount_;
  key.paddedOrder = paddedOrder_;
  key.filterOrder = filterOrder_;
  key.nyquistShift = nyquistShift_;
  key.noiseFloor = noiseFloor_;

  if (!table_ || !table_->Matches(key)) {
    table_ = FindInCache(key);
    if (!table_) {
      // Built outside the lock: a table of 1000 phases takes milliseconds,
      // and two threads racing for the same key only cost one spare build.
      auto entry = std::make_shared<ResampleTable>();
      entry->sourceRate = key.sourceRate;
      entry->destRate = key.destRate;
      entry->phaseCount = key.phaseCount;
      entry->paddedOrder = key.paddedOrder;
      entry->filterOrder = key.filterOrder;
      entry->nyquistShift = key.nyquistShift;
      entry->noiseFloor = key.noiseFloor;
      const std::size_t rows = static_cast<std::size_t>(phaseCount_) + 1;
      const std::size_t size = rows * static_cast<std::size_t>(paddedOrder_);
      entry->coefficients = vu::Malloc_Double(size);
      if (entry->coefficients == nullptr) {
        phaseCount_ = 0;
        return false;
      }
      vu::Zero(size, entry->coefficients);
      const double cutoff = GetCutoffDivisor();
      const int pad = paddedOrder_ - filterOrder_;
      for (std::size_t row = 0; row < rows; ++row) {
        BuildTable(filterOrder_, static_cast<double>(row) / phaseCount_, cutoff,
                   entry->coefficients + row * paddedOrder_ + pad);
      }
      table_ = entry;
      AddToCache(entry);
    }
  }

  AllocateWork();
  if (work_ == nullptr) {
    phaseCount_ = 0;
    return false;
  }
  PreComputeStuff();
  initialized_ = 1;
  return true;
}

void Resample::Deinitialize(bool releaseTable) {
  initialized_ = 0;
  phaseCount_ = 0;
  FreeWork();
  if (releaseTable) table_.reset();
}

void Resample::Reset() {
  if (initialized_) PreComputeStuff();
}

void Resample::AllocateWork() {
  FreeWork();
  workSize_ = paddedOrder_ + kChunk;
  work_ = vu::Malloc_Float(static_cast<std::size_t>(workSize_));
  if (work_ != nullptr) {
    vu::Zero(static_cast<std::size_t>(workSize_), work_);
  } else {
    workSize_ = 0;
  }
}

void Resample::FreeWork() {
  vu::Free(work_);
  work_ = nullptr;
  workSize_ = 0;
}

int Resample::Process(float* in, float* out, int frames) {
  if (!initialized_ || frames <= 0 || in == nullptr || out == nullptr) return 0;
  if (phaseCount_ == 0) {
    vu::Move(static_cast<std::size_t>(frames), in, out);
    return frames;
  }
  vexaccelerate::utility::ScopedFlushDenormals flush;
  return Process2(in, out, frames);
}

int Resample::Process2(float* in, float* out, int frames) {
  int produced = 0;
  for (int done = 0; done < frames;) {
    const int chunk = std::min(kChunk, frames - done);
    produced += ProcessInternal(in + done, out + produced, chunk, !exactPhases_);
    done += chunk;
  }
  return produced;
}

int Resample::ProcessInternal(float* in, float* out, int frames, bool interpolate) {
  const int padded = paddedOrder_;
  float* const work = work_;
  vu::Copy(static_cast<std::size_t>(frames), in, work + padded);

  const double* const taps = table_->coefficients;
  const DotKernel dot = kDot;
  const int phases = phaseCount_;
  long long position = nextInput_;
  int produced = 0;
  // work[padded + j] is input sample j of this block; the window of output
  // n ends at its newest input sample, so it starts padded - 1 earlier.
  if (!interpolate) {
    const int step = static_cast<int>(phaseStep_);
    const int whole = step / phases;
    const int rest = step % phases;
    int phase = static_cast<int>(phaseFraction_);
    while (position < frames) {
      const float* window = work + position + 1;
      out[produced++] = static_cast<float>(dot(window, taps + phase * padded, padded));
      position += whole;
      phase += rest;
      if (phase >= phases) {
        phase -= phases;
        ++position;
      }
    }
    phaseFraction_ = phase;
  } else {
    const double step = phaseStep_;
    double phase = phaseFraction_;
    while (position < frames) {
      const float* window = work + position + 1;
      const int index = static_cast<int>(phase);
      const double alpha = phase - index;
      const double* row = taps + static_cast<std::size_t>(index) * padded;
      const double a = dot(window, row, padded);
      const double b = dot(window, row + padded, padded);
      out[produced++] = static_cast<float>(a + alpha * (b - a));
      phase += step;
      const double wraps = std::floor(phase / phases);
      phase -= wraps * phases;
      position += static_cast<long long>(wraps);
    }
    phaseFraction_ = phase;
  }
  nextInput_ = position - frames;
  phasePosition_ = static_cast<double>(nextInput_) + phaseFraction_ / phases;
  vu::Move(static_cast<std::size_t>(padded), work + frames, work);
  return produced;
}

}  // namespace dsp
