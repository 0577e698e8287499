// The registered dynamics effects: small adapters that map descriptor
// values onto DynamicsBand, SingleBandCompressorDSP and HardLimit.

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include "vexaudiodsp/dynamics/DynamicsBand.h"
#include "vexaudiodsp/dynamics/HardLimit.h"
#include "vexaudiodsp/dynamics/SingleBandCompressorDSP.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/loudness/TruePeak.h"

namespace dsp {
namespace dynamics {
namespace {

using host::Effect;
using host::EffectInfo;
using host::ParamDescriptor;

// A bare `comp` or `compressor` should be audible, so the registered
// defaults compress where the library classes (threshold 0 dB, ratio 1)
// would do nothing.
constexpr double kRegisteredThresholdDb = -20.0;
constexpr double kRegisteredRatio = 4.0;
const char kRegisteredDefaultsNote[] =
    "Defaults to a threshold of -20 dB and a ratio of 4 so that the bare name is audible (the library class "
    "defaults, 0 dB and 1:1, do nothing).";

vexmediatypes::AudioChannelLayout LayoutFor(int channels) {
  return vexmediatypes::CreateDefaultChannelLayout(channels);
}

class CompEffect final : public Effect {
 public:
  enum Param {
    kThreshold,
    kRatio,
    kAttack,
    kRelease,
    kLimThreshold,
    kLimRatio,
    kLimAttack,
    kLimRelease,
    kGateThreshold,
    kGateRatio,
    kGateAttack,
    kGateRelease,
    kOutput,
    kRms,
    kSmoothing,
    kMakeup
  };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "comp";
    info.description =
        "Band dynamics: downward compressor with a limiter stage above and an expander (gate) below, "
        "one detector for all channels, 1 ms look-ahead.";
    info.params = {
        ParamDescriptor::Number("threshold", "Threshold", "dB", -80.0, 0.0, kRegisteredThresholdDb,
                                "compressor threshold"),
        ParamDescriptor::Number("ratio", "Ratio", "", 1.0, 50.0, kRegisteredRatio, "compressor ratio x:1"),
        ParamDescriptor::Number("attack", "Attack", "ms", 0.0, 500.0, 10.0, "compressor attack (two time constants)"),
        ParamDescriptor::Number("release", "Release", "ms", 0.0, 5000.0, 100.0, "compressor release"),
        ParamDescriptor::Number("lim_threshold", "Limiter threshold", "dB", -80.0, 0.0, 0.0,
                                "limiter stage threshold; its curve continues the compressor's"),
        ParamDescriptor::Number("lim_ratio", "Limiter ratio", "", 1.0, 100.0, 1.0, "limiter stage ratio x:1"),
        ParamDescriptor::Number("lim_attack", "Limiter attack", "ms", 0.0, 500.0, 5.0, "limiter stage attack"),
        ParamDescriptor::Number("lim_release", "Limiter release", "ms", 0.0, 5000.0, 100.0, "limiter stage release"),
        ParamDescriptor::Number("gate_threshold", "Gate threshold", "dB", -120.0, 0.0, -120.0, "expander threshold"),
        ParamDescriptor::Number("gate_ratio", "Gate ratio", "", 1.0, 10.0, 1.0,
                                "expansion below the gate threshold (1 = off, 2 doubles the distance)"),
        ParamDescriptor::Number("gate_attack", "Gate attack", "ms", 0.0, 500.0, 10.0, "gate opening time"),
        ParamDescriptor::Number("gate_release", "Gate release", "ms", 0.0, 5000.0, 100.0, "gate closing time"),
        ParamDescriptor::Number("output", "Output gain", "dB", -40.0, 40.0, 0.0, "gain after the dynamics"),
        ParamDescriptor::Toggle("rms", "RMS detection", false, "detect the RMS level instead of the peak"),
        ParamDescriptor::Toggle("smoothing", "Auto smoothing", false, "extra smoothing of the gain"),
        ParamDescriptor::Toggle("makeup", "Auto make-up", false, "make up the mean gain reduction of the last 4 s"),
    };
    info.note = kRegisteredDefaultsNote;
    info.create = [](const EffectInfo& i) { return std::make_unique<CompEffect>(i); };
    return info;
  }

  explicit CompEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    if (band_) band_->Reset();
  }
  int GetLatency() const override { return band_ ? static_cast<int>(band_->GetSystemDelay()) : 0; }
  std::int64_t GetTailFrames() const override { return GetLatency(); }

 protected:
  void Configure() override { band_.emplace(static_cast<float>(GetSampleRate()), LayoutFor(GetNumChannels())); }

  void ApplyParameters() override {
    if (!band_) return;
    const auto v = [this](int i) { return static_cast<float>(GetValue(i)); };
    // Limiter before compressor before gate: each threshold setter also
    // orders the display values, and this order leaves them as given.
    band_->SetLimThreshold(v(kLimThreshold));
    band_->SetCompThreshold(v(kThreshold));
    band_->SetGateThreshold(v(kGateThreshold));
    band_->SetCompRatio(v(kRatio));
    band_->SetCompAttack(v(kAttack));
    band_->SetCompRelease(v(kRelease));
    band_->SetLimRatio(v(kLimRatio));
    band_->SetLimAttack(v(kLimAttack));
    band_->SetLimRelease(v(kLimRelease));
    band_->SetGateRatio(v(kGateRatio));
    band_->SetGateAttack(v(kGateAttack));
    band_->SetGateRelease(v(kGateRelease));
    band_->SetOutputGain(v(kOutput));
    band_->SetRMSDetection(GetValue(kRms) >= 0.5);
    band_->SetAutoSmoothing(GetValue(kSmoothing) >= 0.5);
    band_->SetAutoMakeupGain(GetValue(kMakeup) >= 0.5);
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    (void)numChannels;
    DynamicsBand::ChannelMask skipOut;
    band_->Process(static_cast<unsigned>(numFrames), in, out, DynamicsBand::ChannelMask(), skipOut);
  }

 private:
  std::optional<DynamicsBand> band_;
};

class CompressorEffect final : public Effect {
 public:
  enum Param { kThreshold, kRatio, kAttack, kRelease, kOutput, kMakeup };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "compressor";
    info.description = "Single-band peak compressor with smoothed gain, 1 ms look-ahead and optional make-up.";
    info.params = {
        ParamDescriptor::Number("threshold", "Threshold", "dB", -80.0, 0.0, kRegisteredThresholdDb, "threshold"),
        ParamDescriptor::Number("ratio", "Ratio", "", 1.0, 50.0, kRegisteredRatio, "ratio x:1"),
        ParamDescriptor::Number("attack", "Attack", "ms", 0.0, 500.0, 10.0, "attack (two time constants)"),
        ParamDescriptor::Number("release", "Release", "ms", 0.0, 5000.0, 0.0,
                                "release (0: the gain follows the detector, which falls to 3 % in 50 ms)"),
        ParamDescriptor::Number("output", "Output gain", "dB", -40.0, 40.0, 0.0, "gain after compression"),
        ParamDescriptor::Toggle("makeup", "Auto make-up", false, "make up the mean gain reduction of the last 2 s"),
    };
    info.note = kRegisteredDefaultsNote;
    info.create = [](const EffectInfo& i) { return std::make_unique<CompressorEffect>(i); };
    return info;
  }

  explicit CompressorEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    if (comp_) comp_->Reset();
  }
  // The delay ring holds round(0.001 fs) samples; this is its true delay
  // (SingleBandCompressorDSP::GetLatency truncates and can be one short).
  int GetLatency() const override {
    return comp_ ? static_cast<int>(DynamicsBand::GetDelayLineSamples(comp_->GetSampleRate())) - 1 : 0;
  }
  std::int64_t GetTailFrames() const override { return GetLatency(); }

 protected:
  void Configure() override { comp_.emplace(static_cast<float>(GetSampleRate()), LayoutFor(GetNumChannels())); }

  void ApplyParameters() override {
    if (!comp_) return;
    comp_->SetThreshold(static_cast<float>(GetValue(kThreshold)));
    comp_->SetRatio(static_cast<float>(GetValue(kRatio)));
    comp_->SetAttack(static_cast<float>(GetValue(kAttack)));
    comp_->SetRelease(static_cast<float>(GetValue(kRelease)));
    comp_->SetOutputGain(static_cast<float>(GetValue(kOutput)));
    comp_->SetAutoMakeupGain(GetValue(kMakeup) >= 0.5);
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    (void)numChannels;
    comp_->Process(in, out, numFrames, SingleBandCompressorDSP::ChannelMask());
  }

 private:
  std::optional<SingleBandCompressorDSP> comp_;
};

class LimitEffect final : public Effect {
 public:
  enum Param { kCeiling, kBoost, kLookahead, kRelease, kLink, kSmooth, kTruePeak };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "limit";
    info.description =
        "Brick-wall look-ahead limiter: the output never exceeds the ceiling (optionally between samples too).";
    const auto bound = [](int index, double& lo, double& hi) {
      float a = 0.0f, b = 0.0f;
      HardLimit::GetBounds(index, a, b);
      lo = a;
      hi = b;
    };
    double lo = 0.0, hi = 0.0;
    bound(HardLimit::kCeiling, lo, hi);
    info.params.push_back(ParamDescriptor::Number("ceiling", "Ceiling", "dB", lo, hi,
                                                  HardLimit::GetDefault(HardLimit::kCeiling), "highest output level"));
    bound(HardLimit::kInputBoost, lo, hi);
    info.params.push_back(ParamDescriptor::Number("boost", "Input boost", "dB", lo, hi, 0.0,
                                                  "gain before limiting; changes ramp over one block"));
    bound(HardLimit::kLookAhead, lo, hi);
    info.params.push_back(ParamDescriptor::Number("lookahead", "Look-ahead", "ms", lo, hi,
                                                  HardLimit::GetDefault(HardLimit::kLookAhead),
                                                  "how far ahead the gain starts to fall (the delay is 20 ms)"));
    bound(HardLimit::kRelease, lo, hi);
    info.params.push_back(ParamDescriptor::Number("release", "Release", "ms", lo, hi,
                                                  HardLimit::GetDefault(HardLimit::kRelease),
                                                  "time to recover 85 % of the gain"));
    info.params.push_back(ParamDescriptor::Toggle("link", "Link channels", true, "one gain for all channels"));
    info.params.push_back(
        ParamDescriptor::Toggle("smooth", "Smooth release", true, "release toward the ceiling exponentially"));
    info.params.push_back(ParamDescriptor::Toggle("truepeak", "True-peak detection", false,
                                                  "detect inter-sample peaks on a 2-8x oversampled signal "
                                                  "(adds 35 samples of latency; forces smooth release)")
                              .RebuildsState());
    info.note = "Latency is 20 ms (plus 35 samples with truepeak=on); the output holds the ceiling exactly.";
    info.create = [](const EffectInfo& i) { return std::make_unique<LimitEffect>(i); };
    return info;
  }

  explicit LimitEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override { limit_.Reset(); }
  int GetLatency() const override { return IsStarted() ? limit_.GetLatency() : 0; }
  std::int64_t GetTailFrames() const override { return GetLatency(); }

 protected:
  void Configure() override {
    limit_.SetChannels(GetNumChannels());
    limit_.SetSampleRate(static_cast<int>(GetSampleRate() + 0.5));
    Apply();
    limit_.Resume();
  }

  void ApplyParameters() override { Apply(); }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    (void)numChannels;
    limit_.Process(in, out, numFrames);
  }

 private:
  void Apply() {
    const int map[] = {HardLimit::kCeiling,          HardLimit::kInputBoost,   HardLimit::kLookAhead,
                       HardLimit::kRelease,          HardLimit::kLinkChannels, HardLimit::kSmoothRelease,
                       HardLimit::kTruePeakDetection};
    for (int i = 0; i < 7; ++i) limit_.SetParameter(map[i], static_cast<float>(GetValue(i)));
  }

  HardLimit limit_;
};

const host::EffectRegistration kComp{CompEffect::Info()};
const host::EffectRegistration kCompressor{CompressorEffect::Info()};
const host::EffectRegistration kLimit{LimitEffect::Info()};

}  // namespace
}  // namespace dynamics
}  // namespace dsp
