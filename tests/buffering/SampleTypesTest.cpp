#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/SampleTypes.h"

namespace {

using dsp::AudioSampleType;

TEST(SampleTypes, TypeSelectionBoundaries) {
  const std::pair<int, AudioSampleType> cases[] = {{0, dsp::kSampleType8Bit},       {8, dsp::kSampleType8Bit},
                                                   {9, dsp::kSampleType16Bit},      {16, dsp::kSampleType16Bit},
                                                   {17, dsp::kSampleType24Bit},     {24, dsp::kSampleType24Bit},
                                                   {25, dsp::kSampleType32BitFloat}};
  for (const auto& c : cases) EXPECT_EQ(dsp::GetSampleTypeFromBitsPerSample(c.first), c.second) << c.first;
  EXPECT_EQ(dsp::GetBytesPerSampleFromSampleType(AudioSampleType(5)), 0u);
}

TEST(SampleTypes, Every8And16BitCodeRoundTrips) {
  std::vector<std::int16_t> codes(65536), back(65536);
  std::vector<float> floats(65536);
  for (int i = 0; i < 65536; ++i) codes[i] = static_cast<std::int16_t>(i - 32768);
  dsp::ConvertBufferToFloats(codes.data(), floats.data(), 65536, dsp::kSampleType16Bit);
  for (int i = 0; i < 65536; ++i) ASSERT_EQ(floats[i], static_cast<float>(i - 32768) / 32768.0f) << i;
  EXPECT_NO_ALLOCATION(dsp::ConvertBufferFromFloats(floats.data(), back.data(), 65536, dsp::kSampleType16Bit));
  EXPECT_EQ(back, codes);

  // Unaligned source bytes give the same values.
  std::vector<unsigned char> bytes(65536 * 2 + 1);
  std::memcpy(bytes.data() + 1, codes.data(), 65536 * 2);
  std::vector<float> fromUnaligned(65536);
  dsp::ConvertBufferToFloats(bytes.data() + 1, fromUnaligned.data(), 65536, dsp::kSampleType16Bit);
  EXPECT_EQ(fromUnaligned, floats);

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
      bytes[3 * i] = static_cast<std::uint8_t>(u);
      bytes[3 * i + 1] = static_cast<std::uint8_t>(u >> 8);
      bytes[3 * i + 2] = static_cast<std::uint8_t>(u >> 16);
    }
    dsp::ConvertBufferToFloats(bytes.data(), floats.data(), kChunk, dsp::kSampleType24Bit);
    for (int i = 0; i < kChunk; ++i)
      ASSERT_EQ(floats[i], static_cast<float>(static_cast<double>(base + i) / 8388608.0)) << base + i;
    dsp::ConvertBufferFromFloats(floats.data(), back.data(), kChunk, dsp::kSampleType24Bit);
    ASSERT_EQ(back, bytes) << "chunk at " << base;
  }
}

TEST(SampleTypes, ClampingIsAsymmetricAndNaNIsSilence) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  constexpr int n = 12;
  const float in[n] = {
      1.0f,        -1.0f,         2.0f,          -2.0f, inf, -inf, nan, 1.5f / 32768.0f, -1.5f / 32768.0f,
      0.99999994f, 1.5f / 128.0f, -1.5f / 128.0f};

  std::int16_t s16[n];
  dsp::ConvertBufferFromFloats(in, s16, n, dsp::kSampleType16Bit);
  const std::int16_t e16[n] = {32767, -32768, 32767, -32768, 32767, -32768, 0, 1, -1, 32767, 384, -384};
  for (int i = 0; i < n; ++i) EXPECT_EQ(s16[i], e16[i]) << i;

  // Truncation toward zero: +-1.5 steps become +-1.
  std::uint8_t s8[n];
  dsp::ConvertBufferFromFloats(in, s8, n, dsp::kSampleType8Bit);
  const std::uint8_t e8[n] = {255, 0, 255, 0, 255, 0, 128, 128, 128, 255, 129, 127};
  for (int i = 0; i < n; ++i) EXPECT_EQ(s8[i], e8[i]) << i;

  std::uint8_t s24[3 * n];
  dsp::ConvertBufferFromFloats(in, s24, n, dsp::kSampleType24Bit);
  const std::int32_t e24[n] = {8388607, -8388608, 8388607, -8388608, 8388607, -8388608,
                               0,       384,      -384,    8388607,  98304,   -98304};
  for (int i = 0; i < n; ++i) EXPECT_EQ(dsp::Type_24Bit::Read(s24 + 3 * i), e24[i]) << i;

  float f32[n];
  dsp::ConvertBufferFromFloats(in, f32, n, dsp::kSampleType32BitFloat);
  EXPECT_EQ(f32[2], 2.0f);  // float storage does not clamp
  EXPECT_TRUE(std::isnan(f32[6]));
}

TEST(SampleTypes, NothingHappensForEmptyOrUnknownRequests) {
  const float in[4] = {0.5f, 0.5f, 0.5f, 0.5f};
  std::int16_t out[4] = {7, 7, 7, 7};
  dsp::ConvertBufferFromFloats(in, out, -3, dsp::kSampleType16Bit);
  dsp::ConvertBufferFromFloats(nullptr, out, 4, dsp::kSampleType16Bit);
  dsp::ConvertBufferFromFloats(in, out, 4, AudioSampleType(9));
  for (std::int16_t v : out) EXPECT_EQ(v, 7);
  float back[4] = {3.0f, 3.0f, 3.0f, 3.0f};
  dsp::ConvertBufferToFloats(out, back, 0, dsp::kSampleType16Bit);
  dsp::ConvertBufferToFloats(out, back, 4, AudioSampleType(0));
  for (float v : back) EXPECT_EQ(v, 3.0f);
}

// Averages agree whether the helper normalises while adding (24-bit) or when
// finishing (16- and 8-bit).
TEST(SampleTypes, AveragesAgreeAcrossTypes) {
  const auto noise = vextest::Noise(37, 7, 0.9);
  float acc24 = 0, acc16 = 0, acc8 = 0;
  double ref16 = 0, ref8 = 0;
  for (float x : noise) {
    std::int16_t c16;
    dsp::Type_16Bit::ConvertFromNormalizedFloat(x, &c16);
    std::uint8_t c24[3], c8;
    dsp::Type_24Bit::ConvertFromNormalizedFloat(static_cast<float>(c16) / 32768.0f, c24);
    dsp::Type_8Bit::ConvertFromNormalizedFloat(x, &c8);
    dsp::Type_24Bit::ConvertToNormalizedFloatAverageAdd(c24, acc24);
    dsp::Type_16Bit::ConvertToNormalizedFloatAverageAdd(&c16, acc16);
    dsp::Type_8Bit::ConvertToNormalizedFloatAverageAdd(&c8, acc8);
    ref16 += c16 / 32768.0;
    ref8 += (c8 - 128) / 128.0;
  }
  const int count = static_cast<int>(noise.size());
  float avg24, avg16, avg8, none = 5.0f;
  dsp::Type_24Bit::ConvertToNormalizedFloatAverageFinish(acc24, count, avg24);
  dsp::Type_16Bit::ConvertToNormalizedFloatAverageFinish(acc16, count, avg16);
  dsp::Type_8Bit::ConvertToNormalizedFloatAverageFinish(acc8, count, avg8);
  dsp::Type_16Bit::ConvertToNormalizedFloatAverageFinish(acc16, 0, none);
  EXPECT_NEAR(avg16, ref16 / count, 1e-6);
  EXPECT_NEAR(avg24, ref16 / count, 1e-6);
  EXPECT_NEAR(avg8, ref8 / count, 1e-6);
  EXPECT_EQ(none, 0.0f);
}

}  // namespace
