#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "EffectRegistry.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"

namespace vexdsp {

class AudioFileReader;
class AudioFileWriter;
class LevelMeter;
class Progress;

/// Frames the command line streams through a chain, per block.
inline constexpr int kBlockFrames = 4096;

/// Where rendering takes its input: fills up to numFrames frames of every
/// channel and returns how many it filled (fewer only at its end).
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  virtual int Read(float* const* planar, int numFrames) = 0;
};

/// Where rendering puts its output.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  virtual void Write(const float* const* planar, int numFrames) = 0;
};

class FileSource final : public FrameSource {
 public:
  explicit FileSource(AudioFileReader& reader) : reader_(reader) {}
  int Read(float* const* planar, int numFrames) override;

 private:
  AudioFileReader& reader_;
};

class FileSink final : public FrameSink {
 public:
  explicit FileSink(AudioFileWriter& writer) : writer_(writer) {}
  void Write(const float* const* planar, int numFrames) override;

 private:
  AudioFileWriter& writer_;
};

/// Planar audio held in memory, one vector per channel.
using PlanarAudio = std::vector<std::vector<float>>;

class MemorySource final : public FrameSource {
 public:
  explicit MemorySource(const PlanarAudio& audio) : audio_(audio) {}
  int Read(float* const* planar, int numFrames) override;

 private:
  const PlanarAudio& audio_;
  std::size_t position_ = 0;
};

class MemorySink final : public FrameSink {
 public:
  explicit MemorySink(PlanarAudio& audio) : audio_(audio) {}
  void Write(const float* const* planar, int numFrames) override;

 private:
  PlanarAudio& audio_;
};

/// Passes frames on to another sink (if any) and measures them on the way.
class MeteringSink final : public FrameSink {
 public:
  MeteringSink(LevelMeter& meter, FrameSink* next) : meter_(meter), next_(next) {}
  void Write(const float* const* planar, int numFrames) override;

 private:
  LevelMeter& meter_;
  FrameSink* next_;
};

/// Checks that every effect can take this stream, then puts them in a chain
/// (slots 0, 1, 2, ... in order), configures and starts it. Throws CliError
/// naming the first effect that refuses the stream.
std::unique_ptr<dsp::DSPProcessChain> BuildChain(const std::vector<EffectConfig>& effects, int numChannels,
                                                 double sampleRate);

/// "gain:db=-6 -> delay:ms=10".
std::string DescribeChain(const std::vector<EffectConfig>& effects);

/// Streams numFrames frames from source through a started chain into sink in
/// blocks of kBlockFrames. The chain's latency L (GetLatency after Start) is
/// compensated: L frames of silence follow the input and the first L output
/// frames are dropped, so the sink receives exactly numFrames frames lined
/// up with the input. Throws CliError when the source ends early.
void RenderThroughChain(dsp::DSPProcessChain& chain, int numChannels, std::int64_t numFrames, FrameSource& source,
                        FrameSink& sink, Progress* progress);

}  // namespace vexdsp
