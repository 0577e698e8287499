#pragma once

#include <array>
#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// The history of one section: in the direct form the last two inputs and
/// outputs, in the state-variable form the state s1, s2 in x1, x2, in the
/// first-order form x1 and y1.
template <typename T>
class FilterState {
 public:
  virtual ~FilterState() = default;
  virtual void clear() { x1 = x2 = y1 = y2 = T(0); }

  T x1 = T(0);
  T x2 = T(0);
  T y1 = T(0);
  T y2 = T(0);
};

/// Positions in a section's coefficient record: the direct form b0 b1 b2 a1
/// a2 (a0 = 1), then the equivalent state-variable form: the 2x2 state
/// matrix A (kS11 ... kS22), the input vector B (kU1, kU2), the output
/// vector C (kV1, kV2) and the direct feed-through D.
enum SectionCoefficient {
  kB0,
  kB1,
  kB2,
  kA1,
  kA2,
  kS11,
  kS12,
  kS21,
  kS22,
  kU1,
  kU2,
  kV1,
  kV2,
  kD,
  kNumSectionCoefficients
};

/// One first- or second-order recursive section with a fixed design rule
/// (see the design classes below), parameterised by sample rate (Hz),
/// frequency (Hz), gain (dB) and Q, whose coefficient changes glide.
///
/// Gliding: every design writes a target record and starts a glide from the
/// current coefficients to it over rampLength = trunc(sampleRate x
/// smoothingTime) samples (smoothingTime in seconds, 0.03 by default; the
/// length is computed when setSmoothingTime is called, with the sample rate
/// known then). After each output sample the current record moves one step;
/// the rampLength-th sample of a glide is the last one computed with
/// interpolated coefficients, and the glide ends exactly on the target.
/// A smoothing time of 0 leaves designs unapplied until TerminateRamp; a
/// negative or NaN one counts as 0.
///
/// Recursions: the first-order form when firstOrder is set (the
/// first-order shelves), else the direct form I, or the state-variable form
/// when stateVariable is set (better behaved for low, sharp sections in
/// single precision). Switching the form clears the history.
///
/// Bad settings: a design that comes out with a non-finite coefficient (NaN
/// settings, a shelf at 0 Hz, a notch with Q <= 0) keeps the previous
/// target (the settings are still stored). Frequencies are not checked
/// against fs / 2: a PARA clamps them, the notch and shelves take them as
/// they are and fold them back, which stays finite but is rarely wanted.
///
/// Enabling: a disabled section passes its input unchanged. Setup enables
/// the section exactly when the gain is not 0 dB; enable() fades in from a
/// neutral section over one glide; disable() stops at once.
///
/// Allocation: none anywhere; no call locks or throws. The per-block calls
/// (processInplace, dprocessInplace) hold flush-to-zero for their duration;
/// hosts calling the per-sample forms in a loop hold a
/// vexaccelerate::utility::ScopedFlushDenormals around that loop. One
/// thread at a time.
class VEXAUDIODSP_API FilterSection {
 public:
  virtual ~FilterSection();

  virtual void ClearState() = 0;
  virtual void enable();
  virtual void disable();
  virtual void setEnable(bool enabled);
  virtual bool isEnabled() const;
  virtual float processOneSample(float x) = 0;
  virtual double dprocessOneSample(double x) = 0;
  virtual void processInplace(float* data, int count) = 0;
  virtual void dprocessInplace(double* data, int count) = 0;
  /// Linear magnitude of the target design at `frequency` Hz, times
  /// `scale`; `scale` itself when the section is disabled.
  virtual float computeResponse(float frequency, float scale) = 0;
  /// SetupCoefficients, then ClearState, then enabled = (gainDb != 0).
  virtual void Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
  /// Stores the settings, designs the target record and starts its glide.
  virtual void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) = 0;
  /// Derives the target's state-variable form from its direct form.
  virtual void ConvertCoefficientsToStateVariableForm() = 0;
  /// Copies the records, the glide position and length and the enabled flag
  /// from a section of the same precision (others are ignored), then clears
  /// the history.
  virtual void CopyCoefficients(const FilterSection& other) = 0;
  virtual void setSmoothingTime(float seconds);
  virtual float getSmoothingTime() const;
  virtual void setStateVariable(bool stateVariable);
  virtual bool isStateVariable() const;
  virtual void SetupRamp() = 0;
  /// Jumps to the target: current := target, no glide.
  virtual void TerminateRamp() = 0;
  /// Current and target back to neutral (b0 = D = 1), no glide.
  virtual void ClearCoefficients() = 0;

  bool IsRamping() const { return rampCounter_ != 0; }
  void setFirstOrder(bool firstOrder) { firstOrder_ = firstOrder; }
  bool isFirstOrder() const { return firstOrder_; }
  void setDoublePrecision(bool doublePrecision) { doublePrecision_ = doublePrecision; }
  bool isDoublePrecision() const { return doublePrecision_; }

  float getSampleRate() const { return sampleRate_; }
  float getFrequency() const { return frequency_; }
  float getGain() const { return gainDb_; }
  /// frequency / Q, recorded by the notch and the second-order shelves only.
  float getBandwidth() const { return bandwidthHz_; }
  float getSpare5() const { return spare5_; }
  float getSpare6() const { return spare6_; }
  std::int32_t getRampCounter() const { return rampCounter_; }
  std::int32_t getRampLength() const { return rampLength_; }

 protected:
  FilterSection() = default;
  FilterSection(const FilterSection&) = default;
  FilterSection& operator=(const FilterSection&) = default;

  void StoreSettings(float sampleRate, float frequency, float gainDb, float p5, float p6);

  bool firstOrder_ = false;
  bool stateVariable_ = false;
  bool doublePrecision_ = false;
  bool enabled_ = false;
  float sampleRate_ = 44100.0f;
  float frequency_ = 0.0f;
  float gainDb_ = 0.0f;
  float bandwidthHz_ = 0.0f;
  float spare5_ = 0.0f;
  float spare6_ = 0.0f;
  float smoothingTime_ = 0.03f;
  std::int32_t rampCounter_ = 0;
  std::int32_t rampLength_ = 1323;
};

/// Coefficients and history in T (float or double). In double precision the
/// direct form rounds as the single-precision section it replaces: the
/// feed-forward sum is rounded to float, the feedback subtracted in double,
/// and the result rounded to float, which is both returned and kept as y1;
/// the state-variable form rounds only its output; the first-order form
/// runs in double throughout. A float section serves the double calls by
/// rounding the input to float.
template <typename T>
class VEXAUDIODSP_API FilterSectionOf : public FilterSection {
 public:
  using Record = std::array<T, kNumSectionCoefficients>;

  ~FilterSectionOf() override;

  void ClearState() override;
  void enable() override;
  float processOneSample(float x) override;
  double dprocessOneSample(double x) override;
  void processInplace(float* data, int count) override;
  void dprocessInplace(double* data, int count) override;
  float computeResponse(float frequency, float scale) override;
  void ConvertCoefficientsToStateVariableForm() override;
  void CopyCoefficients(const FilterSection& other) override;
  void SetupRamp() override;
  void TerminateRamp() override;
  void ClearCoefficients() override;

  const Record& GetCurrent() const { return current_; }
  const Record& GetStep() const { return step_; }
  const Record& GetTarget() const { return target_; }
  const FilterState<T>& GetState() const { return state_; }

  static Record Neutral();

 protected:
  FilterSectionOf();

  /// One glide step, after each output sample.
  void SmoothCoefficients();
  /// Stores a design's direct form (b0 b1 b2 a1 a2) as the target and
  /// starts the glide.
  void SetTarget(double b0, double b1, double b2, double a1, double a2);

 private:
  T Recurse(T x);
  template <typename S>
  void ProcessBlock(S* data, int count);
  template <typename S>
  void RunStatic(S* data, int count);

  Record current_;
  Record step_;
  Record target_;
  FilterState<T> state_;
};

extern template class FilterSectionOf<float>;
extern template class FilterSectionOf<double>;

using fFilterSection = FilterSectionOf<float>;
using dFilterSection = FilterSectionOf<double>;

/// The design rules. G is the gain in dB, g = 10^(G/20); PARA, Notch and the
/// first-order shelves place their band edges at the bandwidth gain GB =
/// G - 3 above 6 dB, G + 3 below -6 dB and G / 2 between (continuous at
/// +-6 dB), gb = 10^(GB/20).
enum class SectionDesign {
  /// Peak/cut after Regalia-Mitra / Orfanidis: g at f, gb at the band edges
  /// f / Q apart, 1 at DC and Nyquist; f clamped to [1e-5, 0.99999] x fs and
  /// the bandwidth to [1e-5, 0.49999] x fs. 0 dB is the identity.
  kPara,
  /// The same without the clamps (a deep cut is a notch); records the
  /// bandwidth f / Q.
  kNotch,
  /// First-order high shelf: 1 at DC, g at Nyquist, gb at f.
  kHighShelf,
  /// First-order low shelf: g at DC, 1 at Nyquist, gb at f.
  kLowShelf,
  /// Second-order (12 dB per octave) Butterworth-damped high shelf around
  /// the frequency variable tan((0.25 - f/fs) pi); mid-slope gain sqrt(g)
  /// within +-6 dB, else g moved 3 dB towards unity. Q is recorded as the
  /// bandwidth f / Q but does not shape the section.
  kHighShelf2,
  /// The low-shelf counterpart around tan((f/fs - 0.25) pi).
  kLowShelf2,
};

/// A section of a fixed design; the named aliases below are the library's
/// section classes. Designs are computed in double and stored in T.
template <typename T, SectionDesign kDesign>
class VEXAUDIODSP_API DesignedSection final : public FilterSectionOf<T> {
 public:
  DesignedSection();
  void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) override;
};

extern template class DesignedSection<float, SectionDesign::kPara>;
extern template class DesignedSection<double, SectionDesign::kPara>;
extern template class DesignedSection<float, SectionDesign::kNotch>;
extern template class DesignedSection<double, SectionDesign::kNotch>;
extern template class DesignedSection<float, SectionDesign::kHighShelf>;
extern template class DesignedSection<double, SectionDesign::kHighShelf>;
extern template class DesignedSection<float, SectionDesign::kLowShelf>;
extern template class DesignedSection<double, SectionDesign::kLowShelf>;
extern template class DesignedSection<float, SectionDesign::kHighShelf2>;
extern template class DesignedSection<double, SectionDesign::kHighShelf2>;
extern template class DesignedSection<float, SectionDesign::kLowShelf2>;
extern template class DesignedSection<double, SectionDesign::kLowShelf2>;

using fPARA = DesignedSection<float, SectionDesign::kPara>;
using dPARA = DesignedSection<double, SectionDesign::kPara>;
using fNotch = DesignedSection<float, SectionDesign::kNotch>;
using dNotch = DesignedSection<double, SectionDesign::kNotch>;
using fHISHELVE = DesignedSection<float, SectionDesign::kHighShelf>;
using dHISHELVE = DesignedSection<double, SectionDesign::kHighShelf>;
using fLOSHELVE = DesignedSection<float, SectionDesign::kLowShelf>;
using dLOSHELVE = DesignedSection<double, SectionDesign::kLowShelf>;
using fHISHELVE2 = DesignedSection<float, SectionDesign::kHighShelf2>;
using dHISHELVE2 = DesignedSection<double, SectionDesign::kHighShelf2>;
using fLOSHELVE2 = DesignedSection<float, SectionDesign::kLowShelf2>;
using dLOSHELVE2 = DesignedSection<double, SectionDesign::kLowShelf2>;

}  // namespace dsp
