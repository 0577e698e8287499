#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "support/AllocationCounter.h"
#include "vexaudiodsp/buffering/SampleTypes.h"

namespace {

using dsp::AudioSampleType;

TEST(SampleTypes, Every8And16BitCodeRoundTrips) {
  std::vector<std::int16_t> codes(65536), back(65536);
  std::vector<float> floats(65536);
  for (int i = 0; i < 65536; ++i) codes[i] = static_cast<std::int16_t>(i - 32768);
  dsp::ConvertBufferToFloats(codes.data(), floats.data(), 65536, dsp::kSampleType16Bit);
  for (int i = 0; i < 65536; ++i) ASSERT_EQ(floats[i], static_cast<float>(i - 32768) / 32768.0f) << i;
  EXPECT_NO_ALLOCATION(dsp::ConvertBufferFromFloats(floats.data(), back.data(), 65536, dsp::kSampleType16Bit));
  EXPECT_EQ(back, codes);

  std::vector<std::uint8_t> codes8(256), back8(256);
  for (int i = 0; i < 256; ++i) codes8[i] = static_cast<std::uint8_t>(i);
  dsp::ConvertBufferToFloats(codes8.data(), floats.data(), 256, dsp::kSampleType8Bit);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(floats[i], static_cast<float>(i - 128) / 128.0f) << i;
  dsp::ConvertBufferFromFloats(floats.data(), back8.data(), 256, dsp::kSampleType8Bit);
  EXPECT_EQ(back8, codes8);
}

TEST(SampleTypes, Every24BitCodeRoundTrips) {
  constexpr int kChunk = 1 << 16;
  std::vector<std::uint8_t> bytes(kChunk * 3), back(kChunk * 3);
  std::vector<float> floats(kChunk);
  for (std::int32_t base = -8388608; base < 8388608; base += kChunk) {
    for (int i = 0; i < kChunk; ++i) {
      const std::uint32_t u = static_cast<std::uint32_t>(base + i);  // little-endian, sign in bit 23
      for (int b = 0; b < 3; ++b) bytes[3 * i + b] = static_cast<std::uint8_t>(u >> (8 * b));
    }
    dsp::ConvertBufferToFloats(bytes.data(), floats.data(), kChunk, dsp::kSampleType24Bit);
    for (int i = 0; i < kChunk; ++i)
      ASSERT_EQ(floats[i], static_cast<float>(static_cast<double>(base + i) / 8388608.0)) << base + i;
    dsp::ConvertBufferFromFloats(floats.data(), back.data(), kChunk, dsp::kSampleType24Bit);
    ASSERT_EQ(back, bytes) << "chunk at " << base;
  }
}

// +1 clamps to the largest code, -1 reaches the smallest; steps truncate
// toward zero; NaN is silence in integer storage and passes through floats.
TEST(SampleTypes, ClampingIsAsymmetricAndNaNIsSilence) {
  constexpr int n = 8;
  const float in[n] = {1.0f,          -1.0f,         std::numeric_limits<float>::infinity(),
                       -2.0f,         std::nanf(""), 1.5f / 32768.0f,
                       1.5f / 128.0f, -1.5f / 128.0f};
  std::int16_t s16[n];
  std::uint8_t s8[n], s24[3 * n];
  float f32[n];
  dsp::ConvertBufferFromFloats(in, s16, n, dsp::kSampleType16Bit);
  dsp::ConvertBufferFromFloats(in, s8, n, dsp::kSampleType8Bit);
  dsp::ConvertBufferFromFloats(in, s24, n, dsp::kSampleType24Bit);
  dsp::ConvertBufferFromFloats(in, f32, n, dsp::kSampleType32BitFloat);
  const std::int16_t e16[n] = {32767, -32768, 32767, -32768, 0, 1, 384, -384};
  const std::uint8_t e8[n] = {255, 0, 255, 0, 128, 128, 129, 127};
  const std::int32_t e24[n] = {8388607, -8388608, 8388607, -8388608, 0, 384, 98304, -98304};
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(s16[i], e16[i]) << i;
    EXPECT_EQ(s8[i], e8[i]) << i;
    EXPECT_EQ(dsp::Type_24Bit::Read(s24 + 3 * i), e24[i]) << i;
  }
  EXPECT_EQ(f32[3], -2.0f);  // float storage does not clamp
  EXPECT_TRUE(std::isnan(f32[4]));
}

TEST(SampleTypes, TypesFromBitsAndBytesFromTypes) {
  const std::pair<int, AudioSampleType> fromBits[] = {
      {-5, dsp::kSampleType8Bit},       {0, dsp::kSampleType8Bit},        {1, dsp::kSampleType8Bit},
      {8, dsp::kSampleType8Bit},        {9, dsp::kSampleType16Bit},       {16, dsp::kSampleType16Bit},
      {17, dsp::kSampleType24Bit},      {20, dsp::kSampleType24Bit},      {24, dsp::kSampleType24Bit},
      {25, dsp::kSampleType32BitFloat}, {32, dsp::kSampleType32BitFloat}, {64, dsp::kSampleType32BitFloat}};
  for (const auto& [bits, type] : fromBits) EXPECT_EQ(dsp::GetSampleTypeFromBitsPerSample(bits), type) << bits;
  const std::pair<int, std::size_t> bytes[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 0}, {-1, 0}, {99, 0}};
  for (const auto& [type, n] : bytes) EXPECT_EQ(dsp::GetBytesPerSampleFromSampleType(AudioSampleType(type)), n) << type;
}

TEST(SampleTypes, NothingIsWrittenForEmptyOrUnknownRequests) {
  const float in[4] = {0.5f, 0.5f, 0.5f, 0.5f};
  std::int16_t out[4] = {7, 7, 7, 7};
  dsp::ConvertBufferFromFloats(in, out, -3, dsp::kSampleType16Bit);
  dsp::ConvertBufferFromFloats(nullptr, out, 4, dsp::kSampleType16Bit);
  dsp::ConvertBufferFromFloats(in, out, 4, AudioSampleType(9));
  for (std::int16_t v : out) EXPECT_EQ(v, 7);
}

}  // namespace
