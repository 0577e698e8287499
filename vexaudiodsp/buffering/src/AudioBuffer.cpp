#include "vexaudiodsp/buffering/AudioBuffer.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

namespace {

using ChannelMask = AudioBuffer::ChannelMask;

constexpr std::uint32_t kFlagBits = ChannelMask::kBits;
constexpr std::int32_t kDefaultAlignment = 16;

std::uint32_t Min(std::uint32_t a, std::uint32_t b) { return a < b ? a : b; }

// Copies n samples into a destination that holds dstAvail samples from a
// source that holds srcAvail; what the source cannot supply is written as zeros.
void CopyLimited(std::uint32_t n, const float* src, std::uint32_t srcAvail, float* dst, std::uint32_t dstAvail,
                 bool scale, float gain) {
  const std::uint32_t m = Min(n, dstAvail);
  const std::uint32_t r = Min(m, srcAvail);
  if (scale) {
    vu::MulConstant(r, src, dst, gain);
  } else {
    vu::Copy(r, src, dst);
  }
  vu::Zero(m - r, dst + r);
}

bool IsAligned16(const float* p) { return (reinterpret_cast<std::uintptr_t>(p) & 15u) == 0; }

}  // namespace

AudioBuffer::AudioBuffer()
    : channels_(nullptr),
      numChannels_(0),
      useSize_(0),
      bufferSize_(0),
      alignment_(kDefaultAlignment),
      alignedUse_(true),
      zeroMask_() {}

AudioBuffer::AudioBuffer(std::uint32_t channels, std::uint32_t size) : AudioBuffer() {
  if (size != 0) Init(channels, size);
}

AudioBuffer::AudioBuffer(const AudioBuffer& other) : AudioBuffer() {
  alignment_ = other.alignment_;
  zeroMask_ = other.zeroMask_;
  // A view's use size may have wrapped; only its buffer size is backed by memory.
  const std::uint32_t n = Min(other.useSize_, other.bufferSize_);
  Init(other.numChannels_, n);
  const std::uint32_t channels = Min(numChannels_, other.numChannels_);
  for (std::uint32_t ch = 0; ch < channels; ++ch) vu::Copy(Min(n, bufferSize_), other.channels_[ch], channels_[ch]);
}

AudioBuffer::~AudioBuffer() = default;

bool AudioBuffer::IsZero() const {
  if (numChannels_ >= kFlagBits) return zeroMask_ == ChannelMask::AllOnes();
  const ChannelMask low = ChannelMask::LowBits(numChannels_);
  return (zeroMask_ & low) == low;
}

bool AudioBuffer::IsChannelZero(std::uint32_t ch) const { return zeroMask_.IsSet(ch % kFlagBits); }

void AudioBuffer::SetChannelZero(std::uint32_t ch) { zeroMask_.SetBit(ch); }

void AudioBuffer::SetChannelsZero(const ChannelMask& flags) { zeroMask_ |= flags; }

void AudioBuffer::ClearZero() { zeroMask_ &= ~ChannelMask::LowBits(numChannels_); }

void AudioBuffer::ClearChannelZero(std::uint32_t ch) { zeroMask_.ClearBit(ch); }

void AudioBuffer::ClearChannelsZero(const ChannelMask& flags) { zeroMask_ &= ~flags; }

AudioBuffer::ChannelMask AudioBuffer::GetChannelZeroMask() const { return zeroMask_; }

void AudioBuffer::ForceSilenceMask(const ChannelMask& flags) {
  if (&flags != &zeroMask_) zeroMask_ = flags;
}

void AudioBuffer::Init(std::uint32_t channels, std::uint32_t size) {
  const std::int64_t pad = static_cast<std::int64_t>(alignment_) + 4;
  const std::size_t tableBytes = static_cast<std::size_t>(channels) * sizeof(float*);
  const std::size_t stripe = static_cast<std::size_t>(std::max<std::int64_t>(std::int64_t(size) + pad, size));
  // A shape whose byte count does not fit a size_t asks for more than any
  // heap has; it is refused like one that does not fit the heap.
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(static_cast<std::size_t>(channels) * sizeof(float), stripe, &bytes) ||
      __builtin_add_overflow(bytes, tableBytes, &bytes)) {
    bytes = std::numeric_limits<std::size_t>::max();
  }

  // The largest per-channel capacity the held block offers for `channels`.
  auto fit = [&]() -> std::uint32_t {
    const std::size_t held = storage_.GetByteCount();
    if (channels == 0 || held < tableBytes) return 0;
    const std::int64_t perChannel = static_cast<std::int64_t>((held - tableBytes) / sizeof(float) / channels) - pad;
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(perChannel, 0, std::numeric_limits<std::uint32_t>::max()));
  };

  if (bytes > storage_.GetByteCount()) {
    if (storage_.Allocate(bytes) == nullptr) {
      channels_ = nullptr;
      numChannels_ = 0;
      useSize_ = bufferSize_ = 0;
      return;
    }
    bufferSize_ = size;
  } else if (channels != numChannels_ && channels != 0) {
    bufferSize_ = fit();
  } else {
    // Normally a no-op; it protects against a capacity inherited from a view
    // (or an alignment changed since) that the held block could not back.
    bufferSize_ = Min(bufferSize_, fit());
  }

  channels_ = static_cast<float**>(storage_.Get());
  numChannels_ = channels;
  useSize_ = Min(bufferSize_, size);
  alignedUse_ = alignment_ % 4 == 0;

  if (channels_ != nullptr) {
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(channels_) + tableBytes;
    const std::size_t stripeBytes = (static_cast<std::size_t>(bufferSize_) + pad) * sizeof(float);
    const std::uintptr_t align = alignment_ > 0 ? static_cast<std::uintptr_t>(alignment_) * sizeof(float) : 1;
    for (std::uint32_t ch = 0; ch < channels; ++ch) {
      const std::uintptr_t start = base + ch * stripeBytes;
      const std::uintptr_t aligned = (start + align - 1) / align * align;
      channels_[ch] = reinterpret_cast<float*>(aligned);
    }
  }

  if (channels < kFlagBits) zeroMask_ |= ~ChannelMask::LowBits(channels);
}

void AudioBuffer::SetUseSize(std::uint32_t size) {
  if (useSize_ == 0 || size <= bufferSize_ || IsView()) {
    useSize_ = Min(bufferSize_, size);
    alignedUse_ = alignment_ % 4 == 0;
    return;
  }

  const std::uint32_t oldUse = Min(useSize_, bufferSize_);
  const bool wasZero = IsZero();
  AudioBuffer temp;
  temp.alignment_ = alignment_;
  temp.zeroMask_ = zeroMask_;
  temp.Init(numChannels_, oldUse);
  if (temp.numChannels_ != numChannels_) return;  // allocation refused: keep what we have
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) vu::Copy(Min(oldUse, temp.bufferSize_), channels_[ch], temp[ch]);

  const std::uint32_t channels = numChannels_;
  Init(channels, size);
  if (numChannels_ != channels) {
    // The larger block was refused. The old one has just gone back to the
    // recycler, so the old shape comes back from its cache with the samples.
    Init(channels, oldUse);
    if (numChannels_ != channels) return;
    for (std::uint32_t ch = 0; ch < channels; ++ch) vu::Copy(Min(oldUse, bufferSize_), temp[ch], channels_[ch]);
    zeroMask_ = temp.zeroMask_;
    return;
  }
  if (wasZero) {
    Zero();
  } else {
    CopyChannelsFrom(temp, Min(oldUse, useSize_), ChannelMask::AllOnes(), false, 1.0f);
  }
  useSize_ = Min(bufferSize_, size);
  alignedUse_ = alignment_ % 4 == 0;
}

void AudioBuffer::SilenceChannel(std::uint32_t ch, std::uint32_t n) {
  if (ch >= numChannels_ || IsChannelZero(ch)) return;
  vu::Zero(Min(Min(useSize_, n), bufferSize_), channels_[ch]);
  if (n >= useSize_) SetChannelZero(ch);
}

void AudioBuffer::CopyChannelsFrom(const AudioBuffer& src, std::uint32_t n, const ChannelMask& channels, bool scale,
                                   float gain) {
  const std::uint32_t common = Min(src.numChannels_, numChannels_);
  for (std::uint32_t ch = 0; ch < common; ++ch) {
    if (channels.IsSet(ch % kFlagBits) && !src.IsChannelZero(ch)) {
      CopyLimited(n, src.channels_[ch], src.bufferSize_, channels_[ch], bufferSize_, scale, gain);
      ClearChannelZero(ch);
    } else {
      SilenceChannel(ch, n);
    }
  }
  for (std::uint32_t ch = common; ch < numChannels_; ++ch) SilenceChannel(ch, n);
}

void AudioBuffer::CopyFrom(const AudioBuffer& src) {
  if (src.IsZero()) {
    Zero();
    return;
  }
  CopyChannelsFrom(src, Min(src.useSize_, useSize_), ChannelMask::AllOnes(), false, 1.0f);
}

void AudioBuffer::CopyFrom(const AudioBuffer& src, std::uint32_t count) {
  CopyChannelsFrom(src, Min(count, useSize_), ChannelMask::AllOnes(), false, 1.0f);
}

void AudioBuffer::CopyFrom(const AudioBuffer& src, std::uint32_t /*unused*/, std::uint32_t count) {
  CopyFrom(src, count);
}

void AudioBuffer::CopyCertainChannelsFrom(const AudioBuffer& src, std::uint32_t count, const ChannelMask& channels) {
  CopyChannelsFrom(src, Min(count, useSize_), channels, false, 1.0f);
}

void AudioBuffer::CopyFromScale(const AudioBuffer& src, float gain) {
  if (gain == 1.0f) {
    CopyFrom(src);
  } else if (gain == 0.0f) {
    Zero();
  } else {
    CopyChannelsFrom(src, Min(src.useSize_, useSize_), ChannelMask::AllOnes(), true, gain);
  }
}

void AudioBuffer::CopyChannel(std::uint32_t from, std::uint32_t to) { CopyChannel(*this, from, to); }

void AudioBuffer::CopyChannel(const AudioBuffer& src, std::uint32_t from, std::uint32_t to) {
  if (to >= numChannels_) return;
  if (from < src.numChannels_ && !src.IsChannelZero(from)) {
    CopyLimited(useSize_, src.channels_[from], src.bufferSize_, channels_[to], bufferSize_, false, 1.0f);
    ClearChannelZero(to);
  } else {
    SilenceChannel(to, useSize_);
  }
}

void AudioBuffer::Mix(const AudioBuffer& src) {
  if (src.IsZero()) return;
  if (IsZero()) {
    CopyFrom(src, useSize_);
    return;
  }
  const std::uint32_t common = Min(src.numChannels_, numChannels_);
  for (std::uint32_t ch = 0; ch < common; ++ch) {
    if (src.IsChannelZero(ch)) continue;
    if (IsChannelZero(ch)) {
      CopyLimited(useSize_, src.channels_[ch], src.bufferSize_, channels_[ch], bufferSize_, false, 1.0f);
    } else {
      vu::Add_InPlace(Min(Min(useSize_, bufferSize_), src.bufferSize_), src.channels_[ch], channels_[ch]);
    }
    ClearChannelZero(ch);
  }
}

AudioBuffer& AudioBuffer::operator*=(float gain) {
  if (IsZero()) return *this;
  const std::uint32_t n = Min(useSize_, bufferSize_);
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) {
    if (!IsChannelZero(ch)) vu::MulConstant_InPlace(n, channels_[ch], gain);
  }
  return *this;
}

void AudioBuffer::Zero() {
  if (!IsZero()) {
    const std::uint32_t n = Min(useSize_, bufferSize_);
    for (std::uint32_t ch = 0; ch < numChannels_; ++ch) {
      if (IsChannelZero(ch)) continue;
      vu::Zero(n, channels_[ch]);
      SetChannelZero(ch);
    }
  }
  zeroMask_ = ChannelMask::AllOnes();
}

void AudioBuffer::ZeroChannel(std::uint32_t ch, std::uint32_t count) { SilenceChannel(ch, count); }

void AudioBuffer::ZeroBuffers() {
  const std::uint32_t n = Min(useSize_, bufferSize_);
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) vu::Zero(n, channels_[ch]);
}

void AudioBuffer::Reverse() {
  if (IsZero()) return;
  const std::uint32_t n = Min(useSize_, bufferSize_);
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) {
    if (!IsChannelZero(ch)) std::reverse(channels_[ch], channels_[ch] + n);
  }
}

std::vector<float*> AudioBuffer::GetBuffersAsFloats(int offset) const {
  std::vector<float*> result;
  if (channels_ == nullptr) return result;
  result.reserve(numChannels_);
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) result.push_back(channels_[ch] + offset);
  return result;
}

std::vector<void*> AudioBuffer::GetBuffersAsVoid(int offset) const {
  std::vector<void*> result;
  if (channels_ == nullptr) return result;
  result.reserve(numChannels_);
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) result.push_back(channels_[ch] + offset);
  return result;
}

AudioBufferChannel::AudioBufferChannel() : AudioBuffer(), parent_(nullptr), table_{nullptr}, parentChannel_(0) {}

AudioBufferChannel::AudioBufferChannel(const AudioBufferChannel& other)
    : AudioBuffer(), parent_(other.parent_), table_{other.table_[0]}, parentChannel_(other.parentChannel_) {
  channels_ = other.channels_ != nullptr ? table_ : nullptr;
  numChannels_ = other.numChannels_;
  useSize_ = other.useSize_;
  bufferSize_ = other.bufferSize_;
  alignment_ = other.alignment_;
  alignedUse_ = other.alignedUse_;
  zeroMask_ = parent_ != nullptr ? parent_->GetChannelZeroMask() : other.zeroMask_;
}

AudioBufferChannel::~AudioBufferChannel() = default;

void AudioBufferChannel::Assign(AudioBuffer& parent, std::uint32_t channel) {
  if (channel < parent.numChannels_) {
    table_[0] = parent.channels_[channel];
    channels_ = table_;
    numChannels_ = 1;
    bufferSize_ = parent.bufferSize_;
    useSize_ = parent.useSize_;
    alignedUse_ = parent.alignedUse_;
    alignment_ = parent.alignment_;
    parent_ = &parent;
    parentChannel_ = channel;
    ForceSilenceMask(parent.GetChannelZeroMask());
  } else {
    table_[0] = nullptr;
    channels_ = nullptr;
    numChannels_ = 0;
    bufferSize_ = useSize_ = 0;
    parent_ = nullptr;
    parentChannel_ = 0;
    ForceSilenceMask(ChannelMask::AllOnes());
  }
}

bool AudioBufferChannel::IsZero() const { return parent_ == nullptr || parent_->IsChannelZero(parentChannel_); }

bool AudioBufferChannel::IsChannelZero(std::uint32_t) const { return IsZero(); }

void AudioBufferChannel::SetChannelZero(std::uint32_t ch) {
  if (parent_ == nullptr) return AudioBuffer::SetChannelZero(ch);
  parent_->SetChannelZero(parentChannel_);
  ForceSilenceMask(parent_->GetChannelZeroMask());
}

void AudioBufferChannel::SetChannelsZero(const ChannelMask& flags) {
  if (parent_ == nullptr) return AudioBuffer::SetChannelsZero(flags);
  parent_->SetChannelsZero(flags);
  ForceSilenceMask(parent_->GetChannelZeroMask());
}

void AudioBufferChannel::ClearZero() {
  if (parent_ != nullptr) parent_->ClearChannelZero(parentChannel_);
  AudioBuffer::ClearZero();
}

void AudioBufferChannel::ClearChannelZero(std::uint32_t ch) {
  if (parent_ == nullptr) return AudioBuffer::ClearChannelZero(ch);
  parent_->ClearChannelZero(parentChannel_);
  ForceSilenceMask(parent_->GetChannelZeroMask());
}

void AudioBufferChannel::ClearChannelsZero(const ChannelMask& flags) {
  if (parent_ == nullptr) return AudioBuffer::ClearChannelsZero(flags);
  parent_->ClearChannelsZero(flags);
  ForceSilenceMask(parent_->GetChannelZeroMask());
}

AudioSubBuffer::AudioSubBuffer() : AudioBuffer(), parent_(nullptr) {}

AudioSubBuffer::~AudioSubBuffer() = default;

void AudioSubBuffer::Init(std::uint32_t channels) {
  float** table = static_cast<float**>(table_.Allocate(static_cast<std::size_t>(channels) * sizeof(float*)));
  channels_ = table;
  numChannels_ = table != nullptr ? channels : 0;
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) table[ch] = nullptr;
  bufferSize_ = useSize_ = 0;
  parent_ = nullptr;
  if (numChannels_ < kFlagBits) zeroMask_ |= ~ChannelMask::LowBits(numChannels_);
}

void AudioSubBuffer::DeriveAlignmentFromPointer(bool useSizeDecides) {
  if (numChannels_ == 0 || IsAligned16(channels_[0])) {
    alignment_ = 4;
    alignedUse_ = useSizeDecides ? useSize_ % 4 == 0 : true;
  } else {
    alignment_ = 1;
    alignedUse_ = false;
  }
}

void AudioSubBuffer::Assign(AudioBuffer& parent, std::uint32_t offset) {
  if (numChannels_ > parent.numChannels_) return;
  parent_ = &parent;
  if (offset >= parent.bufferSize_) {
    // Parked at the parent's end, so no stale pointer from an earlier
    // assignment can be mistaken for a position inside this parent.
    for (std::uint32_t ch = 0; ch < numChannels_; ++ch) channels_[ch] = parent.channels_[ch] + parent.bufferSize_;
    bufferSize_ = useSize_ = 0;
    return;
  }
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) channels_[ch] = parent.channels_[ch] + offset;
  bufferSize_ = parent.bufferSize_ - offset;
  useSize_ = parent.useSize_ - offset;  // wraps when offset > parent use size, deliberately
  if (parent.alignment_ < 1) {
    alignment_ = -1;
    alignedUse_ = false;
  } else {
    DeriveAlignmentFromPointer(true);
  }
  SetChannelsZero(parent.GetChannelZeroMask());
}

void AudioSubBuffer::ShiftOffset(std::uint32_t samples) {
  if (samples >= bufferSize_) {
    for (std::uint32_t ch = 0; ch < numChannels_ && channels_[ch] != nullptr; ++ch) channels_[ch] += bufferSize_;
    bufferSize_ = useSize_ = 0;
    return;
  }
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) channels_[ch] += samples;
  bufferSize_ -= samples;
  useSize_ = samples > useSize_ ? 0 : useSize_ - samples;
  if (alignment_ > 0) DeriveAlignmentFromPointer(false);
  if (parent_ != nullptr) SetChannelsZero(parent_->GetChannelZeroMask());
}

void AudioSubBuffer::SetChannelZero(std::uint32_t ch) {
  if (parent_ != nullptr && useSize_ == parent_->useSize_) parent_->SetChannelZero(ch);
  zeroMask_.SetBit(ch);
}

void AudioSubBuffer::SetChannelsZero(const ChannelMask& flags) {
  const ChannelMask wanted = flags;  // flags may be our own mask, changed below
  if (parent_ != nullptr) {
    if (useSize_ != parent_->useSize_) {
      const std::uint32_t n = Min(numChannels_, kFlagBits);
      for (std::uint32_t ch = 0; ch < n; ++ch) {
        if (wanted.IsSet(ch)) {
          SetChannelZero(ch);
        } else {
          ClearChannelZero(ch);
        }
      }
    } else {
      parent_->SetChannelsZero(wanted);
    }
  }
  zeroMask_ = wanted;
}

void AudioSubBuffer::ClearZero() {
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) ClearChannelZero(ch);
}

void AudioSubBuffer::ClearChannelZero(std::uint32_t ch) {
  if (parent_ != nullptr && ch < numChannels_ && ch < parent_->numChannels_ && parent_->IsChannelZero(ch)) {
    float* parentStart = parent_->channels_[ch];
    const std::uintptr_t p = reinterpret_cast<std::uintptr_t>(parentStart);
    const std::uintptr_t v = reinterpret_cast<std::uintptr_t>(channels_[ch]);
    const std::uintptr_t span = static_cast<std::uintptr_t>(parent_->bufferSize_) * sizeof(float);
    // Only a view that really sits inside the parent may write into it.
    if (parentStart != nullptr && v >= p && v - p <= span) {
      const std::uint64_t start = (v - p) / sizeof(float);
      const std::uint64_t parentUse = Min(parent_->useSize_, parent_->bufferSize_);
      vu::Zero(static_cast<std::size_t>(std::min(start, parentUse)), parentStart);
      const std::uint64_t end = start + useSize_;
      if (end < parentUse) vu::Zero(static_cast<std::size_t>(parentUse - end), parentStart + end);
      parent_->ClearChannelZero(ch);
    }
  }
  zeroMask_.ClearBit(ch);
}

void AudioSubBuffer::ClearChannelsZero(const ChannelMask& flags) {
  if (flags.None()) {
    SetChannelsZero(ChannelMask::AllOnes());
    return;
  }
  const ChannelMask wanted = flags;
  const std::uint32_t n = Min(numChannels_, kFlagBits);
  for (std::uint32_t ch = 0; ch < n; ++ch) {
    if (wanted.IsSet(ch)) {
      ClearChannelZero(ch);
    } else {
      SetChannelZero(ch);
    }
  }
}

void AudioSubBuffer::Zero() {
  if (IsZero()) return;
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) SetChannelZero(ch);
}

void AudioSubBuffer::ZeroChannel(std::uint32_t ch, std::uint32_t /*count*/) {
  if (ch < numChannels_) SetChannelZero(ch);
}

AudioBufferShell::AudioBufferShell() : AudioBuffer() {}

AudioBufferShell::~AudioBufferShell() = default;

void AudioBufferShell::Init(std::uint32_t channels) {
  float** table = static_cast<float**>(table_.Allocate(static_cast<std::size_t>(channels) * sizeof(float*)));
  channels_ = table;
  numChannels_ = table != nullptr ? channels : 0;
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) table[ch] = nullptr;
  bufferSize_ = useSize_ = 0;
  if (numChannels_ < kFlagBits) zeroMask_ |= ~ChannelMask::LowBits(numChannels_);
}

void AudioBufferShell::Assign(float** channels, std::uint32_t size) {
  if (channels_ == nullptr) return;
  bool complete = channels != nullptr;
  for (std::uint32_t ch = 0; complete && ch < numChannels_; ++ch) complete = channels[ch] != nullptr;
  if (!complete) {
    // A host that hands over a missing channel gets a shell that holds
    // nothing rather than one that dereferences null in the next operation.
    for (std::uint32_t ch = 0; ch < numChannels_; ++ch) channels_[ch] = nullptr;
    bufferSize_ = useSize_ = 0;
    zeroMask_ = ChannelMask::AllOnes();
    return;
  }
  for (std::uint32_t ch = 0; ch < numChannels_; ++ch) channels_[ch] = channels[ch];
  bufferSize_ = useSize_ = size;
  ClearZero();
}

}  // namespace dsp
