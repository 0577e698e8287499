#include "vexmediatypes/AudioChannelDescription.h"

namespace vexmediatypes {

const char* AudioChannelDescription::GetShortName() const {
  switch (label_) {
    case AudioChannelLabel::kMono:
      return "M";
    case AudioChannelLabel::kLeft:
      return "L";
    case AudioChannelLabel::kRight:
      return "R";
    case AudioChannelLabel::kCenter:
      return "C";
    case AudioChannelLabel::kLFE:
      return "LFE";
    case AudioChannelLabel::kLeftSurround:
      return "Ls";
    case AudioChannelLabel::kRightSurround:
      return "Rs";
    case AudioChannelLabel::kLeftBack:
      return "Lb";
    case AudioChannelLabel::kRightBack:
      return "Rb";
    case AudioChannelLabel::kDiscrete:
      break;
  }
  return "D";
}

namespace {

AudioChannelLayout Make(std::initializer_list<AudioChannelLabel> labels) {
  AudioChannelLayout layout;
  layout.reserve(labels.size());
  for (AudioChannelLabel label : labels) layout.emplace_back(label);
  return layout;
}

}  // namespace

AudioChannelLayout CreateStereoChannelLayout() { return Make({AudioChannelLabel::kLeft, AudioChannelLabel::kRight}); }

AudioChannelLayout CreateBroadcast51ChannelLayout() {
  using L = AudioChannelLabel;
  return Make({L::kLeft, L::kRight, L::kCenter, L::kLFE, L::kLeftSurround, L::kRightSurround});
}

AudioChannelLayout CreateLegacy51ChannelLayout() {
  using L = AudioChannelLabel;
  return Make({L::kLeft, L::kCenter, L::kRight, L::kLeftSurround, L::kRightSurround, L::kLFE});
}

AudioChannelLayout CreateMonoChannelLayout() { return Make({AudioChannelLabel::kMono}); }

AudioChannelLayout CreateDefaultChannelLayout(int numChannels) {
  if (numChannels == 1) return CreateMonoChannelLayout();
  if (numChannels == 2) return CreateStereoChannelLayout();
  if (numChannels == 6) return CreateBroadcast51ChannelLayout();
  AudioChannelLayout layout;
  for (int i = 0; i < numChannels; ++i) layout.emplace_back(AudioChannelLabel::kDiscrete, i);
  return layout;
}

}  // namespace vexmediatypes
