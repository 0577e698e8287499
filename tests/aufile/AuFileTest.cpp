#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/TestSignals.h"
#include "vexaudiodsp/aufile/AuFile.h"

namespace {

using dsp::AuFileReader;
using dsp::AuFileWriter;

std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + "aufile_" + std::to_string(::getpid()) + "_" + name + ".au";
}

std::vector<unsigned char> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The header bytes are written out by hand here, little-endian word by word,
// so the test does not share the implementation's encoder.
std::vector<unsigned char> Header(std::uint32_t magic, std::uint32_t encoding, std::uint32_t rate,
                                  std::uint32_t channels) {
  std::vector<unsigned char> bytes;
  for (std::uint32_t word : {magic, 24u, 0xFFFFFFFFu, encoding, rate, channels}) {
    for (int b = 0; b < 4; ++b) {
      bytes.push_back(static_cast<unsigned char>((word >> (8 * b)) & 0xFF));
    }
  }
  return bytes;
}

TEST(AuFile, HeaderAndSamplesAreLittleEndianInterleaved) {
  const std::string path = TempPath("layout");
  const std::vector<float> left = {0.5f, -1.0f, 3.0e-7f};
  const std::vector<float> right = {0.25f, 1.0f, -0.0f};
  {
    AuFileWriter writer;
    ASSERT_TRUE(writer.Initialize(path.c_str(), 48000, 2));
    const float* planar[] = {left.data(), right.data()};
    ASSERT_TRUE(writer.WritePlanarBufferToFile(planar, 3));
    EXPECT_TRUE(writer.WritePlanarBufferToFile(planar, 0));
  }
  const std::vector<unsigned char> bytes = ReadBytes(path);
  ASSERT_EQ(bytes.size(), 24u + 24u);
  const std::vector<unsigned char> expected = Header(0x2E736E64, 6, 48000, 2);
  EXPECT_EQ(std::vector<unsigned char>(bytes.begin(), bytes.begin() + 24), expected);
  EXPECT_EQ(bytes[0], 0x64);
  EXPECT_EQ(bytes[3], 0x2E);
  // 0.5f is 0x3F000000: stored as 00 00 00 3F.
  EXPECT_EQ(bytes[24], 0x00);
  EXPECT_EQ(bytes[27], 0x3F);
  // The second sample of frame 0 is the right channel, 0.25f = 0x3E800000.
  EXPECT_EQ(bytes[31], 0x3E);
  EXPECT_EQ(bytes[30], 0x80);
  std::remove(path.c_str());
}

TEST(AuFile, PlanarAndInterleavedRoundTripsAreBitExact) {
  const std::string path = TempPath("roundtrip");
  const std::size_t frames = 5000;  // several internal chunks, an odd tail
  const std::size_t channels = 3;
  vextest::PlanarBlock block(channels, frames);
  for (std::size_t c = 0; c < channels; ++c) {
    const std::vector<float> noise = vextest::Noise(frames, static_cast<std::uint32_t>(c + 7), 2.0);
    std::copy(noise.begin(), noise.end(), block.Channel(c).begin());
  }
  block.Channel(1)[17] = 1.0e-40f;  // subnormals survive unchanged
  {
    AuFileWriter writer;
    ASSERT_TRUE(writer.Initialize(path.c_str(), 44100, channels));
    std::vector<const float*> planar = {block.Pointers()[0], block.Pointers()[1], block.Pointers()[2]};
    ASSERT_TRUE(writer.WritePlanarBufferToFile(planar.data(), 1234));
    planar = {block.Pointers()[0] + 1234, block.Pointers()[1] + 1234, block.Pointers()[2] + 1234};
    ASSERT_TRUE(writer.WritePlanarBufferToFile(planar.data(), frames - 1234));
  }
  AuFileReader reader;
  ASSERT_TRUE(reader.Initialize(path.c_str()));
  EXPECT_EQ(reader.GetSampleRate(), 44100u);
  EXPECT_EQ(reader.GetNumChannels(), channels);
  vextest::PlanarBlock back(channels, frames, 99.0f);
  ASSERT_TRUE(reader.ReadPlanarBufferFromFile(back.Pointers(), 100));
  std::vector<float> interleaved(channels * 900);
  ASSERT_TRUE(reader.ReadInterleavedBufferFromFile(interleaved.data(), interleaved.size()));
  for (std::size_t f = 0; f < 900; ++f) {
    for (std::size_t c = 0; c < channels; ++c) {
      back.Channel(c)[100 + f] = interleaved[f * channels + c];
    }
  }
  float* rest[] = {back.Pointers()[0] + 1000, back.Pointers()[1] + 1000, back.Pointers()[2] + 1000};
  ASSERT_TRUE(reader.ReadPlanarBufferFromFile(rest, frames - 1000));
  for (std::size_t c = 0; c < channels; ++c) {
    EXPECT_EQ(std::memcmp(back.Channel(c).data(), block.Channel(c).data(), frames * sizeof(float)), 0) << c;
  }
  // The end of the data: one more frame is a short read.
  EXPECT_FALSE(reader.ReadPlanarBufferFromFile(rest, 1));
  EXPECT_FALSE(reader.ReadPlanarBufferFromFile(rest, 0)) << "a failed stream stays failed";
  std::remove(path.c_str());
}

TEST(AuFile, InterleavedWriteAddsExactlyTwoSamples) {
  const std::string path = TempPath("eight");
  const std::vector<float> data(1000, 0.75f);
  {
    AuFileWriter writer;
    EXPECT_FALSE(writer.WriteInterleavedBufferToFile(data.data(), 2)) << "no stream yet";
    ASSERT_TRUE(writer.Initialize(path.c_str(), 8000, 1));
    ASSERT_TRUE(writer.WriteInterleavedBufferToFile(data.data(), 1000));
  }
  EXPECT_EQ(ReadBytes(path).size(), 24u + 8u);
  std::remove(path.c_str());
}

TEST(AuFile, WriterRefusesBadArguments) {
  const std::string path = TempPath("bad");
  AuFileWriter writer;
  EXPECT_FALSE(writer.Initialize(nullptr, 48000, 2));
  EXPECT_FALSE(writer.Initialize(path.c_str(), 0, 2));
  EXPECT_FALSE(writer.Initialize(path.c_str(), 48000, 0));
  EXPECT_FALSE(writer.Initialize("/nonexistent-dir/x.au", 48000, 2));
  const float* none[] = {nullptr};
  EXPECT_FALSE(writer.WritePlanarBufferToFile(none, 4));
  ASSERT_TRUE(writer.Initialize(path.c_str(), 48000, 1));
  EXPECT_FALSE(writer.WritePlanarBufferToFile(none, 4));
  EXPECT_FALSE(writer.WritePlanarBufferToFile(nullptr, 4));
  std::remove(path.c_str());
}

// Copying takes over the stream: the copy keeps writing the same file and the
// source is closed.
TEST(AuFile, CopyTakesOverTheStream) {
  const std::string path = TempPath("copy");
  const float one[] = {1.0f, 2.0f};
  const float* planar[] = {one};
  {
    AuFileWriter first;
    ASSERT_TRUE(first.Initialize(path.c_str(), 22050, 1));
    AuFileWriter second(first);
    EXPECT_FALSE(first.WritePlanarBufferToFile(planar, 2));
    EXPECT_TRUE(second.WritePlanarBufferToFile(planar, 2));
    EXPECT_EQ(second.GetSampleRate(), 22050u);
  }
  AuFileReader first;
  ASSERT_TRUE(first.Initialize(path.c_str()));
  AuFileReader second;
  second = first;
  float back[2] = {};
  float* out[] = {back};
  EXPECT_FALSE(first.ReadPlanarBufferFromFile(out, 2));
  ASSERT_TRUE(second.ReadPlanarBufferFromFile(out, 2));
  EXPECT_EQ(back[1], 2.0f);
  std::remove(path.c_str());
}

// A corpus of malformed files: every header fault is refused, every
// truncation of a valid file either opens (whole header) and then reads
// short, or is refused; nothing crashes.
TEST(AuFile, MalformedAndTruncatedFilesAreRefused) {
  const std::string path = TempPath("corrupt");
  AuFileReader reader;
  EXPECT_FALSE(reader.Initialize(nullptr));
  EXPECT_FALSE(reader.Initialize("/nonexistent-dir/missing.au"));
  const std::vector<std::vector<unsigned char>> bad = {
      Header(0x646E732E, 6, 48000, 2),  // big-endian magic
      Header(0x2E736E64, 3, 48000, 2),  // 16-bit PCM encoding
      Header(0x2E736E64, 5, 48000, 2),  // 32-bit integer
      Header(0x2E736E64, 6, 0, 2),      // zero rate
      Header(0x2E736E64, 6, 48000, 0),  // zero channels
      {},
  };
  for (std::size_t i = 0; i < bad.size(); ++i) {
    WriteBytes(path, bad[i]);
    EXPECT_FALSE(reader.Initialize(path.c_str())) << "case " << i;
    EXPECT_EQ(reader.GetNumChannels(), 0u);
    float sample = 0.0f;
    float* out[] = {&sample};
    EXPECT_FALSE(reader.ReadPlanarBufferFromFile(out, 1));
    EXPECT_FALSE(reader.ReadInterleavedBufferFromFile(&sample, 1));
  }
  std::vector<unsigned char> valid = Header(0x2E736E64, 6, 16000, 2);
  for (int i = 0; i < 16; ++i) {
    valid.push_back(static_cast<unsigned char>(i * 13));
  }
  for (std::size_t length = 0; length < valid.size(); ++length) {
    WriteBytes(path, std::vector<unsigned char>(valid.begin(), valid.begin() + static_cast<long>(length)));
    const bool opened = reader.Initialize(path.c_str());
    EXPECT_EQ(opened, length >= 24) << length;
    if (opened) {
      float left[2] = {}, right[2] = {};
      float* out[] = {left, right};
      EXPECT_FALSE(reader.ReadPlanarBufferFromFile(out, 2)) << length;
    }
  }
  std::remove(path.c_str());
}

}  // namespace
