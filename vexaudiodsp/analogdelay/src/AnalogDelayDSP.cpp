#include "vexaudiodsp/analogdelay/AnalogDelayDSP.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/filters/BiquadDesigns.h"

namespace dsp {
namespace analogdelay {
namespace {

namespace vu = vexaccelerate::utility;

constexpr float kDbToNeper = 0.115129255f;  // ln(10) / 20
constexpr float kHalfPi = 1.57079632679f;
constexpr double kTwoPi = 6.283185307179586;
// The line holds twice the longest delay, so tempo-synced delays of up to
// 16 s fit.
constexpr double kLineMs = 2.0 * kDelayMaxMs;
constexpr float kSoftKnee = 0.95f;
constexpr float kSoftWidth = 0.050000012f;
constexpr float kSoftCeiling = 0.975f;

struct ModeVoicing {
  float lfoPeriodMs;
  double cutoffHz;
  double q;
};
constexpr ModeVoicing kVoicings[3] = {{500.0f, 5500.0, 0.38}, {333.0f, 4000.0, 0.59}, {750.0f, 1500.0, 0.9}};

// Above 0.95 the wet value bends smoothly into 0.975, which it reaches at 1
// and keeps beyond; symmetric for negative values.
float SoftLimit(float x) {
  const float a = std::fabs(x);
  if (a < kSoftKnee) return x;
  float y = kSoftCeiling;
  if (a <= 1.0f) {
    const float over = (a - kSoftKnee) / kSoftWidth;
    y = kSoftKnee + (a - kSoftKnee) / (over * over + 1.0f);
  }
  return x < 0.0f ? -y : y;
}

}  // namespace

void AnalogDelayDSP::AlignedFree::operator()(float* p) const { vu::Free(p); }

AnalogDelayDSP::AnalogDelayDSP(float sampleRate, int channelCount, bool jumpOnDelayChange, bool allowHostTempoSync)
    : sampleRate_(sampleRate > 0.0f && std::isfinite(sampleRate) ? sampleRate : 48000.0f),
      channelCount_(channelCount < 0 ? 0u : static_cast<std::uint32_t>(channelCount)),
      maxGlideMs_(1000.0f / sampleRate_),
      jumpOnDelayChange_(jumpOnDelayChange),
      allowHostTempoSync_(allowHostTempoSync) {
  UpdateAudioConfig();
}

AnalogDelayDSP::~AnalogDelayDSP() = default;

void AnalogDelayDSP::SetSampleRate(float sampleRate) {
  if (!(sampleRate > 0.0f) || !std::isfinite(sampleRate)) return;
  sampleRate_ = sampleRate;
  UpdateAudioConfig();
}

void AnalogDelayDSP::SetChannelCount(int channelCount) {
  channelCount_ = channelCount < 0 ? 0u : static_cast<std::uint32_t>(channelCount);
  UpdateAudioConfig();
}

void AnalogDelayDSP::UpdateAudioConfig() {
  maxGlideMs_ = 1000.0f / sampleRate_;
  wetOut_.assign(channelCount_, 0.0f);
  tap_.assign(channelCount_, 0.0f);
  filters_.clear();
  filterViews_.clear();
  for (std::uint32_t ch = 0; ch < channelCount_; ++ch) {
    filters_.push_back(boost::shared_ptr<IIRFilter>(new IIRFilter(2, nullptr, 1)));
    filterViews_.push_back(filters_.back().get());
  }
  ResizeDelayBuffers();
  if (distortionMode_ < 3) {
    lfoPeriodMs_ = kVoicings[distortionMode_].lfoPeriodMs;
    lfoDepthLimitMs_ = 0.1f;
    UpdateTrashFilters();
  }
  SetTrash(trash_);
  dryGain_ = dryOutPercent_ * 0.01f;
  wetGain_ = wetOutPercent_ * 0.01f;
  feedbackGain_ = feedbackPercent_ * 0.01f;
  spreadGain_ = spread_ / (kSpreadMax - kSpreadMin) * 2.0f;
  const bool jump = jumpOnDelayChange_;
  jumpOnDelayChange_ = false;
  UpdateDelayTarget();
  jumpOnDelayChange_ = jump;
  JumpToTarget();
}

void AnalogDelayDSP::ResizeDelayBuffers() {
  lineLength_ = static_cast<std::size_t>(std::floor(kLineMs * 0.001 * sampleRate_ + 0.5)) + 1;
  delayLines_.clear();
  lineViews_.clear();
  for (std::uint32_t ch = 0; ch < channelCount_; ++ch) {
    delayLines_.emplace_back(vu::Malloc_Float(lineLength_));
    lineViews_.push_back(delayLines_.back().get());
    vu::Zero(lineLength_, lineViews_.back());
  }
  dirtyStart_ = 0;
  dirtyCount_ = 0;
}

void AnalogDelayDSP::SetDryOutPercent(float percent) {
  if (std::isnan(percent)) return;
  dryOutPercent_ = percent;
  dryGain_ = percent * 0.01f;
}

void AnalogDelayDSP::SetWetOutPercent(float percent) {
  if (std::isnan(percent)) return;
  wetOutPercent_ = percent;
  wetGain_ = percent * 0.01f;
}

void AnalogDelayDSP::SetFeedback(float percent) {
  if (std::isnan(percent)) return;
  feedbackPercent_ = percent;
  feedbackGain_ = percent * 0.01f;
}

void AnalogDelayDSP::SetDelay(float ms) {
  if (std::isnan(ms)) return;
  delayMs_ = ms;
  UpdateDelayTarget();
}

void AnalogDelayDSP::SetHostTempoSync(bool on) {
  hostTempoSync_ = on;
  UpdateDelayTarget();
}

void AnalogDelayDSP::SetHostTempoSyncRatio(unsigned int ratio) {
  hostTempoSyncRatio_ = ratio;
  UpdateDelayTarget();
}

void AnalogDelayDSP::SetHostTempo(float bpm, float beatUnit) {
  if (bpm == hostTempo_ && beatUnit == hostBeatUnit_) return;
  if (!(bpm > 0.0f) || !std::isfinite(bpm) || !std::isfinite(beatUnit)) return;
  hostTempo_ = bpm;
  hostBeatUnit_ = beatUnit;
  UpdateDelayTarget();
}

float AnalogDelayDSP::GetHostTempoSyncRatioMultiplier(unsigned int ratio, float beatUnit) {
  static constexpr float kFixed[18] = {0.09375f, 0.0625f, 1.0f / 24.0f, 0.1875f, 0.125f, 1.0f / 12.0f,
                                       0.375f,   0.25f,   1.0f / 6.0f,  0.75f,   0.5f,   1.0f / 3.0f,
                                       1.5f,     1.0f,    2.0f / 3.0f,  3.0f,    2.0f,   4.0f / 3.0f};
  if (ratio < 18) return kFixed[ratio];
  switch (ratio) {
    case 18:
      return beatUnit;
    case 19:
      return 2.0f * beatUnit;
    case 20:
      return 4.0f * beatUnit;
    case 21:
      return 8.0f * beatUnit;
    default:
      return 1.0f;
  }
}

void AnalogDelayDSP::UpdateDelayTarget() {
  delayMillisOverride_ = 60000.0f / hostTempo_ * GetHostTempoSyncRatioMultiplier(hostTempoSyncRatio_, hostBeatUnit_);
  const float target = hostTempoSync_ ? delayMillisOverride_ : delayMs_;
  effectiveDelayMs_ = std::isnan(target) ? 0.0f : std::clamp(target, 0.0f, static_cast<float>(kLineMs));
  UpdateLfo();
  if (jumpOnDelayChange_) JumpToTarget();
}

void AnalogDelayDSP::UpdateLfo() {
  lfoStep_ = static_cast<float>(kTwoPi / (lfoPeriodMs_ * 0.001 * sampleRate_));
  lfoDepth_ = 0.001f * sampleRate_ * std::max(0.0f, std::min(effectiveDelayMs_, lfoDepthLimitMs_));
}

// Whole samples of a delay, half away from zero (ms is never negative here),
// held so that the write index D + 1 stays inside the line.
std::uint32_t AnalogDelayDSP::DelaySamples(float ms) const {
  const double samples = std::floor(static_cast<double>(ms) * 0.001 * sampleRate_ + 0.5);
  const double longest = static_cast<double>(lineLength_) - 2.0;
  return static_cast<std::uint32_t>(std::clamp(samples, 0.0, std::max(0.0, longest)));
}

// Only the stretch written since the last clear can be non-zero.
void AnalogDelayDSP::ClearLines() {
  const std::size_t first = std::min(dirtyCount_, lineLength_ - dirtyStart_);
  for (float* line : lineViews_) {
    vu::Zero(first, line + dirtyStart_);
    vu::Zero(dirtyCount_ - first, line);
  }
  dirtyCount_ = 0;
}

void AnalogDelayDSP::JumpToTarget() {
  ClearLines();
  currentDelayMs_ = effectiveDelayMs_;
  previousDelayMs_ = effectiveDelayMs_;
  lfoCounter_ = 0;
  glideStepMs_ = 0.0f;
  readPosition_ = 0.0f;
  writeIndex_ = DelaySamples(effectiveDelayMs_) + 1;
  dirtyStart_ = writeIndex_;
  for (auto& filter : filters_) filter->Reset();
}

void AnalogDelayDSP::Reset() { JumpToTarget(); }

void AnalogDelayDSP::SetTrash(float trash) {
  if (std::isnan(trash)) return;
  // Beyond 100 the sine drives would reach the zero of their normaliser.
  trash_ = std::clamp(trash, kTrashMin, kTrashMax);
  const float u = (trash_ - kTrashMin) / (kTrashMax - kTrashMin);
  drive0_ = 0.1f + 1.14f * u;
  norm0_ = 1.0f / std::sin(kHalfPi * drive0_);
  drive1_ = 0.01f + 0.61f * u;
  norm1_ = 1.0f / std::sin(kHalfPi * drive1_);
  postGain1_ = std::exp(kDbToNeper * 1.8f * u);
  exponent2_ = 1.0f + 6.5f * u;
  inverse2_ = 1.0f / exponent2_;
  UpdateWetDrive();
  UpdateWetOutAdjust();
}

void AnalogDelayDSP::UpdateWetDrive() {
  const float u = (trash_ - kTrashMin) / (kTrashMax - kTrashMin);
  wetDrive_ = distortionMode_ == 2 ? std::exp(kDbToNeper * 20.0f * u) : 1.0f;
}

void AnalogDelayDSP::UpdateWetOutAdjust() {
  const float u = (trash_ - kTrashMin) / (kTrashMax - kTrashMin);
  wetOutAdjust_ = distortionMode_ == 2 ? 1.0f - 0.5f * u : 1.0f;
}

void AnalogDelayDSP::SetDistortionMode(unsigned int mode) {
  distortionMode_ = mode;
  if (mode < 3) {
    lfoPeriodMs_ = kVoicings[mode].lfoPeriodMs;
    lfoDepthLimitMs_ = 0.1f;
    UpdateLfo();
    UpdateTrashFilters();
  }
  UpdateWetDrive();
  UpdateWetOutAdjust();
}

// State kept: a mode change recolours the repeats already in the line
// without a click.
void AnalogDelayDSP::UpdateTrashFilters() {
  if (distortionMode_ >= 3) return;
  double c[6];
  LowpassCoefficients(c, sampleRate_, kVoicings[distortionMode_].cutoffHz, kVoicings[distortionMode_].q);
  for (auto& filter : filters_) filter->SetCoefficients(c, true);
}

void AnalogDelayDSP::SetSpread(float spread) {
  if (std::isnan(spread)) return;
  spread_ = spread;
  spreadGain_ = (spread - kSpreadMin) / (kSpreadMax - kSpreadMin) * 2.0f;
}

void AnalogDelayDSP::GetDelayValues(float& dryGain, float& wetGain, float& effectiveDelayMs,
                                    float& feedbackGain) const {
  dryGain = dryGain_;
  wetGain = wetGain_;
  effectiveDelayMs = effectiveDelayMs_;
  feedbackGain = feedbackGain_;
}

float AnalogDelayDSP::GetSmallSignalLoopGain() const {
  float slope = 1.0f;  // mode 2: atan(|x|^p)^(1/p) ~ |x| near 0
  if (distortionMode_ == 0) {
    slope = kHalfPi * drive0_ * norm0_;
  } else if (distortionMode_ == 1) {
    slope = kHalfPi * drive1_ * norm1_ * postGain1_;
  }
  return std::fabs(feedbackGain_) * slope;
}

void AnalogDelayDSP::GetLevels(float& inputPeak, float& outputPeak) {
  inputPeak = inputPeak_;
  outputPeak = outputPeak_;
  inputPeak_ = 0.0f;
  outputPeak_ = 0.0f;
}

void AnalogDelayDSP::Process(const float* const* in, float** out, int frameCount, ChannelFlags bypass,
                             ChannelFlags& outFlags) {
  outFlags = bypass;
  const std::uint32_t channels = channelCount_;
  if (frameCount <= 0 || channels == 0) return;
  vexaccelerate::utility::ScopedFlushDenormals flush;

  const auto length = static_cast<std::int64_t>(lineLength_);
  const float lastRead = static_cast<float>(length - 1);
  const std::uint32_t mode = distortionMode_;
  const double lfoStep = lfoStep_;
  const double lfoDepth = lfoDepth_;
  const float feedback = feedbackGain_;
  const float wetDrive = wetDrive_;
  const float wetOutGain = wetGain_ * wetOutAdjust_;
  const float dryGain = dryGain_;
  const float drive0 = kHalfPi * drive0_, norm0 = norm0_;
  const float drive1 = kHalfPi * drive1_, norm1 = norm1_, postGain1 = postGain1_;
  const float exponent2 = exponent2_, inverse2 = inverse2_;
  const bool limit = feedbackPercent_ > 100.0f;
  const bool spread = channels == 2 && !bypass.IsSet(0) && !bypass.IsSet(1);
  const float spreadGain = spreadGain_;
  const float rate = sampleRate_;
  const float effective = effectiveDelayMs_;
  std::uint32_t lfoCounter = lfoCounter_;
  std::uint32_t writeIndex = writeIndex_;
  float readPosition = readPosition_;
  float current = currentDelayMs_;
  float inputPeak = inputPeak_;
  float outputPeak = outputPeak_;
  float* wetOut = wetOut_.data();
  float* tap = tap_.data();
  float* const* lines = lineViews_.data();
  IIRFilter* const* filters = filterViews_.data();
  // Bit c set: channel c bypassed (channels from 64 on cannot be).
  const std::uint64_t bypassed = bypass.Get();
  auto isBypassed = [bypassed](std::uint32_t c) { return c < 64 && ((bypassed >> c) & 1u) != 0; };

  for (int n = 0; n < frameCount; ++n) {
    double m = std::sin(static_cast<double>(lfoCounter) * lfoStep) * lfoDepth + readPosition;
    ++lfoCounter;
    if (m < 0.0) m += static_cast<double>(length);
    m = std::max(0.0, m);
    const auto i = static_cast<std::int64_t>(m);
    const auto f = static_cast<float>(m - static_cast<double>(i));
    // m < L + depth, so one correction brings every index into the line.
    std::int64_t im1 = i - 1, i0 = i, i1 = i + 1, i2 = i + 2;
    if (im1 < 0) im1 += length;
    if (i0 >= length) i0 -= length;
    if (i1 >= length) i1 -= length;
    if (i2 >= length) i2 -= length;
    for (std::uint32_t c = 0; c < channels; ++c) {
      const float* line = lines[c];
      const float ym1 = line[im1], y0 = line[i0], y1 = line[i1], y2 = line[i2];
      const float a = y2 - y1 - ym1 + y0;
      tap[c] = ((a * f + (ym1 - a - y0)) * f + (y1 - ym1)) * f + y0;
      wetOut[c] = tap[c];
    }
    readPosition += 1.0f;
    // Wraps one sample early, on purpose: the delay shortens by a sample
    // each time the read side passes the end of the line.
    if (readPosition > lastRead) readPosition -= lastRead;

    for (std::uint32_t c = 0; c < channels; ++c) {
      if (isBypassed(c)) continue;
      const float x = feedback * tap[c] + in[c][n] * wetDrive;
      float s;
      switch (mode) {
        case 0:
          s = std::sin(drive0 * x) * norm0;
          break;
        case 1:
          s = std::sin(drive1 * x) * norm1;
          if (postGain1 != 1.0f) {
            const float z = postGain1 * s;
            s = z > 0.0f ? 1.0f - 1.0f / (z + 1.0f) : 1.0f / (1.0f - z) - 1.0f;
          }
          break;
        case 2:
          // The circuit inverts the polarity of what it stores.
          s = std::pow(std::atan(std::pow(std::fabs(x), exponent2)), inverse2);
          if (x >= 0.0f) s = -s;
          break;
        default:
          outFlags = bypass | ChannelFlags::LowBits(channels);
          lfoCounter_ = lfoCounter;
          readPosition_ = readPosition;
          return;
      }
      lines[c][writeIndex] = filters[c]->ProcessSingle(s);
    }
    if (++writeIndex == static_cast<std::uint32_t>(length)) writeIndex = 0;

    if (spread) {
      const float w0 = wetOut[0], w1 = wetOut[1];
      const float d = (w0 - w1) * spreadGain;
      wetOut[0] = (w0 + w1 + d) * 0.5f;
      wetOut[1] = (w0 + w1 - d) * 0.5f;
    }
    for (std::uint32_t c = 0; c < channels; ++c) {
      if (isBypassed(c)) continue;
      const float w = limit ? SoftLimit(wetOut[c]) : wetOut[c];
      wetOut[c] = w;
      const float x = in[c][n];
      inputPeak = std::max(inputPeak, std::fabs(x * dryGain));
      outputPeak = std::max(outputPeak, std::fabs(wetOutGain * w));
      out[c][n] = wetOutGain * w + x * dryGain;
    }

    previousDelayMs_ = effective;
    if (current != effective) {
      float step = effective - current;
      if (std::fabs(step * 0.001f * rate) > 1.0f) step = step > 0.0f ? maxGlideMs_ : -maxGlideMs_;
      current += step;
      glideStepMs_ = step;
      float position = static_cast<float>(writeIndex) - static_cast<float>(DelaySamples(current) + 1);
      if (position < 0.0f) position += static_cast<float>(length);
      readPosition = position;
    }
  }
  lfoCounter_ = lfoCounter;
  writeIndex_ = writeIndex;
  readPosition_ = readPosition;
  currentDelayMs_ = current;
  dirtyCount_ = std::min(lineLength_, dirtyCount_ + static_cast<std::size_t>(frameCount));
  inputPeak_ = inputPeak;
  outputPeak_ = outputPeak;
}

}  // namespace analogdelay
}  // namespace dsp
