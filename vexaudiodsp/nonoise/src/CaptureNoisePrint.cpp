#include "vexaudiodsp/nonoise/CaptureNoisePrint.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/utils/FFTWindow.h"
#include "vexaudiodsp/utils/LegacyFFT.h"

namespace dsp {
namespace nonoise {

namespace vu = vexaccelerate::utility;

namespace {

constexpr double kLargestFloat = 3.4028234663852886e38;
constexpr int kMinFFTSize = 16;
constexpr int kMaxFFTSize = 16384;
constexpr int kMinSnapshots = 8;

std::size_t Count(std::int64_t n) { return n > 0 ? static_cast<std::size_t>(n) : 0; }

}  // namespace

CaptureNoisePrint::CaptureNoisePrint(const NONOISE* param) {
  // Scalars only: the capture makes its own arrays.
  if (param != nullptr) CopyNoNoise(param, &param_, false);
  Resize();
}

CaptureNoisePrint::~CaptureNoisePrint() { FreeArrays(&param_); }

void CaptureNoisePrint::Resize() {
  const int n = param_.fftSize;
  validSize_ = n >= kMinFFTSize && n <= kMaxFFTSize && (n & (n - 1)) == 0 && param_.channelCount > 0;
  if (!validSize_) {
    FreeArrays(&param_);
    return;
  }
  AllocateArrays(&param_);
  fft_.Init(n);
  window_.assign(Count(n), 0.0);
  GetFFTWindow(window_.data(), n, 1.0, kFFTWindowBlackmanHarris, 0.0);
  re_.assign(Count(n), 0.0);
  im_.assign(Count(n), 0.0);
  split_.assign(4 * Count(n), 0.0);
}

void CaptureNoisePrint::SetIOConfig(int numChannels, float sampleRate) {
  sampleRate_ = sampleRate;
  if (numChannels > 0 && numChannels != param_.channelCount) {
    FreeArrays(&param_);
    param_.channelCount = static_cast<std::int16_t>(std::min(numChannels, 64));
    Resize();
  }
}

bool CaptureNoisePrint::SetSelection(std::int64_t /*start*/, std::int64_t length) {
  step_ = 0;
  total_ = 0;
  if (!validSize_) return false;
  const std::int64_t n = param_.fftSize;
  const std::int64_t span = length - n;
  const std::int64_t limit = std::max<std::int64_t>(param_.snapshotLimit, kMinSnapshots);
  const std::int64_t blocks = std::min(std::max<std::int64_t>((span - 1) / (n / 3), 1), limit);
  step_ = span / blocks;
  if (step_ < 3) {
    step_ = 0;
    return false;
  }
  total_ = blocks;
  return true;
}

int CaptureNoisePrint::GetDesiredBlockSize() const {
  return static_cast<int>(std::max<std::int64_t>(param_.fftSize, step_));
}

bool CaptureNoisePrint::IsCompleted() const { return position_ >= total_; }

float CaptureNoisePrint::GetProgress() const {
  if (total_ <= 0) return 100.0f;
  return static_cast<float>(position_) * 100.0f / static_cast<float>(total_);
}

void CaptureNoisePrint::Start(float* result) {
  DSPAnalyzer::Start(result);
  position_ = 0;
  param_.snapshotCount = 0;
  blockLevels_.assign(Count(total_), 0.0);
  if (!validSize_) return;
  const std::size_t n = Count(param_.fftSize);
  for (int c = 0; c < param_.channelCount; ++c) {
    vu::Zero(n, param_.averageCurve[c]);
    vu::Set(n, kLargestFloat, param_.minCurve[c]);
    vu::Zero(n, param_.maxCurve[c]);
    param_.channelMin[c] = kLargestFloat;
    param_.channelMax[c] = 0.0;
  }
}

std::int64_t CaptureNoisePrint::Analyze(float** buffers, int numChannels, int numSamples) {
  if (position_ >= total_ || !validSize_) return step_ > 0 ? step_ : numSamples;
  AddToLevels(buffers, numChannels, numSamples);
  ++position_;
  return step_;
}

void CaptureNoisePrint::AddToLevels(float** buffers, int numChannels, int numSamples) {
  const int n = param_.fftSize;
  const int half = n / 2;
  const int used = std::max(0, std::min(n, numSamples));
  const double scale = 1.0 / (n * 0.25);
  double* lre = split_.data();
  double* lim = lre + n;
  double* rre = lim + n;
  double* rim = rre + n;
  double* outRe[2] = {lre, rre};
  double* outIm[2] = {lim, rim};
  double blockPower = 0.0;
  for (int c = 0; c < param_.channelCount; c += 2) {
    const bool pair = c + 1 < param_.channelCount;
    // Channels the host did not deliver are silence.
    const float* x = c < numChannels ? buffers[c] : nullptr;
    const float* y = pair && c + 1 < numChannels ? buffers[c + 1] : nullptr;
    for (int i = 0; i < n; ++i) {
      re_[Count(i)] = (x != nullptr && i < used) ? x[i] * window_[Count(i)] : 0.0;
      im_[Count(i)] = (y != nullptr && i < used) ? y[i] * window_[Count(i)] : 0.0;
    }
    fft_.FFT(re_.data(), im_.data(), 1);
    SplitComplexSpectrumToLR(re_.data(), im_.data(), 0, outRe, outIm, n);
    for (int side = 0; side < (pair ? 2 : 1); ++side) {
      const int ch = c + side;
      const double* sr = outRe[side];
      const double* si = outIm[side];
      const double dc = std::fabs(sr[0]) * scale;
      param_.channelMin[ch] = std::min(param_.channelMin[ch], dc);
      param_.channelMax[ch] = std::max(param_.channelMax[ch], dc);
      double* avg = param_.averageCurve[ch];
      double* lo = param_.minCurve[ch];
      double* hi = param_.maxCurve[ch];
      for (int k = 0; k <= half; ++k) {
        const double p = sr[k] * sr[k] + si[k] * si[k];
        const double m = std::sqrt(p) * scale;
        avg[k] += p;
        lo[k] = std::min(lo[k], m);
        hi[k] = std::max(hi[k], m);
        blockPower += p;
      }
    }
  }
  ++param_.snapshotCount;
  if (Count(position_) < blockLevels_.size()) {
    blockLevels_[Count(position_)] = 10.0 * std::log10(std::max(blockPower * scale * scale, 1e-30));
  }
}

void CaptureNoisePrint::Done() {
  if (validSize_) ScaleResult();
}

void CaptureNoisePrint::ScaleResult() {
  const int n = param_.fftSize;
  const int half = n / 2;
  const double scale = 1.0 / (n * 0.25);
  const double count = static_cast<double>(param_.snapshotCount);
  for (int c = 0; c < param_.channelCount; ++c) {
    double* avg = param_.averageCurve[c];
    double* lo = param_.minCurve[c];
    double* hi = param_.maxCurve[c];
    for (int k = 0; k <= half; ++k) avg[k] = count > 0.0 ? std::sqrt(avg[k] / count) * scale : 0.0;
    for (int k = 1; k < half; ++k) {
      avg[n - k] = avg[k];
      lo[n - k] = lo[k];
      hi[n - k] = hi[k];
    }
  }
}

double CaptureNoisePrint::GetLevelSpreadDb() const {
  const std::size_t count = std::min(Count(position_), blockLevels_.size());
  if (count < 2) return 0.0;
  double mean = 0.0;
  for (std::size_t i = 0; i < count; ++i) mean += blockLevels_[i];
  mean /= static_cast<double>(count);
  double var = 0.0;
  for (std::size_t i = 0; i < count; ++i) var += (blockLevels_[i] - mean) * (blockLevels_[i] - mean);
  return std::sqrt(var / static_cast<double>(count - 1));
}

}  // namespace nonoise
}  // namespace dsp
