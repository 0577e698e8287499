#include "vexaudiodsp/loudness/LoudnessAnalyzer.h"

#include <algorithm>
#include <cmath>

namespace dsp {

void LoudnessAnalyzer::SetIOConfig(int numChannels, float sampleRate) {
  DSPAnalyzer::SetIOConfig(numChannels, sampleRate);
  numChannels_ = std::max(0, numChannels);
  sampleRate_ = static_cast<int>(std::lround(sampleRate));
}

bool LoudnessAnalyzer::SetSelection(std::int64_t /*start*/, std::int64_t length) {
  length_ = length;
  return length >= 0;
}

bool LoudnessAnalyzer::IsCompleted() const { return meter_.GetFrames() >= length_; }

float LoudnessAnalyzer::GetProgress() const {
  if (length_ <= 0) return 100.0f;
  return static_cast<float>(100.0 * static_cast<double>(meter_.GetFrames()) / static_cast<double>(length_));
}

void LoudnessAnalyzer::Start(float* result) {
  DSPAnalyzer::Start(result);
  std::vector<Itu1770::ChannelLabel> labels = labels_;
  if (labels.size() != static_cast<std::size_t>(numChannels_)) {
    labels = Itu1770::LabelsFromLayout(vexmediatypes::CreateDefaultChannelLayout(numChannels_));
  }
  meter_.Init(kBlockSize, sampleRate_, labels, truePeak_);
}

std::int64_t LoudnessAnalyzer::Analyze(float** buffers, int /*numChannels*/, int numSamples) {
  const std::int64_t n = std::min<std::int64_t>(numSamples, length_ - meter_.GetFrames());
  if (n > 0) meter_.Process(buffers, static_cast<std::size_t>(n));
  return std::max<std::int64_t>(n, 0);
}

}  // namespace dsp
