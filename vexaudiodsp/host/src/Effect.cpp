#include "vexaudiodsp/host/Effect.h"

#include <algorithm>
#include <cmath>
#include <fstream>

#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"

namespace dsp {
namespace host {

std::string IORule::Check(int numChannels, double sampleRate) const {
  if (numChannels < minChannels || numChannels > maxChannels) {
    return "cannot take " + std::to_string(numChannels) + (numChannels == 1 ? " channel" : " channels") +
           " (it takes " + Describe() + ")";
  }
  if (!(sampleRate >= minSampleRate && sampleRate <= maxSampleRate)) {
    return "cannot take a sample rate of " + FormatNumber(sampleRate) + " Hz (it takes " + Describe() + ")";
  }
  return {};
}

std::string IORule::Describe() const {
  const std::string channels = minChannels == maxChannels
                                   ? std::to_string(minChannels) + (minChannels == 1 ? " channel" : " channels")
                                   : std::to_string(minChannels) + " to " + std::to_string(maxChannels) + " channels";
  return channels + " at " + FormatNumber(minSampleRate) + " to " + FormatNumber(maxSampleRate) + " Hz";
}

int EffectInfo::FindParam(const std::string& id) const {
  for (std::size_t i = 0; i < params.size(); ++i) {
    if (params[i].id == id) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

Effect::Effect(const EffectInfo& info) : info_(info), values_(info.params.size()), paths_(info.params.size()) {
  ResetParameters();
}

Effect::~Effect() = default;

const ParamDescriptor& Effect::GetParam(int index) const { return info_.params[static_cast<std::size_t>(index)]; }

double Effect::GetValue(int index) const {
  if (index < 0 || index >= GetNumParams()) {
    return 0.0;
  }
  return values_[static_cast<std::size_t>(index)];
}

bool Effect::SetValue(int index, double value) {
  if (index < 0 || index >= GetNumParams() || !GetParam(index).Check(value).empty()) {
    return false;
  }
  values_[static_cast<std::size_t>(index)] = value;
  dirty_ = true;
  return true;
}

const std::string& Effect::GetPath(int index) const {
  static const std::string kNone;
  if (index < 0 || index >= GetNumParams()) {
    return kNone;
  }
  return paths_[static_cast<std::size_t>(index)];
}

bool Effect::SetPath(int index, const std::string& path, std::string* error) {
  if (index < 0 || index >= GetNumParams() || GetParam(index).kind != ParamKind::kPath) {
    if (error != nullptr) {
      *error = "parameter " + std::to_string(index) + " of '" + info_.name + "' is not a file path";
    }
    return false;
  }
  if (!path.empty() && !LoadPath(index, path, error)) {
    return false;
  }
  paths_[static_cast<std::size_t>(index)] = path;
  dirty_ = true;
  return true;
}

bool Effect::SetText(int index, const std::string& text, std::string* error) {
  if (index < 0 || index >= GetNumParams()) {
    if (error != nullptr) {
      *error = "effect '" + info_.name + "' has no parameter " + std::to_string(index);
    }
    return false;
  }
  const ParamDescriptor& param = GetParam(index);
  if (param.kind == ParamKind::kPath) {
    return SetPath(index, text, error);
  }
  double value = 0.0;
  if (!param.Parse(text, &value, error)) {
    return false;
  }
  return SetValue(index, value);
}

std::string Effect::GetText(int index) const {
  if (index < 0 || index >= GetNumParams()) {
    return {};
  }
  const ParamDescriptor& param = GetParam(index);
  return param.kind == ParamKind::kPath ? GetPath(index) : param.Format(GetValue(index));
}

void Effect::ResetParameters() {
  for (int i = 0; i < GetNumParams(); ++i) {
    values_[static_cast<std::size_t>(i)] = GetParam(i).defaultValue;
    paths_[static_cast<std::size_t>(i)].clear();
  }
  dirty_ = true;
}

std::string Effect::CheckIO(int numChannels, double sampleRate) const {
  return info_.io.Check(numChannels, sampleRate);
}

std::int64_t Effect::GetTailFrames() const { return 0; }

bool Effect::GetTransferFunction(const double* /*frequenciesHz*/, int /*count*/,
                                 std::complex<double>* /*response*/) const {
  return false;
}

void Effect::SetIOConfig(int numChannels, float sampleRate) {
  numChannels_ = std::max(numChannels, 0);
  sampleRate_ = sampleRate;
  started_ = false;
}

void Effect::Start() {
  started_ = false;
  if (numChannels_ < 1 || !CheckIO(numChannels_, sampleRate_).empty()) {
    return;
  }
  inChunk_.assign(static_cast<std::size_t>(numChannels_), nullptr);
  outChunk_.assign(static_cast<std::size_t>(numChannels_), nullptr);
  silence_.assign(static_cast<std::size_t>(kMaxBlock), 0.0f);
  clean_.assign(static_cast<std::size_t>(kMaxBlock) * static_cast<std::size_t>(numChannels_), 0.0f);
  Configure();
  ApplyParameters();
  dirty_ = false;
  Reset();
  tailLeft_ = static_cast<std::int64_t>(GetLatency()) + GetTailFrames();
  started_ = true;
}

void Effect::Process(float** in, float** out, int numChannels, int numSamples) {
  const int channels = std::min(numChannels, numChannels_);
  if (numSamples < 1 || channels < 1) {
    return;
  }
  if (!started_) {
    for (int ch = 0; ch < channels; ++ch) {
      vexaccelerate::utility::Zero(static_cast<std::size_t>(numSamples), out[ch]);
    }
    return;
  }
  vexaccelerate::utility::ScopedFlushDenormals flush;
  if (dirty_) {
    ApplyParameters();
    dirty_ = false;
  }
  for (int offset = 0; offset < numSamples; offset += kMaxBlock) {
    const int n = std::min(kMaxBlock, numSamples - offset);
    for (int ch = 0; ch < channels; ++ch) {
      inChunk_[static_cast<std::size_t>(ch)] = Sanitized(in[ch] + offset, ch, n);
      outChunk_[static_cast<std::size_t>(ch)] = out[ch] + offset;
    }
    ProcessBlock(inChunk_.data(), outChunk_.data(), channels, n);
  }
  tailLeft_ = static_cast<std::int64_t>(GetLatency()) + GetTailFrames();
}

int Effect::Flush(float** out, int numChannels, int numSamples) {
  const int channels = std::min(numChannels, numChannels_);
  if (!started_ || channels < 1 || numSamples < 1 || tailLeft_ <= 0) {
    return 0;
  }
  vexaccelerate::utility::ScopedFlushDenormals flush;
  if (dirty_) {
    ApplyParameters();
    dirty_ = false;
  }
  const int total = static_cast<int>(std::min<std::int64_t>(numSamples, tailLeft_));
  for (int offset = 0; offset < total; offset += kMaxBlock) {
    const int n = std::min(kMaxBlock, total - offset);
    for (int ch = 0; ch < channels; ++ch) {
      inChunk_[static_cast<std::size_t>(ch)] = silence_.data();
      outChunk_[static_cast<std::size_t>(ch)] = out[ch] + offset;
    }
    ProcessBlock(inChunk_.data(), outChunk_.data(), channels, n);
  }
  tailLeft_ -= total;
  return total;
}

float* Effect::Sanitized(float* in, int channel, int numFrames) {
  const auto n = static_cast<std::size_t>(numFrames);
  // Float samples summed in double cannot overflow, so a non-finite sum
  // means a non-finite sample.
  if (std::isfinite(vexaccelerate::utility::Sum(n, in))) {
    return in;
  }
  float* clean = clean_.data() + static_cast<std::size_t>(channel) * static_cast<std::size_t>(kMaxBlock);
  for (std::size_t i = 0; i < n; ++i) {
    clean[i] = std::isfinite(in[i]) ? in[i] : 0.0f;
  }
  return clean;
}

void Effect::Done() { tailLeft_ = 0; }

void Effect::ParameterChanged() { dirty_ = true; }

bool Effect::LoadPath(int index, const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    if (error != nullptr) {
      *error = "cannot read '" + path + "' for " + info_.name + ":" + GetParam(index).id;
    }
    return false;
  }
  return true;
}

}  // namespace host
}  // namespace dsp
