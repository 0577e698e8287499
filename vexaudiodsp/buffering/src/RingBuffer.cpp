#include "vexaudiodsp/buffering/RingBuffer.h"

#include <algorithm>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

namespace vu = vexaccelerate::utility;

}  // namespace

RingBuffer::RingBuffer() = default;

RingBuffer::~RingBuffer() { Deallocate(); }

RingBuffer::RingBuffer(const RingBuffer& other) { *this = other; }

RingBuffer& RingBuffer::operator=(const RingBuffer& other) {
  if (this == &other) return *this;
  if (numChannels_ != other.numChannels_ || size_ != other.size_) Allocate(other.numChannels_, other.size_);
  for (int ch = 0; ch < numChannels_; ++ch) {
    vu::Copy(static_cast<std::size_t>(size_), other.channels_[ch], channels_[ch]);
  }
  writePosition_.store(other.writePosition_.load(std::memory_order_acquire), std::memory_order_release);
  readPosition_.store(other.readPosition_.load(std::memory_order_acquire), std::memory_order_release);
  return *this;
}

void RingBuffer::Allocate(int numChannels, int size) {
  Deallocate();
  numChannels_ = std::max(0, numChannels);
  size_ = std::max(0, size);
  if (numChannels_ > 0) {
    channels_ = new float*[static_cast<std::size_t>(numChannels_)];
    for (int ch = 0; ch < numChannels_; ++ch) {
      channels_[ch] = vu::Malloc_Float(static_cast<std::size_t>(size_));
      vu::Zero(static_cast<std::size_t>(size_), channels_[ch]);
    }
  }
  writePosition_.store(0, std::memory_order_release);
  readPosition_.store(0, std::memory_order_release);
}

void RingBuffer::Deallocate() {
  if (channels_ != nullptr) {
    for (int ch = 0; ch < numChannels_; ++ch) vu::Free(channels_[ch]);
    delete[] channels_;
    channels_ = nullptr;
  }
  numChannels_ = 0;
  size_ = 0;
  writePosition_.store(0, std::memory_order_release);
  readPosition_.store(0, std::memory_order_release);
}

int RingBuffer::CanBeRead() const {
  if (size_ <= 0) return 0;
  const std::int64_t write = writePosition_.load(std::memory_order_acquire);
  const std::int64_t read = readPosition_.load(std::memory_order_acquire);
  std::int64_t filled = (write - read) % size_;
  if (filled < 0) filled += size_;
  return static_cast<int>(filled);
}

int RingBuffer::CanBeWritten() const { return size_ <= 0 ? 0 : size_ - CanBeRead() - 1; }

std::int64_t RingBuffer::Advance(std::int64_t position, int n) const {
  std::int64_t next = position + n;
  if (next > size_) next -= size_;
  return next;
}

// Each position has a single owner thread, so the loop never actually
// retries; the compare-exchange is what orders the sample copies before the
// position becomes visible to the other side.
void RingBuffer::Publish(std::atomic<std::int64_t>& position, std::int64_t value) {
  std::int64_t expected = position.load(std::memory_order_relaxed);
  while (!position.compare_exchange_weak(expected, value, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void RingBuffer::CopyIn(float** src, int srcOffset, int numChannels, int n, std::int64_t position, Fill fill) {
  const auto start = static_cast<std::size_t>(position % size_);
  const auto count = static_cast<std::size_t>(n);
  const std::size_t first = std::min(count, static_cast<std::size_t>(size_) - start);
  const std::size_t second = count - first;
  const int channels = std::min(numChannels, numChannels_);
  for (int ch = 0; ch < channels; ++ch) {
    float* ring = channels_[ch];
    if (fill == Fill::kZero || src[ch] == nullptr) {
      vu::Zero(first, ring + start);
      vu::Zero(second, ring);
    } else {
      const float* in = src[ch] + srcOffset;
      vu::Copy(first, in, ring + start);
      vu::Copy(second, in + first, ring);
    }
  }
}

void RingBuffer::Write(float** src, int srcOffset, int numChannels, int n) {
  if (src == nullptr || n <= 0 || size_ <= 0) return;
  n = std::min(n, size_);
  const std::int64_t write = writePosition_.load(std::memory_order_relaxed);
  CopyIn(src, srcOffset, numChannels, n, write, Fill::kCopy);
  Publish(writePosition_, Advance(write, n));
}

void RingBuffer::FillZeroes(int n) {
  if (n <= 0 || size_ <= 0) return;
  n = std::min(n, size_);
  const std::int64_t write = writePosition_.load(std::memory_order_relaxed);
  CopyIn(nullptr, 0, numChannels_, n, write, Fill::kZero);
  Publish(writePosition_, Advance(write, n));
}

void RingBuffer::Read(float** dst, int numChannels, int n, int advance) {
  if (dst == nullptr || size_ <= 0) return;
  n = std::clamp(n, 0, size_);
  const std::int64_t read = readPosition_.load(std::memory_order_relaxed);
  const auto start = static_cast<std::size_t>(read % size_);
  const auto count = static_cast<std::size_t>(n);
  const std::size_t first = std::min(count, static_cast<std::size_t>(size_) - start);
  const std::size_t second = count - first;
  const int channels = std::min(numChannels, numChannels_);
  for (int ch = 0; ch < channels; ++ch) {
    if (dst[ch] == nullptr) continue;
    vu::Copy(first, channels_[ch] + start, dst[ch]);
    vu::Copy(second, channels_[ch], dst[ch] + first);
  }
  Publish(readPosition_, Advance(read, std::clamp(advance, 0, size_)));
}

void RingBuffer::Replace(float** src, int srcOffset, int numChannels, int n) {
  if (src == nullptr || n <= 0 || size_ <= 0) return;
  const std::int64_t read = readPosition_.load(std::memory_order_relaxed);
  const auto start = static_cast<std::size_t>(read % size_);
  const auto count = static_cast<std::size_t>(std::min(n, size_));
  const std::size_t first = std::min(count, static_cast<std::size_t>(size_) - start);
  const int channels = std::min(numChannels, numChannels_);
  for (int ch = 0; ch < channels; ++ch) {
    if (src[ch] == nullptr) continue;
    const float* in = src[ch] + srcOffset;
    vu::Copy(first, in, channels_[ch] + start);
    vu::Copy(count - first, in + first, channels_[ch]);
  }
}

void RingBuffer::AdvanceBy(int n) {
  if (n <= 0 || size_ <= 0) return;
  const std::int64_t read = readPosition_.load(std::memory_order_relaxed);
  Publish(readPosition_, Advance(read, std::min(n, size_)));
}

void RingBuffer::Reset() {
  writePosition_.store(0, std::memory_order_release);
  readPosition_.store(0, std::memory_order_release);
}

}  // namespace dsp
