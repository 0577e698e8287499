#include "vexaudiodsp/loudness/LoudnessMeter.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace {

constexpr double kFloor = -300.0;
// 10^((-70 + 0.691) / 10), the absolute gate of BS.1770 and Tech 3342.
constexpr double kAbsoluteGatePower = 1.1724653045822981e-07;
constexpr double kRangeRelativeGateDb = -20.0;
constexpr double kLowPercentile = 0.10;
constexpr double kHighPercentile = 0.95;
constexpr double kReservedSeconds = 24.0 * 3600.0;

double PowerToLufs(double power) {
  if (!(power > 0.0)) return kFloor;
  return std::max(kFloor, 10.0 * std::log10(power) - 0.691);
}

}  // namespace

void LoudnessMeter::Init(std::size_t maxFrames, int sampleRate, const std::vector<Itu1770::ChannelLabel>& labels,
                         bool measureTruePeak) {
  itu_.Init(maxFrames, sampleRate, labels);
  maxFrames_ = maxFrames;
  sampleRate_ = sampleRate;
  stepLength_ = itu_.GetBlockLength() == 0 ? 0 : itu_.GetStepLength();
  truePeaks_.clear();
  if (measureTruePeak && maxFrames > 0) {
    truePeaks_.resize(labels.size());
    for (TruePeak& tp : truePeaks_) tp.Init(maxFrames, sampleRate);
  }
  moved_.assign(labels.size(), nullptr);
  stepFill_ = 0;
  stepEnergy_ = 0.0;
  std::fill(std::begin(steps_), std::end(steps_), 0.0);
  stepCount_ = 0;
  momentary_ = shortTerm_ = momentaryMax_ = shortTermMax_ = kFloor;
  shortTermPowers_.clear();
  if (stepLength_ > 0) {
    shortTermPowers_.reserve(
        static_cast<std::size_t>(kReservedSeconds * sampleRate / static_cast<double>(stepLength_)) + 1);
  }
  frames_ = 0;
}

void LoudnessMeter::Process(const float* const* channels, std::size_t frames) {
  const std::size_t count = moved_.size();
  if (count == 0 || maxFrames_ == 0) return;
  for (std::size_t done = 0; done < frames;) {
    const std::size_t n = std::min(maxFrames_, frames - done);
    for (std::size_t c = 0; c < count; ++c) moved_[c] = channels[c] + done;
    itu_.Process(moved_.data(), n);
    for (std::size_t c = 0; c < truePeaks_.size(); ++c) truePeaks_[c].Process(moved_[c], n);
    if (stepLength_ > 0) {
      for (std::size_t pos = 0; pos < n;) {
        const std::size_t take = std::min(n - pos, stepLength_ - stepFill_);
        for (std::size_t c = 0; c < count; ++c) {
          const float* w = itu_.GetWeightedSamples(c);
          if (w == nullptr) continue;
          stepEnergy_ +=
              static_cast<double>(itu_.GetChannelWeight(c)) * vexaccelerate::utility::Dot(take, w + pos, w + pos);
        }
        stepFill_ += take;
        pos += take;
        if (stepFill_ == stepLength_) EndStep();
      }
    }
    done += n;
  }
  frames_ += static_cast<std::int64_t>(frames);
}

void LoudnessMeter::EndStep() {
  steps_[stepCount_ % kShortTermSteps] = stepEnergy_;
  ++stepCount_;
  stepEnergy_ = 0.0;
  stepFill_ = 0;
  const auto sumOfLast = [this](std::size_t k) {
    double sum = 0.0;
    for (std::size_t i = 0; i < k; ++i) sum += steps_[(stepCount_ - 1 - i) % kShortTermSteps];
    return sum / static_cast<double>(k * stepLength_);
  };
  if (stepCount_ >= kMomentarySteps) {
    momentary_ = PowerToLufs(sumOfLast(kMomentarySteps));
    momentaryMax_ = std::max(momentaryMax_, momentary_);
  }
  if (stepCount_ >= kShortTermSteps) {
    const double power = sumOfLast(kShortTermSteps);
    shortTerm_ = PowerToLufs(power);
    shortTermMax_ = std::max(shortTermMax_, shortTerm_);
    shortTermPowers_.push_back(static_cast<float>(power));
  }
}

double LoudnessMeter::GetLoudnessRange() const {
  std::vector<double> kept;
  kept.reserve(shortTermPowers_.size());
  double sum = 0.0;
  for (float p : shortTermPowers_) {
    if (p > kAbsoluteGatePower) {
      kept.push_back(p);
      sum += p;
    }
  }
  if (kept.empty()) return 0.0;
  const double gate = sum / static_cast<double>(kept.size()) * std::pow(10.0, kRangeRelativeGateDb / 10.0);
  std::vector<double> levels;
  levels.reserve(kept.size());
  for (double p : kept) {
    if (p >= gate) levels.push_back(PowerToLufs(p));
  }
  if (levels.empty()) return 0.0;
  std::sort(levels.begin(), levels.end());
  const auto at = [&levels](double q) {
    return levels[static_cast<std::size_t>(std::lround(q * static_cast<double>(levels.size() - 1)))];
  };
  return at(kHighPercentile) - at(kLowPercentile);
}

void LoudnessMeter::GetTruePeak(float& peakDb, std::int64_t& position) const {
  peakDb = static_cast<float>(kFloor);
  position = 0;
  float best = -1.0f;
  for (const TruePeak& tp : truePeaks_) {
    if (tp.GetPeakLinear() > best) {
      best = tp.GetPeakLinear();
      tp.GetPeakValue(peakDb, position);
    }
  }
}

LoudnessSummary LoudnessMeter::GetSummary() const {
  LoudnessSummary s;
  s.integrated = GetIntegrated();
  s.valid = IsValid();
  float peakDb = 0.0f;
  GetTruePeak(peakDb, s.truePeakPosition);
  s.truePeakDb = peakDb;
  s.momentaryMax = momentaryMax_;
  s.shortTermMax = shortTermMax_;
  s.loudnessRange = GetLoudnessRange();
  s.frames = frames_;
  s.sampleRate = sampleRate_;
  return s;
}

}  // namespace dsp
