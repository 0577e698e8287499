#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AudioFile.h"
#include "Levels.h"
#include "vexaudiodsp/host/Render.h"

namespace vexdsp {

/// A sound file as a frame source for the library's renderers. Read errors
/// are kept and rethrown by Check(), so no exception passes through the
/// library.
class FileSource final : public dsp::host::FrameSource {
 public:
  /// With `silenceNonFinite`, NaN and infinite samples are handed on as 0
  /// and counted: what a meter or converter must do so that one bad sample
  /// does not spoil the whole measurement. A frame read again (analyses
  /// step back over overlapping blocks) is silenced again but counted once.
  explicit FileSource(AudioFileReader& reader, bool silenceNonFinite = false)
      : reader_(reader), silenceNonFinite_(silenceNonFinite) {}
  int Read(float* const* planar, int numFrames) override;
  bool Seek(std::int64_t frame) override;
  /// Throws the kept read error, if any.
  void Check() const;
  std::int64_t GetFramesRead() const { return framesRead_; }
  /// Prints one warning line on stderr when samples were taken as silence.
  void WarnSilenced() const;

 private:
  AudioFileReader& reader_;
  bool silenceNonFinite_;
  std::int64_t silenced_ = 0;
  // Frames below this position have been counted.
  std::int64_t countedTo_ = 0;
  std::vector<float*> unseen_;
  std::string error_;
  std::int64_t framesRead_ = 0;
  std::int64_t position_ = 0;
};

/// A sound file being written, optionally metered on the way.
class FileSink final : public dsp::host::FrameSink {
 public:
  explicit FileSink(AudioFileWriter& writer, LevelMeter* meter = nullptr) : writer_(writer), meter_(meter) {}
  bool Write(const float* const* planar, int numFrames) override;
  void Check() const;

 private:
  AudioFileWriter& writer_;
  LevelMeter* meter_;
  std::string error_;
};

/// One slot of the background reader's and writer's rings: a block of
/// planar audio of a fixed capacity, allocated once.
struct PlanarSlot {
  static constexpr int kFrames = 65536;
  explicit PlanarSlot(int numChannels)
      : samples(static_cast<std::size_t>(kFrames) * static_cast<std::size_t>(numChannels)) {}
  float* Channel(int ch) { return samples.data() + static_cast<std::size_t>(ch) * kFrames; }
  const float* Channel(int ch) const { return samples.data() + static_cast<std::size_t>(ch) * kFrames; }
  std::vector<float> samples;
  int numFrames = 0;
};

/// Reads a FileSource ahead on a thread of its own, so that decoding and
/// the kernel's copy from the file overlap the processing of the blocks
/// before. The source is read in large slots of a small ring, allocated
/// once. Read hands out what the next slot holds (fewer frames than asked
/// at a slot's end), then 0 at the end of the source, or -1 after a read
/// error (kept by the FileSource for its Check()). No seeking. The source
/// should end (a file, not a pipe that may stay open) or be read to its end:
/// the destructor waits for the read under way. One consumer thread.
class BackgroundFileSource final : public dsp::host::FrameSource {
 public:
  BackgroundFileSource(FileSource& source, int numChannels);
  ~BackgroundFileSource() override;
  BackgroundFileSource(const BackgroundFileSource&) = delete;
  BackgroundFileSource& operator=(const BackgroundFileSource&) = delete;
  int Read(float* const* planar, int numFrames) override;

 private:
  void Run();

  FileSource& source_;
  int numChannels_;
  // A slot's numFrames 0 means the source ended, -1 that it failed.
  std::vector<PlanarSlot> slots_;
  std::size_t first_ = 0;  // oldest queued slot
  std::size_t queued_ = 0;
  int position_ = 0;  // frames of the oldest slot handed out
  bool stopping_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

/// A FileSink whose writes run on a thread of their own, so that encoding
/// and the kernel's copy into the file overlap the processing of the next
/// blocks. Blocks are gathered into large slots (few hand-overs) of a small
/// ring, allocated once; Write waits only while every slot is queued, and
/// returns false once a write has failed. Call Finish() (the destructor does
/// too) before FileSink::Check() and before committing the file: it hands
/// over the last partial slot and waits until everything is written. One
/// producer thread.
class BackgroundFileSink final : public dsp::host::FrameSink {
 public:
  BackgroundFileSink(FileSink& sink, int numChannels);
  ~BackgroundFileSink() override;
  BackgroundFileSink(const BackgroundFileSink&) = delete;
  BackgroundFileSink& operator=(const BackgroundFileSink&) = delete;
  bool Write(const float* const* planar, int numFrames) override;
  void Finish();

 private:
  void Hand();
  void Run();

  FileSink& sink_;
  int numChannels_;
  std::vector<PlanarSlot> slots_;
  PlanarSlot* filling_ = nullptr;  // owned by the producer while not queued
  std::size_t next_ = 0;           // slot the producer takes next
  std::size_t queued_ = 0;
  bool finishing_ = false;
  bool failed_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

/// Replaces NaN and infinite samples by 0; returns how many there were.
std::int64_t SilenceNonFinite(float* const* planar, int numChannels, int numFrames);
/// "vexdsp: warning: N non-finite input samples ... taken as silence" on
/// stderr, when count > 0.
void WarnSilencedNonFinite(std::int64_t count);

/// Builds a chain from effect texts (`name:key=value,...`); UsageError for
/// an unknown effect or key or a refused value.
std::unique_ptr<dsp::host::EffectChain> ParseEffectChain(const std::vector<std::string>& texts);

/// The frames a `--tail` value asks for: "" or "0" none, "auto" the chain's
/// declared tail, otherwise seconds (decimal, 0 to 3600). UsageError when it
/// does not parse.
std::int64_t ParseTail(const std::string& text, const dsp::host::EffectChain& chain, double sampleRate);

/// "WAV (Microsoft), 32 bit float, 2 ch, 48000 Hz, 96000 frames".
std::string DescribeStream(int format, int numChannels, int sampleRate, std::int64_t frames);

}  // namespace vexdsp
