#include "Quantiser.h"

#include <sndfile.h>

#include "CliError.h"

namespace vexdsp {

int IntegerBits(int sfFormat) {
  switch (sfFormat & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
      return 16;
    case SF_FORMAT_PCM_24:
      return 24;
    default:
      return 0;
  }
}

void CheckDitherMode(const std::string& mode) {
  if (mode != "none" && mode != "triangular" && mode != "shaped") {
    throw UsageError("--dither '" + mode + "' is not one of none, triangular, shaped");
  }
}

QuantisingSink::QuantisingSink(dsp::host::FrameSink& next, int numChannels, int sampleRate, int bits,
                               const std::string& mode, std::int64_t expectedFrames)
    : next_(next), numChannels_(numChannels), expected_(expectedFrames) {
  if (numChannels > dsp::Dither::kMaxChannels) {
    throw CliError("integer output is quantised for at most 32 channels; this stream has " +
                   std::to_string(numChannels));
  }
  dither_.SetNumChannels(numChannels);
  dither_.SetSampleRate(static_cast<float>(sampleRate));
  dither_.SetDitherToBits(bits);
  if (mode == "none") {
    dither_.SetDitheringType(dsp::kDitherNoPDF, dsp::kShapingNone, dsp::kAdaptiveOff);
  } else if (mode == "shaped") {
    dither_.SetDitheringType(dsp::kDitherTriangular, dsp::kShapingStandard, dsp::kAdaptiveOff);
  } else {
    dither_.SetDitheringType(dsp::kDitherTriangular, dsp::kShapingNone, dsp::kAdaptiveOff);
  }
  dither_.Initialize();
  outputs_.resize(static_cast<std::size_t>(numChannels));
  inputs_.resize(static_cast<std::size_t>(numChannels));
}

bool QuantisingSink::Write(const float* const* planar, int numFrames) {
  const std::size_t frames = static_cast<std::size_t>(numFrames);
  // Renderers hand out blocks of a fixed size, so this grows once.
  if (scratch_.size() < frames * numChannels_) scratch_.resize(frames * numChannels_);
  for (int c = 0; c < numChannels_; ++c) {
    outputs_[c] = scratch_.data() + static_cast<std::size_t>(c) * frames;
    // Dither::Process reads its input only; its legacy signature lacks the
    // const.
    inputs_[c] = const_cast<float*>(planar[c]);
  }
  if (expected_ >= 0 && written_ + numFrames >= expected_) dither_.SetLastFrame();
  dither_.Process(inputs_.data(), outputs_.data(), numFrames);
  written_ += numFrames;
  return next_.Write(outputs_.data(), numFrames);
}

}  // namespace vexdsp
