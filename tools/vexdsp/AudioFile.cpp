#include "AudioFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "AuFormat.h"
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

int BytesPerSample(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 1;
    case SF_FORMAT_PCM_16:
      return 2;
    case SF_FORMAT_PCM_24:
      return 3;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
      return 4;
    case SF_FORMAT_DOUBLE:
      return 8;
    default:
      return 0;
  }
}

bool IsCheckable(int format, int numChannels, int sampleRate) {
  SF_INFO info{};
  info.format = format;
  info.channels = numChannels;
  info.samplerate = sampleRate;
  return sf_format_check(&info) == SF_TRUE;
}

std::string DescribeFrames(std::int64_t frames, int sampleRate) {
  char text[96];
  const std::int64_t seconds = sampleRate > 0 ? frames / sampleRate : 0;
  std::snprintf(text, sizeof(text), "%" PRId64 " frames (%" PRId64 ":%02d:%02d)", frames, seconds / 3600,
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return text;
}

// Temporary files in flight, removed by the signal handler when a run is
// cut short. Fixed storage because the handler may only call
// async-signal-safe functions; a slot is claimed under a mutex by normal code
// and published by its flag.
constexpr int kGuardSlots = 8;
struct GuardSlot {
  char path[PATH_MAX];
  volatile std::sig_atomic_t active;
};
GuardSlot gGuards[kGuardSlots];
std::mutex gGuardMutex;

void RemoveGuardedFiles() noexcept {
  for (GuardSlot& slot : gGuards) {
    if (slot.active != 0) {
      unlink(slot.path);
    }
  }
}

extern "C" void RemoveTempAndResignal(int signal, siginfo_t* info, void*) {
  RemoveGuardedFiles();
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signal, &fallback, nullptr);
  const bool fault = signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL;
  // A real fault strikes again when the handler returns, now with the default
  // action; anything sent by kill or raise has to be sent once more.
  if (!(fault && info != nullptr && info->si_code > 0)) {
    raise(signal);
  }
}

extern "C" void RemoveTempAtExit() { RemoveGuardedFiles(); }

void InstallGuards() {
  static const bool installed = [] {
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGXFSZ, SIGXCPU, SIGALRM, SIGUSR1, SIGUSR2,
                       SIGVTALRM, SIGPROF, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGSYS}) {
      struct sigaction current {};
      // Only where the default, terminating action is in force: a signal the
      // caller ignores (nohup, a shell ignoring SIGPIPE) must stay ignored,
      // and a handler someone else installed (a sanitizer's) stays theirs.
      if (sigaction(signal, nullptr, &current) != 0 || (current.sa_flags & SA_SIGINFO) != 0 ||
          current.sa_handler != SIG_DFL) {
        continue;
      }
      struct sigaction action {};
      action.sa_sigaction = RemoveTempAndResignal;
      action.sa_flags = SA_SIGINFO;
      sigemptyset(&action.sa_mask);
      sigaction(signal, &action, nullptr);
    }
    std::atexit(RemoveTempAtExit);
    return true;
  }();
  (void)installed;
}

int ClaimGuard(const std::string& path) {
  InstallGuards();
  if (path.size() >= sizeof(GuardSlot::path)) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(gGuardMutex);
  for (int i = 0; i < kGuardSlots; ++i) {
    if (gGuards[i].active == 0) {
      std::memcpy(gGuards[i].path, path.c_str(), path.size() + 1);
      gGuards[i].active = 1;
      return i;
    }
  }
  return -1;
}

void ReleaseGuard(int slot) {
  if (slot >= 0) {
    std::lock_guard<std::mutex> lock(gGuardMutex);
    gGuards[slot].active = 0;
  }
}

// The hidden temporary name ".<name>.vexdsp-XXXXXX", with <name> cut short
// (on a UTF-8 character boundary) so the whole stays within the folder's
// file-name limit.
std::string TempPattern(const fs::path& folder, const std::string& name, std::size_t nameMax) {
  static constexpr char kSuffix[] = ".vexdsp-XXXXXX";
  const std::size_t room = nameMax - 1 - (sizeof(kSuffix) - 1);
  std::size_t keep = std::min(name.size(), room);
  while (keep > 0 && keep < name.size() && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) {
    --keep;
  }
  return (folder / ("." + name.substr(0, keep) + kSuffix)).string();
}

// The frames a RIFF WAV's data chunk declares, or -1 when the file is not a
// plain RIFF WAV of whole-byte samples or declares no usable size (writers
// that stream leave 0 or 0xFFFFFFFF there). libsndfile quietly reads what is
// there when the file ends early; this is how the user gets told.
std::int64_t DeclaredRiffFrames(const std::string& path, int format, int numChannels) {
  const int major = format & SF_FORMAT_TYPEMASK;
  const int bytesPerFrame = BytesPerSample(format) * numChannels;
  if ((major != SF_FORMAT_WAV && major != SF_FORMAT_WAVEX) || bytesPerFrame <= 0) return -1;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return -1;
  const auto le32 = [](const unsigned char* b) {
    return std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16 | std::uint32_t(b[3]) << 24;
  };
  std::int64_t frames = -1;
  unsigned char header[12];
  if (std::fread(header, 1, 12, file) == 12 && std::memcmp(header, "RIFF", 4) == 0 &&
      std::memcmp(header + 8, "WAVE", 4) == 0) {
    unsigned char chunk[8];
    // A bounded walk: a corrupt size cannot keep it going.
    for (int i = 0; i < 64 && std::fread(chunk, 1, 8, file) == 8; ++i) {
      const std::uint32_t size = le32(chunk + 4);
      if (std::memcmp(chunk, "data", 4) == 0) {
        if (size != 0 && size != 0xFFFFFFFFu) frames = size / static_cast<std::uint32_t>(bytesPerFrame);
        break;
      }
      if (fseeko(file, static_cast<off_t>(size) + (size & 1u), SEEK_CUR) != 0) break;
    }
  }
  std::fclose(file);
  return frames;
}

std::size_t NameMax(const fs::path& folder) {
  const long limit = pathconf(folder.c_str(), _PC_NAME_MAX);
  return limit > 32 ? static_cast<std::size_t>(limit) : 255;
}

}  // namespace

std::string DescribeContainer(int sfFormat) { return FormatName(sfFormat & SF_FORMAT_TYPEMASK); }

std::string DescribeSampleFormat(int sfFormat) { return FormatName(sfFormat & SF_FORMAT_SUBMASK); }

std::string DescribeFormat(int sfFormat) { return DescribeContainer(sfFormat) + ", " + DescribeSampleFormat(sfFormat); }

int GetIntegerBits(int sfFormat) {
  switch (sfFormat & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
      return 16;
    case SF_FORMAT_PCM_24:
      return 24;
    case SF_FORMAT_PCM_32:
      return 32;
    default:
      return 0;
  }
}

std::int64_t GetMaxFrames(int sfFormat, int numChannels) {
  // Room kept for the header chunks (format, fact, peak, channel map, cues)
  // that share the 32-bit size with the data.
  constexpr std::int64_t kHeaderRoom = std::int64_t(1) << 20;
  const std::int64_t bytesPerFrame = std::int64_t(BytesPerSample(sfFormat)) * numChannels;
  switch (sfFormat & SF_FORMAT_TYPEMASK) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
      return bytesPerFrame > 0 ? (std::int64_t(UINT32_MAX) - kHeaderRoom) / bytesPerFrame : -1;
    case SF_FORMAT_AIFF:
      return bytesPerFrame > 0 ? (std::int64_t(INT32_MAX) - kHeaderRoom) / bytesPerFrame : -1;
    case SF_FORMAT_FLAC:
      return (std::int64_t(1) << 36) - 1;
    default:
      return -1;
  }
}

int ChooseOutputFormat(const std::string& outputPath, int inputFormat, SampleFormat requested, int numChannels,
                       int sampleRate, std::string* note, std::int64_t expectedFrames) {
  const std::string extension = LowerExtension(outputPath);
  const int inputMajor = inputFormat & SF_FORMAT_TYPEMASK;
  int major = 0;
  if (extension == ".wav") {
    const bool keep = inputMajor == SF_FORMAT_WAVEX || inputMajor == SF_FORMAT_RF64 || inputMajor == SF_FORMAT_W64;
    // Beyond stereo a plain WAV leaves the speaker of each channel to guess:
    // such files are written as WAVE_FORMAT_EXTENSIBLE, with a channel mask.
    major = keep ? inputMajor : numChannels > 2 ? SF_FORMAT_WAVEX : SF_FORMAT_WAV;
  } else if (extension == ".w64") {
    major = SF_FORMAT_W64;
  } else if (extension == ".rf64") {
    major = SF_FORMAT_RF64;
  } else if (extension == ".flac") {
    major = SF_FORMAT_FLAC;
  } else if (extension == ".aif" || extension == ".aiff") {
    major = SF_FORMAT_AIFF;
  } else if (extension == ".au") {
    if (requested == SampleFormat::kPcm16 || requested == SampleFormat::kPcm24) {
      throw CliError("'" + outputPath + "': AU files are written as 32-bit float only");
    }
    return kAuFloatFormat;
  } else {
    throw CliError("cannot tell the output format from '" + outputPath +
                   "' (name it .wav, .w64, .rf64, .flac, .aif, .aiff or .au)");
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
      // 8-bit audio is unsigned in the RIFF family and signed elsewhere;
      // either is "8 bit".
      if (inputSubtype == SF_FORMAT_PCM_S8 || inputSubtype == SF_FORMAT_PCM_U8) {
        const bool riff =
            major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX || major == SF_FORMAT_RF64 || major == SF_FORMAT_W64;
        inputSubtype = riff ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_S8;
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

  // A WAV that might outgrow its 32-bit sizes becomes RF64, which the writer
  // lets fall back to a plain WAV on closing when the data fits after all.
  if (major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX) {
    const std::int64_t limit = GetMaxFrames(major | subtype, numChannels);
    if (expectedFrames < 0 || (limit >= 0 && expectedFrames > limit)) {
      major = SF_FORMAT_RF64;
    }
  }

  const int format = major | subtype;
  if (!IsCheckable(format, numChannels, sampleRate)) {
    throw CliError("cannot write " + DescribeFormat(format) + " with " + std::to_string(numChannels) + " channels at " +
                   std::to_string(sampleRate) + " Hz");
  }
  const std::int64_t limit = GetMaxFrames(format, numChannels);
  if (expectedFrames >= 0 && limit >= 0 && expectedFrames > limit) {
    throw CliError("cannot write " + DescribeFrames(expectedFrames, sampleRate) + " to '" + outputPath +
                   "': " + DescribeFormat(format) + " holds at most " + DescribeFrames(limit, sampleRate) + " of " +
                   std::to_string(numChannels) + " channels (name the output .wav, .w64 or .rf64)");
  }
  return format;
}

AudioFileReader::AudioFileReader(const std::string& path) : path_(path) {
  if (path == "-") {
    path_ = "standard input";
    // The descriptor is the process's; libsndfile must not close it.
    file_ = sf_open_fd(STDIN_FILENO, SFM_READ, &info_, SF_FALSE);
  } else {
    std::error_code error;
    if (!fs::exists(path, error)) {
      throw CliError("cannot open '" + path + "': no such file");
    }
    if (fs::is_directory(path, error)) {
      throw CliError("cannot open '" + path + "': it is a directory");
    }
    if (IsAuPath(path) && AuInput::CanRead(path)) {
      au_ = std::make_unique<AuInput>(path);
      info_.channels = au_->GetNumChannels();
      info_.samplerate = au_->GetSampleRate();
      info_.frames = au_->GetNumFrames();
      info_.format = kAuFloatFormat;
      info_.seekable = 1;
      return;
    }
    file_ = sf_open(path.c_str(), SFM_READ, &info_);
    if (file_ != nullptr) {
      const std::int64_t declared = DeclaredRiffFrames(path, info_.format, info_.channels);
      if (declared > info_.frames) {
        std::fprintf(stderr,
                     "vexdsp: warning: '%s' ends early: its header declares %lld frames, the file holds %lld; "
                     "reading those\n",
                     path.c_str(), static_cast<long long>(declared), static_cast<long long>(info_.frames));
      }
    }
  }
  if (file_ == nullptr) {
    throw CliError("cannot open '" + path_ + "': " + LibraryMessage(nullptr));
  }
  if (info_.channels < 1 || info_.samplerate < 1 || (info_.seekable != 0 && info_.frames < 0)) {
    sf_close(file_);
    file_ = nullptr;
    throw CliError("cannot open '" + path_ + "': it declares " + std::to_string(info_.channels) + " channels at " +
                   std::to_string(info_.samplerate) + " Hz");
  }
}

AudioFileReader::~AudioFileReader() {
  if (file_ != nullptr) {
    sf_close(file_);
  }
}

std::vector<int> AudioFileReader::GetChannelMap() const {
  if (au_) return {};
  std::vector<int> map(static_cast<std::size_t>(info_.channels));
  if (sf_command(file_, SFC_GET_CHANNEL_MAP_INFO, map.data(), static_cast<int>(map.size() * sizeof(int))) != SF_TRUE) {
    map.clear();
  }
  return map;
}

bool AudioFileReader::Seek(std::int64_t frame) {
  if (au_) return au_->Seek(frame);
  return info_.seekable != 0 && sf_seek(file_, static_cast<sf_count_t>(frame), SEEK_SET) == frame;
}

int AudioFileReader::Read(float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return 0;
  }
  if (au_) return au_->Read(planar, numFrames);
  const auto channels = static_cast<std::size_t>(info_.channels);
  interleaved_.resize(std::max(interleaved_.size(), channels * static_cast<std::size_t>(numFrames)));
  const sf_count_t got = sf_readf_float(file_, interleaved_.data(), numFrames);
  if (got < numFrames && sf_error(file_) != SF_ERR_NO_ERROR) {
    throw CliError("cannot read '" + path_ + "': " + LibraryMessage(file_));
  }
  vexaccelerate::utility::Deinterleave(interleaved_.data(), channels, static_cast<std::size_t>(got), planar);
  return static_cast<int>(got);
}

SampleQuantizer::~SampleQuantizer() = default;

AudioFileWriter::AudioFileWriter(const std::string& path, int format, int numChannels, int sampleRate,
                                 const std::vector<int>& channelMap)
    : path_(path),
      format_(format),
      numChannels_(numChannels),
      sampleRate_(sampleRate),
      bits_(GetIntegerBits(format)),
      maxFrames_(GetMaxFrames(format, numChannels)),
      nonFinite_(static_cast<std::size_t>(std::max(numChannels, 0)), 0) {
  const fs::path target(path);
  std::error_code error;
  if (!target.has_filename() || fs::is_directory(target, error)) {
    throw CliError("cannot write '" + path + "': it is a directory");
  }
  if (numChannels < 1) {
    throw CliError("cannot write '" + path + "': no channels");
  }
  const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
  const std::string name = target.filename().string();
  const std::size_t nameMax = NameMax(folder);
  if (name.size() > nameMax) {
    throw CliError("cannot write '" + path + "': the file name is longer than the " + std::to_string(nameMax) +
                   " bytes the folder allows");
  }

  // An output being replaced keeps its permission bits; a new one gets what
  // any other program would give it (mkstemp makes owner-only files).
  mode_t mode = 0;
  struct stat existing {};
  if (stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) {
    mode = existing.st_mode & 07777;
  } else {
    const mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }

  std::string pattern = TempPattern(folder, name, nameMax);
  const int fd = mkstemp(pattern.data());
  if (fd < 0) {
    throw CliError("cannot create a file in '" + folder.string() + "': " + std::strerror(errno));
  }
  fd_ = fd;
  tempPath_ = pattern;
  guardSlot_ = ClaimGuard(tempPath_);
  if (fchmod(fd, mode) != 0) {
    const std::string message = std::strerror(errno);
    Discard();
    throw CliError("cannot write '" + path + "': " + message);
  }

  if (IsAuFormat(format)) {
    try {
      au_ = std::make_unique<AuOutput>(tempPath_, numChannels, sampleRate);
    } catch (...) {
      Discard();
      throw;
    }
    return;
  }
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
  if ((format & SF_FORMAT_TYPEMASK) == SF_FORMAT_RF64 && LowerExtension(path) == ".wav") {
    downgradable_ = sf_command(file_, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE) == SF_TRUE;
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

void AudioFileWriter::SetQuantizer(std::shared_ptr<SampleQuantizer> quantizer) {
  if (bits_ == 0) {
    return;
  }
  quantizer_ = std::move(quantizer);
  if (quantizer_) {
    quantizer_->Prepare(numChannels_, sampleRate_, bits_);
  }
}

std::int64_t AudioFileWriter::GetNumNonFinite(int channel) const {
  return channel >= 0 && channel < numChannels_ ? nonFinite_[static_cast<std::size_t>(channel)] : 0;
}

std::int64_t AudioFileWriter::GetNumNonFinite() const {
  std::int64_t total = 0;
  for (std::int64_t count : nonFinite_) {
    total += count;
  }
  return total;
}

void AudioFileWriter::Write(const float* const* planar, int numFrames) {
  if (numFrames < 1) {
    return;
  }
  if (file_ == nullptr && !au_) {
    throw CliError("cannot write '" + path_ + "': the file is already closed");
  }
  if (maxFrames_ >= 0 && framesWritten_ + numFrames > maxFrames_) {
    throw CliError("cannot write '" + path_ + "': " + DescribeFormat(format_) + " holds at most " +
                   DescribeFrames(maxFrames_, sampleRate_) + " of " + std::to_string(numChannels_) +
                   " channels (name the output .wav, .w64 or .rf64)");
  }
  if (bits_ == 0) {
    WriteFloat(planar, numFrames);
  } else {
    WriteInteger(planar, numFrames);
  }
  framesWritten_ += numFrames;
}

void AudioFileWriter::WriteFloat(const float* const* planar, int numFrames) {
  const auto channels = static_cast<std::size_t>(numChannels_);
  const auto n = static_cast<std::size_t>(numFrames);
  for (std::size_t ch = 0; ch < channels; ++ch) {
    const float* in = planar[ch];
    std::int64_t bad = 0;
    for (std::size_t i = 0; i < n; ++i) {
      bad += std::isfinite(in[i]) ? 0 : 1;
    }
    nonFinite_[ch] += bad;
  }
  if (au_) {
    au_->Write(planar, numFrames);
    return;
  }
  interleaved_.resize(std::max(interleaved_.size(), channels * n));
  vexaccelerate::utility::Interleave(planar, channels, n, interleaved_.data());
  errno = 0;
  if (sf_writef_float(file_, interleaved_.data(), numFrames) != numFrames) {
    FailWrite();
  }
}

void AudioFileWriter::WriteInteger(const float* const* planar, int numFrames) {
  const auto channels = static_cast<std::size_t>(numChannels_);
  const auto n = static_cast<std::size_t>(numFrames);
  const double scale = std::ldexp(1.0, bits_ - 1);
  const double maxCode = scale - 1.0;
  const double minCode = -scale;
  const float positiveFull = static_cast<float>(maxCode / scale);
  // libsndfile takes ints as 32-bit full scale and keeps their top bits.
  const std::int64_t step = std::int64_t(1) << (32 - bits_);

  if (scratch_.size() < channels * n) {
    scratch_.resize(channels * n);
  }
  scratchPointers_.resize(channels);
  for (std::size_t ch = 0; ch < channels; ++ch) {
    scratchPointers_[ch] = scratch_.data() + ch * n;
    const float* in = planar[ch];
    float* out = scratchPointers_[ch];
    std::int64_t bad = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const float x = in[i];
      if (std::isfinite(x)) {
        out[i] = x;
      } else {
        ++bad;
        out[i] = std::isnan(x) ? 0.0f : (x > 0.0f ? positiveFull : -1.0f);
      }
    }
    nonFinite_[ch] += bad;
  }
  if (quantizer_) {
    quantizer_->Quantize(scratchPointers_.data(), numFrames);
  }

  codes_.resize(std::max(codes_.size(), channels * n));
  // Adding and removing 1.5 * 2^52 rounds a double of magnitude below 2^51
  // to the nearest integer, ties to even, without the floating-point
  // environment round trip that nearbyint makes on every call.
  constexpr double kRound = 6755399441055744.0;
  std::int64_t clipped = 0;
  for (std::size_t ch = 0; ch < channels; ++ch) {
    const float* in = scratchPointers_[ch];
    int* out = codes_.data() + ch;
    for (std::size_t i = 0; i < n; ++i) {
      // The clamp keeps huge values (and a quantiser's NaN, sent to the
      // bottom) inside the rounding trick's range; one step beyond the codes
      // is enough to be seen as clipped.
      const double v = std::clamp(static_cast<double>(in[i]) * scale, minCode - 1.0, maxCode + 1.0);
      double code = (v + kRound) - kRound;
      if (code > maxCode) {
        code = maxCode;
        ++clipped;
      } else if (!(code >= minCode)) {
        code = minCode;
        ++clipped;
      }
      out[i * channels] = static_cast<int>(static_cast<std::int64_t>(code) * step);
    }
  }
  clipped_ += clipped;

  errno = 0;
  if (sf_writef_int(file_, codes_.data(), numFrames) != numFrames) {
    FailWrite();
  }
}

void AudioFileWriter::FailWrite() {
  const int systemError = errno;
  std::string reason;
  if (sf_error(file_) != SF_ERR_NO_ERROR) {
    reason = LibraryMessage(file_);
  } else if (systemError != 0) {
    reason = std::strerror(systemError);
  } else {
    reason = "libsndfile took fewer frames than it was given and named no reason";
  }
  throw CliError("cannot write '" + path_ + "': " + reason);
}

void AudioFileWriter::Commit() {
  if (file_ == nullptr && !au_) {
    throw CliError("cannot write '" + path_ + "': the file is already closed");
  }
  errno = 0;
  const int status = au_ ? 0 : sf_close(file_);
  file_ = nullptr;
  if (au_) {
    au_->Close();
    au_.reset();
  }
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
  ReleaseGuard(guardSlot_);
  guardSlot_ = -1;
  committed_ = true;
  // libsndfile's fallback keeps the extensible format chunk of its RF64.
  const int riff = SF_FORMAT_WAVEX | (format_ & SF_FORMAT_SUBMASK);
  if (downgradable_ && framesWritten_ <= GetMaxFrames(riff, numChannels_)) {
    format_ = riff;
  }
}

void AudioFileWriter::Discard() noexcept {
  au_.reset();
  if (file_ != nullptr) {
    sf_close(file_);
    file_ = nullptr;
  }
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  if (!tempPath_.empty()) {
    unlink(tempPath_.c_str());
    ReleaseGuard(guardSlot_);
    guardSlot_ = -1;
  }
}

}  // namespace vexdsp
