#include "vexaudiodsp/buffering/DSPAnalyzer.h"

namespace dsp {

DSPAnalyzer::~DSPAnalyzer() = default;
void DSPAnalyzer::SetIOConfig(int, float) {}
bool DSPAnalyzer::SetSelection(std::int64_t, std::int64_t) { return true; }
int DSPAnalyzer::GetLatency() const { return 0; }
void DSPAnalyzer::Start(float* result) { result_ = result; }
void DSPAnalyzer::Done() {}

DSPMultiPassAnalyzer::DSPMultiPassAnalyzer(int numPasses) : numPasses_(numPasses < 1 ? 1 : numPasses) {}

bool DSPMultiPassAnalyzer::SetSelection(std::int64_t start, std::int64_t length) {
  selectionStart_ = start;
  selectionLength_ = length;
  currentPosition_ = start;
  return true;
}

int DSPMultiPassAnalyzer::GetLatency() const { return GetLatency(currentPass_); }

bool DSPMultiPassAnalyzer::IsCompleted() const {
  const int pass = currentPass_;
  if (selectionStart_ + GetLatency(pass) + selectionLength_ > currentPosition_) return false;
  // The host-facing poll is const, but finishing a pass is a state change the
  // subclass must see; the object itself is never const while being driven.
  const_cast<DSPMultiPassAnalyzer*>(this)->OnPassDone(pass);
  currentPass_ = pass + 1;
  currentPosition_ = selectionStart_;
  return currentPass_ >= numPasses_;
}

float DSPMultiPassAnalyzer::GetProgress() const {
  // Once every pass is done the position sits at the start again, where the
  // formula gives exactly 100; answering directly spares asking the subclass
  // for the latency of a pass that does not exist.
  if (currentPass_ >= numPasses_) return 100.0f;
  const float span = static_cast<float>(selectionLength_ + GetLatency(currentPass_));
  const float done = span > 0.0f ? static_cast<float>(currentPosition_ - selectionStart_) / span : 0.0f;
  return (done + static_cast<float>(currentPass_)) * (1.0f / static_cast<float>(numPasses_)) * 100.0f;
}

void DSPMultiPassAnalyzer::Start(float* result) {
  DSPAnalyzer::Start(result);
  currentPass_ = 0;
}

std::int64_t DSPMultiPassAnalyzer::Analyze(float** buffers, int numChannels, int numSamples) {
  const int pass = currentPass_;
  const std::int64_t consumed = Analyze(pass, buffers, numChannels, numSamples);
  currentPosition_ += consumed;
  const std::int64_t latency = GetLatency(pass);
  if (currentPosition_ < selectionStart_ + selectionLength_ + latency) return consumed;
  return consumed - (latency + selectionLength_);
}

void DSPMultiPassAnalyzer::Done() {}

int DSPMultiPassAnalyzer::GetLatency(int) const { return 0; }
void DSPMultiPassAnalyzer::OnPassDone(int) {}

}  // namespace dsp
