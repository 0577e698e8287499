#include "vexaudiodsp/filters/DeskFilter.h"

namespace dsp {
namespace {

std::unique_ptr<FilterSection> MakeSection(fDeskFilter::eFilterKindType kind, bool doublePrecision, bool firstOrder) {
  switch (kind) {
    case fDeskFilter::eNotch:
      if (doublePrecision) return std::make_unique<dNotch>();
      return std::make_unique<fNotch>();
    case fDeskFilter::eHighShelf:
      if (doublePrecision) {
        if (firstOrder) return std::make_unique<dHISHELVE>();
        return std::make_unique<dHISHELVE2>();
      }
      if (firstOrder) return std::make_unique<fHISHELVE>();
      return std::make_unique<fHISHELVE2>();
    case fDeskFilter::eLowShelf:
      if (doublePrecision) {
        if (firstOrder) return std::make_unique<dLOSHELVE>();
        return std::make_unique<dLOSHELVE2>();
      }
      if (firstOrder) return std::make_unique<fLOSHELVE>();
      return std::make_unique<fLOSHELVE2>();
    case fDeskFilter::ePara:
    default:
      if (doublePrecision) return std::make_unique<dPARA>();
      return std::make_unique<fPARA>();
  }
}

}  // namespace

fDeskFilter::fDeskFilter() : section_(std::make_unique<fPARA>()) {}

fDeskFilter::~fDeskFilter() = default;

void fDeskFilter::setType(eFilterKindType kind) { ShiftGears(kind, isDoublePrecision(), true); }

fDeskFilter::eFilterKindType fDeskFilter::getType() const { return kind_; }

void fDeskFilter::ShiftGears(eFilterKindType kind, bool doublePrecision, bool firstOrder) {
  const FilterSection& old = *section_;
  if (kind == kind_ && doublePrecision == old.isDoublePrecision() && firstOrder == old.isFirstOrder()) return;
  std::unique_ptr<FilterSection> next = MakeSection(kind, doublePrecision, firstOrder);
  next->setEnable(old.isEnabled());
  next->setSmoothingTime(old.getSmoothingTime());
  next->setStateVariable(old.isStateVariable());
  next->Setup(old.getSampleRate(), old.getFrequency(), old.getGain(), old.getFrequency() / old.getBandwidth(),
              old.getSpare5(), old.getSpare6());
  section_ = std::move(next);
  kind_ = kind;
}

void fDeskFilter::ClearState() { section_->ClearState(); }
void fDeskFilter::enable() { section_->enable(); }
void fDeskFilter::disable() { section_->disable(); }
void fDeskFilter::setEnable(bool enabled) { section_->setEnable(enabled); }
bool fDeskFilter::isEnabled() const { return section_->isEnabled(); }
float fDeskFilter::processOneSample(float x) { return section_->processOneSample(x); }
double fDeskFilter::dprocessOneSample(double x) { return section_->dprocessOneSample(x); }
void fDeskFilter::processInplace(float* data, int count) { section_->processInplace(data, count); }
void fDeskFilter::dprocessInplace(double* data, int count) { section_->dprocessInplace(data, count); }
float fDeskFilter::computeResponse(float frequency, float scale) { return section_->computeResponse(frequency, scale); }
void fDeskFilter::Setup(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
  section_->Setup(sampleRate, frequency, gainDb, q, p5, p6);
}
void fDeskFilter::SetupCoefficients(float sampleRate, float frequency, float gainDb, float q, float p5, float p6) {
  section_->SetupCoefficients(sampleRate, frequency, gainDb, q, p5, p6);
}
void fDeskFilter::ConvertCoefficientsToStateVariableForm() { section_->ConvertCoefficientsToStateVariableForm(); }
void fDeskFilter::setSmoothingTime(float seconds) { section_->setSmoothingTime(seconds); }
float fDeskFilter::getSmoothingTime() const { return section_->getSmoothingTime(); }
void fDeskFilter::setStateVariable(bool stateVariable) { section_->setStateVariable(stateVariable); }
bool fDeskFilter::isStateVariable() const { return section_->isStateVariable(); }
void fDeskFilter::TerminateRamp() { section_->TerminateRamp(); }
void fDeskFilter::ClearCoefficients() { section_->ClearCoefficients(); }
void fDeskFilter::setDoublePrecision(bool doublePrecision) { ShiftGears(kind_, doublePrecision, true); }
bool fDeskFilter::isDoublePrecision() const { return section_->isDoublePrecision(); }

}  // namespace dsp
