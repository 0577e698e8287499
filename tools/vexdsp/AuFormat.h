#pragma once

#include <sndfile.h>

#include <cstdint>
#include <string>
#include <vector>

#include "vexaudiodsp/aufile/AuFile.h"

namespace vexdsp {

// .au files go through the library's own AU classes (dsp::AuFileReader and
// dsp::AuFileWriter): 32-bit float samples, little-endian, behind a 24-byte
// header. sox and libsndfile read these files as little-endian float AU.

/// The libsndfile code that describes such a file ("AU (Sun/NeXT), 32 bit
/// float"), for listings.
constexpr int kAuFloatFormat = SF_FORMAT_AU | SF_FORMAT_FLOAT | SF_ENDIAN_LITTLE;

/// True for a path ending in ".au" (any case).
bool IsAuPath(const std::string& path);
/// True for the format ChooseOutputFormat gives a .au output.
inline bool IsAuFormat(int sfFormat) { return sfFormat == kAuFloatFormat; }

/// An .au file opened for reading as planar float. The frame count follows
/// from the file size (a trailing partial frame is ignored). Throws CliError
/// when the file cannot be opened or its header is refused.
class AuInput {
 public:
  explicit AuInput(const std::string& path);
  /// Whether the library's reader accepts the file's header (other AU
  /// flavours, big-endian or integer, are left to libsndfile).
  static bool CanRead(const std::string& path);

  int GetNumChannels() const { return static_cast<int>(reader_.GetNumChannels()); }
  int GetSampleRate() const { return static_cast<int>(reader_.GetSampleRate()); }
  std::int64_t GetNumFrames() const { return frames_; }

  /// Up to numFrames frames into one array per channel; the number read, 0
  /// at the end. Throws CliError when the file ends early.
  int Read(float* const* planar, int numFrames);
  /// Moves the next Read to `frame` (reopening and skipping when going
  /// back); false past the end.
  bool Seek(std::int64_t frame);

 private:
  void Open();

  std::string path_;
  dsp::AuFileReader reader_;
  std::int64_t frames_ = 0;
  std::int64_t position_ = 0;
  std::vector<float> skip_;
};

/// An .au file being written at `path` (AudioFileWriter gives it its
/// temporary file and renames it). Close() flushes and closes it; the
/// destructor closes it too. Throws CliError.
class AuOutput {
 public:
  AuOutput(const std::string& path, int numChannels, int sampleRate);
  AuOutput(const AuOutput&) = delete;
  AuOutput& operator=(const AuOutput&) = delete;

  void Write(const float* const* planar, int numFrames);
  void Close();

 private:
  std::string path_;
  int numChannels_;
  dsp::AuFileWriter writer_;
};

}  // namespace vexdsp
