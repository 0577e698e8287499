#include "vexaudiodsp/loudness/Itu1770.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

// BS.1770-4 analogue prototypes of the two K-weighting stages.
constexpr double kPi = 3.14159265358979323846;
constexpr double kShelfFrequency = 1681.974450955533;
constexpr double kShelfQ = 0.7071067811865476;
constexpr double kShelfVh = 1.584864701130855;
constexpr double kShelfVb = 1.258720930232562;
constexpr double kHighPassFrequency = 38.13547087602444;
constexpr double kHighPassQ = 0.5003270373238773;

// 10^((-70 + 0.691) / 10): a block must be louder than -70 LKFS.
constexpr double kAbsoluteGatePower = 1.1724653045822981e-07;
constexpr float kSurroundWeight = 1.41f;
constexpr double kLoudnessOffset = -0.691;
constexpr double kFloorLkfs = -300.0;
constexpr double kReservedSeconds = 24.0 * 3600.0;

double RoundToFloat(double v) { return static_cast<double>(static_cast<float>(v)); }

}  // namespace

void Itu1770::DesignKWeighting(double sampleRate, SecondOrderIIRCoefficients& shelf,
                               SecondOrderIIRCoefficients& highPass) {
  {
    const double k = std::tan(kPi * kShelfFrequency / sampleRate);
    const double kq = k / kShelfQ;
    const double a0 = 1.0 + kq + k * k;
    shelf.b0 = RoundToFloat((kShelfVh + kShelfVb * kq + k * k) / a0);
    shelf.b1 = RoundToFloat(2.0 * (k * k - kShelfVh) / a0);
    shelf.b2 = RoundToFloat((kShelfVh - kShelfVb * kq + k * k) / a0);
    shelf.a1 = RoundToFloat(2.0 * (k * k - 1.0) / a0);
    shelf.a2 = RoundToFloat((1.0 - kq + k * k) / a0);
  }
  {
    const double k = std::tan(kPi * kHighPassFrequency / sampleRate);
    const double kq = k / kHighPassQ;
    const double a0 = 1.0 + kq + k * k;
    highPass.b0 = RoundToFloat(1.0 / a0);
    highPass.b1 = RoundToFloat(-2.0 / a0);
    highPass.b2 = RoundToFloat(1.0 / a0);
    highPass.a1 = RoundToFloat(2.0 * (k * k - 1.0) / a0);
    highPass.a2 = RoundToFloat((1.0 - kq + k * k) / a0);
  }
}

std::vector<Itu1770::ChannelLabel> Itu1770::LabelsFromLayout(const vexmediatypes::AudioChannelLayout& layout) {
  using vexmediatypes::AudioChannelLabel;
  std::vector<ChannelLabel> labels;
  labels.reserve(layout.size());
  for (const auto& channel : layout) {
    switch (channel.GetLabel()) {
      case AudioChannelLabel::kLeft:
        labels.push_back(kLeft);
        break;
      case AudioChannelLabel::kRight:
        labels.push_back(kRight);
        break;
      case AudioChannelLabel::kCenter:
        labels.push_back(kCenter);
        break;
      case AudioChannelLabel::kLFE:
        labels.push_back(kLowFrequencyEffects);
        break;
      case AudioChannelLabel::kLeftSurround:
      case AudioChannelLabel::kLeftBack:
        labels.push_back(kLeftSurround);
        break;
      case AudioChannelLabel::kRightSurround:
      case AudioChannelLabel::kRightBack:
        labels.push_back(kRightSurround);
        break;
      default:
        labels.push_back(kOther);
        break;
    }
  }
  return labels;
}

void Itu1770::Init(std::size_t maxFrames, int sampleRate, const std::vector<ChannelLabel>& labels) {
  SecondOrderIIRCoefficients shelf, highPass;
  DesignKWeighting(static_cast<double>(sampleRate), shelf, highPass);

  maxFrames_ = maxFrames;
  blockLength_ = sampleRate > 0 ? static_cast<std::size_t>(0.4 * static_cast<double>(sampleRate)) : 0;
  overlap_ = (blockLength_ * 3) >> 2;
  fill_ = 0;
  channelsZero_ = vexcore::utility::Flags<std::uint64_t>();

  channels_.clear();
  blockBuffers_.clear();
  // A block shorter than four samples would have no step between blocks.
  if (blockLength_ < 4 || maxFrames == 0) {
    blockLength_ = 0;
    overlap_ = 0;
    blockPowers_.clear();
    return;
  }
  channels_.resize(labels.size());
  blockBuffers_.resize(labels.size());
  moved_.assign(labels.size(), nullptr);
  for (std::size_t i = 0; i < labels.size(); ++i) {
    Channel& c = channels_[i];
    c.label = labels[i];
    c.weight = (labels[i] == kLeftSurround || labels[i] == kRightSurround) ? kSurroundWeight : 1.0f;
    c.scratch.assign(maxFrames, 0.0f);
    c.shelf.SetCoefficients(shelf);
    c.highPass.SetCoefficients(highPass);
    blockBuffers_[i].assign(blockLength_ + maxFrames, 0.0f);
  }
  blockPowers_.clear();
  blockPowers_.shrink_to_fit();
  const double blocksPerSecond = static_cast<double>(sampleRate) / static_cast<double>(GetStepLength());
  blockPowers_.reserve(static_cast<std::size_t>(kReservedSeconds * blocksPerSecond) + 1);
}

void Itu1770::SetChannelsZero(const vexcore::utility::Flags<std::uint64_t>& zero) {
  if (&zero == &channelsZero_) return;
  channelsZero_ = zero;
}

float Itu1770::GetChannelWeight(std::size_t channel) const {
  if (channel >= channels_.size() || channels_[channel].label == kLowFrequencyEffects) return 0.0f;
  return channels_[channel].weight;
}

const float* Itu1770::GetWeightedSamples(std::size_t channel) const {
  if (channel >= channels_.size() || channels_[channel].label == kLowFrequencyEffects) return nullptr;
  return channels_[channel].scratch.data();
}

double Itu1770::SquareSum(const float* x, std::size_t n) const {
  // vexaccelerate's dot product keeps sixteen double partial sums.
  return n == 0 ? 0.0 : vexaccelerate::utility::Dot(n, x, x);
}

void Itu1770::Process(const float* const* channels, std::size_t frames) {
  if (channels_.empty() || blockLength_ == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals ftz;
  for (std::size_t done = 0; done < frames;) {
    const std::size_t n = std::min(maxFrames_, frames - done);
    if (done == 0) {
      ProcessPiece(channels, n);
    } else {
      for (std::size_t c = 0; c < channels_.size(); ++c) moved_[c] = channels[c] + done;
      ProcessPiece(moved_.data(), n);
    }
    done += n;
  }
}

void Itu1770::ProcessPiece(const float* const* channels, std::size_t frames) {
  const std::size_t count = channels_.size();
  // Channels that are filtered this block, taken in pairs so that their
  // recursions run interleaved.
  Channel* pending = nullptr;
  std::size_t pendingIndex = 0;
  for (std::size_t i = 0; i < count; ++i) {
    Channel& c = channels_[i];
    if (c.label == kLowFrequencyEffects) continue;
    if (channelsZero_.IsSet(static_cast<unsigned>(i % 64))) {
      vexaccelerate::utility::Zero(frames, c.scratch.data());
      vexaccelerate::utility::Zero(frames, blockBuffers_[i].data() + fill_);
      continue;
    }
    if (pending == nullptr) {
      pending = &c;
      pendingIndex = i;
      continue;
    }
    SecondOrderIIRFilter* const first[2] = {&pending->shelf, &c.shelf};
    SecondOrderIIRFilter* const second[2] = {&pending->highPass, &c.highPass};
    const float* const in[2] = {channels[pendingIndex], channels[i]};
    float* const out[2] = {pending->scratch.data(), c.scratch.data()};
    SecondOrderIIRFilter::ProcessCascadePair(first, second, in, out, frames);
    vexaccelerate::utility::Copy(frames, pending->scratch.data(), blockBuffers_[pendingIndex].data() + fill_);
    vexaccelerate::utility::Copy(frames, c.scratch.data(), blockBuffers_[i].data() + fill_);
    pending = nullptr;
  }
  if (pending != nullptr) {
    SecondOrderIIRFilter::ProcessCascade(pending->shelf, pending->highPass, channels[pendingIndex],
                                         pending->scratch.data(), frames);
    vexaccelerate::utility::Copy(frames, pending->scratch.data(), blockBuffers_[pendingIndex].data() + fill_);
  }
  fill_ += frames;
  const std::size_t step = blockLength_ - overlap_;
  while (fill_ >= blockLength_) {
    double z = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
      if (channels_[i].label == kLowFrequencyEffects) continue;
      z += static_cast<double>(channels_[i].weight) * SquareSum(blockBuffers_[i].data(), blockLength_);
    }
    z /= static_cast<double>(blockLength_);
    if (z > kAbsoluteGatePower) blockPowers_.push_back(static_cast<float>(z));
    for (std::size_t i = 0; i < count; ++i) {
      if (channels_[i].label == kLowFrequencyEffects) continue;
      float* b = blockBuffers_[i].data();
      std::memmove(b, b + step, (fill_ - step) * sizeof(float));
    }
    fill_ -= step;
  }
}

float Itu1770::GetLKFS() const {
  if (blockPowers_.empty()) return static_cast<float>(kFloorLkfs);
  double total = 0.0;
  for (float p : blockPowers_) total += static_cast<double>(p);
  const double mean = total / static_cast<double>(blockPowers_.size());
  const double gate = std::pow(10.0, (10.0 * std::log10(mean) - 10.0) / 10.0);
  double sum = 0.0;
  std::size_t kept = 0;
  for (float p : blockPowers_) {
    if (static_cast<double>(p) >= gate) {
      sum += static_cast<double>(p);
      ++kept;
    }
  }
  if (kept == 0) return static_cast<float>(kFloorLkfs);
  return static_cast<float>(10.0 * std::log10(sum / static_cast<double>(kept)) + kLoudnessOffset);
}

}  // namespace dsp
