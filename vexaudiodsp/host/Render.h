#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DSPAnalyzer.h"
#include "vexaudiodsp/buffering/DSPProcessChain.h"
#include "vexaudiodsp/host/Effect.h"

// Offline rendering shared by every host that works on whole files or
// arrays (the command line, the Python module): a chain of effects with its
// latency compensated and its tail let out, analyzers driven by their
// protocol, and rate converters with their delay removed. These are
// configuration-level helpers: they allocate their block buffers once per
// run, and the per-block calls they make are the real-time ones.

namespace dsp {
namespace host {

/// Frames per block these helpers move.
inline constexpr int kRenderBlock = 4096;

/// Where audio comes from: planar float, one array per channel.
class VEXAUDIODSP_API FrameSource {
 public:
  virtual ~FrameSource();
  /// Fills up to numFrames frames of every channel; returns how many (0 at
  /// the end, fewer than asked only at the end), or -1 on a read error.
  virtual int Read(float* const* planar, int numFrames) = 0;
  /// Moves the next Read to `frame`. False when the source cannot (a stream
  /// that would have to go back); the default cannot.
  virtual bool Seek(std::int64_t frame);
};

/// Where audio goes. Write returns false on failure and the render stops.
class VEXAUDIODSP_API FrameSink {
 public:
  virtual ~FrameSink();
  virtual bool Write(const float* const* planar, int numFrames) = 0;
};

/// Called with the number of input frames consumed so far.
using ProgressCallback = std::function<void(std::int64_t framesDone)>;

/// Effects run in series in a dsp::DSPProcessChain, built from their text
/// forms and checked against a configuration before any audio moves.
class VEXAUDIODSP_API EffectChain {
 public:
  EffectChain();
  ~EffectChain();
  EffectChain(const EffectChain&) = delete;
  EffectChain& operator=(const EffectChain&) = delete;

  /// Appends an effect (CreateEffect); false with the reason on failure.
  bool Add(const std::string& text, std::string* error);
  void Add(std::unique_ptr<Effect> effect);
  /// Checks every effect's CheckIO, then configures and starts the chain.
  /// False with "effect 'name' <reason>" when one refuses.
  bool Prepare(int numChannels, double sampleRate, std::string* error);

  int GetNumEffects() const { return static_cast<int>(effects_.size()); }
  Effect& GetEffect(int index) { return *effects_[static_cast<std::size_t>(index)]; }
  /// Sum of the effects' latencies and tails (valid after Prepare).
  std::int64_t GetLatency() const;
  std::int64_t GetTailFrames() const;
  /// "gain:db=-6 -> delay:ms=10", "(empty)" for no effects.
  std::string Describe() const;
  DSPProcessChain& GetChain() { return chain_; }

 private:
  std::vector<std::shared_ptr<Effect>> effects_;
  DSPProcessChain chain_;
  int numChannels_ = 0;
};

/// Streams `source` through a started process until the source ends, then
/// feeds silence for its latency plus `tailFrames`. The process's latency L
/// is compensated (the first L output frames are dropped), so the sink gets
/// the input's length plus tailFrames, lined up with the input. The input
/// length need not be known in advance. Returns the frames written, or -1
/// when the source or the sink failed.
VEXAUDIODSP_API std::int64_t RenderProcess(DSPProcess& process, int numChannels, FrameSource& source, FrameSink& sink,
                                           std::int64_t tailFrames, const ProgressCallback& progress = {});

/// Runs an analyzer over [start, start + length) of `source` by the analyzer
/// protocol: SetIOConfig, SetSelection, Start(result), then blocks of
/// GetDesiredBlockSize() frames read from the position the analyzer expects
/// (seeking when it skips or, between passes of a DSPMultiPassAnalyzer,
/// rewinds), until IsCompleted(), then Done(). Past the end of the source it
/// is fed silence. A length below 0 means "to the end of the source" for
/// sources of unknown length: the run then ends when the source does.
/// Returns false with the reason when the analyzer refuses the selection,
/// the source cannot seek where it must, or a read fails.
VEXAUDIODSP_API bool RunAnalyzer(DSPAnalyzer& analyzer, FrameSource& source, int numChannels, double sampleRate,
                                 std::int64_t start, std::int64_t length, float* result, std::string* error,
                                 const ProgressCallback& progress = {});

/// A stream converter whose output runs at a different rate than its input
/// (a sample-rate converter). It is configured before rendering.
class VEXAUDIODSP_API RateConverter {
 public:
  virtual ~RateConverter();
  /// Output rate over input rate.
  virtual double GetRatio() const = 0;
  /// Delay of the output against the input, in output frames.
  virtual std::int64_t GetOutputLatency() const = 0;
  /// The most output frames numInput input frames can produce.
  virtual int GetMaxOutput(int numInput) const = 0;
  /// Converts numInput frames of every channel; writes the output frames
  /// produced and returns their count. Never allocates.
  virtual int Process(const float* const* in, int numInput, float* const* out) = 0;
};

/// Streams `source` through a configured converter, feeding silence after
/// the input until the delayed end has come out. The converter's latency is
/// removed and the output has exactly round(input frames x ratio) frames.
/// Returns the frames written, or -1 when the source or the sink failed.
VEXAUDIODSP_API std::int64_t RenderRateChange(RateConverter& converter, int numChannels, FrameSource& source,
                                              FrameSink& sink, const ProgressCallback& progress = {});

/// Planar audio in memory as a source (Seek works) and as a sink.
class VEXAUDIODSP_API MemorySource final : public FrameSource {
 public:
  /// channels[c] points at `frames` samples; they must outlive the source.
  MemorySource(std::vector<const float*> channels, std::int64_t frames);
  int Read(float* const* planar, int numFrames) override;
  bool Seek(std::int64_t frame) override;

 private:
  std::vector<const float*> channels_;
  std::int64_t frames_;
  std::int64_t position_ = 0;
};

class VEXAUDIODSP_API MemorySink final : public FrameSink {
 public:
  explicit MemorySink(int numChannels);
  bool Write(const float* const* planar, int numFrames) override;
  const std::vector<std::vector<float>>& GetAudio() const { return audio_; }
  std::vector<std::vector<float>>& GetAudio() { return audio_; }

 private:
  std::vector<std::vector<float>> audio_;
};

}  // namespace host
}  // namespace dsp
