#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/nonoise/NoNoise.h"

namespace dsp {
namespace host {
class FrameSource;
}

namespace nonoise {

class CaptureNoisePrint;

/// A captured noise print with what it was captured at, and its file form.
///
/// File format (version 1, little-endian, fixed layout):
///
///   offset  size        field
///   0       8           magic "VXNPRINT"
///   8       4  u32      version (1)
///   12      8  f64      sample rate in Hz
///   20      4  u32      FFT size N (power of two, 16 ... 16384)
///   24      4  u32      channels C (1 ... 64)
///   28      4  u32      overlap the print was meant for (3 ... N)
///   32      8  u64      analysis frames accumulated
///   40      8  f64      level spread across the frames, dB
///   48      per channel: f64 DC minimum, f64 DC maximum, then N/2 + 1 f64
///           each of the minimum, maximum and RMS curves (bins 0 ... N/2)
///   ...     N/2 + 1 f32 per-bin curve offsets (binCurve)
///   end-8   8  u64      FNV-1a 64 hash of every byte before it
///
/// Load refuses a file that is too short or too long for its header, has
/// another magic, version or hash, or holds values out of range (sizes,
/// rates, negative or non-finite magnitudes). Save writes to a temporary
/// name beside the target and renames it on success.
///
/// Everything here allocates or does I/O: configuration-time only.
class VEXAUDIODSP_API NoisePrint {
 public:
  static constexpr std::uint32_t kVersion = 1;

  NoisePrint();
  ~NoisePrint();
  NoisePrint(const NoisePrint& other);
  NoisePrint& operator=(const NoisePrint& other);

  /// Takes the print of a finished capture.
  void Assign(const CaptureNoisePrint& capture);
  /// Takes a record with arrays and the rate it was measured at.
  void Assign(const NONOISE& record, double sampleRate, double levelSpreadDb);

  bool IsEmpty() const { return !HasArrays(&record_); }
  const NONOISE& GetRecord() const { return record_; }
  double GetSampleRate() const { return sampleRate_; }
  int GetChannels() const { return record_.channelCount; }
  int GetFFTSize() const { return record_.fftSize; }
  std::int64_t GetFrames() const { return record_.snapshotCount; }
  double GetLevelSpreadDb() const { return levelSpreadDb_; }
  /// Plain-language doubts about the print: too few frames, or a level that
  /// moved too much for steady noise. Empty when it looks sound.
  std::vector<std::string> GetWarnings() const;

  bool Save(const std::string& path, std::string* error) const;
  bool Load(const std::string& path, std::string* error);
  /// The file image Save writes, and its reader (Load minus the file).
  std::vector<std::uint8_t> Serialize() const;
  bool Deserialize(const std::vector<std::uint8_t>& bytes, std::string* error);

 private:
  NONOISE record_;
  double sampleRate_ = 0.0;
  double levelSpreadDb_ = 0.0;
};

/// Captures a print from [start, start + length) of `source` through
/// dsp::host::RunAnalyzer with a CaptureNoisePrint of the given FFT size.
/// False with the reason (a selection too short for the FFT size, a read
/// error) otherwise.
VEXAUDIODSP_API bool CaptureNoisePrintFromSource(host::FrameSource& source, int numChannels, double sampleRate,
                                                 std::int64_t start, std::int64_t length, int fftSize,
                                                 NoisePrint* print, std::string* error);

}  // namespace nonoise
}  // namespace dsp
