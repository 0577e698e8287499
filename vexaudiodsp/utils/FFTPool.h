#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"

namespace vexaccelerate {
struct FFTState_Float;
}

namespace dsp {

/// Real float FFT states shared by order among the parts of one processor,
/// with one work buffer sized for the largest of them.
///
/// States are created lazily (GetFFT) or ahead of time (AddOrder) with
/// vexaccelerate's default scaling (forward unscaled, inverse / N) and its
/// real layout (CCS, see utils/IppFFT.h), and live until the pool is
/// destroyed. The caller runs transforms with vexaccelerate::transform::
/// FFTFwd/FFTInv on a state and GetFFTBuffer(). The buffer only grows, so a
/// pointer from GetFFTBuffer() stays valid until the next AddOrder/GetFFT
/// that creates a larger state.
///
/// AddOrder, GetFFT of a new order, copying and destruction allocate or free
/// (configuration); GetFFT of an existing order and GetFFTBuffer do not.
/// Orders 1 ... 27 can be planned; GetFFT answers null for an order >= 32 or
/// one that cannot be planned. No locks: one pool per processor, and its
/// single work buffer must not serve two transforms at once.
class VEXAUDIODSP_API FFTPool {
 public:
  explicit FFTPool(const std::string& name);
  ~FFTPool();
  /// A copy plans its own states for the same orders (states are never
  /// shared, so each pool frees only its own).
  FFTPool(const FFTPool& other);
  FFTPool& operator=(const FFTPool& other);

  static constexpr unsigned kMaxOrders = 32;

  /// Creates the state of this order unless it exists or order >= 32, and
  /// grows the shared buffer (new bytes zeroed) to what it needs.
  void AddOrder(unsigned order);
  vexaccelerate::FFTState_Float* GetFFT(unsigned order);
  std::uint8_t* GetFFTBuffer() const { return bufferData_; }
  std::size_t GetFFTBufferBytes() const { return buffer_.size(); }
  const std::string& GetName() const { return name_; }

 private:
  void FreeAll();

  std::string name_;
  vexaccelerate::FFTState_Float* states_[kMaxOrders] = {};
  std::vector<std::uint8_t> buffer_;
  std::uint8_t* bufferData_ = nullptr;
};

}  // namespace dsp
