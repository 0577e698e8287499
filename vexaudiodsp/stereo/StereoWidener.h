#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/RefCounted.h"

namespace dsp {
namespace StereoWidener {

/// Widens or narrows a stereo pair by scaling its side signal, optionally
/// after delaying one channel by a few milliseconds (a Haas offset).
///
/// Width w: the side (L - R) is multiplied by 1 + w before the pair is
/// rebuilt, so w = 0 leaves the pair unchanged, w = -1 gives mono
/// (L + R) / 2 on both, w = 1 gives 1.5 L - 0.5 R and 1.5 R - 0.5 L. Not
/// clamped. Delay in ms, signed: > 0 delays the right channel, < 0 the left.
/// The delayed channel runs through a ring of L = round(|delay| * rate /
/// 1000) samples written before it is read, so it comes out L - 1 samples
/// late; L of 0 or 1 means no delay at all.
///
/// The ring is sized once, at construction, for 15 ms at the construction
/// rate (662 samples at 44.1 kHz, 720 at 48 kHz). Longer delays, or a
/// higher rate set later, are held to that ring: L never exceeds its size.
/// Setting the delay or the rate clears the part of the ring in use, so the
/// first L - 1 delayed samples after a change are silence; setting the same
/// delay again is therefore the way to clear the delayed history. Reset()
/// does nothing. NaN and non-positive rates and NaN delays and widths are
/// ignored.
///
/// Processing happens only with exactly two channels. No latency is
/// reported (the delay is the effect). Only the constructors allocate; one
/// thread at a time.
class VEXAUDIODSP_API StereoWidener : public vexcore::utility::RefCountedObject {
 public:
  StereoWidener(float sampleRate, unsigned int channelCount);
  StereoWidener(const StereoWidener& other);
  StereoWidener(StereoWidener&& other) noexcept;
  ~StereoWidener() override;

  void SetSampleRate(float sampleRate);
  float GetSampleRate() const { return sampleRate_; }
  void SetChannelCount(int channelCount);
  unsigned int GetChannelCount() const { return channelCount_; }
  /// ms; see the class comment.
  void SetDelay(float ms);
  float GetDelay() const { return delay_; }
  void SetWidth(float width);
  float GetWidth() const { return width_; }

  /// Ring length in use (L) and ring capacity, in samples.
  unsigned int GetDelayLength() const { return delayLength_; }
  unsigned int GetRingSize() const { return static_cast<unsigned int>(ring_.size()); }

  /// Two planar channels in place; nothing unless the channel count is 2.
  void ProcessInPlace(unsigned int frames, float* const* channels);
  unsigned int GetSystemDelay() const { return 0; }
  void Reset() {}

 private:
  void UpdateDelayLength();

  float sampleRate_;
  std::uint32_t channelCount_;
  float width_ = 0.0f;
  float delay_ = 0.0f;
  std::vector<float> ring_;
  std::uint32_t writeIndex_ = 0;
  std::uint32_t delayLength_ = 0;
};

}  // namespace StereoWidener
}  // namespace dsp
