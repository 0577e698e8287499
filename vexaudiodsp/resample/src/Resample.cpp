#include "vexaudiodsp/resample/Resample.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <numeric>

#include "ResampleKernels.h"
#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"
#include "vexcore/RecursiveMutex.h"

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
  // Derived once from `coefficients` for the single-precision kernels
  // (null above Resample::kMaxFloatNoiseFloor): the same rows rounded to
  // float, each padded with leading zeros to floatRowLength, a multiple of
  // 16 taps, so every row starts on a 64-byte boundary.
  float* floatCoefficients = nullptr;
  int floatRowLength = 0;

  ResampleTable() = default;
  ResampleTable(const ResampleTable&) = delete;
  ResampleTable& operator=(const ResampleTable&) = delete;
  ~ResampleTable() {
    vu::Free(coefficients);
    vu::Free(floatCoefficients);
  }

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

// Floor of t / d for d > 0.
long long FloorDiv(long long t, long long d) { return t >= 0 ? t / d : -((-t + d - 1) / d); }

// The outputs of one block for an exact phase layout, taken phase by phase:
// the outputs that share a row (every `phases`-th one, `step` input samples
// apart) are computed together, so each row is read once per block rather
// than once per output and stays in the nearest cache while it is used.
// `position` and `phase` locate the next output's newest input sample
// relative to this block; both are advanced past the block's outputs.
template <typename T, typename Rows>
int ExactBlock(const T* work, int frames, const T* rows, int rowLength, Rows kernel, int phases, int step,
               long long* position, int* phase, float* out) {
  const long long start = *position * phases + *phase;  // in 1 / phases of an input sample
  const long long end = static_cast<long long>(frames) * phases;
  const int count = start < end ? static_cast<int>((end - start + step - 1) / step) : 0;
  const int used = std::min(phases, count);
  for (int r = 0; r < used; ++r) {
    const long long t = start + static_cast<long long>(r) * step;
    const long long newest = FloorDiv(t, phases);
    const int row = static_cast<int>(t - newest * phases);
    // work[rowLength + j] is input sample j of the block; a window ends at
    // its output's newest input sample.
    const T* window = work + newest + 1;
    kernel(rows + static_cast<std::size_t>(row) * rowLength, rowLength, window, step, (count - r + phases - 1) / phases,
           out + r, phases);
  }
  const long long next = start + static_cast<long long>(count) * step;
  *position = FloorDiv(next, phases);
  *phase = static_cast<int>(next - *position * phases);
  return count;
}

}  // namespace

Resample::InstructionSet Resample::GetBestInstructionSet() {
  static const InstructionSet best = resamplekernels::Supported(InstructionSet::kAvx512) ? InstructionSet::kAvx512
                                     : resamplekernels::Supported(InstructionSet::kAvx2) ? InstructionSet::kAvx2
                                                                                         : InstructionSet::kPortable;
  return best;
}

Resample::Resample() : instructionSet_(GetBestInstructionSet()) { ChoosePhaseLayout(); }

bool Resample::SetInstructionSet(InstructionSet set) {
  if (!resamplekernels::Supported(set)) return false;
  instructionSet_ = set;
  return true;
}

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
  historyLength_ = other.historyLength_;
  floatArithmetic_ = other.floatArithmetic_;
  alwaysDouble_ = other.alwaysDouble_;
  instructionSet_ = other.instructionSet_;
  if (other.workSize_ > 0) {
    AllocateWork();
    const std::size_t n = static_cast<std::size_t>(workSize_);
    if (work_ != nullptr && other.work_ != nullptr) vu::Copy(n, other.work_, work_);
    if (workDouble_ != nullptr && other.workDouble_ != nullptr) vu::Copy(n, other.workDouble_, workDouble_);
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
  // Instances share a table whenever the cache key matches, and the key
  // holds the rates truncated to whole Hz; so the cut-off comes from those
  // same whole rates, or 999.5 -> 1000 and 999 -> 1000 (one key) would get
  // whichever cut-off was built first. For whole rates this is exactly the
  // ratio of the phase layout; a fraction of a Hz moves it by under 0.1 %.
  const double src = std::max(1.0, std::trunc(static_cast<double>(sourceRate_)));
  const double dst = std::max(1.0, std::trunc(static_cast<double>(destRate_)));
  const double ratio = src / dst;
  const bool down = src > dst;
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
    ClearWork();
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
  ClearWork();
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
    floatArithmetic_ = false;
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
      if (noiseFloor_ <= kMaxFloatNoiseFloor && !DeriveFloatRows(entry.get())) {
        phaseCount_ = 0;
        return false;
      }
      table_ = entry;
      AddToCache(entry);
    }
  }

  floatArithmetic_ = exactPhases_ && !alwaysDouble_ && table_->floatCoefficients != nullptr;
  historyLength_ = floatArithmetic_ ? table_->floatRowLength : paddedOrder_;
  AllocateWork();
  if (workSize_ == 0) {
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

bool Resample::DeriveFloatRows(ResampleTable* table) {
  const int length = (table->filterOrder + 15) / 16 * 16;
  const std::size_t rows = static_cast<std::size_t>(table->phaseCount) + 1;
  table->floatCoefficients = vu::Malloc_Float(rows * static_cast<std::size_t>(length));
  if (table->floatCoefficients == nullptr) return false;
  table->floatRowLength = length;
  vu::Zero(rows * static_cast<std::size_t>(length), table->floatCoefficients);
  // Both rows end with the newest tap, so the double row's last
  // paddedOrder taps map onto the float row's last ones.
  for (std::size_t row = 0; row < rows; ++row) {
    vu::Convert(static_cast<std::size_t>(table->paddedOrder), table->coefficients + row * table->paddedOrder,
                table->floatCoefficients + row * length + (length - table->paddedOrder));
  }
  return true;
}

void Resample::AllocateWork() {
  FreeWork();
  const int size = kSlack + historyLength_ + kChunk + kSlack;
  if (floatArithmetic_) {
    work_ = vu::Malloc_Float(static_cast<std::size_t>(size));
  } else {
    workDouble_ = vu::Malloc_Double(static_cast<std::size_t>(size));
  }
  if (work_ != nullptr || workDouble_ != nullptr) workSize_ = size;
  ClearWork();
}

void Resample::ClearWork() {
  if (work_ != nullptr) vu::Zero(static_cast<std::size_t>(workSize_), work_);
  if (workDouble_ != nullptr) vu::Zero(static_cast<std::size_t>(workSize_), workDouble_);
}

void Resample::FreeWork() {
  vu::Free(work_);
  vu::Free(workDouble_);
  work_ = nullptr;
  workDouble_ = nullptr;
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
  const std::size_t history = static_cast<std::size_t>(historyLength_);
  int produced;
  if (floatArithmetic_) {
    float* const work = work_ + kSlack;
    vu::Copy(static_cast<std::size_t>(frames), in, work + history);
    produced = ProcessExactFloat(work, out, frames);
    vu::Move(history, work + frames, work);
  } else {
    double* const work = workDouble_ + kSlack;
    vu::Convert(static_cast<std::size_t>(frames), in, work + history);
    produced = interpolate ? ProcessInterpolated(work, out, frames) : ProcessExactDouble(work, out, frames);
    vu::Move(history, work + frames, work);
  }
  phasePosition_ = static_cast<double>(nextInput_) + phaseFraction_ / phaseCount_;
  return produced;
}

int Resample::ProcessExactFloat(const float* work, float* out, int frames) {
  int phase = static_cast<int>(phaseFraction_);
  const int produced = ExactBlock(work, frames, table_->floatCoefficients, historyLength_,
                                  resamplekernels::Get(instructionSet_).rowsFloat, phaseCount_,
                                  static_cast<int>(phaseStep_), &nextInput_, &phase, out);
  nextInput_ -= frames;
  phaseFraction_ = phase;
  return produced;
}

int Resample::ProcessExactDouble(const double* work, float* out, int frames) {
  int phase = static_cast<int>(phaseFraction_);
  const int produced =
      ExactBlock(work, frames, table_->coefficients, historyLength_, resamplekernels::Get(instructionSet_).rowsDouble,
                 phaseCount_, static_cast<int>(phaseStep_), &nextInput_, &phase, out);
  nextInput_ -= frames;
  phaseFraction_ = phase;
  return produced;
}

int Resample::ProcessInterpolated(const double* work, float* out, int frames) {
  const int padded = paddedOrder_;
  const double* const taps = table_->coefficients;
  const resamplekernels::DotDouble dot = resamplekernels::Get(instructionSet_).dot;
  const int phases = phaseCount_;
  const double step = phaseStep_;
  double phase = phaseFraction_;
  long long position = nextInput_;
  int produced = 0;
  while (position < frames) {
    const double* window = work + position + 1;
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
  nextInput_ = position - frames;
  return produced;
}

}  // namespace dsp
