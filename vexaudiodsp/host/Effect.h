#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/DSPProcess.h"
#include "vexaudiodsp/host/Parameter.h"

namespace dsp {
namespace host {

class Effect;

/// The channel counts and sample rates an effect takes. Check() answers with
/// the reason for a refusal, phrased to follow "effect 'name' ".
struct VEXAUDIODSP_API IORule {
  int minChannels = 1;
  int maxChannels = 64;
  double minSampleRate = 1000.0;
  double maxSampleRate = 768000.0;

  std::string Check(int numChannels, double sampleRate) const;
  /// "1 to 64 channels at 1000 to 768000 Hz", "2 channels at ...".
  std::string Describe() const;
};

/// Properties of the registry-wide test suite that an effect cannot meet,
/// each with the reason; empty means the effect meets it. The suite fails an
/// effect that breaks a property without giving a reason here.
struct VEXAUDIODSP_API Exemptions {
  /// The output depends on how the input is split into blocks.
  std::string blockSplit;
  /// Reset() followed by the same input does not repeat a fresh instance's
  /// output.
  std::string resetRepeats;
};

/// Everything the registry knows about one effect: its name (the word used
/// on the command line and in Python), a one-line description, its
/// parameters in index order, what it accepts, and its factory. The factory
/// returns an unconfigured effect holding every default; the caller sets
/// parameters, then SetIOConfig and Start.
struct VEXAUDIODSP_API EffectInfo {
  std::string name;
  std::string description;
  std::vector<ParamDescriptor> params;
  IORule io;
  /// Optional extra line for listings: behaviour a user would not guess.
  std::string note;
  /// At its defaults the effect is a pure delay of GetLatency() samples
  /// (possibly zero): an impulse comes out unchanged at that position.
  bool pureDelayAtDefaults = false;
  Exemptions exemptions;
  std::function<std::unique_ptr<Effect>(const EffectInfo&)> create;

  /// Index of the parameter with this id, -1 when there is none.
  int FindParam(const std::string& id) const;
};

/// The base of every effect a host can run by name: a dsp::DSPProcess that
/// also answers its parameter descriptors and holds their values.
///
/// Lifecycle: SetIOConfig(channels, rate) -> Start() -> Process() per block
/// -> Done(); again from SetIOConfig or Start at any time. CheckIO() says
/// beforehand whether a configuration is accepted; Start() on a refused one
/// leaves the effect unconfigured and Process() then writes silence.
///
/// Parameters are read and written by index (the descriptor order), as
/// doubles or as text. SetValue never allocates and applies at the next
/// block; parameters marked rebuildsState apply at the next Start().
/// SetText/SetPath are configuration calls (they may allocate or read a
/// file). Names are resolved to indices once, through FindParam, never in a
/// processing call.
///
/// Process accepts any block length and `in == out` (in place). It hands the
/// subclass blocks of at most kMaxBlock frames with flush-to-zero set, after
/// applying pending parameter changes, so subclasses size scratch buffers to
/// kMaxBlock in Configure() and never allocate in ProcessBlock. Channels
/// beyond the configured count are ignored.
///
/// Non-finite input samples (NaN, infinities) are taken as silence before
/// the subclass sees them, so one bad sample cannot poison a filter's or a
/// reverb's state for the rest of the stream. Finding them costs one
/// vectorised sum per channel and block; only a block that holds one is
/// copied (into scratch sized at Start).
///
/// Flush() drains the tail: it feeds silence for GetTailFrames() frames
/// after the input ended. Reset() clears the state (delay lines, envelopes,
/// filter memories) and keeps the parameters: Reset() then the same input
/// gives the output of a freshly started instance.
///
/// One thread at a time; setters must not overlap Process.
class VEXAUDIODSP_API Effect : public DSPProcess {
 public:
  static constexpr int kMaxBlock = 8192;

  explicit Effect(const EffectInfo& info);
  ~Effect() override;
  Effect(const Effect&) = delete;
  Effect& operator=(const Effect&) = delete;

  const EffectInfo& GetInfo() const { return info_; }
  int GetNumParams() const { return static_cast<int>(values_.size()); }
  const ParamDescriptor& GetParam(int index) const;
  int FindParam(const std::string& id) const { return info_.FindParam(id); }

  /// The value of a number, integer, toggle or choice parameter (0 for a
  /// path or an invalid index).
  double GetValue(int index) const;
  /// False, and nothing changes, for an invalid index, a path parameter or
  /// a value that fails the descriptor's Check. Never allocates.
  bool SetValue(int index, double value);
  /// The path of a kPath parameter (empty when unset or not a path).
  const std::string& GetPath(int index) const;
  /// Sets a kPath parameter after LoadPath accepted the file; an empty path
  /// clears it. Configuration call.
  bool SetPath(int index, const std::string& path, std::string* error);
  /// Sets any parameter from its text form (ParamDescriptor::Parse, or a
  /// path). Configuration call.
  bool SetText(int index, const std::string& text, std::string* error);
  /// The text form of any parameter's value.
  std::string GetText(int index) const;
  /// Every parameter back to its default.
  void ResetParameters();

  /// Empty when the effect can run on this configuration with its current
  /// parameters, otherwise the reason (phrased to follow "effect 'name' ").
  /// The default applies GetInfo().io.
  virtual std::string CheckIO(int numChannels, double sampleRate) const;

  /// Clears the processing state, keeps the parameters. Never allocates.
  virtual void Reset() = 0;
  /// Frames the effect keeps sounding after its input stops, at the current
  /// settings (valid after Start). 0 for effects without memory.
  virtual std::int64_t GetTailFrames() const;

  /// The transfer function at `count` frequencies in Hz, for effects that
  /// are linear and time-invariant at their current settings (filters,
  /// equalisers); valid after Start. False for all others (the default):
  /// hosts then measure the impulse response instead (ComputeResponse).
  virtual bool GetTransferFunction(const double* frequenciesHz, int count, std::complex<double>* response) const;

  int GetNumChannels() const { return numChannels_; }
  double GetSampleRate() const { return sampleRate_; }
  bool IsStarted() const { return started_; }

  void SetIOConfig(int numChannels, float sampleRate) override;
  /// Configure(), ApplyParameters(), Reset(). Allocates.
  void Start() override;
  void Process(float** in, float** out, int numChannels, int numSamples) final;
  int Flush(float** out, int numChannels, int numSamples) override;
  void Done() override;
  void ParameterChanged() override;

 private:
  /// `in` when every sample is finite, else a copy with the others zeroed.
  float* Sanitized(float* in, int channel, int numFrames);

 protected:
  /// Sizes the state for GetNumChannels() and GetSampleRate() and applies
  /// rebuildsState parameters. May allocate.
  virtual void Configure() {}
  /// Recomputes derived values from the current parameters. Never
  /// allocates; called before the first block and before any block that
  /// follows a parameter change.
  virtual void ApplyParameters() {}
  /// One block of at most kMaxBlock frames, numChannels no more than the
  /// configured count; `in` may equal `out`.
  virtual void ProcessBlock(float** in, float** out, int numChannels, int numFrames) = 0;
  /// Validates (and may load) the file named for a kPath parameter. The
  /// default accepts any file that can be opened for reading.
  virtual bool LoadPath(int index, const std::string& path, std::string* error);

 private:
  const EffectInfo& info_;
  std::vector<double> values_;
  std::vector<std::string> paths_;
  int numChannels_ = 0;
  double sampleRate_ = 48000.0;
  bool started_ = false;
  bool dirty_ = true;
  std::int64_t tailLeft_ = 0;
  std::vector<float*> inChunk_;
  std::vector<float*> outChunk_;
  std::vector<float> silence_;
  std::vector<float> clean_;
};

}  // namespace host
}  // namespace dsp
