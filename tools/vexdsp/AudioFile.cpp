#include "AudioFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "CliError.h"
#include "vexaccelerate/Utility.h"

namespace vexdsp {
namespace {

namespace fs = std::filesystem;

std::string LibraryMessage(SNDFILE* file) {
  std::string message = sf_strerror(file);
  while (!message.empty() && (message.back() == '.' || std::isspace(static_cast<unsigned char>(message.back())))) {
    message.pop_back();
  }
  // Keep the promise of one line per error.
  std::replace(message.begin(), message.end(), '\n', ' ');
  return message;
}

std::string FormatName(int format) {
  SF_FORMAT_INFO info{};
  info.format = format;
  if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &info, sizeof(info)) != 0 || info.name == nullptr) {
    char code[32];
    std::snprintf(code, sizeof(code), "format 0x%x", format);
    return code;
  }
  return info.name;
}

std::string LowerExtension(const std::string& path) {
  std::string extension = fs::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

bool IsPlainSampleFormat(int subtype) {
  switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
      return true;
    default:
      return false;
  }
}

bool IsCheckable(int format, int numChannels, int sampleRate) {
  SF_INFO info{};
  info.format = format;
  info.channels = numChannels;
  info.samplerate = sampleRate;
  return sf_format_check(&info) == SF_TRUE;
}

// The one temporary file in flight, removed by the signal handler when the
// user interrupts a run. A fixed buffer because the handler may only call
// async-signal-safe functions.
char gTempPath[4096];
volatile std::sig_atomic_t gTempActive = 0;

extern "C" void RemoveTempAndReraise(int signal) {
  if (gTempActive != 0) {
    unlink(gTempPath);
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void GuardTempFile(const std::string& path) {
  static const bool installed = [] {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction action {};
      action.sa_handler = RemoveTempAndReraise;
      sigemptyset(&action.sa_mask);
      sigaction(signal, &action, nullptr);
    }
    return true;
  }();
  (void)installed;
  if (path.size() < sizeof(gTempPath)) {
    gTempActive = 0;
    std::memcpy(gTempPath, path.c_str(), path.size() + 1);
    gTempActive = 1;
  }
}

}  // namespace

std::string DescribeContainer(int sfFormat) { return FormatName(sfFormat & SF_FORMAT_TYPEMASK); }

std::string DescribeSampleFormat(int sfFormat) { return FormatName(sfFormat & SF_FORMAT_SUBMASK); }

std::string DescribeFormat(int sfFormat) { return DescribeContainer(sfFormat) + ", " + DescribeSampleFormat(sfFormat); }

int ChooseOutputFormat(const std::string& outputPath, int inputFormat, SampleFormat requested, int numChannels,
                       int sampleRate, std::string* note) {
  const std::string extension = LowerExtension(outputPath);
  const int inputMajor = inputFormat & SF_FORMAT_TYPEMASK;
  int major = 0;
  if (extension == ".wav") {
    major = inputMajor == SF_FORMAT_WAVEX ? SF_FORMAT_WAVEX : SF_FORMAT_WAV;
  } else if (extension == ".flac") {
    major = SF_FORMAT_FLAC;
  } else if (extension == ".aif" || extension == ".aiff") {
    major = SF_FORMAT_AIFF;
  } else {
    throw CliError("cannot tell the output format from '" + outputPath + "' (name it .wav, .flac, .aif or .aiff)");
  }

  int subtype = 0;
  switch (requested) {
    case SampleFormat::kFloat:
      if (major == SF_FORMAT_FLAC) {
        throw CliError("FLAC cannot store float samples (use --format pcm16 or pcm24)");
      }
      subtype = SF_FORMAT_FLOAT;
      break;
    case SampleFormat::kPcm16:
      subtype = SF_FORMAT_PCM_16;
      break;
    case SampleFormat::kPcm24:
      subtype = SF_FORMAT_PCM_24;
      break;
    case SampleFormat::kKeep: {
      int inputSubtype = inputFormat & SF_FORMAT_SUBMASK;
      // 8-bit audio is unsigned in WAV and signed elsewhere; either is "8 bit".
      if (inputSubtype == SF_FORMAT_PCM_S8 || inputSubtype == SF_FORMAT_PCM_U8) {
        inputSubtype = major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_S8;
      }
      if (IsPlainSampleFormat(inputSubtype) && IsCheckable(major | inputSubtype, numChannels, sampleRate)) {
        subtype = inputSubtype;
      } else {
        subtype = major == SF_FORMAT_FLAC ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
        if (note != nullptr) {
          *note = "the input's " + DescribeSampleFormat(inputFormat) + " cannot be kept in " +
                  DescribeContainer(major) + "; writing " + DescribeSampleFormat(subtype);
        }
      }
      break;
    }
  }

  const int format = major | subtype;
  if (!IsCheckable(format, numChannels, sampleRate)) {
    throw CliError("cannot write " + DescribeFormat(format) + " with " + std::to_string(numChannels) + " channels at " +
                   std::to_string(sampleRate) + " Hz");
  }
  return format;
}

AudioFileReader::AudioFileReader(const std::string& path) : path_(path) {
  std::error_code error;
  if (!fs::exists(path, error)) {
    throw CliError("cannot open '" + path + "': no such file");
  }
  if (fs::is_directory(path, error)) {
    throw CliError("cannot open '" + path + "': it is a directory");
  }
  file_ = sf_open(path.c_str(), SFM_READ, &info_);
  if (file_ == nullptr) {
    throw CliError("cannot open '" + path + "': " + LibraryMessage(nullptr));
  }
  if (info_.channels < 1 || info_.samplerate < 1 || info_.frames < 0) {
    sf_close(file_);
    file_ = nullptr;
    throw CliError("cannot open '" + path + "': it declares " + std::to_string(info_.channels) + " channels at " +
                   std::to_string(info_.samplerate) + " Hz");
  }
}

AudioFileReader::~AudioFileReader() {
  if (file_ != nullptr) {
    sf_close(file_);
  }
}

std::vector<int> AudioFileReader::GetChannelMap() const {
  std::vector<int> map(static_cast<std::size_t>(info_.channels));
  if (sf_command(file_, SFC_GET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int))) != SF_TRUE) {
    map.clear();
  }
  return map;
}

bool AudioFileReader::Seek(std::int64_t frame) {
  return info_.seekable != 0 && sf_seek(file_, static_cast<sf_count_t>(frame), SEEK_SET) == frame;
}

int AudioFileReader::Read(float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return 0;
  }
  const auto channels = static_cast<std::size_t>(info_.channels);
  interleaved_.resize(std::max(interleaved_.size(), channels * static_cast<std::size_t>(numFrames)));
  const sf_count_t got = sf_readf_float(file_, interleaved_.data(), numFrames);
  if (got < numFrames && sf_error(file_) != SF_ERR_NO_ERROR) {
    throw CliError("cannot read '" + path_ + "': " + LibraryMessage(file_));
  }
  vexaccelerate::utility::Deinterleave(interleaved_.data(), channels, static_cast<std::size_t>(got), planar);
  return static_cast<int>(got);
}

AudioFileWriter::AudioFileWriter(const std::string& path, int format, int numChannels, int sampleRate,
                                 const std::vector<int>& channelMap)
    : path_(path), numChannels_(numChannels) {
  const fs::path target(path);
  std::error_code error;
  if (!target.has_filename() || fs::is_directory(target, error)) {
    throw CliError("cannot write '" + path + "': it is a directory");
  }
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  std::string pattern = (folder / ("." + target.filename().string() + ".vexdsp-XXXXXX")).string();
  const int fd = mkstemp(pattern.data());
  if (fd < 0) {
    throw CliError("cannot create a file in '" + folder.string() + "': " + std::strerror(errno));
  }
  fd_ = fd;
  tempPath_ = pattern;
  GuardTempFile(tempPath_);
  // mkstemp creates owner-only files; the result should look like any other
  // file the user creates.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);

  SF_INFO info{};
  info.format = format;
  info.channels = numChannels;
  info.samplerate = sampleRate;
  // The descriptor stays ours, so it is closed exactly once on every path.
  file_ = sf_open_fd(fd, SFM_WRITE, &info, SF_FALSE);
  if (file_ == nullptr) {
    const std::string message = LibraryMessage(nullptr);
    Discard();
    throw CliError("cannot write '" + path + "': " + message);
  }
  const int subtype = format & SF_FORMAT_SUBMASK;
  if (subtype != SF_FORMAT_FLOAT && subtype != SF_FORMAT_DOUBLE) {
    sf_command(file_, SFC_SET_CLIPPING, nullptr, SF_TRUE);
  }
  if (!channelMap.empty() && channelMap.size() == static_cast<std::size_t>(numChannels)) {
    // Best effort: not every container stores a map.
    std::vector<int> map = channelMap;
    sf_command(file_, SFC_SET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int)));
  }
}

AudioFileWriter::~AudioFileWriter() {
  if (!committed_) {
    Discard();
  }
}

void AudioFileWriter::Write(const float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return;
  }
  const auto channels = static_cast<std::size_t>(numChannels_);
  interleaved_.resize(std::max(interleaved_.size(), channels * static_cast<std::size_t>(numFrames)));
  vexaccelerate::utility::Interleave(planar, channels, static_cast<std::size_t>(numFrames), interleaved_.data());
  if (sf_writef_float(file_, interleaved_.data(), numFrames) != numFrames) {
    throw CliError("cannot write '" + path_ + "': " + LibraryMessage(file_));
  }
}

void AudioFileWriter::Commit() {
  const int status = sf_close(file_);
  file_ = nullptr;
  if (status != 0) {
    const std::string message = sf_error_number(status);
    Discard();
    throw CliError("cannot write '" + path_ + "': " + message);
  }
  const int closed = close(fd_);
  fd_ = -1;
  if (closed != 0) {
    const std::string message = std::strerror(errno);
    Discard();
    throw CliError("cannot write '" + path_ + "': " + message);
  }
  if (std::rename(tempPath_.c_str(), path_.c_str()) != 0) {
    const std::string message = std::strerror(errno);
    Discard();
    throw CliError("cannot write '" + path_ + "': " + message);
  }
  gTempActive = 0;
  committed_ = true;
}

void AudioFileWriter::Discard() noexcept {
  if (file_ != nullptr) {
    sf_close(file_);
    file_ = nullptr;
  }
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  if (!tempPath_.empty()) {
    gTempActive = 0;
    unlink(tempPath_.c_str());
  }
}

}  // namespace vexdsp
