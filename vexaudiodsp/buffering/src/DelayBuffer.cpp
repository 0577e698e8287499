#include "vexaudiodsp/buffering/DelayBuffer.h"

#include <algorithm>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

namespace vu = vexaccelerate::utility;

std::size_t Length(const float* begin, const float* end) { return static_cast<std::size_t>(end - begin); }

}  // namespace

DelayBuffer::DelayBuffer() = default;

DelayBuffer::DelayBuffer(const DelayBuffer& other) { *this = other; }

DelayBuffer& DelayBuffer::operator=(const DelayBuffer& other) {
  if (this == &other) return *this;
  if (size_ != other.size_) Init(other.size_);
  vu::Copy(static_cast<std::size_t>(size_), other.start_, start_);
  position_ = start_ + (other.position_ - other.start_);
  wrapped_ = other.wrapped_;
  return *this;
}

DelayBuffer::~DelayBuffer() { vu::Free(start_); }

void DelayBuffer::Init(int n) {
  vu::Free(start_);
  size_ = std::max(0, n);
  start_ = vu::Malloc_Float(static_cast<std::size_t>(size_));
  if (start_ == nullptr) size_ = 0;
  end_ = start_ + size_;
  position_ = start_;
  wrapped_ = false;
}

void DelayBuffer::Reset() {
  position_ = start_;
  wrapped_ = false;
}

void DelayBuffer::IncrementPosition(int n) {
  if (n <= 0 || size_ == 0) return;
  const long long next = (position_ - start_) + static_cast<long long>(n);
  if (next >= size_) wrapped_ = true;
  position_ = start_ + next % size_;
}

void DelayBuffer::Write(const float* src, int n) {
  if (src == nullptr || n <= 0 || size_ == 0) return;
  if (n > size_) {
    // Only the newest N samples survive; skip the rest but land where a full
    // write would have ended.
    IncrementPosition(n - size_);
    src += n - size_;
    n = size_;
  }
  const auto count = static_cast<std::size_t>(n);
  const std::size_t first = std::min(count, Length(position_, end_));
  vu::Copy(first, src, position_);
  vu::Copy(count - first, src + first, start_);
  IncrementPosition(n);
}

int DelayBuffer::GetValidDataSize() const { return wrapped_ ? size_ : static_cast<int>(position_ - start_); }

DelayBuffer::WorkChunks DelayBuffer::Stretches() const {
  if (wrapped_) return {position_, end_, start_, position_};
  return {start_, position_, position_, position_};
}

int DelayBuffer::Read(float* dst, int n, int offset) const {
  if (dst == nullptr || n <= 0) return 0;
  const WorkChunks s = Stretches();
  const auto firstLength = Length(s.firstBegin, s.firstEnd);
  const auto secondLength = Length(s.secondBegin, s.secondEnd);
  const auto skip = static_cast<std::size_t>(std::max(0, offset));
  const auto wanted = static_cast<std::size_t>(n);
  if (skip >= firstLength + secondLength) return 0;
  std::size_t copied = 0;
  if (skip < firstLength) {
    copied = std::min(wanted, firstLength - skip);
    vu::Copy(copied, s.firstBegin + skip, dst);
    const std::size_t more = std::min(wanted - copied, secondLength);
    vu::Copy(more, s.secondBegin, dst + copied);
    copied += more;
  } else {
    const std::size_t inSecond = skip - firstLength;
    copied = std::min(wanted, secondLength - inSecond);
    vu::Copy(copied, s.secondBegin + inSecond, dst);
  }
  return static_cast<int>(copied);
}

DelayBuffer::WorkChunks DelayBuffer::GetWorkChunks(int offset) {
  WorkChunks s = Stretches();
  const auto firstLength = Length(s.firstBegin, s.firstEnd);
  const auto secondLength = Length(s.secondBegin, s.secondEnd);
  const auto skip = static_cast<std::size_t>(std::max(0, offset));
  if (skip >= firstLength + secondLength) return {start_, start_, start_, start_};
  if (skip < firstLength) {
    s.firstBegin += skip;
    return s;
  }
  return {s.secondBegin + (skip - firstLength), s.secondEnd, s.secondEnd, s.secondEnd};
}

MultiChannelDelayBuffer::MultiChannelDelayBuffer() = default;

MultiChannelDelayBuffer::MultiChannelDelayBuffer(const MultiChannelDelayBuffer& other) { *this = other; }

MultiChannelDelayBuffer& MultiChannelDelayBuffer::operator=(const MultiChannelDelayBuffer& other) {
  if (this == &other) return *this;
  if (numChannels_ != other.numChannels_) {
    numChannels_ = other.numChannels_;
    buffers_.reset(numChannels_ > 0 ? new DelayBuffer[static_cast<std::size_t>(numChannels_)] : nullptr);
  }
  for (int ch = 0; ch < numChannels_; ++ch) buffers_[ch] = other.buffers_[ch];
  return *this;
}

MultiChannelDelayBuffer::~MultiChannelDelayBuffer() = default;

void MultiChannelDelayBuffer::Init(int channels, int n) {
  buffers_.reset();
  numChannels_ = std::max(0, channels);
  if (numChannels_ == 0) return;
  buffers_.reset(new DelayBuffer[static_cast<std::size_t>(numChannels_)]);
  for (int ch = 0; ch < numChannels_; ++ch) buffers_[ch].Init(n);
}

void MultiChannelDelayBuffer::Write(int channel, float* src, int n) {
  if (channel < 0 || channel >= numChannels_ || src == nullptr) return;
  buffers_[channel].Write(src, n);
}

void MultiChannelDelayBuffer::Write(float** src, int n) {
  if (src == nullptr) return;
  for (int ch = 0; ch < numChannels_; ++ch) Write(ch, src[ch], n);
}

int MultiChannelDelayBuffer::Read(int channel, float* dst, int n, int offset) const {
  if (channel < 0 || channel >= numChannels_) return 0;
  return buffers_[channel].Read(dst, n, offset);
}

int MultiChannelDelayBuffer::Read(float** dst, int n, int offset) const {
  if (dst == nullptr) return 0;
  int copied = 0;
  for (int ch = 0; ch < numChannels_; ++ch) {
    if (dst[ch] != nullptr) copied = std::max(copied, buffers_[ch].Read(dst[ch], n, offset));
  }
  return copied;
}

int MultiChannelDelayBuffer::GetValidDataSize() const { return numChannels_ > 0 ? buffers_[0].GetValidDataSize() : 0; }

void MultiChannelDelayBuffer::Reset() {
  for (int ch = 0; ch < numChannels_; ++ch) buffers_[ch].Reset();
}

std::vector<DelayBuffer::WorkChunks> MultiChannelDelayBuffer::GetWorkChunks(int offset) {
  std::vector<DelayBuffer::WorkChunks> chunks;
  chunks.reserve(static_cast<std::size_t>(numChannels_));
  for (int ch = 0; ch < numChannels_; ++ch) chunks.push_back(buffers_[ch].GetWorkChunks(offset));
  return chunks;
}

AudioDelayBuffer::AudioDelayBuffer() = default;

AudioDelayBuffer::~AudioDelayBuffer() = default;

void AudioDelayBuffer::Init(std::uint32_t channels, std::uint32_t delay, std::uint32_t maxBlockSize) {
  AudioBuffer::Init(channels, maxBlockSize + delay);
  ZeroBuffers();
  delay_ = delay;
  readPosition_ = 0;
  writePosition_ = delay;
}

void AudioDelayBuffer::SetDelay(std::uint32_t delay) {
  AudioBuffer::Init(GetNumChannels(), GetUseSize() + delay);
  ZeroBuffers();
  delay_ = delay;
  readPosition_ = 0;
  writePosition_ = delay;
}

void AudioDelayBuffer::Write(const AudioBuffer& src) {
  const std::uint32_t length = GetUseSize();
  const std::uint32_t n = src.GetUseSize();
  if (length == 0 || n == 0) return;
  // A block longer than the ring wraps onto itself; only its last `length`
  // samples can survive, so the earlier ones are skipped.
  const std::uint32_t skip = n > length ? n - length : 0;
  const std::uint32_t start = static_cast<std::uint32_t>((static_cast<std::uint64_t>(writePosition_) + skip) % length);
  const std::uint32_t count = n - skip;
  const std::uint32_t first = std::min(count, length - start);
  for (std::uint32_t ch = 0; ch < GetNumChannels(); ++ch) {
    float* ring = (*this)[ch];
    const float* in = src[ch];
    if (in == nullptr || src.IsChannelZero(ch)) {
      vexaccelerate::utility::Zero(first, ring + start);
      vexaccelerate::utility::Zero(count - first, ring);
    } else {
      vexaccelerate::utility::Copy(first, in + skip, ring + start);
      vexaccelerate::utility::Copy(count - first, in + skip + first, ring);
    }
  }
  writePosition_ = static_cast<std::uint32_t>((static_cast<std::uint64_t>(writePosition_) + n) % length);
}

void AudioDelayBuffer::Read(AudioBuffer& dst) {
  const std::uint32_t length = GetUseSize();
  const std::uint32_t n = dst.GetUseSize();
  for (std::uint32_t ch = 0; ch < dst.GetNumChannels(); ++ch) {
    float* out = dst[ch];
    if (ch >= GetNumChannels() || length == 0) {
      vexaccelerate::utility::Zero(n, out);
      continue;
    }
    const float* ring = (*this)[ch];
    std::uint32_t position = readPosition_;
    // A block longer than the ring reads it round more than once.
    for (std::uint32_t done = 0; done < n;) {
      const std::uint32_t k = std::min(n - done, length - position);
      vexaccelerate::utility::Copy(k, ring + position, out + done);
      done += k;
      position = position + k == length ? 0 : position + k;
    }
  }
  if (length != 0) readPosition_ = static_cast<std::uint32_t>((static_cast<std::uint64_t>(readPosition_) + n) % length);
  dst.ClearZero();
}

}  // namespace dsp
