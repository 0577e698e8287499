#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Storage formats of samples outside the library (files, devices).
enum AudioSampleType : int {
  kSampleType8Bit = 1,        ///< unsigned 8-bit, 128 = silence
  kSampleType16Bit = 2,       ///< signed 16-bit
  kSampleType24Bit = 3,       ///< signed 24-bit, 3 bytes little-endian
  kSampleType32BitFloat = 4,  ///< 32-bit float, nominal range [-1, 1]
};

// Per-sample conversions between a storage format and normalised float
// (full scale = [-1, 1)). Each helper is a set of static functions plus
// kValueMultiplier, the number of ValueType elements one sample occupies, so
// generic loops step their pointer by it.
//
// To: stored sample -> float. From: float -> stored sample; x >= 1 gives the
// largest positive code and x <= -1 the most negative one (asymmetric on
// purpose: both ends of the float range reach a code), values in between are
// scaled and truncated toward zero, and NaN gives the code of 0.0.
// AverageAdd/AverageFinish average several stored samples into one float
// (acc starts at 0, count is the number of samples added; a count <= 0 gives
// 0). The 24-bit helper normalises while adding, the 16- and 8-bit ones when
// finishing; the averages agree. Nothing here allocates.

/// 32-bit float: copies in both directions, no clamping.
struct VEXAUDIODSP_API Type_32BitFloat {
  using ValueType = float;
  static constexpr int kValueMultiplier = 1;

  static void ConvertToNormalizedFloat(const float* in, float* out) { *out = *in; }
  static void ConvertFromNormalizedFloat(const float& in, float* out) { *out = in; }
  static void ConvertToNormalizedFloatAverageAdd(const float* in, float& acc) { acc += *in; }
  static void ConvertToNormalizedFloatAverageFinish(const float& acc, const int& count, float& out) {
    out = count > 0 ? acc / static_cast<float>(count) : 0.0f;
  }
};

/// Signed 24-bit packed into 3 bytes, little-endian; scale 2^-23.
struct VEXAUDIODSP_API Type_24Bit {
  using ValueType = std::uint8_t;
  static constexpr int kValueMultiplier = 3;
  static constexpr float kToFloat = 1.0f / 8388608.0f;

  static std::int32_t Read(const std::uint8_t* in) {
    std::int32_t v = static_cast<std::int32_t>(in[0]) | (static_cast<std::int32_t>(in[1]) << 8) |
                     (static_cast<std::int32_t>(in[2]) << 16);
    if (v & 0x800000) v -= 0x1000000;
    return v;
  }
  static void ConvertToNormalizedFloat(const std::uint8_t* in, float* out) {
    *out = static_cast<float>(Read(in)) * kToFloat;
  }
  static void ConvertFromNormalizedFloat(const float& in, std::uint8_t* out) {
    std::int32_t v = 0;
    if (in >= 1.0f) {
      v = 0x7FFFFF;
    } else if (in <= -1.0f) {
      v = -8388608;
    } else if (!std::isnan(in)) {  // NaN fails both comparisons above and stays 0
      v = static_cast<std::int32_t>(in * 8388608.0f);
    }
    const std::uint32_t u = static_cast<std::uint32_t>(v);
    out[0] = static_cast<std::uint8_t>(u & 0xFFu);
    out[1] = static_cast<std::uint8_t>((u >> 8) & 0xFFu);
    out[2] = static_cast<std::uint8_t>((u >> 16) & 0xFFu);
  }
  static void ConvertToNormalizedFloatAverageAdd(const std::uint8_t* in, float& acc) {
    acc += static_cast<float>(Read(in)) * kToFloat;
  }
  static void ConvertToNormalizedFloatAverageFinish(const float& acc, const int& count, float& out) {
    out = count > 0 ? acc / static_cast<float>(count) : 0.0f;
  }
};

/// Signed 16-bit; scale 2^-15.
struct VEXAUDIODSP_API Type_16Bit {
  using ValueType = std::int16_t;
  static constexpr int kValueMultiplier = 1;
  static constexpr float kToFloat = 1.0f / 32768.0f;

  static void ConvertToNormalizedFloat(const std::int16_t* in, float* out) {
    *out = static_cast<float>(*in) * kToFloat;
  }
  static void ConvertFromNormalizedFloat(const float& in, std::int16_t* out) {
    if (in >= 1.0f) {
      *out = 32767;
    } else if (in <= -1.0f) {
      *out = -32768;
    } else if (!std::isnan(in)) {
      *out = static_cast<std::int16_t>(static_cast<std::int32_t>(in * 32768.0f));
    } else {
      *out = 0;
    }
  }
  static void ConvertToNormalizedFloatAverageAdd(const std::int16_t* in, float& acc) { acc += static_cast<float>(*in); }
  static void ConvertToNormalizedFloatAverageFinish(const float& acc, const int& count, float& out) {
    out = count > 0 ? acc / static_cast<float>(count) * kToFloat : 0.0f;
  }
};

/// Unsigned 8-bit with 128 as zero; scale 2^-7.
struct VEXAUDIODSP_API Type_8Bit {
  using ValueType = std::uint8_t;
  static constexpr int kValueMultiplier = 1;
  static constexpr float kToFloat = 1.0f / 128.0f;

  static void ConvertToNormalizedFloat(const std::uint8_t* in, float* out) {
    *out = static_cast<float>(static_cast<int>(*in) - 128) * kToFloat;
  }
  static void ConvertFromNormalizedFloat(const float& in, std::uint8_t* out) {
    if (in >= 1.0f) {
      *out = 255;
    } else if (in <= -1.0f) {
      *out = 0;
    } else if (!std::isnan(in)) {
      // (truncate(x * 128) - 128) modulo 256, which is the code + 128.
      *out = static_cast<std::uint8_t>(static_cast<std::int32_t>(in * 128.0f) + 128);
    } else {
      *out = 128;
    }
  }
  static void ConvertToNormalizedFloatAverageAdd(const std::uint8_t* in, float& acc) {
    acc += static_cast<float>(static_cast<int>(*in) - 128);
  }
  static void ConvertToNormalizedFloatAverageFinish(const float& acc, const int& count, float& out) {
    out = count > 0 ? acc / static_cast<float>(count) * kToFloat : 0.0f;
  }
};

/// Float samples kept at 16-bit scale (full scale = 32768.0) instead of
/// [-1, 1], for code that hands floats to 16-bit-scaled consumers without
/// quantising. No clamping.
struct VEXAUDIODSP_API Tuning_Helper_Type_32BitFloat_32768 {
  using ValueType = float;
  static constexpr int kValueMultiplier = 1;
  static constexpr float kConvertToNormalizedFloatMultiplier = 1.0f / 32768.0f;
  static constexpr float kConvertFromNormalizedFloatMultiplier = 32768.0f;

  static void ConvertToNormalizedFloat(const float* in, float* out) {
    *out = *in * kConvertToNormalizedFloatMultiplier;
  }
  static void ConvertFromNormalizedFloat(const float& in, float* out) {
    *out = in * kConvertFromNormalizedFloatMultiplier;
  }
  static void ConvertToNormalizedFloatAverageAdd(const float* in, float& acc) {
    acc += *in * kConvertToNormalizedFloatMultiplier;
  }
  static void ConvertToNormalizedFloatAverageFinish(const float& acc, const int& count, float& out) {
    out = count > 0 ? acc / static_cast<float>(count) : 0.0f;
  }
  /// dst[i * stride] = src[i] * 32768 for i < count: one channel of a
  /// normalised planar block into an interleaved 16-bit-scaled block.
  /// Nothing happens for count <= 0, stride <= 0 or null pointers.
  static void CopyChannelToInterleavedBuffer(const float* src, float* dst, int count, int stride);
};

/// 4, 3, 2, 1 bytes for the four types; 0 for anything else.
VEXAUDIODSP_API std::size_t GetBytesPerSampleFromSampleType(AudioSampleType type);
/// <= 8 bits: 8-bit; <= 16: 16-bit; <= 24: 24-bit; else 32-bit float.
VEXAUDIODSP_API AudioSampleType GetSampleTypeFromBitsPerSample(int bits);
/// Converts `count` samples of `type` (packed, GetBytesPerSampleFromSampleType
/// bytes each; `src` may be unaligned) to normalised floats. An unknown type,
/// count <= 0 or a null pointer converts nothing. Never allocates.
VEXAUDIODSP_API void ConvertBufferToFloats(const void* src, float* dst, int count, AudioSampleType type);
/// The reverse of ConvertBufferToFloats with the clamping rules above.
VEXAUDIODSP_API void ConvertBufferFromFloats(const float* src, void* dst, int count, AudioSampleType type);

}  // namespace dsp
