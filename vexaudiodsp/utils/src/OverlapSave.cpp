#include "vexaudiodsp/utils/OverlapSave.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/utils/FFTWindow.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

namespace {

constexpr int kMinFFTSize = 16;
constexpr int kMaxFFTSize = 65536;
constexpr int kMaxChannels = 64;
constexpr int kMaxWindowKind = 5;
// Below this the analysis window is treated as zero: dividing by it would
// only amplify rounding noise.
constexpr double kMinWindow = 1e-7;

bool IsPowerOfTwo(int n) { return n > 0 && (n & (n - 1)) == 0; }

std::size_t Size(int n) { return static_cast<std::size_t>(n); }

// Float count rounded up to whole 64-byte lines.
std::size_t Padded(std::size_t count) { return (count + 15) & ~std::size_t{15}; }

}  // namespace

OverlapSave::OverlapSave() = default;

OverlapSave::~OverlapSave() { Release(); }

bool OverlapSave::Setup(int fftSize, int numChannels, int latency, int hop, int windowKind) {
  Release();
  configured_ = false;
  suspended_ = false;
  fftSize_ = 0;
  numChannels_ = 0;
  latency_ = 0;
  hop_ = 0;
  regionStart_ = 0;
  regionLength_ = 0;
  if (!IsPowerOfTwo(fftSize) || fftSize < kMinFFTSize || fftSize > kMaxFFTSize) return false;
  if (numChannels < 1 || numChannels > kMaxChannels) return false;
  if (hop < 1 || hop > fftSize || latency < hop - 1 || latency > fftSize - 1) return false;
  if (windowKind < 0 || windowKind > kMaxWindowKind) return false;
  fftSize_ = fftSize;
  numChannels_ = numChannels;
  latency_ = latency;
  hop_ = hop;
  windowKind_ = windowKind;
  regionStart_ = fftSize - 1 - latency;
  // Every frame position still in the future when the frame is complete.
  regionLength_ = latency + 1;
  fft_.Init(fftSize);
  ComputeWindow();
  if (!fft_.IsInitialized() || !Allocate()) {
    Release();
    return false;
  }
  configured_ = true;
  Reset();
  return true;
}

void OverlapSave::ComputeWindow() {
  if (fftSize_ < 1) return;
  const std::size_t n = Size(fftSize_);
  std::vector<double> w(n);
  GetFFTWindow(w.data(), fftSize_, 1.0, static_cast<unsigned>(windowKind_), 0.0);
  window_.assign(n, 0.0f);
  synthesis_.assign(n, 0.0f);
  const double invN = 1.0 / static_cast<double>(n);
  for (std::size_t i = 0; i < n; ++i) {
    window_[i] = static_cast<float>(w[i]);
    synthesis_[i] = w[i] > kMinWindow ? static_cast<float>(invN / w[i]) : 0.0f;
  }

  // Crossfade over the region u = 0 ... L: the analysis window itself,
  // divided by the sum of the window values of all frames that cover the
  // same output (positions u mod H apart), so the crossfades of overlapping
  // frames sum to 1. Times the synthesis scale this is 1 / (N D), bounded:
  // the far end of the frame, where 1/w is huge, gets a weight near 0
  // instead of amplifying rounding noise.
  std::vector<double> coverage(Size(hop_), 0.0);
  for (int u = 0; u < regionLength_; ++u) coverage[Size(u % hop_)] += w[Size(regionStart_ + u)];
  std::vector<double> fade(Size(regionLength_), 0.0);
  for (int u = 0; u < regionLength_; ++u) {
    const double d = coverage[Size(u % hop_)];
    fade[Size(u)] = d > 0.0 ? w[Size(regionStart_ + u)] / d : 0.0;
  }
  fadeShape_ = std::move(fade);
  crossfadeWeights_.assign(Size(regionLength_), 0.0f);
  segmentWeights_.assign(Size(regionLength_), 0.0f);
  scaledWindow_.assign(n, 0.0f);
  SetScalers(inputScale_, outputScale_);
}

void OverlapSave::SetScalers(float inputScale, float outputScale) {
  inputScale_ = inputScale;
  outputScale_ = outputScale;
  if (scaledWindow_.size() != window_.size() || fadeShape_.size() != crossfadeWeights_.size()) return;
  vu::MulConstant(window_.size(), window_.data(), scaledWindow_.data(), inputScale);
  for (std::size_t u = 0; u < crossfadeWeights_.size(); ++u) {
    const double s = static_cast<double>(synthesis_[Size(regionStart_) + u]) * outputScale;
    crossfadeWeights_[u] = static_cast<float>(s * fadeShape_[u]);
    segmentWeights_[u] = u < Size(hop_) ? static_cast<float>(s) : 0.0f;
  }
}

bool OverlapSave::Allocate() {
  const std::size_t n = Size(fftSize_);
  const std::size_t bins = n / 2 + 1;
  // History gets room for 2N samples: frames slide along it and the tail
  // moves back to the start only once every N / H frames. Every piece starts
  // on a 64-byte boundary: the transform engine sends unaligned buffers
  // through two extra copies.
  const std::size_t history = Padded(2 * n);
  const std::size_t sums = Padded(Size(regionLength_));
  const std::size_t half = Padded(bins);
  const std::size_t perChannel = history + sums + 2 * half;
  const std::size_t transformSize = Padded(n + 2);
  const std::size_t total = perChannel * Size(numChannels_) + transformSize + Padded(n);
  block_ = vu::Malloc_Float(total);
  if (block_ == nullptr) return false;
  vu::Zero(total, block_);
  history_.assign(Size(numChannels_), nullptr);
  sums_.assign(Size(numChannels_), nullptr);
  re_.assign(Size(numChannels_), nullptr);
  im_.assign(Size(numChannels_), nullptr);
  float* p = block_;
  for (std::size_t c = 0; c < Size(numChannels_); ++c) {
    history_[c] = p;
    sums_[c] = p + history;
    re_[c] = sums_[c] + sums;
    im_[c] = re_[c] + half;
    p += perChannel;
  }
  transform_ = p;
  windowed_ = p + transformSize;
  return true;
}

void OverlapSave::Release() {
  vu::Free(block_);
  block_ = nullptr;
  transform_ = nullptr;
  windowed_ = nullptr;
  history_.clear();
  sums_.clear();
  re_.clear();
  im_.clear();
}

void OverlapSave::SetIOConfig(int numChannels, float /*sampleRate*/) {
  if (configured_ && numChannels != numChannels_ && numChannels > 0) {
    Setup(fftSize_, numChannels, latency_, hop_, windowKind_);
  }
}

void OverlapSave::Start() { Reset(); }

void OverlapSave::Reset() {
  // The first input sample completes a frame, so H outputs count as already
  // emitted; the history and sums start as silence.
  filled_ = hop_ - 1;
  readPos_ = hop_;
  historyOffset_ = 0;
  tailLeft_ = latency_;
  if (block_ == nullptr) return;
  const std::size_t n = Size(fftSize_);
  for (int c = 0; c < numChannels_; ++c) {
    vu::Zero(2 * n, history_[Size(c)]);
    vu::Zero(Size(regionLength_), sums_[Size(c)]);
  }
}

void OverlapSave::Suspend() {
  if (!configured_) return;
  Release();
  suspended_ = true;
}

void OverlapSave::Resume() {
  if (!configured_ || !suspended_) return;
  suspended_ = false;
  if (!Allocate()) {
    configured_ = false;
    return;
  }
  Reset();
}

void OverlapSave::Process(float** in, float** out, int numChannels, int numSamples) {
  if (numSamples <= 0 || in == nullptr || out == nullptr) return;
  for (int c = 0; c < numChannels; ++c) {
    if (in[c] != out[c]) vu::Copy(Size(numSamples), in[c], out[c]);
  }
  if (!configured_ || suspended_) return;
  vexaccelerate::utility::ScopedFlushDenormals flush;
  OnAudio(out, std::min(numChannels, numChannels_), numSamples, false);
}

int OverlapSave::Flush(float** out, int numChannels, int numSamples) {
  if (!configured_ || suspended_ || out == nullptr || tailLeft_ <= 0 || numSamples <= 0) return 0;
  const int count = std::min(numSamples, tailLeft_);
  for (int c = 0; c < numChannels; ++c) vu::Zero(Size(count), out[c]);
  vexaccelerate::utility::ScopedFlushDenormals flush;
  OnAudio(out, std::min(numChannels, numChannels_), count, true);
  tailLeft_ -= count;
  return count;
}

void OverlapSave::OnAudio(float** data, int numChannels, int numSamples, bool /*flushing*/) {
  RunFrames(data, numChannels, numSamples, false);
}

void OverlapSave::OnSpectrum(float** /*re*/, float** /*im*/, int /*channels*/, int /*bins*/) {}

// Each input sample is stored before the output for its time is written, so
// in-place blocks are safe; the sample that completes a frame gets its
// output from that frame.
void OverlapSave::RunFrames(float** data, int numChannels, int numSamples, bool alternative) {
  if (!configured_ || suspended_ || numChannels < 1) return;
  const int n = fftSize_;
  const int hop = hop_;
  int offset = 0;
  while (offset < numSamples) {
    const int take = std::min(numSamples - offset, hop - filled_);
    for (int c = 0; c < numChannels; ++c) {
      vu::Copy(Size(take), data[c] + offset, history_[Size(c)] + (historyOffset_ + n - hop + filled_));
    }
    filled_ += take;
    if (filled_ == hop) {
      Emit(data, numChannels, offset, take - 1);
      RunFrame(numChannels, alternative);
      Emit(data, numChannels, offset + take - 1, 1);
      filled_ = 0;
    } else {
      Emit(data, numChannels, offset, take);
    }
    offset += take;
  }
}

void OverlapSave::Emit(float** data, int numChannels, int offset, int count) {
  if (count <= 0) return;
  for (int c = 0; c < numChannels; ++c) vu::Copy(Size(count), sums_[Size(c)] + readPos_, data[c] + offset);
  readPos_ += count;
}

void OverlapSave::RunFrame(int numChannels, bool alternative) {
  const std::size_t n = Size(fftSize_);
  const std::size_t bins = n / 2 + 1;
  const std::size_t hop = Size(hop_);
  const std::size_t region = Size(regionLength_);
  float* t = transform_;
  for (int c = 0; c < numChannels; ++c) {
    // Out of place: FFTW's in-place real transform spends an extra copy.
    vu::Mul(n, history_[Size(c)] + historyOffset_, scaledWindow_.data(), windowed_);
    fft_.FFT(windowed_, t, 1);
    vu::ComplexToReal(bins, t, re_[Size(c)], im_[Size(c)]);
  }
  OnSpectrum(re_.data(), im_.data(), numChannels, static_cast<int>(bins));

  const float* weights = alternative ? segmentWeights_.data() : crossfadeWeights_.data();
  for (int c = 0; c < numChannels; ++c) {
    vu::RealToComplex(bins, re_[Size(c)], im_[Size(c)], t);
    // Out of place as well: FFTW's in-place complex-to-real plan spends a
    // copy of its own.
    fft_.FFT(t, windowed_, -1);
    float* sums = sums_[Size(c)];
    vu::Move(region - hop, sums + hop, sums);
    vu::Zero(hop, sums + (region - hop));
    const float* frame = windowed_ + regionStart_;
    for (std::size_t u = 0; u < region; ++u) sums[u] += frame[u] * weights[u];
  }
  readPos_ = 0;
  // The next frame starts H later; when its newest samples would not fit,
  // its first N - H move back to the start.
  historyOffset_ += hop_;
  if (historyOffset_ + fftSize_ > 2 * fftSize_) {
    for (int c = 0; c < numChannels_; ++c) {
      float* history = history_[Size(c)];
      vu::Move(n - hop, history + historyOffset_, history);
    }
    historyOffset_ = 0;
  }
}

}  // namespace dsp
