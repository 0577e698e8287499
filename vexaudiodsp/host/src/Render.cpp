#include "vexaudiodsp/host/Render.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace dsp {
namespace host {

FrameSource::~FrameSource() = default;
bool FrameSource::Seek(std::int64_t /*frame*/) { return false; }
FrameSink::~FrameSink() = default;
RateConverter::~RateConverter() = default;

namespace {

// Planar block storage for one render run, with pointer tables that can be
// offset into the block.
class Block {
 public:
  Block(int numChannels, int numFrames)
      : data_(static_cast<std::size_t>(numChannels), std::vector<float>(static_cast<std::size_t>(numFrames))),
        pointers_(static_cast<std::size_t>(numChannels)),
        offsetPointers_(static_cast<std::size_t>(numChannels)) {
    for (std::size_t ch = 0; ch < data_.size(); ++ch) {
      pointers_[ch] = data_[ch].data();
    }
  }
  float** Pointers() { return pointers_.data(); }
  float* const* At(int offset) {
    for (std::size_t ch = 0; ch < data_.size(); ++ch) {
      offsetPointers_[ch] = pointers_[ch] + offset;
    }
    return offsetPointers_.data();
  }
  void Zero(int from, int to) {
    for (float* channel : pointers_) {
      vexaccelerate::utility::Zero(static_cast<std::size_t>(std::max(to - from, 0)), channel + from);
    }
  }

 private:
  std::vector<std::vector<float>> data_;
  std::vector<float*> pointers_;
  std::vector<float*> offsetPointers_;
};

// Reads until `wanted` frames are in or the source ends; -1 on error.
int ReadFully(FrameSource& source, Block& block, int wanted) {
  int got = 0;
  while (got < wanted) {
    const int read = source.Read(block.At(got), wanted - got);
    if (read < 0) {
      return -1;
    }
    if (read == 0) {
      break;
    }
    got += read;
  }
  return got;
}

}  // namespace

EffectChain::EffectChain() = default;
EffectChain::~EffectChain() = default;

bool EffectChain::Add(const std::string& text, std::string* error) {
  std::unique_ptr<Effect> effect = CreateEffect(text, error);
  if (effect == nullptr) {
    return false;
  }
  Add(std::move(effect));
  return true;
}

void EffectChain::Add(std::unique_ptr<Effect> effect) {
  std::shared_ptr<Effect> shared(std::move(effect));
  chain_.Add(static_cast<int>(effects_.size()), SlotInfo(shared, true));
  effects_.push_back(std::move(shared));
}

bool EffectChain::Prepare(int numChannels, double sampleRate, std::string* error) {
  for (const auto& effect : effects_) {
    const std::string refusal = effect->CheckIO(numChannels, sampleRate);
    if (!refusal.empty()) {
      if (error != nullptr) {
        *error = "effect '" + effect->GetInfo().name + "' " + refusal;
      }
      return false;
    }
  }
  // A chain configured before with the same layout would not pass the
  // configuration on, so every effect is configured directly.
  for (const auto& effect : effects_) {
    effect->SetIOConfig(numChannels, static_cast<float>(sampleRate));
  }
  chain_.SetIOConfig(numChannels, static_cast<float>(sampleRate));
  chain_.Start();
  numChannels_ = numChannels;
  return true;
}

std::int64_t EffectChain::GetLatency() const {
  std::int64_t total = 0;
  for (const auto& effect : effects_) {
    total += effect->GetLatency();
  }
  return total;
}

std::int64_t EffectChain::GetTailFrames() const {
  std::int64_t total = 0;
  for (const auto& effect : effects_) {
    total += effect->GetTailFrames();
  }
  return total;
}

std::string EffectChain::Describe() const {
  std::string text;
  for (const auto& effect : effects_) {
    text += (text.empty() ? "" : " -> ") + FormatEffect(*effect);
  }
  return text.empty() ? "(empty)" : text;
}

std::int64_t RenderProcess(DSPProcess& process, int numChannels, FrameSource& source, FrameSink& sink,
                           std::int64_t tailFrames, const ProgressCallback& progress) {
  if (numChannels < 1) {
    return 0;
  }
  const std::int64_t latency = std::max(process.GetLatency(), 0);
  tailFrames = std::max<std::int64_t>(tailFrames, 0);
  Block in(numChannels, kRenderBlock);
  Block out(numChannels, kRenderBlock);

  // Output frame k of the process is input frame k - latency. Once the
  // source ends at frame `length`, silence is fed until frame
  // length + tail has come out.
  std::int64_t fed = 0;
  std::int64_t written = 0;
  std::int64_t length = -1;
  while (length < 0 || written < length + tailFrames) {
    int got = kRenderBlock;
    if (length < 0) {
      got = ReadFully(source, in, kRenderBlock);
      if (got < 0) {
        return -1;
      }
      if (got < kRenderBlock) {
        length = fed + got;
      }
    } else {
      got = 0;
    }
    in.Zero(got, kRenderBlock);
    const std::int64_t end = length < 0 ? std::numeric_limits<std::int64_t>::max() : length + tailFrames + latency;
    const int n = static_cast<int>(std::min<std::int64_t>(kRenderBlock, end - fed));
    if (n <= 0) {
      break;
    }
    process.Process(in.Pointers(), out.Pointers(), numChannels, n);
    const int skip = static_cast<int>(std::clamp<std::int64_t>(latency - fed, 0, n));
    int keep = n - skip;
    if (length >= 0) {
      keep = static_cast<int>(std::min<std::int64_t>(keep, length + tailFrames - written));
    }
    if (keep > 0) {
      if (!sink.Write(out.At(skip), keep)) {
        return -1;
      }
      written += keep;
    }
    fed += n;
    if (progress) {
      progress(length < 0 ? fed : std::min(fed, length));
    }
  }
  return written;
}

bool RunAnalyzer(DSPAnalyzer& analyzer, FrameSource& source, int numChannels, double sampleRate, std::int64_t start,
                 std::int64_t length, float* result, std::string* error, const ProgressCallback& progress) {
  auto fail = [&](const std::string& why) {
    if (error != nullptr) {
      *error = why;
    }
    return false;
  };
  const bool toEnd = length < 0;
  // A selection "to the end" of a stream of unknown length is declared as
  // far longer than any programme; the run then ends with the source.
  const std::int64_t declared = toEnd ? std::numeric_limits<std::int64_t>::max() / 4 : length;
  analyzer.SetIOConfig(numChannels, static_cast<float>(sampleRate));
  if (!analyzer.SetSelection(start, declared)) {
    return fail("the analysis refused the selection");
  }
  analyzer.Start(result);
  if (!source.Seek(start)) {
    // A stream can still be read from its start by skipping forward.
    if (start != 0) {
      return fail("the input cannot be read from frame " + std::to_string(start));
    }
  }

  auto* multiPass = dynamic_cast<DSPMultiPassAnalyzer*>(&analyzer);
  int pass = multiPass != nullptr ? multiPass->GetCurrentPass() : 0;
  std::int64_t position = start;
  std::int64_t sourcePosition = start;
  bool sourceEnded = false;
  Block block(numChannels, 1);
  int blockFrames = 1;
  int stalled = 0;
  while (!analyzer.IsCompleted()) {
    if (multiPass != nullptr && multiPass->GetCurrentPass() != pass) {
      pass = multiPass->GetCurrentPass();
      position = start;
    }
    if (position != sourcePosition) {
      if (!source.Seek(position)) {
        return fail("the input cannot be read again from frame " + std::to_string(position) +
                    " (an analysis of several passes needs a file, not a stream)");
      }
      sourcePosition = position;
      sourceEnded = false;
    }
    const int wanted = std::max(analyzer.GetDesiredBlockSize(), 1);
    if (wanted > blockFrames) {
      block = Block(numChannels, wanted);
      blockFrames = wanted;
    }
    int got = sourceEnded ? 0 : ReadFully(source, block, wanted);
    if (got < 0) {
      return fail("reading the input failed");
    }
    if (got < wanted) {
      sourceEnded = true;
      if (toEnd && got == 0) {
        break;
      }
    }
    block.Zero(got, wanted);
    sourcePosition += got;
    const std::int64_t advance = analyzer.Analyze(block.Pointers(), numChannels, toEnd ? std::max(got, 1) : wanted);
    position += advance;
    // An analyzer that keeps asking for the same frames would never end.
    stalled = advance == 0 ? stalled + 1 : 0;
    if (stalled > 1000) {
      return fail("the analysis stopped advancing at frame " + std::to_string(position));
    }
    if (progress) {
      progress(position - start);
    }
    if (toEnd && sourceEnded) {
      break;
    }
  }
  analyzer.Done();
  return true;
}

std::int64_t RenderRateChange(RateConverter& converter, int numChannels, FrameSource& source, FrameSink& sink,
                              const ProgressCallback& progress) {
  if (numChannels < 1) {
    return 0;
  }
  const double ratio = converter.GetRatio();
  const std::int64_t latency = std::max<std::int64_t>(converter.GetOutputLatency(), 0);
  Block in(numChannels, kRenderBlock);
  Block out(numChannels, std::max(converter.GetMaxOutput(kRenderBlock), 1));

  std::int64_t consumed = 0;
  std::int64_t produced = 0;
  std::int64_t written = 0;
  std::int64_t length = -1;
  std::int64_t wantedOut = std::numeric_limits<std::int64_t>::max();
  while (written < wantedOut) {
    int got = 0;
    if (length < 0) {
      got = ReadFully(source, in, kRenderBlock);
      if (got < 0) {
        return -1;
      }
      if (got < kRenderBlock) {
        length = consumed + got;
        wantedOut = std::llround(static_cast<double>(length) * ratio);
      }
    }
    in.Zero(got, kRenderBlock);
    const int made = converter.Process(in.Pointers(), kRenderBlock, out.Pointers());
    consumed += kRenderBlock;
    const int skip = static_cast<int>(std::clamp<std::int64_t>(latency - produced, 0, made));
    const int keep = static_cast<int>(std::min<std::int64_t>(made - skip, wantedOut - written));
    if (keep > 0) {
      if (!sink.Write(out.At(skip), keep)) {
        return -1;
      }
      written += keep;
    }
    produced += made;
    if (progress) {
      progress(length < 0 ? consumed : std::min(consumed, length));
    }
    // A converter that stopped producing would otherwise spin on silence;
    // the caller sees the short count.
    if (length >= 0 && static_cast<double>(consumed - length) > latency / ratio + 4.0 * kRenderBlock) {
      break;
    }
  }
  return written;
}

MemorySource::MemorySource(std::vector<const float*> channels, std::int64_t frames)
    : channels_(std::move(channels)), frames_(std::max<std::int64_t>(frames, 0)) {}

int MemorySource::Read(float* const* planar, int numFrames) {
  const auto n = static_cast<int>(std::clamp<std::int64_t>(frames_ - position_, 0, std::max(numFrames, 0)));
  for (std::size_t ch = 0; ch < channels_.size(); ++ch) {
    vexaccelerate::utility::Copy(static_cast<std::size_t>(n), channels_[ch] + position_, planar[ch]);
  }
  position_ += n;
  return n;
}

bool MemorySource::Seek(std::int64_t frame) {
  if (frame < 0 || frame > frames_) {
    return false;
  }
  position_ = frame;
  return true;
}

MemorySink::MemorySink(int numChannels) : audio_(static_cast<std::size_t>(std::max(numChannels, 0))) {}

bool MemorySink::Write(const float* const* planar, int numFrames) {
  for (std::size_t ch = 0; ch < audio_.size(); ++ch) {
    audio_[ch].insert(audio_[ch].end(), planar[ch], planar[ch] + numFrames);
  }
  return true;
}

}  // namespace host
}  // namespace dsp
