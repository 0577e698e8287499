#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/loudness/SecondOrderIIRFilter.h"
#include "vexcore/Flags.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {

/// Integrated programme loudness after ITU-R BS.1770-4: K-weighting (a high
/// shelf and a high pass per channel), gating blocks of 400 ms that overlap
/// by 75 % (one block judged every 100 ms once 400 ms have arrived), an
/// absolute gate at -70 LKFS (strict) and a relative gate 10 LU below the
/// mean of the blocks that passed it (inclusive). Channels are weighted 1.0,
/// or 1.41 for the surround labels; the low-frequency-effects label takes
/// no part at all. A partial block at the end of a stream is never judged.
///
/// The K-weighting follows the BS.1770 analogue prototypes for any sample
/// rate; the high pass's numerator is normalised by a0, which puts readings
/// about 0.04 LU below meters that use the unnormalised 48 kHz table.
///
/// Results: GetLKFS() in LKFS (= LUFS), -300 when nothing passed the gates.
/// Only the integrated value is kept; LoudnessMeter adds momentary,
/// short-term and loudness range on the same K-weighted signal.
///
/// Non-finite input: a NaN or infinity poisons the filters of its channel
/// until the next Init, and every later block that includes that channel is
/// then dropped by the gate (its power is NaN), so the reading keeps the
/// blocks judged before it.
///
/// Allocation: Init allocates (and reserves room for the gated history of
/// 24 hours at the block rate); Process does not allocate for any programme
/// up to that length, and past it the history grows like a std::vector.
/// GetLKFS, IsValid and SetChannelsZero never allocate. A plain copyable
/// value type; one thread at a time.
class VEXAUDIODSP_API Itu1770 {
 public:
  /// Only kLowFrequencyEffects (4) and the surrounds (5, 6) are treated
  /// apart; every other value is an ordinary full-range channel.
  enum ChannelLabel : std::int32_t {
    kLeft = 0,
    kRight = 1,
    kCenter = 2,
    kOther = 3,
    kLowFrequencyEffects = 4,
    kLeftSurround = 5,
    kRightSurround = 6,
  };

  /// The two K-weighting stages for a sample rate, each coefficient rounded
  /// to single precision (the values the meter runs with). A pure function.
  static void DesignKWeighting(double sampleRate, SecondOrderIIRCoefficients& shelf,
                               SecondOrderIIRCoefficients& highPass);
  /// Labels for a channel layout: LFE is excluded, side and back surrounds
  /// get the surround weight, everything else is full range.
  static std::vector<ChannelLabel> LabelsFromLayout(const vexmediatypes::AudioChannelLayout& layout);

  Itu1770() = default;
  Itu1770(const Itu1770&) = default;
  Itu1770& operator=(const Itu1770&) = default;

  /// Starts a new measurement: designs the filters for sampleRate (Hz), one
  /// channel record per label in that order, buffers for blocks of up to
  /// maxFrames frames. An empty label list, or a rate too low to hold a
  /// 400 ms block of whole samples, leaves a meter that measures nothing.
  void Init(std::size_t maxFrames, int sampleRate, const std::vector<ChannelLabel>& labels);
  /// One planar block, a pointer per label in Init's order. Blocks longer
  /// than maxFrames are taken in pieces of maxFrames. Never allocates below
  /// the reserved 24 hours.
  void Process(const float* const* channels, std::size_t frames);
  /// Integrated loudness in LKFS; -300 when nothing passed both gates.
  float GetLKFS() const;
  /// True once a gating block has passed the absolute gate.
  bool IsValid() const { return !blockPowers_.empty(); }
  /// Channels whose bit is set (channel index modulo 64) count as digital
  /// silence from the next Process on; their filters are left untouched.
  void SetChannelsZero(const vexcore::utility::Flags<std::uint64_t>& zero);

  std::size_t GetNumChannels() const { return channels_.size(); }
  std::size_t GetMaxFrames() const { return maxFrames_; }
  /// Samples in one gating block (0.4 s truncated) and between two blocks.
  std::size_t GetBlockLength() const { return blockLength_; }
  std::size_t GetStepLength() const { return blockLength_ - overlap_; }
  /// The channel's weight in the sum: 1.0, 1.41 for surrounds, 0 for LFE.
  float GetChannelWeight(std::size_t channel) const;
  /// The K-weighted samples of `channel` from the last Process call (its
  /// last piece of at most maxFrames frames): zeros for a channel counted as
  /// silent, nullptr for LFE or an index out of range.
  const float* GetWeightedSamples(std::size_t channel) const;
  /// Powers (mean square, channel-weighted) of the blocks that passed the
  /// absolute gate, in arrival order.
  const std::vector<float>& GetBlockPowers() const { return blockPowers_; }

 private:
  struct Channel {
    ChannelLabel label = kLeft;
    float weight = 1.0f;
    std::vector<float> scratch;
    SecondOrderIIRFilter shelf;
    SecondOrderIIRFilter highPass;
  };

  void ProcessPiece(const float* const* channels, std::size_t frames);
  double SquareSum(const float* x, std::size_t n) const;

  std::vector<Channel> channels_;
  vexcore::utility::Flags<std::uint64_t> channelsZero_;
  std::vector<std::vector<float>> blockBuffers_;
  std::size_t blockLength_ = 0;
  std::size_t fill_ = 0;
  std::size_t overlap_ = 0;
  std::vector<float> blockPowers_;
  std::size_t maxFrames_ = 0;
  // Channel pointers moved into a block longer than maxFrames.
  std::vector<const float*> moved_;
};

}  // namespace dsp
