#include "Render.h"

#include <algorithm>

#include "AudioFile.h"
#include "CliError.h"
#include "Levels.h"
#include "Progress.h"
#include "vexaccelerate/Utility.h"

namespace vexdsp {

int FileSource::Read(float* const* planar, int numFrames) { return reader_.Read(planar, numFrames); }

void FileSink::Write(const float* const* planar, int numFrames) { writer_.Write(planar, numFrames); }

int MemorySource::Read(float* const* planar, int numFrames) {
  const std::size_t available = audio_.empty() ? 0 : audio_[0].size() - position_;
  const std::size_t n = std::min(available, static_cast<std::size_t>(std::max(numFrames, 0)));
  for (std::size_t ch = 0; ch < audio_.size(); ++ch) {
    vexaccelerate::utility::Copy(n, audio_[ch].data() + position_, planar[ch]);
  }
  position_ += n;
  return static_cast<int>(n);
}

void MemorySink::Write(const float* const* planar, int numFrames) {
  for (std::size_t ch = 0; ch < audio_.size(); ++ch) {
    audio_[ch].insert(audio_[ch].end(), planar[ch], planar[ch] + numFrames);
  }
}

void MeteringSink::Write(const float* const* planar, int numFrames) {
  meter_.Add(planar, numFrames);
  if (next_ != nullptr) {
    next_->Write(planar, numFrames);
  }
}

std::unique_ptr<dsp::DSPProcessChain> BuildChain(const std::vector<EffectConfig>& effects, int numChannels,
                                                 double sampleRate) {
  for (const EffectConfig& effect : effects) {
    const std::string refusal = effect.definition->checkIO(numChannels, sampleRate);
    if (!refusal.empty()) {
      throw CliError("effect '" + effect.definition->name + "' " + refusal);
    }
  }
  auto chain = std::make_unique<dsp::DSPProcessChain>();
  int slot = 0;
  for (const EffectConfig& effect : effects) {
    chain->Add(slot++, dsp::SlotInfo(effect.definition->create(effect.params), true));
  }
  chain->SetIOConfig(numChannels, static_cast<float>(sampleRate));
  chain->Start();
  return chain;
}

std::string DescribeChain(const std::vector<EffectConfig>& effects) {
  std::string text;
  for (const EffectConfig& effect : effects) {
    text += (text.empty() ? "" : " -> ") + FormatEffectArgument(effect);
  }
  return text.empty() ? "(empty)" : text;
}

void RenderThroughChain(dsp::DSPProcessChain& chain, int numChannels, std::int64_t numFrames, FrameSource& source,
                        FrameSink& sink, Progress* progress) {
  const std::int64_t latency = std::max(chain.GetLatency(), 0);
  const std::int64_t totalIn = numFrames + latency;
  const auto channels = static_cast<std::size_t>(numChannels);

  std::vector<std::vector<float>> in(channels, std::vector<float>(kBlockFrames));
  std::vector<std::vector<float>> out(channels, std::vector<float>(kBlockFrames));
  std::vector<float*> inPointers(channels);
  std::vector<float*> outPointers(channels);
  std::vector<float*> inOffsetPointers(channels);
  std::vector<const float*> outOffsetPointers(channels);
  for (std::size_t ch = 0; ch < channels; ++ch) {
    inPointers[ch] = in[ch].data();
    outPointers[ch] = out[ch].data();
  }

  std::int64_t fed = 0;
  std::int64_t written = 0;
  while (fed < totalIn) {
    const int n = static_cast<int>(std::min<std::int64_t>(kBlockFrames, totalIn - fed));
    const int wanted = static_cast<int>(std::clamp<std::int64_t>(numFrames - fed, 0, n));
    int got = 0;
    while (got < wanted) {
      for (std::size_t ch = 0; ch < channels; ++ch) {
        inOffsetPointers[ch] = inPointers[ch] + got;
      }
      const int read = source.Read(inOffsetPointers.data(), wanted - got);
      if (read <= 0) {
        throw CliError("the input ended after " + std::to_string(fed + got) + " of " + std::to_string(numFrames) +
                       " frames");
      }
      got += read;
    }
    // The tail that flushes the chain's latency out is silence.
    for (std::size_t ch = 0; ch < channels; ++ch) {
      vexaccelerate::utility::Zero(static_cast<std::size_t>(n - got), inPointers[ch] + got);
    }

    chain.Process(inPointers.data(), outPointers.data(), numChannels, n);

    // Output frame k of the chain is input frame k - latency.
    const auto skip = static_cast<int>(std::clamp<std::int64_t>(latency - fed, 0, n));
    const auto keep = static_cast<int>(std::min<std::int64_t>(n - skip, numFrames - written));
    if (keep > 0) {
      for (std::size_t ch = 0; ch < channels; ++ch) {
        outOffsetPointers[ch] = outPointers[ch] + skip;
      }
      sink.Write(outOffsetPointers.data(), keep);
      written += keep;
    }
    fed += n;
    if (progress != nullptr) {
      progress->Update(std::min(fed, numFrames));
    }
  }
  if (progress != nullptr) {
    progress->Finish();
  }
}

}  // namespace vexdsp
