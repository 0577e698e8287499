#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/RefCounted.h"

namespace dsp {
namespace utility {

/// Integer-sample delay of one signal, reference-counted so that effects can
/// hold one per channel through a RefPtr.
///
/// The buffer is sized once at construction for maxDelayMillis:
/// L = ceil(rate * maxMs / 1000) + 1 samples (one spare sample, so the
/// longest delay is L - 1 samples). The delay is set in milliseconds
/// (clamped to [0, maxDelayMillis], rounded half up to whole samples) or in
/// samples (clamped to L - 1). There is no interpolation: a delay of d
/// returns the input of d samples before, a delay of 0 passes the input
/// through.
///
/// Changing the delay while running moves the read side without clearing:
/// whatever is stored between the old and the new read position becomes
/// audible, as on a tape loop. Reset() silences only the samples in flight
/// and keeps both positions; it leaves the last element of the buffer as it
/// is when the read position is ahead of the write position.
///
/// A NaN delay in milliseconds is ignored (the previous delay stays).
/// Non-finite or non-positive rates and maximum delays give a buffer of one
/// sample, i.e. a delay line that can only pass the signal through.
///
/// Allocation: only the constructor. Setters, Reset and ProcessInPlace never
/// allocate, lock or throw. One thread at a time.
class VEXAUDIODSP_API DelayLine : public vexcore::utility::RefCountedObject {
 public:
  /// sampleRate in Hz, maxDelayMillis in ms.
  DelayLine(float sampleRate, float maxDelayMillis);
  ~DelayLine() override;

  float GetSampleRate() const { return sampleRate_; }
  float GetDelayMillis() const { return delayMillis_; }
  /// Delay in ms, clamped to [0, maxDelayMillis]; nothing happens when ms
  /// equals the stored value or is NaN.
  void SetDelayMillis(float ms);
  unsigned GetDelaySamples() const { return delaySamples_; }
  /// Delay in samples, clamped to the buffer length - 1; the stored delay in
  /// ms follows as samples / rate * 1000.
  void SetDelaySamples(unsigned samples);
  /// Buffer length L in samples (the longest delay is L - 1).
  unsigned GetBufferLength() const { return static_cast<unsigned>(buffer_.size()); }

  /// Zeroes the samples in flight; both positions stay.
  void Reset();
  /// Delays n samples of data in place. A null data pointer does nothing.
  void ProcessInPlace(unsigned n, float* data);

 private:
  /// Places the read index exactly delaySamples_ behind the write index.
  void UpdateReadIndex();

  float sampleRate_;
  float maxDelayMillis_;
  std::vector<float> buffer_;
  float delayMillis_ = 0.0f;
  std::uint32_t delaySamples_ = 0;
  std::uint32_t writeIndex_ = 0;
  std::uint32_t readIndex_ = 0;
};

}  // namespace utility
}  // namespace dsp
