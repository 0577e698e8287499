#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// What the AU reader and writer share: the path, the sample rate and the
/// channel count of a file of 32-bit float samples in an AU-style container.
///
/// The container is a 24-byte header of six 32-bit words followed by
/// interleaved float samples, every word and sample in little-endian byte
/// order (the file starts with the bytes "dns." rather than Sun's ".snd"):
/// magic 0x2E736E64, data offset 24, data size 0xFFFFFFFF (unknown, never
/// patched), encoding 6 (IEEE float), sample rate, channel count. Tools that
/// read little-endian float AU (sox, for one) open these files.
///
/// Paths are narrow strings handed to the platform's file API unchanged.
/// Streams are opened in binary mode, so bytes reach the file unaltered.
///
/// Copying a reader or writer takes over the other's stream (the source is
/// left closed), as moving does. One object per file and thread; every
/// operation returns false on failure and a failed stream stays failed.
class VEXAUDIODSP_API AuFileBase {
 public:
  static constexpr std::uint32_t kMagic = 0x2E736E64u;
  static constexpr std::uint32_t kEncodingFloat32 = 6u;
  static constexpr std::size_t kHeaderBytes = 24;

  virtual ~AuFileBase();

  const std::string& GetPath() const { return path_; }
  std::uint32_t GetSampleRate() const { return sampleRate_; }
  std::size_t GetNumChannels() const { return numChannels_; }

 protected:
  AuFileBase() = default;
  AuFileBase(AuFileBase& other);
  AuFileBase(AuFileBase&& other) noexcept;
  AuFileBase& operator=(AuFileBase& other);
  AuFileBase& operator=(AuFileBase&& other) noexcept;

  std::string path_;
  std::uint32_t sampleRate_ = 0;
  std::size_t numChannels_ = 0;
};

/// Creates an AU file and writes float samples to it. Writes go through the
/// stream's buffer; the file is complete once the writer is destroyed.
class VEXAUDIODSP_API AuFileWriter : public AuFileBase {
 public:
  AuFileWriter();
  ~AuFileWriter() override;
  AuFileWriter(AuFileWriter& other);
  AuFileWriter(AuFileWriter&& other) noexcept;
  AuFileWriter& operator=(AuFileWriter& other);
  AuFileWriter& operator=(AuFileWriter&& other) noexcept;

  /// Creates (or truncates) `path` and writes the header. False for a null
  /// path, a zero rate or channel count, or a file that cannot be written.
  bool Initialize(const char* path, unsigned sampleRate, std::size_t numChannels);
  /// Writes exactly two floats (8 bytes) from `data`, whatever `count` says:
  /// it dumps one stereo frame. Use WritePlanarBufferToFile for blocks.
  bool WriteInterleavedBufferToFile(const float* data, std::size_t count);
  /// Writes numFrames frames from one array per channel, interleaving them.
  /// False without an open stream, for null pointers, or at the first failed
  /// write. True for numFrames == 0.
  bool WritePlanarBufferToFile(const float** channels, std::size_t numFrames);

 private:
  bool InitializeFileStream();
  bool WriteHeader();

  std::unique_ptr<std::ofstream> stream_;
};

/// Opens an AU file of float samples, checks its header and reads samples.
class VEXAUDIODSP_API AuFileReader : public AuFileBase {
 public:
  AuFileReader();
  ~AuFileReader() override;
  AuFileReader(AuFileReader& other);
  AuFileReader(AuFileReader&& other) noexcept;
  AuFileReader& operator=(AuFileReader& other);
  AuFileReader& operator=(AuFileReader&& other) noexcept;

  /// Opens `path` and reads the header: true only when all 24 bytes arrive,
  /// the magic and the float encoding match and the rate and channel count
  /// are non-zero; they then become GetSampleRate and GetNumChannels. The
  /// data offset and size words are not used: samples start at byte 24.
  bool Initialize(const char* path);
  /// Reads `count` floats (count / channels frames, interleaved) in one
  /// read; true when all of them arrived.
  bool ReadInterleavedBufferFromFile(float* data, std::size_t count);
  /// Reads numFrames frames into one array per channel. False without an
  /// open file, for null pointers, or at the first short read (the samples
  /// before it are delivered). True for numFrames == 0.
  bool ReadPlanarBufferFromFile(float** channels, std::size_t numFrames);

 private:
  bool InitializeFileStream();
  bool ReadHeader();

  std::unique_ptr<std::ifstream> stream_;
};

}  // namespace dsp
