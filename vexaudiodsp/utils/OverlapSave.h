#pragma once

#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DSPProcess.h"
#include "vexaudiodsp/utils/IppFFT.h"

namespace dsp {

/// Short-time Fourier frame for spectral effects: cuts windowed frames of N
/// samples at a hop of H samples, hands each frame's spectrum to OnSpectrum,
/// transforms back and lines the frames up again with a fixed latency L.
///
/// Per frame and channel: the last N input samples are multiplied by the
/// analysis window (GetFFTWindow shape `windowKind`, times the input scaler)
/// and transformed with a real FFT (IppFFT32R, unscaled). The N/2 + 1 bins
/// are passed as separate real and imaginary float arrays, one per channel,
/// to OnSpectrum(re, im, channels, N/2 + 1), which may change them in place.
/// The inverse transform is multiplied by the synthesis scale s[j] =
/// (1/N) / w[j] (0 where w[j] <= 1e-7) times the output scaler, so each frame
/// on its own gives back the input samples it was cut from.
///
/// Latency and overlap-add. An output sample must be ready when the input
/// sample L later arrives, so a frame whose newest sample is T can serve the
/// outputs T ... T + L, i.e. frame positions a = N - 1 - L ... N - 1 (the
/// part of the frame still in the future, as close to the window's centre as
/// causality allows). The standard path overlap-adds that whole region,
/// crossfading frames with the analysis window normalised by the sum of the
/// window values of all frames covering each output: weighted overlap-add
/// whose weights sum to 1, and whose product with the synthesis scale stays
/// bounded where w is small. The alternative path keeps plain overlap-save
/// segments of H samples from position a (each output from exactly one
/// frame, no crossfade: less smearing in time, but a changing spectral gain
/// can step at the segment borders). Both paths have latency L exactly. With
/// an OnSpectrum that changes nothing the output is the input delayed by L
/// samples (times the two scalers) within float rounding; small overlaps (3)
/// force segments into the window's tail, where 1/w amplifies that rounding.
///
/// Requirements checked by Setup: N a power of two in 16 ... 65536, 1 <= H
/// <= N, H - 1 <= L <= N - 1, windowKind 0 ... 5, 1 ... 64 channels.
///
/// Calling order: Setup (or SetIOConfig for a new channel count) -> Start ->
/// Process per block -> Flush to drain L samples of tail -> Done. Setup,
/// SetIOConfig, Start, Suspend and Resume allocate; Process, Flush, Reset and
/// SetScalers never allocate, lock or throw. One thread at a time.
class VEXAUDIODSP_API OverlapSave : public DSPProcess {
 public:
  OverlapSave();
  ~OverlapSave() override;
  OverlapSave(const OverlapSave&) = delete;
  OverlapSave& operator=(const OverlapSave&) = delete;

  /// Configures the frame and clears its history; false (and the frame
  /// unconfigured: Process passes audio through) when a value is out of range.
  bool Setup(int fftSize, int numChannels, int latency, int hop, int windowKind);
  bool IsConfigured() const { return configured_; }

  /// Gains applied to the analysis (input) and synthesis (output) side;
  /// (1, 1) by default. Takes effect at the next frame.
  void SetScalers(float inputScale, float outputScale);

  int GetFFTSize() const { return fftSize_; }
  int GetHop() const { return hop_; }
  int GetNumChannels() const { return numChannels_; }
  int GetWindowKind() const { return windowKind_; }
  int GetBins() const { return fftSize_ / 2 + 1; }
  /// The analysis window (N values) and the synthesis scale (N values,
  /// (1/N) / w), both without the scalers.
  const float* GetAnalysisWindow() const { return window_.data(); }
  const float* GetSynthesisScale() const { return synthesis_.data(); }

  /// Rebuilds the analysis window and synthesis scale from the window kind.
  void ComputeWindow();

  /// A different channel count re-runs Setup with the current sizes.
  void SetIOConfig(int numChannels, float sampleRate) override;
  /// Clears the history (Reset).
  void Start() override;
  /// Copies in to out, then OnAudio(out, ...) in place. Channels beyond the
  /// configured count pass through undelayed.
  void Process(float** in, float** out, int numChannels, int numSamples) override;
  /// Feeds silence to let the last L samples out; returns how many were
  /// written (0 once the tail is out).
  int Flush(float** out, int numChannels, int numSamples) override;
  int GetLatency() const override { return latency_; }

  /// Clears history, overlap-add sums and the tail counter. Never allocates.
  virtual void Reset();
  /// Releases the frame's buffers; Process passes audio through unchanged
  /// until Resume, which allocates them again and clears the history.
  virtual void Suspend();
  virtual void Resume();
  bool IsSuspended() const { return suspended_; }

 protected:
  /// The block hook, in place on `data`. `flushing` is true for the silence
  /// fed by Flush. The default runs the standard path.
  virtual void OnAudio(float** data, int numChannels, int numSamples, bool flushing);
  /// The spectrum hook: re[c] and im[c] hold `bins` values of channel c. The
  /// default leaves them alone.
  virtual void OnSpectrum(float** re, float** im, int channels, int bins);
  /// Runs the frame over a block in place; `alternative` selects plain
  /// overlap-save segments instead of crossfaded overlap-add.
  void RunFrames(float** data, int numChannels, int numSamples, bool alternative);

 private:
  void RunFrame(int numChannels, bool alternative);
  void Emit(float** data, int numChannels, int offset, int count);
  bool Allocate();
  void Release();

  bool configured_ = false;
  bool suspended_ = false;
  int fftSize_ = 0;
  int numChannels_ = 0;
  int latency_ = 0;
  int hop_ = 0;
  int windowKind_ = 5;
  int regionStart_ = 0;
  int regionLength_ = 0;
  float inputScale_ = 1.0f;
  float outputScale_ = 1.0f;

  // Samples received since the last frame, and the next overlap-add sum to
  // emit.
  int filled_ = 0;
  int readPos_ = 0;
  // Where the current frame starts in each channel's history.
  int historyOffset_ = 0;
  int tailLeft_ = 0;

  IppFFT32R fft_;
  std::vector<float> window_;
  std::vector<float> synthesis_;
  // The window and the two paths' synthesis weights over the region, with
  // the scalers folded in.
  std::vector<float> scaledWindow_;
  std::vector<double> fadeShape_;
  std::vector<float> crossfadeWeights_;
  std::vector<float> segmentWeights_;

  // One aligned block carved into per-channel history (2N), overlap-add sums
  // (region), spectrum re/im (N/2 + 1 each), and the shared transform (N + 2)
  // and windowed-frame (N) buffers.
  float* block_ = nullptr;
  std::vector<float*> history_;
  std::vector<float*> sums_;
  std::vector<float*> re_;
  std::vector<float*> im_;
  float* transform_ = nullptr;
  float* windowed_ = nullptr;
};

}  // namespace dsp
