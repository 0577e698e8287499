#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"
#include "vexaudiodsp/loudness/LoudnessMeter.h"

namespace dsp {

/// A LoudnessMeter driven by the offline-analysis protocol: one pass over
/// the selection in blocks of GetDesiredBlockSize() frames; the figures are
/// read afterwards with GetSummary(). Channel labels come from SetLabels,
/// or else from the default layout for the channel count (6 channels are
/// L R C LFE Ls Rs, so the LFE is excluded and the surrounds weighted).
///
/// SetIOConfig and Start allocate; Analyze does not. `result` is unused.
class VEXAUDIODSP_API LoudnessAnalyzer : public DSPAnalyzer {
 public:
  static constexpr int kBlockSize = 4096;

  /// Labels for the next SetIOConfig; an empty list means the default.
  void SetLabels(std::vector<Itu1770::ChannelLabel> labels) { labels_ = std::move(labels); }
  void SetTruePeak(bool on) { truePeak_ = on; }

  void SetIOConfig(int numChannels, float sampleRate) override;
  bool SetSelection(std::int64_t start, std::int64_t length) override;
  int GetDesiredBlockSize() const override { return kBlockSize; }
  bool IsCompleted() const override;
  float GetProgress() const override;
  void Start(float* result) override;
  std::int64_t Analyze(float** buffers, int numChannels, int numSamples) override;

  const LoudnessMeter& GetMeter() const { return meter_; }
  /// Every figure of the frames analysed so far; allocates.
  LoudnessSummary GetSummary() const { return meter_.GetSummary(); }

 private:
  LoudnessMeter meter_;
  std::vector<Itu1770::ChannelLabel> labels_;
  bool truePeak_ = true;
  int numChannels_ = 0;
  int sampleRate_ = 0;
  std::int64_t length_ = 0;
};

}  // namespace dsp
