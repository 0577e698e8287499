#include "vexaudiodsp/aufile/AuFile.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace dsp {
namespace {

// Samples pass through a small stack buffer so that a block costs a few
// stream calls instead of one per sample.
constexpr std::size_t kChunkWords = 1024;

void StoreLittleEndian(std::uint32_t word, unsigned char* bytes) {
  bytes[0] = static_cast<unsigned char>(word);
  bytes[1] = static_cast<unsigned char>(word >> 8);
  bytes[2] = static_cast<unsigned char>(word >> 16);
  bytes[3] = static_cast<unsigned char>(word >> 24);
}

std::uint32_t LoadLittleEndian(const unsigned char* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

void StoreFloat(float value, unsigned char* bytes) {
  std::uint32_t word;
  std::memcpy(&word, &value, sizeof word);
  StoreLittleEndian(word, bytes);
}

float LoadFloat(const unsigned char* bytes) {
  const std::uint32_t word = LoadLittleEndian(bytes);
  float value;
  std::memcpy(&value, &word, sizeof value);
  return value;
}

}  // namespace

AuFileBase::~AuFileBase() = default;
AuFileBase::AuFileBase(AuFileBase& other) = default;
AuFileBase::AuFileBase(AuFileBase&& other) noexcept = default;
AuFileBase& AuFileBase::operator=(AuFileBase& other) = default;
AuFileBase& AuFileBase::operator=(AuFileBase&& other) noexcept = default;

AuFileWriter::AuFileWriter() = default;
AuFileWriter::~AuFileWriter() = default;
AuFileWriter::AuFileWriter(AuFileWriter& other) : AuFileBase(other), stream_(std::move(other.stream_)) {}
AuFileWriter::AuFileWriter(AuFileWriter&& other) noexcept
    : AuFileBase(std::move(other)), stream_(std::move(other.stream_)) {}
AuFileWriter& AuFileWriter::operator=(AuFileWriter& other) {
  if (this != &other) {
    AuFileBase::operator=(other);
    stream_ = std::move(other.stream_);
  }
  return *this;
}
AuFileWriter& AuFileWriter::operator=(AuFileWriter&& other) noexcept {
  if (this != &other) {
    AuFileBase::operator=(std::move(other));
    stream_ = std::move(other.stream_);
  }
  return *this;
}

bool AuFileWriter::Initialize(const char* path, unsigned sampleRate, std::size_t numChannels) {
  if (path == nullptr || sampleRate == 0 || numChannels == 0 || numChannels > 0xFFFFFFFFu) {
    return false;
  }
  path_ = path;
  sampleRate_ = sampleRate;
  numChannels_ = numChannels;
  return InitializeFileStream() && WriteHeader();
}

bool AuFileWriter::InitializeFileStream() {
  stream_ = std::make_unique<std::ofstream>(path_, std::ios::binary | std::ios::out | std::ios::trunc);
  return stream_->is_open();
}

bool AuFileWriter::WriteHeader() {
  const std::uint32_t words[6] = {kMagic,      static_cast<std::uint32_t>(kHeaderBytes), 0xFFFFFFFFu, kEncodingFloat32,
                                  sampleRate_, static_cast<std::uint32_t>(numChannels_)};
  unsigned char bytes[kHeaderBytes];
  for (int i = 0; i < 6; ++i) {
    StoreLittleEndian(words[i], bytes + 4 * i);
  }
  stream_->write(reinterpret_cast<const char*>(bytes), kHeaderBytes);
  return stream_->good();
}

bool AuFileWriter::WriteInterleavedBufferToFile(const float* data, std::size_t /*count*/) {
  if (!stream_ || !stream_->good() || data == nullptr) {
    return false;
  }
  unsigned char bytes[8];
  StoreFloat(data[0], bytes);
  StoreFloat(data[1], bytes + 4);
  stream_->write(reinterpret_cast<const char*>(bytes), sizeof bytes);
  return stream_->good();
}

bool AuFileWriter::WritePlanarBufferToFile(const float** channels, std::size_t numFrames) {
  if (!stream_ || !stream_->good()) {
    return false;
  }
  if (numFrames == 0) {
    return true;
  }
  if (channels == nullptr) {
    return false;
  }
  for (std::size_t c = 0; c < numChannels_; ++c) {
    if (channels[c] == nullptr) {
      return false;
    }
  }
  unsigned char bytes[kChunkWords * 4];
  std::size_t used = 0;
  for (std::size_t f = 0; f < numFrames; ++f) {
    for (std::size_t c = 0; c < numChannels_; ++c) {
      StoreFloat(channels[c][f], bytes + used);
      used += 4;
      if (used == sizeof bytes) {
        if (!stream_->write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(used))) {
          return false;
        }
        used = 0;
      }
    }
  }
  return static_cast<bool>(stream_->write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(used)));
}

AuFileReader::AuFileReader() = default;
AuFileReader::~AuFileReader() = default;
AuFileReader::AuFileReader(AuFileReader& other) : AuFileBase(other), stream_(std::move(other.stream_)) {}
AuFileReader::AuFileReader(AuFileReader&& other) noexcept
    : AuFileBase(std::move(other)), stream_(std::move(other.stream_)) {}
AuFileReader& AuFileReader::operator=(AuFileReader& other) {
  if (this != &other) {
    AuFileBase::operator=(other);
    stream_ = std::move(other.stream_);
  }
  return *this;
}
AuFileReader& AuFileReader::operator=(AuFileReader&& other) noexcept {
  if (this != &other) {
    AuFileBase::operator=(std::move(other));
    stream_ = std::move(other.stream_);
  }
  return *this;
}

bool AuFileReader::Initialize(const char* path) {
  stream_.reset();
  sampleRate_ = 0;
  numChannels_ = 0;
  if (path == nullptr) {
    return false;
  }
  path_ = path;
  if (!InitializeFileStream() || !ReadHeader()) {
    stream_.reset();
    return false;
  }
  return true;
}

bool AuFileReader::InitializeFileStream() {
  stream_ = std::make_unique<std::ifstream>(path_, std::ios::binary | std::ios::in);
  return stream_->is_open();
}

bool AuFileReader::ReadHeader() {
  unsigned char bytes[kHeaderBytes];
  stream_->read(reinterpret_cast<char*>(bytes), kHeaderBytes);
  if (stream_->gcount() != static_cast<std::streamsize>(kHeaderBytes)) {
    return false;
  }
  const std::uint32_t magic = LoadLittleEndian(bytes);
  const std::uint32_t encoding = LoadLittleEndian(bytes + 12);
  const std::uint32_t rate = LoadLittleEndian(bytes + 16);
  const std::uint32_t channels = LoadLittleEndian(bytes + 20);
  if (magic != kMagic || encoding != kEncodingFloat32 || rate == 0 || channels == 0) {
    return false;
  }
  sampleRate_ = rate;
  numChannels_ = channels;
  return true;
}

bool AuFileReader::ReadInterleavedBufferFromFile(float* data, std::size_t count) {
  if (!stream_ || !stream_->good()) {
    return false;
  }
  if (count == 0) {
    return true;
  }
  if (data == nullptr || count > static_cast<std::size_t>(PTRDIFF_MAX) / 4) {
    return false;
  }
  const auto bytes = static_cast<std::streamsize>(count * 4);
  stream_->read(reinterpret_cast<char*>(data), bytes);
  const std::streamsize got = stream_->gcount();
  // The samples are stored little-endian; on such a machine the bytes read
  // are already the floats.
  if constexpr (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__) {
    for (std::size_t i = 0; i < count; ++i) {
      data[i] = LoadFloat(reinterpret_cast<const unsigned char*>(data + i));
    }
  }
  return got == bytes;
}

bool AuFileReader::ReadPlanarBufferFromFile(float** channels, std::size_t numFrames) {
  if (!stream_ || !stream_->good() || channels == nullptr || numChannels_ == 0) {
    return false;
  }
  for (std::size_t c = 0; c < numChannels_; ++c) {
    if (channels[c] == nullptr) {
      return false;
    }
  }
  unsigned char bytes[kChunkWords * 4];
  const std::size_t total = numFrames * numChannels_;
  std::size_t done = 0;
  while (done < total) {
    const std::size_t want = std::min(total - done, kChunkWords);
    stream_->read(reinterpret_cast<char*>(bytes), static_cast<std::streamsize>(want * 4));
    const auto got = static_cast<std::size_t>(stream_->gcount()) / 4;
    for (std::size_t i = 0; i < got; ++i, ++done) {
      channels[done % numChannels_][done / numChannels_] = LoadFloat(bytes + 4 * i);
    }
    if (got < want) {
      return false;
    }
  }
  return true;
}

}  // namespace dsp
