#include "vexaudiodsp/stereo/HarmonicExciter.h"

#include <cmath>
#include <cstddef>
#include <utility>

#include "vexaccelerate/Denormals.h"

namespace dsp {
namespace HarmonicExciter {

const float kAmountMinimum = 0.0f;
const float kAmountMaximum = 15.0f;

namespace {

constexpr float kDbToNeper = 0.115129255f;  // ln(10) / 20
constexpr float kHalfPi = 1.57079632679f;
// The Tape curve gains this much extra drive over the amount range.
constexpr float kTapeDriveRangeDb = 10.0f;

}  // namespace

HarmonicExciter::HarmonicExciter(float sampleRate, int channelCount)
    : sampleRate_(sampleRate), channelCount_(channelCount < 0 ? 0 : channelCount) {
  UpdateSampleRate();
  UpdateChannelCount();
  SetAmount(amount_);
  SetMixPercent(mix_);
}

HarmonicExciter::HarmonicExciter(const HarmonicExciter& other) = default;
HarmonicExciter::HarmonicExciter(HarmonicExciter&& other) noexcept
    : RefCountedInterface(),
      RefCountedObject(other),
      sampleRate_(other.sampleRate_),
      channelCount_(other.channelCount_),
      mode_(other.mode_),
      amount_(other.amount_),
      mix_(other.mix_),
      driveGain_(other.driveGain_),
      tapeScale_(other.tapeScale_),
      tapeNormaliser_(other.tapeNormaliser_),
      envelopeCoefficient_(other.envelopeCoefficient_),
      tubeGain_(other.tubeGain_),
      envelopes_(std::move(other.envelopes_)),
      mixFraction_(other.mixFraction_),
      tapeDrive_(other.tapeDrive_) {
  // The moved-from object has no envelopes left, so it processes no channel.
  other.channelCount_ = 0;
}
HarmonicExciter::~HarmonicExciter() = default;

void HarmonicExciter::SetSampleRate(float sampleRate) {
  if (sampleRate == sampleRate_ || std::isnan(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateSampleRate();
}

// One-pole follower whose corner rises less than proportionally with the
// Nyquist frequency: 0.0476 at 44.1 kHz, 0.0465 at 48 kHz. A rate that is not
// positive leaves a follower that never moves.
void HarmonicExciter::UpdateSampleRate() {
  if (!(sampleRate_ > 0.0f) || !std::isfinite(sampleRate_)) {
    envelopeCoefficient_ = 0.0f;
    return;
  }
  const double nyquist = sampleRate_ * 0.5;
  envelopeCoefficient_ = static_cast<float>(1.0 - std::exp(-0.2 * 200.0 * std::pow(nyquist / 200.0, 0.7) / nyquist));
}

void HarmonicExciter::SetChannelCount(int channelCount) {
  if (channelCount < 0) channelCount = 0;
  if (channelCount == channelCount_) return;
  channelCount_ = channelCount;
  UpdateChannelCount();
}

void HarmonicExciter::UpdateChannelCount() { envelopes_.resize(static_cast<std::size_t>(channelCount_), 0.0f); }

void HarmonicExciter::SetAmount(float dB) {
  if (std::isnan(dB)) return;
  amount_ = dB;
  driveGain_ = std::exp(kDbToNeper * dB);
  tubeGain_ = std::exp((dB - 7.0f) * 0.5f * kDbToNeper);
  const float range = kAmountMaximum - kAmountMinimum;
  const float extraDb = range == 0.0f ? 0.0f : (dB - kAmountMinimum) / range * kTapeDriveRangeDb;
  tapeDrive_ = std::exp(kDbToNeper * extraDb);
}

void HarmonicExciter::SetMixPercent(float percent) {
  if (std::isnan(percent)) return;
  mix_ = percent;
  mixFraction_ = percent / 100.0f;
}

float HarmonicExciter::GetEnvelope(int channel) const {
  return channel < 0 || channel >= channelCount_ ? 0.0f : envelopes_[static_cast<std::size_t>(channel)];
}

void HarmonicExciter::ClearEnvelopes() {
  for (float& e : envelopes_) e = 0.0f;
}

void HarmonicExciter::ProcessInPlace(unsigned int frames, float* const* channels) {
  if (!(amount_ > kAmountMinimum) || frames == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals flush;
  switch (mode_) {
    case kRetro:
      ProcessInPlaceRetro(frames, channels);
      break;
    case kTape:
      ProcessInPlaceTape(frames, channels);
      break;
    case kTube:
      ProcessInPlaceTube(frames, channels);
      break;
    default:
      break;
  }
}

// Channels are independent, so each is run through the whole block in turn;
// the result equals the frame-by-frame order.
void HarmonicExciter::ProcessInPlaceRetro(unsigned int frames, float* const* channels) const {
  const float drive = driveGain_;
  const float m = mixFraction_;
  const float dry = 1.0f - m;
  for (int ch = 0; ch < channelCount_; ++ch) {
    float* x = channels[ch];
    for (unsigned int i = 0; i < frames; ++i) {
      const float y = drive * x[i];
      const float s = y > 0.0f ? 1.0f - 1.0f / (y + 1.0f) : 1.0f / (1.0f - y) - 1.0f;
      x[i] = x[i] * dry + s * m;
    }
  }
}

void HarmonicExciter::ProcessInPlaceTape(unsigned int frames, float* const* channels) const {
  const float k = tapeScale_ * kHalfPi * tapeDrive_;
  const float wet = mixFraction_ / tapeNormaliser_;
  const float dry = 1.0f - mixFraction_;
  for (int ch = 0; ch < channelCount_; ++ch) {
    float* x = channels[ch];
    for (unsigned int i = 0; i < frames; ++i) {
      x[i] = std::sin(k * x[i]) * wet + x[i] * dry;
    }
  }
}

void HarmonicExciter::ProcessInPlaceTube(unsigned int frames, float* const* channels) {
  const float c = envelopeCoefficient_;
  const float m = mixFraction_;
  const float tube = tubeGain_;
  const float dryGain = 1.0f + 0.2f * amount_ * m;
  const float wet = 0.02f * m;
  for (int ch = 0; ch < channelCount_; ++ch) {
    float* x = channels[ch];
    float e = envelopes_[static_cast<std::size_t>(ch)];
    for (unsigned int i = 0; i < frames; ++i) {
      const float v = x[i];
      e += (std::fabs(v) - e) * c;
      // Below -60 dB the normaliser stops growing, so near-silence is not
      // blown up to full scale.
      const float inverse = e < 0.001f ? 1000.0f : 1.0f / e;
      const float u = tube * v * inverse;
      x[i] = v * dryGain + e * wet * u * u * (u + 1.0f);
    }
    envelopes_[static_cast<std::size_t>(ch)] = e;
  }
}

}  // namespace HarmonicExciter
}  // namespace dsp
