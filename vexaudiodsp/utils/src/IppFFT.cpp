#include "vexaudiodsp/utils/IppFFT.h"

#include <cstddef>

#include "vexaccelerate/Transform.h"
#include "vexaccelerate/Utility.h"

namespace dsp {

namespace vt = vexaccelerate::transform;
namespace vu = vexaccelerate::utility;

namespace {

// The real engines always hand a work buffer to the transform so it never
// falls back on scratch shared with nothing else; this is its size when the
// state asks for none.
constexpr int kDefaultWorkBytes = 16384;

}  // namespace

// One of the four plan pointers is set, by the engine's kind. For the
// complex engines `scratch` and `work` hold the interleaved input and output
// of a split transform (2N values each).
struct IppFFTState {
  vexaccelerate::FFTState_ComplexDouble* complexDouble = nullptr;
  vexaccelerate::FFTState_ComplexFloat* complexFloat = nullptr;
  vexaccelerate::FFTState_Float* realFloat = nullptr;
  vexaccelerate::FFTState_Double* realDouble = nullptr;
  void* work = nullptr;
  void* scratch = nullptr;

  IppFFTState() = default;
  IppFFTState(const IppFFTState&) = delete;
  IppFFTState& operator=(const IppFFTState&) = delete;
  ~IppFFTState() {
    vt::FFTFree(complexDouble);
    vt::FFTFree(complexFloat);
    vt::FFTFree(realFloat);
    vt::FFTFree(realDouble);
    vu::Free(work);
    vu::Free(scratch);
  }
};

int FFTOrderFromSize(int size) {
  int order = -1;
  bool seenOdd = false;
  int n = size;
  while (n != 0) {
    const bool odd = (n % 2) != 0;
    if (odd) {
      if (seenOdd) break;
      seenOdd = true;
    }
    n /= 2;
    ++order;
  }
  return order;
}

IppFFTBase::~IppFFTBase() { DeInit(); }

IppFFTBase::IppFFTBase(IppFFTBase& other) : kind_(other.kind_) { Take(other); }
IppFFTBase::IppFFTBase(IppFFTBase&& other) noexcept : kind_(other.kind_) { Take(other); }

IppFFTBase& IppFFTBase::operator=(IppFFTBase& other) {
  if (&other != this) {
    DeInit();
    Take(other);
  }
  return *this;
}

IppFFTBase& IppFFTBase::operator=(IppFFTBase&& other) noexcept {
  if (&other != this) {
    DeInit();
    Take(other);
  }
  return *this;
}

// The source keeps its flag and size (callers of the original engines
// relied on that) but loses the state, so its FFT answers 1.
void IppFFTBase::Take(IppFFTBase& other) noexcept {
  initialised_ = other.initialised_;
  size_ = other.size_;
  state_ = other.state_;
  other.state_ = nullptr;
}

void IppFFTBase::DeInit() {
  delete state_;
  state_ = nullptr;
  size_ = 0;
  initialised_ = false;
}

void IppFFTBase::InitKind(int size) {
  if (initialised_ || state_ != nullptr) DeInit();
  if (size < 1) return;
  const int order = FFTOrderFromSize(size);
  auto* state = new IppFFTState();
  int status = 1;
  int bytes = 0;
  const std::size_t n = std::size_t{1} << (order < 0 ? 0 : order);
  switch (kind_) {
    // The complex engines' scratch and work hold the interleaved input and
    // output of the transform (2N values each, see SplitComplex).
    case Kind::kComplexDouble:
      status = vt::FFTInit(&state->complexDouble, order, vt::kFFTNoDivByAny);
      if (status == 0) {
        state->scratch = vu::Malloc_Double(2 * n);
        state->work = vu::Malloc_Double(2 * n);
      }
      break;
    case Kind::kComplexFloat:
      status = vt::FFTInit(&state->complexFloat, order, vt::kFFTNoDivByAny);
      if (status == 0) {
        state->scratch = vu::Malloc_Float(2 * n);
        state->work = vu::Malloc_Float(2 * n);
      }
      break;
    case Kind::kRealFloat:
      status = vt::FFTInit(&state->realFloat, order, vt::kFFTNoDivByAny);
      if (status == 0) status = vt::FFTGetBufSize(state->realFloat, &bytes);
      break;
    case Kind::kRealFloatFwdScaled:
      status = vt::FFTInit(&state->realFloat, order, vt::kFFTDivFwdByN);
      if (status == 0) status = vt::FFTGetBufSize(state->realFloat, &bytes);
      break;
    case Kind::kRealDoubleFwdScaled:
      status = vt::FFTInit(&state->realDouble, order, vt::kFFTDivFwdByN);
      if (status == 0) status = vt::FFTGetBufSize(state->realDouble, &bytes);
      break;
  }
  const bool needsScratch = kind_ == Kind::kComplexDouble || kind_ == Kind::kComplexFloat;
  if (status == 0 && !needsScratch) {
    state->work = vu::Malloc_Float((bytes > 0 ? bytes : kDefaultWorkBytes) / sizeof(float) + 1);
  }
  if (status != 0 || state->work == nullptr || (needsScratch && state->scratch == nullptr)) {
    delete state;
    return;
  }
  state_ = state;
  size_ = size;
  initialised_ = true;
}

namespace {

// vexaccelerate's complex states take interleaved values, so the split
// arrays are zipped into the scratch, transformed out of place into the
// work buffer and unzipped from there. Out of place because FFTW's
// in-place complex plans ran 6 to 33 % slower (N = 8192 ... 1024, double);
// both buffers are 64-byte aligned, so FFTW reads and writes them directly.
// In place (reOut == reIn) is fine for the caller: the split arrays are
// written only after the transform.
template <typename T, typename State>
int SplitComplex(const State* plan, T* scratch, T* work, const T* reIn, const T* imIn, T* reOut, T* imOut, int n,
                 int dir) {
  const auto count = static_cast<std::size_t>(n);
  vu::RealToComplex(count, reIn, imIn, scratch);
  const int status = dir == 1 ? vt::FFTFwd(plan, scratch, work) : vt::FFTInv(plan, scratch, work);
  if (status != 0) return status;
  vu::ComplexToReal(count, work, reOut, imOut);
  return 0;
}

}  // namespace

int IppFFTBase::RunComplex(const double* reIn, const double* imIn, double* reOut, double* imOut, int dir) const {
  if (!initialised_ || state_ == nullptr || state_->complexDouble == nullptr) return 1;
  if (reIn == nullptr || imIn == nullptr || reOut == nullptr || imOut == nullptr) return 1;
  const int n = vt::FFTGetLength(state_->complexDouble);
  return SplitComplex(state_->complexDouble, static_cast<double*>(state_->scratch), static_cast<double*>(state_->work),
                      reIn, imIn, reOut, imOut, n, dir);
}

int IppFFTBase::RunComplex(const float* reIn, const float* imIn, float* reOut, float* imOut, int dir) const {
  if (!initialised_ || state_ == nullptr || state_->complexFloat == nullptr) return 1;
  if (reIn == nullptr || imIn == nullptr || reOut == nullptr || imOut == nullptr) return 1;
  const int n = vt::FFTGetLength(state_->complexFloat);
  return SplitComplex(state_->complexFloat, static_cast<float*>(state_->scratch), static_cast<float*>(state_->work),
                      reIn, imIn, reOut, imOut, n, dir);
}

int IppFFTBase::RunReal(const float* in, float* out, int dir) const {
  if (!initialised_ || state_ == nullptr || state_->realFloat == nullptr) return 1;
  return dir == 1 ? vt::FFTFwd(state_->realFloat, in, out, state_->work)
                  : vt::FFTInv(state_->realFloat, in, out, state_->work);
}

int IppFFTBase::RunReal(const double* in, double* out, int dir) const {
  if (!initialised_ || state_ == nullptr || state_->realDouble == nullptr) return 1;
  return dir == 1 ? vt::FFTFwd(state_->realDouble, in, out, state_->work)
                  : vt::FFTInv(state_->realDouble, in, out, state_->work);
}

}  // namespace dsp
