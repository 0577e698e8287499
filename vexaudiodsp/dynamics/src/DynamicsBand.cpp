#include "vexaudiodsp/dynamics/DynamicsBand.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/dynamics/src/DynamicsMath.h"

namespace dsp {
namespace dynamics {

using detail::DbToLinear;
using detail::SmoothingFactor;
using detail::TimeCoefficient;

namespace {
constexpr float kMinLevel = 0.00001f;
constexpr float kGateMinLevel = 1e-8f;
constexpr float kDenormalOffset = 1e-10f;
constexpr float kMaxFloat = std::numeric_limits<float>::max();
}  // namespace

DynamicsBand::DynamicsBand(float sampleRate, const vexmediatypes::AudioChannelLayout& layout) {
  compThreshold_ = DbToLinear(compThresholdDb_);
  limThreshold_ = DbToLinear(limThresholdDb_);
  gateThreshold_ = DbToLinear(gateThresholdDb_);
  outputGain_ = DbToLinear(outputGainDb_);
  SetAudioConfig(sampleRate, static_cast<unsigned>(layout.size()));
}

void DynamicsBand::SetSampleRate(float sampleRate) { SetAudioConfig(sampleRate, numChannels_); }

void DynamicsBand::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  SetAudioConfig(sampleRate_, static_cast<unsigned>(layout.size()));
}

unsigned DynamicsBand::GetDelayLineSamples(float sampleRate) { return detail::DelayLineSamples(sampleRate); }

unsigned DynamicsBand::GetSystemDelay() const {
  const long d = std::lround(0.001 * static_cast<double>(sampleRate_) - 1.0);
  return d < 0 ? 0u : static_cast<unsigned>(d);
}

void DynamicsBand::SetAudioConfig(float sampleRate, unsigned channels) {
  sampleRate_ = sampleRate;
  numChannels_ = channels;
  delayLength_ = GetDelayLineSamples(sampleRate);
  delay_.assign(static_cast<std::size_t>(delayLength_) * channels, 0.0f);
  levels_.assign(channels, 0.0f);
  const auto ring = static_cast<std::size_t>(std::max(1.0f, 4.0f * sampleRate));
  makeup_.assign(ring, 1.0f);
  UpdateAllFactors();
  Reset();
}

void DynamicsBand::UpdateAllFactors() {
  UpdateCompFactors();
  UpdateLimFactors();
  UpdateGateFactors();
  UpdateMaxCompGain();
  peakDecay_ = detail::PeakDecayFactor(sampleRate_);
}

void DynamicsBand::UpdateCompFactors() {
  compAttack_ = TimeCoefficient(compAttackMs_, sampleRate_);
  compRelease_ = TimeCoefficient(compReleaseMs_, sampleRate_);
  const float shorter = std::min(compAttackMs_, compReleaseMs_);
  compSmoothing_ = SmoothingFactor(0.5f * shorter, sampleRate_);
  rmsFactor_ = SmoothingFactor(0.125f * shorter, sampleRate_);
}

void DynamicsBand::UpdateLimFactors() {
  limAttack_ = TimeCoefficient(limAttackMs_, sampleRate_);
  limRelease_ = TimeCoefficient(limReleaseMs_, sampleRate_);
}

void DynamicsBand::UpdateGateFactors() {
  gateAttack_ = TimeCoefficient(gateAttackMs_, sampleRate_);
  gateRelease_ = TimeCoefficient(gateReleaseMs_, sampleRate_);
  gateSmoothing_ = SmoothingFactor(0.5f * std::min(gateAttackMs_, gateReleaseMs_), sampleRate_);
}

void DynamicsBand::UpdateMaxCompGain() {
  maxCompGain_ = compRatio_ == 1.0f ? 1.0f : std::pow(limThreshold_ / compThreshold_, invCompRatio_ - 1.0f);
}

void DynamicsBand::EnforceCompThresholdConstraint() {
  compDisplayDb_ = compThresholdDb_;
  limDisplayDb_ = std::max(limDisplayDb_, compDisplayDb_);
  gateDisplayDb_ = std::min(gateDisplayDb_, compDisplayDb_);
}

void DynamicsBand::EnforceLimThresholdConstraint() {
  limDisplayDb_ = limThresholdDb_;
  compDisplayDb_ = std::min(compDisplayDb_, limDisplayDb_);
  gateDisplayDb_ = std::min(gateDisplayDb_, limDisplayDb_);
}

void DynamicsBand::EnforceGateThresholdConstraint() {
  gateDisplayDb_ = gateThresholdDb_;
  compDisplayDb_ = std::max(compDisplayDb_, gateDisplayDb_);
  limDisplayDb_ = std::max(limDisplayDb_, gateDisplayDb_);
}

void DynamicsBand::SetCompThreshold(float db) {
  compThresholdDb_ = db;
  compThreshold_ = DbToLinear(db);
  EnforceCompThresholdConstraint();
  UpdateMaxCompGain();
}

void DynamicsBand::SetCompRatio(float ratio) {
  compRatio_ = ratio;
  invCompRatio_ = 1.0f / ratio;
  UpdateMaxCompGain();
}

void DynamicsBand::SetCompAttack(float ms) {
  compAttackMs_ = ms;
  UpdateCompFactors();
}

void DynamicsBand::SetCompRelease(float ms) {
  compReleaseMs_ = ms;
  UpdateCompFactors();
}

void DynamicsBand::SetLimThreshold(float db) {
  limThresholdDb_ = db;
  limThreshold_ = DbToLinear(db);
  EnforceLimThresholdConstraint();
  UpdateMaxCompGain();
}

void DynamicsBand::SetLimRatio(float ratio) {
  limRatio_ = ratio;
  invLimRatio_ = 1.0f / ratio;
}

void DynamicsBand::SetLimAttack(float ms) {
  limAttackMs_ = ms;
  UpdateLimFactors();
}

void DynamicsBand::SetLimRelease(float ms) {
  limReleaseMs_ = ms;
  UpdateLimFactors();
}

void DynamicsBand::SetGateThreshold(float db) {
  gateThresholdDb_ = db;
  gateThreshold_ = DbToLinear(db);
  EnforceGateThresholdConstraint();
}

void DynamicsBand::SetGateRatio(float ratio) { gateRatio_ = ratio; }

void DynamicsBand::SetGateAttack(float ms) {
  gateAttackMs_ = ms;
  UpdateGateFactors();
}

void DynamicsBand::SetGateRelease(float ms) {
  gateReleaseMs_ = ms;
  UpdateGateFactors();
}

void DynamicsBand::SetOutputGain(float db) {
  outputGainDb_ = db;
  outputGain_ = DbToLinear(db);
}

void DynamicsBand::SetFactorDetection(float factor) { peakDecay_ = factor; }

void DynamicsBand::ResetDelayLine() {
  std::fill(delay_.begin(), delay_.end(), 0.0f);
  delayIndex_ = 0;
}

void DynamicsBand::Reset() {
  ResetDelayLine();
  peak_ = 0.0f;
  meanSquare_ = 0.0f;
  compEnvelope_ = compSmoothed_ = gateEnvelope_ = gateSmoothed_ = 1.0f;
  std::fill(levels_.begin(), levels_.end(), 0.0f);
  compHold_ = gateHold_ = 1.0f;
  // The make-up history starts at unity gain, so make-up begins at 0 dB.
  std::fill(makeup_.begin(), makeup_.end(), 1.0f);
  makeupSum_ = static_cast<double>(makeup_.size());
  makeupIndex_ = 0;
  denormalCounter_ = 0;
}

void DynamicsBand::GetLevels(std::vector<float>& levels) {
  if (levels.size() != levels_.size()) return;
  std::copy(levels_.begin(), levels_.end(), levels.begin());
  std::fill(levels_.begin(), levels_.end(), 0.0f);
}

float DynamicsBand::GetGainReduction() {
  const float g = compHold_;
  compHold_ = 1.0f;
  return g;
}

float DynamicsBand::GetGateGainReduction() {
  const float g = gateHold_;
  gateHold_ = 1.0f;
  return g;
}

void DynamicsBand::ProcessInPlace(unsigned frames, float* const* channels, const ChannelMask& skip,
                                  ChannelMask& skipOut) {
  Process(frames, channels, channels, skip, skipOut);
}

void DynamicsBand::Process(unsigned frames, const float* const* in, float* const* out, const ChannelMask& skip,
                           ChannelMask& skipOut) {
  skipOut = skip;
  if (frames == 0 || numChannels_ == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;

  const unsigned channels = numChannels_;
  unsigned active = 0;
  for (unsigned c = 0; c < channels; ++c) active += skip.IsSet(c) ? 0u : 1u;
  const float invActive = active > 0 ? 1.0f / static_cast<float>(active) : 0.0f;

  const bool rms = rms_, smoothing = autoSmoothing_, makeupOn = autoMakeup_;
  const float compThr = compThreshold_, limThr = limThreshold_, gateThr = gateThreshold_;
  const float invCompRatio = invCompRatio_, invLimRatio = invLimRatio_, gateRatio = gateRatio_;
  const float ca = compAttack_, cr = compRelease_, la = limAttack_, lr = limRelease_;
  const float ga = gateAttack_, gr = gateRelease_;
  const float compSmoothing = compSmoothing_, gateSmoothing = gateSmoothing_, rmsFactor = rmsFactor_;
  const float maxCompGain = maxCompGain_, outputGain = outputGain_, peakDecay = peakDecay_;
  const unsigned delayLength = delayLength_;
  const auto makeupLength = static_cast<unsigned>(makeup_.size());
  const double invMakeupLength = 1.0 / static_cast<double>(makeupLength);

  float peak = peak_, meanSquare = meanSquare_;
  float ec = compEnvelope_, sc = compSmoothed_, eg = gateEnvelope_, sg = gateSmoothed_;
  float compHold = compHold_, gateHold = gateHold_;
  unsigned delayIndex = delayIndex_, makeupIndex = makeupIndex_;
  double makeupSum = makeupSum_;
  std::uint8_t counter = denormalCounter_;
  float* levels = levels_.data();
  float* delay = delay_.data();
  float* makeup = makeup_.data();

  for (unsigned i = 0; i < frames; ++i) {
    // Detection over the active channels; non-finite samples are skipped.
    float level;
    if (rms) {
      float sum = 0.0f;
      for (unsigned c = 0; c < channels; ++c) {
        if (skip.IsSet(c)) continue;
        const float x = in[c][i];
        const float a = std::fabs(x);
        if (a <= kMaxFloat) {
          sum += x * x;
          levels[c] = a > levels[c] ? a : levels[c];
        }
      }
      if (!(sum <= kMaxFloat)) sum = kMaxFloat;
      meanSquare += (sum * invActive - meanSquare) * rmsFactor;
      level = std::sqrt(meanSquare);
    } else {
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
      }
      level = peak;
    }
    const float l = std::max(level, kMinLevel);

    const float gc = (l >= compThr && invCompRatio != 1.0f) ? std::pow(l / compThr, invCompRatio - 1.0f) : 1.0f;
    const float gl = (l >= limThr && invLimRatio != 1.0f) ? std::pow(l / limThr, invLimRatio - 1.0f) : 1.0f;
    const float gg =
        (gateThr > l && gateRatio != 1.0f && l >= kGateMinLevel) ? std::pow(l / gateThr, gateRatio - 1.0f) : 1.0f;

    if (l <= gateThr) {
      eg += (gg - eg) * (1.0f - gr);
    } else if (eg != 1.0f) {
      eg = eg * ga + (1.0f - ga);
    }

    if (l >= limThr) {
      const float target = gl * maxCompGain;
      if (ec > target) {
        ec += (target - ec) * (1.0f - la);
      } else {
        ec = ec * lr + (1.0f - lr);
      }
    } else if (ec > gc) {
      ec += (gc - ec) * (1.0f - ca);
    } else {
      ec = ec * cr + (1.0f - cr);
    }

    const unsigned write = delayIndex;
    delayIndex = delayIndex + 1 == delayLength ? 0 : delayIndex + 1;

    float gate = eg, comp = ec;
    if (smoothing) {
      sg += (eg - sg) * gateSmoothing;
      sc += (ec - sc) * compSmoothing;
      gate = sg;
      comp = sc;
    }
    compHold = std::min(compHold, comp);
    gateHold = std::min(gateHold, gate);

    float g = gate * comp;
    makeupSum -= static_cast<double>(makeup[makeupIndex]);
    // A gain that underflows to 0 would put infinity into the running sum,
    // and infinity minus infinity there would never leave it.
    const float inverse = 1.0f / g;
    makeup[makeupIndex] = std::min(inverse * inverse, kMaxFloat);
    makeupSum += static_cast<double>(makeup[makeupIndex]);
    makeupIndex = makeupIndex + 1 == makeupLength ? 0 : makeupIndex + 1;
    if (makeupOn) g *= static_cast<float>(std::sqrt(makeupSum * invMakeupLength));
    g *= outputGain;

    const float offset = counter < 128 ? kDenormalOffset : -kDenormalOffset;
    ++counter;
    for (unsigned c = 0; c < channels; ++c) {
      if (skip.IsSet(c)) continue;
      float* ring = delay + static_cast<std::size_t>(c) * delayLength;
      ring[write] = in[c][i];
      out[c][i] = g * ring[delayIndex] + offset;
    }
  }

  peak_ = peak;
  meanSquare_ = meanSquare;
  compEnvelope_ = ec;
  compSmoothed_ = sc;
  gateEnvelope_ = eg;
  gateSmoothed_ = sg;
  compHold_ = compHold;
  gateHold_ = gateHold;
  delayIndex_ = delayIndex;
  makeupIndex_ = makeupIndex;
  makeupSum_ = makeupSum;
  denormalCounter_ = counter;
}

}  // namespace dynamics
}  // namespace dsp
