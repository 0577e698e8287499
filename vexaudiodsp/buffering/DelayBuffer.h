#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"

namespace dsp {

/// One-channel circular history of the last N samples written, read back
/// oldest first at a sample offset (a look-ahead window, a fixed delay).
///
/// Before the first wrap the valid data is the single stretch
/// [start, position); afterwards it is [position, end) followed by
/// [start, position), i.e. always exactly N samples. Read() copies from that
/// sequence; GetWorkChunks() exposes the same stretches as pointers.
///
/// Write(n) with n > N (never done by the library) keeps the newest N samples
/// and leaves the position where n single-sample writes would have left it.
/// Null pointers and counts <= 0 do nothing.
///
/// Allocation: Init and copying allocate; Reset, Write, Read and
/// GetWorkChunks never allocate, lock or throw. One thread at a time.
class VEXAUDIODSP_API DelayBuffer {
 public:
  /// Two stretches of the ring, older first; an empty stretch has
  /// begin == end.
  struct WorkChunks {
    float* firstBegin;
    float* firstEnd;
    float* secondBegin;
    float* secondEnd;
  };

  DelayBuffer();
  DelayBuffer(const DelayBuffer& other);
  DelayBuffer& operator=(const DelayBuffer& other);
  ~DelayBuffer();

  /// Allocates n samples (content not cleared, none valid yet).
  void Init(int n);
  /// No sample counts as valid any more; the memory is not touched.
  void Reset();
  void Write(const float* src, int n);
  /// Valid samples: N once wrapped, otherwise the number written.
  int GetValidDataSize() const;
  /// Copies up to n valid samples, skipping the `offset` oldest, into dst;
  /// returns how many were copied (0 when offset is at or past the end of the
  /// valid data). A negative offset counts as 0.
  int Read(float* dst, int n, int offset) const;
  /// The valid stretches with the oldest `offset` samples skipped.
  WorkChunks GetWorkChunks(int offset);
  /// Capacity N in samples.
  int GetSize() const { return size_; }

 private:
  /// Moves the write position by n with the wrap rule of Write.
  void IncrementPosition(int n);
  WorkChunks Stretches() const;

  std::int32_t size_ = 0;
  float* start_ = nullptr;
  float* end_ = nullptr;
  float* position_ = nullptr;
  bool wrapped_ = false;
};

/// A fixed number of DelayBuffers of equal capacity, one per channel.
/// Channel indices out of range and null pointers are ignored. Init and
/// copying allocate, and so does GetWorkChunks (it returns a vector); Write,
/// Read and Reset never allocate. One thread at a time.
class VEXAUDIODSP_API MultiChannelDelayBuffer {
 public:
  MultiChannelDelayBuffer();
  MultiChannelDelayBuffer(const MultiChannelDelayBuffer& other);
  MultiChannelDelayBuffer& operator=(const MultiChannelDelayBuffer& other);
  ~MultiChannelDelayBuffer();

  /// Replaces all channels by `channels` buffers of n samples each.
  void Init(int channels, int n);
  void Write(int channel, float* src, int n);
  /// Writes src[ch] into every channel (null entries are skipped).
  void Write(float** src, int n);
  /// Number of samples copied (0 for a channel out of range).
  int Read(int channel, float* dst, int n, int offset) const;
  /// Reads every channel (null entries skipped); returns the number of
  /// samples copied per channel (all channels hold the same amount).
  int Read(float** dst, int n, int offset) const;
  /// Channel 0's valid size; 0 without channels.
  int GetValidDataSize() const;
  void Reset();
  std::vector<DelayBuffer::WorkChunks> GetWorkChunks(int offset);
  int GetNumChannels() const { return numChannels_; }

 private:
  std::int32_t numChannels_ = 0;
  std::unique_ptr<DelayBuffer[]> buffers_;
};

/// A fixed delay of whole multichannel blocks: the buffer itself is used as a
/// ring of L = use size samples per channel. Init(channels, delay, maxBlock)
/// makes L = maxBlock + delay; writing then reading one block of at most
/// maxBlock samples per cycle returns the input delayed by exactly `delay`
/// samples. Channels the source reports silent are written as zeros; the
/// read block is always marked as carrying sound. Destination channels the
/// ring does not have are written with zeros; source channels it does not
/// have are ignored. Blocks longer than maxBlock do not fault but no longer
/// give a clean delay.
///
/// SetDelay(d) re-initialises the ring with a length of L + d (the length
/// grows with every call; it is meant to be called once after Init) and
/// silences it.
///
/// Allocation: Init and SetDelay allocate when the shape outgrows the held
/// block; Write and Read never allocate, lock or throw. One thread at a time.
class VEXAUDIODSP_API AudioDelayBuffer : public AudioBuffer {
 public:
  AudioDelayBuffer();
  AudioDelayBuffer(const AudioDelayBuffer&) = default;
  ~AudioDelayBuffer() override;

  /// delay and maxBlockSize in samples.
  void Init(std::uint32_t channels, std::uint32_t delay, std::uint32_t maxBlockSize);
  void SetDelay(std::uint32_t delay);
  std::uint32_t GetDelay() const { return delay_; }
  void Write(const AudioBuffer& src);
  void Read(AudioBuffer& dst);

 private:
  std::uint32_t delay_ = 0;
  std::uint32_t readPosition_ = 0;
  std::uint32_t writePosition_ = 0;
};

}  // namespace dsp
