#pragma once

#include <vector>

#include "vexaudiodsp/Export.h"

namespace vexaccelerate {
struct FFTState_Float;
}

namespace dsp {
namespace guitarsuite {

/// Uniformly partitioned FFT convolution (overlap-save) of one channel with
/// an impulse response of any length, in blocks of B frames (a power of two,
/// kBlockSize = 1024 by default): the response is cut into P = ceil(length /
/// B) partitions whose spectra (transform size 2 B) are kept, each input
/// block is transformed once into a frequency-domain delay line, and one
/// output block is the inverse transform of the sum over p of X[j - p] H[p].
///
/// ProcessBlock(in, out) turns one input block into the matching block of
/// the linear convolution: no latency inside the call, but a caller that
/// gathers samples into blocks first lags by one block. Cost per sample:
/// two 2B-point real transforms / B plus P complex multiply-adds per bin /
/// B, against `length` multiply-adds for a direct FIR.
///
/// Allocation: Init only. ProcessBlock and Reset never allocate, lock or
/// throw. One thread at a time.
class VEXAUDIODSP_API PartitionedConvolution {
 public:
  static constexpr int kBlockSize = 1024;

  PartitionedConvolution();
  ~PartitionedConvolution();
  PartitionedConvolution(const PartitionedConvolution&) = delete;
  PartitionedConvolution& operator=(const PartitionedConvolution&) = delete;

  /// Takes the response (copied) and clears the state. A null response or a
  /// length of 0 gives a convolution that outputs silence. False (and a
  /// silent convolution) when blockSize is not a power of two from 16 to
  /// 65536 or the transform cannot be set up.
  bool Init(const float* impulse, int length, int blockSize = kBlockSize);
  int GetNumPartitions() const { return numPartitions_; }
  int GetBlockSize() const { return blockSize_; }
  /// Clears the input history; the response stays.
  void Reset();
  /// One block of GetBlockSize() frames in, the same count out; in == out
  /// is allowed.
  void ProcessBlock(const float* in, float* out);

 private:
  vexaccelerate::FFTState_Float* fft_ = nullptr;
  int blockSize_ = kBlockSize;
  int numPartitions_ = 0;
  int current_ = 0;
  // Spectra split into real and imaginary arrays of kBins, partition by
  // partition, so the multiply-add runs over contiguous floats.
  std::vector<float> filterRe_;
  std::vector<float> filterIm_;
  std::vector<float> inputRe_;
  std::vector<float> inputIm_;
  std::vector<float> time_;
  std::vector<float> spectrum_;
  std::vector<float> accRe_;
  std::vector<float> accIm_;
  std::vector<unsigned char> work_;
};

}  // namespace guitarsuite
}  // namespace dsp
