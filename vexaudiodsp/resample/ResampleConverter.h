#pragma once

#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/resample/Resample.h"

namespace dsp {

/// Named settings of dsp::Resample for hosts:
///   low     63 taps, 100 dB Kaiser: quick previews
///   medium  127 taps, 120 dB
///   high    255 taps, 150 dB: the library defaults (spurs below -120 dBc,
///           passband to about 21 kHz at 44.1/48 kHz)
///   best    511 taps, 170 dB: half the transition band of high, in double
///           precision (spurs at the float input's own floor, about
///           -159 dBc; the alias of a 23 kHz tone at 48 -> 44.1 kHz below
///           -175 dB)
enum class ResampleQuality { kLow, kMedium, kHigh, kBest };

VEXAUDIODSP_API const char* ToString(ResampleQuality quality);
/// "low", "medium", "high" or "best"; false for anything else.
VEXAUDIODSP_API bool ParseResampleQuality(const std::string& text, ResampleQuality* quality);

/// One dsp::Resample per channel behind the host::RateConverter interface,
/// for offline rendering (host::RenderRateChange) by the command line and
/// the Python module. All channels share one cached table.
///
/// Configure allocates; Process and Reset never allocate. Any channel count
/// of at least 1 is accepted (the converter is mono per channel). Rates must
/// be finite and positive with a ratio between 1/96 and 96; equal rates pass
/// the audio through unchanged with no latency.
class VEXAUDIODSP_API MultiChannelResample final : public host::RateConverter {
 public:
  /// False with the reason (a phrase such as "the target rate must be a
  /// positive number of Hz") when the settings are refused.
  bool Configure(int numChannels, double fromRate, double toRate, ResampleQuality quality, std::string* error);

  double GetRatio() const override { return ratio_; }
  std::int64_t GetOutputLatency() const override;
  int GetMaxOutput(int numInput) const override;
  int Process(const float* const* in, int numInput, float* const* out) override;
  /// Clears every channel's history (the next input starts a new stream).
  void Reset();

  int GetNumChannels() const { return static_cast<int>(channels_.size()); }
  const Resample& GetChannel(int index) const { return channels_[static_cast<std::size_t>(index)]; }

 private:
  std::vector<Resample> channels_;
  double ratio_ = 1.0;
};

}  // namespace dsp
