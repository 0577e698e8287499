#include <algorithm>
#include <cmath>

#include "Ladder.h"
#include "vexaccelerate/Denormals.h"
#include "vexaudiodsp/guitarsuite/Retro.h"
#include "vexaudiodsp/guitarsuite/Rez.h"
#include "vexaudiodsp/guitarsuite/TalkBox.h"

namespace dsp {
namespace guitarsuite {
namespace {

using Ranges = ResonantFilterRanges;
constexpr double kPi = 3.14159265358979323846;

bool UsableRate(float sampleRate) { return std::isfinite(sampleRate) && sampleRate > 0.0f; }
float FallbackRate(float sampleRate) { return UsableRate(sampleRate) ? sampleRate : 48000.0f; }

// The formant rows of the talk box (vowels a, e, i, o, u): c0 scales the
// input, c1 ... c10 weight the ten previous outputs.
constexpr double kVowels[talkbox::TalkBox::kNumVowels][11] = {
    {8.11044e-06, 8.943665402, -36.83889529, 92.01697887, -154.337906, 181.6233289, -151.8651235, 89.09614114,
     -35.10298511, 8.388101016, -0.923313471},
    {4.36215e-06, 8.90438318, -36.55179099, 91.05750846, -152.422234, 179.1170248, -149.6496211, 87.78352223,
     -34.60687431, 8.282228154, -0.914150747},
    {3.33819e-06, 8.893102966, -36.49532826, 90.96543286, -152.4545478, 179.4835618, -150.315433, 88.43409371,
     -34.98612086, 8.407803364, -0.932568035},
    {1.13572e-06, 8.994734087, -37.2084849, 93.22900521, -156.6929844, 184.596544, -154.3755513, 90.49663749,
     -35.58964535, 8.478996281, -0.929252233},
    {4.09431e-07, 8.997322763, -37.20218544, 93.11385476, -156.2530937, 183.7080141, -153.2631681, 89.59539726,
     -35.12454591, 8.338655623, -0.910251753}};

}  // namespace

namespace retro {

Retro::Retro(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : layout_(layout), sampleRate_(FallbackRate(sampleRate)), state_(layout.size() * 5, 0.0) {
  UpdateAll();
}
Retro::~Retro() = default;

void Retro::SetSampleRate(float sampleRate) {
  if (!UsableRate(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateAll();
}

void Retro::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  layout_ = layout;
  state_.assign(layout.size() * 5, 0.0);
}

void Retro::SetCutoff(float hz) {
  cutoff_ = detail::ClampParameter(hz, Ranges::kMinCutoff, Ranges::kMaxCutoff);
  UpdateAll();
}

void Retro::SetResonance(float resonance) {
  resonance_ = detail::ClampParameter(resonance, Ranges::kMinResonance, Ranges::kMaxResonance);
  UpdateAll();
}

void Retro::SetMode(unsigned mode) { mode_ = mode; }

float Retro::GetMaxCutoffFreq(float sampleRate) { return sampleRate * 0.5f / 1.78f; }

void Retro::UpdateAll() {
  const detail::LadderCoefficients c = detail::DesignLadder(cutoff_, resonance_, sampleRate_);
  p_ = c.p;
  k_ = c.k;
  r_ = c.r;
}

int Retro::GetDisplayCoefficients(double* numerator, double* denominator) const {
  detail::LadderDisplay({p_, k_, r_}, mode_, numerator, denominator);
  return kDisplayOrder;
}

void Retro::Reset() { std::fill(state_.begin(), state_.end(), 0.0); }

void Retro::ProcessInPlace(unsigned frames, float* const* channels,
                           const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  vexaccelerate::utility::ScopedFlushDenormals noDenormals;
  const detail::LadderCoefficients c{p_, k_, r_};
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    if (channels[ch] == nullptr || skip.IsSet(ch)) continue;
    detail::RunLadder(c, mode_, state_.data() + 5 * ch, channels[ch], frames);
  }
}

}  // namespace retro

namespace rez {

Rez::Rez(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : layout_(layout), sampleRate_(FallbackRate(sampleRate)), state_(layout.size() * 2, 0.0) {
  UpdateAll();
}
Rez::~Rez() = default;

void Rez::SetSampleRate(float sampleRate) {
  if (!UsableRate(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateAll();
}

void Rez::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  layout_ = layout;
  state_.assign(layout.size() * 2, 0.0);
}

void Rez::SetCutoff(float hz) {
  cutoff_ = detail::ClampParameter(hz, Ranges::kMinCutoff, Ranges::kMaxCutoff);
  UpdateAll();
}

void Rez::SetResonance(float resonance) {
  resonance_ = detail::ClampParameter(resonance, Ranges::kMinResonance, Ranges::kMaxResonance);
  UpdateAll();
}

void Rez::SetMode(unsigned mode) { mode_ = mode; }

float Rez::GetMaxCutoffFreq(float sampleRate) { return sampleRate * 0.2823f; }

void Rez::UpdateAll() {
  const double ratio = std::min(std::max(static_cast<double>(cutoff_) / sampleRate_, 0.0), 0.5);
  // The Chamberlin filter is stable only for F < 2 - q; 1.55 keeps a margin
  // at the lowest damping.
  f_ = std::min(std::max(2.0 * std::sin(kPi * ratio), 0.0), 1.55);
  q_ = 0.49 - 0.41000003 * resonance_;
}

int Rez::GetDisplayCoefficients(double* numerator, double* denominator) const {
  const double f = f_, q = q_;
  denominator[0] = 1.0;
  denominator[1] = -2.0 + q * f + f * f;
  denominator[2] = 1.0 - q * f;
  switch (mode_) {
    case kLowpass:
      numerator[0] = 0.0;
      numerator[1] = f * f;
      numerator[2] = 0.0;
      break;
    case kHighpass:
      numerator[0] = 1.0;
      numerator[1] = -2.0;
      numerator[2] = 1.0;
      break;
    case kBandpass:
      numerator[0] = f;
      numerator[1] = -f;
      numerator[2] = 0.0;
      break;
    default:
      std::copy(denominator, denominator + 3, numerator);
      break;
  }
  return kDisplayOrder;
}

void Rez::Reset() { std::fill(state_.begin(), state_.end(), 0.0); }

void Rez::ProcessInPlace(unsigned frames, float* const* channels, const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr || mode_ > kBandpass) return;
  vexaccelerate::utility::ScopedFlushDenormals noDenormals;
  const double f = f_, q = q_, scale = 1.0 / q_;
  const unsigned mode = mode_;
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    float* x = channels[ch];
    if (x == nullptr || skip.IsSet(ch)) continue;
    double low = state_[2 * ch], band = state_[2 * ch + 1];
    for (unsigned i = 0; i < frames; ++i) {
      low += f * band;
      const double high = (x[i] - band) * q - low;
      band += f * high;
      x[i] = static_cast<float>((mode == kLowpass ? low : mode == kHighpass ? high : band) * scale);
    }
    state_[2 * ch] = low;
    state_[2 * ch + 1] = band;
  }
}

}  // namespace rez

namespace talkbox {

TalkBox::TalkBox(float sampleRate, const vexmediatypes::AudioChannelLayout& layout)
    : layout_(layout),
      sampleRate_(FallbackRate(sampleRate)),
      ladderState_(layout.size() * 5, 0.0),
      formantState_(layout.size() * 10, 0.0) {
  UpdateAll();
}
TalkBox::~TalkBox() = default;

void TalkBox::SetSampleRate(float sampleRate) {
  if (!UsableRate(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateAll();
}

void TalkBox::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  layout_ = layout;
  ladderState_.assign(layout.size() * 5, 0.0);
  formantState_.assign(layout.size() * 10, 0.0);
}

void TalkBox::SetCutoff(float hz) {
  cutoff_ = detail::ClampParameter(hz, Ranges::kMinCutoff, Ranges::kMaxCutoff);
  UpdateAll();
}

void TalkBox::SetResonance(float resonance) {
  resonance_ = detail::ClampParameter(resonance, Ranges::kMinResonance, Ranges::kMaxResonance);
  UpdateAll();
}

void TalkBox::SetFilterMode(unsigned mode) { filterMode_ = mode; }
void TalkBox::SetVowelMode(unsigned vowel) { vowel_ = vowel; }

float TalkBox::GetMaxCutoffFreq(float sampleRate) { return retro::Retro::GetMaxCutoffFreq(sampleRate); }

const double* TalkBox::GetVowelCoefficients(unsigned vowel) {
  return kVowels[vowel < static_cast<unsigned>(kNumVowels) ? vowel : 0];
}

void TalkBox::UpdateAll() {
  const detail::LadderCoefficients c = detail::DesignLadder(cutoff_, resonance_, sampleRate_);
  p_ = c.p;
  k_ = c.k;
  r_ = c.r;
}

int TalkBox::GetDisplayCoefficients(double* numerator, double* denominator) const {
  double ladderNum[6], ladderDen[6];
  detail::LadderDisplay({p_, k_, r_}, filterMode_, ladderNum, ladderDen);
  const double* c = GetVowelCoefficients(vowel_);
  double formantDen[11];
  formantDen[0] = 1.0;
  for (int j = 1; j <= 10; ++j) formantDen[j] = -c[j];
  detail::PolyMul(ladderDen, 6, formantDen, 11, denominator);
  for (int i = 0; i <= kDisplayOrder; ++i) numerator[i] = i < 6 ? ladderNum[i] * c[0] : 0.0;
  return kDisplayOrder;
}

void TalkBox::Reset() {
  std::fill(ladderState_.begin(), ladderState_.end(), 0.0);
  std::fill(formantState_.begin(), formantState_.end(), 0.0);
}

void TalkBox::ProcessPreFilter(unsigned frames, float* const* channels,
                               const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  vexaccelerate::utility::ScopedFlushDenormals noDenormals;
  const detail::LadderCoefficients c{p_, k_, r_};
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    if (channels[ch] == nullptr || skip.IsSet(ch)) continue;
    detail::RunLadder(c, filterMode_, ladderState_.data() + 5 * ch, channels[ch], frames);
  }
}

void TalkBox::ProcessInPlace(unsigned frames, float* const* channels,
                             const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  ProcessPreFilter(frames, channels, skip);
  vexaccelerate::utility::ScopedFlushDenormals noDenormals;
  const double* c = GetVowelCoefficients(vowel_);
  const double c0 = c[0], c1 = c[1], c2 = c[2], c3 = c[3], c4 = c[4], c5 = c[5], c6 = c[6], c7 = c[7], c8 = c[8],
               c9 = c[9], c10 = c[10];
  for (unsigned ch = 0; ch < GetNumChannels(); ++ch) {
    float* x = channels[ch];
    if (x == nullptr || skip.IsSet(ch)) continue;
    double* state = formantState_.data() + 10 * ch;
    double s0 = state[0], s1 = state[1], s2 = state[2], s3 = state[3], s4 = state[4], s5 = state[5], s6 = state[6],
           s7 = state[7], s8 = state[8], s9 = state[9];
    for (unsigned i = 0; i < frames; ++i) {
      const double y = c0 * x[i] + c1 * s0 + c2 * s1 + c3 * s2 + c4 * s3 + c5 * s4 + c6 * s5 + c7 * s6 + c8 * s7 +
                       c9 * s8 + c10 * s9;
      s9 = s8;
      s8 = s7;
      s7 = s6;
      s6 = s5;
      s5 = s4;
      s4 = s3;
      s3 = s2;
      s2 = s1;
      s1 = s0;
      s0 = y;
      x[i] = static_cast<float>(y);
    }
    state[0] = s0;
    state[1] = s1;
    state[2] = s2;
    state[3] = s3;
    state[4] = s4;
    state[5] = s5;
    state[6] = s6;
    state[7] = s7;
    state[8] = s8;
    state[9] = s9;
  }
}

}  // namespace talkbox
}  // namespace guitarsuite
}  // namespace dsp
