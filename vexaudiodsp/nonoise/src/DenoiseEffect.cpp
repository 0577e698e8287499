// The noise-print reducer as a registered effect: "denoise".

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/nonoise/NoNoiseProcess.h"
#include "vexaudiodsp/nonoise/NoisePrint.h"

namespace dsp {
namespace nonoise {
namespace {

using host::Effect;
using host::EffectInfo;
using host::ParamDescriptor;

// Prints are measured at one rate; a rate this close is the same rate
// written with rounding.
constexpr double kRateTolerance = 0.5;

std::string Channels(int n) { return std::to_string(n) + (n == 1 ? " channel" : " channels"); }

class DenoiseEffect final : public Effect {
 public:
  enum Param { kPrint, kReduction, kThreshold, kTilt, kSmoothing, kPosition, kSynthesis };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "denoise";
    info.description = "Reduces steady broadband noise (hiss, hum, air) measured beforehand in a noise print.";
    info.params = {
        ParamDescriptor::Path("print", "Noise print",
                              "noise print file from 'vexdsp noiseprint' or capture_noise_print(); without one "
                              "the audio only goes through the analysis frame (delayed, then compensated)"),
        ParamDescriptor::Number("reduction", "Reduction", "dB", 0.0, 100.0, 40.0,
                                "largest reduction of a bin at or below the noise threshold; 0 turns it off"),
        ParamDescriptor::Number("threshold", "Threshold offset", "dB", -30.0, 30.0, 0.0,
                                "raises (positive) or lowers the threshold band above the print's level"),
        ParamDescriptor::Number("tilt", "Tilt exponent", "", -2.0, 4.0, 1.0,
                                "widens the threshold band by (average / maximum)^tilt of the print per bin; 0 "
                                "makes it a single level"),
        ParamDescriptor::Number("smoothing", "Smoothing", "%", 0.0, 100.0, 65.0,
                                "temporal smoothing of the measured magnitudes (slow fall, fast rise) against "
                                "musical noise"),
        ParamDescriptor::Number("position", "Level position", "", 0.0, 2.0, 1.0,
                                "where the threshold sits on the print: 0 its minimum, 1 its maximum curve, "
                                "beyond 1 above it"),
        ParamDescriptor::Choice("synthesis", "Synthesis", {"crossfade", "segments"}, 0,
                                "crossfade: overlap-add of windowed frames; segments: plain overlap-save "
                                "segments, no crossfade"),
    };
    info.note =
        "Latency ((overlap - 1) x N / overlap) / 2 samples (1755 at the default N 4096, overlap 7) is reported and "
        "compensated. A mono print applies to every channel; otherwise the print's channel count and sample rate "
        "must match the audio.";
    info.pureDelayAtDefaults = true;
    info.create = [](const EffectInfo& i) { return std::make_unique<DenoiseEffect>(i); };
    return info;
  }

  explicit DenoiseEffect(const EffectInfo& info) : Effect(info) {}

  std::string CheckIO(int numChannels, double sampleRate) const override {
    std::string base = Effect::CheckIO(numChannels, sampleRate);
    if (!base.empty() || !HasPrint()) return base;
    if (print_.GetChannels() != 1 && print_.GetChannels() != numChannels) {
      return "cannot use a noise print of " + Channels(print_.GetChannels()) + " on audio of " + Channels(numChannels) +
             " (capture the print from the same file, or a mono one)";
    }
    if (std::fabs(print_.GetSampleRate() - sampleRate) > kRateTolerance) {
      return "cannot use a noise print captured at " + host::FormatNumber(print_.GetSampleRate()) + " Hz on audio at " +
             host::FormatNumber(sampleRate) + " Hz";
    }
    return {};
  }

  int GetLatency() const override { return process_.GetLatency(); }

  void Reset() override { process_.Reset(); }

 protected:
  bool LoadPath(int /*index*/, const std::string& path, std::string* error) override {
    NoisePrint loaded;
    if (!loaded.Load(path, error)) return false;
    print_ = loaded;
    return true;
  }

  void Configure() override {
    const int channels = GetNumChannels();
    NONOISE record;
    if (HasPrint()) {
      const NONOISE& source = print_.GetRecord();
      CopyNoNoise(&source, &record, false);
      record.channelCount = static_cast<std::int16_t>(channels);
      AllocateArrays(&record);
      // A mono print serves every channel.
      for (int c = 0; c < channels; ++c) {
        const int from = source.channelCount == 1 ? 0 : c;
        const std::size_t n = static_cast<std::size_t>(source.fftSize);
        record.channelMin[c] = source.channelMin[from];
        record.channelMax[c] = source.channelMax[from];
        std::copy(source.minCurve[from], source.minCurve[from] + n, record.minCurve[c]);
        std::copy(source.maxCurve[from], source.maxCurve[from] + n, record.maxCurve[c]);
        std::copy(source.averageCurve[from], source.averageCurve[from] + n, record.averageCurve[c]);
      }
      std::copy(source.binCurve, source.binCurve + source.fftSize, record.binCurve);
    } else {
      record.channelCount = static_cast<std::int16_t>(channels);
    }
    process_.Init(&record);
    FreeArrays(&record);
    process_.Start();
  }

  void ApplyParameters() override {
    NONOISE* p = process_.GetParam();
    p->reductionDb = GetValue(kReduction);
    p->thresholdDb = GetValue(kThreshold);
    p->exponent = GetValue(kTilt);
    p->smoothingPercent = GetValue(kSmoothing);
    p->levelPosition = GetValue(kPosition);
    p->mode = GetValue(kSynthesis) > 0.5 ? 2 : 1;
    process_.UpdateParameter();
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    process_.Process(in, out, numChannels, numFrames);
  }

 private:
  bool HasPrint() const { return !GetPath(kPrint).empty() && !print_.IsEmpty(); }

  NoisePrint print_;
  NoNoiseProcess process_;
};

const host::EffectRegistration kDenoise{DenoiseEffect::Info()};

}  // namespace
}  // namespace nonoise
}  // namespace dsp
