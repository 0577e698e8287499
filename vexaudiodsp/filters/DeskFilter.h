#pragma once

#include <memory>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/filters/FilterSection.h"

namespace dsp {

/// The filter of a mixing-console channel strip: one FilterSection whose
/// kind (peak, notch, shelf), precision and order can change while it
/// keeps its settings. A new desk filter holds a disabled single-precision
/// fPARA.
///
/// ShiftGears builds the new section and carries over the enabled flag, the
/// smoothing time, the state-variable choice and the settings (sample rate,
/// frequency, gain, Q = frequency / bandwidth, the two spare values), then
/// runs Setup on them. Setup decides the enabled flag by the gain, and
/// sections that record no bandwidth (PARA, the first-order shelves) hand
/// over an infinite Q, so a notch made from them has no width and a PARA
/// its narrowest. setType and setDoublePrecision always ask for the
/// first-order shelves; only ShiftGears reaches the second-order ones.
///
/// Allocation: ShiftGears, setType and setDoublePrecision replace the
/// section (configuration calls). Everything else forwards to the section
/// and never allocates. One thread at a time.
class VEXAUDIODSP_API fDeskFilter {
 public:
  enum eFilterKindType { eNotch = 0, eHighShelf = 1, eLowShelf = 2, ePara = 3 };

  fDeskFilter();
  virtual ~fDeskFilter();
  fDeskFilter(const fDeskFilter&) = delete;
  fDeskFilter& operator=(const fDeskFilter&) = delete;

  /// ShiftGears(kind, isDoublePrecision(), true).
  virtual void setType(eFilterKindType kind);
  virtual eFilterKindType getType() const;
  /// Does nothing when kind, precision and order are already those asked.
  virtual void ShiftGears(eFilterKindType kind, bool doublePrecision, bool firstOrder);
  virtual void ClearState();
  virtual void enable();
  virtual void disable();
  virtual void setEnable(bool enabled);
  virtual bool isEnabled() const;
  virtual float processOneSample(float x);
  virtual double dprocessOneSample(double x);
  virtual void processInplace(float* data, int count);
  virtual void dprocessInplace(double* data, int count);
  virtual float computeResponse(float frequency, float scale);
  virtual void Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
  virtual void SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6);
  virtual void ConvertCoefficientsToStateVariableForm();
  virtual void setSmoothingTime(float seconds);
  virtual float getSmoothingTime() const;
  virtual void setStateVariable(bool stateVariable);
  virtual bool isStateVariable() const;
  virtual void TerminateRamp();
  virtual void ClearCoefficients();
  /// ShiftGears(getType(), doublePrecision, true).
  virtual void setDoublePrecision(bool doublePrecision);
  virtual bool isDoublePrecision() const;

  FilterSection& GetSection() { return *section_; }
  const FilterSection& GetSection() const { return *section_; }

 private:
  eFilterKindType kind_ = ePara;
  std::unique_ptr<FilterSection> section_;
};

}  // namespace dsp
