#include "vexaudiodsp/dynamics/SingleBandCompressorDSP.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/dynamics/src/DynamicsMath.h"

namespace dsp {
namespace dynamics {

namespace {
constexpr float kMinLevel = 0.00001f;
constexpr float kPeakFloor = 1e-15f;
// 20 / ln(10): natural log to dB.
constexpr float kLogToDb = 8.685889f;
constexpr float kMaxReductionDb = 400.0f;
constexpr float kMaxFloat = std::numeric_limits<float>::max();
}  // namespace

SingleBandCompressorDSP::SingleBandCompressorDSP(float sampleRate, const vexmediatypes::AudioChannelLayout& layout) {
  threshold_ = detail::DbToLinear(thresholdDb_);
  outputGain_ = detail::DbToLinear(outputGainDb_);
  SetAudioConfig(sampleRate, static_cast<unsigned>(layout.size()));
}

void SingleBandCompressorDSP::SetSampleRate(float sampleRate) { SetAudioConfig(sampleRate, numChannels_); }

void SingleBandCompressorDSP::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  SetAudioConfig(sampleRate_, static_cast<unsigned>(layout.size()));
}

void SingleBandCompressorDSP::SetAudioConfig(float sampleRate, unsigned channels) {
  sampleRate_ = sampleRate;
  numChannels_ = channels;
  delayLength_ = detail::DelayLineSamples(sampleRate);
  delay_.assign(static_cast<std::size_t>(delayLength_) * channels, 0.0f);
  levels_.assign(channels, 0.0f);
  makeupDb_.assign(static_cast<std::size_t>(std::max(1.0f, 2.0f * sampleRate)), 0.0f);
  UpdateFactors();
  peakDecay_ = detail::PeakDecayFactor(sampleRate);
  Reset();
}

unsigned SingleBandCompressorDSP::GetLatency() const {
  const double d = 0.001 * static_cast<double>(sampleRate_) - 1.0;
  return d < 0.0 ? 0u : static_cast<unsigned>(d);
}

void SingleBandCompressorDSP::UpdateFactors() {
  attack_ = detail::TimeCoefficient(attackMs_, sampleRate_);
  release_ = detail::TimeCoefficient(releaseMs_, sampleRate_);
  smoothing_ = detail::SmoothingFactor(0.5f * std::min(attackMs_, releaseMs_), sampleRate_);
}

void SingleBandCompressorDSP::SetThreshold(float db) {
  thresholdDb_ = db;
  threshold_ = detail::DbToLinear(db);
}

void SingleBandCompressorDSP::SetRatio(float ratio) {
  ratio_ = ratio;
  invRatio_ = 1.0f / ratio;
}

void SingleBandCompressorDSP::SetAttack(float ms) {
  attackMs_ = ms;
  UpdateFactors();
}

void SingleBandCompressorDSP::SetRelease(float ms) {
  releaseMs_ = ms;
  UpdateFactors();
}

void SingleBandCompressorDSP::SetOutputGain(float db) {
  outputGainDb_ = db;
  outputGain_ = detail::DbToLinear(db);
}

void SingleBandCompressorDSP::Reset() {
  std::fill(delay_.begin(), delay_.end(), 0.0f);
  delayIndex_ = 0;
  peak_ = 0.0f;
  envelope_ = smoothed_ = 1.0f;
  std::fill(levels_.begin(), levels_.end(), 0.0f);
  hold_ = 1.0f;
  std::fill(makeupDb_.begin(), makeupDb_.end(), 0.0f);
  makeupSum_ = 0.0;
  makeupIndex_ = 0;
}

void SingleBandCompressorDSP::GetLevels(std::vector<float>& levels) {
  if (levels.size() != levels_.size()) return;
  std::copy(levels_.begin(), levels_.end(), levels.begin());
  std::fill(levels_.begin(), levels_.end(), 0.0f);
}

float SingleBandCompressorDSP::GetGainReduction() {
  const float g = hold_;
  hold_ = 1.0f;
  return g;
}

void SingleBandCompressorDSP::Process(float** in, float** out, int frames, const ChannelMask& skip) {
  if (frames <= 0 || numChannels_ == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;

  const unsigned channels = numChannels_;
  const float threshold = threshold_, invRatio = invRatio_, outputGain = outputGain_;
  const float attack = attack_, release = release_, smoothing = smoothing_, peakDecay = peakDecay_;
  const bool makeupOn = autoMakeup_;
  const unsigned delayLength = delayLength_;
  const auto makeupLength = static_cast<unsigned>(makeupDb_.size());
  const double invMakeupLength = 1.0 / static_cast<double>(makeupLength);

  float peak = peak_, ec = envelope_, sc = smoothed_, hold = hold_;
  unsigned delayIndex = delayIndex_, makeupIndex = makeupIndex_;
  double makeupSum = makeupSum_;
  float* levels = levels_.data();
  float* delay = delay_.data();
  float* makeup = makeupDb_.data();

  for (int i = 0; i < frames; ++i) {
    float p = 0.0f;
    for (unsigned c = 0; c < channels; ++c) {
      if (skip.IsSet(c)) continue;
      const float a = std::fabs(in[c][i]);
      if (a <= kMaxFloat) {
        p = a > p ? a : p;
        levels[c] = a > levels[c] ? a : levels[c];
      }
    }
    if (p > peak) {
      peak = p;
    } else {
      peak *= peakDecay;
      if (peak < kPeakFloor) peak = 0.0f;
    }
    const float l = std::max(peak, kMinLevel);
    const float gc = (l >= threshold && invRatio != 1.0f) ? std::pow(l / threshold, invRatio - 1.0f) : 1.0f;
    if (ec > gc) {
      ec += (gc - ec) * (1.0f - attack);
    } else {
      ec = ec * release + (1.0f - release);
    }
    sc += (ec - sc) * smoothing;
    hold = std::min(hold, sc);

    float g = outputGain * sc;
    makeupSum -= static_cast<double>(makeup[makeupIndex]);
    makeup[makeupIndex] = sc < 1e-20f ? kMaxReductionDb : -std::log(sc) * kLogToDb;
    makeupSum += static_cast<double>(makeup[makeupIndex]);
    makeupIndex = makeupIndex + 1 == makeupLength ? 0 : makeupIndex + 1;
    if (makeupOn) g *= std::exp(detail::kDbToLog * static_cast<float>(makeupSum * invMakeupLength));

    const unsigned write = delayIndex;
    delayIndex = delayIndex + 1 == delayLength ? 0 : delayIndex + 1;
    for (unsigned c = 0; c < channels; ++c) {
      if (skip.IsSet(c)) continue;
      float* ring = delay + static_cast<std::size_t>(c) * delayLength;
      ring[write] = in[c][i];
      out[c][i] = g * ring[delayIndex];
    }
  }

  peak_ = peak;
  envelope_ = ec;
  smoothed_ = sc;
  hold_ = hold;
  delayIndex_ = delayIndex;
  makeupIndex_ = makeupIndex;
  makeupSum_ = makeupSum;
}

}  // namespace dynamics
}  // namespace dsp
