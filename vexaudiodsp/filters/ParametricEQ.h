#pragma once

#include <array>
#include <complex>
#include <cstdint>
#include <memory>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/filters/IIRFilter.h"
#include "vexcore/RefCounted.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace eq {

/// Shapes of a ParametricEQ band.
enum BandShape : std::uint32_t { kPeaking = 0, kLowpass = 1, kHighpass = 2 };

/// One band of a ParametricEQ.
struct Band {
  bool enabled = true;
  std::uint32_t shape = kPeaking;
  /// Hz; the frequency the keep-state rule of SetFrequency compares against.
  float previousFrequency = 1000.0f;
  /// Centre (peak) or corner (low- and high-pass) frequency, Hz.
  float frequency = 1000.0f;
  /// dB, peaking only.
  float gainDb = 0.0f;
  float q = 0.7071f;
  /// A peaking band at exactly 0 dB: skipped by processing.
  bool bypassed = true;
};

/// Six-band equaliser: each band one biquad (RBJ cookbook peak, low-pass or
/// high-pass, see BiquadDesigns.h) run per channel through a dsp::IIRFilter
/// in double precision, bands in series from 0 to 5.
///
/// Defaults: every band enabled, peaking, 0 dB (hence bypassed), Q 0.7071,
/// at 100, 250, 630, 1600, 4000 and 10000 Hz (evenly spread over the
/// audible range on a logarithmic axis): a neutral equaliser whose bands
/// only need a gain to act.
///
/// Setters store the value, redesign the band and hand it to its filter in
/// every channel with the running state kept, so a control moved while
/// audio runs does not click. SetFrequency is the exception: a move of a
/// factor of two or more (|log10(new / previous)| >= 0.3) restarts the band
/// from rest, because the old state, shaped by a far-away resonance, would
/// otherwise ring out through the new one. A disabled band keeps being
/// redesigned, so enabling it needs no work. Band indices are not checked:
/// callers pass 0 to 5.
///
/// Bad values never produce NaN: a frequency above Nyquist makes a peak or
/// low-pass band pass the signal and a high-pass band mute it; a Q of 0 or
/// below, or a NaN gain or Q, makes the band pass the signal.
///
/// Allocation: the constructors, SetSampleRate and SetAudioChannelLayout
/// (they rebuild the filters). The band setters, ProcessInPlace and Reset
/// never allocate, lock or throw. One thread at a time; reference-counted
/// (hold it in a vexcore::utility::RefPtr).
class VEXAUDIODSP_API ParametricEQ : public vexcore::utility::RefCountedObject {
 public:
  static constexpr unsigned kNumBands = 6;

  /// sampleRate in Hz; one channel per layout entry.
  ParametricEQ(float sampleRate, const vexmediatypes::AudioChannelLayout& layout);
  /// Copies settings, filters and their running state.
  ParametricEQ(const ParametricEQ& other);
  ParametricEQ(ParametricEQ&& other) noexcept;
  ParametricEQ& operator=(const ParametricEQ&) = delete;
  ParametricEQ& operator=(ParametricEQ&&) = delete;
  ~ParametricEQ() override;

  void SetSampleRate(float sampleRate);
  void SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout);
  float GetSampleRate() const { return sampleRate_; }
  const vexmediatypes::AudioChannelLayout& GetAudioChannelLayout() const { return layout_; }
  unsigned GetNumChannels() const { return static_cast<unsigned>(filters_.size()); }

  void SetFrequency(unsigned band, float hz);
  void SetGain(unsigned band, float dB);
  void SetQ(unsigned band, float q);
  /// A BandShape value; others design nothing new (the band passes).
  void SetBandShape(unsigned band, unsigned shape);
  /// Stores the flag only.
  void SetBandEnable(unsigned band, bool enabled);
  const Band& GetBand(unsigned band) const { return bands_[band]; }
  /// The band's current coefficient set, b0 b1 b2 a0 a1 a2 (a0 = 1).
  const std::array<double, 6>& GetBandCoefficients(unsigned band) const { return coefficients_[band]; }

  /// Runs frames samples of every layout channel through the active bands
  /// in place. Null channel pointers are skipped.
  void ProcessInPlace(unsigned frames, float* const* channels);
  /// Clears every filter's state.
  void Reset();

  /// The transfer function of the bands that process (enabled, not
  /// bypassed) at `hz`, from their coefficients.
  std::complex<double> GetResponse(double hz) const;

 private:
  using ChannelFilters = std::array<std::shared_ptr<IIRFilter>, kNumBands>;

  void UpdateAudioConfig();
  void CalculateIIRCoefficients(unsigned band);
  void UpdateBand(unsigned band, bool keepState);

  float sampleRate_;
  vexmediatypes::AudioChannelLayout layout_;
  std::array<Band, kNumBands> bands_;
  std::array<std::array<double, 6>, kNumBands> coefficients_{};
  std::vector<ChannelFilters> filters_;
};

}  // namespace eq
}  // namespace dsp
