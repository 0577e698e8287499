#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/filters/IIRFilter.h"
#include "vexcore/Flags.h"
#include "vexcore/RefCounted.h"

namespace dsp {
namespace analogdelay {

/// Parameter ranges a host offers; the class itself only holds the delay to
/// its line (twice the longest delay) and the trash amount to 0 ... 100.
constexpr float kDelayMinMs = 10.0f;
constexpr float kDelayMaxMs = 8000.0f;
constexpr float kTrashMin = 0.0f;
constexpr float kTrashMax = 100.0f;
constexpr float kSpreadMin = 0.0f;
constexpr float kSpreadMax = 200.0f;
constexpr float kLevelMinPercent = 0.0f;
constexpr float kLevelMaxPercent = 100.0f;
constexpr float kFeedbackMinPercent = 0.0f;
constexpr float kFeedbackMaxPercent = 200.0f;
constexpr unsigned int kNumTempoSyncRatios = 22;

/// A per-channel feedback delay after three analog circuits.
///
/// What enters the line is feedback * tap + input * wetDrive, driven
/// through the mode's saturation and a second-order low-pass:
///   mode 0: sin(pi/2 x d0) / sin(pi/2 d0), low-pass 5500 Hz Q 0.38, LFO
///     period 500 ms;
///   mode 1: the same sine with a smaller drive, then (for trash > 0) a
///     rational soft clip after up to 1.8 dB of gain; 4000 Hz Q 0.59, 333 ms;
///   mode 2: atan(|x|^p)^(1/p) with the polarity inverted, input drive up to
///     +20 dB and output make-up down to -6 dB; 1500 Hz Q 0.9, 750 ms.
/// trash (0 ... 100) sets the drives. The read tap is modulated by a sine
/// LFO of at most 0.1 ms depth and read with cubic interpolation. The wet
/// signal is spread (stereo only: 0 = both wet channels their mean, 100 =
/// unchanged, 200 = twice the side) and, above 100 % feedback, soft-limited
/// to +-0.975. Output = wet% * make-up * wet + dry% * input.
///
/// Delay changes glide toward the target at most one sample per sample
/// (pitch-bending the repeats) unless the object was built with
/// jumpOnDelayChange, which clears the line and jumps. With tempo sync on,
/// the delay is 60000 / tempo ms times the multiplier of the sync ratio
/// (GetHostTempoSyncRatioMultiplier). The line holds L = round(16 * rate) + 1
/// samples; target delays are held to [0, 16000] ms and to the line.
///
/// Units: delay in ms, levels and feedback in percent, tempo in beats per
/// minute, beat unit in beats per bar. NaN settings and tempos that are not
/// positive are ignored.
///
/// Process writes to `outFlags` the channels whose output it did not
/// write: the bypassed ones, or every configured channel when the mode
/// number is invalid (Process then stops before writing anything). The
/// caller passes those through itself.
///
/// Allocation: the constructor, SetSampleRate and SetChannelCount (one line
/// of L floats per channel, about 3 MB per channel at 48 kHz). Setters,
/// Reset and Process never allocate. Reset (and, with jumpOnDelayChange, the
/// delay setters) clear only what was written since the last clear, at most
/// the whole line. One thread at a time.
class VEXAUDIODSP_API AnalogDelayDSP : public vexcore::utility::RefCountedObject {
 public:
  using ChannelFlags = vexcore::utility::Flags<std::uint64_t>;

  AnalogDelayDSP(float sampleRate, int channelCount, bool jumpOnDelayChange, bool allowHostTempoSync);
  ~AnalogDelayDSP() override;
  AnalogDelayDSP(const AnalogDelayDSP&) = delete;
  AnalogDelayDSP& operator=(const AnalogDelayDSP&) = delete;

  /// Both rebuild the lines and filters (losing the tail). Configuration.
  void SetSampleRate(float sampleRate);
  float GetSampleRate() const { return sampleRate_; }
  void SetChannelCount(int channelCount);
  unsigned int GetChannelCount() const { return channelCount_; }

  void SetDryOutPercent(float percent);
  float GetDryOutPercent() const { return dryOutPercent_; }
  void SetWetOutPercent(float percent);
  float GetWetOutPercent() const { return wetOutPercent_; }
  void SetFeedback(float percent);
  float GetFeedback() const { return feedbackPercent_; }

  void SetDelay(float ms);
  float GetDelay() const { return delayMs_; }
  void SetHostTempoSync(bool on);
  bool GetHostTempoSync() const { return hostTempoSync_; }
  void SetHostTempoSyncRatio(unsigned int ratio);
  unsigned int GetHostTempoSyncRatio() const { return hostTempoSyncRatio_; }
  /// Returns at once when both values are unchanged.
  void SetHostTempo(float bpm, float beatUnit);
  float GetHostTempo() const { return hostTempo_; }
  float GetHostBeatUnit() const { return hostBeatUnit_; }
  float GetDelayMillisOverride() const { return delayMillisOverride_; }
  bool IsAllowHostTempoSync() const { return allowHostTempoSync_; }
  /// Beats of 60000 / tempo ms for a sync ratio: 0.09375, 0.0625, 1/24,
  /// 0.1875, 0.125, 1/12, 0.375, 0.25, 1/6, 0.75, 0.5, 1/3, 1.5, 1, 2/3, 3,
  /// 2, 4/3, then 1, 2, 4 and 8 times beatUnit (18 ... 21); 1 otherwise.
  static float GetHostTempoSyncRatioMultiplier(unsigned int ratio, float beatUnit);

  void SetTrash(float trash);
  float GetTrash() const { return trash_; }
  /// 0, 1 or 2; other values are stored (and stop processing) but change
  /// nothing else.
  void SetDistortionMode(unsigned int mode);
  unsigned int GetDistortionMode() const { return distortionMode_; }
  void SetSpread(float spread);
  float GetSpread() const { return spread_; }

  void GetDelayValues(float& dryGain, float& wetGain, float& effectiveDelayMs, float& feedbackGain) const;
  /// The delay now in effect (gliding toward the target), in ms.
  float GetCurrentDelayMs() const { return currentDelayMs_; }
  /// Gain of one trip round the feedback loop for small signals: feedback
  /// times the slope of the mode's saturation at 0 (the line's low-pass has
  /// unity gain at DC). Repeats decay when it is below 1.
  float GetSmallSignalLoopGain() const;
  /// Line length L in samples.
  std::size_t GetLineLength() const { return lineLength_; }
  /// Peaks since the last call (input after the dry gain, wet output); clears both.
  void GetLevels(float& inputPeak, float& outputPeak);

  /// Clears the lines and filters and snaps the delay to its target.
  void Reset();

  /// frameCount frames of GetChannelCount() planar channels; in == out is
  /// safe. Channel c is neither fed nor written while bit c of bypass is
  /// set. Never allocates.
  void Process(const float* const* in, float** out, int frameCount, ChannelFlags bypass, ChannelFlags& outFlags);

 private:
  struct AlignedFree {
    void operator()(float* p) const;
  };

  void UpdateAudioConfig();
  void ResizeDelayBuffers();
  void UpdateDelayTarget();
  void UpdateLfo();
  void UpdateTrashFilters();
  void UpdateWetDrive();
  void UpdateWetOutAdjust();
  void JumpToTarget();
  void ClearLines();
  std::uint32_t DelaySamples(float ms) const;

  float sampleRate_;
  std::uint32_t channelCount_;
  float maxGlideMs_;
  bool jumpOnDelayChange_;
  std::vector<float> wetOut_;
  std::vector<float> tap_;
  float dryOutPercent_ = 70.0f;
  float wetOutPercent_ = 30.0f;
  float dryGain_ = 0.7f;
  float wetDrive_ = 1.0f;
  float wetGain_ = 0.3f;
  float wetOutAdjust_ = 1.0f;
  float inputPeak_ = 0.0f;
  float outputPeak_ = 0.0f;
  float effectiveDelayMs_ = 200.0f;
  float delayMs_ = 200.0f;
  float currentDelayMs_ = 200.0f;
  float previousDelayMs_ = 200.0f;
  float glideStepMs_ = 0.0f;
  std::uint32_t lfoCounter_ = 0;
  float lfoPeriodMs_ = 500.0f;
  float lfoDepthLimitMs_ = 0.1f;
  float lfoDepth_ = 0.0f;
  float lfoStep_ = 0.0f;
  float feedbackPercent_ = 20.0f;
  float feedbackGain_ = 0.2f;
  bool hostTempoSync_ = false;
  float hostTempo_ = 120.0f;
  float hostBeatUnit_ = 4.0f;
  float delayMillisOverride_ = 500.0f;
  std::uint32_t hostTempoSyncRatio_ = 13;
  bool allowHostTempoSync_;
  std::uint32_t distortionMode_ = 0;
  float trash_ = 25.0f;
  float drive0_ = 0.0f;
  float norm0_ = 0.0f;
  float drive1_ = 0.0f;
  float norm1_ = 0.0f;
  float postGain1_ = 1.0f;
  float exponent2_ = 1.0f;
  float inverse2_ = 1.0f;
  std::vector<boost::shared_ptr<IIRFilter>> filters_;
  float spread_ = 100.0f;
  float spreadGain_ = 1.0f;
  std::vector<std::unique_ptr<float, AlignedFree>> delayLines_;
  // Plain views of the lines and filters for the sample loop.
  std::vector<float*> lineViews_;
  std::vector<IIRFilter*> filterViews_;
  std::size_t lineLength_ = 0;
  // What was written since the lines were last cleared: from dirtyStart_ on,
  // dirtyCount_ samples (at most L), so clearing touches only that.
  std::size_t dirtyStart_ = 0;
  std::size_t dirtyCount_ = 0;
  std::uint32_t writeIndex_ = 0;
  float readPosition_ = 0.0f;
};

}  // namespace analogdelay
}  // namespace dsp
