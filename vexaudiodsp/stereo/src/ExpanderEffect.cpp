// The stereo expander as a runnable effect: its two indexed parameters by
// name, on exactly one stereo pair.

#include <memory>

#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/stereo/StereoExpanderDSP.h"

namespace dsp {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

class ExpanderEffect final : public host::Effect {
 public:
  enum Param { kShift, kWidth };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "expander";
    info.description = "Shifts the centre of a stereo image and narrows or widens it with one 2 x 2 matrix.";
    info.params = {
        ParamDescriptor::Number("shift", "Centre shift", "%", -100.0, 100.0, 0.0,
                                "moves the centre of the image toward the right (positive) or left (negative)"),
        ParamDescriptor::Number("width", "Width", "%", 0.0, 300.0, 150.0,
                                "0 = mono, 100 = unchanged, 300 = left 2L - R and right 2R - L"),
    };
    info.io.minChannels = 2;
    info.io.maxChannels = 2;
    info.note =
        "Takes exactly one stereo pair. The default width of 150 % widens audibly; 100 % leaves the pair as it is.";
    info.create = [](const EffectInfo& i) { return std::make_unique<ExpanderEffect>(i); };
    return info;
  }

  explicit ExpanderEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {}

 protected:
  void Configure() override {
    expander_.SetChannels(2);
    expander_.SetSampleRate(static_cast<int>(GetSampleRate()));
  }

  void ApplyParameters() override {
    expander_.SetParameter(0, static_cast<float>(GetValue(kShift)));
    expander_.SetParameter(1, static_cast<float>(GetValue(kWidth)));
    expander_.Resume();
  }

  void ProcessBlock(float** in, float** out, int /*numChannels*/, int numFrames) override {
    expander_.Process(in, out, numFrames);
  }

 private:
  StereoExpanderDSP expander_;
};

const host::EffectRegistration kExpander{ExpanderEffect::Info()};

}  // namespace
}  // namespace dsp
