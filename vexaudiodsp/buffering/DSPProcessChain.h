#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"
#include "vexaudiodsp/buffering/DSPProcess.h"

namespace dsp {

/// One slot of a DSPProcessChain: a shared process and whether it runs.
/// A default SlotInfo holds no process and is disabled.
struct VEXAUDIODSP_API SlotInfo {
  SlotInfo() = default;
  SlotInfo(std::shared_ptr<DSPProcess> process, bool enabled);
  SlotInfo(const SlotInfo&) = default;
  SlotInfo& operator=(const SlotInfo&) = default;

  void Swap(SlotInfo& other) noexcept;
  /// Same process object (pointer identity) and same flag.
  bool operator==(const SlotInfo& other) const;
  bool operator!=(const SlotInfo& other) const;

  std::shared_ptr<DSPProcess> process;
  bool enabled = false;
};

/// A series of processes run one after another, itself a DSPProcess.
///
/// Slots are keyed by an int and run in ascending slot order; disabled slots
/// are bypassed by Process and GetLatency but still configured, started, told
/// about selections, parameter changes and Done. The chain holds its
/// processes by shared pointer; copies of a chain share them (they are not
/// cloned) and get their own work buffers.
///
/// With two or more slots every enabled slot runs out-of-place between two
/// work buffers of kMaxSubBlock samples per channel, ping-ponging pointer
/// tables, so host blocks longer than kMaxSubBlock are split and no slot sees
/// a longer block. With a single slot the chain steps aside: an enabled slot
/// processes the caller's buffers directly, a disabled one is a copy. Slots
/// are always handed the chain's configured channel count, not the count the
/// host passes to Process.
///
/// Latency (samples) is the sum of the enabled slots' latencies, saturated at
/// the int range (INT_MAX, or INT_MIN for a sum of negative latencies) rather
/// than wrapped.
///
/// SetIOConfig, Add, Remove and copying may allocate; Process, SetSelection,
/// ParameterChanged and GetLatency do not (beyond what the slots do). Adding
/// a slot neither configures nor starts it: call SetIOConfig/Start on the
/// chain afterwards (SetIOConfig reaches the slots only when the
/// configuration changes). Not thread-safe; edit slots between blocks only.
class VEXAUDIODSP_API DSPProcessChain : public DSPProcess {
 public:
  static constexpr int kMaxSubBlock = 8192;

  DSPProcessChain();
  DSPProcessChain(const DSPProcessChain& other);
  DSPProcessChain& operator=(const DSPProcessChain& other);
  ~DSPProcessChain() override;

  /// Replaces any slot of that number; a SlotInfo without a process only
  /// removes.
  void Add(int slot, const SlotInfo& info);
  void Remove(int slot);
  /// False (and `out` untouched) when the slot is empty.
  bool Get(int slot, SlotInfo& out) const;
  std::size_t GetNumSlots() const { return slots_.size(); }

  /// Asks every slot; the result is the AND of all answers (each slot is
  /// asked even after one refused). True for an empty chain.
  bool SetSelection(std::int64_t start, std::int64_t length) override;
  /// Nothing happens when both values equal the stored ones. Otherwise sizes
  /// the work buffers for numChannels x kMaxSubBlock and configures every
  /// slot. Allocates.
  void SetIOConfig(int numChannels, float sampleRate) override;
  void Start() override;
  /// No slots: `out` is left untouched. One enabled slot: forwarded as is
  /// (with the configured channel count, so `in`/`out` must then hold that
  /// many channels). One disabled slot: numChannels channels are copied.
  /// Two or more slots: min(numChannels, configured) channels are read and
  /// written; configured channels beyond numChannels are fed silence. In
  /// every case numSamples < 1 or a null `in`/`out` table does nothing; in
  /// the copying paths a null channel pointer in `in` reads as silence and
  /// one in `out` is skipped. Never allocates.
  void Process(float** in, float** out, int numChannels, int numSamples) override;
  void Done() override;
  int GetLatency() const override;
  void ParameterChanged() override;

  int GetNumChannels() const { return numChannels_; }
  float GetSampleRate() const { return sampleRate_; }
  /// The latency computed by the last Start().
  int GetStartLatency() const { return latency_; }

 private:
  void SizeWorkBuffers();

  std::int32_t numChannels_ = 0;
  float sampleRate_ = 44100.0f;
  std::map<int, SlotInfo> slots_;
  std::int32_t latency_ = 0;
  AudioBuffer bufferA_;
  AudioBuffer bufferB_;
  std::vector<float*> inputs_;
  std::vector<float*> outputs_;
};

}  // namespace dsp
