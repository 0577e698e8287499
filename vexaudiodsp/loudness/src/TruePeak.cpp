#include "vexaudiodsp/loudness/TruePeak.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Filter.h"
#include "vexaccelerate/Utility.h"
#include "vexaccelerate/src/Dispatch.h"

namespace dsp {
namespace {

// Outputs computed together: four independent vector accumulators keep the
// adder busy instead of waiting on one chain.
constexpr std::size_t kLanes = 32;

// y[i] = sum_q taps[q] x[i + q] for i < n rounded up to kLanes; x and y
// carry kLanes of slack.
VEX_KERNEL void PhaseFir(const float* __restrict x, std::size_t n, const float* __restrict taps, int count,
                         float* __restrict y) {
  for (std::size_t i = 0; i < n; i += kLanes) {
    float acc[kLanes] = {};
    for (int q = 0; q < count; ++q) {
      const float t = taps[q];
      const float* xq = x + i + static_cast<std::size_t>(q);
      for (std::size_t k = 0; k < kLanes; ++k) acc[k] += t * xq[k];
    }
    for (std::size_t k = 0; k < kLanes; ++k) y[i + k] = acc[k];
  }
}

// Largest |x[i]|; NaNs never win, as in a scan with a strict comparison.
VEX_KERNEL float MaxMagnitude(const float* __restrict x, std::size_t n) {
  constexpr std::size_t kWidth = 16;
  float lane[kWidth] = {};
  std::size_t i = 0;
  for (; i + kWidth <= n; i += kWidth) {
    for (std::size_t k = 0; k < kWidth; ++k) {
      const float a = std::fabs(x[i + k]);
      lane[k] = a > lane[k] ? a : lane[k];
    }
  }
  float m = 0.0f;
  for (; i < n; ++i) {
    const float a = std::fabs(x[i]);
    m = a > m ? a : m;
  }
  for (float v : lane) m = v > m ? v : m;
  return m;
}

std::size_t FactorFor(int sampleRate) {
  if (sampleRate <= 24000) return 8;
  if (sampleRate < 96000) return 4;
  return 2;
}

float* CloneArray(const float* src, std::size_t n) {
  if (src == nullptr || n == 0) return nullptr;
  float* dst = vexaccelerate::utility::Malloc_Float(n);
  vexaccelerate::utility::Copy(n, src, dst);
  return dst;
}

std::size_t HistoryLength(std::size_t tapsPerPhase, std::size_t maxFrames) {
  return tapsPerPhase - 1 + maxFrames + kLanes;
}

}  // namespace

TruePeak::TruePeak(const TruePeak& other) { CopyFrom(other); }

TruePeak& TruePeak::operator=(const TruePeak& other) {
  if (this != &other) {
    FreeAll();
    CopyFrom(other);
  }
  return *this;
}

TruePeak::~TruePeak() { FreeAll(); }

void TruePeak::CopyFrom(const TruePeak& other) {
  tapsPerPhase_ = other.tapsPerPhase_;
  factor_ = other.factor_;
  maxFrames_ = other.maxFrames_;
  stride_ = other.stride_;
  std::copy(std::begin(other.phaseCounts_), std::end(other.phaseCounts_), std::begin(phaseCounts_));
  taps_ = CloneArray(other.taps_, kTaps);
  phaseTaps_ = CloneArray(other.phaseTaps_, factor_ * tapsPerPhase_);
  delayLine_ = CloneArray(other.delayLine_, other.delayLine_ ? HistoryLength(tapsPerPhase_, maxFrames_) : 0);
  upsampled_ = CloneArray(other.upsampled_, other.upsampled_ ? factor_ * stride_ : 0);
  peak_ = other.peak_;
  sampleCount_ = other.sampleCount_;
  peakPosition_ = other.peakPosition_;
}

void TruePeak::FreeFIR() {
  vexaccelerate::utility::Free(taps_);
  vexaccelerate::utility::Free(phaseTaps_);
  vexaccelerate::utility::Free(delayLine_);
  taps_ = nullptr;
  phaseTaps_ = nullptr;
  delayLine_ = nullptr;
  tapsPerPhase_ = 0;
}

void TruePeak::FreeAll() {
  FreeFIR();
  vexaccelerate::utility::Free(upsampled_);
  upsampled_ = nullptr;
}

void TruePeak::Init(std::size_t maxFrames, int sampleRate) {
  FreeAll();
  factor_ = FactorFor(sampleRate);
  maxFrames_ = maxFrames;
  const std::size_t slack = kLanes;
  stride_ = maxFrames + slack;
  upsampled_ = vexaccelerate::utility::Malloc_Float(factor_ * stride_);
  vexaccelerate::utility::Zero(factor_ * stride_, upsampled_);

  double design[kTaps];
  vexaccelerate::filter::DesignLowpassSinc(design, kTaps, 0.48 / static_cast<double>(factor_),
                                           vexaccelerate::filter::kWindowHann);
  taps_ = vexaccelerate::utility::Malloc_Float(kTaps);
  for (int k = 0; k < kTaps; ++k) taps_[k] = static_cast<float>(design[k] * static_cast<double>(factor_));

  const int f = static_cast<int>(factor_);
  tapsPerPhase_ = static_cast<std::size_t>((kTaps + f - 1) / f);
  phaseTaps_ = vexaccelerate::utility::Malloc_Float(factor_ * tapsPerPhase_);
  vexaccelerate::utility::Zero(factor_ * tapsPerPhase_, phaseTaps_);
  for (int j = 0; j < f; ++j) {
    const int count = (kTaps - j + f - 1) / f;
    phaseCounts_[j] = count;
    float* dst = phaseTaps_ + static_cast<std::size_t>(j) * tapsPerPhase_;
    for (int q = 0; q < count; ++q) dst[q] = taps_[j + (count - 1 - q) * f];
  }
  const std::size_t history = HistoryLength(tapsPerPhase_, maxFrames);
  delayLine_ = vexaccelerate::utility::Malloc_Float(history);
  vexaccelerate::utility::Zero(history, delayLine_);

  peak_ = 0.0f;
  peakPosition_ = 0;
  sampleCount_ = 0;
}

void TruePeak::Reset() {
  if (delayLine_ != nullptr) vexaccelerate::utility::Zero(HistoryLength(tapsPerPhase_, maxFrames_), delayLine_);
  peak_ = 0.0f;
  peakPosition_ = 0;
  sampleCount_ = 0;
}

void TruePeak::Interpolate(const float* in, std::size_t n) {
  const std::size_t keep = tapsPerPhase_ - 1;
  vexaccelerate::utility::Copy(n, in, delayLine_ + keep);
  for (std::size_t j = 0; j < factor_; ++j) {
    const int count = phaseCounts_[j];
    // Phase j's newest tap meets x[n]; shorter phases start further on.
    const float* x = delayLine_ + keep + 1 - static_cast<std::size_t>(count);
    PhaseFir(x, n, phaseTaps_ + j * tapsPerPhase_, count, upsampled_ + j * stride_);
  }
  vexaccelerate::utility::Move(keep, delayLine_ + n, delayLine_);
}

void TruePeak::ProcessPiece(const float* in, std::size_t n) {
  const float inputMax = MaxMagnitude(in, n);
  if (inputMax > peak_) {
    peak_ = inputMax;
    for (std::size_t i = 0; i < n; ++i) {
      if (std::fabs(in[i]) == inputMax) {
        peakPosition_ = sampleCount_ + static_cast<std::int64_t>(i);
        break;
      }
    }
  }
  Interpolate(in, n);
  float interpolatedMax = 0.0f;
  for (std::size_t j = 0; j < factor_; ++j) {
    interpolatedMax = std::max(interpolatedMax, MaxMagnitude(upsampled_ + j * stride_, n));
  }
  if (interpolatedMax > peak_) {
    peak_ = interpolatedMax;
    bool found = false;
    for (std::size_t i = 0; i < n && !found; ++i) {
      for (std::size_t j = 0; j < factor_; ++j) {
        if (std::fabs(upsampled_[j * stride_ + i]) == interpolatedMax) {
          peakPosition_ = sampleCount_ + static_cast<std::int64_t>(i);
          found = true;
          break;
        }
      }
    }
  }
  sampleCount_ += static_cast<std::int64_t>(n);
}

void TruePeak::Process(const float* in, std::size_t n) {
  if (delayLine_ == nullptr) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;
  for (std::size_t done = 0; done < n;) {
    const std::size_t piece = std::min(maxFrames_, n - done);
    ProcessPiece(in + done, piece);
    done += piece;
  }
}

void TruePeak::Resample(const float* in, std::size_t n, float* out) {
  if (delayLine_ == nullptr) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;
  const float* phases[8];
  for (std::size_t j = 0; j < factor_; ++j) phases[j] = upsampled_ + j * stride_;
  for (std::size_t done = 0; done < n;) {
    const std::size_t piece = std::min(maxFrames_, n - done);
    Interpolate(in + done, piece);
    vexaccelerate::utility::Interleave(phases, factor_, piece, out + done * factor_);
    done += piece;
  }
}

void TruePeak::GetPeakValue(float& peakDb, std::int64_t& position) const {
  peakDb = static_cast<float>(20.0 * std::log10(std::max(1e-15, static_cast<double>(peak_))));
  position = peakPosition_;
}

}  // namespace dsp
