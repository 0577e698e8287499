#include "vexaudiodsp/guitarsuite/PartitionedConvolution.h"

#include <algorithm>

#include "vexaccelerate/Transform.h"
#include "vexaccelerate/Utility.h"

namespace dsp {
namespace guitarsuite {
namespace {
namespace vt = vexaccelerate::transform;
namespace vu = vexaccelerate::utility;
}  // namespace

PartitionedConvolution::PartitionedConvolution() = default;
PartitionedConvolution::~PartitionedConvolution() { vt::FFTFree(fft_); }

bool PartitionedConvolution::Init(const float* impulse, int length, int blockSize) {
  numPartitions_ = 0;
  int order = 4;
  while (order <= 16 && (1 << order) != blockSize) ++order;
  if (order > 16) return false;
  if (fft_ == nullptr || blockSize != blockSize_) {
    vt::FFTFree(fft_);
    fft_ = nullptr;
    if (vt::FFTInit(&fft_, order + 1) != 0) return false;
  }
  blockSize_ = blockSize;
  const int block = blockSize;
  int workBytes = 0;
  vt::FFTGetBufSize(fft_, &workBytes);
  work_.assign(static_cast<std::size_t>(std::max(workBytes, 0)), 0);
  numPartitions_ = impulse == nullptr || length <= 0 ? 0 : (length + block - 1) / block;
  const auto bins = static_cast<std::size_t>(blockSize + 1);
  const auto total = bins * static_cast<std::size_t>(numPartitions_);
  filterRe_.assign(total, 0.0f);
  filterIm_.assign(total, 0.0f);
  inputRe_.assign(total, 0.0f);
  inputIm_.assign(total, 0.0f);
  time_.assign(2 * bins, 0.0f);
  spectrum_.assign(2 * bins, 0.0f);
  accRe_.assign(bins, 0.0f);
  accIm_.assign(bins, 0.0f);
  for (int p = 0; p < numPartitions_; ++p) {
    // Overlap-save keeps the second half of each circular result, so a
    // partition sits in the first half of its zero-padded transform.
    std::fill(time_.begin(), time_.end(), 0.0f);
    const int count = std::min(block, length - p * block);
    vu::Copy(static_cast<std::size_t>(count), impulse + p * block, time_.data());
    vt::FFTFwd(fft_, time_.data(), spectrum_.data(), work_.data());
    for (std::size_t k = 0; k < bins; ++k) {
      filterRe_[p * bins + k] = spectrum_[2 * k];
      filterIm_[p * bins + k] = spectrum_[2 * k + 1];
    }
  }
  Reset();
  return true;
}

void PartitionedConvolution::Reset() {
  std::fill(inputRe_.begin(), inputRe_.end(), 0.0f);
  std::fill(inputIm_.begin(), inputIm_.end(), 0.0f);
  std::fill(time_.begin(), time_.end(), 0.0f);
  current_ = 0;
}

void PartitionedConvolution::ProcessBlock(const float* in, float* out) {
  const auto block = static_cast<std::size_t>(blockSize_);
  if (numPartitions_ == 0) {
    vu::Zero(block, out);
    return;
  }
  const std::size_t bins = block + 1;
  float* time = time_.data();
  vu::Copy(block, in, time + block);
  vt::FFTFwd(fft_, time, spectrum_.data(), work_.data());
  // The newest block's input becomes the older half of the next frame.
  vu::Copy(block, time + block, time);

  float* newRe = inputRe_.data() + static_cast<std::size_t>(current_) * bins;
  float* newIm = inputIm_.data() + static_cast<std::size_t>(current_) * bins;
  const float* spectrum = spectrum_.data();
  for (std::size_t k = 0; k < bins; ++k) {
    newRe[k] = spectrum[2 * k];
    newIm[k] = spectrum[2 * k + 1];
  }
  float* accRe = accRe_.data();
  float* accIm = accIm_.data();
  vu::Zero(bins, accRe);
  vu::Zero(bins, accIm);
  for (int p = 0; p < numPartitions_; ++p) {
    int slot = current_ - p;
    if (slot < 0) slot += numPartitions_;
    const float* xr = inputRe_.data() + static_cast<std::size_t>(slot) * bins;
    const float* xi = inputIm_.data() + static_cast<std::size_t>(slot) * bins;
    const float* hr = filterRe_.data() + static_cast<std::size_t>(p) * bins;
    const float* hi = filterIm_.data() + static_cast<std::size_t>(p) * bins;
    for (std::size_t k = 0; k < bins; ++k) {
      accRe[k] += xr[k] * hr[k] - xi[k] * hi[k];
      accIm[k] += xr[k] * hi[k] + xi[k] * hr[k];
    }
  }
  current_ = current_ + 1 == numPartitions_ ? 0 : current_ + 1;

  float* result = spectrum_.data();
  for (std::size_t k = 0; k < bins; ++k) {
    result[2 * k] = accRe[k];
    result[2 * k + 1] = accIm[k];
  }
  vt::FFTInv(fft_, result, result, work_.data());
  vu::Copy(block, result + block, out);
}

}  // namespace guitarsuite
}  // namespace dsp
