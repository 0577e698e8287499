// The "eq" effect: dsp::eq::ParametricEQ with each band's type, frequency,
// gain and Q as parameters.

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/filters/ParametricEQ.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace eq {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

constexpr unsigned kBands = ParametricEQ::kNumBands;
// Per band, in this order: type, freq, gain, q.
constexpr int kParamsPerBand = 4;
enum BandParam { kType, kFreq, kGain, kQ };
enum BandType { kOff, kPeak, kLowpassType, kHighpassType };

constexpr double kDefaultFrequencies[kBands] = {100.0, 250.0, 630.0, 1600.0, 4000.0, 10000.0};

// The tail is counted until the slowest pole has decayed by 100 dB, and at
// most ten seconds: a band at 10 Hz with a Q of 40 rings for about 17 s to
// that depth, longer than any host wants to render after the input.
constexpr double kTailDecay = 1e-5;
constexpr double kMaxTailSeconds = 10.0;

int ParamIndex(unsigned band, BandParam p) { return static_cast<int>(band) * kParamsPerBand + p; }

// Largest pole radius of 1 + a1 z^-1 + a2 z^-2.
double PoleRadius(const std::array<double, 6>& c) {
  const double a1 = c[4], a2 = c[5];
  const double disc = a1 * a1 - 4.0 * a2;
  if (disc < 0.0) return std::sqrt(a2);
  const double root = std::sqrt(disc);
  return std::max(std::fabs(-a1 + root), std::fabs(-a1 - root)) / 2.0;
}

class EqEffect final : public host::Effect {
 public:
  static EffectInfo Info() {
    EffectInfo info;
    info.name = "eq";
    info.description =
        "Six-band parametric equaliser: peaking, low-pass or high-pass biquads (RBJ cookbook) in series, in double "
        "precision.";
    for (unsigned b = 0; b < kBands; ++b) {
      const std::string n = std::to_string(b + 1);
      info.params.push_back(ParamDescriptor::Choice("type" + n, "Band " + n + " type",
                                                    {"off", "peak", "lowpass", "highpass"}, kOff,
                                                    "shape of band " + n + " (off skips it)"));
      info.params.push_back(ParamDescriptor::Number("freq" + n, "Band " + n + " frequency", "Hz", 10.0, 48000.0,
                                                    kDefaultFrequencies[b], "centre or corner frequency of band " + n)
                                .Logarithmic());
      info.params.push_back(ParamDescriptor::Number("gain" + n, "Band " + n + " gain", "dB", -30.0, 30.0, 0.0,
                                                    "boost or cut of band " + n + " (peak only)"));
      info.params.push_back(ParamDescriptor::Number("q" + n, "Band " + n + " Q", "", 0.1, 40.0, 0.7071,
                                                    "quality factor of band " + n +
                                                        " (peak: centre over bandwidth; 0.7071 is a Butterworth "
                                                        "low- or high-pass)")
                                .Logarithmic());
    }
    info.note =
        "Bands run in order 1 to 6. A band at or above half the sample rate passes the signal (peak, lowpass) or "
        "mutes it (highpass); a peak at 0 dB is skipped.";
    info.pureDelayAtDefaults = true;
    info.create = [](const EffectInfo& i) { return std::make_unique<EqEffect>(i); };
    return info;
  }

  explicit EqEffect(const EffectInfo& info) : Effect(info) {}

  void Reset() override {
    if (eq_) eq_->Reset();
  }

  std::int64_t GetTailFrames() const override { return tailFrames_; }

  bool GetTransferFunction(const double* frequenciesHz, int count, std::complex<double>* response) const override {
    if (!eq_) return false;
    for (int i = 0; i < count; ++i) response[i] = eq_->GetResponse(frequenciesHz[i]);
    return true;
  }

 protected:
  void Configure() override {
    eq_ = vexcore::utility::MakeRef<ParametricEQ>(static_cast<float>(GetSampleRate()),
                                                  vexmediatypes::CreateDefaultChannelLayout(GetNumChannels()));
  }

  void ApplyParameters() override {
    if (!eq_) return;
    double slowest = 0.0;
    for (unsigned b = 0; b < kBands; ++b) {
      const auto type = static_cast<int>(GetValue(ParamIndex(b, kType)));
      const std::uint32_t shape = type == kLowpassType ? kLowpass : type == kHighpassType ? kHighpass : kPeaking;
      const Band& band = eq_->GetBand(b);
      // Only what changed is handed over: SetFrequency decides from the
      // size of the move whether the band keeps its state.
      if (band.shape != shape) eq_->SetBandShape(b, shape);
      const auto freq = static_cast<float>(GetValue(ParamIndex(b, kFreq)));
      if (band.frequency != freq) eq_->SetFrequency(b, freq);
      const auto gain = static_cast<float>(GetValue(ParamIndex(b, kGain)));
      if (band.gainDb != gain) eq_->SetGain(b, gain);
      const auto q = static_cast<float>(GetValue(ParamIndex(b, kQ)));
      if (band.q != q) eq_->SetQ(b, q);
      eq_->SetBandEnable(b, type != kOff);
      if (type != kOff && !band.bypassed) slowest = std::max(slowest, PoleRadius(eq_->GetBandCoefficients(b)));
    }
    const double maxTail = kMaxTailSeconds * GetSampleRate();
    tailFrames_ =
        slowest <= 0.0 ? 0
        : slowest >= 1.0
            ? static_cast<std::int64_t>(maxTail)
            : static_cast<std::int64_t>(std::min(maxTail, std::ceil(std::log(kTailDecay) / std::log(slowest))));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    const auto n = static_cast<std::size_t>(numFrames);
    for (int ch = 0; ch < numChannels; ++ch) {
      if (in[ch] != out[ch]) vexaccelerate::utility::Copy(n, in[ch], out[ch]);
    }
    // The equaliser runs every channel of its layout; the host may pass
    // fewer, so they go through one at a time.
    if (static_cast<unsigned>(numChannels) == eq_->GetNumChannels()) {
      eq_->ProcessInPlace(static_cast<unsigned>(numFrames), out);
      return;
    }
    float* channels[64] = {};
    for (int ch = 0; ch < numChannels; ++ch) channels[ch] = out[ch];
    eq_->ProcessInPlace(static_cast<unsigned>(numFrames), channels);
  }

 private:
  vexcore::utility::RefPtr<ParametricEQ> eq_;
  std::int64_t tailFrames_ = 0;
};

const host::EffectRegistration kEq{EqEffect::Info()};

}  // namespace
}  // namespace eq
}  // namespace dsp
