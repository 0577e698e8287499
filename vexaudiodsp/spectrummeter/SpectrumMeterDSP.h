#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexcore/RefCounted.h"

namespace vexaccelerate {
struct FFTState_Float;
}

namespace dsp {
namespace spectrummeter {

/// Feeds a spectrum display: mixes the incoming channels to one signal,
/// cuts overlapping windowed frames of N samples, transforms each and keeps
/// one magnitude per FFT bin (linear, N/2 + 1 values), per third-octave band
/// (32) or per critical band (26), either held at its peak or averaged over
/// a chosen time. The host pushes audio with Process and pulls the newest
/// values with GetBands.
///
/// Scale: magnitudes are in linear full scale, window-corrected, so a sine of
/// amplitude A centred on a bin reads A in that bin (the DC bin reads twice
/// its level, as the single-sided scale doubles every bin). A band value is
/// the square root of the band's power on the same scale: the mean of the
/// bins' powers m^2, times the number of bins, over the window's equivalent
/// noise bandwidth (1.5 bins for Hann), so a tone well inside a band reads
/// its amplitude in that band whatever the frame size and window, and noise
/// reads its power in the band. The DC bin (0 Hz) lies below the lowest band
/// edge and never enters a band. Bin k stands for k (fs / 2) /
/// (N / 2 + 1) Hz and belongs to the highest band whose lower edge it has
/// reached; bins below 20 Hz are left out, and a band that no bin reaches
/// shows the band below it (the lowest one shows 0).
///
/// Frames: the mixed signal fills a frame of N samples; each full frame is
/// transformed, after which its last N - hop samples move to the front and
/// hop = (int)((1 - overlap) N) new samples complete the next one.
///
/// Held peaks fall at SetPeakDecay dB per second of audio (0 by default: a
/// held value never decreases until ResetAverages or Reset). The decay is
/// applied per frame, 10^(k hop / fs) with k = -dB/s / 20.
///
/// Allocation: the constructor and the setters that change the frame size,
/// the type, the sample rate or the averaging time (re)build tables and may
/// allocate. Process, GetBands, Reset and ResetAverages never allocate, lock
/// or throw. One thread at a time; reference-counted.
class VEXAUDIODSP_API SpectrumMeterDSP : public vexcore::utility::RefCountedObject {
 public:
  enum SpectrumType : std::int32_t { kLinear = 0, kThirdOctave = 1, kCriticalBand = 2 };
  enum FFTSize : std::int32_t { kFFT512 = 0, kFFT1024 = 1, kFFT2048 = 2, kFFT4096 = 3, kFFT8192 = 4 };
  /// Overlap fraction 0.0, 0.1, ... 0.5.
  enum FFTOverlap : std::int32_t {
    kOverlap0 = 0,
    kOverlap10 = 1,
    kOverlap20 = 2,
    kOverlap30 = 3,
    kOverlap40 = 4,
    kOverlap50 = 5
  };
  /// kPeakHold keeps the largest magnitude; kInfinite is the mean since the
  /// last reset; the others a moving mean over about the given time.
  enum AverageWindowSize : std::int32_t {
    kPeakHold = 0,
    kAverage1s = 1,
    kAverage3s = 2,
    kAverage5s = 3,
    kAverage10s = 4,
    kInfinite = 5
  };
  /// Blackman is the classic 0.42 / 0.5 / 0.08 window; Kaiser has beta =
  /// 0.006 (N - 1) / 2 (about 6.1 at N = 2048).
  enum FFTWindow : std::int32_t { kHamming = 0, kBlackman = 1, kBartlett = 2, kKaiser = 3, kHann = 4 };

  static constexpr unsigned kMaxValues = 8192 / 2 + 1;

  /// Defaults: linear, peak hold, N = 2048, overlap 0.5, Hann. A channel
  /// count below 0 is taken as 0 (the meter then shows silence).
  SpectrumMeterDSP(float sampleRate, int channels);
  ~SpectrumMeterDSP() override;
  SpectrumMeterDSP(const SpectrumMeterDSP&) = delete;
  SpectrumMeterDSP& operator=(const SpectrumMeterDSP&) = delete;

  /// Out-of-range codes are ignored (the setting stays).
  void SetParams(SpectrumType type, AverageWindowSize average, FFTSize size, FFTOverlap overlap, FFTWindow window);
  void SetSpectrumType(SpectrumType type);
  void SetAverageWindow(AverageWindowSize average);
  void SetFFTSize(FFTSize size);
  void SetFFTOverlap(FFTOverlap overlap);
  void SetFFTWindow(FFTWindow window);
  /// Hz; non-positive or non-finite rates are ignored.
  void SetSampleRate(float sampleRate);
  void SetChannelCount(int channels);
  /// When set, odd-numbered channels are subtracted in the mix (a stereo
  /// pair then shows its side signal).
  void SetFlipChannelPhase(bool flip);
  /// Fall of held peaks in dB per second, >= 0 (negative values count as 0).
  void SetPeakDecay(float decibelsPerSecond);

  SpectrumType GetSpectrumType() const { return type_; }
  AverageWindowSize GetAverageWindow() const { return average_; }
  FFTSize GetFFTSize() const { return size_; }
  FFTOverlap GetFFTOverlap() const { return overlap_; }
  FFTWindow GetFFTWindow() const { return window_; }
  float GetSampleRate() const { return sampleRate_; }
  int GetChannelCount() const { return channels_; }
  bool GetFlipChannelPhase() const { return flipChannelPhase_; }
  float GetPeakDecay() const { return peakDecayDb_; }
  int GetFFTBlockSize() const { return GetFFTBlockSize(size_); }
  /// 512 << code; 0 for an unknown code.
  static int GetFFTBlockSize(FFTSize size);
  /// Samples between frames, (int)((1 - overlap) N).
  int GetHopSize() const { return hop_; }
  /// Values GetBands delivers for the current type.
  unsigned GetNumValues() const { return numValues_; }

  static int GetNumThirdOctaveBands() { return 32; }
  static int GetNumCriticalBands() { return 26; }
  /// Lower edge of band i in Hz (20 * 2^(i/3)); 0 outside 0 ... 31.
  static float GetThirdOctaveBand(int i);
  /// Lower edge of critical band i in Hz (20, 100, 200, ... 20000); 0
  /// outside 0 ... 25.
  static float GetCriticalBand(int i);

  /// Mixes `frames` frames of the channels not set in channelMask and
  /// updates the values for every frame completed. Null channel pointers
  /// are skipped, channels beyond the count are ignored.
  void Process(const float* const* channels, int frames, vexcore::utility::Flags<std::uint64_t> channelMask);
  /// Always sets `type`. Without new values and without `peek`: count 0,
  /// false. Otherwise copies GetNumValues() values to `out` (room for
  /// kMaxValues is always enough), sets count and returns true; without
  /// `peek` the values are then marked read.
  bool GetBands(float* out, unsigned& count, SpectrumType& type, bool peek);
  /// Clears the frame history and every value and average.
  void Reset();
  /// Clears the values and averages, keeps the frame history.
  void ResetAverages();

 private:
  void RebuildFrame();
  void RebuildWindow();
  void RebuildBands();
  void RebuildAverages();
  void UpdateDecay();
  void ProcessFrame();
  void ProcessLinear();
  void ProcessBand();
  void Accumulate(const float* magnitudes);
  void UpdateOverlappedSamples();

  SpectrumType type_ = kLinear;
  AverageWindowSize average_ = kPeakHold;
  FFTSize size_ = kFFT2048;
  FFTOverlap overlap_ = kOverlap50;
  FFTWindow window_ = kHann;
  float sampleRate_;
  int channels_;
  bool flipChannelPhase_ = false;
  float peakDecayDb_ = 0.0f;

  int n_ = 0;
  int hop_ = 0;
  unsigned numValues_ = 0;
  double gain_ = 1.0;
  /// Equivalent noise bandwidth of the window in bins, N sum(w^2) / sum(w)^2.
  double noiseBandwidth_ = 1.0;
  float decayPerFrame_ = 1.0f;
  vexaccelerate::FFTState_Float* fft_ = nullptr;
  std::vector<float> frame_;
  int frameFill_ = 0;
  std::vector<float> windowed_;
  std::vector<float> spectrum_;
  std::vector<float> windowTable_;
  std::vector<unsigned char> fftWork_;
  std::vector<float> magnitudes_;
  /// Per band: first bin and one past the last bin (equal when empty).
  std::vector<int> bandFirstBin_;
  std::vector<int> bandEndBin_;

  std::vector<double> values_;
  std::vector<double> runningSum_;
  std::vector<double> ring_;
  int ringSize_ = 0;
  int ringFill_ = 0;
  int ringWrite_ = 0;
  int framesPerPartial_ = 1;
  int partialFrames_ = 0;
  double cumulativeFrames_ = 0.0;
  bool newData_ = false;
  bool dataRead_ = false;
};

}  // namespace spectrummeter
}  // namespace dsp
