#pragma once

#include <complex>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/SmallBlockAllocator.h"

namespace vexaccelerate {
struct IIRState_Double;
}

namespace dsp {

/// A recursive filter run in double precision on float blocks: either one
/// direct-form section of any order (1 ... 32), or a cascade of biquads.
///
/// Coefficients are laid out section after section, each as the numerator
/// b0 ... b_order followed by the denominator a0 ... a_order (a biquad is
/// b0 b1 b2 a0 a1 a2). The shape is fixed at construction: order 0, or
/// several sections of an order other than 2, leaves the filter
/// uninitialised, and an uninitialised filter passes audio through. A null
/// coefficient pointer means identity sections (b0 = a0 = 1, all else 0).
///
/// SetCoefficients normalises each section by its own a0. A section whose
/// a0 is 0 (or not finite) is stored as given, but it describes no
/// realisable recursion: the filter then keeps running its previous
/// coefficients (GetCoefficients still returns what was given). Given to the
/// constructor, such a set leaves the filter uninitialised. Callers pass keepState = true for small
/// moves (the running state carries on, no click) and false for jumps (the
/// recursion restarts from rest).
///
/// Blocks are filtered in chunks of at most 256 frames through two double
/// scratch arrays made at construction, with the state running on across
/// chunks and blocks, so any block split gives the same output. Process
/// sets flush-to-zero while it runs: a filter fed silence decays to exact
/// zeros rather than lingering in the slow subnormal range.
///
/// Response queries take the frequency as a fraction of the sample rate
/// (0 ... 0.5 for DC ... Nyquist) and evaluate the transfer function of the
/// stored coefficients, including each section's a0: magnitude as a linear
/// factor, phase in radians in (-pi, pi], group delay in samples.
///
/// Allocation: the constructor, copying and Allocate. SetCoefficients,
/// Reset, the Process calls and the queries never allocate, lock or throw.
/// One thread at a time.
class VEXAUDIODSP_API IIRFilter {
 public:
  using CoefficientVector = vexcore::utility::SmallBlockVector<double>;

  /// Chunk length of block processing and the scratch arrays' capacity.
  static constexpr unsigned kMaxChunk = 256;

  IIRFilter(unsigned int order, const double* coefficients, unsigned int numCascades = 1);
  /// Copies coefficients and the running state.
  IIRFilter(const IIRFilter& other);
  IIRFilter& operator=(const IIRFilter& other);
  ~IIRFilter();

  /// Grows both scratch arrays to min(maxFrames, 256) doubles; never shrinks.
  void Allocate(unsigned int maxFrames);

  /// Replaces the coefficients (null: identity). Does nothing on an
  /// uninitialised filter.
  void SetCoefficients(const double* coefficients, bool keepState);
  /// Back to rest; the coefficients stay.
  void Reset();

  /// One sample; an uninitialised filter returns x.
  float ProcessSingle(float x);
  double ProcessSingle(double x);
  /// `in` and `out` may be the same array. Nothing is written when the
  /// filter is uninitialised or frames is 0.
  void Process(unsigned int frames, const float* in, float* out);
  void ProcessInPlace(unsigned int frames, float* data);

  bool IsInitialised() const { return state_ != nullptr; }
  const CoefficientVector& GetCoefficients() const { return coefficients_; }
  void GetCoefficients(std::vector<double>& out) const;
  /// Writes GetNumCoefficients() values.
  void GetCoefficients(double* out) const;
  unsigned GetNumCoefficients() const { return static_cast<unsigned>(coefficients_.size()); }
  unsigned int GetOrder() const { return order_; }
  unsigned int GetNumCascades() const { return cascades_; }

  /// Responses of this filter; an uninitialised filter answers as the
  /// identity it behaves as (1, 0 and 0).
  double GetMagnitudeResponse(float frequency) const;
  double GetPhaseResponse(float frequency) const;
  double GetGroupDelay(float frequency) const;

  /// Responses of any caller array in the layout above. `order` >= 1.
  static std::complex<double> GetFrequencyResponse(double frequency, const double* coefficients, unsigned order,
                                                   unsigned cascades);
  static double GetMagnitudeResponse(float frequency, const double* coefficients, unsigned order, unsigned cascades);
  static double GetPhaseResponse(float frequency, const double* coefficients, unsigned order, unsigned cascades);
  static double GetGroupDelay(float frequency, const double* coefficients, unsigned order, unsigned cascades);

 private:
  void CreateState();
  void Run(unsigned int frames, const float* in, float* out);

  vexaccelerate::IIRState_Double* state_ = nullptr;
  unsigned int order_;
  unsigned int cascades_;
  CoefficientVector coefficients_;
  // The last set the recursion accepted, for copies.
  CoefficientVector runningTaps_;
  std::vector<double> inScratch_;
  std::vector<double> outScratch_;
};

}  // namespace dsp
