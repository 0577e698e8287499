#include "vexaudiodsp/buffering/DelayLine.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "vexaccelerate/Utility.h"

namespace dsp {
namespace utility {
namespace {

namespace vu = vexaccelerate::utility;

// Keeps absurd sizes from overflowing the length computation (2^30 samples
// are more than six hours at 48 kHz).
constexpr float kMaxSamples = 1073741824.0f;
constexpr std::uint32_t kScratch = 256;

bool Usable(float v) { return std::isfinite(v) && v > 0.0f; }

std::size_t BufferLength(float sampleRate, float maxDelayMillis) {
  if (!Usable(sampleRate) || !Usable(maxDelayMillis)) return 1;
  const float samples = std::min(std::ceil(sampleRate * (maxDelayMillis / 1000.0f)), kMaxSamples);
  return static_cast<std::size_t>(static_cast<int>(samples + 0.5f)) + 1;
}

void WriteRing(std::uint32_t n, const float* src, float* ring, std::uint32_t length, std::uint32_t pos) {
  const std::uint32_t first = std::min(n, length - pos);
  vu::Copy(first, src, ring + pos);
  vu::Copy(n - first, src + first, ring);
}

void ReadRing(std::uint32_t n, const float* ring, std::uint32_t length, std::uint32_t pos, float* dst) {
  const std::uint32_t first = std::min(n, length - pos);
  vu::Copy(first, ring + pos, dst);
  vu::Copy(n - first, ring, dst + first);
}

}  // namespace

DelayLine::DelayLine(float sampleRate, float maxDelayMillis)
    : sampleRate_(sampleRate),
      maxDelayMillis_(Usable(maxDelayMillis) ? maxDelayMillis : 0.0f),
      buffer_(BufferLength(sampleRate, maxDelayMillis), 0.0f) {}

DelayLine::~DelayLine() = default;

void DelayLine::SetDelayMillis(float ms) {
  if (ms == delayMillis_ || std::isnan(ms)) return;
  ms = std::clamp(ms, 0.0f, maxDelayMillis_);
  delayMillis_ = ms;
  const auto last = static_cast<std::uint32_t>(buffer_.size() - 1);
  const double samples = Usable(sampleRate_) ? ms * 0.001 * sampleRate_ + 0.5 : 0.0;
  delaySamples_ = samples >= last ? last : static_cast<std::uint32_t>(samples);
  UpdateReadIndex();
}

void DelayLine::SetDelaySamples(unsigned samples) {
  const auto last = static_cast<std::uint32_t>(buffer_.size() - 1);
  if (samples >= last) samples = last;
  if (samples == delaySamples_) return;
  delaySamples_ = samples;
  delayMillis_ = Usable(sampleRate_) ? static_cast<float>(samples) / sampleRate_ * 1000.0f : 0.0f;
  UpdateReadIndex();
}

void DelayLine::UpdateReadIndex() {
  const auto length = static_cast<std::uint32_t>(buffer_.size());
  readIndex_ = (writeIndex_ + length - delaySamples_) % length;
}

void DelayLine::Reset() {
  float* ring = buffer_.data();
  const auto length = static_cast<std::uint32_t>(buffer_.size());
  if (readIndex_ < writeIndex_) {
    vu::Zero(writeIndex_ - readIndex_, ring + readIndex_);
  } else if (readIndex_ > writeIndex_) {
    vu::Zero(writeIndex_, ring);
    // Stops one short of the end: the last element keeps its value.
    vu::Zero(length - 1 - readIndex_, ring + readIndex_);
  }
}

// Per sample a delay line does: write x at the write index, advance, read at
// the read index, advance. The read index always trails by exactly d samples,
// so the output is the input of d samples before. That is done here in
// chunks of plain copies:
//  - chunks of at most L - d samples: write the chunk first, then read; the
//    d + k samples from the read index onwards (old history, then the new
//    chunk) do not overlap, so nothing still needed is overwritten.
//  - chunks of at most d samples: every read sees only samples from before
//    the chunk, so read them into a scratch block before writing.
// Whichever allows the longer chunk is used; that is at least min(L / 2, 256).
void DelayLine::ProcessInPlace(unsigned n, float* data) {
  if (data == nullptr || n == 0) return;
  float* ring = buffer_.data();
  const auto length = static_cast<std::uint32_t>(buffer_.size());
  const std::uint32_t delay = delaySamples_;
  std::uint32_t write = writeIndex_;
  std::uint32_t read = readIndex_;
  const std::uint32_t chunkWriteFirst = length - delay;
  const std::uint32_t chunkScratch = std::min(delay, kScratch);
  float scratch[kScratch];
  while (n > 0) {
    std::uint32_t k;
    if (chunkWriteFirst >= chunkScratch) {
      k = std::min(n, chunkWriteFirst);
      WriteRing(k, data, ring, length, write);
      if (delay != 0) ReadRing(k, ring, length, read, data);
    } else {
      k = std::min(n, chunkScratch);
      ReadRing(k, ring, length, read, scratch);
      WriteRing(k, data, ring, length, write);
      vu::Copy(k, scratch, data);
    }
    write = (write + k) % length;
    read = (read + k) % length;
    data += k;
    n -= k;
  }
  writeIndex_ = write;
  readIndex_ = read;
}

}  // namespace utility
}  // namespace dsp
