#include "vexaudiodsp/buffering/SampleTypes.h"

#include <cstring>

#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vu = vexaccelerate::utility;

namespace {

template <typename T>
bool IsAlignedFor(const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) % alignof(T) == 0;
}

// File buffers need not be aligned for their element type, so misaligned
// samples go through memcpy, which compiles to a plain load either way.
template <typename Helper>
void ToFloats(const void* src, float* dst, int count) {
  using T = typename Helper::ValueType;
  const unsigned char* bytes = static_cast<const unsigned char*>(src);
  constexpr std::size_t kStep = sizeof(T) * Helper::kValueMultiplier;
  for (int i = 0; i < count; ++i) {
    T value[Helper::kValueMultiplier];
    std::memcpy(value, bytes + static_cast<std::size_t>(i) * kStep, kStep);
    Helper::ConvertToNormalizedFloat(value, dst + i);
  }
}

template <typename Helper>
void FromFloats(const float* src, void* dst, int count) {
  using T = typename Helper::ValueType;
  unsigned char* bytes = static_cast<unsigned char*>(dst);
  constexpr std::size_t kStep = sizeof(T) * Helper::kValueMultiplier;
  for (int i = 0; i < count; ++i) {
    T value[Helper::kValueMultiplier];
    Helper::ConvertFromNormalizedFloat(src[i], value);
    std::memcpy(bytes + static_cast<std::size_t>(i) * kStep, value, kStep);
  }
}

}  // namespace

void Tuning_Helper_Type_32BitFloat_32768::CopyChannelToInterleavedBuffer(const float* src, float* dst, int count,
                                                                         int stride) {
  if (src == nullptr || dst == nullptr || count <= 0 || stride <= 0) return;
  for (int i = 0; i < count; ++i)
    dst[static_cast<std::size_t>(i) * stride] = src[i] * kConvertFromNormalizedFloatMultiplier;
}

std::size_t GetBytesPerSampleFromSampleType(AudioSampleType type) {
  switch (type) {
    case kSampleType32BitFloat:
      return 4;
    case kSampleType24Bit:
      return 3;
    case kSampleType16Bit:
      return 2;
    case kSampleType8Bit:
      return 1;
  }
  return 0;
}

AudioSampleType GetSampleTypeFromBitsPerSample(int bits) {
  if (bits <= 8) return kSampleType8Bit;
  if (bits <= 16) return kSampleType16Bit;
  if (bits <= 24) return kSampleType24Bit;
  return kSampleType32BitFloat;
}

void ConvertBufferToFloats(const void* src, float* dst, int count, AudioSampleType type) {
  if (src == nullptr || dst == nullptr || count <= 0) return;
  const std::size_t n = static_cast<std::size_t>(count);
  switch (type) {
    case kSampleType32BitFloat:
      if (IsAlignedFor<float>(src)) {
        vu::Copy(n, static_cast<const float*>(src), dst);
      } else {
        std::memcpy(dst, src, n * sizeof(float));
      }
      break;
    case kSampleType24Bit:
      ToFloats<Type_24Bit>(src, dst, count);
      break;
    case kSampleType16Bit:
      // vexaccelerate's int16 conversion scales by 2^-15 exactly as the helper does.
      if (IsAlignedFor<std::int16_t>(src)) {
        vu::Convert(n, static_cast<const std::int16_t*>(src), dst);
      } else {
        ToFloats<Type_16Bit>(src, dst, count);
      }
      break;
    case kSampleType8Bit:
      ToFloats<Type_8Bit>(src, dst, count);
      break;
  }
}

void ConvertBufferFromFloats(const float* src, void* dst, int count, AudioSampleType type) {
  if (src == nullptr || dst == nullptr || count <= 0) return;
  const std::size_t n = static_cast<std::size_t>(count);
  switch (type) {
    case kSampleType32BitFloat:
      if (IsAlignedFor<float>(dst)) {
        vu::Copy(n, src, static_cast<float*>(dst));
      } else {
        std::memcpy(dst, src, n * sizeof(float));
      }
      break;
    case kSampleType24Bit:
      FromFloats<Type_24Bit>(src, dst, count);
      break;
    case kSampleType16Bit:
      // Not vexaccelerate's Convert: that rounds, while stored codes truncate.
      FromFloats<Type_16Bit>(src, dst, count);
      break;
    case kSampleType8Bit:
      FromFloats<Type_8Bit>(src, dst, count);
      break;
  }
}

}  // namespace dsp
