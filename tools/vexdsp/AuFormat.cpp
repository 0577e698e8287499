#include "AuFormat.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "CliError.h"

namespace vexdsp {
namespace fs = std::filesystem;

bool IsAuPath(const std::string& path) {
  if (path.size() < 3) return false;
  std::string ext = path.substr(path.size() - 3);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext == ".au";
}

AuInput::AuInput(const std::string& path) : path_(path) {
  Open();
  std::error_code error;
  const auto bytes = fs::file_size(path_, error);
  if (error) throw CliError(path_ + ": cannot read the file size (" + error.message() + ")");
  const auto frameBytes = static_cast<std::uintmax_t>(4u * reader_.GetNumChannels());
  frames_ = bytes < dsp::AuFileBase::kHeaderBytes
                ? 0
                : static_cast<std::int64_t>((bytes - dsp::AuFileBase::kHeaderBytes) / frameBytes);
}

bool AuInput::CanRead(const std::string& path) {
  dsp::AuFileReader reader;
  return reader.Initialize(path.c_str());
}

void AuInput::Open() {
  if (!reader_.Initialize(path_.c_str())) {
    throw CliError(path_ + ": not a readable AU file of 32-bit little-endian float samples");
  }
  position_ = 0;
}

int AuInput::Read(float* const* planar, int numFrames) {
  const auto n = static_cast<int>(std::min<std::int64_t>(std::max(numFrames, 0), frames_ - position_));
  if (n <= 0) return 0;
  std::vector<float*> channels(planar, planar + GetNumChannels());
  if (!reader_.ReadPlanarBufferFromFile(channels.data(), static_cast<std::size_t>(n))) {
    throw CliError(path_ + ": the file ended early");
  }
  position_ += n;
  return n;
}

bool AuInput::Seek(std::int64_t frame) {
  if (frame < 0 || frame > frames_) return false;
  if (frame < position_) Open();
  // The reader has no seek: skip forward by reading.
  const int channels = GetNumChannels();
  constexpr int kChunk = 4096;
  skip_.resize(static_cast<std::size_t>(kChunk) * static_cast<std::size_t>(channels));
  while (position_ < frame) {
    const auto n = static_cast<std::size_t>(std::min<std::int64_t>(kChunk, frame - position_));
    if (!reader_.ReadInterleavedBufferFromFile(skip_.data(), n * static_cast<std::size_t>(channels))) return false;
    position_ += static_cast<std::int64_t>(n);
  }
  return true;
}

AuOutput::AuOutput(const std::string& path, int numChannels, int sampleRate) : path_(path), numChannels_(numChannels) {
  if (numChannels <= 0 || sampleRate <= 0) throw CliError(path + ": an AU file needs channels and a sample rate");
  if (!writer_.Initialize(path.c_str(), static_cast<unsigned>(sampleRate), static_cast<std::size_t>(numChannels))) {
    throw CliError("cannot write '" + path + "'");
  }
}

void AuOutput::Write(const float* const* planar, int numFrames) {
  if (numFrames <= 0) return;
  std::vector<const float*> channels(planar, planar + numChannels_);
  if (!writer_.WritePlanarBufferToFile(channels.data(), static_cast<std::size_t>(numFrames))) {
    throw CliError("cannot write '" + path_ + "'");
  }
}

void AuOutput::Close() {
  // Destroying the stream flushes and closes it.
  writer_ = dsp::AuFileWriter();
}

}  // namespace vexdsp
