#pragma once

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/nonoise/NoNoise.h"
#include "vexaudiodsp/utils/OverlapSave.h"

namespace dsp {
namespace nonoise {

/// Broadband noise reduction against a captured noise print.
///
/// A short-time Fourier processor on OverlapSave: FFT size N = fftSize,
/// hop N / overlap, window kind 5 (the Blackman-Harris window of the
/// capture, so magnitudes compare with the print), latency ((overlap - 1) N
/// / overlap) / 2 samples (defaults N 4096, overlap 7: hop 585, latency
/// 1755). Every bin of every frame is scaled by where its (temporally
/// smoothed) magnitude lies against a threshold curve interpolated from the
/// print's minimum, maximum and average curves at position t =
/// levelPosition + binCurve[k]: below the curve it is reduced by up to
/// reductionDb; well above it, it passes almost unchanged.
///
/// The record's N must be a power of two in 16 ... 16384 and its overlap in 3
/// ... N (a smaller overlap cannot meet its latency causally); otherwise
/// IsConfigured() is false and Process passes audio through. Without curves
/// (no print) or with reductionDb 0 the spectrum is left alone: the output
/// is the input delayed by the latency.
///
/// Lifecycle: construct (or InitAsSingleChannel) -> Start (or Resume)
/// creates the reducer -> Process per block -> Suspend frees it. The channel
/// count is the record's; SetIOConfig does not change it, and channels the
/// host passes beyond it go through undelayed. Construction, Init*,
/// Start, Resume, Suspend and SetParamFromMultiChannelParam allocate;
/// Process, Reset, ParameterChanged and UpdateParameter do not. One thread
/// at a time; parameter changes go through GetParam() and then
/// ParameterChanged() between blocks.
class VEXAUDIODSP_API NoNoiseProcess : public OverlapSave {
 public:
  NoNoiseProcess();
  explicit NoNoiseProcess(const NONOISE* param);
  ~NoNoiseProcess() override;

  /// Re-initialises from the record (scalars and, when present, arrays).
  void Init(const NONOISE* param);
  /// Re-initialises for channel `channel` of a multichannel record: its
  /// three curves (zero when the record has no such channel), extremes and
  /// binCurve.
  void InitAsSingleChannel(const NONOISE* param, int channel);
  /// Takes the scalars of `param` and channel `channel`'s arrays, keeping
  /// the frame.
  void SetParamFromMultiChannelParam(NONOISE* param, int channel);
  const NONOISE* GetParam() const { return &param_; }
  /// For changing settings: write the scalar fields, then ParameterChanged().
  NONOISE* GetParam() { return &param_; }

  /// Recomputes the derived values and per-bin terms. Never allocates.
  void ParameterChanged() override;
  void UpdateParameter();
  /// 1 - 10^(-R / 20), R = reductionDb (100 when 0, at least 1).
  double GetMaxReduction() const { return maxReduction_; }

  /// Creates the reducer when there is none, then clears the frame.
  void Start() override;
  /// The channel count stays the record's.
  void SetIOConfig(int numChannels, float sampleRate) override;
  /// Clears the frame and the smoothing rows; the next frame is a first one.
  void Reset() override;
  void Suspend() override;
  void Resume() override;

  /// Uses the portable kernels even where the CPU offers the AVX2/FMA ones
  /// (for comparisons; both agree within rounding). Configuration call.
  void SetPortableKernels(bool portable);

  NOISEREDUCER* CreateNoiseReducer();
  void DestroyNoiseReducer(NOISEREDUCER* reducer);
  const NOISEREDUCER* GetReducer() const { return reducer_; }

 protected:
  void OnAudio(float** data, int numChannels, int numSamples, bool flushing) override;
  void OnSpectrum(float** re, float** im, int channels, int bins) override;

 private:
  void SetupFrame();

  NONOISE param_;
  NOISEREDUCER* reducer_ = nullptr;
  double maxReduction_ = 0.99;
  bool vectorKernels_ = false;
};

}  // namespace nonoise
}  // namespace dsp
