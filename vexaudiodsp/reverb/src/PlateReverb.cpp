#include "vexaudiodsp/reverb/PlateReverb.h"

#include <xmmintrin.h>

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"

namespace dsp {
namespace PlateReverb {
namespace {

namespace vu = vexaccelerate::utility;

constexpr float kInputGain = 0.015f;
constexpr float kAllPassFeedback = 0.5f;
constexpr float kDampingScale = 0.4f;

float CombFeedback(float roomSize) { return 0.28f * roomSize + 0.7f; }

// Milliseconds to samples, half away from zero; never negative.
std::size_t MsToSamples(double ms, double rate) {
  const double samples = ms * rate / 1000.0;
  if (!(samples > 0.0)) return 0;
  return static_cast<std::size_t>(std::min(samples + 0.5, 1e9));
}

// The eight combs of a tank over a stretch in which no line wraps, as two
// SSE vectors of four (SSE2 is part of every x86-64 CPU): the same
// operations per lane as Comb's scalar loop filter, so the results are
// identical, but one instruction serves four combs. The outputs are summed
// in comb order.
void RunCombs(std::uint32_t run, const float* input, float* const* line, float* lowpass, float* low, float hfComplement,
              float lf, float feedback, float* out) {
  float* const c0 = line[0];
  float* const c1 = line[1];
  float* const c2 = line[2];
  float* const c3 = line[3];
  float* const c4 = line[4];
  float* const c5 = line[5];
  float* const c6 = line[6];
  float* const c7 = line[7];
  __m128 lpA = _mm_loadu_ps(lowpass), lpB = _mm_loadu_ps(lowpass + 4);
  __m128 loA = _mm_loadu_ps(low), loB = _mm_loadu_ps(low + 4);
  const __m128 hf = _mm_set1_ps(hfComplement), slow = _mm_set1_ps(lf), fb = _mm_set1_ps(feedback);
  alignas(16) float w[8];
  for (std::uint32_t n = 0; n < run; ++n) {
    const float y0 = c0[n], y1 = c1[n], y2 = c2[n], y3 = c3[n];
    const float y4 = c4[n], y5 = c5[n], y6 = c6[n], y7 = c7[n];
    const __m128 x = _mm_set1_ps(input[n]);
    const __m128 yA = _mm_setr_ps(y0, y1, y2, y3), yB = _mm_setr_ps(y4, y5, y6, y7);
    lpA = _mm_add_ps(lpA, _mm_mul_ps(_mm_sub_ps(yA, lpA), hf));
    lpB = _mm_add_ps(lpB, _mm_mul_ps(_mm_sub_ps(yB, lpB), hf));
    loA = _mm_add_ps(loA, _mm_mul_ps(_mm_sub_ps(lpA, loA), slow));
    loB = _mm_add_ps(loB, _mm_mul_ps(_mm_sub_ps(lpB, loB), slow));
    _mm_store_ps(w, _mm_add_ps(x, _mm_mul_ps(_mm_sub_ps(lpA, loA), fb)));
    _mm_store_ps(w + 4, _mm_add_ps(x, _mm_mul_ps(_mm_sub_ps(lpB, loB), fb)));
    c0[n] = w[0];
    c1[n] = w[1];
    c2[n] = w[2];
    c3[n] = w[3];
    c4[n] = w[4];
    c5[n] = w[5];
    c6[n] = w[6];
    c7[n] = w[7];
    out[n] = ((((((y0 + y1) + y2) + y3) + y4) + y5) + y6) + y7;
  }
  _mm_storeu_ps(lowpass, lpA);
  _mm_storeu_ps(lowpass + 4, lpB);
  _mm_storeu_ps(low, loA);
  _mm_storeu_ps(low + 4, loB);
}

void ResizeAndClear(std::vector<float>& buffer, std::uint32_t& index, unsigned int size) {
  buffer.resize(size, 0.0f);
  vu::Zero(buffer.size(), buffer.data());
  if (index >= size) index = 0;
}

}  // namespace

constexpr unsigned int PlateReverb::kCombLengths[];
constexpr unsigned int PlateReverb::kAllPassLengths[];

Comb::Comb(unsigned int size) : buffer_(size, 0.0f) {}

void Comb::SetBufferSize(unsigned int size) { ResizeAndClear(buffer_, index_, size); }

void Comb::Reset() {
  lowpassState_ = 0.0f;
  lowState_ = 0.0f;
  vu::Zero(buffer_.size(), buffer_.data());
}

void Comb::SetDampingHF(float d) {
  dampingHF_ = d;
  dampingHFComplement_ = 1.0f - d;
}

AllPass::AllPass(unsigned int size) : buffer_(size, 0.0f) {}

void AllPass::SetBufferSize(unsigned int size) { ResizeAndClear(buffer_, index_, size); }

void AllPass::Reset() { vu::Zero(buffer_.size(), buffer_.data()); }

void PlateReverb::AlignedFree::operator()(float* p) const { vu::Free(p); }

PlateReverb::PlateReverb(float sampleRate, int channelCount)
    : sampleRate_(sampleRate > 0.0f ? sampleRate : 48000.0f), channelCount_(std::max(channelCount, 0)) {
  UpdateWetGains();
  UpdateAudioConfig();
}

PlateReverb::~PlateReverb() = default;

void PlateReverb::SetSampleRate(float sampleRate) {
  if (sampleRate == sampleRate_ || !(sampleRate > 0.0f) || !std::isfinite(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateAudioConfig();
}

void PlateReverb::SetChannelCount(int channelCount) {
  channelCount_ = std::max(channelCount, 0);
  UpdateAudioConfig();
}

void PlateReverb::SetMaxProcessingBlockSize(unsigned int frames) { EnsureWetCapacity(frames); }

void PlateReverb::SetDryOutPercent(float percent) {
  if (std::isnan(percent)) return;
  dryOutPercent_ = percent;
  dryGain_ = percent * 0.01f;
}

void PlateReverb::SetWetOutPercent(float percent) {
  if (std::isnan(percent)) return;
  wetOutPercent_ = percent;
  UpdateWetGains();
}

void PlateReverb::SetWidth(float width) {
  if (std::isnan(width)) return;
  width_ = width;
  UpdateWetGains();
}

void PlateReverb::UpdateWetGains() {
  wet1_ = (0.5f + width_ * 0.5f) * wetOutPercent_ * 0.01f;
  wet2_ = wetOutPercent_ * 0.01f * (0.5f - width_ * 0.5f);
}

void PlateReverb::SetRoomSize(float roomSize) {
  if (std::isnan(roomSize)) return;
  roomSize_ = roomSize;
  for (auto& tank : combs_) {
    for (auto& comb : tank) comb->SetFeedback(CombFeedback(roomSize));
  }
}

void PlateReverb::SetDampingLF(float damping) {
  if (std::isnan(damping)) return;
  dampingLF_ = damping;
  for (auto& tank : combs_) {
    for (auto& comb : tank) comb->SetDampingLF(damping * kDampingScale);
  }
}

void PlateReverb::SetDampingHF(float damping) {
  if (std::isnan(damping)) return;
  dampingHF_ = damping;
  for (auto& tank : combs_) {
    for (auto& comb : tank) comb->SetDampingHF(damping * kDampingScale);
  }
}

void PlateReverb::SetReflectionsDelay(float ms) {
  if (std::isnan(ms)) return;
  reflectionsDelay_ = ms;
  UpdateDelayLines();
}

// The lines were reserved for the longest delay at this rate, so sizing
// them within that never allocates.
void PlateReverb::UpdateDelayLines() {
  reflectionIndex_ = 0;
  const double ms = std::min(static_cast<double>(reflectionsDelay_), static_cast<double>(kMaxReflectionsDelayMs));
  const std::size_t length = std::max<std::size_t>(1, MsToSamples(ms, sampleRate_));
  for (auto& line : reflectionBuffers_) {
    line.resize(std::min(length, std::max<std::size_t>(1, line.capacity())), 0.0f);
    vu::Zero(line.size(), line.data());
  }
}

unsigned int PlateReverb::GetReflectionsLength() const {
  return reflectionBuffers_.empty() ? 0u : static_cast<unsigned int>(reflectionBuffers_.front().size());
}

void PlateReverb::SetLowCutoffFreq(float hz) {
  if (std::isnan(hz)) return;
  lowCutoffFreq_ = hz;
  for (unsigned int ch = 0; ch < filters_.size(); ++ch) CalculateCutoffCoefficients(ch, false);
}

void PlateReverb::SetLowCutoffQ(float q) {
  if (std::isnan(q)) return;
  lowCutoffQ_ = q;
  for (unsigned int ch = 0; ch < filters_.size(); ++ch) CalculateCutoffCoefficients(ch, false);
}

void PlateReverb::SetHighCutoffFreq(float hz) {
  if (std::isnan(hz)) return;
  highCutoffFreq_ = hz;
  for (unsigned int ch = 0; ch < filters_.size(); ++ch) CalculateCutoffCoefficients(ch, true);
}

void PlateReverb::SetHighCutoffQ(float q) {
  if (std::isnan(q)) return;
  highCutoffQ_ = q;
  for (unsigned int ch = 0; ch < filters_.size(); ++ch) CalculateCutoffCoefficients(ch, true);
}

// The running state is kept so that a cutoff sweep does not click.
void PlateReverb::CalculateCutoffCoefficients(unsigned int channel, bool highCut) {
  IIRFilter& filter = *filters_[channel];
  double c[12];
  filter.GetCoefficients(c);
  if (highCut) {
    LowpassCoefficients(c + 6, sampleRate_, highCutoffFreq_, highCutoffQ_);
  } else {
    HighpassCoefficients(c, sampleRate_, lowCutoffFreq_, lowCutoffQ_);
  }
  filter.SetCoefficients(c, true);
}

const Comb& PlateReverb::GetComb(int channel, int index) const {
  return *combs_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(index)];
}

const AllPass& PlateReverb::GetAllPass(int channel, int index) const {
  return *allPasses_[static_cast<std::size_t>(channel)][static_cast<std::size_t>(index)];
}

// Everything is built anew, so the tail is gone. The reflections lines are
// sized here too (from the stored delay), so the object can run at once
// after a rebuild.
void PlateReverb::UpdateAudioConfig() {
  const auto channels = static_cast<std::size_t>(channelCount_);
  filters_.assign(channels, nullptr);
  combs_.assign(channels, {});
  allPasses_.assign(channels, {});
  for (std::size_t ch = 0; ch < channels; ++ch) {
    const auto spread = static_cast<unsigned int>(ch) * kChannelSpread;
    filters_[ch] = boost::shared_ptr<IIRFilter>(new IIRFilter(2, nullptr, 2));
    CalculateCutoffCoefficients(static_cast<unsigned int>(ch), false);
    CalculateCutoffCoefficients(static_cast<unsigned int>(ch), true);
    for (unsigned int length : kCombLengths) {
      boost::shared_ptr<Comb> comb(new Comb(length + spread));
      comb->SetFeedback(CombFeedback(roomSize_));
      comb->SetDampingLF(dampingLF_ * kDampingScale);
      comb->SetDampingHF(dampingHF_ * kDampingScale);
      combs_[ch].push_back(comb);
    }
    for (unsigned int length : kAllPassLengths) {
      boost::shared_ptr<AllPass> allPass(new AllPass(length + spread));
      allPass->SetFeedback(kAllPassFeedback);
      allPasses_[ch].push_back(allPass);
    }
  }
  reflectionBuffers_.assign(channels, {});
  const std::size_t reserve = std::max<std::size_t>(1, MsToSamples(kMaxReflectionsDelayMs, sampleRate_));
  for (auto& line : reflectionBuffers_) line.reserve(reserve);
  UpdateDelayLines();

  wetBuffers_.clear();
  wetBuffers_.resize(channels);
  inputBuffer_.reset();
  const std::size_t wanted = std::max(wetCapacity_, static_cast<std::size_t>(sampleRate_));
  wetCapacity_ = 0;
  EnsureWetCapacity(wanted);
}

void PlateReverb::EnsureWetCapacity(std::size_t frames) {
  if (frames <= wetCapacity_) return;
  for (auto& buffer : wetBuffers_) buffer.reset(vu::Malloc_Float(frames));
  inputBuffer_.reset(vu::Malloc_Float(frames));
  wetCapacity_ = frames;
}

void PlateReverb::Reset() {
  for (std::size_t ch = 0; ch < filters_.size(); ++ch) {
    filters_[ch]->Reset();
    for (auto& comb : combs_[ch]) comb->Reset();
    for (auto& allPass : allPasses_[ch]) allPass->Reset();
  }
  UpdateDelayLines();
}

// One channel's tank over a block, cut into stretches in which no line
// wraps so that the inner loops have no index tests: the eight combs side by
// side (RunCombs), then the four all-passes in series, with the state in
// locals. Sums form in the same order as calling ProcessSample comb by comb.
void PlateReverb::RunTank(std::size_t channel, unsigned int frames, const float* input, float* out) {
  constexpr int kC = kNumCombs;
  constexpr int kA = kNumAllPasses;
  static_assert(kC == 8 && kA == 4, "the tank loops are written for eight combs and four all-passes");
  float* combLine[kC];
  std::uint32_t combLength[kC], combIndex[kC];
  float lowpass[kC], low[kC];
  // The setters give every comb of the tank the same loop filter, so one
  // copy of its settings serves all eight and stays in registers.
  const Comb& first = *combs_[channel][0];
  const float hfComplement = first.dampingHFComplement_;
  const float lf = first.dampingLF_;
  const float feedback = first.feedback_;
  for (int i = 0; i < kC; ++i) {
    Comb& c = *combs_[channel][static_cast<std::size_t>(i)];
    combLine[i] = c.buffer_.data();
    combLength[i] = static_cast<std::uint32_t>(c.buffer_.size());
    combIndex[i] = c.index_;
    lowpass[i] = c.lowpassState_;
    low[i] = c.lowState_;
  }
  float* apLine[kA];
  std::uint32_t apLength[kA], apIndex[kA];
  float apFeedback[kA];
  for (int j = 0; j < kA; ++j) {
    AllPass& a = *allPasses_[channel][static_cast<std::size_t>(j)];
    apLine[j] = a.buffer_.data();
    apLength[j] = static_cast<std::uint32_t>(a.buffer_.size());
    apIndex[j] = a.index_;
    apFeedback[j] = a.feedback_;
  }
  while (frames > 0) {
    std::uint32_t run = frames;
    for (int i = 0; i < kC; ++i) run = std::min(run, combLength[i] - combIndex[i]);
    for (int j = 0; j < kA; ++j) run = std::min(run, apLength[j] - apIndex[j]);
    float* cp[kC];
    float* ap[kA];
    for (int i = 0; i < kC; ++i) cp[i] = combLine[i] + combIndex[i];
    for (int j = 0; j < kA; ++j) ap[j] = apLine[j] + apIndex[j];
    RunCombs(run, input, cp, lowpass, low, hfComplement, lf, feedback, out);
    float* const a0 = ap[0];
    float* const a1 = ap[1];
    float* const a2 = ap[2];
    float* const a3 = ap[3];
    const float g0 = apFeedback[0], g1 = apFeedback[1], g2 = apFeedback[2], g3 = apFeedback[3];
    for (std::uint32_t n = 0; n < run; ++n) {
      float acc = out[n];
      float y = a0[n];
      a0[n] = g0 * y + acc;
      acc = y - acc;
      y = a1[n];
      a1[n] = g1 * y + acc;
      acc = y - acc;
      y = a2[n];
      a2[n] = g2 * y + acc;
      acc = y - acc;
      y = a3[n];
      a3[n] = g3 * y + acc;
      out[n] = y - acc;
    }
    for (int i = 0; i < kC; ++i) {
      combIndex[i] += run;
      if (combIndex[i] == combLength[i]) combIndex[i] = 0;
    }
    for (int j = 0; j < kA; ++j) {
      apIndex[j] += run;
      if (apIndex[j] == apLength[j]) apIndex[j] = 0;
    }
    input += run;
    out += run;
    frames -= run;
  }
  for (int i = 0; i < kC; ++i) {
    Comb& c = *combs_[channel][static_cast<std::size_t>(i)];
    c.index_ = combIndex[i];
    c.lowpassState_ = lowpass[i];
    c.lowState_ = low[i];
  }
  for (int j = 0; j < kA; ++j) allPasses_[channel][static_cast<std::size_t>(j)]->index_ = apIndex[j];
}

void PlateReverb::ProcessInPlace(unsigned int frameCount, float* const* channels) {
  const auto numChannels = static_cast<std::size_t>(channelCount_);
  if (frameCount == 0 || numChannels == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals flush;
  EnsureWetCapacity(frameCount);
  const std::size_t n = frameCount;

  float* input = inputBuffer_.get();
  vu::Copy(n, channels[0], input);
  for (std::size_t ch = 1; ch < numChannels; ++ch) vu::Add_InPlace(n, channels[ch], input);
  vu::MulConstant_InPlace(n, input, kInputGain);

  for (std::size_t ch = 0; ch < numChannels; ++ch) RunTank(ch, frameCount, input, wetBuffers_[ch].get());

  const float wet1 = wet1_;
  if (numChannels == 2) {
    const float wet2 = wet2_;
    float* a = wetBuffers_[0].get();
    float* b = wetBuffers_[1].get();
    for (std::size_t i = 0; i < n; ++i) {
      const float left = wet1 * a[i] + wet2 * b[i];
      const float right = wet1 * b[i] + wet2 * a[i];
      a[i] = left;
      b[i] = right;
    }
  } else {
    for (std::size_t ch = 0; ch < numChannels; ++ch) vu::MulConstant_InPlace(n, wetBuffers_[ch].get(), wet1);
  }

  // Write, advance, then read: a line of N samples delays by N - 1.
  const auto length = static_cast<std::uint32_t>(reflectionBuffers_[0].size());
  std::uint32_t endIndex = reflectionIndex_;
  for (std::size_t ch = 0; ch < numChannels; ++ch) {
    float* line = reflectionBuffers_[ch].data();
    float* wet = wetBuffers_[ch].get();
    std::uint32_t index = reflectionIndex_;
    if (length <= 1) {
      line[0] = wet[n - 1];
      continue;
    }
    for (std::size_t i = 0; i < n; ++i) {
      line[index] = wet[i];
      if (++index == length) index = 0;
      wet[i] = line[index];
    }
    endIndex = index;
  }
  reflectionIndex_ = endIndex;

  for (std::size_t ch = 0; ch < numChannels; ++ch) filters_[ch]->ProcessInPlace(frameCount, wetBuffers_[ch].get());
  for (std::size_t ch = 0; ch < numChannels; ++ch) {
    vu::MulConstant_InPlace(n, channels[ch], dryGain_);
    vu::Add_InPlace(n, wetBuffers_[ch].get(), channels[ch]);
  }
}

}  // namespace PlateReverb
}  // namespace dsp
