#include "vexaccelerate/Filter.h"

#include <cmath>
#include <new>

#include "Dispatch.h"
#include "vexaccelerate/Denormals.h"
#include "vexaccelerate/Utility.h"

namespace vexaccelerate {

// Taps are stored normalised by a0, per section: b0 ... b_order, then
// a1 ... a_order (a0 is implicitly 1), so a section occupies 2 * order + 1
// doubles. Direct-form filters have one section of `order`; cascades have
// `sections` sections of order 2.
struct IIRState_Double {
  int order = 0;
  int sections = 0;
  double* taps = nullptr;
  double* delay = nullptr;
};

struct FIRState_Float {
  int numTaps = 0;
  // Taps in reverse time order, so output i is a forward dot product with
  // history[i ... i + numTaps - 1].
  float* reversed = nullptr;
  // The last numTaps - 1 inputs followed by room for one chunk of new input:
  // each chunk is appended after the history, filtered, and the newest
  // numTaps - 1 samples are moved to the front for the next chunk.
  float* history = nullptr;
};

namespace filter {
namespace {

constexpr int kMaxOrder = 32;
constexpr std::size_t kFirChunk = 256;

constexpr int SectionStride(int order) { return 2 * order + 1; }
int DelayLength(const IIRState_Double& s) { return s.order * s.sections; }

// Normalises one section of caller taps (b0..bN a0..aN) into the stored
// layout. Fails, writing nothing, when a0 is 0 or not finite.
bool NormaliseSection(const double* src, int order, double* dst) {
  const double a0 = src[order + 1];
  if (a0 == 0.0 || !std::isfinite(a0)) return false;
  for (int k = 0; k <= order; ++k) dst[k] = src[k] / a0;
  for (int k = 1; k <= order; ++k) dst[order + k] = src[order + 1 + k] / a0;
  return true;
}

bool StoreTaps(IIRState_Double* s, const double* taps) {
  const int stride = SectionStride(s->order);
  const int srcStride = 2 * s->order + 2;
  double staged[SectionStride(kMaxOrder)];
  // Validate every section before touching the running taps, so a bad set
  // leaves the filter as it was.
  for (int j = 0; j < s->sections; ++j) {
    if (!NormaliseSection(taps + j * srcStride, s->order, staged)) return false;
  }
  for (int j = 0; j < s->sections; ++j) NormaliseSection(taps + j * srcStride, s->order, s->taps + j * stride);
  return true;
}

int CreateIIR(IIRState_Double** state, const double* taps, int order, int sections, const double* delayLine) {
  if (state == nullptr) return 1;
  *state = nullptr;
  if (taps == nullptr || order < 1 || order > kMaxOrder || sections < 1) return 1;
  IIRState_Double* s = new (std::nothrow) IIRState_Double();
  if (s == nullptr) return 2;
  s->order = order;
  s->sections = sections;
  s->taps = utility::Malloc_Double(static_cast<std::size_t>(SectionStride(order)) * sections);
  s->delay = utility::Malloc_Double(static_cast<std::size_t>(DelayLength(*s)));
  const int status = s->taps == nullptr || s->delay == nullptr ? 2 : (StoreTaps(s, taps) ? 0 : 1);
  if (status != 0) {
    IIRFree(s);
    return status;
  }
  if (delayLine != nullptr) {
    utility::Copy(DelayLength(*s), delayLine, s->delay);
  } else {
    utility::Zero(DelayLength(*s), s->delay);
  }
  *state = s;
  return 0;
}

// Transposed direct form II: y = b0 x + s0; s_k = s_(k+1) + b_(k+1) x -
// a_(k+1) y; s_(N-1) = b_N x - a_N y. Its states hold partial sums of the
// output, so coefficient changes with kept state stay bounded, and in
// floating point it is the best behaved of the direct forms for a single
// section. High orders in one section remain as sensitive to coefficient
// rounding as any direct form: cascades of biquads are the robust choice.
__attribute__((noinline)) void RunDirect(std::size_t n, const double* in, double* out, const double* taps, int order,
                                         double* delay) noexcept {
  double s[kMaxOrder] = {};
  for (int k = 0; k < order; ++k) s[k] = delay[k];
  const double* b = taps;
  const double* a = taps + order;  // a[k] is a_k for k >= 1
  for (std::size_t i = 0; i < n; ++i) {
    const double x = in[i];
    const double y = b[0] * x + s[0];
    for (int k = 0; k + 1 < order; ++k) s[k] = s[k + 1] + b[k + 1] * x - a[k + 1] * y;
    s[order - 1] = b[order] * x - a[order] * y;
    out[i] = y;
  }
  for (int k = 0; k < order; ++k) delay[k] = s[k];
}

// Biquad sections in transposed direct form II, up to four at a time with
// their state in registers: y = b0 x + s1; s1 = b1 x - a1 y + s2;
// s2 = b2 x - a2 y. Each section's recursion is a chain of dependent
// multiply-adds, so running a group sample by sample lets the CPU overlap the
// sections' chains (about three times faster for three sections than one
// section after another); a longer cascade continues group by group on the
// output. The arithmetic per section and sample is the same however the
// block is split, so results are too.
template <int kSections>
void RunBiquadGroup(std::size_t n, const double* in, double* out, const double* taps, double* delay) noexcept {
  double b0[kSections], b1[kSections], b2[kSections], a1[kSections], a2[kSections];
  double s1[kSections], s2[kSections];
  for (int j = 0; j < kSections; ++j) {
    const double* t = taps + j * SectionStride(2);
    b0[j] = t[0];
    b1[j] = t[1];
    b2[j] = t[2];
    a1[j] = t[3];
    a2[j] = t[4];
    s1[j] = delay[2 * j];
    s2[j] = delay[2 * j + 1];
  }
  for (std::size_t i = 0; i < n; ++i) {
    double x = in[i];
    for (int j = 0; j < kSections; ++j) {
      const double y = b0[j] * x + s1[j];
      s1[j] = b1[j] * x - a1[j] * y + s2[j];
      s2[j] = b2[j] * x - a2[j] * y;
      x = y;
    }
    out[i] = x;
  }
  for (int j = 0; j < kSections; ++j) {
    delay[2 * j] = s1[j];
    delay[2 * j + 1] = s2[j];
  }
}

__attribute__((noinline)) void RunBiquads(std::size_t n, const double* in, double* out, const double* taps,
                                          int sections, double* delay) noexcept {
  constexpr int kGroup = 4;
  const double* src = in;
  for (int first = 0; first < sections; first += kGroup) {
    const double* t = taps + first * SectionStride(2);
    double* d = delay + 2 * first;
    switch (sections - first < kGroup ? sections - first : kGroup) {
      case 1:
        RunBiquadGroup<1>(n, src, out, t, d);
        break;
      case 2:
        RunBiquadGroup<2>(n, src, out, t, d);
        break;
      case 3:
        RunBiquadGroup<3>(n, src, out, t, d);
        break;
      default:
        RunBiquadGroup<4>(n, src, out, t, d);
        break;
    }
    src = out;
  }
}

void RunIIR(std::size_t n, const double* in, double* out, IIRState_Double* s) noexcept {
  utility::ScopedFlushDenormals guard;
  // A lone biquad takes the register-resident biquad kernel: the generic
  // loop keeps its state in an array and is about twice as slow for it.
  if (s->sections == 1 && s->order != 2) {
    RunDirect(n, in, out, s->taps, s->order, s->delay);
  } else {
    RunBiquads(n, in, out, s->taps, s->sections, s->delay);
  }
}

// Each group of kLanes outputs is accumulated side by side, tap after tap, so
// the loop over lanes vectorises without reordering any single output's sum;
// leftovers use the same order one by one. Every output therefore comes out
// bit-identical whatever the block split.
VEX_KERNEL void FirKernel(std::size_t n, const float* __restrict x, const float* __restrict h, int numTaps,
                          float* __restrict y) {
  constexpr std::size_t kLanes = 32;
  std::size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    float acc[kLanes] = {};
    for (int k = 0; k < numTaps; ++k) {
      const float hk = h[k];
      const float* xk = x + i + k;
      for (std::size_t j = 0; j < kLanes; ++j) acc[j] += hk * xk[j];
    }
    for (std::size_t j = 0; j < kLanes; ++j) y[i + j] = acc[j];
  }
  for (; i < n; ++i) {
    float acc = 0.0f;
    for (int k = 0; k < numTaps; ++k) acc += h[k] * x[i + k];
    y[i] = acc;
  }
}

void StoreReversed(const float* taps, int numTaps, float* reversed) {
  for (int k = 0; k < numTaps; ++k) reversed[k] = taps[numTaps - 1 - k];
}

// A Blackman alpha of 0 (the default argument) means the classic 0.16.
template <typename T>
void FillWindow(T* w, int n, WindowType window, double param) {
  const auto count = static_cast<std::size_t>(n);
  switch (window) {
    case kWindowHann:
      utility::WindowHann(count, w);
      break;
    case kWindowHamming:
      utility::WindowHamming(count, w);
      break;
    case kWindowBlackman:
      utility::WindowBlackman(count, w, param == 0.0 ? 0.16 : param);
      break;
    case kWindowKaiser:
      utility::WindowKaiser(count, w, param);
      break;
    case kWindowRectangular:
    default:
      utility::Set(count, T(1), w);
      break;
  }
}

// Ideal low-pass impulse response sin(2 pi fc t) / (pi t) at distance t from
// the centre; taking |t| keeps the taps exactly symmetric whatever the
// rounding of the sine.
double IdealLowpass(double cutoff, double t) {
  constexpr double kPi = 3.14159265358979323846264338327950288;
  t = std::fabs(t);
  return t == 0.0 ? 2.0 * cutoff : std::sin(2.0 * kPi * cutoff * t) / (kPi * t);
}

template <typename T>
int DesignSinc(T* taps, int numTaps, double cutoff, WindowType window, double param) {
  if (taps == nullptr || numTaps < 1 || !(cutoff > 0.0 && cutoff < 0.5) || !std::isfinite(param)) return 1;
  if (window < kWindowRectangular || window > kWindowKaiser) return 1;
  if (window == kWindowKaiser && param < 0.0) return 1;
  // The window goes straight into the caller's array, which is then shaped
  // in place: no scratch, nothing allocated.
  FillWindow(taps, numTaps, window, param);
  const double centre = 0.5 * static_cast<double>(numTaps - 1);
  double sum = 0.0;
  for (int i = 0; i < numTaps; ++i) {
    taps[i] = static_cast<T>(IdealLowpass(cutoff, i - centre) * static_cast<double>(taps[i]));
    sum += static_cast<double>(taps[i]);
  }
  // A window that is zero at every tap (Hann of two taps) leaves nothing to
  // normalise; the unwindowed response is the nearest meaningful design.
  if (sum == 0.0) {
    for (int i = 0; i < numTaps; ++i) {
      taps[i] = static_cast<T>(IdealLowpass(cutoff, i - centre));
      sum += static_cast<double>(taps[i]);
    }
  }
  const double gain = 1.0 / sum;
  for (int i = 0; i < numTaps; ++i) taps[i] = static_cast<T>(static_cast<double>(taps[i]) * gain);
  return 0;
}

}  // namespace

int IIRInit(IIRState_Double** state, const double* taps, int order, const double* delayLine) {
  return CreateIIR(state, taps, order, 1, delayLine);
}

int IIRInit_BiQuad(IIRState_Double** state, const double* taps, int numBiquads, const double* delayLine) {
  return CreateIIR(state, taps, 2, numBiquads, delayLine);
}

int IIRSetTaps(IIRState_Double* state, const double* taps) {
  if (state == nullptr || taps == nullptr) return 1;
  return StoreTaps(state, taps) ? 0 : 1;
}

int IIRSetDlyLine(IIRState_Double* state, const double* delayLine) {
  if (state == nullptr) return 1;
  if (delayLine == nullptr) {
    utility::Zero(DelayLength(*state), state->delay);
  } else {
    utility::Copy(DelayLength(*state), delayLine, state->delay);
  }
  return 0;
}

int IIRGetDlyLine(const IIRState_Double* state, double* delayLine) {
  if (state == nullptr || delayLine == nullptr) return 1;
  utility::Copy(DelayLength(*state), state->delay, delayLine);
  return 0;
}

int IIRGetDlyLineLength(const IIRState_Double* state) { return state == nullptr ? 0 : DelayLength(*state); }

double IIR(double x, IIRState_Double* state) noexcept {
  if (state == nullptr) return x;
  double y;
  RunIIR(1, &x, &y, state);
  return y;
}

int IIR(std::size_t n, const double* in, double* out, IIRState_Double* state) noexcept {
  if (state == nullptr) return 1;
  if (n == 0) return 0;
  if (in == nullptr || out == nullptr) return 1;
  RunIIR(n, in, out, state);
  return 0;
}

void IIRFree(IIRState_Double* state) {
  if (state == nullptr) return;
  utility::Free(state->taps);
  utility::Free(state->delay);
  delete state;
}

int FIRInit(FIRState_Float** state, const float* taps, int numTaps) {
  if (state == nullptr) return 1;
  *state = nullptr;
  if (taps == nullptr || numTaps < 1) return 1;
  FIRState_Float* s = new (std::nothrow) FIRState_Float();
  if (s == nullptr) return 2;
  s->numTaps = numTaps;
  s->reversed = utility::Malloc_Float(static_cast<std::size_t>(numTaps));
  s->history = utility::Malloc_Float(static_cast<std::size_t>(numTaps - 1) + kFirChunk);
  if (s->reversed == nullptr || s->history == nullptr) {
    FIRFree(s);
    return 2;
  }
  StoreReversed(taps, numTaps, s->reversed);
  utility::Zero(static_cast<std::size_t>(numTaps - 1) + kFirChunk, s->history);
  *state = s;
  return 0;
}

int FIRSetTaps(FIRState_Float* state, const float* taps) {
  if (state == nullptr || taps == nullptr) return 1;
  StoreReversed(taps, state->numTaps, state->reversed);
  return 0;
}

int FIRReset(FIRState_Float* state) {
  if (state == nullptr) return 1;
  utility::Zero(static_cast<std::size_t>(state->numTaps - 1), state->history);
  return 0;
}

int FIR(std::size_t n, const float* in, float* out, FIRState_Float* state) noexcept {
  if (state == nullptr) return 1;
  if (n == 0) return 0;
  if (in == nullptr || out == nullptr) return 1;
  const auto keep = static_cast<std::size_t>(state->numTaps - 1);
  float* history = state->history;
  for (std::size_t done = 0; done < n;) {
    const std::size_t count = n - done < kFirChunk ? n - done : kFirChunk;
    // The input is copied before the output is written, so in == out works.
    utility::Copy(count, in + done, history + keep);
    FirKernel(count, history, state->reversed, state->numTaps, out + done);
    utility::Move(keep, history + count, history);
    done += count;
  }
  return 0;
}

void FIRFree(FIRState_Float* state) {
  if (state == nullptr) return;
  utility::Free(state->reversed);
  utility::Free(state->history);
  delete state;
}

int DesignLowpassSinc(double* taps, int numTaps, double cutoff, WindowType window, double param) {
  return DesignSinc(taps, numTaps, cutoff, window, param);
}

int DesignLowpassSinc(float* taps, int numTaps, double cutoff, WindowType window, double param) {
  return DesignSinc(taps, numTaps, cutoff, window, param);
}

}  // namespace filter
}  // namespace vexaccelerate
