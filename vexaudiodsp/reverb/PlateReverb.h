#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/filters/IIRFilter.h"
#include "vexcore/RefCounted.h"

namespace dsp {
namespace PlateReverb {

class PlateReverb;

/// A damped feedback comb: a delay line whose fed-back signal passes a
/// one-pole low-pass (dampingHF slows it) and has a slowly tracked low band
/// removed (dampingLF sets that tracker's speed, i.e. a one-pole high-pass
/// in the loop). The output is the value read before the write, so an
/// impulse comes back after exactly the buffer length.
///
/// Value type; copies carry the buffer contents. An empty buffer reads 0
/// and stores nothing. Only the constructor and SetBufferSize allocate.
class VEXAUDIODSP_API Comb {
 public:
  explicit Comb(unsigned int size);

  /// Resizes (growing pads with zeros), then zeroes the whole buffer. The
  /// index is kept unless it falls outside the new size (then 0).
  void SetBufferSize(unsigned int size);
  unsigned int GetBufferSize() const { return static_cast<unsigned int>(buffer_.size()); }
  /// Zeroes both filter memories and the buffer; the index is kept.
  void Reset();

  void SetFeedback(float feedback) { feedback_ = feedback; }
  float GetFeedback() const { return feedback_; }
  /// Stores d and 1 - d.
  void SetDampingHF(float d);
  float GetDampingHF() const { return dampingHF_; }
  void SetDampingLF(float d) { dampingLF_ = d; }
  float GetDampingLF() const { return dampingLF_; }

  float ProcessSample(float input) {
    if (buffer_.empty()) return 0.0f;
    const float y = buffer_[index_];
    buffer_[index_] = Feed(input, y, lowpassState_, lowState_, dampingHFComplement_, dampingLF_, feedback_);
    if (++index_ == buffer_.size()) index_ = 0;
    return y;
  }

 private:
  friend class PlateReverb;

  // The loop filter: returns what goes back into the line for input x and
  // the value y just read.
  static float Feed(float x, float y, float& lowpass, float& low, float hfComplement, float lf, float feedback) {
    lowpass += (y - lowpass) * hfComplement;
    low += (lowpass - low) * lf;
    return x + (lowpass - low) * feedback;
  }

  float feedback_ = 0.0f;
  float dampingHF_ = 0.0f;
  float dampingHFComplement_ = 1.0f;
  float dampingLF_ = 0.0f;
  float lowpassState_ = 0.0f;
  float lowState_ = 0.0f;
  std::vector<float> buffer_;
  std::uint32_t index_ = 0;
};

/// Schroeder all-pass as used for diffusion: y = line out, line in =
/// feedback * y + x, output y - x. With an empty line the input passes with
/// its sign inverted. Value type; only the constructor and SetBufferSize
/// allocate.
class VEXAUDIODSP_API AllPass {
 public:
  explicit AllPass(unsigned int size);

  /// As Comb::SetBufferSize.
  void SetBufferSize(unsigned int size);
  unsigned int GetBufferSize() const { return static_cast<unsigned int>(buffer_.size()); }
  void Reset();
  void SetFeedback(float feedback) { feedback_ = feedback; }
  float GetFeedback() const { return feedback_; }

  float ProcessSample(float input) {
    if (buffer_.empty()) return -input;
    const float y = buffer_[index_];
    buffer_[index_] = feedback_ * y + input;
    if (++index_ == buffer_.size()) index_ = 0;
    return y - input;
  }

 private:
  friend class PlateReverb;

  float feedback_ = 0.0f;
  std::vector<float> buffer_;
  std::uint32_t index_ = 0;
};

/// Compact algorithmic plate for any number of channels.
///
/// Per channel a tank of eight damped combs in parallel (1116, 1188, 1277,
/// 1356, 1422, 1491, 1557 and 1617 samples) followed by four series
/// all-passes (556, 441, 341, 225 samples, feedback 0.5), every length
/// lengthened by 23 samples per channel index. The lengths are fixed
/// sample counts, not scaled by the rate, so the tank sounds shorter at high
/// rates. Every tank is fed the same mono sum of all inputs times 0.015.
/// The wet signal is cross-mixed for width (stereo only), delayed by the
/// reflections line, high-passed (low cut) and low-passed (high cut) by
/// RBJ biquads, then added to the dry signal scaled by the dry level.
///
/// Parameters and units: dry and wet levels in percent (wet 0 % by default,
/// so a new object passes its input unchanged); room size maps to comb
/// feedback 0.28 r + 0.7 (0 -> 0.7, 1 -> 0.98); dampingLF and dampingHF
/// are scaled by 0.4 into the combs; width 0 = mono wet, 1 = no cross-feed;
/// reflections delay in ms (a line of N = max(1, round(ms * rate / 1000))
/// samples delays the wet path by N - 1: 0 ms and one sample's worth add
/// nothing, 10 ms at 48 kHz gives 479 samples); cutoffs in Hz with their Q
/// (a low cut above rate / 2 silences the wet path, a high cut above rate /
/// 2 leaves it unfiltered). Nothing is clamped except the reflections line,
/// which holds at most 100 ms. NaN settings are ignored. Setters take
/// effect at the next block and keep the tail (the reflections setter
/// clears the reflections line).
///
/// Latency 0 (GetSystemDelay). Allocation: the constructor,
/// SetSampleRate (to a different rate), SetChannelCount and
/// SetMaxProcessingBlockSize rebuild or grow storage; ProcessInPlace
/// allocates only for a block longer than any before and longer than the
/// reserve (one second of audio, or SetMaxProcessingBlockSize); setters and
/// Reset never allocate. A rebuild discards the tail. One thread at a time.
class VEXAUDIODSP_API PlateReverb : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kNumCombs = 8;
  static constexpr int kNumAllPasses = 4;
  static constexpr unsigned int kCombLengths[kNumCombs] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
  static constexpr unsigned int kAllPassLengths[kNumAllPasses] = {556, 441, 341, 225};
  /// Samples added to every line per channel index.
  static constexpr unsigned int kChannelSpread = 23;
  static constexpr float kMaxReflectionsDelayMs = 100.0f;

  PlateReverb(float sampleRate, int channelCount);
  ~PlateReverb() override;
  PlateReverb(const PlateReverb&) = delete;
  PlateReverb& operator=(const PlateReverb&) = delete;

  /// Rebuilds (losing the tail) unless the rate is unchanged; rates that
  /// are not positive are ignored.
  void SetSampleRate(float sampleRate);
  float GetSampleRate() const { return sampleRate_; }
  /// Rebuilds; negative counts are taken as 0.
  void SetChannelCount(int channelCount);
  int GetChannelCount() const { return channelCount_; }
  /// Reserves the wet storage for blocks of this many frames, so that
  /// ProcessInPlace never allocates. Configuration call.
  void SetMaxProcessingBlockSize(unsigned int frames);

  void SetDryOutPercent(float percent);
  float GetDryOutPercent() const { return dryOutPercent_; }
  void SetWetOutPercent(float percent);
  float GetWetOutPercent() const { return wetOutPercent_; }
  void SetWidth(float width);
  float GetWidth() const { return width_; }
  void SetRoomSize(float roomSize);
  float GetRoomSize() const { return roomSize_; }
  void SetDampingLF(float damping);
  float GetDampingLF() const { return dampingLF_; }
  void SetDampingHF(float damping);
  float GetDampingHF() const { return dampingHF_; }
  /// ms; clears the reflections line.
  void SetReflectionsDelay(float ms);
  float GetReflectionsDelay() const { return reflectionsDelay_; }
  void SetLowCutoffFreq(float hz);
  float GetLowCutoffFreq() const { return lowCutoffFreq_; }
  void SetLowCutoffQ(float q);
  float GetLowCutoffQ() const { return lowCutoffQ_; }
  void SetHighCutoffFreq(float hz);
  float GetHighCutoffFreq() const { return highCutoffFreq_; }
  void SetHighCutoffQ(float q);
  float GetHighCutoffQ() const { return highCutoffQ_; }

  /// Derived gains: dry, direct wet and cross wet.
  float GetDryGain() const { return dryGain_; }
  float GetWet1() const { return wet1_; }
  float GetWet2() const { return wet2_; }
  /// Length of the reflections line in samples (N above).
  unsigned int GetReflectionsLength() const;
  /// The tank elements of one channel, read-only (tests, displays).
  const Comb& GetComb(int channel, int index) const;
  const AllPass& GetAllPass(int channel, int index) const;

  unsigned int GetSystemDelay() const { return 0; }

  /// Clears the tail (filters, combs, all-passes, reflections) without
  /// rebuilding. Never allocates.
  virtual void Reset();

  /// GetChannelCount() planar channels in place.
  void ProcessInPlace(unsigned int frameCount, float* const* channels);

 private:
  struct AlignedFree {
    void operator()(float* p) const;
  };
  using AlignedBuffer = std::unique_ptr<float, AlignedFree>;

  void UpdateAudioConfig();
  void UpdateDelayLines();
  void UpdateWetGains();
  void CalculateCutoffCoefficients(unsigned int channel, bool highCut);
  void EnsureWetCapacity(std::size_t frames);
  void RunTank(std::size_t channel, unsigned int frames, const float* input, float* out);

  float sampleRate_;
  int channelCount_;
  float dryOutPercent_ = 100.0f;
  float wetOutPercent_ = 0.0f;
  float roomSize_ = 0.8f;
  float dampingLF_ = 0.0f;
  float dampingHF_ = 0.73f;
  float reflectionsDelay_ = 0.0f;
  float width_ = 1.0f;
  float lowCutoffFreq_ = 50.0f;
  float lowCutoffQ_ = 2.0f;
  float highCutoffFreq_ = 7000.0f;
  float highCutoffQ_ = 2.0f;
  float dryGain_ = 1.0f;
  float wet1_ = 0.0f;
  float wet2_ = 0.0f;
  std::vector<std::vector<boost::shared_ptr<Comb>>> combs_;
  std::vector<std::vector<boost::shared_ptr<AllPass>>> allPasses_;
  std::vector<std::vector<float>> reflectionBuffers_;
  std::uint32_t reflectionIndex_ = 0;
  // Per channel one biquad cascade: section 0 the low cut (high-pass),
  // section 1 the high cut (low-pass). One two-section filter runs both
  // recursions interleaved, about twice as fast as two one-section filters.
  std::vector<boost::shared_ptr<IIRFilter>> filters_;
  // Per channel the block's wet signal; it also serves as the tank's
  // accumulator. inputBuffer_ holds the block's mono tank input.
  std::vector<AlignedBuffer> wetBuffers_;
  AlignedBuffer inputBuffer_;
  std::size_t wetCapacity_ = 0;
};

}  // namespace PlateReverb
}  // namespace dsp
