#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"
#include "vexaudiodsp/nonoise/NoNoise.h"
#include "vexaudiodsp/utils/IppFFT.h"

namespace dsp {
namespace nonoise {

/// Measures a noise print over a noise-only selection: per channel and per
/// bin the minimum, maximum and RMS of the short-time magnitude (see
/// NONOISE), driven by the analyzer protocol of DSPAnalyzer.
///
/// Scheduling. SetSelection(start, length) takes span = length - N, blocks =
/// min(max((span - 1) / (N / 3), 1), max(snapshotLimit, 8)) and step = span /
/// blocks (integer arithmetic) and accepts the selection when step >= 3.
/// Analyze is then called `blocks` times with GetDesiredBlockSize() = max(N,
/// step) samples read from the selection start, then each step samples
/// further (it returns step); it analyses the first N samples of each block,
/// so the blocks start step apart and the last ends inside the selection.
///
/// Per block, channels are taken in pairs: the windowed pair forms the real
/// and imaginary part of one complex FFT (IppFFT, double) and is separated
/// by SplitComplexSpectrumToLR; a lone last channel pairs with silence. Done
/// turns the power sums into RMS magnitudes and mirrors the curves to bins
/// N/2 + 1 ... N - 1.
///
/// Beyond the print, the capture keeps each block's broadband level so
/// GetLevelSpreadDb() can tell how stationary the noise was: the standard
/// deviation in dB of the block levels (white noise over 4096-point blocks
/// gives about 0.1 dB; a selection with speech or music in it several dB).
///
/// The constructor, SetIOConfig, SetSelection and Start allocate; Analyze,
/// IsCompleted and GetProgress do not. `result` of Start is not written:
/// the print is read with GetParam() after Done. One thread at a time.
class VEXAUDIODSP_API CaptureNoisePrint : public DSPAnalyzer {
 public:
  /// Copies the record's scalars (fftSize, snapshotLimit, channelCount, ...)
  /// and sizes the print for them. A null record takes the defaults.
  explicit CaptureNoisePrint(const NONOISE* param);
  ~CaptureNoisePrint() override;
  CaptureNoisePrint(const CaptureNoisePrint&) = delete;
  CaptureNoisePrint& operator=(const CaptureNoisePrint&) = delete;

  /// A different channel count resizes the print; the rate is kept for
  /// GetSampleRate().
  void SetIOConfig(int numChannels, float sampleRate) override;
  /// `length` counts samples from `start`. False when the selection is too
  /// short (step < 3) or the FFT size is not a power of two in 16 ... 16384.
  bool SetSelection(std::int64_t start, std::int64_t length) override;
  int GetDesiredBlockSize() const override;
  bool IsCompleted() const override;
  float GetProgress() const override;
  void Start(float* result) override;
  std::int64_t Analyze(float** buffers, int numChannels, int numSamples) override;
  void Done() override;

  /// The captured record (valid after Done).
  const NONOISE* GetParam() const { return &param_; }
  NONOISE* GetParam() { return &param_; }
  double GetSampleRate() const { return sampleRate_; }
  std::int64_t GetStep() const { return step_; }
  std::int64_t GetBlockCount() const { return total_; }
  /// Standard deviation of the per-block broadband level in dB (0 for fewer
  /// than two blocks).
  double GetLevelSpreadDb() const;

 private:
  void Resize();
  void AddToLevels(float** buffers, int numChannels, int numSamples);
  void ScaleResult();

  NONOISE param_;
  double sampleRate_ = 48000.0;
  bool validSize_ = false;
  std::int64_t step_ = 0;
  std::int64_t total_ = 0;
  std::int64_t position_ = 0;

  IppFFT fft_;
  std::vector<double> window_;
  std::vector<double> re_;
  std::vector<double> im_;
  // Split spectra of the pair: L and R real and imaginary parts.
  std::vector<double> split_;
  std::vector<double> blockLevels_;
};

}  // namespace nonoise
}  // namespace dsp
