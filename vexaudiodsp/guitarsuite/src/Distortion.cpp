#include "vexaudiodsp/guitarsuite/Distortion.h"

#include <algorithm>
#include <cmath>

#include "vexaudiodsp/guitarsuite/GarageFuzz.h"
#include "vexaudiodsp/guitarsuite/SmoothOverdrive.h"
#include "vexaudiodsp/guitarsuite/StraightFuzz.h"

namespace dsp {
namespace guitarsuite {
namespace {

// The library's dB-to-linear constant of the guitar and dynamics classes:
// ln(10) / 20.
constexpr double kDbToNeper = 0.115129255;

float FromDb(double dB) { return static_cast<float>(std::exp(dB * kDbToNeper)); }

float Clamp(float value, Distortion::Range range) {
  if (std::isnan(value)) return range.minimum;
  return std::min(std::max(value, range.minimum), range.maximum);
}

}  // namespace

Distortion::Distortion(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : layout_(layout), sampleRate_(sampleRate) {
  inputGain_ = FromDb(inputGainDb_);
  drive_ = FromDb(Normalised(overdrive_, kOverdriveRange) * 40.0);
  outputGain_ = FromDb(outputGainDb_);
}

Distortion::Distortion(const Distortion& other) = default;
Distortion& Distortion::operator=(const Distortion& other) = default;
Distortion::~Distortion() = default;

double Distortion::Normalised(float value, Range range) {
  if (range.maximum == range.minimum) return 0.0;
  return (static_cast<double>(value) - range.minimum) / (static_cast<double>(range.maximum) - range.minimum);
}

void Distortion::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) { layout_ = layout; }

void Distortion::SetInputGain(float dB) {
  inputGainDb_ = Clamp(dB, kInputGainRange);
  inputGain_ = FromDb(inputGainDb_);
}

void Distortion::SetOverdrive(float value) {
  overdrive_ = Clamp(value, kOverdriveRange);
  drive_ = FromDb(Normalised(overdrive_, kOverdriveRange) * 40.0);
}

void Distortion::SetTrash(float value) {
  trash_ = Clamp(value, kTrashRange);
  UpdateFactors();
}

void Distortion::SetMixPercent(float percent) {
  mixPercent_ = Clamp(percent, kMixRange);
  UpdateFactors();
}

void Distortion::SetOutputGain(float dB) {
  outputGainDb_ = Clamp(dB, kOutputGainRange);
  outputGain_ = FromDb(outputGainDb_);
}

namespace garagefuzz {

GarageFuzz::GarageFuzz(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : Distortion(sampleRate, layout) {
  UpdateFactors();
}
GarageFuzz::GarageFuzz(const GarageFuzz& other) = default;
GarageFuzz& GarageFuzz::operator=(const GarageFuzz& other) = default;
GarageFuzz::~GarageFuzz() = default;

void GarageFuzz::UpdateFactors() {
  trashFactor_ = static_cast<float>(1.0 + 9.0 * Normalised(trash_, kTrashRange));
  const float m = mixPercent_ / 100.0f;
  dry_ = 1.0f - m;
  wet_ = m;
}

void GarageFuzz::ProcessInPlace(unsigned frames, float* const* channels,
                                const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  const float gIn = inputGain_;
  const float slope = trashFactor_ * drive_;
  const float dry = dry_;
  const float wet = wet_;
  const float gOut = outputGain_;
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    float* x = channels[ch];
    if (x == nullptr || skip.IsSet(ch)) continue;
    for (unsigned i = 0; i < frames; ++i) {
      const float u = gIn * x[i];
      // 2 (1 / (1 + e^-a) - 0.5) is tanh(a / 2); tanh keeps full precision
      // near zero, where the logistic form cancels.
      const float s = std::tanh(0.5f * slope * u);
      x[i] = (wet * s + dry * u) * gOut;
    }
  }
}

}  // namespace garagefuzz

namespace smoothoverdrive {

SmoothOverdrive::SmoothOverdrive(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : Distortion(sampleRate, layout) {
  UpdateFactors();
}
SmoothOverdrive::SmoothOverdrive(const SmoothOverdrive& other) = default;
SmoothOverdrive& SmoothOverdrive::operator=(const SmoothOverdrive& other) = default;
SmoothOverdrive::~SmoothOverdrive() = default;

void SmoothOverdrive::UpdateFactors() {
  trashFactor_ = FromDb(Normalised(trash_, kTrashRange) * 30.0);
  const float m = mixPercent_ / 100.0f;
  dry_ = 1.0f - m;
  wet_ = m * 0.50118726f;
}

void SmoothOverdrive::ProcessInPlace(unsigned frames, float* const* channels,
                                     const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  const float gIn = inputGain_;
  const float dry = dry_;
  const float wet = wet_;
  const float gOut = outputGain_;
  const float slope = drive_ * trashFactor_;
  const bool clean = trashFactor_ == 1.0f;
  const float cleanGain = wet * drive_ + dry;
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    float* x = channels[ch];
    if (x == nullptr || skip.IsSet(ch)) continue;
    if (clean) {
      // Trash at 0 is a clean boost, deliberately without the output gain.
      for (unsigned i = 0; i < frames; ++i) x[i] = cleanGain * (gIn * x[i]);
      continue;
    }
    for (unsigned i = 0; i < frames; ++i) {
      const float u = gIn * x[i];
      const float v = slope * u;
      const float s = v > 0.0f ? 1.0f - 1.0f / (1.0f + v) : 1.0f / (1.0f - v) - 1.0f;
      x[i] = (dry * u + wet * s) * gOut;
    }
  }
}

}  // namespace smoothoverdrive

namespace straightfuzz {

StraightFuzz::StraightFuzz(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : Distortion(sampleRate, layout) {
  UpdateFactors();
}
StraightFuzz::StraightFuzz(const StraightFuzz& other) = default;
StraightFuzz& StraightFuzz::operator=(const StraightFuzz& other) = default;
StraightFuzz::~StraightFuzz() = default;

void StraightFuzz::UpdateFactors() {
  const double t = Normalised(trash_, kTrashRange);
  clipLevel_ = FromDb(t * -51.2);
  trashGain_ = FromDb(t * 35.0);
  const float m = mixPercent_ / 100.0f;
  dry_ = 1.0f - m;
  wet_ = m * 0.70794576f;
}

void StraightFuzz::ProcessInPlace(unsigned frames, float* const* channels,
                                  const vexcore::utility::Flags<std::uint64_t>& skip) {
  const unsigned numChannels = GetNumChannels();
  if (channels == nullptr || numChannels == 0 || channels[0] == nullptr) return;
  const float gIn = inputGain_;
  const float drive = drive_;
  const float clip = clipLevel_;
  const float wetGain = wet_ * trashGain_;
  const float dry = dry_;
  const float gOut = outputGain_;
  for (unsigned i = 0; i < frames; ++i) {
    // The detector links the channels: it sees every processed channel and
    // channel 0 even when that one is skipped.
    float peak = std::fabs(channels[0][i] * drive);
    for (unsigned ch = 1; ch < numChannels; ++ch) {
      if (channels[ch] != nullptr && !skip.IsSet(ch)) peak = std::max(peak, std::fabs(channels[ch][i] * drive));
    }
    const bool clipped = peak > clip;
    for (unsigned ch = 0; ch < numChannels; ++ch) {
      float* x = channels[ch];
      if (x == nullptr || skip.IsSet(ch)) continue;
      const float u = gIn * x[i];
      const float v = drive * u;
      const float shaped = clipped ? (v > 0.0f ? clip : -clip) : v;
      x[i] = (dry * u + wetGain * shaped) * gOut;
    }
  }
}

}  // namespace straightfuzz
}  // namespace guitarsuite
}  // namespace dsp
