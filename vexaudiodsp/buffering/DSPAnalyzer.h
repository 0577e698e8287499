#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// The host-facing interface of an offline analysis over a selection.
///
/// Calling order: SetIOConfig(channels, rate) -> SetSelection(start, length)
/// -> Start(result) -> repeat { Analyze(buffers, channels, n) with n =
/// GetDesiredBlockSize() samples read from the position the analyzer expects }
/// until IsCompleted() -> Done(). GetProgress() (percent, 0..100) may be polled
/// at any time. Positions and lengths are in samples of the host's timeline.
///
/// `result` is caller-owned storage the analyzer writes its findings to; its
/// size and meaning belong to the concrete analyzer. SetIOConfig and Start
/// may allocate; Analyze must not allocate, lock, throw or do I/O. One thread
/// at a time.
class VEXAUDIODSP_API DSPAnalyzer {
 public:
  virtual ~DSPAnalyzer();
  virtual void SetIOConfig(int numChannels, float sampleRate);
  /// False refuses the selection. The default accepts any.
  virtual bool SetSelection(std::int64_t start, std::int64_t length);
  /// Samples the analysis reads beyond the selection end, so the host keeps
  /// feeding that many more.
  virtual int GetLatency() const;
  virtual int GetDesiredBlockSize() const = 0;
  /// The host's loop condition. Implementations may advance internal state
  /// here (see DSPMultiPassAnalyzer), so poll it once per block.
  virtual bool IsCompleted() const = 0;
  virtual float GetProgress() const = 0;
  /// Stores `result` for the analysis to fill.
  virtual void Start(float* result);
  /// Analyzes numSamples samples of numChannels planar channels; returns the
  /// number of samples the host should advance its read position by.
  virtual std::int64_t Analyze(float** buffers, int numChannels, int numSamples) = 0;
  virtual void Done();

 protected:
  float* GetResult() const { return result_; }

 private:
  float* result_ = nullptr;
};

/// An analyzer that reads the same selection several times, once per pass.
///
/// Subclasses implement the per-pass operations Analyze(pass, ...),
/// GetLatency(pass) and OnPassDone(pass); this class keeps the current pass
/// and the absolute position of the next expected sample. Each pass covers
/// [start, start + length + GetLatency(pass)). When the position reaches the
/// pass end, the Analyze call that crossed it returns its consumed count minus
/// (length + latency), which rewinds a host that advances by the returned
/// counts back to the selection start when the last block ends exactly at the
/// pass end. The next IsCompleted() then calls OnPassDone(pass), moves to the
/// next pass and rewinds the position; it returns true only on the call that
/// finishes the last pass (a later poll returns false again unless the pass
/// is empty).
///
/// IsCompleted() is const for the host interface yet advances the pass, so
/// the position and pass are mutable and OnPassDone is reached from it.
/// After the last pass the current pass equals the pass count, so
/// GetLatency(pass) may be asked for that index and must answer (0 is fine).
/// Subclasses that override the per-pass GetLatency/Analyze should bring the
/// host-facing overloads back into scope with `using`.
///
/// Neither Analyze nor IsCompleted allocate. One thread at a time.
class VEXAUDIODSP_API DSPMultiPassAnalyzer : public DSPAnalyzer {
 public:
  /// numPasses below 1 is taken as 1.
  explicit DSPMultiPassAnalyzer(int numPasses);

  /// Stores the selection and moves the position to its start; accepts any.
  bool SetSelection(std::int64_t start, std::int64_t length) override;
  /// GetLatency(current pass).
  int GetLatency() const override;
  bool IsCompleted() const override;
  /// ((position - start) / (length + latency) + pass) / passes * 100, in
  /// float; an empty pass (length + latency <= 0) counts as not begun, and
  /// 100 once every pass is done.
  float GetProgress() const override;
  /// Stores result and restarts at pass 0; the position is left where
  /// SetSelection put it.
  void Start(float* result) override;
  std::int64_t Analyze(float** buffers, int numChannels, int numSamples) override;
  void Done() override;

  int GetNumPasses() const { return numPasses_; }
  int GetCurrentPass() const { return currentPass_; }

 protected:
  /// Samples read beyond the selection end in the given pass.
  virtual int GetLatency(int pass) const;
  /// Analyzes one block of the given pass; returns the samples consumed.
  virtual std::int64_t Analyze(int pass, float** buffers, int numChannels, int numSamples) = 0;
  /// Called from IsCompleted() once the pass has seen its whole range.
  virtual void OnPassDone(int pass);

  std::int64_t GetCurrentPosition() const { return currentPosition_; }
  std::int64_t GetSelectionStart() const { return selectionStart_; }
  std::int64_t GetSelectionLength() const { return selectionLength_; }

 private:
  std::int64_t selectionStart_ = 0;
  std::int64_t selectionLength_ = 0;
  mutable std::int64_t currentPosition_ = 0;
  std::int32_t numPasses_;
  mutable std::int32_t currentPass_ = 0;
};

}  // namespace dsp
