// The guitar suite's resonant filters as runnable effects: retro (ladder),
// rez (state-variable) and talkbox (ladder and vowel formants).

#include <complex>
#include <memory>
#include <string>
#include <vector>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/guitarsuite/Retro.h"
#include "vexaudiodsp/guitarsuite/Rez.h"
#include "vexaudiodsp/guitarsuite/TalkBox.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace guitarsuite {
namespace {

using host::EffectInfo;
using host::ParamDescriptor;

constexpr double kPi = 3.14159265358979323846;

std::vector<ParamDescriptor> FilterParams(double defaultCutoff, double defaultResonance, std::string cutoffNote) {
  return {
      ParamDescriptor::Number("cutoff", "Cutoff", "Hz", ResonantFilterRanges::kMinCutoff,
                              ResonantFilterRanges::kMaxCutoff, defaultCutoff, std::move(cutoffNote))
          .Logarithmic(),
      ParamDescriptor::Number("resonance", "Resonance", "", ResonantFilterRanges::kMinResonance,
                              ResonantFilterRanges::kMaxResonance, defaultResonance, "emphasis at the cutoff, 0 to 1"),
      ParamDescriptor::Choice("mode", "Mode", {"lowpass", "highpass", "bandpass"}, 0, "filter response")};
}

void CopyInput(float** in, float** out, int numChannels, int numFrames) {
  for (int ch = 0; ch < numChannels; ++ch) {
    if (in[ch] != out[ch]) vexaccelerate::utility::Copy(static_cast<std::size_t>(numFrames), in[ch], out[ch]);
  }
}

vexcore::utility::Flags<std::uint64_t> SkipAbove(int numChannels) {
  return ~vexcore::utility::Flags<std::uint64_t>::LowBits(static_cast<unsigned>(numChannels));
}

// Retro and Rez have the same operations; Rez, being linear, also answers
// its transfer function.
template <typename Filter>
class FilterEffect final : public host::Effect {
 public:
  enum Param { kCutoff, kResonance, kMode };

  static EffectInfo Info(std::string name, std::string description, std::string cutoffNote) {
    EffectInfo info;
    info.name = std::move(name);
    info.description = std::move(description);
    info.params = FilterParams(Filter::kDefaultCutoff, Filter::kDefaultResonance, std::move(cutoffNote));
    info.create = [](const EffectInfo& i) { return std::make_unique<FilterEffect>(i); };
    return info;
  }

  explicit FilterEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {
    if (filter_) filter_->Reset();
  }

  std::int64_t GetTailFrames() const override { return static_cast<std::int64_t>(GetSampleRate() / 2); }

  bool GetTransferFunction(const double* frequenciesHz, int count, std::complex<double>* response) const override {
    if constexpr (Filter::kDisplayOrder == 2) {
      if (!filter_) return false;
      double num[Filter::kDisplayOrder + 1], den[Filter::kDisplayOrder + 1];
      filter_->GetDisplayCoefficients(num, den);
      for (int i = 0; i < count; ++i) {
        const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * frequenciesHz[i] / GetSampleRate());
        response[i] = (num[0] + z1 * (num[1] + z1 * num[2])) / (den[0] + z1 * (den[1] + z1 * den[2]));
      }
      return true;
    } else {
      (void)frequenciesHz;
      (void)count;
      (void)response;
      return false;  // the ladder's soft clip makes it level dependent
    }
  }

 protected:
  void Configure() override {
    filter_ = vexcore::utility::MakeRef<Filter>(static_cast<float>(GetSampleRate()),
                                                vexmediatypes::CreateDefaultChannelLayout(GetNumChannels()));
  }

  void ApplyParameters() override {
    if (!filter_) return;
    filter_->SetCutoff(static_cast<float>(GetValue(kCutoff)));
    filter_->SetResonance(static_cast<float>(GetValue(kResonance)));
    filter_->SetMode(static_cast<unsigned>(GetValue(kMode)));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    CopyInput(in, out, numChannels, numFrames);
    filter_->ProcessInPlace(static_cast<unsigned>(numFrames), out, SkipAbove(numChannels));
  }

 private:
  vexcore::utility::RefPtr<Filter> filter_;
};

class TalkBoxEffect final : public host::Effect {
 public:
  enum Param { kCutoff, kResonance, kMode, kVowel };

  static EffectInfo Info() {
    EffectInfo info;
    info.name = "talkbox";
    info.description = "Talk box: a resonant ladder filter into a vowel formant filter.";
    info.params = FilterParams(talkbox::TalkBox::kDefaultCutoff, talkbox::TalkBox::kDefaultResonance,
                               "cutoff of the ladder pre-filter");
    info.params.push_back(ParamDescriptor::Choice("vowel", "Vowel", {"a", "e", "i", "o", "u"}, 0, "formant set"));
    info.note = "The formant filter has fixed coefficients: its formants follow the sample rate.";
    info.create = [](const EffectInfo& i) { return std::make_unique<TalkBoxEffect>(i); };
    return info;
  }

  explicit TalkBoxEffect(const EffectInfo& info) : Effect(info) {}
  void Reset() override {
    if (box_) box_->Reset();
  }
  std::int64_t GetTailFrames() const override { return static_cast<std::int64_t>(GetSampleRate()); }

 protected:
  void Configure() override {
    box_ = vexcore::utility::MakeRef<talkbox::TalkBox>(static_cast<float>(GetSampleRate()),
                                                       vexmediatypes::CreateDefaultChannelLayout(GetNumChannels()));
  }

  void ApplyParameters() override {
    if (!box_) return;
    box_->SetCutoff(static_cast<float>(GetValue(kCutoff)));
    box_->SetResonance(static_cast<float>(GetValue(kResonance)));
    box_->SetFilterMode(static_cast<unsigned>(GetValue(kMode)));
    box_->SetVowelMode(static_cast<unsigned>(GetValue(kVowel)));
  }

  void ProcessBlock(float** in, float** out, int numChannels, int numFrames) override {
    CopyInput(in, out, numChannels, numFrames);
    box_->ProcessInPlace(static_cast<unsigned>(numFrames), out, SkipAbove(numChannels));
  }

 private:
  vexcore::utility::RefPtr<talkbox::TalkBox> box_;
};

const host::EffectRegistration kRetro{FilterEffect<retro::Retro>::Info(
    "retro", "Four-pole resonant ladder filter with a soft-clipped last stage (low-, high- or band-pass).",
    "cutoff frequency; the tuning stops at sample rate / 3.56")};
const host::EffectRegistration kRez{FilterEffect<rez::Rez>::Info(
    "rez", "Two-pole resonant state-variable filter (low-, high- or band-pass); resonance also raises the level.",
    "cutoff frequency; the tuning stops at 0.2823 x sample rate")};
const host::EffectRegistration kTalkBox{TalkBoxEffect::Info()};

}  // namespace
}  // namespace guitarsuite
}  // namespace dsp
