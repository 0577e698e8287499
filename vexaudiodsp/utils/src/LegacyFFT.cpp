#include "vexaudiodsp/utils/LegacyFFT.h"

#include "vexaccelerate/Utility.h"

namespace vu = vexaccelerate::utility;

FFTWORKINGDATA::~FFTWORKINGDATA() = default;

FFTWORKINGDATA_F::FFTWORKINGDATA_F() = default;
FFTWORKINGDATA_F::FFTWORKINGDATA_F(int n) { Init(n); }
FFTWORKINGDATA_F::~FFTWORKINGDATA_F() { vu::Free(scratch_); }

void FFTWORKINGDATA_F::Init(int n) {
  engine_.Init(n);
  vu::Free(scratch_);
  scratch_ = nullptr;
  length_ = engine_.IsInitialized() ? 1 << dsp::FFTOrderFromSize(n) : 0;
  if (length_ > 0) scratch_ = vu::Malloc_Float(2 * static_cast<std::size_t>(length_));
  if (scratch_ == nullptr) length_ = 0;
}

int FFTWORKINGDATA_F::GetLength() const { return length_; }

FFTWORKINGDATA_D::FFTWORKINGDATA_D() = default;
FFTWORKINGDATA_D::FFTWORKINGDATA_D(int n) { Init(n); }
FFTWORKINGDATA_D::~FFTWORKINGDATA_D() = default;

void FFTWORKINGDATA_D::Init(int n) {
  engine_.Init(n);
  length_ = engine_.IsInitialized() ? 1 << dsp::FFTOrderFromSize(n) : 0;
}

int FFTWORKINGDATA_D::GetLength() const { return length_; }

namespace {

// The engine of matching precision, or null when the call must do nothing.
FFTWORKINGDATA_F* FloatData(FFTWORKINGDATA& data, long n) {
  auto* f = dynamic_cast<FFTWORKINGDATA_F*>(&data);
  return f != nullptr && f->GetLength() > 0 && f->GetLength() == n ? f : nullptr;
}

FFTWORKINGDATA_D* DoubleData(FFTWORKINGDATA& data, long n) {
  auto* d = dynamic_cast<FFTWORKINGDATA_D*>(&data);
  return d != nullptr && d->GetLength() > 0 && d->GetLength() == n ? d : nullptr;
}

int Direction(long dir) { return dir == -1 ? -1 : 1; }

template <typename T>
void Split(const T* re, const T* im, int channel, T** outRe, T** outIm, int n) {
  if (n < 2) return;
  T* lre = outRe[channel];
  T* lim = outIm[channel];
  T* rre = outRe[channel + 1];
  T* rim = outIm[channel + 1];
  const int half = n / 2;
  lre[0] = re[0];
  lim[0] = T(0);
  rre[0] = im[0];
  rim[0] = T(0);
  lre[half] = re[half];
  lim[half] = T(0);
  rre[half] = im[half];
  rim[half] = T(0);
  for (int k = 1; k < half; ++k) {
    const int m = n - k;
    const T lr = (re[k] + re[m]) * T(0.5);
    const T li = (im[k] - im[m]) * T(0.5);
    const T rr = (im[k] + im[m]) * T(0.5);
    const T ri = (re[m] - re[k]) * T(0.5);
    lre[k] = lr;
    lre[m] = lr;
    lim[k] = li;
    lim[m] = -li;
    rre[k] = rr;
    rre[m] = rr;
    rim[k] = ri;
    rim[m] = -ri;
  }
}

}  // namespace

void LFFTF(float* re, float* im, long n, long dir, FFTWORKINGDATA& data) {
  if (FFTWORKINGDATA_F* f = FloatData(data, n)) f->GetEngine().FFT(re, im, Direction(dir));
}

void LFFTD(double* re, double* im, long n, long dir, FFTWORKINGDATA& data) {
  if (FFTWORKINGDATA_D* d = DoubleData(data, n)) d->GetEngine().FFT(re, im, Direction(dir));
}

void LFFTSD(double* srcRe, double* srcIm, double* dstRe, double* dstIm, long n, long dir, FFTWORKINGDATA& data) {
  if (FFTWORKINGDATA_D* d = DoubleData(data, n)) d->GetEngine().FFT(srcRe, srcIm, dstRe, dstIm, Direction(dir));
}

void LFFT2CF(float* x1, float* x2, float* re1, float* im1, float* re2, float* im2, long n, long dir,
             FFTWORKINGDATA& data) {
  FFTWORKINGDATA_F* f = FloatData(data, n);
  if (f == nullptr || n < 2) return;
  const int len = static_cast<int>(n);
  float* zr = f->GetScratchRe();
  float* zi = f->GetScratchIm();
  float* specRe[2] = {re1, re2};
  float* specIm[2] = {im1, im2};
  if (Direction(dir) == 1) {
    vu::Copy(static_cast<std::size_t>(len), x1, zr);
    vu::Copy(static_cast<std::size_t>(len), x2, zi);
    f->GetEngine().FFT(zr, zi, 1);
    Split(zr, zi, 0, specRe, specIm, len);
  } else {
    CombineLRSpectrumToComplex(0, specRe, specIm, zr, zi, len);
    f->GetEngine().FFT(zr, zi, -1);
    vu::Copy(static_cast<std::size_t>(len), zr, x1);
    vu::Copy(static_cast<std::size_t>(len), zi, x2);
  }
}

void SplitComplexSpectrumToLR(float* re, float* im, int channel, float** outRe, float** outIm, int n) {
  Split(re, im, channel, outRe, outIm, n);
}

void SplitComplexSpectrumToLR(double* re, double* im, int channel, double** outRe, double** outIm, int n) {
  Split(re, im, channel, outRe, outIm, n);
}

void CombineLRSpectrumToComplex(int channel, float** inRe, float** inIm, float* re, float* im, int n) {
  const float* lre = inRe[channel];
  const float* lim = inIm[channel];
  const float* rre = inRe[channel + 1];
  const float* rim = inIm[channel + 1];
  if (n < 2) return;
  const int half = n / 2;
  re[0] = lre[0];
  im[0] = rre[0];
  re[half] = lre[half];
  im[half] = rre[half];
  for (int k = 1; k < half; ++k) {
    const int m = n - k;
    re[k] = lre[k] - rim[k];
    re[m] = lre[k] + rim[k];
    im[k] = rre[k] + lim[k];
    im[m] = rre[k] - lim[k];
  }
}
