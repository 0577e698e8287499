#pragma once

#include <vector>

#include "vexcore/Export.h"
#include "vexcore/SmallBlockAllocator.h"

namespace vexmediatypes {

enum class AudioChannelLabel {
  kDiscrete = 0,
  kMono,
  kLeft,
  kRight,
  kCenter,
  kLFE,
  kLeftSurround,
  kRightSurround,
  kLeftBack,
  kRightBack,
};

/// One channel of a layout: its label and, for discrete channels, an index.
class VEX_API AudioChannelDescription {
 public:
  AudioChannelDescription() = default;
  explicit AudioChannelDescription(AudioChannelLabel label, int discreteIndex = 0)
      : label_(label), discreteIndex_(discreteIndex) {}

  AudioChannelLabel GetLabel() const { return label_; }
  int GetDiscreteIndex() const { return discreteIndex_; }
  /// Short name: "L", "R", "C", "LFE", "Ls", "Rs", "Lb", "Rb", "M", or "D" for a
  /// discrete channel (its number is GetDiscreteIndex()).
  const char* GetShortName() const;

  friend bool operator==(const AudioChannelDescription& a, const AudioChannelDescription& b) {
    return a.label_ == b.label_ && a.discreteIndex_ == b.discreteIndex_;
  }
  friend bool operator!=(const AudioChannelDescription& a, const AudioChannelDescription& b) { return !(a == b); }

 private:
  AudioChannelLabel label_ = AudioChannelLabel::kDiscrete;
  int discreteIndex_ = 0;
};

using AudioChannelLayout =
    std::vector<AudioChannelDescription, vexcore::utility::SmallBlockAllocator<AudioChannelDescription>>;

/// L R
VEX_API AudioChannelLayout CreateStereoChannelLayout();
/// L R C LFE Ls Rs (broadcast / SMPTE order)
VEX_API AudioChannelLayout CreateBroadcast51ChannelLayout();
/// L C R Ls Rs LFE (film order)
VEX_API AudioChannelLayout CreateLegacy51ChannelLayout();
/// M
VEX_API AudioChannelLayout CreateMonoChannelLayout();
/// The layout a plain channel count suggests: 1 mono, 2 stereo, 6 broadcast
/// 5.1, otherwise discrete channels 0 ... n-1.
VEX_API AudioChannelLayout CreateDefaultChannelLayout(int numChannels);

}  // namespace vexmediatypes
