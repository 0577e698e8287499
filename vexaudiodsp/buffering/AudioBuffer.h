#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexcore/MemoryRecycler.h"

namespace dsp {

/// Planar multichannel float buffer: one array of samples per channel, all
/// carved from a single block of the vexcore MemoryRecycler, plus a
/// channel-zero mask (bit n set = channel n is to be treated as silence, its
/// samples need not be zero) that lets every operation skip silent channels.
///
/// Sizes are in samples per channel. The buffer size is the capacity, the use
/// size the number of valid samples every operation works on. Channel starts
/// are aligned to `alignment` samples (16 by default, so 64 bytes) with at
/// least 4 spare floats behind each channel's last sample. Only the first 64
/// channels carry a flag: setting or clearing a flag of channel >= 64 does
/// nothing, while IsChannelZero(ch) reads bit (ch mod 64), so such a channel
/// follows the flag of channel ch - 64.
///
/// Allocation: Init (when the new shape needs more bytes than the block it
/// holds; equal or smaller shapes reuse it, and capacity never shrinks on the
/// same channel count), SetUseSize when it grows beyond the capacity while
/// holding data, the copy constructor and GetBuffersAsFloats/GetBuffersAsVoid
/// (they return vectors). Everything else - the copy, mix, gain, zero and
/// reverse operations and all flag operations - never allocates, locks or
/// throws, and may run per block. Not internally locked: one thread at a time.
///
/// The views below (AudioBufferChannel, AudioSubBuffer, AudioBufferShell)
/// never own samples: their SetUseSize caps at the buffer size instead of
/// allocating, and Assign never allocates.
///
/// Robustness beyond the flag rules: every write is limited to the written
/// buffer's capacity and every read to the source's capacity (a source shorter
/// than the count being copied contributes zeros for the rest), so a view whose
/// use size wrapped around can never touch memory outside its parent.
class VEXAUDIODSP_API AudioBuffer {
 public:
  using ChannelMask = vexcore::utility::Flags<std::uint64_t>;

  /// Empty: no storage, 0 channels, sizes 0, alignment 16, mask 0.
  AudioBuffer();
  /// Init(channels, size) unless size is 0 (then the buffer stays empty).
  AudioBuffer(std::uint32_t channels, std::uint32_t size);
  /// Copies alignment and mask, then every channel's use-size samples,
  /// flagged or not. Allocates.
  AudioBuffer(const AudioBuffer& other);
  AudioBuffer& operator=(const AudioBuffer&) = delete;

  virtual ~AudioBuffer();
  virtual bool IsZero() const;
  virtual bool IsChannelZero(std::uint32_t ch) const;
  virtual void SetChannelZero(std::uint32_t ch);
  virtual void SetChannelsZero(const ChannelMask& flags);
  /// Clears the flags of channels 0..n-1; flags above the channel count stay.
  virtual void ClearZero();
  virtual void ClearChannelZero(std::uint32_t ch);
  virtual void ClearChannelsZero(const ChannelMask& flags);
  virtual ChannelMask GetChannelZeroMask() const;

  /// (Re)shapes the buffer to `channels` x `size`. Reuses the held block when
  /// it is big enough (old samples then stay where the new layout puts them),
  /// otherwise allocates a new one and the old content is lost. When that
  /// allocation fails (the heap refuses, or the shape's byte count exceeds
  /// what the recycler will take) the buffer is left empty: no storage, 0
  /// channels, sizes 0. On a change
  /// of channel count within the held block the capacity becomes the largest
  /// that fits. Flags of channels >= `channels` are set, the others kept.
  void Init(std::uint32_t channels, std::uint32_t size);
  /// Sets the use size. Within capacity (or while the use size is 0, which
  /// then caps at the capacity) only the count changes; growing beyond
  /// capacity reallocates and keeps the first old-use-size samples. When the
  /// larger block is refused the buffer keeps its shape, samples and flags.
  void SetUseSize(std::uint32_t size);

  /// n = min(src use size, use size); an all-silent source zeroes this buffer.
  void CopyFrom(const AudioBuffer& src);
  /// n = min(count, use size).
  void CopyFrom(const AudioBuffer& src, std::uint32_t count);
  /// As CopyFrom(src, count); the first unsigned argument is not used.
  void CopyFrom(const AudioBuffer& src, std::uint32_t unused, std::uint32_t count);
  /// As CopyFrom(src, count), but channels whose bit in `channels` is clear
  /// are silenced instead of copied.
  void CopyCertainChannelsFrom(const AudioBuffer& src, std::uint32_t count, const ChannelMask& channels);
  /// Copies src scaled by `gain` (linear). Gain 1 is a plain copy, gain 0 a Zero().
  void CopyFromScale(const AudioBuffer& src, float gain);
  /// Copies use-size samples of channel `from` into channel `to`; an invalid or
  /// silent source channel silences `to`; `to` out of range does nothing.
  void CopyChannel(std::uint32_t from, std::uint32_t to);
  void CopyChannel(const AudioBuffer& src, std::uint32_t from, std::uint32_t to);
  /// Adds src into this buffer over the use size.
  void Mix(const AudioBuffer& src);
  /// Multiplies every non-silent channel by `gain` (linear); flags unchanged.
  AudioBuffer& operator*=(float gain);
  /// Zeroes the non-silent channels and flags every channel.
  void Zero();
  /// Zeroes min(count, use size) samples of a non-silent channel; flags it
  /// only when count covers the use size.
  void ZeroChannel(std::uint32_t ch, std::uint32_t count);
  /// Writes zeros over every channel, flagged or not; the mask is unchanged.
  void ZeroBuffers();
  /// Reverses the use-size samples of every non-silent channel in place.
  void Reverse();

  /// One entry per channel, advanced by `offset` samples. Allocates.
  std::vector<float*> GetBuffersAsFloats(int offset) const;
  std::vector<void*> GetBuffersAsVoid(int offset) const;

  float** GetFloatBuffers() const { return channels_; }
  /// Channel `ch`'s samples; null for a channel out of range.
  float* operator[](std::uint32_t ch) const { return ch < numChannels_ ? channels_[ch] : nullptr; }
  std::uint32_t GetNumChannels() const { return numChannels_; }
  std::uint32_t GetUseSize() const { return useSize_; }
  std::uint32_t GetBufferSize() const { return bufferSize_; }

 protected:
  /// Replaces the mask verbatim.
  void ForceSilenceMask(const ChannelMask& flags);
  int GetAlignment() const { return alignment_; }
  bool IsAlignedUse() const { return alignedUse_; }

  float** channels_;
  std::uint32_t numChannels_;
  std::uint32_t useSize_;
  std::uint32_t bufferSize_;
  std::int32_t alignment_;
  bool alignedUse_;
  ChannelMask zeroMask_;
  vexcore::utility::RecycledMemory storage_;

 private:
  friend class AudioBufferChannel;
  friend class AudioSubBuffer;

  /// The common silencing rule: a non-silent channel ch gets zeros over
  /// min(use size, n) samples and is flagged only when n covers the use size.
  void SilenceChannel(std::uint32_t ch, std::uint32_t n);
  /// Counted copy without the all-silent shortcut; channels of src that are
  /// silent or excluded by `channels` silence the destination. With `scale`
  /// the samples are multiplied by `gain` on the way.
  void CopyChannelsFrom(const AudioBuffer& src, std::uint32_t n, const ChannelMask& channels, bool scale, float gain);
  /// True when the channel table is not carved from this object's own storage
  /// (channel, sub-buffer and shell views): such a buffer never allocates samples.
  bool IsView() const { return channels_ != storage_.Get(); }
};

/// A one-channel view of channel `index` of another buffer. It owns no
/// samples and its flag operations act on the parent's flag of that channel,
/// so whatever is written through the view keeps the parent's mask right.
/// GetChannelZeroMask() returns a copy of the parent's whole mask as it was at
/// the last flag operation through the view. Assign never allocates. The
/// view must not outlive its parent nor a reallocating Init/SetUseSize of it.
class VEXAUDIODSP_API AudioBufferChannel : public AudioBuffer {
 public:
  AudioBufferChannel();
  AudioBufferChannel(const AudioBufferChannel& other);
  AudioBufferChannel& operator=(const AudioBufferChannel&) = delete;
  ~AudioBufferChannel() override;

  /// Views `parent`'s channel `channel`; an index out of range leaves the view
  /// empty (no channels, no parent, mask all ones).
  void Assign(AudioBuffer& parent, std::uint32_t channel);

  bool IsZero() const override;
  /// The parent's flag of the viewed channel (`ch` is ignored); true without a parent.
  bool IsChannelZero(std::uint32_t ch) const override;
  void SetChannelZero(std::uint32_t ch) override;
  void SetChannelsZero(const ChannelMask& flags) override;
  void ClearZero() override;
  void ClearChannelZero(std::uint32_t ch) override;
  void ClearChannelsZero(const ChannelMask& flags) override;

  AudioBuffer* GetParent() const { return parent_; }
  std::uint32_t GetParentChannel() const { return parentChannel_; }

 private:
  AudioBuffer* parent_;
  float* table_[1];
  std::uint32_t parentChannel_;
};

/// A view of every channel of another buffer from a sample offset on; views
/// nest. It owns only its pointer table. The buffer size is the parent's
/// minus the offset; the use size is the parent's minus the offset as an
/// unsigned 32-bit difference (an offset past the parent's use size wraps it,
/// and writes are then held to the buffer size). Alignment is re-derived from
/// the first channel pointer: 4 samples when it is 16-byte aligned, else 1.
///
/// Its flag operations keep the parent consistent: clearing a channel's flag
/// while the parent has it flagged writes zeros over the parent's samples
/// outside the view and clears the parent's flag, so a flagged channel may
/// hold stale samples safely. While the view's use size equals the parent's,
/// flagging a channel flags the parent's too. ClearChannelsZero(flags) names
/// the channels that carry sound: every other channel becomes flagged. Zero()
/// and ZeroChannel() only set flags.
///
/// Init(channels) allocates the pointer table; Assign and ShiftOffset never
/// allocate. Calling order: Init, Assign(parent, offset), optionally
/// SetUseSize(n) within the buffer size; ShiftOffset to walk forward. The
/// view must not outlive its parent nor a reallocating Init/SetUseSize of it.
class VEXAUDIODSP_API AudioSubBuffer : public AudioBuffer {
 public:
  AudioSubBuffer();
  AudioSubBuffer(const AudioSubBuffer&) = delete;
  AudioSubBuffer& operator=(const AudioSubBuffer&) = delete;
  ~AudioSubBuffer() override;

  void SetChannelZero(std::uint32_t ch) override;
  /// Assigns (not ORs) the mask.
  void SetChannelsZero(const ChannelMask& flags) override;
  void ClearZero() override;
  void ClearChannelZero(std::uint32_t ch) override;
  void ClearChannelsZero(const ChannelMask& flags) override;
  /// Flags every channel; no samples are written.
  virtual void Zero();
  /// Flags channel `ch`; `count` is not used and no samples are written.
  virtual void ZeroChannel(std::uint32_t ch, std::uint32_t count);

  /// Sets the channel count and takes a fresh pointer table; sizes become 0.
  void Init(std::uint32_t channels);
  /// Points the view at `parent` from `offset` samples on. Ignored when the
  /// view has more channels than the parent; an offset at or past the
  /// parent's buffer size gives an empty view.
  void Assign(AudioBuffer& parent, std::uint32_t offset);
  /// Moves the view `samples` further into the parent.
  void ShiftOffset(std::uint32_t samples);

  AudioBuffer* GetParent() const { return parent_; }

 private:
  void DeriveAlignmentFromPointer(bool useSizeDecides);

  AudioBuffer* parent_;
  vexcore::utility::RecycledMemory table_;
};

/// A buffer whose channel pointers are supplied by the caller, to run buffer
/// operations on host memory. It owns only its pointer table (Init allocates
/// it; Assign never allocates); the caller keeps the samples alive. Host
/// pointers may be unaligned.
class VEXAUDIODSP_API AudioBufferShell : public AudioBuffer {
 public:
  AudioBufferShell();
  AudioBufferShell(const AudioBufferShell&) = delete;
  AudioBufferShell& operator=(const AudioBufferShell&) = delete;
  ~AudioBufferShell() override;

  /// Sets the channel count and takes a fresh pointer table; sizes become 0.
  void Init(std::uint32_t channels);
  /// Takes GetNumChannels() pointers from `channels`, each valid for `size`
  /// samples; every channel is then marked as carrying sound. When `channels`
  /// is null or any of those pointers is null, the shell is left holding
  /// nothing instead: null pointers, use and buffer size 0 and every channel
  /// flagged silent, so no operation reads or writes through it (copies from
  /// it silence their destination).
  void Assign(float** channels, std::uint32_t size);

 private:
  vexcore::utility::RecycledMemory table_;
};

}  // namespace dsp
