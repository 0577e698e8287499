#include "vexaudiodsp/buffering/DSPProcessChain.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

SlotInfo::SlotInfo(std::shared_ptr<DSPProcess> process, bool enabled) : process(std::move(process)), enabled(enabled) {}

void SlotInfo::Swap(SlotInfo& other) noexcept {
  process.swap(other.process);
  std::swap(enabled, other.enabled);
}

bool SlotInfo::operator==(const SlotInfo& other) const { return process == other.process && enabled == other.enabled; }

bool SlotInfo::operator!=(const SlotInfo& other) const { return !(*this == other); }

DSPProcessChain::DSPProcessChain() = default;

DSPProcessChain::DSPProcessChain(const DSPProcessChain& other)
    : DSPProcess(other),
      numChannels_(other.numChannels_),
      sampleRate_(other.sampleRate_),
      slots_(other.slots_),
      latency_(other.latency_) {
  SizeWorkBuffers();
}

DSPProcessChain& DSPProcessChain::operator=(const DSPProcessChain& other) {
  if (this == &other) return *this;
  numChannels_ = other.numChannels_;
  sampleRate_ = other.sampleRate_;
  slots_ = other.slots_;
  latency_ = other.latency_;
  SizeWorkBuffers();
  return *this;
}

DSPProcessChain::~DSPProcessChain() = default;

void DSPProcessChain::SizeWorkBuffers() {
  const int channels = std::max(numChannels_, 0);
  if (channels > 0) {
    bufferA_.Init(static_cast<std::uint32_t>(channels), kMaxSubBlock);
    bufferB_.Init(static_cast<std::uint32_t>(channels), kMaxSubBlock);
  }
  inputs_.assign(static_cast<std::size_t>(channels), nullptr);
  outputs_.assign(static_cast<std::size_t>(channels), nullptr);
}

void DSPProcessChain::Add(int slot, const SlotInfo& info) {
  slots_.erase(slot);
  if (info.process) slots_.emplace(slot, info);
}

void DSPProcessChain::Remove(int slot) { slots_.erase(slot); }

bool DSPProcessChain::Get(int slot, SlotInfo& out) const {
  const auto it = slots_.find(slot);
  if (it == slots_.end()) return false;
  out = it->second;
  return true;
}

bool DSPProcessChain::SetSelection(std::int64_t start, std::int64_t length) {
  bool accepted = true;
  for (auto& entry : slots_) accepted = entry.second.process->SetSelection(start, length) && accepted;
  return accepted;
}

void DSPProcessChain::SetIOConfig(int numChannels, float sampleRate) {
  if (numChannels == numChannels_ && sampleRate == sampleRate_) return;
  numChannels_ = numChannels;
  sampleRate_ = sampleRate;
  SizeWorkBuffers();
  for (auto& entry : slots_) entry.second.process->SetIOConfig(numChannels, sampleRate);
}

void DSPProcessChain::Start() {
  for (auto& entry : slots_) entry.second.process->Start();
  latency_ = GetLatency();
}

void DSPProcessChain::Process(float** in, float** out, int numChannels, int numSamples) {
  if (slots_.empty() || numSamples < 1 || in == nullptr || out == nullptr) return;

  if (slots_.size() == 1) {
    const SlotInfo& only = slots_.begin()->second;
    if (only.enabled) {
      only.process->Process(in, out, numChannels_, numSamples);
    } else {
      const std::size_t count = static_cast<std::size_t>(numSamples);
      for (int ch = 0; ch < numChannels; ++ch) {
        if (out[ch] == nullptr || in[ch] == out[ch]) continue;
        if (in[ch] != nullptr)
          vu::Copy(count, in[ch], out[ch]);
        else
          vu::Zero(count, out[ch]);
      }
    }
    return;
  }

  // The slots always see the configured channel count; channels the host did
  // not pass are fed silence so no slot reads stale work-buffer content.
  const int configured = static_cast<int>(inputs_.size());
  const std::uint32_t needed = static_cast<std::uint32_t>(configured);
  int maxBlock = kMaxSubBlock;
  if (configured > 0) {
    // Work buffers that could not be allocated at configuration time leave
    // nothing safe to process into.
    if (bufferA_.GetNumChannels() < needed || bufferB_.GetNumChannels() < needed) return;
    maxBlock = static_cast<int>(
        std::min({static_cast<std::uint32_t>(kMaxSubBlock), bufferA_.GetBufferSize(), bufferB_.GetBufferSize()}));
    if (maxBlock < 1) return;
  }
  const int used = std::clamp(numChannels, 0, configured);
  float* const* bufA = bufferA_.GetFloatBuffers();
  float* const* bufB = bufferB_.GetFloatBuffers();
  float** inputs = inputs_.data();
  float** outputs = outputs_.data();

  int offset = 0;
  int remaining = numSamples;
  while (remaining > 0) {
    const int n = std::min(remaining, maxBlock);
    const std::size_t count = static_cast<std::size_t>(n);
    for (int ch = 0; ch < configured; ++ch) {
      if (ch < used && in[ch] != nullptr)
        vu::Copy(count, in[ch] + offset, bufA[ch]);
      else
        vu::Zero(count, bufA[ch]);
      inputs[ch] = bufA[ch];
      outputs[ch] = bufB[ch];
    }

    int processed = 0;
    for (auto& entry : slots_) {
      if (!entry.second.enabled) continue;
      entry.second.process->Process(inputs, outputs, numChannels_, n);
      ++processed;
      for (int ch = 0; ch < configured; ++ch) std::swap(inputs[ch], outputs[ch]);
    }

    float* const* result = (processed & 1) != 0 ? bufB : bufA;
    for (int ch = 0; ch < used; ++ch) {
      if (out[ch] != nullptr) vu::Copy(count, result[ch], out[ch] + offset);
    }
    offset += n;
    remaining -= n;
  }
}

void DSPProcessChain::Done() {
  for (auto& entry : slots_) entry.second.process->Done();
}

int DSPProcessChain::GetLatency() const {
  // Summed wide and saturated: a wrapped int would report a huge delay as a
  // negative one, and signed overflow is undefined besides.
  std::int64_t latency = 0;
  for (const auto& entry : slots_) {
    if (entry.second.enabled) latency += entry.second.process->GetLatency();
  }
  return static_cast<int>(
      std::clamp<std::int64_t>(latency, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

void DSPProcessChain::ParameterChanged() {
  for (auto& entry : slots_) entry.second.process->ParameterChanged();
}

}  // namespace dsp
