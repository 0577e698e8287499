#pragma once

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/utils/IppFFT.h"

// The legacy complex-FFT entry points: free functions driven by a working
// data object that holds one engine of fixed size, and the helpers that let
// one complex FFT carry two real channels (x = L + i R).
//
// LFFT* run the engine's unscaled complex transform in place (dir == -1 is
// the inverse, any other value the forward transform), so an inverse of a
// forward returns N times the input. They do nothing when the working data
// is of the other precision, holds no initialised engine, or n is not the
// engine's transform length. They never allocate; the working data's
// constructor and Init do.

/// Polymorphic holder of an engine for the LFFT* functions.
class VEXAUDIODSP_API FFTWORKINGDATA {
 public:
  virtual ~FFTWORKINGDATA();
  /// Transform length planned, 0 when empty.
  virtual int GetLength() const = 0;
};

/// Float working data: an IppFFT32 and scratch for LFFT2CF.
class VEXAUDIODSP_API FFTWORKINGDATA_F : public FFTWORKINGDATA {
 public:
  FFTWORKINGDATA_F();
  /// Init(n).
  explicit FFTWORKINGDATA_F(int n);
  ~FFTWORKINGDATA_F() override;
  FFTWORKINGDATA_F(const FFTWORKINGDATA_F&) = delete;
  FFTWORKINGDATA_F& operator=(const FFTWORKINGDATA_F&) = delete;
  /// Plans a power-of-two length n (see IppFFT.h for other sizes). Allocates.
  void Init(int n);
  int GetLength() const override;
  dsp::IppFFT32& GetEngine() { return engine_; }
  float* GetScratchRe() { return scratch_; }
  float* GetScratchIm() { return scratch_ + length_; }

 private:
  dsp::IppFFT32 engine_;
  float* scratch_ = nullptr;
  int length_ = 0;
};

/// Double working data: an IppFFT.
class VEXAUDIODSP_API FFTWORKINGDATA_D : public FFTWORKINGDATA {
 public:
  FFTWORKINGDATA_D();
  explicit FFTWORKINGDATA_D(int n);
  ~FFTWORKINGDATA_D() override;
  void Init(int n);
  int GetLength() const override;
  dsp::IppFFT& GetEngine() { return engine_; }

 private:
  dsp::IppFFT engine_;
  int length_ = 0;
};

/// Complex float FFT of n points in place on re/im.
VEXAUDIODSP_API void LFFTF(float* re, float* im, long n, long dir, FFTWORKINGDATA& data);
/// Complex double FFT of n points in place on re/im.
VEXAUDIODSP_API void LFFTD(double* re, double* im, long n, long dir, FFTWORKINGDATA& data);
/// Two real channels through one complex float FFT. Forward: the real
/// signals x1, x2 (n samples each, left untouched) give the full n-bin
/// spectra re1/im1 and re2/im2. Inverse (dir == -1): bins 0 ... n/2 of
/// re1/im1 and re2/im2 (the rest is not read) give x1 and x2, unscaled (n
/// times the signals a forward transform came from).
VEXAUDIODSP_API void LFFT2CF(float* x1, float* x2, float* re1, float* im1, float* re2, float* im2, long n, long dir,
                             FFTWORKINGDATA& data);
/// Complex double FFT of n points from srcRe/srcIm into dstRe/dstIm (which
/// may be the same arrays).
VEXAUDIODSP_API void LFFTSD(double* srcRe, double* srcIm, double* dstRe, double* dstIm, long n, long dir,
                            FFTWORKINGDATA& data);

/// Splits the n-bin spectrum Z of x_L + i x_R into the full n-bin spectra of
/// channel `channel` (L) and `channel + 1` (R): L[k] = (Z[k] + conj(Z[n-k]))
/// / 2, R[k] = (Z[k] - conj(Z[n-k])) / (2i); bins 0 and n/2 take re and im
/// with imaginary parts 0. re/im must not alias the outputs. n even, >= 2.
VEXAUDIODSP_API void SplitComplexSpectrumToLR(float* re, float* im, int channel, float** outRe, float** outIm, int n);
VEXAUDIODSP_API void SplitComplexSpectrumToLR(double* re, double* im, int channel, double** outRe, double** outIm,
                                              int n);
/// The inverse of the split: Z[k] = L[k] + i R[k], Z[n-k] = conj(L[k]) + i
/// conj(R[k]), reading bins 0 ... n/2 of channels `channel` and `channel + 1`.
VEXAUDIODSP_API void CombineLRSpectrumToComplex(int channel, float** inRe, float** inIm, float* re, float* im, int n);
