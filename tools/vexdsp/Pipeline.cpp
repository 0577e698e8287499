#include "Pipeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "CliError.h"
#include "vexaccelerate/Utility.h"
#include "vexaudiodsp/host/Parameter.h"

namespace vexdsp {

int FileSource::Read(float* const* planar, int numFrames) {
  try {
    const int got = reader_.Read(planar, numFrames);
    if (silenceNonFinite_) {
      const int channels = reader_.GetNumChannels();
      const auto seen = static_cast<int>(std::clamp<std::int64_t>(countedTo_ - position_, 0, got));
      SilenceNonFinite(planar, channels, seen);
      unseen_.resize(static_cast<std::size_t>(channels));
      for (int ch = 0; ch < channels; ++ch) unseen_[static_cast<std::size_t>(ch)] = planar[ch] + seen;
      silenced_ += SilenceNonFinite(unseen_.data(), channels, got - seen);
      countedTo_ = std::max(countedTo_, position_ + got);
    }
    framesRead_ += got;
    position_ += got;
    return got;
  } catch (const std::exception& error) {
    error_ = error.what();
    return -1;
  }
}

bool FileSource::Seek(std::int64_t frame) {
  if (frame == position_) {
    return true;
  }
  if (!reader_.Seek(frame)) {
    return false;
  }
  position_ = frame;
  return true;
}

void FileSource::Check() const {
  if (!error_.empty()) {
    throw CliError(error_);
  }
}

void FileSource::WarnSilenced() const { WarnSilencedNonFinite(silenced_); }

std::int64_t SilenceNonFinite(float* const* planar, int numChannels, int numFrames) {
  std::int64_t count = 0;
  for (int ch = 0; ch < numChannels; ++ch) {
    const auto n = static_cast<std::size_t>(std::max(numFrames, 0));
    // Float samples summed in double cannot overflow: a non-finite sum
    // means a non-finite sample, and most blocks need no second look.
    if (std::isfinite(vexaccelerate::utility::Sum(n, planar[ch]))) {
      continue;
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (!std::isfinite(planar[ch][i])) {
        planar[ch][i] = 0.0f;
        ++count;
      }
    }
  }
  return count;
}

void WarnSilencedNonFinite(std::int64_t count) {
  if (count > 0) {
    std::fprintf(stderr, "vexdsp: warning: %lld non-finite input samples (NaN or infinite) were taken as silence\n",
                 static_cast<long long>(count));
  }
}

bool FileSink::Write(const float* const* planar, int numFrames) {
  try {
    if (meter_ != nullptr) {
      meter_->Add(planar, numFrames);
    }
    writer_.Write(planar, numFrames);
    return true;
  } catch (const std::exception& error) {
    error_ = error.what();
    return false;
  }
}

void FileSink::Check() const {
  if (!error_.empty()) {
    throw CliError(error_);
  }
}

std::unique_ptr<dsp::host::EffectChain> ParseEffectChain(const std::vector<std::string>& texts) {
  auto chain = std::make_unique<dsp::host::EffectChain>();
  for (const std::string& text : texts) {
    std::string error;
    if (!chain->Add(text, &error)) {
      throw EffectTextError(error);
    }
  }
  return chain;
}

std::int64_t ParseTail(const std::string& text, const dsp::host::EffectChain& chain, double sampleRate) {
  if (text.empty()) {
    return 0;
  }
  if (text == "auto") {
    return chain.GetTailFrames();
  }
  double seconds = 0.0;
  if (!dsp::host::ParseDecimal(text, &seconds) || seconds < 0.0 || seconds > 3600.0) {
    throw UsageError("--tail " + text + " is not 'auto' or a number of seconds from 0 to 3600");
  }
  return std::llround(seconds * sampleRate);
}

std::string DescribeStream(int format, int numChannels, int sampleRate, std::int64_t frames) {
  return DescribeFormat(format) + ", " + std::to_string(numChannels) + " ch, " + std::to_string(sampleRate) + " Hz, " +
         (frames < 0 ? std::string("length unknown") : std::to_string(frames) + " frames");
}

}  // namespace vexdsp
