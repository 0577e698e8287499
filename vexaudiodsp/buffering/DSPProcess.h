#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// The host-facing interface of a streaming effect.
///
/// Calling order: SetIOConfig(channels, rate) -> optional SetSelection ->
/// Start() -> Process() once per block (ParameterChanged() after the host
/// changed parameters) -> Flush() until it returns 0 to drain a tail ->
/// Done(). The object may be configured again afterwards. GetLatency() is
/// valid after Start(). Buffers are planar, one float* per channel.
///
/// SetIOConfig and Start may allocate; Process, Flush and ParameterChanged
/// must not allocate, lock, throw or do I/O. One thread at a time.
class VEXAUDIODSP_API DSPProcess {
 public:
  virtual ~DSPProcess();
  /// Restricts processing to a selection of the host's timeline, in samples;
  /// false refuses it.
  virtual bool SetSelection(std::int64_t start, std::int64_t length);
  virtual void SetIOConfig(int numChannels, float sampleRate);
  virtual void Start();
  virtual void Process(float** in, float** out, int numChannels, int numSamples) = 0;
  /// Writes up to numSamples of tail into out; returns how many were written
  /// (0: no tail left).
  virtual int Flush(float** out, int numChannels, int numSamples);
  virtual void Done();
  /// Delay of the output against the input, in samples.
  virtual int GetLatency() const;
  virtual void ParameterChanged();
};

}  // namespace dsp
