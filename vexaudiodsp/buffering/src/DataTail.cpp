#include "vexaudiodsp/buffering/DataTail.h"

#include <algorithm>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

namespace vu = vexaccelerate::utility;

int NonNegative(int v) { return v < 0 ? 0 : v; }

int Clamp(long long v, int capacity) {
  if (v < 0) return 0;
  return v > capacity ? capacity : static_cast<int>(v);
}

// Number of samples Shift keeps behind the n dropped ones. Computed in 64 bits
// so that absurd n cannot overflow; a negative result means nothing is kept.
long long KeepAfterShift(long long total, long long n, long long tail, long long capacity) {
  long long keep = total >= n + tail ? tail : total - n;
  if (n + keep > capacity) keep = capacity - n;
  return keep;
}

}  // namespace

DataTail::DataTail() = default;

DataTail::DataTail(int numChannels, int maxBlockSize) { SetTailMode(numChannels, 0, maxBlockSize, 0, true); }

DataTail::DataTail(const DataTail& other)
    : storage_(other.storage_),
      tailSize_(other.tailSize_),
      total_(other.total_),
      maxBlockSize_(other.maxBlockSize_),
      numChannels_(other.numChannels_),
      samplingRate_(other.samplingRate_) {
  RefreshTables();
}

DataTail& DataTail::operator=(const DataTail& other) {
  if (this == &other) return *this;
  storage_ = other.storage_;
  tailSize_ = other.tailSize_;
  total_ = other.total_;
  maxBlockSize_ = other.maxBlockSize_;
  numChannels_ = other.numChannels_;
  samplingRate_ = other.samplingRate_;
  RefreshTables();
  return *this;
}

DataTail::~DataTail() = default;

void DataTail::RefreshTables() {
  const auto channels = static_cast<std::size_t>(numChannels_);
  channels_.resize(channels);
  offsetChannels_.resize(channels);
  for (std::size_t ch = 0; ch < channels; ++ch) channels_[ch] = storage_[ch].data();
}

void DataTail::SetMode(int numChannels, int samplingRate, int maxBlockSize) {
  SetTailMode(numChannels, samplingRate, maxBlockSize, tailSize_, true);
}

void DataTail::SetTailMode(int numChannels, int samplingRate, int maxBlockSize, int tailSize, bool reset) {
  numChannels_ = NonNegative(numChannels);
  samplingRate_ = samplingRate;
  maxBlockSize_ = NonNegative(maxBlockSize);
  tailSize_ = NonNegative(tailSize);
  const auto channels = static_cast<std::size_t>(numChannels_);
  // Storage never drops channel vectors: a later shape with more channels
  // reuses them.
  if (storage_.size() < channels) storage_.resize(channels);
  const auto capacity = static_cast<std::size_t>(GetTotalSize());
  for (std::size_t ch = 0; ch < channels; ++ch) storage_[ch].resize(capacity, 0.0f);
  RefreshTables();
  if (reset) {
    Reset();
  } else {
    total_ = Clamp(total_, GetTotalSize());
  }
}

void DataTail::ReserveMemory(int numChannels, int totalSize) {
  const auto channels = static_cast<std::size_t>(NonNegative(numChannels));
  if (storage_.size() < channels) storage_.resize(channels);
  for (auto& channel : storage_) channel.reserve(static_cast<std::size_t>(NonNegative(totalSize)));
  channels_.reserve(channels);
  offsetChannels_.reserve(channels);
}

void DataTail::CarryFrom(const DataTail& old, int shift) {
  const int capacity = GetTotalSize();
  const int begin = std::max(0, -shift);
  const int end = static_cast<int>(std::min<long long>(old.total_, static_cast<long long>(capacity) - shift));
  const int channels = std::min(numChannels_, old.numChannels_);
  if (end > begin) {
    for (int ch = 0; ch < channels; ++ch) {
      vu::Copy(static_cast<std::size_t>(end - begin), old.channels_[ch] + begin, channels_[ch] + begin + shift);
    }
  }
  total_ = Clamp(static_cast<long long>(old.total_) + shift, capacity);
}

void DataTail::ChangeBufferSize(int maxBlockSize) {
  maxBlockSize = NonNegative(maxBlockSize);
  if (maxBlockSize == maxBlockSize_) return;
  const DataTail old(*this);
  SetTailMode(numChannels_, samplingRate_, maxBlockSize, tailSize_, true);
  CarryFrom(old, -std::max(0, old.total_ - GetTotalSize()));
}

void DataTail::ChangeTailSize(int tailSize) {
  tailSize = NonNegative(tailSize);
  if (tailSize == tailSize_) return;
  const DataTail old(*this);
  SetTailMode(numChannels_, samplingRate_, maxBlockSize_, tailSize, true);
  CarryFrom(old, tailSize - old.tailSize_);
}

void DataTail::Reset() { ResetToVal(0.0f); }

void DataTail::ResetToVal(float value) {
  total_ = std::min(tailSize_, GetTotalSize());
  const auto capacity = static_cast<std::size_t>(GetTotalSize());
  for (int ch = 0; ch < numChannels_; ++ch) {
    if (value == 0.0f) {
      vu::Zero(capacity, channels_[ch]);
    } else {
      vu::Set(capacity, value, channels_[ch]);
    }
  }
}

void DataTail::Append(const float* const* src, unsigned n, int srcOffset) {
  if (n == 0 || src == nullptr) return;
  const auto count = static_cast<std::size_t>(std::min<long long>(n, GetTotalSize() - total_));
  if (count == 0) return;
  for (int ch = 0; ch < numChannels_; ++ch) {
    if (src[ch] != nullptr) {
      vu::Move(count, src[ch] + srcOffset, channels_[ch] + total_);
    } else {
      vu::Zero(count, channels_[ch] + total_);
    }
  }
  total_ += static_cast<int>(count);
}

void DataTail::AppendCircular(const float* const* src, unsigned n, int srcOffset) {
  const int capacity = GetTotalSize();
  if (n == 0 || src == nullptr || capacity == 0) return;
  long long offset = srcOffset;
  if (n > static_cast<unsigned>(capacity)) {
    offset += n - static_cast<unsigned>(capacity);
    n = static_cast<unsigned>(capacity);
  }
  const int count = static_cast<int>(n);
  const int position = Clamp(total_, capacity);
  const int first = std::min(count, capacity - position);
  const int second = count - first;
  for (int ch = 0; ch < numChannels_; ++ch) {
    float* dst = channels_[ch];
    if (src[ch] == nullptr) {
      vu::Zero(static_cast<std::size_t>(first), dst + position);
      vu::Zero(static_cast<std::size_t>(second), dst);
      continue;
    }
    const float* in = src[ch] + offset;
    vu::Move(static_cast<std::size_t>(first), in, dst + position);
    vu::Move(static_cast<std::size_t>(second), in + first, dst);
  }
  total_ = second > 0 ? second : position + count;
}

void DataTail::ExtractCircular(float* const* dst, unsigned n, int offset, int dstOffset, unsigned channel) const {
  const int capacity = GetTotalSize();
  if (n == 0 || dst == nullptr || capacity == 0) return;
  const int count = static_cast<int>(std::min<unsigned>(n, static_cast<unsigned>(capacity)));
  long long start = (static_cast<long long>(total_) + offset) % capacity;
  if (start < 0) start += capacity;
  const int first = static_cast<int>(std::min<long long>(count, capacity - start));
  const int second = count - first;
  const bool all = channel == 0xFFFFFFFFu;
  for (int ch = 0; ch < numChannels_; ++ch) {
    if (!all && static_cast<unsigned>(ch) != channel) continue;
    if (dst[ch] == nullptr) continue;
    float* out = dst[ch] + dstOffset;
    vu::Move(static_cast<std::size_t>(first), channels_[ch] + start, out);
    vu::Move(static_cast<std::size_t>(second), channels_[ch], out + first);
  }
}

void DataTail::Shift(int n) {
  if (n <= 0) return;
  const long long keep = KeepAfterShift(total_, n, tailSize_, GetTotalSize());
  if (keep > 0) {
    for (int ch = 0; ch < numChannels_; ++ch) {
      vu::Move(static_cast<std::size_t>(keep), channels_[ch] + n, channels_[ch]);
    }
  }
  total_ = keep > 0 ? static_cast<int>(keep) : 0;
}

void DataTail::ShiftAll(unsigned n) {
  if (n == 0 || total_ <= 0) return;
  const int k = static_cast<int>(std::min<unsigned>(n, static_cast<unsigned>(total_)));
  const auto rest = static_cast<std::size_t>(total_ - k);
  for (int ch = 0; ch < numChannels_; ++ch) vu::Move(rest, channels_[ch] + k, channels_[ch]);
  total_ -= k;
}

float** DataTail::MakeOffsetPointer(unsigned offset) {
  const auto off = static_cast<std::size_t>(std::min<unsigned>(offset, static_cast<unsigned>(GetTotalSize())));
  offsetChannels_.resize(channels_.size());
  for (std::size_t ch = 0; ch < channels_.size(); ++ch) offsetChannels_[ch] = channels_[ch] + off;
  return offsetChannels_.data();
}

void DataTail::SetTotal(int total) { total_ = Clamp(total, GetTotalSize()); }

void DataTail::AddTotal(int n) { total_ = Clamp(static_cast<long long>(total_) + n, GetTotalSize()); }

DataTail1D::DataTail1D() = default;

DataTail1D::~DataTail1D() = default;

void DataTail1D::SetMode(int maxBlockSize) { SetTailMode(maxBlockSize, tailSize_, true); }

void DataTail1D::SetTailMode(int maxBlockSize, int tailSize, bool reset) {
  maxBlockSize_ = NonNegative(maxBlockSize);
  tailSize_ = NonNegative(tailSize);
  data_.resize(static_cast<std::size_t>(GetTotalSize()), 0.0f);
  if (reset) {
    Reset();
  } else {
    total_ = Clamp(total_, GetTotalSize());
  }
}

void DataTail1D::ReserveMemory(int totalSize) { data_.reserve(static_cast<std::size_t>(NonNegative(totalSize))); }

void DataTail1D::CarryFrom(const DataTail1D& old, int shift) {
  const int capacity = GetTotalSize();
  const int begin = std::max(0, -shift);
  const int end = static_cast<int>(std::min<long long>(old.total_, static_cast<long long>(capacity) - shift));
  if (end > begin) {
    vu::Copy(static_cast<std::size_t>(end - begin), old.data_.data() + begin, data_.data() + begin + shift);
  }
  total_ = Clamp(static_cast<long long>(old.total_) + shift, capacity);
}

void DataTail1D::ChangeBufferSize(int maxBlockSize) {
  maxBlockSize = NonNegative(maxBlockSize);
  if (maxBlockSize == maxBlockSize_) return;
  const DataTail1D old(*this);
  SetTailMode(maxBlockSize, tailSize_, true);
  CarryFrom(old, -std::max(0, old.total_ - GetTotalSize()));
}

void DataTail1D::ChangeTailSize(int tailSize) {
  tailSize = NonNegative(tailSize);
  if (tailSize == tailSize_) return;
  const DataTail1D old(*this);
  SetTailMode(maxBlockSize_, tailSize, true);
  CarryFrom(old, tailSize - old.tailSize_);
}

void DataTail1D::Reset() { ResetToVal(0.0f); }

void DataTail1D::ResetToVal(float value) {
  total_ = tailSize_;
  if (value == 0.0f) {
    vu::Zero(data_.size(), data_.data());
  } else {
    vu::Set(data_.size(), value, data_.data());
  }
}

void DataTail1D::Append(const float* src, int n, int offset) {
  if (n <= 0 || src == nullptr) return;
  const int count = std::min(n, GetTotalSize() - total_);
  if (count <= 0) return;
  vu::Move(static_cast<std::size_t>(count), src + offset, data_.data() + total_);
  total_ += count;
}

void DataTail1D::Shift(int n) {
  if (n <= 0) return;
  const long long keep = KeepAfterShift(total_, n, tailSize_, GetTotalSize());
  if (keep > 0) vu::Move(static_cast<std::size_t>(keep), data_.data() + n, data_.data());
  total_ = keep > 0 ? static_cast<int>(keep) : 0;
}

void DataTail1D::ShiftAll(unsigned n) {
  if (n == 0 || total_ <= 0) return;
  const int k = static_cast<int>(std::min<unsigned>(n, static_cast<unsigned>(total_)));
  vu::Move(static_cast<std::size_t>(total_ - k), data_.data() + k, data_.data());
  total_ -= k;
}

void DataTail1D::SetTotal(int total) { total_ = Clamp(total, GetTotalSize()); }

void DataTail1D::AddTotal(int n) { total_ = Clamp(static_cast<long long>(total_) + n, GetTotalSize()); }

}  // namespace dsp
