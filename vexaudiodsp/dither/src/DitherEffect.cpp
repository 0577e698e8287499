// The `dither` effect: dsp::Dither behind the effect contract, so the
// command line and Python reach it by name.

#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/dither/Dither.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace host {
namespace {

// Curve names in choice order; the index maps to the library's curve id.
const int kShapeIds[] = {kShapingNone,        kShapingGentle,  kShapingMedium, kShapingStandard, kShapingSmooth,
                         kShapingPlateauHigh, kShapingPlateau, kShapingSteep,  kShapingSteeper,  kShapingLight};

class DitherEffect final : public Effect {
 public:
  enum Param { kBits, kDensity, kShape, kStrength, kAmount, kAdaptive };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "dither";
    info.description =
        "Reduces the word length with dither and optional noise shaping; every sample lands on the target grid.";
    info.params = {
        ParamDescriptor::Integer("bits", "Word length", "bits", 4, 32, 16, "target word length"),
        ParamDescriptor::Choice(
            "density", "Density",
            {"rectangular", "triangular", "highpass_rectangular", "gaussian", "highpass_gaussian", "none"}, 1,
            "probability density of the dither"),
        ParamDescriptor::Choice(
            "shape", "Noise shaping",
            {"none", "gentle", "medium", "standard", "smooth", "plateau_high", "plateau", "steep", "steeper", "light"},
            0, "noise-shaping curve (none: flat dither)"),
        ParamDescriptor::Number("strength", "Shaping strength", "dB", 0.0, 40.0, 20.0,
                                "noise level range of the shaping curve"),
        ParamDescriptor::Number("amount", "Dither amount", "LSB", 0.0, 4.0, 1.0, "dither size in target LSBs"),
        ParamDescriptor::Toggle("adaptive", "Adaptive masking", false,
                                "let shaped noise rise under loud programme (12 dB margin, 20 dB range)"),
    };
    info.io.maxChannels = Dither::kMaxChannels;
    info.note =
        "Output stays float but on the grid of the word length; the random streams are seeded, so renders repeat. "
        "Shaping curves are drawn for 44.1 kHz and adapted to the sample rate.";
    info.create = [](const EffectInfo& i) { return std::make_unique<DitherEffect>(i); };
    return info;
  }

  explicit DitherEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override { dither_.Reset(); }

 protected:
  void Configure() override {
    dither_.Deinitialize();
    dither_.SetNumChannels(GetNumChannels());
    dither_.SetSampleRate(static_cast<float>(GetSampleRate()));
    ApplyParameters();
    dither_.Initialize();
  }

  void ApplyParameters() override {
    dither_.SetDitherToBits(static_cast<int>(GetValue(kBits)));
    dither_.SetDitherAmount(GetValue(kAmount));
    dither_.SetStrength(GetValue(kStrength));
    dither_.SetDitheringType(static_cast<int>(GetValue(kDensity)), kShapeIds[static_cast<int>(GetValue(kShape))],
                             GetValue(kAdaptive) != 0.0 ? kAdaptiveMasking : kAdaptiveOff);
  }

  void ProcessBlock(float** in, float** out, int /*numChannels*/, int numFrames) override {
    dither_.Process(in, out, numFrames);
  }

 private:
  Dither dither_;
};

const EffectRegistration kDither{DitherEffect::Info()};

}  // namespace
}  // namespace host
}  // namespace dsp
