#pragma once

#include <memory>

#include "vexaudiodsp/Export.h"

namespace dsp {

struct ResampleTable;

/// Sample-rate converter for one mono float stream: a polyphase
/// windowed-sinc filter of `filterOrder` taps (default 255, always odd) per
/// output sample, with a Kaiser window (noise floor >= 60 dB, beta from the
/// noise floor) or a Blackman window (below 60 dB).
///
/// Phases. For integer rates whose reduced output rate dst / gcd is at most
/// 1000, the table holds exactly dst / gcd phases and every output sample
/// uses an exact phase (48000 <-> 44100: 147 or 160 phases). Other pairs
/// get 1000 phases and interpolate linearly between neighbouring phases
/// (about -120 dB of coefficient error at the default order).
///
/// Cut-off. With r the lower rate and T = 12.5 / filterOrder times
/// (nyquistShift - 0.31) when downsampling or 0.6 * nyquistShift when
/// upsampling, the kernel's -6 dB point lies at (1 - T) * r / 2: the
/// transition band is centred on the lower Nyquist frequency and
/// nyquistShift moves it (1.31 puts the whole band below Nyquist when
/// downsampling). The rates enter truncated to whole Hz, as in the table
/// cache's key, so every instance that shares a table wants that table. At
/// the defaults (255 taps, 150 dB, shift 0.3):
///   48000 -> 44100: passband (within 0.01 dB) to 21.0 kHz, stop band
///     (>= 120 dB down) from 23.0 kHz on the input axis; a tone at 23 kHz
///     or above never reaches the output above -120 dB.
///   44100 -> 48000: passband to 20.9 kHz, images of input tones land
///     >= 120 dB down when they fall at or above 22.7 kHz.
/// Spurious components of any passband tone stay below -120 dBc.
///
/// Latency: GetLatency() output samples, the integer part of
/// (filterOrder - 1) / 2 * dst / src; the fractional part is absorbed in the
/// starting phase, so an input event at time t appears at exactly
/// t * dst / src + latency output samples.
///
/// Arithmetic. Exact phase layouts whose table has a noise floor of at most
/// kMaxFloatNoiseFloor (150 dB, so every setting up to the defaults) run in
/// single precision: when such a table is built, each of its double rows is
/// also rounded once to a float row (padded with leading zeros to a
/// multiple of 16 taps, 64-byte aligned) kept beside the doubles in the
/// cache entry, and each output sums float products in float. At the
/// defaults that puts the worst spur of a full-scale tone at about -154 dBc
/// and a 23 kHz tone at -154 dB after 48 -> 44.1 kHz (double arithmetic:
/// -159 dBc, the floor of the float input itself). Tables above 150 dB,
/// interpolated layouts and SetAlwaysDouble run in double precision on the
/// table's double rows over a double copy of the input, so the design alone
/// sets the spurs. Either way all outputs of a block that use one row are
/// computed together (the row is read once per block), each output sums in
/// a fixed order, and block sizes never change a sample; the instruction
/// set (SetInstructionSet) changes only the last bits.
///
/// Tables are shared: Initialize looks the parameters up in a process-wide
/// cache of the 64 most recently built tables (one recursive mutex) and
/// builds one only on a miss. An instance keeps its table alive by a shared
/// reference, so eviction never invalidates it.
///
/// Rates of zero, below zero or NaN are refused by SetSampleRates (false,
/// previous rates kept). Equal rates pass samples through (latency 0).
///
/// Calls: setters and Initialize/Deinitialize are configuration (they may
/// allocate and lock the cache). Process and Reset never allocate, lock or
/// throw. Copies share the table and copy the stream state. One thread at a
/// time per object; any number of objects may be initialised concurrently.
class VEXAUDIODSP_API Resample {
 public:
  static constexpr int kMaxPhases = 1000;
  static constexpr int kCacheSize = 64;
  /// Highest noise floor (dB) whose exact layouts run in single precision.
  static constexpr double kMaxFloatNoiseFloor = 150.0;

  /// Vector instructions of the inner loop. The best one the CPU has is
  /// chosen at construction; results differ between sets in the last bits
  /// only.
  enum class InstructionSet { kPortable, kAvx2, kAvx512 };
  static InstructionSet GetBestInstructionSet();

  Resample();
  ~Resample();
  Resample(const Resample& other);
  Resample& operator=(const Resample& other);

  /// Sets both rates in Hz. Ignored (false) while initialised or when a rate
  /// is not a finite positive number.
  bool SetSampleRates(float sourceRate, float destRate);
  /// Taps per phase: an even request becomes the odd number below it, an
  /// odd one is kept (minimum 3). Ignored while initialised.
  void SetFilterOrder(int order);
  /// Stop-band attenuation in dB that shapes the window (>= 60: Kaiser).
  /// Takes effect at the next Initialize.
  void SetNoiseFloor(double dB) { noiseFloor_ = dB; }
  /// Moves the transition band (see above). Ignored while initialised.
  void SetNyquistShift(double shift);

  float GetSourceSampleRate() const { return sourceRate_; }
  float GetDestSampleRate() const { return destRate_; }
  int GetFilterOrder() const { return filterOrder_; }
  int GetPaddedOrder() const { return paddedOrder_; }
  int GetPhaseCount() const { return phaseCount_; }
  double GetPhaseStep() const { return phaseStep_; }
  double GetNoiseFloor() const { return noiseFloor_; }
  double GetNyquistShift() const { return nyquistShift_; }
  /// Delay of the output in output samples.
  int GetLatency() const { return latency_; }
  /// Output samples a Process call of inputFrames may return at most.
  int GetOutputBufferSize(int inputFrames) const;
  /// The cut-off divisor c of the kernel sinc(t / c) / c (t in input samples).
  double GetCutoffDivisor() const;

  /// Finds or builds the table and allocates the stream state. Allocates
  /// and locks the cache; false (and not initialised) when the allocation
  /// fails.
  bool Initialize();
  /// Drops the stream state; `releaseTable` also drops the table reference
  /// (otherwise the next Initialize with the same parameters reuses it
  /// without a cache search).
  void Deinitialize(bool releaseTable);
  int IsInitialized() const { return initialized_; }
  /// Clears the history and restarts the phase as after Initialize.
  void Reset();

  /// Converts `frames` input samples and writes the output produced, at most
  /// GetOutputBufferSize(frames) samples; returns their count. `in` and
  /// `out` may not overlap unless the rates are equal. Returns 0 when not
  /// initialised.
  int Process(float* in, float* out, int frames);

  /// Uses `set` for this instance from the next Process on (configuration;
  /// no allocation). False, and nothing changes, when the CPU lacks it.
  bool SetInstructionSet(InstructionSet set);
  InstructionSet GetInstructionSet() const { return instructionSet_; }
  /// Runs in double precision whatever the noise floor (see Arithmetic
  /// above). Ignored while initialised.
  void SetAlwaysDouble(bool alwaysDouble) {
    if (!initialized_) alwaysDouble_ = alwaysDouble;
  }
  /// True when the initialised converter runs in single precision (see
  /// Arithmetic above).
  bool UsesFloatArithmetic() const { return floatArithmetic_; }

  /// True when both instances use the same table object.
  bool SharesTableWith(const Resample& other) const { return table_ && table_ == other.table_; }

 private:
  static constexpr int kChunk = 4096;

  int Process2(float* in, float* out, int frames);
  int ProcessInternal(float* in, float* out, int frames, bool interpolate);
  int ProcessExactFloat(const float* work, float* out, int frames);
  int ProcessExactDouble(const double* work, float* out, int frames);
  int ProcessInterpolated(const double* work, float* out, int frames);
  void BuildTable(int order, double phaseOffset, double cutoff, double* taps) const;
  void PreComputeStuff();
  void ChoosePhaseLayout();
  static bool DeriveFloatRows(ResampleTable* table);
  void AllocateWork();
  void ClearWork();
  void FreeWork();

  int initialized_ = 0;
  int filterOrder_ = 255;
  float sourceRate_ = 48000.0f;
  float destRate_ = 44100.0f;
  int phaseCount_ = 0;
  double phaseStep_ = 160.0;
  int latency_ = 116;
  int paddedOrder_ = 256;
  // kSlack samples, the history (historyLength_ samples, the row length of
  // the kernel in use), room for one chunk of input and kSlack more samples
  // (the kernels read up to a vector beyond a window's ends); float or
  // double by the arithmetic in use, the other one stays null.
  static constexpr int kSlack = 16;
  float* work_ = nullptr;
  double* workDouble_ = nullptr;
  int workSize_ = 0;
  int historyLength_ = 0;
  bool floatArithmetic_ = false;
  bool alwaysDouble_ = false;
  InstructionSet instructionSet_ = InstructionSet::kPortable;
  double phaseFraction_ = 0.0;
  double phasePosition_ = 0.0;
  // Phases that Initialize will use (phaseCount_ stays 0 until then) and
  // whether phaseStep_ is a whole number of them, so no phase is
  // interpolated.
  int layoutPhases_ = 147;
  bool exactPhases_ = true;
  // Where the next output's newest input sample lies, relative to the start
  // of the next input block.
  long long nextInput_ = 0;
  double noiseFloor_ = 150.0;
  double nyquistShift_ = 0.3;
  double pi_ = 3.141592653589793;
  double twoPi_ = 6.283185307179586;
  std::shared_ptr<const ResampleTable> table_;
};

}  // namespace dsp
