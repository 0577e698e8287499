#include "vexaudiodsp/spectrummeter/SpectrumMeterDSP.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Transform.h"
#include "vexaccelerate/Utility.h"

namespace dsp {
namespace spectrummeter {
namespace {

namespace vu = vexaccelerate::utility;
namespace vt = vexaccelerate::transform;

constexpr float kThirdOctaveEdges[32] = {
    20.0f,       25.198421f,  31.748021f,  40.0f,       50.396842f,  63.496042f,  80.0f,       100.793684f,
    126.992084f, 160.0f,      201.587368f, 253.984168f, 320.0f,      403.174736f, 507.968337f, 640.0f,
    806.349472f, 1015.93667f, 1280.0f,     1612.69894f, 2031.87335f, 2560.0f,     3225.39789f, 4063.74669f,
    5120.0f,     6450.79578f, 8127.49338f, 10240.0f,    12901.5916f, 16254.9868f, 20480.0f,    25803.1831f};

constexpr float kCriticalEdges[26] = {20.0f,   100.0f,  200.0f,  300.0f,  400.0f,  510.0f,   630.0f,   770.0f,  920.0f,
                                      1080.0f, 1270.0f, 1480.0f, 1720.0f, 2000.0f, 2320.0f,  2700.0f,  3150.0f, 3700.0f,
                                      4400.0f, 5300.0f, 6400.0f, 7700.0f, 9500.0f, 12000.0f, 15500.0f, 20000.0f};

constexpr double kOverlapFraction[6] = {0.0, 0.1, 0.2, 0.3, 0.4, 0.5};
constexpr double kAverageMillis[6] = {0.0, 1000.0, 3000.0, 5000.0, 10000.0, 0.0};

bool IsAveragingWindow(SpectrumMeterDSP::AverageWindowSize a) {
  return a != SpectrumMeterDSP::kPeakHold && a != SpectrumMeterDSP::kInfinite;
}

}  // namespace

SpectrumMeterDSP::SpectrumMeterDSP(float sampleRate, int channels)
    : sampleRate_(std::isfinite(sampleRate) && sampleRate > 0.0f ? sampleRate : 48000.0f),
      channels_(std::max(channels, 0)) {
  RebuildFrame();
}

SpectrumMeterDSP::~SpectrumMeterDSP() { vt::FFTFree(fft_); }

int SpectrumMeterDSP::GetFFTBlockSize(FFTSize size) {
  return size >= kFFT512 && size <= kFFT8192 ? 512 << static_cast<int>(size) : 0;
}

float SpectrumMeterDSP::GetThirdOctaveBand(int i) { return i >= 0 && i < 32 ? kThirdOctaveEdges[i] : 0.0f; }
float SpectrumMeterDSP::GetCriticalBand(int i) { return i >= 0 && i < 26 ? kCriticalEdges[i] : 0.0f; }

void SpectrumMeterDSP::SetParams(SpectrumType type, AverageWindowSize average, FFTSize size, FFTOverlap overlap,
                                 FFTWindow window) {
  if (size != size_ && GetFFTBlockSize(size) != 0) {
    size_ = size;
    RebuildFrame();
  }
  SetSpectrumType(type);
  SetFFTOverlap(overlap);
  SetAverageWindow(average);
  SetFFTWindow(window);
}

void SpectrumMeterDSP::SetSpectrumType(SpectrumType type) {
  if (type == type_ || type < kLinear || type > kCriticalBand) return;
  type_ = type;
  RebuildBands();
  RebuildAverages();
}

void SpectrumMeterDSP::SetAverageWindow(AverageWindowSize average) {
  if (average == average_ || average < kPeakHold || average > kInfinite) return;
  average_ = average;
  RebuildAverages();
}

void SpectrumMeterDSP::SetFFTSize(FFTSize size) {
  if (size == size_ || GetFFTBlockSize(size) == 0) return;
  size_ = size;
  RebuildFrame();
}

void SpectrumMeterDSP::SetFFTOverlap(FFTOverlap overlap) {
  if (overlap == overlap_ || overlap < kOverlap0 || overlap > kOverlap50) return;
  overlap_ = overlap;
  hop_ = static_cast<int>((1.0 - kOverlapFraction[overlap_]) * n_);
  UpdateDecay();
  RebuildAverages();
}

void SpectrumMeterDSP::SetFFTWindow(FFTWindow window) {
  if (window == window_ || window < kHamming || window > kHann) return;
  window_ = window;
  RebuildWindow();
}

void SpectrumMeterDSP::SetSampleRate(float sampleRate) {
  if (!std::isfinite(sampleRate) || sampleRate <= 0.0f || sampleRate == sampleRate_) return;
  sampleRate_ = sampleRate;
  UpdateDecay();
  RebuildBands();
  RebuildAverages();
}

void SpectrumMeterDSP::SetChannelCount(int channels) { channels_ = std::max(channels, 0); }
void SpectrumMeterDSP::SetFlipChannelPhase(bool flip) { flipChannelPhase_ = flip; }

void SpectrumMeterDSP::SetPeakDecay(float decibelsPerSecond) {
  peakDecayDb_ = std::isfinite(decibelsPerSecond) ? std::max(decibelsPerSecond, 0.0f) : 0.0f;
  UpdateDecay();
}

void SpectrumMeterDSP::UpdateDecay() {
  const double k = -peakDecayDb_ / 20.0;
  decayPerFrame_ = static_cast<float>(std::pow(10.0, k * hop_ / sampleRate_));
}

void SpectrumMeterDSP::RebuildFrame() {
  n_ = GetFFTBlockSize(size_);
  hop_ = static_cast<int>((1.0 - kOverlapFraction[overlap_]) * n_);
  vt::FFTFree(fft_);
  fft_ = nullptr;
  int order = 9;
  while ((1 << order) < n_) ++order;
  vt::FFTInit(&fft_, order);
  int workBytes = 0;
  vt::FFTGetBufSize(fft_, &workBytes);
  fftWork_.assign(static_cast<std::size_t>(std::max(workBytes, 0)), 0);
  frame_.assign(static_cast<std::size_t>(n_), 0.0f);
  windowed_.assign(static_cast<std::size_t>(n_), 0.0f);
  spectrum_.assign(static_cast<std::size_t>(n_ + 2), 0.0f);
  magnitudes_.assign(static_cast<std::size_t>(n_ / 2 + 1), 0.0f);
  frameFill_ = 0;
  RebuildWindow();
  UpdateDecay();
  RebuildBands();
  RebuildAverages();
}

void SpectrumMeterDSP::RebuildWindow() {
  const auto n = static_cast<std::size_t>(n_);
  windowTable_.assign(n, 1.0f);
  switch (window_) {
    case kHamming:
      vu::WindowHamming(n, windowTable_.data());
      break;
    case kBlackman:
      // The classic Blackman window: 0.42 - 0.5 cos + 0.08 cos, the table's
      // parameter -0.16 in the sign convention of vexaccelerate.
      vu::WindowBlackman(n, windowTable_.data(), 0.16);
      break;
    case kBartlett:
      vu::WindowBartlett(n, windowTable_.data());
      break;
    case kKaiser:
      // The parameter 0.006 is per sample of half-length: beta grows with N.
      vu::WindowKaiser(n, windowTable_.data(), 0.006 * (n_ - 1) / 2.0);
      break;
    case kHann:
      vu::WindowHann(n, windowTable_.data());
      break;
  }
  const double sum = vu::Sum(n, windowTable_.data());
  const double sumSquares = vu::Dot(n, windowTable_.data(), windowTable_.data());
  gain_ = sum != 0.0 ? n_ / sum : 1.0;
  noiseBandwidth_ = sum != 0.0 && sumSquares > 0.0 ? n_ * sumSquares / (sum * sum) : 1.0;
}

void SpectrumMeterDSP::RebuildBands() {
  const int bins = n_ / 2 + 1;
  if (type_ == kLinear) {
    numValues_ = static_cast<unsigned>(bins);
    bandFirstBin_.clear();
    bandEndBin_.clear();
    return;
  }
  const float* edges = type_ == kThirdOctave ? kThirdOctaveEdges : kCriticalEdges;
  const int numBands = type_ == kThirdOctave ? 32 : 26;
  numValues_ = static_cast<unsigned>(numBands);
  bandFirstBin_.assign(static_cast<std::size_t>(numBands), 0);
  bandEndBin_.assign(static_cast<std::size_t>(numBands), 0);
  const double width = (sampleRate_ / 2.0) / bins;
  int band = -1;
  for (int k = 1; k < bins; ++k) {
    const double f = k * width;
    while (band + 1 < numBands && f >= edges[band + 1]) {
      ++band;
      bandFirstBin_[static_cast<std::size_t>(band)] = k;
      bandEndBin_[static_cast<std::size_t>(band)] = k;
    }
    if (band >= 0) bandEndBin_[static_cast<std::size_t>(band)] = k + 1;
  }
}

void SpectrumMeterDSP::RebuildAverages() {
  const auto values = static_cast<std::size_t>(numValues_);
  values_.assign(values, 0.0);
  runningSum_.assign(values, 0.0);
  const double millis = kAverageMillis[average_];
  if (IsAveragingWindow(average_)) {
    framesPerPartial_ = static_cast<int>(std::ceil(4.0 * millis / 10000.0));
    ringSize_ = std::max(0, static_cast<int>(std::ceil(millis / 1000.0 * sampleRate_ / hop_ * 0.25)));
  } else {
    framesPerPartial_ = 1;
    ringSize_ = 0;
  }
  ring_.assign(values * static_cast<std::size_t>(ringSize_), 0.0);
  ResetAverages();
}

void SpectrumMeterDSP::ResetAverages() {
  std::fill(values_.begin(), values_.end(), 0.0);
  std::fill(runningSum_.begin(), runningSum_.end(), 0.0);
  std::fill(ring_.begin(), ring_.end(), 0.0);
  ringFill_ = 0;
  ringWrite_ = 0;
  partialFrames_ = 0;
  cumulativeFrames_ = 0.0;
  newData_ = false;
  dataRead_ = false;
}

void SpectrumMeterDSP::Reset() {
  std::fill(frame_.begin(), frame_.end(), 0.0f);
  frameFill_ = 0;
  ResetAverages();
}

void SpectrumMeterDSP::Process(const float* const* channels, int frames,
                               vexcore::utility::Flags<std::uint64_t> channelMask) {
  if (frames <= 0 || n_ == 0) return;
  vu::ScopedFlushDenormals noDenormals;
  const float scale = channels_ > 1 ? 1.0f / static_cast<float>(channels_) : 1.0f;
  int done = 0;
  while (done < frames) {
    const int take = std::min(frames - done, n_ - frameFill_);
    float* dst = frame_.data() + frameFill_;
    const auto count = static_cast<std::size_t>(take);
    vu::Zero(count, dst);
    for (int ch = 0; ch < channels_ && channels != nullptr; ++ch) {
      if (channelMask.IsSet(static_cast<unsigned>(ch)) || channels[ch] == nullptr) continue;
      const float* src = channels[ch] + done;
      if (flipChannelPhase_ && (ch & 1) != 0) {
        for (std::size_t i = 0; i < count; ++i) dst[i] -= src[i];
      } else {
        vu::Add_InPlace(count, src, dst);
      }
    }
    if (scale != 1.0f) vu::MulConstant_InPlace(count, dst, scale);
    frameFill_ += take;
    done += take;
    if (frameFill_ == n_) {
      ProcessFrame();
      UpdateOverlappedSamples();
    }
  }
}

void SpectrumMeterDSP::UpdateOverlappedSamples() {
  const int keep = n_ - hop_;
  vu::Move(static_cast<std::size_t>(keep), frame_.data() + hop_, frame_.data());
  frameFill_ = keep;
}

void SpectrumMeterDSP::ProcessFrame() {
  const auto n = static_cast<std::size_t>(n_);
  vu::Mul(n, frame_.data(), windowTable_.data(), windowed_.data());
  vt::FFTFwd(fft_, windowed_.data(), spectrum_.data(), fftWork_.empty() ? nullptr : fftWork_.data());
  if (type_ == kLinear) {
    ProcessLinear();
  } else {
    ProcessBand();
  }
}

void SpectrumMeterDSP::ProcessLinear() {
  const double scale = 2.0 * gain_ / n_;
  const float* spectrum = spectrum_.data();
  float* mags = magnitudes_.data();
  const int bins = n_ / 2 + 1;
  for (int k = 0; k < bins; ++k) {
    const double re = spectrum[2 * k];
    const double im = spectrum[2 * k + 1];
    mags[k] = static_cast<float>(std::sqrt(re * re + im * im) * scale);
  }
  Accumulate(mags);
}

void SpectrumMeterDSP::ProcessBand() {
  const double scale = 2.0 * gain_ / n_;
  const double powerScale = scale * scale;
  const float* spectrum = spectrum_.data();
  float* mags = magnitudes_.data();
  float below = 0.0f;
  for (unsigned b = 0; b < numValues_; ++b) {
    const int first = bandFirstBin_[b];
    const int end = bandEndBin_[b];
    if (first == end) {
      mags[b] = below;
      continue;
    }
    double mean = 0.0;
    for (int k = first; k < end; ++k) {
      const double re = spectrum[2 * k];
      const double im = spectrum[2 * k + 1];
      const double power = (re * re + im * im) * powerScale;
      mean += (power - mean) / (k - first + 1);
    }
    // The mean times the bin count over the window's noise bandwidth is the
    // band's power on the scale of the linear values: a tone inside the band
    // reads its amplitude, whatever the frame size and window.
    mags[b] = static_cast<float>(std::sqrt(mean * (end - first) / noiseBandwidth_));
    below = mags[b];
  }
  Accumulate(mags);
}

void SpectrumMeterDSP::Accumulate(const float* magnitudes) {
  double* values = values_.data();
  const unsigned count = numValues_;
  switch (average_) {
    case kPeakHold: {
      const double decay = decayPerFrame_;
      for (unsigned i = 0; i < count; ++i) values[i] = std::max(values[i] * decay, double{magnitudes[i]});
      newData_ = true;
      return;
    }
    case kInfinite: {
      const double n = cumulativeFrames_;
      for (unsigned i = 0; i < count; ++i) values[i] = (values[i] * n + magnitudes[i]) / (n + 1.0);
      cumulativeFrames_ = n + 1.0;
      newData_ = true;
      return;
    }
    default:
      break;
  }
  double* sum = runningSum_.data();
  for (unsigned i = 0; i < count; ++i) sum[i] += magnitudes[i];
  if (++partialFrames_ < framesPerPartial_) return;
  partialFrames_ = 0;
  if (ringSize_ == 0) return;
  const double k = framesPerPartial_;
  double* slot = ring_.data() + static_cast<std::size_t>(ringWrite_) * count;
  const double c = ringFill_;
  if (ringFill_ < ringSize_) {
    for (unsigned i = 0; i < count; ++i) {
      const double partial = sum[i] / k;
      values[i] = (values[i] * c + partial) / (c + 1.0);
      slot[i] = partial;
      sum[i] = 0.0;
    }
    ++ringFill_;
  } else {
    for (unsigned i = 0; i < count; ++i) {
      const double partial = sum[i] / k;
      values[i] = (values[i] * c - slot[i] + partial) / c;
      slot[i] = partial;
      sum[i] = 0.0;
    }
  }
  ringWrite_ = (ringWrite_ + 1) % ringSize_;
  newData_ = true;
}

bool SpectrumMeterDSP::GetBands(float* out, unsigned& count, SpectrumType& type, bool peek) {
  type = type_;
  if ((!newData_ && !peek) || out == nullptr) {
    count = 0;
    return false;
  }
  for (unsigned i = 0; i < numValues_; ++i) out[i] = static_cast<float>(values_[i]);
  count = numValues_;
  if (!peek) {
    newData_ = false;
    dataRead_ = true;
  }
  return true;
}

}  // namespace spectrummeter
}  // namespace dsp
