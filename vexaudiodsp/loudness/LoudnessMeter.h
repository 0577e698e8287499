#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/loudness/Itu1770.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace dsp {

/// Every figure of a loudness report for one programme. Levels in LUFS
/// (= LKFS), loudness range in LU, true peak in dBTP; -300 stands for "no
/// value" (too short, or silence).
struct LoudnessSummary {
  /// Integrated loudness after BS.1770 gating (Itu1770::GetLKFS).
  double integrated = -300.0;
  /// False when no gating block passed the absolute gate.
  bool valid = false;
  /// Largest true peak over all channels, and the input frame it lies in.
  double truePeakDb = -300.0;
  std::int64_t truePeakPosition = 0;
  /// Loudest 400 ms and 3 s windows, taken every 100 ms.
  double momentaryMax = -300.0;
  double shortTermMax = -300.0;
  /// EBU Tech 3342 loudness range (0 when no short-term window passed).
  double loudnessRange = 0.0;
  std::int64_t frames = 0;
  int sampleRate = 0;
};

/// A full loudness meter on one K-weighted signal: the integrated value of
/// dsp::Itu1770 (its gating exactly), the true peak of one dsp::TruePeak per
/// channel, and momentary (400 ms), short-term (3 s) loudness and loudness
/// range (EBU Tech 3342) from the same K-weighted samples.
///
/// Momentary and short-term windows are 4 and 30 steps of Itu1770's step
/// (100 ms; exactly 400 ms and 3 s when 0.4 x rate is a multiple of 4, as for
/// every common rate), evaluated at every step once full; before that they
/// read -300. The loudness range keeps the short-term windows above -70
/// LUFS, gates them 20 LU below their power mean, and gives the spread
/// between their 10th and 95th percentiles (nearest rank, (n - 1) p
/// rounded).
///
/// Non-finite input poisons the channel's K-weighting as in Itu1770: every
/// later momentary and short-term window reads -300 and is left out of the
/// loudness range; the figures from before it stay.
///
/// Allocation: Init allocates and reserves 24 hours of history at the step
/// rate; Process then does not allocate; GetLoudnessRange and GetSummary
/// allocate (they sort a copy). A copyable value type; one thread at a time.
class VEXAUDIODSP_API LoudnessMeter {
 public:
  /// labels: one per channel (see Itu1770). Without measureTruePeak the
  /// true-peak figures stay at -300.
  void Init(std::size_t maxFrames, int sampleRate, const std::vector<Itu1770::ChannelLabel>& labels,
            bool measureTruePeak = true);
  /// One planar block of any length (taken in pieces of maxFrames).
  void Process(const float* const* channels, std::size_t frames);

  const Itu1770& GetItu1770() const { return itu_; }
  double GetIntegrated() const { return itu_.GetLKFS(); }
  bool IsValid() const { return itu_.IsValid(); }
  /// The latest complete 400 ms and 3 s windows.
  double GetMomentary() const { return momentary_; }
  double GetShortTerm() const { return shortTerm_; }
  double GetMomentaryMax() const { return momentaryMax_; }
  double GetShortTermMax() const { return shortTermMax_; }
  /// Loudness range in LU; allocates.
  double GetLoudnessRange() const;
  /// Largest true peak over the channels (dBTP) and its frame.
  void GetTruePeak(float& peakDb, std::int64_t& position) const;
  std::int64_t GetFrames() const { return frames_; }
  /// Every figure at once; allocates.
  LoudnessSummary GetSummary() const;

 private:
  static constexpr std::size_t kShortTermSteps = 30;
  static constexpr std::size_t kMomentarySteps = 4;

  void EndStep();

  Itu1770 itu_;
  std::vector<TruePeak> truePeaks_;
  std::vector<const float*> moved_;
  std::size_t maxFrames_ = 0;
  std::size_t stepLength_ = 0;
  std::size_t stepFill_ = 0;
  double stepEnergy_ = 0.0;
  double steps_[kShortTermSteps] = {};
  std::size_t stepCount_ = 0;
  double momentary_ = -300.0;
  double shortTerm_ = -300.0;
  double momentaryMax_ = -300.0;
  double shortTermMax_ = -300.0;
  std::vector<float> shortTermPowers_;
  std::int64_t frames_ = 0;
  int sampleRate_ = 0;
};

}  // namespace dsp
