#include "vexaudiodsp/filters/ParametricEQ.h"

#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"

namespace dsp {
namespace eq {
namespace {

constexpr float kDefaultFrequencies[ParametricEQ::kNumBands] = {100.0f, 250.0f, 630.0f, 1600.0f, 4000.0f, 10000.0f};

// About a factor of two: beyond it the old state belongs to a different
// filter and would ring through the new one.
constexpr double kKeepStateOctave = 0.3;

}  // namespace

ParametricEQ::ParametricEQ(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : sampleRate_(sampleRate), layout_(layout) {
  for (unsigned b = 0; b < kNumBands; ++b) {
    bands_[b].frequency = kDefaultFrequencies[b];
    bands_[b].previousFrequency = kDefaultFrequencies[b];
  }
  UpdateAudioConfig();
}

ParametricEQ::ParametricEQ(const ParametricEQ& other)
    : RefCountedInterface(),
      RefCountedObject(other),
      sampleRate_(other.sampleRate_),
      layout_(other.layout_),
      bands_(other.bands_),
      coefficients_(other.coefficients_) {
  filters_.reserve(other.filters_.size());
  for (const ChannelFilters& source : other.filters_) {
    ChannelFilters copy;
    for (unsigned b = 0; b < kNumBands; ++b) copy[b] = std::make_shared<IIRFilter>(*source[b]);
    filters_.push_back(std::move(copy));
  }
}

ParametricEQ::ParametricEQ(ParametricEQ&& other) noexcept
    : RefCountedInterface(),
      RefCountedObject(other),
      sampleRate_(other.sampleRate_),
      layout_(std::move(other.layout_)),
      bands_(other.bands_),
      coefficients_(other.coefficients_),
      filters_(std::move(other.filters_)) {}

ParametricEQ::~ParametricEQ() = default;

void ParametricEQ::SetSampleRate(float sampleRate) {
  sampleRate_ = sampleRate;
  UpdateAudioConfig();
}

void ParametricEQ::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  layout_ = layout;
  UpdateAudioConfig();
}

void ParametricEQ::UpdateAudioConfig() {
  for (unsigned b = 0; b < kNumBands; ++b) CalculateIIRCoefficients(b);
  filters_.clear();
  filters_.resize(layout_.size());
  for (ChannelFilters& channel : filters_) {
    for (unsigned b = 0; b < kNumBands; ++b) channel[b] = std::make_shared<IIRFilter>(2, coefficients_[b].data(), 1);
  }
}

void ParametricEQ::CalculateIIRCoefficients(unsigned band) {
  const Band& p = bands_[band];
  double* c = coefficients_[band].data();
  switch (p.shape) {
    case kPeaking:
      PeakingEQCoefficients(c, sampleRate_, p.frequency, p.gainDb, p.q);
      break;
    case kLowpass:
      LowpassCoefficients(c, sampleRate_, p.frequency, p.q);
      break;
    case kHighpass:
      HighpassCoefficients(c, sampleRate_, p.frequency, p.q);
      break;
    default:
      IdentityCoefficients(c);
      break;
  }
}

void ParametricEQ::UpdateBand(unsigned band, bool keepState) {
  Band& p = bands_[band];
  p.bypassed = p.shape == kPeaking && p.gainDb == 0.0f;
  CalculateIIRCoefficients(band);
  for (ChannelFilters& channel : filters_) channel[band]->SetCoefficients(coefficients_[band].data(), keepState);
}

void ParametricEQ::SetFrequency(unsigned band, float hz) {
  Band& p = bands_[band];
  const bool keepState = std::fabs(std::log10(static_cast<double>(hz)) -
                                   std::log10(static_cast<double>(p.previousFrequency))) < kKeepStateOctave;
  p.frequency = hz;
  p.previousFrequency = hz;
  UpdateBand(band, keepState);
}

void ParametricEQ::SetGain(unsigned band, float dB) {
  bands_[band].gainDb = dB;
  UpdateBand(band, true);
}

void ParametricEQ::SetQ(unsigned band, float q) {
  bands_[band].q = q;
  UpdateBand(band, true);
}

void ParametricEQ::SetBandShape(unsigned band, unsigned shape) {
  bands_[band].shape = shape;
  UpdateBand(band, true);
}

void ParametricEQ::SetBandEnable(unsigned band, bool enabled) { bands_[band].enabled = enabled; }

void ParametricEQ::ProcessInPlace(unsigned frames, float* const* channels) {
  vexaccelerate::utility::ScopedFlushDenormals flush;
  for (std::size_t ch = 0; ch < filters_.size(); ++ch) {
    float* data = channels[ch];
    if (data == nullptr) continue;
    for (unsigned b = 0; b < kNumBands; ++b) {
      if (bands_[b].enabled && !bands_[b].bypassed) filters_[ch][b]->ProcessInPlace(frames, data);
    }
  }
}

void ParametricEQ::Reset() {
  for (ChannelFilters& channel : filters_) {
    for (auto& filter : channel) filter->Reset();
  }
}

std::complex<double> ParametricEQ::GetResponse(double hz) const {
  std::complex<double> h = 1.0;
  for (unsigned b = 0; b < kNumBands; ++b) {
    if (bands_[b].enabled && !bands_[b].bypassed) {
      h *= IIRFilter::GetFrequencyResponse(hz / sampleRate_, coefficients_[b].data(), 2, 1);
    }
  }
  return h;
}

}  // namespace eq
}  // namespace dsp
