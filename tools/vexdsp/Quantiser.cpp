#include "Quantiser.h"

#include <CLI/CLI.hpp>

#include "CliError.h"

namespace vexdsp {

void AddIntegerOutputOptions(CLI::App& app, int* bits, std::string* dither) {
  app.add_option("--bits", *bits, "Write integer PCM of this word length (16 or 24), quantised by the library");
  app.add_option("--dither", *dither,
                 "Dither for integer output: none (plain rounding), triangular (the default with --bits) or shaped "
                 "(triangular with the standard noise-shaping curve); integer output without --bits is rounded "
                 "unless this asks for more");
}

SampleFormat ApplyBits(int bits, const std::string& formatText, SampleFormat requested) {
  if (bits == 0) return requested;
  if (bits != 16 && bits != 24) throw UsageError("--bits " + std::to_string(bits) + " is not 16 or 24");
  const SampleFormat fromBits = bits == 16 ? SampleFormat::kPcm16 : SampleFormat::kPcm24;
  if (requested != SampleFormat::kKeep && requested != fromBits) {
    throw UsageError("--bits " + std::to_string(bits) + " contradicts --format " + formatText);
  }
  return fromBits;
}

std::string ChooseDitherMode(int bits, const std::string& dither) {
  const std::string mode = dither.empty() ? (bits != 0 ? "triangular" : "none") : dither;
  if (mode != "none" && mode != "triangular" && mode != "shaped") {
    throw UsageError("--dither '" + mode + "' is not one of none, triangular, shaped");
  }
  return mode;
}

DitherQuantizer::DitherQuantizer(std::string mode, std::int64_t expectedFrames)
    : mode_(std::move(mode)), expected_(expectedFrames) {}

void DitherQuantizer::Prepare(int numChannels, double sampleRate, int bits) {
  if (numChannels > dsp::Dither::kMaxChannels) {
    throw CliError("integer output is dithered for at most 32 channels; this stream has " +
                   std::to_string(numChannels) + " (use --dither none)");
  }
  dither_.Deinitialize();
  dither_.SetNumChannels(numChannels);
  dither_.SetSampleRate(static_cast<float>(sampleRate));
  dither_.SetDitherToBits(bits);
  dither_.SetDitheringType(dsp::kDitherTriangular, mode_ == "shaped" ? dsp::kShapingStandard : dsp::kShapingNone,
                           dsp::kAdaptiveOff);
  dither_.Initialize();
  pointers_.assign(static_cast<std::size_t>(numChannels), nullptr);
  done_ = 0;
}

void DitherQuantizer::Quantize(float* const* planar, int numFrames) {
  for (std::size_t c = 0; c < pointers_.size(); ++c) pointers_[c] = planar[c];
  if (expected_ >= 0 && done_ + numFrames >= expected_) dither_.SetLastFrame();
  dither_.Process(pointers_.data(), pointers_.data(), numFrames);
  done_ += numFrames;
}

std::shared_ptr<SampleQuantizer> MakeDitherQuantizer(const std::string& mode, std::int64_t expectedFrames) {
  if (mode == "none") return nullptr;
  return std::make_shared<DitherQuantizer>(mode, expectedFrames);
}

}  // namespace vexdsp
