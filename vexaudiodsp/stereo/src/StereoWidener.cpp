#include "vexaudiodsp/stereo/StereoWidener.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace StereoWidener {
namespace {

constexpr double kRingMs = 15.0;

// Milliseconds to whole samples, half away from zero; unusable inputs give
// 0 so that a bad rate can never size or index the ring.
std::uint32_t MsToSamples(double ms, double rate) {
  const double samples = std::fabs(ms) * rate / 1000.0;
  if (!(samples >= 0.0) || !std::isfinite(samples)) return 0;
  return static_cast<std::uint32_t>(std::min(samples + 0.5, 4294967295.0));
}

}  // namespace

StereoWidener::StereoWidener(float sampleRate, unsigned int channelCount)
    : sampleRate_(sampleRate),
      channelCount_(channelCount),
      ring_(sampleRate > 0.0f ? MsToSamples(kRingMs, sampleRate) : 0, 0.0f) {}

StereoWidener::StereoWidener(const StereoWidener& other)
    : RefCountedInterface(),
      RefCountedObject(other),
      sampleRate_(other.sampleRate_),
      channelCount_(other.channelCount_),
      width_(other.width_),
      delay_(other.delay_),
      ring_(other.ring_),
      writeIndex_(other.writeIndex_),
      delayLength_(other.delayLength_) {}

StereoWidener::StereoWidener(StereoWidener&& other) noexcept
    : RefCountedInterface(),
      RefCountedObject(other),
      sampleRate_(other.sampleRate_),
      channelCount_(other.channelCount_),
      width_(other.width_),
      delay_(other.delay_),
      ring_(std::move(other.ring_)),
      writeIndex_(other.writeIndex_),
      delayLength_(other.delayLength_) {
  // The moved-from object keeps a valid, empty ring.
  other.writeIndex_ = 0;
  other.delayLength_ = 0;
}

StereoWidener::~StereoWidener() = default;

void StereoWidener::SetSampleRate(float sampleRate) {
  if (sampleRate == sampleRate_ || !(sampleRate > 0.0f)) return;
  sampleRate_ = sampleRate;
  UpdateDelayLength();
}

void StereoWidener::SetChannelCount(int channelCount) {
  channelCount_ = channelCount < 0 ? 0u : static_cast<std::uint32_t>(channelCount);
}

void StereoWidener::SetDelay(float ms) {
  if (std::isnan(ms)) return;
  delay_ = ms;
  UpdateDelayLength();
}

void StereoWidener::SetWidth(float width) {
  if (std::isnan(width)) return;
  width_ = width;
}

// The write index is only pulled back when it falls outside the new length:
// the cleared part of the ring is silence wherever writing resumes.
void StereoWidener::UpdateDelayLength() {
  const auto ringSize = static_cast<std::uint32_t>(ring_.size());
  delayLength_ = std::min(MsToSamples(delay_, sampleRate_), ringSize);
  vexaccelerate::utility::Zero(delayLength_, ring_.data());
  if (delayLength_ <= writeIndex_) writeIndex_ = delayLength_ == 0 ? 0 : delayLength_ - 1;
}

void StereoWidener::ProcessInPlace(unsigned int frames, float* const* channels) {
  if (channelCount_ != 2 || frames == 0) return;
  const float g = 1.0f + width_;
  float* left = channels[0];
  float* right = channels[1];
  const std::uint32_t length = delayLength_;
  // A ring of one sample returns what was just written: no delay.
  float* delayed = length <= 1 || delay_ == 0.0f ? nullptr : delay_ > 0.0f ? right : left;
  if (delayed != nullptr) {
    float* ring = ring_.data();
    std::uint32_t index = writeIndex_;
    for (unsigned int i = 0; i < frames; ++i) {
      ring[index] = delayed[i];
      if (++index == length) index = 0;
      delayed[i] = ring[index];
    }
    writeIndex_ = index;
  }
  for (unsigned int i = 0; i < frames; ++i) {
    const float l = left[i];
    const float r = right[i];
    const float s = l + r;
    const float d = (l - r) * g;
    left[i] = (s + d) * 0.5f;
    right[i] = (s - d) * 0.5f;
  }
}

}  // namespace StereoWidener
}  // namespace dsp
