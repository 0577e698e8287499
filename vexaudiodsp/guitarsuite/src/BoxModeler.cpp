#include "vexaudiodsp/guitarsuite/BoxModeler.h"

#include <algorithm>
#include <cmath>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Filter.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/guitarsuite/PartitionedConvolution.h"

namespace dsp {
namespace guitarsuite {
namespace boxmodeler {
namespace {
namespace vu = vexaccelerate::utility;
namespace vf = vexaccelerate::filter;
constexpr int kBlock = PartitionedConvolution::kBlockSize;
static_assert(BoxModeler::kHeadLength == kBlock, "the tail's one-block lag is absorbed by a head of one block");
// The head is itself a zero-latency FIR built like the whole: taps 0 ... 63
// direct, then stages of partitions of 64, 512 and (the tail) 1024 frames,
// each starting at its own block size so that the taps before it absorb its
// one-block lag. The result equals a direct FIR of the whole impulse.
constexpr int kDirectTaps = 64;
constexpr int kStageBlocks[BoxModeler::kNumStages] = {64, 512, kBlock};

float Clamp(float value, float lo, float hi) { return std::isnan(value) ? lo : std::min(std::max(value, lo), hi); }
}  // namespace

// One partitioned stage fed through a gathering buffer: its output for the
// previous block is read out while the next block is gathered.
struct BoxModeler::GatheredStage {
  PartitionedConvolution convolution;
  std::vector<float> gather;
  std::vector<float> output;
  int blockSize = 0;
  int position = 0;
  bool active = false;

  void Init(const float* taps, int count, int block) {
    active = count > 0;
    blockSize = block;
    gather.assign(static_cast<std::size_t>(block), 0.0f);
    output.assign(static_cast<std::size_t>(block), 0.0f);
    if (active) convolution.Init(taps, count, block);
  }
  void Reset() {
    convolution.Reset();
    std::fill(gather.begin(), gather.end(), 0.0f);
    std::fill(output.begin(), output.end(), 0.0f);
    position = 0;
  }
};

struct BoxModeler::ChannelState {
  vexaccelerate::FIRState_Float* fir = nullptr;
  GatheredStage stages[kNumStages];

  ~ChannelState() { vf::FIRFree(fir); }
};

BoxModeler::BoxModeler(float sampleRate, const vexmediatypes::AudioChannelLayout& layout, unsigned maxBlockSize,
                       int model, int mic)
    : layout_(layout),
      sampleRate_(std::isfinite(sampleRate) && sampleRate >= 1000.0f ? sampleRate : 48000.0f),
      maxBlockSize_(std::max(maxBlockSize, 1u)),
      model_(std::min(std::max(model, 0), kNumModels - 1)),
      mic_(std::min(std::max(mic, 0), kNumMicTypes - 1)) {
  wet_.assign(maxBlockSize_, 0.0f);
  RebuildDelayLines();
  UpdateSetBoxModelMicType();
}

BoxModeler::~BoxModeler() = default;

void BoxModeler::SetSampleRate(float sampleRate) {
  if (!std::isfinite(sampleRate) || sampleRate < 1000.0f || sampleRate == sampleRate_) return;
  sampleRate_ = sampleRate;
  RebuildDelayLines();
  UpdateSetBoxModelMicType();
}

void BoxModeler::SetMaxProcessingBlockSize(unsigned frames) {
  maxBlockSize_ = std::max(frames, 1u);
  wet_.assign(maxBlockSize_, 0.0f);
}

void BoxModeler::SetAudioChannelLayout(const vexmediatypes::AudioChannelLayout& layout) {
  layout_ = layout;
  UpdateSetBoxModelMicType();
}

void BoxModeler::SetBoxModel(int model) {
  model = std::min(std::max(model, 0), kNumModels - 1);
  if (model == model_) return;
  model_ = model;
  UpdateSetBoxModelMicType();
}

void BoxModeler::SetMicType(int mic) {
  mic = std::min(std::max(mic, 0), kNumMicTypes - 1);
  if (mic == mic_) return;
  mic_ = mic;
  UpdateSetBoxModelMicType();
}

void BoxModeler::SetMixPercent(float percent) { mixPercent_ = Clamp(percent, 0.0f, 100.0f); }

void BoxModeler::SetMicSeparation(float millis) {
  separation_ = Clamp(millis, -kMaxSeparationMillis, kMaxSeparationMillis);
  UpdateSeparation();
}

void BoxModeler::SetMicSpread(float spread) { spread_ = Clamp(spread, 0.0f, 1.0f); }

int BoxModeler::GetTailFrames() const {
  const auto delay =
      leftDelay_ && rightDelay_ ? std::max(leftDelay_->GetDelaySamples(), rightDelay_->GetDelaySamples()) : 0u;
  return static_cast<int>(impulse_.size() + delay);
}

void BoxModeler::RebuildDelayLines() {
  leftDelay_ = vexcore::utility::MakeRef<utility::DelayLine>(sampleRate_, kMaxSeparationMillis);
  rightDelay_ = vexcore::utility::MakeRef<utility::DelayLine>(sampleRate_, kMaxSeparationMillis);
  UpdateSeparation();
}

void BoxModeler::UpdateSeparation() {
  if (!leftDelay_ || !rightDelay_) return;
  leftDelay_->SetDelayMillis(std::max(separation_, 0.0f));
  rightDelay_->SetDelayMillis(std::max(-separation_, 0.0f));
}

void BoxModeler::UpdateSetBoxModelMicType() {
  impulse_.assign(static_cast<std::size_t>(GetImpulseLength(model_, mic_, sampleRate_)), 0.0f);
  GenerateImpulse(model_, mic_, sampleRate_, impulse_.data());
  const int length = static_cast<int>(impulse_.size());
  const float* taps = impulse_.data();
  channels_.clear();
  for (std::size_t ch = 0; ch < layout_.size(); ++ch) {
    auto state = std::make_unique<ChannelState>();
    vf::FIRInit(&state->fir, taps, std::min(length, kDirectTaps));
    for (int s = 0; s < kNumStages; ++s) {
      const int first = std::min(length, kStageBlocks[s]);
      const int end = s + 1 < kNumStages ? std::min(length, kStageBlocks[s + 1]) : length;
      state->stages[s].Init(taps + first, end - first, kStageBlocks[s]);
    }
    channels_.push_back(std::move(state));
  }
  Reset();
}

void BoxModeler::Reset() {
  for (auto& state : channels_) {
    vf::FIRReset(state->fir);
    for (GatheredStage& stage : state->stages) stage.Reset();
  }
  // DelayLine::Reset may keep one stale sample; pushing a whole buffer of
  // silence through leaves nothing of the past, as in a fresh line.
  for (utility::DelayLine* line : {leftDelay_.get(), rightDelay_.get()}) {
    if (line == nullptr) continue;
    line->Reset();
    vu::Zero(wet_.size(), wet_.data());
    for (unsigned done = 0; done < line->GetBufferLength();) {
      const auto n = std::min(static_cast<unsigned>(wet_.size()), line->GetBufferLength() - done);
      line->ProcessInPlace(n, wet_.data());
      done += n;
    }
  }
}

void BoxModeler::ProcessInPlace(unsigned frames, float* const* channels,
                                const vexcore::utility::Flags<std::uint64_t>& skip) {
  if (channels == nullptr) return;
  vu::ScopedFlushDenormals noDenormals;
  float* chunk[64];
  const unsigned numChannels = std::min(GetNumChannels(), 64u);
  for (unsigned done = 0; done < frames;) {
    const unsigned n = std::min(frames - done, maxBlockSize_);
    for (unsigned ch = 0; ch < numChannels; ++ch) chunk[ch] = channels[ch] == nullptr ? nullptr : channels[ch] + done;
    ProcessChunk(n, chunk, skip);
    done += n;
  }
}

void BoxModeler::RunPartitionedConvolution(GatheredStage& stage, const float* in, float* wet, unsigned frames) {
  float* gather = stage.gather.data();
  float* output = stage.output.data();
  const int block = stage.blockSize;
  int position = stage.position;
  for (unsigned done = 0; done < frames;) {
    const unsigned n = std::min(frames - done, static_cast<unsigned>(block - position));
    vu::Copy(n, in + done, gather + position);
    vu::Add_InPlace(n, output + position, wet + done);
    position += static_cast<int>(n);
    done += n;
    if (position == block) {
      stage.convolution.ProcessBlock(gather, output);
      position = 0;
    }
  }
  stage.position = position;
}

void BoxModeler::ProcessChunk(unsigned frames, float* const* channels,
                              const vexcore::utility::Flags<std::uint64_t>& skip) {
  const float wetGain = mixPercent_ / 100.0f;
  const float dryGain = 1.0f - wetGain;
  float* wet = wet_.data();
  const unsigned numChannels = std::min(GetNumChannels(), static_cast<unsigned>(channels_.size()));
  for (unsigned ch = 0; ch < numChannels; ++ch) {
    float* x = channels[ch];
    if (x == nullptr || skip.IsSet(ch)) continue;
    ChannelState& state = *channels_[ch];
    vf::FIR(frames, x, wet, state.fir);
    for (GatheredStage& stage : state.stages) {
      if (stage.active) RunPartitionedConvolution(stage, x, wet, frames);
    }
    vu::MulConstant_InPlace(frames, x, dryGain);
    vu::MulConstant_InPlace(frames, wet, wetGain);
    vu::Add_InPlace(frames, wet, x);
  }
  if (numChannels != 2 || skip.IsSet(0) || channels[0] == nullptr || channels[1] == nullptr) return;
  float* left = channels[0];
  float* right = channels[1];
  leftDelay_->ProcessInPlace(frames, left);
  rightDelay_->ProcessInPlace(frames, right);
  const float spread = spread_;
  for (unsigned i = 0; i < frames; ++i) {
    const float s = left[i] + right[i];
    const float d = (left[i] - right[i]) * spread;
    left[i] = 0.5f * (s + d);
    right[i] = 0.5f * (s - d);
  }
}

}  // namespace boxmodeler
}  // namespace guitarsuite
}  // namespace dsp
