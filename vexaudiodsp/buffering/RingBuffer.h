#pragma once

#include <atomic>
#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Planar multichannel FIFO of `size` samples per channel that hands audio
/// from one writer thread to one reader thread without locks.
///
/// Positions are sample indices in [0, size] (a position equal to size acts
/// as 0). One slot is always kept free so that full and empty differ:
/// CanBeRead() + CanBeWritten() == size - 1. Each side publishes its own
/// position with a release compare-exchange after its samples are copied and
/// reads the other side's position with an acquire load, so samples covered
/// by a visible position are complete.
///
/// Writer side: CanBeWritten, Write, FillZeroes.
/// Reader side: CanBeRead, Read, Replace, AdvanceBy.
/// Neither Write nor Read checks the fill level: the caller asks
/// CanBeWritten/CanBeRead first. Counts are cut to [0, size] so that even a
/// misbehaving caller never touches memory outside the ring.
///
/// Channel counts passed to Write/Read/Replace are cut to the ring's; a
/// smaller count leaves the other channels untouched (positions still move).
/// A null pointer table makes the call do nothing; a null channel pointer in
/// Write writes silence for that channel, in Read/Replace skips it.
///
/// Allocate, Deallocate, Reset, copy and assignment are configuration: they
/// may allocate and must not overlap with Write/Read on other threads.
/// Write, Read, Replace, AdvanceBy and FillZeroes never allocate, lock or
/// throw.
class VEXAUDIODSP_API RingBuffer {
 public:
  RingBuffer();
  ~RingBuffer();
  /// Deep copy: same channel count and size, same samples and positions.
  RingBuffer(const RingBuffer& other);
  /// Deep copy of shape, samples and positions (reallocates unless the shape
  /// already matches).
  RingBuffer& operator=(const RingBuffer& other);

  /// Frees any previous channels, allocates numChannels arrays of size
  /// samples (zeroed) and sets both positions to 0.
  void Allocate(int numChannels, int size);
  void Deallocate();

  /// Samples written and not yet consumed.
  int CanBeRead() const;
  /// Samples that can be written without overtaking the reader.
  int CanBeWritten() const;

  /// Copies n samples of src[ch] + srcOffset to the write position and then
  /// publishes the advanced write position.
  void Write(float** src, int srcOffset, int numChannels, int n);
  /// Copies n samples from the read position into dst[ch] and then moves the
  /// read position by advance (not by n), so that overlapping or gapped
  /// windows can be read. advance is cut to [0, size].
  void Read(float** dst, int numChannels, int n, int advance);
  /// Overwrites n samples at the read position; positions unchanged.
  void Replace(float** src, int srcOffset, int numChannels, int n);
  /// Moves the read position by n without copying.
  void AdvanceBy(int n);
  /// Writes n zeros at the write position and publishes the advanced position.
  void FillZeroes(int n);
  /// Both positions to 0 (the ring is empty); samples stay.
  void Reset();

  int GetSize() const { return size_; }
  int GetNumChannels() const { return numChannels_; }

 private:
  enum class Fill { kCopy, kZero };
  void CopyIn(float** src, int srcOffset, int numChannels, int n, std::int64_t position, Fill fill);
  std::int64_t Advance(std::int64_t position, int n) const;
  static void Publish(std::atomic<std::int64_t>& position, std::int64_t value);

  float** channels_ = nullptr;
  std::int32_t numChannels_ = 0;
  std::int32_t size_ = 0;
  std::atomic<std::int64_t> writePosition_{0};
  std::atomic<std::int64_t> readPosition_{0};
};

}  // namespace dsp
