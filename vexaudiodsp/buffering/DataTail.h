#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Per-channel history buffer for block processors: a linear array of
/// tail + max block size samples per channel. The first GetTotal() samples
/// are valid; the tail holds the history, a new block is appended behind it,
/// and after processing Shift(n) moves the newest tail-size samples to the
/// front so that they become the history of the next block:
///
///   SetTailMode(ch, rate, block, tail, true)   // total = tail, all zeros
///   per block: Append(in, n, 0) -> process [0, tail + n) -> Shift(n)
///
/// The same storage can be used as a circular buffer of GetTotalSize()
/// samples through AppendCircular/ExtractCircular, in which case GetTotal()
/// is the circular write index.
///
/// Sizes are in samples; negative sizes count as 0. The sampling rate is only
/// stored for the owner's convenience.
///
/// Allocation: SetMode, SetTailMode, ReserveMemory, ChangeBufferSize,
/// ChangeTailSize, copy and assignment may allocate (ReserveMemory ahead of
/// time makes later shaping within the reserved size allocation-free).
/// Append, AppendCircular, ExtractCircular, Shift, ShiftAll, Reset,
/// ResetToVal and MakeOffsetPointer never allocate. One thread at a time.
///
/// Capacity: the owner is expected never to append more than max block size
/// samples after a Shift. Appends that would run past the capacity are cut
/// at the capacity (the excess samples are dropped) rather than written out
/// of bounds.
class VEXAUDIODSP_API DataTail {
 public:
  /// An empty buffer: no channels, all sizes 0.
  DataTail();
  /// Shapes the buffer as SetTailMode(numChannels, 0, maxBlockSize, 0, true):
  /// no tail and a sampling rate of 0 until set otherwise.
  DataTail(int numChannels, int maxBlockSize);
  /// Deep copies: the copy owns its samples and its pointer tables point into
  /// its own storage.
  DataTail(const DataTail& other);
  DataTail& operator=(const DataTail& other);
  virtual ~DataTail();

  /// SetTailMode with the current tail size and reset: the buffer holds a
  /// full tail of silence afterwards.
  void SetMode(int numChannels, int samplingRate, int maxBlockSize);
  /// Reshapes every channel to maxBlockSize + tailSize samples. Samples that
  /// still fit are kept and new ones are zero; with reset the whole capacity
  /// is zeroed and the total set to the tail size. Without reset the total is
  /// kept (cut to the new capacity).
  void SetTailMode(int numChannels, int samplingRate, int maxBlockSize, int tailSize, bool reset);
  /// Reserves storage for numChannels channels of totalSize samples each so
  /// that later shaping up to that size does not allocate.
  void ReserveMemory(int numChannels, int totalSize);
  /// Changes the max block size, keeping the held samples: when they no longer
  /// fit the oldest are dropped.
  virtual void ChangeBufferSize(int maxBlockSize);
  /// Changes the tail size, keeping the held history aligned to its end (the
  /// position where the next block is appended): a longer tail gets silence
  /// in front of the old history, a shorter one drops the oldest samples.
  void ChangeTailSize(int tailSize);

  /// Total = tail size, every sample of the capacity 0.0.
  void Reset();
  /// Total = tail size, every sample of the capacity set to value.
  void ResetToVal(float value);

  /// Moves n samples from src[ch] + srcOffset to index GetTotal() of every
  /// channel and advances the total. A null src does nothing; a null channel
  /// pointer appends silence for that channel. Source and buffer may overlap.
  void Append(const float* const* src, unsigned n, int srcOffset);
  /// Circular write of n samples at the total (wrapping at the capacity);
  /// more than the capacity keeps only the newest capacity samples.
  void AppendCircular(const float* const* src, unsigned n, int srcOffset);
  /// Circular read of n samples (at most the capacity) starting at
  /// GetTotal() + offset (taken modulo the capacity, so a negative offset
  /// reaches back in time) into dst[ch] + dstOffset. channel == 0xFFFFFFFF
  /// reads every channel, otherwise only that channel (into dst[channel]).
  void ExtractCircular(float* const* dst, unsigned n, int offset, int dstOffset, unsigned channel) const;
  /// Drops the n oldest samples and keeps at most the tail behind them: after
  /// the usual Append of n samples onto a full tail, the newest tail-size
  /// samples end up at the front. With fewer samples held, total - n are kept
  /// (never fewer than 0). n <= 0 does nothing.
  void Shift(int n);
  /// Drops the n oldest samples and keeps all the rest (not only a tail).
  void ShiftAll(unsigned n);

  /// The channel table advanced by offset samples (cut to the capacity).
  /// The returned table is owned by this object and valid until the next call
  /// or reshaping.
  float** MakeOffsetPointer(unsigned offset);

  operator const float* const*() const { return channels_.data(); }
  float* const* GetPointer() { return channels_.data(); }
  const float* const* GetPointer() const { return channels_.data(); }

  int GetTailSize() const { return tailSize_; }
  /// Number of valid samples held per channel (the write index).
  int GetTotal() const { return total_; }
  /// Sets the number of valid samples, cut to [0, capacity].
  void SetTotal(int total);
  /// Adds to the number of valid samples, cut to [0, capacity].
  void AddTotal(int n);
  /// Marks the buffer empty (total 0) without touching the samples; the usual
  /// start of circular use.
  void ResetTotal() { total_ = 0; }
  int GetMaxBlockSize() const { return maxBlockSize_; }
  int GetNumChannels() const { return numChannels_; }
  int GetSamplingRate() const { return samplingRate_; }
  /// Capacity per channel: max block size + tail size.
  int GetTotalSize() const { return maxBlockSize_ + tailSize_; }

 private:
  void RefreshTables();
  // Re-shapes to the new sizes and copies the held samples of old so that old
  // index i lands at new index i + shift (samples falling outside are lost).
  void CarryFrom(const DataTail& old, int shift);

  std::vector<float*> channels_;
  std::vector<std::vector<float>> storage_;
  std::vector<float*> offsetChannels_;
  std::int32_t tailSize_ = 0;
  std::int32_t total_ = 0;
  std::int32_t maxBlockSize_ = 0;
  std::int32_t numChannels_ = 0;
  std::int32_t samplingRate_ = 0;
};

/// One-channel form of DataTail with the same rules: a linear buffer of
/// tail + max block size samples, appended behind the tail and shifted after
/// each block. Shaping (SetMode, SetTailMode, ReserveMemory,
/// ChangeBufferSize, ChangeTailSize, copy) may allocate; Append, Shift,
/// ShiftAll, Reset and ResetToVal never do. One thread at a time.
class VEXAUDIODSP_API DataTail1D {
 public:
  DataTail1D();
  virtual ~DataTail1D();
  DataTail1D(const DataTail1D&) = default;
  DataTail1D& operator=(const DataTail1D&) = default;

  /// SetTailMode with the current tail size and reset.
  void SetMode(int maxBlockSize);
  void SetTailMode(int maxBlockSize, int tailSize, bool reset);
  void ReserveMemory(int totalSize);
  /// Changes the max block size keeping the held samples (oldest dropped when
  /// they no longer fit).
  virtual void ChangeBufferSize(int maxBlockSize);
  /// Changes the tail size keeping the history aligned to its end.
  void ChangeTailSize(int tailSize);
  void Reset();
  void ResetToVal(float value);

  /// Moves n samples from src + offset to index GetTotal(); cut at the
  /// capacity; a null src does nothing. n <= 0 does nothing.
  void Append(const float* src, int n, int offset);
  void Shift(int n);
  void ShiftAll(unsigned n);

  operator float*() { return data_.data(); }
  operator const float*() const { return data_.data(); }

  int GetTotalSize() const { return maxBlockSize_ + tailSize_; }
  int GetTotal() const { return total_; }
  void SetTotal(int total);
  void AddTotal(int n);
  int GetTailSize() const { return tailSize_; }
  int GetMaxBlockSize() const { return maxBlockSize_; }
  /// Stored for the owner's convenience only.
  int GetSamplingRate() const { return samplingRate_; }
  void SetSamplingRate(int samplingRate) { samplingRate_ = samplingRate; }

 private:
  void CarryFrom(const DataTail1D& old, int shift);

  std::vector<float> data_;
  std::int32_t total_ = 0;
  std::int32_t tailSize_ = 0;
  std::int32_t maxBlockSize_ = 0;
  std::int32_t samplingRate_ = 0;
};

}  // namespace dsp
