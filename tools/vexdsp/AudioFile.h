#pragma once

#include <sndfile.h>

#include <cstdint>
#include <memory>
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

/// Word length of an integer sample format (8, 16, 24 or 32), 0 for float,
/// double and compressed formats.
int GetIntegerBits(int sfFormat);

/// The most frames a file of this format can hold with `numChannels`
/// channels, or -1 when the container sets no practical limit. Plain WAV and
/// WAVEX count their data in a 32-bit RIFF size, AIFF in a signed 32-bit
/// chunk size, FLAC its frames in 36 bits; RF64, W64 and the rest are 64-bit.
std::int64_t GetMaxFrames(int sfFormat, int numChannels);

/// The libsndfile format of an output file. The container follows the
/// output's extension (.wav, .w64, .rf64, .flac, .aif, .aiff); a .wav output
/// keeps a WAVEX, RF64 or W64 input in its container. The sample format is
/// `requested`, or the input's when kKeep and the container can store it. An
/// input sample format that cannot be kept (compressed, or float into FLAC)
/// becomes float, or 24-bit PCM in FLAC, which has no float.
///
/// `expectedFrames` is the length to be written, negative when unknown (a
/// stream). A .wav output whose data would not fit a plain WAV, or whose
/// length is unknown, is written as RF64; AudioFileWriter then lets
/// libsndfile fall back to a plain WAV on closing when the data fits after
/// all. Any other container that cannot hold a known length is refused here,
/// before anything is written.
///
/// Throws CliError for an unknown extension, an impossible request or a
/// length the container cannot hold. `note` receives a line when the sample
/// format changed without being asked.
int ChooseOutputFormat(const std::string& outputPath, int inputFormat, SampleFormat requested, int numChannels,
                       int sampleRate, std::string* note, std::int64_t expectedFrames = -1);

/// A sound file opened for reading, delivered as planar float in [-1, 1)
/// full scale. The path "-" reads a stream from standard input. A stream (or
/// any input that cannot seek) has an unknown length until it ends:
/// GetNumFrames() is then -1, since the length its header declares is
/// usually a placeholder, and Read returns 0 at the real end. Throws
/// CliError when the file cannot be opened or read, with libsndfile's reason.
class AudioFileReader {
 public:
  explicit AudioFileReader(const std::string& path);
  ~AudioFileReader();
  AudioFileReader(const AudioFileReader&) = delete;
  AudioFileReader& operator=(const AudioFileReader&) = delete;

  int GetNumChannels() const { return info_.channels; }
  int GetSampleRate() const { return info_.samplerate; }
  /// Frames in the file, -1 when unknown.
  std::int64_t GetNumFrames() const { return info_.seekable != 0 ? info_.frames : -1; }
  bool IsStream() const { return info_.seekable == 0; }
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

/// The last step before float samples become integers of the output's word
/// length: it moves each sample onto (or near) the grid of `bits`-bit codes,
/// block by block, in place. Dither belongs here. The writer hands it only
/// finite samples, scaled as read (1.0 = full scale), and afterwards rounds
/// each sample to the nearest code and clips, so a quantiser that leaves its
/// samples on the grid (code / 2^(bits-1)) gets exactly those codes.
class SampleQuantizer {
 public:
  virtual ~SampleQuantizer();
  /// Called once by AudioFileWriter::SetQuantizer, before any block.
  virtual void Prepare(int numChannels, double sampleRate, int bits) = 0;
  /// Rewrites numFrames samples of every channel in place.
  virtual void Quantize(float* const* planar, int numFrames) = 0;
};

/// A sound file being written. Samples go to a hidden temporary file in the
/// output's folder, renamed to the final name by Commit(); if the writer is
/// destroyed uncommitted, or the program ends on a signal (SIGINT, SIGTERM,
/// SIGHUP, SIGQUIT, SIGPIPE, SIGXFSZ, SIGALRM, SIGUSR1/2, SIGABRT and the
/// crash signals), the temporary file is removed, so a failed run never
/// leaves a partial file. An existing output keeps its permission bits; a new
/// one gets the usual ones (0666 less the umask).
///
/// Integer formats are converted here, not by libsndfile: NaN is written as
/// 0 and ±Inf as the full-scale codes (both counted as non-finite), each
/// sample is rounded to the nearest code (after the quantiser, when one is
/// set) and samples beyond the codes are clipped and counted. A 16- or
/// 24-bit input written back to its own word length is therefore bit-exact.
/// Float formats are written as given; their non-finite samples are counted
/// but kept.
///
/// Write refuses to pass the format's length limit (GetMaxFrames) instead of
/// letting a header wrap. Every failure throws CliError with libsndfile's or
/// the system's reason.
class AudioFileWriter {
 public:
  AudioFileWriter(const std::string& path, int format, int numChannels, int sampleRate,
                  const std::vector<int>& channelMap = {});
  ~AudioFileWriter();
  AudioFileWriter(const AudioFileWriter&) = delete;
  AudioFileWriter& operator=(const AudioFileWriter&) = delete;

  /// Installs the quantiser integer samples go through (null removes it) and
  /// prepares it; ignored for float formats. Set it before the first Write.
  void SetQuantizer(std::shared_ptr<SampleQuantizer> quantizer);

  void Write(const float* const* planar, int numFrames);
  void Commit();

  /// The format being written; after Commit, the one the file ended up in
  /// (an RF64 .wav that fits has become a RIFF WAV).
  int GetFormat() const { return format_; }
  std::int64_t GetNumFramesWritten() const { return framesWritten_; }
  /// NaN and infinite samples given to Write, per channel and in total.
  std::int64_t GetNumNonFinite(int channel) const;
  std::int64_t GetNumNonFinite() const;
  /// Finite samples beyond the integer codes, written as the extreme code.
  std::int64_t GetNumClipped() const { return clipped_; }

 private:
  void WriteFloat(const float* const* planar, int numFrames);
  void WriteInteger(const float* const* planar, int numFrames);
  [[noreturn]] void FailWrite();
  void Discard() noexcept;

  std::string path_;
  std::string tempPath_;
  int format_;
  int numChannels_;
  int sampleRate_;
  int bits_;
  std::int64_t maxFrames_;
  int fd_ = -1;
  int guardSlot_ = -1;
  SNDFILE* file_ = nullptr;
  bool committed_ = false;
  bool downgradable_ = false;
  std::int64_t framesWritten_ = 0;
  std::int64_t clipped_ = 0;
  std::vector<std::int64_t> nonFinite_;
  std::shared_ptr<SampleQuantizer> quantizer_;
  std::vector<float> scratch_;
  std::vector<float*> scratchPointers_;
  std::vector<float> interleaved_;
  std::vector<int> codes_;
};

}  // namespace vexdsp
