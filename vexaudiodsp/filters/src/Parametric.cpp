#include "vexaudiodsp/filters/Parametric.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"
#include "vexaudiodsp/filters/IIRFilter.h"

namespace dsp {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMinDerived = 0.0001;
constexpr double kMaxDerived = 10000.0;
constexpr float kSwitchThreshold = 0.5f;
constexpr double kTiltPivotHz = 1000.0;
// A gentle shelf pair: Q 0.5 spreads the tilt over about three octaves
// each side of the pivot without a bump.
constexpr double kTiltQ = 0.5;

constexpr float kBandFrequencies[Parametric::kNumBands] = {200.0f, 500.0f, 1000.0f, 2500.0f, 6000.0f};

enum PeakOrShelf { kPeak, kLowShelf, kHighShelf };

int BandIndex(int band, int offset) { return Parametric::kFirstBand + 4 * band + offset; }

// Bilinear first-order low- or high-pass with its corner pre-warped to f,
// following the biquad designs' rule beyond Nyquist.
void FirstOrderCoefficients(double* c, double fs, double f, bool highpass) {
  if (!(f < fs / 2)) {
    c[0] = highpass ? 0.0 : 1.0;
    c[1] = c[2] = c[4] = c[5] = 0.0;
    c[3] = 1.0;
    return;
  }
  const double k = std::tan(kPi * f / fs);
  const double n = 1.0 + k;
  c[0] = highpass ? 1.0 / n : k / n;
  c[1] = highpass ? -1.0 / n : k / n;
  c[2] = 0.0;
  c[3] = 1.0;
  c[4] = (k - 1.0) / n;
  c[5] = 0.0;
}

}  // namespace

Parametric::Parametric() {
  SetBounds(kMasterGain, -40.0f, 40.0f, 0.0f);
  SetBounds(kLowShelfFrequency, 10.0f, 20000.0f, 100.0f);
  SetBounds(kLowShelfGain, -40.0f, 40.0f, 0.0f);
  SetBounds(kLowShelfQ, 0.1f, 10.0f, 0.7071f);
  for (int b = 0; b < kNumBands; ++b) {
    SetBounds(BandIndex(b, 0), 10.0f, 20000.0f, kBandFrequencies[b]);
    SetBounds(BandIndex(b, 1), 1.0f, 20000.0f, kBandFrequencies[b]);
    SetBounds(BandIndex(b, 2), -40.0f, 40.0f, 0.0f);
    SetBounds(BandIndex(b, 3), 0.0f, 1.0f, 1.0f);
    bandQ_[static_cast<std::size_t>(b)] = 1.0;
  }
  SetBounds(kHighShelfFrequency, 10.0f, 20000.0f, 10000.0f);
  SetBounds(kHighShelfGain, -40.0f, 40.0f, 0.0f);
  SetBounds(kLowShelfOn, 0.0f, 1.0f, 1.0f);
  SetBounds(kHighShelfOn, 0.0f, 1.0f, 1.0f);
  SetBounds(kConstantBandwidth, 0.0f, 1.0f, 0.0f);
  SetBounds(kBypass, 0.0f, 1.0f, 0.0f);
  SetBounds(kInvertPolarity, 0.0f, 1.0f, 0.0f);
  SetBounds(kHighShelfQ, 0.1f, 10.0f, 0.7071f);
  SetBounds(kHighpassFrequency, 10.0f, 20000.0f, 20.0f);
  SetBounds(kHighpassOrder, 1.0f, 8.0f, 2.0f);
  SetBounds(kLowpassFrequency, 10.0f, 20000.0f, 20000.0f);
  SetBounds(kLowpassOrder, 1.0f, 8.0f, 2.0f);
  SetBounds(kGainScale, 0.0f, 200.0f, 100.0f);
  SetBounds(kHighpassOn, 0.0f, 1.0f, 0.0f);
  SetBounds(kMix, 0.0f, 100.0f, 100.0f);
  SetBounds(kSampleRate, 8000.0f, 192000.0f, 44100.0f);
  SetBounds(kLowpassOn, 0.0f, 1.0f, 0.0f);
  SetBounds(kChannels, 1.0f, 8.0f, 1.0f);
  SetBounds(kDcBlocker, 0.0f, 40.0f, 0.0f);
  SetBounds(kTilt, -12.0f, 12.0f, 0.0f);
  SetBounds(kDisplayRange, 6.0f, 96.0f, 30.0f);
  SetAllParameterChangedFlags();
  SetRuntimeParams();
}

void Parametric::SetBounds(int index, float min, float max, float value) {
  const auto i = static_cast<std::size_t>(index);
  min_[i] = min;
  max_[i] = max;
  values_[i] = value;
}

bool Parametric::IsSwitch(int index) const {
  switch (index) {
    case 7:
    case 11:
    case 15:
    case 19:
    case 23:
    case 26:
    case 27:
    case 28:
    case 29:
    case 30:
    case 37:
    case 40:
      return true;
    default:
      return false;
  }
}

void Parametric::Store(int index, float value) {
  const auto i = static_cast<std::size_t>(index);
  values_[i] = value;
  changed_[i] = true;
  dirty_ = true;
}

void Parametric::SetParameter(int index, float value) {
  if (index < 0 || index >= kNumParameters) return;
  const auto i = static_cast<std::size_t>(index);
  if (!(value >= min_[i] && value <= max_[i])) value = (min_[i] + max_[i]) / 2.0f;
  if (IsSwitch(index)) {
    value = value < kSwitchThreshold ? 0.0f : 1.0f;
  } else if (index == kHighpassOrder || index == kLowpassOrder || index == kChannels) {
    value = std::round(value);
  }
  if (value == values_[i]) return;
  Store(index, value);

  if (index < kFirstBand || index >= kFirstBand + 4 * kNumBands) return;
  const int band = (index - kFirstBand) / 4;
  const int offset = (index - kFirstBand) % 4;
  const auto b = static_cast<std::size_t>(band);
  const double frequency = values_[static_cast<std::size_t>(BandIndex(band, 0))];
  if (offset == 1) {
    bandQ_[b] = std::clamp(frequency / value, kMinDerived, kMaxDerived);
  } else if (offset == 0) {
    const int bandwidthIndex = BandIndex(band, 1);
    if (values_[kConstantBandwidth] >= kSwitchThreshold) {
      bandQ_[b] = std::clamp(frequency / values_[static_cast<std::size_t>(bandwidthIndex)], kMinDerived, kMaxDerived);
    } else {
      Store(bandwidthIndex, static_cast<float>(std::clamp(frequency / bandQ_[b], kMinDerived, kMaxDerived)));
    }
  }
}

float Parametric::GetParameter(int index) const {
  if (index < 0 || index >= kNumParameters) return 0.0f;
  return values_[static_cast<std::size_t>(index)];
}

void Parametric::GetBounds(int index, float& min, float& max) const {
  if (index < 0 || index >= kNumParameters) return;
  min = min_[static_cast<std::size_t>(index)];
  max = max_[static_cast<std::size_t>(index)];
}

bool Parametric::IsParameterChanged(int index) const {
  return index >= 0 && index < kNumParameters && changed_[static_cast<std::size_t>(index)];
}

void Parametric::ClearAllParameterChangedFlags() {
  changed_.fill(false);
  dirty_ = false;
}

void Parametric::SetAllParameterChangedFlags() {
  changed_.fill(true);
  dirty_ = true;
}

void Parametric::Resume() { SetRuntimeParams(); }

void Parametric::Reset() {
  for (auto& channel : state_) {
    for (auto& s : channel) s = {0.0, 0.0};
  }
}

// Every section is redesigned from the parameters: a few dozen
// transcendental calls, cheaper than tracking which change touches which
// section, and nothing is allocated.
void Parametric::SetRuntimeParams() {
  if (!dirty_) return;
  if (changed_[kChannels]) Reset();
  DesignAll();
  ClearAllParameterChangedFlags();
}

double Parametric::ScaledGain(int index) const {
  return values_[static_cast<std::size_t>(index)] * values_[kGainScale] / 100.0;
}

int Parametric::NumChannels() const { return static_cast<int>(values_[kChannels]); }

void Parametric::DesignAll() {
  const std::array<bool, kNumSlots> wasActive = [this] {
    std::array<bool, kNumSlots> a{};
    for (int s = 0; s < kNumSlots; ++s) a[static_cast<std::size_t>(s)] = slots_[static_cast<std::size_t>(s)].active;
    return a;
  }();
  DesignDcBlocker();
  DesignButterworth(kHighpassSlot, values_[kHighpassOn] >= kSwitchThreshold, values_[kHighpassFrequency],
                    static_cast<int>(values_[kHighpassOrder]), true);
  DesignPeakOrShelf(kLowShelfSlot, values_[kLowShelfOn] >= kSwitchThreshold, kLowShelf, values_[kLowShelfFrequency],
                    ScaledGain(kLowShelfGain), values_[kLowShelfQ]);
  for (int b = 0; b < kNumBands; ++b) {
    DesignPeakOrShelf(kBandSlot + b, values_[static_cast<std::size_t>(BandIndex(b, 3))] >= kSwitchThreshold, kPeak,
                      values_[static_cast<std::size_t>(BandIndex(b, 0))], ScaledGain(BandIndex(b, 2)),
                      bandQ_[static_cast<std::size_t>(b)]);
  }
  DesignPeakOrShelf(kHighShelfSlot, values_[kHighShelfOn] >= kSwitchThreshold, kHighShelf, values_[kHighShelfFrequency],
                    ScaledGain(kHighShelfGain), values_[kHighShelfQ]);
  DesignTilt();
  DesignButterworth(kLowpassSlot, values_[kLowpassOn] >= kSwitchThreshold, values_[kLowpassFrequency],
                    static_cast<int>(values_[kLowpassOrder]), false);

  const double sign = values_[kInvertPolarity] >= kSwitchThreshold ? -1.0 : 1.0;
  const double mix = values_[kMix] / 100.0;
  wet_ = sign * mix * std::pow(10.0, values_[kMasterGain] / 20.0);
  dry_ = 1.0 - mix;

  // A section that comes back on starts from rest, not from the history it
  // had when it was switched off.
  for (int s = 0; s < kNumSlots; ++s) {
    if (slots_[static_cast<std::size_t>(s)].active && !wasActive[static_cast<std::size_t>(s)]) {
      for (auto& channel : state_) channel[static_cast<std::size_t>(s)] = {0.0, 0.0};
    }
  }
}

void Parametric::DesignButterworth(int firstSlot, bool on, double frequency, int order, bool highpass) {
  const double fs = values_[kSampleRate];
  const int biquads = order / 2;
  for (int k = 0; k < kMaxButterSections; ++k) {
    Slot& slot = slots_[static_cast<std::size_t>(firstSlot + k)];
    double c[6];
    slot.active = on && k < (order + 1) / 2;
    if (!slot.active) continue;
    if (k < biquads) {
      // Pole pair k of an order-n Butterworth lies at the angle phi from the
      // negative real axis, Q = 1 / (2 cos phi): phi = (2k + 1) pi / (2n)
      // for even n; odd n has its real pole at 0, and its pairs at (k + 1) pi / n.
      const double phi = (2.0 * k + 1.0 + (order % 2)) * kPi / (2.0 * order);
      const double q = 1.0 / (2.0 * std::cos(phi));
      if (highpass) {
        HighpassCoefficients(c, fs, frequency, q);
      } else {
        LowpassCoefficients(c, fs, frequency, q);
      }
    } else {
      FirstOrderCoefficients(c, fs, frequency, highpass);
    }
    slot.b0 = c[0];
    slot.b1 = c[1];
    slot.b2 = c[2];
    slot.a1 = c[4];
    slot.a2 = c[5];
  }
}

void Parametric::DesignPeakOrShelf(int slotIndex, bool on, int kind, double frequency, double gainDb, double q) {
  Slot& slot = slots_[static_cast<std::size_t>(slotIndex)];
  slot.active = on && gainDb != 0.0;
  if (!slot.active) return;
  const double fs = values_[kSampleRate];
  double c[6];
  if (kind == kPeak) {
    PeakingEQCoefficients(c, fs, frequency, gainDb, q);
  } else if (kind == kLowShelf) {
    LowShelfCoefficients(c, fs, frequency, gainDb, q);
  } else {
    HighShelfCoefficients(c, fs, frequency, gainDb, q);
  }
  slot = {c[0], c[1], c[2], c[4], c[5], true};
}

void Parametric::DesignTilt() {
  const double tilt = values_[kTilt];
  DesignPeakOrShelf(kTiltSlot, true, kLowShelf, kTiltPivotHz, -tilt / 2.0, kTiltQ);
  DesignPeakOrShelf(kTiltSlot + 1, true, kHighShelf, kTiltPivotHz, tilt / 2.0, kTiltQ);
}

void Parametric::DesignDcBlocker() {
  Slot& slot = slots_[kDcSlot];
  slot.active = values_[kDcBlocker] > 0.0f;
  if (!slot.active) return;
  double c[6];
  DCBlockingCoefficients(c, values_[kSampleRate], values_[kDcBlocker]);
  slot = {c[0], c[1], c[2], c[4], c[5], true};
}

void Parametric::RunFrame(const float* in, float* out) {
  const int channels = NumChannels();
  if (values_[kBypass] >= kSwitchThreshold) {
    for (int ch = 0; ch < channels; ++ch) out[ch] = in[ch];
    return;
  }
  for (int ch = 0; ch < channels; ++ch) {
    const double x = in[ch];
    double y = x;
    auto& state = state_[static_cast<std::size_t>(ch)];
    for (int s = 0; s < kNumSlots; ++s) {
      const Slot& c = slots_[static_cast<std::size_t>(s)];
      if (!c.active) continue;
      auto& st = state[static_cast<std::size_t>(s)];
      const double o = c.b0 * y + st[0];
      st[0] = c.b1 * y - c.a1 * o + st[1];
      st[1] = c.b2 * y - c.a2 * o;
      y = o;
    }
    out[ch] = static_cast<float>(wet_ * y + dry_ * x);
  }
}

void Parametric::Process(float* in, float* out, int frames) {
  if (in == nullptr || out == nullptr || frames <= 0) return;
  SetRuntimeParams();
  vexaccelerate::utility::ScopedFlushDenormals flush;
  const int channels = NumChannels();
  for (int i = 0; i < frames; ++i) RunFrame(in + i * channels, out + i * channels);
}

void Parametric::ProcessOneSample(float* in, float* out) {
  if (in == nullptr || out == nullptr) return;
  SetRuntimeParams();
  RunFrame(in, out);
}

std::complex<double> Parametric::SlotResponse(int first, int last, double hz) const {
  std::complex<double> h = 1.0;
  const double f = hz / values_[kSampleRate];
  for (int s = first; s <= last; ++s) {
    const Slot& c = slots_[static_cast<std::size_t>(s)];
    if (!c.active) continue;
    const double coefficients[6] = {c.b0, c.b1, c.b2, 1.0, c.a1, c.a2};
    h *= IIRFilter::GetFrequencyResponse(f, coefficients, 2, 1);
  }
  return h;
}

float Parametric::ComputeFilterResponse(float hz) {
  SetRuntimeParams();
  if (values_[kBypass] >= kSwitchThreshold) return 0.0f;
  const double magnitude = std::abs(wet_ * SlotResponse(0, kNumSlots - 1, hz) + dry_);
  const double range = values_[kDisplayRange];
  return static_cast<float>(std::clamp(20.0 * std::log10(magnitude), -range, range));
}

float Parametric::ComputeButterResponse(float hz) {
  SetRuntimeParams();
  const std::complex<double> h = SlotResponse(kHighpassSlot, kHighpassSlot + kMaxButterSections - 1, hz) *
                                 SlotResponse(kLowpassSlot, kLowpassSlot + kMaxButterSections - 1, hz);
  return static_cast<float>(std::abs(h));
}

}  // namespace dsp
