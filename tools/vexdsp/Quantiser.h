#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/dither/Dither.h"
#include "vexaudiodsp/host/Render.h"

namespace vexdsp {

/// Word length of a libsndfile integer sample format (8, 16, 24), 0 for
/// float and any other.
int IntegerBits(int sfFormat);

/// Checks a --dither value: none, triangular or shaped (UsageError
/// otherwise).
void CheckDitherMode(const std::string& mode);

/// Puts every sample on the integer grid with dsp::Dither before the file
/// writer sees it, so the writer's own float-to-integer conversion is an
/// exact scaling and the quantisation is the library's:
///   none        plain rounding (a chain that leaves samples on the grid
///               stays lossless)
///   triangular  flat TPDF of +-1 LSB
///   shaped      TPDF with the standard noise-shaping curve
/// When the total length is known the last block is announced, so the file
/// ends on plain rounding (digital silence stays zero). At most 32 channels
/// (dsp::Dither's limit; the constructor throws CliError beyond).
class QuantisingSink final : public dsp::host::FrameSink {
 public:
  QuantisingSink(dsp::host::FrameSink& next, int numChannels, int sampleRate, int bits, const std::string& mode,
                 std::int64_t expectedFrames);
  bool Write(const float* const* planar, int numFrames) override;

 private:
  dsp::host::FrameSink& next_;
  int numChannels_;
  std::int64_t expected_;
  std::int64_t written_ = 0;
  dsp::Dither dither_;
  std::vector<float> scratch_;
  std::vector<float*> outputs_;
  std::vector<float*> inputs_;
};

}  // namespace vexdsp
