#pragma once

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Probability density of the dither added before quantising.
enum DitherPDF {
  kDitherRectangular = 0,
  kDitherTriangular = 1,
  kDitherHighPassRectangular = 2,
  kDitherGaussian = 3,
  kDitherHighPassGaussian = 4,
  kDitherNoPDF = 5,
};

/// Noise-shaping curve: 2 ... 10 are the built-in curves, 11 the custom one
/// (SetCustomShape); any other id quantises without shaping.
enum DitherShaping {
  kShapingNone = 0,
  kShapingGentle = 2,
  kShapingMedium = 3,
  kShapingStandard = 4,
  kShapingSmooth = 5,
  kShapingPlateauHigh = 6,
  kShapingPlateau = 7,
  kShapingSteep = 8,
  kShapingSteeper = 9,
  kShapingLight = 10,
  kShapingCustom = 11,
};

/// kAdaptiveOff shapes by the curve alone. kAdaptiveMasking also follows
/// the programme: see Dither.
enum DitherAdaptive {
  kAdaptiveOff = 0,
  kAdaptiveMasking = 1,
};

struct DitherStream;

/// The settings block copied into every stream when a parameter changes.
struct DitherSettings {
  int initialized = 0;
  int numChannels = 1;
  float sampleRate = 44100.0f;
  double strength = 20.0;
  int pdf = kDitherTriangular;
  int shaping = kShapingStandard;
  int adaptive = kAdaptiveOff;
  int symmetric = 1;
  int bits = 16;
  double ditherAmount = 1.0;
  int customPointCount = 0;
  double customPoints[64] = {};
  double adaptiveMargin = 12.0;
  double adaptiveRange = 20.0;
  double crossoverHz = 0.0;
  double curveShift = 0.0;
  int customShapeCount = 0;
  double customShape[64] = {};
  double boostBy = 0.0;
  double cutBy = 0.0;
  int strengthMode = 1;
  int lastFrame = 0;
};

/// Reduces planar float audio to a shorter word length (default 16 bits):
/// every output sample lies on the grid of the target word length (k / 2^(bits
/// - 1) for integer k within the word's range) but stays float.
///
/// Per sample, in units of a 16-bit LSB: the shaping filter's error feedback
/// is subtracted, dither of the chosen density is added (its size
/// `ditherAmount` in LSBs of the target word), the value is rounded to the
/// target grid (floor after adding 0.5, minus 0.5 more when `symmetric` is
/// 0, which turns rounding into truncation) and clipped to the word's range.
/// The total error, dither included, feeds the shaping filter, so dither and
/// rounding noise both take the shaped spectrum; the error fed back is
/// limited to what an unclipped sample can produce, so clipping never
/// drives the filter unstable.
///
/// Densities (`DitherPDF`): rectangular and triangular span +-0.5 and +-1
/// LSB at an amount of 1; the high-passed ones are first differences of
/// rectangular or Gaussian noise (less noise at low frequencies); Gaussian
/// has a standard deviation of amount / 2 LSB; none adds nothing.
///
/// Shaping. A curve is a list of (frequency, level) points, frequency 0...1
/// of the 22.05 kHz Nyquist frequency of 44.1 kHz and level 0...1 (1 where
/// the ear is most sensitive). It is adapted to the sample rate
/// (AdjustFilterToSampleRate), drawn as a smooth piecewise cubic Bezier curve
/// through its points (tangents limited so it never overshoots), and turned
/// into a noise transfer function whose level in dB is
///   strength * (mean level - level(f)):
/// noise falls by up to `strength` * (1 - mean) dB where the curve is high and
/// rises where it is low, with the mean log level at 0 dB, which is what a
/// stable error-feedback loop can achieve (the Gerzon-Craven limit). The
/// filter is the minimum-phase response of that magnitude, designed by the
/// real cepstrum on 256 points, truncated to the curve's tap count (the
/// fourth field of each built-in row: 32 to 96 taps; 64 for the custom curve)
/// with a half-Hann taper.
///
/// Strength: set directly (SetStrength, dB), or from the largest noise boost
/// (SetBoostBy) or cut (SetCutBy) in dB; ComputeOffsetValue gives 0.5 minus
/// the curve's mean level, so boost = strength * (0.5 - offset) and cut =
/// strength * (0.5 + offset). A crossover frequency (SetCrossoverHz, at
/// least 0.18 of the sample rate) moves the curve's falling edge so that the
/// shaped noise crosses the flat level there.
///
/// Adaptive masking (kAdaptiveMasking): each stream analyses its input in
/// frames of 256 samples (Hann window, FFT). Where the programme exceeds the
/// flat dither noise by more than `margin` dB (SetAdaptiveParams, default
/// 12), the shaped noise may rise by the excess, at most `range` dB (default
/// 20); the mean-log constraint then lowers it everywhere else. The filter
/// for each frame is designed from the frame before, so the output depends
/// only on the past.
///
/// Start and end: dither and feedback fade in linearly over the first 64
/// samples of a stream, whatever the block sizes (so the output does not
/// depend on how a host splits it), starting from none: a stream starts
/// without a step from digital silence. After SetLastFrame the last
/// min(64, block) samples of the next block (none when fewer than 5) fade
/// them out to none on the final sample, so a file ends on plain rounding
/// and digital silence there stays exactly zero.
///
/// Random streams are seeded deterministically (SetSeed, default 1; channel
/// i uses seed + i), so a render repeats exactly.
///
/// Calls: the constructor, Initialize and Deinitialize allocate. Setters may
/// be called while initialised: they update the streams at once and redesign
/// a shaping filter without allocating (a redesign costs three 256-point
/// FFTs per channel). Process, Reset and SetLastFrame never allocate, lock
/// or throw. Copies are independent (an initialised copy allocates its own
/// engines). One thread at a time.
class VEXAUDIODSP_API Dither {
 public:
  static constexpr int kMaxChannels = 32;
  static constexpr int kMaxCurvePoints = 32;
  static constexpr int kAnalysisSize = 256;

  Dither();
  ~Dither();
  Dither(const Dither& other);
  Dither& operator=(const Dither& other);

  static int GetMaxChannels() { return kMaxChannels; }
  /// min(n, 32), at least 1; ignored once initialised (returns the count in
  /// use).
  int SetNumChannels(int n);
  int GetNumChannels() const { return settings_.numChannels; }
  /// Hz; a rate that is not finite and positive is ignored.
  void SetSampleRate(float rate);
  /// dB, direct mode.
  void SetStrength(double strength);
  /// Target word length, 1 ... 32 (clamped).
  void SetDitherToBits(int bits);
  /// Dither size in LSBs of the target word (clamped to 0 ... 16).
  void SetDitherAmount(double amount);
  void SetSymmetric(int symmetric);
  /// -1 keeps a setting.
  void SetDitheringType(int pdf, int shaping, int adaptive);
  /// Hz, 0 = the curve's own edge.
  void SetCrossoverHz(double hz);
  /// dB of the largest noise boost; derives the strength.
  void SetBoostBy(double dB);
  /// dB of the largest noise cut; derives the strength.
  void SetCutBy(double dB);
  /// `count` (frequency, level) pairs: false and nothing changes when count
  /// is below 2 or above 32, or a value is not finite. Frequencies are
  /// sorted into increasing order, values clamped to 0 ... 1.
  bool SetCustomShape(int count, const double* points);
  void SetAdaptiveParams(double margin, double range);
  /// Seed of channel 0's random stream (channel i uses seed + i); applies at
  /// Initialize and Reset.
  void SetSeed(unsigned seed) { seed_ = seed; }

  double GetStrength() const { return settings_.strength; }
  double GetBoostBy() const { return settings_.boostBy; }
  double GetCutBy() const { return settings_.cutBy; }
  double GetDitherAmount() const { return settings_.ditherAmount; }
  double GetCrossoverHz() const { return settings_.crossoverHz; }
  double GetCurveShift() const { return settings_.curveShift; }
  int GetBits() const { return settings_.bits; }
  int GetPDF() const { return settings_.pdf; }
  int GetShaping() const { return settings_.shaping; }
  int GetAdaptive() const { return settings_.adaptive; }
  /// The custom curve as set; *points may be null when count is 0.
  int GetCustomShape(double** points);
  int IsInitialized() const { return settings_.initialized; }

  /// Allocates every stream's engines and buffers and designs the filters.
  void Initialize();
  void Deinitialize();

  /// Marks the next Process as the last one (see above).
  void SetLastFrame();
  /// Clears every stream's history, reseeds and re-arms the fade-in;
  /// settings stay.
  void Reset();
  /// Quantises `numChannels` planar channels; in == out is allowed. Returns
  /// frames, or 0 when not initialised.
  int Process(float** in, float** out, int frames);

  /// The feedback taps h1...hK in use for `channel` (after Initialize), for
  /// inspection; returns K.
  int GetShapingFilter(int channel, const double** taps) const;

  /// Adapts a curve of `count` (frequency, level) pairs in place to
  /// `sampleRate`: rescales frequencies from the 44.1 kHz reference (keeping
  /// them increasing by at least 1/8192 and (count - 1 - i)/4096 below 1),
  /// pulls the falling edge up above 48 kHz, and shifts the points from
  /// `shiftFrom` on by shift * 44100 / sampleRate (shift 0 means the
  /// automatic (rate - 44100) / 51900 * 0.245 above 44.1 kHz).
  static void AdjustFilterToSampleRate(double shift, double* points, int count, int shiftFrom, double sampleRate);

  /// The built-in curve with this id: its points, count, the first point the
  /// sample-rate shift moves and the tap count; false for other ids.
  static bool GetBuiltInCurve(int id, const double** points, int* count, int* shiftFrom, int* taps);

  /// 0.5 minus the mean level of the current curve, adapted to the sample
  /// rate with `shift`; when `result` is not null it receives the
  /// correction the crossover search adds (half) to the shift.
  double ComputeOffsetValue(double shift, double* result) const;

 private:
  void UpdateStreams(bool force);
  void ApplyStrengthMode();
  void SearchCrossover();
  /// The adapted curve sampled at the 129 bins of a 256-point FFT.
  bool CurveLevels(double shift, double* levels) const;

  DitherSettings settings_;
  DitherStream* streams_ = nullptr;
  unsigned seed_ = 1;
  // Bumped when the curve's shape changes (curve, custom points, rate,
  // crossover), so streams know to redesign.
  unsigned curveVersion_ = 0;
};

}  // namespace dsp
