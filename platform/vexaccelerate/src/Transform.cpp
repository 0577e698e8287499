#include "vexaccelerate/Transform.h"

#include <fftw3.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <new>

#include "vexaccelerate/Utility.h"

// The transforms run on FFTW 3. Each state is planned once for every case a
// call can meet (forward and inverse, in place and out of place) and a call
// only picks a plan and runs it through FFTW's new-array interface: no
// planning and no allocation per transform. Plans are made with
// FFTW_ESTIMATE: planning stays quick for every order up to 27, and the
// chosen algorithm, hence the rounding of every result, is the same in every
// run and for every state of one size (measured plans depend on timing).
namespace vexaccelerate {
namespace {

// The FFTW planner keeps global tables and is not thread-safe; plan creation
// and destruction and FFTW's allocations (float and double alike) go through
// this one lock.
std::mutex& PlannerMutex() {
  static std::mutex mutex;
  return mutex;
}

constexpr int kMinOrder = 1;
constexpr int kMaxOrder = 27;
// Caller work buffers may have any alignment; the scratch is aligned inside.
constexpr std::size_t kWorkAlign = 64;

template <typename T>
struct Fftw;

template <>
struct Fftw<float> {
  using Complex = fftwf_complex;
  using Plan = fftwf_plan;
  static void* Malloc(std::size_t bytes) { return fftwf_malloc(bytes); }
  static void Free(void* p) { fftwf_free(p); }
  static bool Aligned(const float* p) { return fftwf_alignment_of(const_cast<float*>(p)) == 0; }
  static Plan Dft(int n, Complex* in, Complex* out, int sign, unsigned flags) {
    return fftwf_plan_dft_1d(n, in, out, sign, flags);
  }
  static Plan R2c(int n, float* in, Complex* out, unsigned flags) { return fftwf_plan_dft_r2c_1d(n, in, out, flags); }
  static Plan C2r(int n, Complex* in, float* out, unsigned flags) { return fftwf_plan_dft_c2r_1d(n, in, out, flags); }
  static void Destroy(Plan p) { fftwf_destroy_plan(p); }
  static void RunDft(Plan p, const float* in, float* out) {
    fftwf_execute_dft(p, reinterpret_cast<Complex*>(const_cast<float*>(in)), reinterpret_cast<Complex*>(out));
  }
  static void RunR2c(Plan p, const float* in, float* out) {
    fftwf_execute_dft_r2c(p, const_cast<float*>(in), reinterpret_cast<Complex*>(out));
  }
  static void RunC2r(Plan p, float* in, float* out) { fftwf_execute_dft_c2r(p, reinterpret_cast<Complex*>(in), out); }
};

template <>
struct Fftw<double> {
  using Complex = fftw_complex;
  using Plan = fftw_plan;
  static void* Malloc(std::size_t bytes) { return fftw_malloc(bytes); }
  static void Free(void* p) { fftw_free(p); }
  static bool Aligned(const double* p) { return fftw_alignment_of(const_cast<double*>(p)) == 0; }
  static Plan Dft(int n, Complex* in, Complex* out, int sign, unsigned flags) {
    return fftw_plan_dft_1d(n, in, out, sign, flags);
  }
  static Plan R2c(int n, double* in, Complex* out, unsigned flags) { return fftw_plan_dft_r2c_1d(n, in, out, flags); }
  static Plan C2r(int n, Complex* in, double* out, unsigned flags) { return fftw_plan_dft_c2r_1d(n, in, out, flags); }
  static void Destroy(Plan p) { fftw_destroy_plan(p); }
  static void RunDft(Plan p, const double* in, double* out) {
    fftw_execute_dft(p, reinterpret_cast<Complex*>(const_cast<double*>(in)), reinterpret_cast<Complex*>(out));
  }
  static void RunR2c(Plan p, const double* in, double* out) {
    fftw_execute_dft_r2c(p, const_cast<double*>(in), reinterpret_cast<Complex*>(out));
  }
  static void RunC2r(Plan p, double* in, double* out) { fftw_execute_dft_c2r(p, reinterpret_cast<Complex*>(in), out); }
};

// A state's plans, both for SIMD-aligned arrays.
enum Variant { kOutOfPlace, kInPlace, kNumVariants };

struct Scales {
  double forward;
  double inverse;
};

Scales ScalesFor(transform::FFTScaling scaling, std::size_t n) {
  const double inv = 1.0 / static_cast<double>(n);
  switch (scaling) {
    case transform::kFFTDivFwdByN:
      return {inv, 1.0};
    case transform::kFFTDivBySqrtN:
      return {std::sqrt(inv), std::sqrt(inv)};
    case transform::kFFTNoDivByAny:
      return {1.0, 1.0};
    case transform::kFFTDivInvByN:
    default:
      return {1.0, inv};
  }
}

bool ValidScaling(transform::FFTScaling scaling) {
  return scaling == transform::kFFTDivInvByN || scaling == transform::kFFTDivFwdByN ||
         scaling == transform::kFFTDivBySqrtN || scaling == transform::kFFTNoDivByAny;
}

template <typename T>
void Scale(std::size_t count, T* data, T scale) {
  if (scale != T(1)) utility::MulConstant_InPlace(count, data, scale);
}

// RAII for an array FFTW plans against. FFTW_ESTIMATE never touches it, but
// reads its alignment, so it comes from fftw_malloc.
template <typename T>
struct PlanningArray {
  explicit PlanningArray(std::size_t count) : data(static_cast<T*>(Fftw<T>::Malloc(count * sizeof(T)))) {}
  ~PlanningArray() {
    if (data != nullptr) Fftw<T>::Free(data);
  }
  PlanningArray(const PlanningArray&) = delete;
  PlanningArray& operator=(const PlanningArray&) = delete;
  T* data;
};

// One transform of length n = 2^order, complex (interleaved, 2n values each
// way) or real (n samples, n/2 + 1 interleaved bins).
//
// Aligned caller buffers go straight to FFTW. Unaligned ones are copied
// through the state's aligned scratch (or the caller's work buffer) and
// transformed there in place: FFTW's plans for arbitrary alignment
// (FFTW_UNALIGNED) give up SIMD and ran about four times slower than the two
// extra copies cost.
template <typename T, bool kComplex>
struct Fft {
  using F = Fftw<T>;
  using C = typename F::Complex;
  using Plan = typename F::Plan;

  std::size_t n = 0;
  std::size_t timeCount = 0;
  std::size_t freqCount = 0;
  T forwardScale = T(1);
  T inverseScale = T(1);
  Plan forward[kNumVariants] = {};
  Plan inverse[kNumVariants] = {};
  T* scratch = nullptr;

  Fft() = default;
  Fft(const Fft&) = delete;
  Fft& operator=(const Fft&) = delete;

  ~Fft() {
    std::lock_guard<std::mutex> lock(PlannerMutex());
    for (int v = 0; v < kNumVariants; ++v) {
      if (forward[v] != nullptr) F::Destroy(forward[v]);
      if (inverse[v] != nullptr) F::Destroy(inverse[v]);
    }
    if (scratch != nullptr) F::Free(scratch);
  }

  bool Init(int order, transform::FFTScaling scaling) {
    n = std::size_t{1} << order;
    timeCount = kComplex ? 2 * n : n;
    freqCount = kComplex ? 2 * n : n + 2;
    const Scales s = ScalesFor(scaling, n);
    forwardScale = static_cast<T>(s.forward);
    inverseScale = static_cast<T>(s.inverse);
    // FFTW promises thread safety only for execution, so its allocator is
    // called under the planner lock as well.
    std::lock_guard<std::mutex> lock(PlannerMutex());
    scratch = static_cast<T*>(F::Malloc(freqCount * sizeof(T)));
    PlanningArray<T> other(freqCount);
    if (scratch == nullptr || other.data == nullptr) return false;
    const int len = static_cast<int>(n);
    for (int v = 0; v < kNumVariants; ++v) {
      T* out = v == kInPlace ? scratch : other.data;
      if (kComplex) {
        C* cin = reinterpret_cast<C*>(scratch);
        C* cout = reinterpret_cast<C*>(out);
        forward[v] = F::Dft(len, cin, cout, FFTW_FORWARD, FFTW_ESTIMATE);
        inverse[v] = F::Dft(len, cin, cout, FFTW_BACKWARD, FFTW_ESTIMATE);
      } else {
        forward[v] = F::R2c(len, scratch, reinterpret_cast<C*>(out), FFTW_ESTIMATE);
        inverse[v] = F::C2r(len, reinterpret_cast<C*>(scratch), out, FFTW_ESTIMATE);
      }
      if (forward[v] == nullptr || inverse[v] == nullptr) return false;
    }
    return true;
  }

  // The one scratch too large for an int (complex double, order 27) is not
  // offered to callers: its state reports 0 and always uses its own.
  int BufBytes() const {
    const std::size_t bytes = freqCount * sizeof(T) + kWorkAlign;
    return bytes > static_cast<std::size_t>(INT_MAX) ? 0 : static_cast<int>(bytes);
  }

  // A caller's work buffer, when given, stands in for the state's own
  // scratch, so one state can serve threads that bring their own buffers.
  T* Scratch(void* work) const {
    if (work == nullptr || BufBytes() == 0) return scratch;
    const auto address = reinterpret_cast<std::uintptr_t>(work);
    return reinterpret_cast<T*>((address + kWorkAlign - 1) & ~static_cast<std::uintptr_t>(kWorkAlign - 1));
  }

  // `in` is const for the caller; FFTW only overwrites the input of
  // complex-to-real plans, which never see a caller's array.
  static void Execute(Plan plan, bool forwardDirection, const T* in, T* out) {
    if (kComplex) {
      F::RunDft(plan, in, out);
    } else if (forwardDirection) {
      F::RunR2c(plan, in, out);
    } else {
      F::RunC2r(plan, const_cast<T*>(in), out);
    }
  }

  int Forward(const T* in, T* out, void* work) const {
    if (in == nullptr || out == nullptr) return 1;
    if (F::Aligned(in) && F::Aligned(out)) {
      Execute(forward[in == out ? kInPlace : kOutOfPlace], true, in, out);
    } else {
      T* buf = Scratch(work);
      utility::Copy(timeCount, in, buf);
      Execute(forward[kInPlace], true, buf, buf);
      utility::Copy(freqCount, buf, out);
    }
    if (!kComplex) {
      // DC and Nyquist of a real signal are real; make the layout say so.
      out[1] = T(0);
      out[n + 1] = T(0);
    }
    Scale(freqCount, out, forwardScale);
    return 0;
  }

  int Inverse(const T* in, T* out, void* work) const {
    if (in == nullptr || out == nullptr) return 1;
    T* buf = Scratch(work);
    if (kComplex && F::Aligned(in) && F::Aligned(out)) {
      Execute(inverse[in == out ? kInPlace : kOutOfPlace], false, in, out);
    } else if (!kComplex && in == out && F::Aligned(out)) {
      // The caller's buffer is the output anyway: overwrite it directly.
      out[1] = T(0);
      out[n + 1] = T(0);
      Execute(inverse[kInPlace], false, out, out);
    } else {
      // Complex-to-real overwrites its input, so a real inverse out of place
      // works on a copy (where the ignored imaginary parts of DC and Nyquist
      // are cleared); complex ones get here only for unaligned pointers.
      utility::Copy(freqCount, in, buf);
      if (!kComplex) {
        buf[1] = T(0);
        buf[n + 1] = T(0);
      }
      if (F::Aligned(out)) {
        Execute(inverse[kOutOfPlace], false, buf, out);
      } else {
        Execute(inverse[kInPlace], false, buf, buf);
        utility::Copy(timeCount, buf, out);
      }
    }
    Scale(timeCount, out, inverseScale);
    return 0;
  }
};

template <typename State>
int InitState(State** state, int order, transform::FFTScaling scaling) {
  if (state == nullptr) return 1;
  *state = nullptr;
  if (order < kMinOrder || order > kMaxOrder || !ValidScaling(scaling)) return 1;
  State* s = new (std::nothrow) State();
  if (s == nullptr) return 2;
  if (!s->Init(order, scaling)) {
    delete s;
    return 2;
  }
  *state = s;
  return 0;
}

template <typename State>
int BufSize(const State* state, int* bytes) {
  if (state == nullptr || bytes == nullptr) return 1;
  *bytes = state->BufBytes();
  return 0;
}

}  // namespace

struct FFTState_Float : Fft<float, false> {};
struct FFTState_Double : Fft<double, false> {};
struct FFTState_ComplexFloat : Fft<float, true> {};
struct FFTState_ComplexDouble : Fft<double, true> {};

namespace transform {

int FFTInit(FFTState_Float** state, int order, FFTScaling scaling) { return InitState(state, order, scaling); }
int FFTInit(FFTState_Double** state, int order, FFTScaling scaling) { return InitState(state, order, scaling); }
int FFTInit(FFTState_ComplexFloat** state, int order, FFTScaling scaling) { return InitState(state, order, scaling); }
int FFTInit(FFTState_ComplexDouble** state, int order, FFTScaling scaling) { return InitState(state, order, scaling); }

int FFTGetBufSize(const FFTState_Float* state, int* bytes) { return BufSize(state, bytes); }
int FFTGetBufSize(const FFTState_Double* state, int* bytes) { return BufSize(state, bytes); }
int FFTGetBufSize(const FFTState_ComplexFloat* state, int* bytes) { return BufSize(state, bytes); }
int FFTGetBufSize(const FFTState_ComplexDouble* state, int* bytes) { return BufSize(state, bytes); }

int FFTGetLength(const FFTState_Float* state) { return state == nullptr ? 0 : static_cast<int>(state->n); }
int FFTGetLength(const FFTState_Double* state) { return state == nullptr ? 0 : static_cast<int>(state->n); }
int FFTGetLength(const FFTState_ComplexFloat* state) { return state == nullptr ? 0 : static_cast<int>(state->n); }
int FFTGetLength(const FFTState_ComplexDouble* state) { return state == nullptr ? 0 : static_cast<int>(state->n); }

int FFTFwd(const FFTState_Float* state, const float* in, float* out, void* work) {
  return state == nullptr ? 1 : state->Forward(in, out, work);
}
int FFTFwd(const FFTState_Double* state, const double* in, double* out, void* work) {
  return state == nullptr ? 1 : state->Forward(in, out, work);
}
int FFTFwd(const FFTState_ComplexFloat* state, const float* in, float* out, void* work) {
  return state == nullptr ? 1 : state->Forward(in, out, work);
}
int FFTFwd(const FFTState_ComplexDouble* state, const double* in, double* out, void* work) {
  return state == nullptr ? 1 : state->Forward(in, out, work);
}

int FFTInv(const FFTState_Float* state, const float* in, float* out, void* work) {
  return state == nullptr ? 1 : state->Inverse(in, out, work);
}
int FFTInv(const FFTState_Double* state, const double* in, double* out, void* work) {
  return state == nullptr ? 1 : state->Inverse(in, out, work);
}
int FFTInv(const FFTState_ComplexFloat* state, const float* in, float* out, void* work) {
  return state == nullptr ? 1 : state->Inverse(in, out, work);
}
int FFTInv(const FFTState_ComplexDouble* state, const double* in, double* out, void* work) {
  return state == nullptr ? 1 : state->Inverse(in, out, work);
}

void FFTFree(FFTState_Float* state) { delete state; }
void FFTFree(FFTState_Double* state) { delete state; }
void FFTFree(FFTState_ComplexFloat* state) { delete state; }
void FFTFree(FFTState_ComplexDouble* state) { delete state; }

}  // namespace transform
}  // namespace vexaccelerate
