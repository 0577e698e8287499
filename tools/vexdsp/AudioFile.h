#pragma once

#include <sndfile.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vexdsp {

/// Sample format asked for with --format; kKeep keeps the input's.
enum class SampleFormat { kKeep, kFloat, kPcm16, kPcm24 };

/// "WAV (Microsoft)" / "32 bit float" style names for a libsndfile format.
std::string DescribeContainer(int sfFormat);
std::string DescribeSampleFormat(int sfFormat);
/// Both, as "WAV (Microsoft), 32 bit float".
std::string DescribeFormat(int sfFormat);

/// The libsndfile format of an output file. The container follows the
/// output's extension (.wav, .flac, .aif, .aiff; a WAV input stays WAVEX or
/// WAV as it was); the sample format is `requested`, or the input's when
/// kKeep and the container can store it. An input sample format that cannot
/// be kept (compressed, or float into FLAC) becomes float, or 24-bit PCM in
/// FLAC, which has no float. Throws CliError for an unknown extension or an
/// impossible request. `note` receives a line when the sample format changed
/// without being asked.
int ChooseOutputFormat(const std::string& outputPath, int inputFormat, SampleFormat requested, int numChannels,
                       int sampleRate, std::string* note);

/// A sound file opened for reading, delivered as planar float in [-1, 1)
/// full scale. Throws CliError when the file cannot be opened or read.
class AudioFileReader {
 public:
  explicit AudioFileReader(const std::string& path);
  ~AudioFileReader();
  AudioFileReader(const AudioFileReader&) = delete;
  AudioFileReader& operator=(const AudioFileReader&) = delete;

  int GetNumChannels() const { return info_.channels; }
  int GetSampleRate() const { return info_.samplerate; }
  std::int64_t GetNumFrames() const { return info_.frames; }
  int GetFormat() const { return info_.format; }
  const std::string& GetPath() const { return path_; }
  /// The file's channel map (SF_CHANNEL_MAP_*), empty when it has none.
  std::vector<int> GetChannelMap() const;

  /// Reads up to numFrames frames into one array per channel; returns the
  /// number read, 0 at the end of the file.
  int Read(float* const* planar, int numFrames);
  /// Moves the next Read to `frame`; false when the file cannot seek there.
  bool Seek(std::int64_t frame);

 private:
  std::string path_;
  SF_INFO info_{};
  SNDFILE* file_ = nullptr;
  std::vector<float> interleaved_;
};

/// A sound file being written. Samples go to a hidden temporary file in the
/// output's folder, renamed to the final name by Commit(); if the writer is
/// destroyed uncommitted, or the program is interrupted (SIGINT, SIGTERM,
/// SIGHUP), the temporary file is removed, so a failed run never leaves a
/// partial file. Integer formats are written with clipping, which also makes
/// integer -> float -> integer round trips exact. Throws CliError.
class AudioFileWriter {
 public:
  AudioFileWriter(const std::string& path, int format, int numChannels, int sampleRate,
                  const std::vector<int>& channelMap = {});
  ~AudioFileWriter();
  AudioFileWriter(const AudioFileWriter&) = delete;
  AudioFileWriter& operator=(const AudioFileWriter&) = delete;

  void Write(const float* const* planar, int numFrames);
  void Commit();

 private:
  void Discard() noexcept;

  std::string path_;
  std::string tempPath_;
  int numChannels_;
  int fd_ = -1;
  SNDFILE* file_ = nullptr;
  bool committed_ = false;
  std::vector<float> interleaved_;
};

}  // namespace vexdsp
