#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DelayLine.h"
#include "vexcore/Flags.h"
#include "vexcore/RefCounted.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace guitarsuite {
namespace boxmodeler {

/// Speaker cabinet and microphone simulator: every channel is convolved with
/// the impulse response of one of 15 cabinet models, each heard through one
/// of three microphone set-ups, mixed with the dry signal, and a stereo pair
/// can have its two microphones moved apart in time and narrowed.
///
/// Impulses ("Model0.dat0" ... "Model14.dat2") are synthesised, not loaded:
/// GenerateImpulse runs a unit pulse plus a short, exponentially decaying
/// burst of seeded noise (the cabinet's diffuse ringing) through a cascade
/// of cookbook biquads (R. Bristow-Johnson's Audio EQ Cookbook):
///  - a second-order high-pass at the cabinet's low cut-off (the speaker's
///    excursion limit and an open or closed back),
///  - a peak at the cabinet body resonance,
///  - two peaks for the cone break-up region (1.2 ... 4.5 kHz),
///  - two second-order low-passes for the cone's roll-off (24 dB/octave),
///  - the microphone: "on-axis" dynamic (presence peak at 5 kHz),
///    "off-axis" dynamic (high shelf -6 dB from 2.5 kHz, a softer roll-off),
///    or a "room" condenser (brighter, a low shelf and two early
///    reflections at 1.3 and 3.1 ms, a twice longer ring).
/// The result is 25 ... 72 ms long (GetImpulseLength), faded out over its
/// last 30 % with a half cosine, and scaled so that its loudest frequency
/// (on a 512-point grid) has a gain of 1 (0 dB). Frequencies above 0.45 fs
/// are moved to 0.45 fs. Everything is deterministic: the noise comes from a
/// fixed linear congruential generator seeded by model and microphone.
///
/// Convolution: the first kHeadLength = 1024 taps run as a zero-latency FIR;
/// the rest (when the impulse is longer) runs through a uniformly
/// partitioned FFT convolution of 1024-frame blocks fed by a gathering
/// buffer, whose output lags its input by exactly one block. Starting the
/// tail at tap 1024 absorbs that lag, so at 100 % mix the wet output is the
/// impulse response sample for sample (within float rounding), with no
/// latency and no dependence on the host's block split. The head FIR is
/// built the same way further down: taps 0 ... 63 direct, taps 64 ... 511 in
/// 64-frame partitions, taps 512 ... 1023 in one 512-frame partition, which
/// costs a fraction of 1024 direct taps.
///
/// Then: output = input (1 - mix/100) + wet mix/100. For two channels (and
/// channel 0 not skipped) the left runs through a delay of max(separation,
/// 0) ms and the right through max(-separation, 0) ms, and with s = L + R, d
/// = (L - R) spread: L = (s + d)/2, R = (s - d)/2 (spread 1 leaves the pair,
/// 0 makes it mono).
///
/// Parameters and defaults: model 0 ... 14 (0), microphone 0 ... 2 (0), mix
/// 0 ... 100 % (100), separation -10 ... 10 ms (0), spread 0 ... 1 (1);
/// values are clamped.
///
/// Allocation: the constructor, SetSampleRate, SetMaxProcessingBlockSize,
/// SetAudioChannelLayout, SetBoxModel and SetMicType (they rebuild the
/// impulse or the buffers). SetMixPercent, SetMicSeparation, SetMicSpread,
/// Reset and ProcessInPlace never allocate, lock or throw. One thread at a
/// time.
class VEXAUDIODSP_API BoxModeler : public vexcore::utility::RefCountedObject {
 public:
  static constexpr int kNumModels = 15;
  static constexpr int kNumMicTypes = 3;
  static constexpr int kHeadLength = 1024;
  /// Partitioned stages of the convolution (32-, 256- and 1024-frame).
  static constexpr int kNumStages = 3;
  static constexpr float kMaxSeparationMillis = 10.0f;

  /// Builds the impulse of `model` and `mic` (clamped) right away.
  BoxModeler(float sampleRate, const vexmediatypes::AudioChannelLayout& layout, unsigned maxBlockSize = 1024,
             int model = 0, int mic = 0);
  ~BoxModeler() override;
  BoxModeler(const BoxModeler&) = delete;
  BoxModeler& operator=(const BoxModeler&) = delete;

  void SetSampleRate(float sampleRate);
  void SetMaxProcessingBlockSize(unsigned frames);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  void SetBoxModel(int model);
  void SetMicType(int mic);
  void SetMixPercent(float percent);
  void SetMicSeparation(float millis);
  void SetMicSpread(float spread);

  float GetSampleRate() const { return sampleRate_; }
  unsigned GetNumChannels() const { return static_cast<unsigned>(layout_.size()); }
  int GetBoxModel() const { return model_; }
  int GetMicType() const { return mic_; }
  float GetMixPercent() const { return mixPercent_; }
  float GetMicSeparation() const { return separation_; }
  float GetMicSpread() const { return spread_; }
  /// The impulse in use.
  const std::vector<float>& GetImpulse() const { return impulse_; }
  /// Frames the output keeps sounding after the input stops.
  int GetTailFrames() const;

  /// "Model3.dat1" for model 3, microphone 1.
  static std::string GetImpulseName(int model, int mic);
  /// A short readable name of a model ("british-4x12") or microphone
  /// ("on-axis"); empty outside the ranges.
  static const char* GetModelName(int model);
  static const char* GetMicName(int mic);
  /// Taps of a model's impulse at a sample rate (0 for a bad model or rate).
  static int GetImpulseLength(int model, int mic, float sampleRate);
  /// Writes GetImpulseLength taps to `out`. Pure: no allocation, no state.
  /// False (nothing written) for a bad model, microphone or rate.
  static bool GenerateImpulse(int model, int mic, float sampleRate, float* out);

  void Reset();
  void ProcessInPlace(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);

 private:
  struct GatheredStage;
  struct ChannelState;

  void ProcessChunk(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip);
  void RunPartitionedConvolution(GatheredStage& stage, const float* in, float* wet, unsigned frames);
  void RebuildDelayLines();
  void UpdateSeparation();
  void UpdateSetBoxModelMicType();

  vexmediatypes::AudioChannelLayout layout_;
  float sampleRate_;
  unsigned maxBlockSize_;
  int model_ = 0;
  int mic_ = 0;
  float mixPercent_ = 100.0f;
  float separation_ = 0.0f;
  float spread_ = 1.0f;
  std::vector<float> impulse_;
  std::vector<std::unique_ptr<ChannelState>> channels_;
  std::vector<float> wet_;
  vexcore::utility::RefPtr<utility::DelayLine> leftDelay_;
  vexcore::utility::RefPtr<utility::DelayLine> rightDelay_;
};

}  // namespace boxmodeler
}  // namespace guitarsuite
}  // namespace dsp
