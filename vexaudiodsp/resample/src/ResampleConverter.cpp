#include "vexaudiodsp/resample/ResampleConverter.h"

#include <cmath>

namespace dsp {

namespace {

struct QualitySettings {
  ResampleQuality quality;
  const char* name;
  int filterOrder;
  double noiseFloor;
};

const QualitySettings kQualities[] = {{ResampleQuality::kLow, "low", 63, 100.0},
                                      {ResampleQuality::kMedium, "medium", 127, 120.0},
                                      {ResampleQuality::kHigh, "high", 255, 150.0},
                                      {ResampleQuality::kBest, "best", 511, 170.0}};

const QualitySettings& Find(ResampleQuality quality) {
  for (const QualitySettings& q : kQualities) {
    if (q.quality == quality) return q;
  }
  return kQualities[2];
}

}  // namespace

const char* ToString(ResampleQuality quality) { return Find(quality).name; }

bool ParseResampleQuality(const std::string& text, ResampleQuality* quality) {
  for (const QualitySettings& q : kQualities) {
    if (text == q.name) {
      if (quality != nullptr) *quality = q.quality;
      return true;
    }
  }
  return false;
}

bool MultiChannelResample::Configure(int numChannels, double fromRate, double toRate, ResampleQuality quality,
                                     std::string* error) {
  auto fail = [error](const char* why) {
    if (error != nullptr) *error = why;
    return false;
  };
  if (numChannels < 1) return fail("needs at least one channel");
  if (!std::isfinite(fromRate) || !(fromRate > 0.0)) return fail("the source rate must be a positive number of Hz");
  if (!std::isfinite(toRate) || !(toRate > 0.0)) return fail("the target rate must be a positive number of Hz");
  const double ratio = toRate / fromRate;
  if (ratio > 96.0 || ratio < 1.0 / 96.0) return fail("the rates differ by more than a factor of 96");

  const QualitySettings& q = Find(quality);
  Resample prototype;
  prototype.SetFilterOrder(q.filterOrder);
  prototype.SetNoiseFloor(q.noiseFloor);
  if (!prototype.SetSampleRates(static_cast<float>(fromRate), static_cast<float>(toRate)) || !prototype.Initialize()) {
    return fail("the converter could not be set up for these rates");
  }
  // Copies share the prototype's table and start from its cleared state.
  channels_.assign(static_cast<std::size_t>(numChannels), prototype);
  ratio_ = static_cast<double>(prototype.GetDestSampleRate()) / prototype.GetSourceSampleRate();
  return true;
}

std::int64_t MultiChannelResample::GetOutputLatency() const {
  return channels_.empty() ? 0 : channels_.front().GetLatency();
}

int MultiChannelResample::GetMaxOutput(int numInput) const {
  return channels_.empty() ? 0 : channels_.front().GetOutputBufferSize(numInput);
}

int MultiChannelResample::Process(const float* const* in, int numInput, float* const* out) {
  int produced = 0;
  for (std::size_t c = 0; c < channels_.size(); ++c) {
    // Resample reads its input without writing it; the legacy signature
    // just lacks the const.
    produced = channels_[c].Process(const_cast<float*>(in[c]), out[c], numInput);
  }
  return produced;
}

void MultiChannelResample::Reset() {
  for (Resample& r : channels_) r.Reset();
}

}  // namespace dsp
