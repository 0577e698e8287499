#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DelayBuffer.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace dsp {

/// A brick-wall look-ahead peak limiter: the output never exceeds the
/// ceiling. The signal runs through a fixed 20 ms ring; the limiter looks
/// 5 to 20 ms ahead and lowers the gain along a straight line so that it is
/// exactly ceiling / peak when a peak leaves the ring, then releases
/// (smoothly toward the ceiling, or by holding and falling by a fixed
/// factor per sample). Channels may be linked (one gain for all). The input
/// can be boosted first; a boost change ramps linearly over the block.
///
/// With true-peak detection each channel is oversampled by dsp::TruePeak
/// (4x at 44.1/48 kHz) and the detector sees, beside each sample, the
/// interpolated values between it and its neighbours, so the reconstructed
/// waveform stays under the ceiling too (within the interpolator's
/// accuracy, about 0.1 dB). The plain samples are delayed by TruePeak's
/// latency (35 samples) to make room for the interpolator, and the
/// interpolated values are aligned with them.
///
/// Parameters by index (SetParameter / GetParameter / GetBounds):
///   0 ceiling dB [-100, 0] = -0.1; 1 input boost dB [-100, 50] = 0;
///   2 look-ahead ms [5, 20] = 7; 3 release ms [40, 200] = 100;
///   4 link channels, 5 smooth release, 6 true-peak detection: switches
///   (rounded to 0/1) = 1, 1, 0.
/// A value outside its bounds becomes the midpoint of the bounds (not the
/// nearest bound); setting true peak on also sets smooth release on.
/// Parameters apply at the next Process; the true-peak switch, the channel
/// count and the sample rate take effect at the next initialisation (Resume,
/// or the first Process after SetChannels/SetSampleRate).
///
/// Latency: GetLatency() = trunc(0.02 fs) (+ 35 with true peak active).
///
/// Finite input always gives finite output under the ceiling: samples
/// beyond +/-1e30 after the boost are clamped there, and a last guard
/// clips the rounding-level overshoot the envelope's float arithmetic can
/// leave. A NaN sample comes out as NaN at its own position and is ignored
/// by the detector.
///
/// Allocation: Resume (and a Process that must initialise) allocates;
/// SetParameter, Reset and Process after initialisation never allocate,
/// lock or throw. One thread at a time.
class VEXAUDIODSP_API HardLimit {
 public:
  enum Param {
    kCeiling = 0,
    kInputBoost,
    kLookAhead,
    kRelease,
    kLinkChannels,
    kSmoothRelease,
    kTruePeakDetection,
    kNumParams
  };

  HardLimit();

  void SetChannels(int channels);
  int GetChannels() const { return channels_; }
  void SetSampleRate(int sampleRate);
  int GetSampleRate() const { return sampleRate_; }

  /// Index >= kNumParams is ignored.
  void SetParameter(int index, float value);
  /// 0 for an unknown index.
  float GetParameter(int index) const;
  /// Leaves min and max untouched for an unknown index.
  static void GetBounds(int index, float& min, float& max);
  static float GetDefault(int index);

  /// Samples of delay from input to output.
  int GetLatency() const;
  /// Allocates for the channel count and rate, applies the parameters and
  /// clears the state.
  void Resume();
  void Suspend() {}
  /// Clears rings, envelopes and the interpolators; keeps the parameters
  /// and the allocation. Never allocates.
  void Reset();
  /// `in` may equal `out`.
  void Process(float** in, float** out, int frames);

 private:
  struct Channel {
    float envelope = 1.0f;
    float slope = -1.0f;
    int slopePosition = 0;
    float windowMax = 0.0f;
    float gain = 1.0f;
    int queueHead = 0;
    int queueSize = 0;
  };

  static void PushWindow(Channel& s, int* queue, const float* d, int pos, int ring);
  static void SearchSlope(Channel& s, const float* d, float env, int w, int ring, int lookAhead);

  void ApplyParameters();
  void ProcessChunk(float** in, float** out, int frames, bool truePeak);

  float params_[kNumParams];
  bool dirty_ = true;
  bool needsInit_ = true;
  int channels_ = 2;
  int sampleRate_ = 44100;

  int ringLength_ = 0;
  int lookAhead_ = 1;
  int writeIndex_ = 0;
  float ceiling_ = 1.0f;
  float targetGain_ = 1.0f;
  float currentGain_ = 1.0f;
  float release_ = 0.0f;
  bool truePeakActive_ = false;
  bool smooth_ = true;
  bool link_ = true;

  std::vector<Channel> state_;
  std::vector<float> sampleRings_;  // channel c at [c * ringLength_, ...)
  std::vector<float> detectRings_;
  std::vector<int> queues_;  // per channel, window-maximum candidates
  bool rebuildWindow_ = true;
  std::vector<TruePeak> truePeaks_;
  MultiChannelDelayBuffer delayBuffer_;
  std::vector<float> oversampled_;      // per channel kChunk * factor
  std::vector<float> delayed_;          // per channel kChunk
  std::vector<float> interpolatedMax_;  // per channel kPeakHistory, by frame
  std::vector<float> zeros_;
  std::vector<float*> inChunk_;
  std::vector<float*> outChunk_;
  std::int64_t frameCount_ = 0;
};

}  // namespace dsp
