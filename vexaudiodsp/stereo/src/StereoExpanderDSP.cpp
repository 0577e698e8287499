#include "vexaudiodsp/stereo/StereoExpanderDSP.h"

#include <cmath>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {

StereoExpanderDSP::StereoExpanderDSP() {
  SetBounds(0, -100.0f, 100.0f);
  SetBounds(1, 0.0f, 300.0f);
  SampleRateDependentInitialization();
}

void StereoExpanderDSP::SetSampleRate(int sampleRate) {
  sampleRate_ = sampleRate;
  dirty_ = true;
  SampleRateDependentInitialization();
}

void StereoExpanderDSP::SetParameter(int index, float value) {
  if (index < 0 || index >= kNumParameters || std::isnan(value)) return;
  parameters_[index] = value;
  dirty_ = true;
}

float StereoExpanderDSP::GetParameter(int index) const {
  return index < 0 || index >= kNumParameters ? 0.0f : parameters_[index];
}

void StereoExpanderDSP::GetBounds(int index, float& min, float& max) const {
  if (index < 0 || index >= kNumParameters) return;
  min = lowerBounds_[index];
  max = upperBounds_[index];
}

void StereoExpanderDSP::SetBounds(int index, float min, float max) {
  lowerBounds_[index] = min;
  upperBounds_[index] = max;
}

void StereoExpanderDSP::Resume() {
  SetRuntimeParams();
  active_ = true;
}

// The shift a = s/100 tilts the image toward one side; k renormalises the
// rows so that a full shift keeps the level of a centred source
// (k = 0.25 at a = 0, 0.25 * sqrt(2) at |a| = 1).
void StereoExpanderDSP::SetRuntimeParams() {
  const float a = parameters_[0] / 100.0f;
  const float absA = std::fabs(a);
  const float w = parameters_[1] / 100.0f;
  const float k = 0.25f * std::sqrt(1.0f / (1.0f - (1.0f - 0.5f * absA) * absA));
  const float twoMinusA = 2.0f - absA;
  matrix_[0] = ((1.0f + w) * twoMinusA - (1.0f - w) * a) * k;
  matrix_[1] = ((1.0f - w) * twoMinusA + (1.0f + w) * a) * k;
  matrix_[2] = ((1.0f - w) * twoMinusA - (1.0f + w) * a) * k;
  matrix_[3] = ((1.0f + w) * twoMinusA + (1.0f - w) * a) * k;
  dirty_ = false;
}

void StereoExpanderDSP::Process(float** in, float** out, int n) {
  if (n <= 0 || channels_ <= 0) return;
  if (channels_ == 1) {
    if (in[0] != out[0]) vexaccelerate::utility::Copy(static_cast<std::size_t>(n), in[0], out[0]);
    return;
  }
  if (dirty_) SetRuntimeParams();
  const float* inL = in[0];
  const float* inR = in[1];
  float* outL = out[0];
  float* outR = out[1];
  const float m0 = matrix_[0];
  const float m1 = matrix_[1];
  const float m2 = matrix_[2];
  const float m3 = matrix_[3];
  for (int i = 0; i < n; ++i) {
    // Both inputs are read before either output is written: in-place safe.
    const float l = inL[i];
    const float r = inR[i];
    outL[i] = m0 * l + m2 * r;
    outR[i] = m1 * l + m3 * r;
  }
}

}  // namespace dsp
