#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

// Fixed-size FFT engines. The names come from the Intel IPP engines these
// classes replace; the transforms run on the FFT states of
// vexaccelerate/Transform.h (FFTW 3 underneath).
//
// Size. Init(size) derives the order with a halving loop: starting at -1,
// while size != 0 and (size is even or this is the first odd value met),
// halve and add 1. A power of two 2^k plans 2^k; any other size plans a
// shorter power of two (1000 plans 16), so callers pass powers of two. Orders
// 1 ... 27 are supported (sizes 2 ... 2^27); any other size leaves the engine
// uninitialised. GetSize() returns the size as given.
//
// Direction. dir == 1 is the forward transform (e^{-i 2 pi k n / N}), any
// other value the inverse (e^{+i}). Scaling is fixed per engine class:
//   IppFFT, IppFFT32, IppFFT32R   neither direction scaled (inverse of
//                                  forward gives N times the input)
//   IppFFT32fReal, IppFFT64fReal   forward only, divided by N
//
// Real-spectrum layout (every real engine and every consumer of one in this
// library): CCS, the N/2 + 1 non-negative frequency bins as interleaved
// complex values re0, im0, re1, im1, ..., re(N/2), im(N/2): N + 2 values,
// with im0 = im(N/2) = 0 on output and ignored on input. It is the layout of
// std::complex<T>[N/2 + 1] and of vexaccelerate's real states, so no
// repacking pass is spent on it. Spectrum buffers of the real engines,
// including the in-place one, therefore hold N + 2 values.
//
// Status. FFT returns 0 on success, 1 when the engine is not initialised (or
// its state was transferred away, see below) or a pointer is null; nothing
// is computed then.
//
// Transfer. The copy constructor and copy assignment take a non-const
// reference and move the state: the target owns it afterwards, the source
// keeps its initialised flag and size but no state (its FFT returns 1).
// Moves behave the same.
//
// Allocation and threads. Init allocates and plans (configuration); FFT
// never allocates, locks or throws. Host pointers may be unaligned (they are
// then copied through the engine's aligned scratch). An engine is used by one
// thread at a time: it owns its scratch and work buffers.
namespace dsp {

/// Opaque owner of a plan, its work buffer and the split/interleave scratch.
struct IppFFTState;

/// The fields and lifecycle shared by the five engines; not used directly.
class VEXAUDIODSP_API IppFFTBase {
 public:
  int GetSize() const { return size_; }
  bool IsInitialized() const { return initialised_; }
  void DeInit();

 protected:
  enum class Kind { kComplexDouble, kComplexFloat, kRealFloat, kRealFloatFwdScaled, kRealDoubleFwdScaled };

  explicit IppFFTBase(Kind kind) : kind_(kind) {}
  ~IppFFTBase();
  IppFFTBase(IppFFTBase& other);
  IppFFTBase(IppFFTBase&& other) noexcept;
  IppFFTBase& operator=(IppFFTBase& other);
  IppFFTBase& operator=(IppFFTBase&& other) noexcept;

  void InitKind(int size);
  int RunComplex(const double* reIn, const double* imIn, double* reOut, double* imOut, int dir) const;
  int RunComplex(const float* reIn, const float* imIn, float* reOut, float* imOut, int dir) const;
  int RunReal(const float* in, float* out, int dir) const;
  int RunReal(const double* in, double* out, int dir) const;

 private:
  void Take(IppFFTBase& other) noexcept;

  bool initialised_ = false;
  std::int32_t size_ = 0;
  IppFFTState* state_ = nullptr;
  Kind kind_;
};

/// Complex double FFT on separate real and imaginary arrays, unscaled.
class VEXAUDIODSP_API IppFFT : public IppFFTBase {
 public:
  IppFFT() : IppFFTBase(Kind::kComplexDouble) {}
  explicit IppFFT(int size) : IppFFT() { Init(size); }
  IppFFT(IppFFT& other) : IppFFTBase(other) {}
  IppFFT(IppFFT&& other) noexcept : IppFFTBase(static_cast<IppFFTBase&&>(other)) {}
  IppFFT& operator=(IppFFT& other) {
    IppFFTBase::operator=(other);
    return *this;
  }
  IppFFT& operator=(IppFFT&& other) noexcept {
    IppFFTBase::operator=(static_cast<IppFFTBase&&>(other));
    return *this;
  }
  ~IppFFT() = default;

  /// Plans a transform (see the size rule above). Allocates.
  void Init(int size) { InitKind(size); }
  /// N values each; out may equal in.
  int FFT(double* reIn, double* imIn, double* reOut, double* imOut, int dir) {
    return RunComplex(reIn, imIn, reOut, imOut, dir);
  }
  int FFT(double* re, double* im, int dir) { return RunComplex(re, im, re, im, dir); }
};

/// Complex float FFT on separate real and imaginary arrays, unscaled.
class VEXAUDIODSP_API IppFFT32 : public IppFFTBase {
 public:
  IppFFT32() : IppFFTBase(Kind::kComplexFloat) {}
  explicit IppFFT32(int size) : IppFFT32() { Init(size); }
  IppFFT32(IppFFT32& other) : IppFFTBase(other) {}
  IppFFT32(IppFFT32&& other) noexcept : IppFFTBase(static_cast<IppFFTBase&&>(other)) {}
  IppFFT32& operator=(IppFFT32& other) {
    IppFFTBase::operator=(other);
    return *this;
  }
  IppFFT32& operator=(IppFFT32&& other) noexcept {
    IppFFTBase::operator=(static_cast<IppFFTBase&&>(other));
    return *this;
  }
  ~IppFFT32() = default;

  void Init(int size) { InitKind(size); }
  int FFT(float* reIn, float* imIn, float* reOut, float* imOut, int dir) {
    return RunComplex(reIn, imIn, reOut, imOut, dir);
  }
  int FFT(float* re, float* im, int dir) { return RunComplex(re, im, re, im, dir); }
};

/// Real float FFT, unscaled: forward N samples to N + 2 CCS values, inverse
/// back.
class VEXAUDIODSP_API IppFFT32R : public IppFFTBase {
 public:
  IppFFT32R() : IppFFTBase(Kind::kRealFloat) {}
  explicit IppFFT32R(int size) : IppFFT32R() { Init(size); }
  IppFFT32R(IppFFT32R& other) : IppFFTBase(other) {}
  IppFFT32R(IppFFT32R&& other) noexcept : IppFFTBase(static_cast<IppFFTBase&&>(other)) {}
  IppFFT32R& operator=(IppFFT32R& other) {
    IppFFTBase::operator=(other);
    return *this;
  }
  IppFFT32R& operator=(IppFFT32R&& other) noexcept {
    IppFFTBase::operator=(static_cast<IppFFTBase&&>(other));
    return *this;
  }
  ~IppFFT32R() = default;

  void Init(int size) { InitKind(size); }
  /// Forward: in holds N samples, out N + 2 values; inverse the other way.
  int FFT(float* in, float* out, int dir) { return RunReal(in, out, dir); }
  /// In place; data holds N + 2 values.
  int FFT(float* data, int dir) { return RunReal(data, data, dir); }
};

/// Real float forward FFT divided by N: N samples to N + 2 CCS values (a
/// constant 1.0 gives a DC bin of 1.0).
class VEXAUDIODSP_API IppFFT32fReal : public IppFFTBase {
 public:
  IppFFT32fReal() : IppFFTBase(Kind::kRealFloatFwdScaled) {}
  explicit IppFFT32fReal(int size) : IppFFT32fReal() { Init(size); }
  IppFFT32fReal(IppFFT32fReal& other) : IppFFTBase(other) {}
  IppFFT32fReal(IppFFT32fReal&& other) noexcept : IppFFTBase(static_cast<IppFFTBase&&>(other)) {}
  IppFFT32fReal& operator=(IppFFT32fReal& other) {
    IppFFTBase::operator=(other);
    return *this;
  }
  IppFFT32fReal& operator=(IppFFT32fReal&& other) noexcept {
    IppFFTBase::operator=(static_cast<IppFFTBase&&>(other));
    return *this;
  }
  ~IppFFT32fReal() = default;

  void Init(int size) { InitKind(size); }
  int FFT(float* in, float* out) { return RunReal(in, out, 1); }
};

/// Real double forward FFT divided by N: N samples to N + 2 CCS values.
class VEXAUDIODSP_API IppFFT64fReal : public IppFFTBase {
 public:
  IppFFT64fReal() : IppFFTBase(Kind::kRealDoubleFwdScaled) {}
  explicit IppFFT64fReal(int size) : IppFFT64fReal() { Init(size); }
  IppFFT64fReal(IppFFT64fReal& other) : IppFFTBase(other) {}
  IppFFT64fReal(IppFFT64fReal&& other) noexcept : IppFFTBase(static_cast<IppFFTBase&&>(other)) {}
  IppFFT64fReal& operator=(IppFFT64fReal& other) {
    IppFFTBase::operator=(other);
    return *this;
  }
  IppFFT64fReal& operator=(IppFFT64fReal&& other) noexcept {
    IppFFTBase::operator=(static_cast<IppFFTBase&&>(other));
    return *this;
  }
  ~IppFFT64fReal() = default;

  void Init(int size) { InitKind(size); }
  int FFT(double* in, double* out) { return RunReal(in, out, 1); }
};

/// The order Init derives from a size by the halving loop (-1 for 0).
VEXAUDIODSP_API int FFTOrderFromSize(int size);

}  // namespace dsp
