#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "vexaudiodsp/dither/Dither.h"

namespace CLI {
class App;
}

namespace vexdsp {

/// --bits 16|24 and --dither none|triangular|shaped, shared by the commands
/// that write sound files.
void AddIntegerOutputOptions(CLI::App& app, int* bits, std::string* dither);

/// The sample format --bits asks for (16 -> pcm16, 24 -> pcm24), or
/// `requested` when bits is 0. UsageError for other word lengths or when
/// --format asks for something else.
SampleFormat ApplyBits(int bits, const std::string& formatText, SampleFormat requested);

/// The --dither mode in force: as given, or triangular with --bits and none
/// without. UsageError for an unknown mode.
std::string ChooseDitherMode(int bits, const std::string& dither);

/// Dither before the writer's rounding to integer codes, by dsp::Dither:
///   triangular  flat TPDF of +-1 LSB
///   shaped      TPDF with the standard noise-shaping curve
/// Every sample leaves on the grid of the output's word length, so the
/// writer's rounding keeps it as it is. When the total length is known the
/// last block is announced, so the file ends on plain rounding (digital
/// silence stays zero). Up to 32 channels (dsp::Dither's limit; Prepare
/// throws CliError beyond).
class DitherQuantizer final : public SampleQuantizer {
 public:
  DitherQuantizer(std::string mode, std::int64_t expectedFrames);
  void Prepare(int numChannels, double sampleRate, int bits) override;
  void Quantize(float* const* planar, int numFrames) override;

 private:
  std::string mode_;
  std::int64_t expected_;
  std::int64_t done_ = 0;
  dsp::Dither dither_;
  std::vector<float*> pointers_;
};

/// A DitherQuantizer for `mode`, or null for "none": plain rounding is the
/// writer's own.
std::shared_ptr<SampleQuantizer> MakeDitherQuantizer(const std::string& mode, std::int64_t expectedFrames);

}  // namespace vexdsp
