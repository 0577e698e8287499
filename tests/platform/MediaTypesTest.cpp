#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vexmediatypes/AudioChannelDescription.h"

namespace {

using vexmediatypes::AudioChannelDescription;
using vexmediatypes::AudioChannelLabel;
using vexmediatypes::AudioChannelLayout;

std::vector<std::string> ShortNames(const AudioChannelLayout& layout) {
  std::vector<std::string> names;
  for (const AudioChannelDescription& d : layout) names.emplace_back(d.GetShortName());
  return names;
}

using Names = std::vector<std::string>;

TEST(ChannelLayouts, StandardLayoutsHaveTheirChannelOrder) {
  EXPECT_EQ(ShortNames(vexmediatypes::CreateMonoChannelLayout()), (Names{"M"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateStereoChannelLayout()), (Names{"L", "R"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateBroadcast51ChannelLayout()), (Names{"L", "R", "C", "LFE", "Ls", "Rs"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateLegacy51ChannelLayout()), (Names{"L", "C", "R", "Ls", "Rs", "LFE"}));

  const AudioChannelLayout broadcast = vexmediatypes::CreateBroadcast51ChannelLayout();
  EXPECT_EQ(broadcast[3].GetLabel(), AudioChannelLabel::kLFE);
  EXPECT_EQ(broadcast[2].GetLabel(), AudioChannelLabel::kCenter);
  for (const AudioChannelDescription& d : broadcast) EXPECT_EQ(d.GetDiscreteIndex(), 0);
}

TEST(ChannelLayouts, BroadcastAndLegacy51AreTheSameChannelsInAnotherOrder) {
  AudioChannelLayout broadcast = vexmediatypes::CreateBroadcast51ChannelLayout();
  AudioChannelLayout legacy = vexmediatypes::CreateLegacy51ChannelLayout();
  EXPECT_NE(broadcast, legacy);
  auto byLabel = [](const AudioChannelDescription& a, const AudioChannelDescription& b) {
    return a.GetLabel() < b.GetLabel();
  };
  std::sort(broadcast.begin(), broadcast.end(), byLabel);
  std::sort(legacy.begin(), legacy.end(), byLabel);
  EXPECT_EQ(broadcast, legacy);
}

TEST(ChannelLayouts, DefaultLayoutFollowsTheChannelCount) {
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(1), vexmediatypes::CreateMonoChannelLayout());
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(2), vexmediatypes::CreateStereoChannelLayout());
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(6), vexmediatypes::CreateBroadcast51ChannelLayout());
  EXPECT_TRUE(vexmediatypes::CreateDefaultChannelLayout(0).empty());
  EXPECT_TRUE(vexmediatypes::CreateDefaultChannelLayout(-3).empty());

  for (int count : {3, 4, 5, 7, 8, 16}) {
    const AudioChannelLayout layout = vexmediatypes::CreateDefaultChannelLayout(count);
    ASSERT_EQ(layout.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      const AudioChannelDescription& d = layout[static_cast<std::size_t>(i)];
      EXPECT_EQ(d.GetLabel(), AudioChannelLabel::kDiscrete);
      EXPECT_EQ(d.GetDiscreteIndex(), i);
      EXPECT_STREQ(d.GetShortName(), "D");
    }
  }
}

TEST(ChannelLayouts, DescriptionEqualityComparesLabelAndIndex) {
  const AudioChannelDescription left(AudioChannelLabel::kLeft);
  EXPECT_EQ(left, AudioChannelDescription(AudioChannelLabel::kLeft, 0));
  EXPECT_NE(left, AudioChannelDescription(AudioChannelLabel::kRight));
  EXPECT_NE(AudioChannelDescription(AudioChannelLabel::kDiscrete, 1),
            AudioChannelDescription(AudioChannelLabel::kDiscrete, 2));
  EXPECT_EQ(AudioChannelDescription(), AudioChannelDescription(AudioChannelLabel::kDiscrete, 0));

  // Layouts compare element by element, so order and length both matter.
  AudioChannelLayout stereo = vexmediatypes::CreateStereoChannelLayout();
  AudioChannelLayout swapped = stereo;
  std::swap(swapped[0], swapped[1]);
  EXPECT_NE(stereo, swapped);
  AudioChannelLayout longer = stereo;
  longer.emplace_back(AudioChannelLabel::kCenter);
  EXPECT_NE(stereo, longer);
  longer.pop_back();
  EXPECT_EQ(stereo, longer);
}

TEST(ChannelLayouts, EveryLabelHasADistinctShortName) {
  const AudioChannelLabel labels[] = {AudioChannelLabel::kDiscrete,     AudioChannelLabel::kMono,
                                      AudioChannelLabel::kLeft,         AudioChannelLabel::kRight,
                                      AudioChannelLabel::kCenter,       AudioChannelLabel::kLFE,
                                      AudioChannelLabel::kLeftSurround, AudioChannelLabel::kRightSurround,
                                      AudioChannelLabel::kLeftBack,     AudioChannelLabel::kRightBack};
  std::vector<std::string> names;
  for (AudioChannelLabel label : labels) names.emplace_back(AudioChannelDescription(label).GetShortName());
  EXPECT_EQ(names, (Names{"D", "M", "L", "R", "C", "LFE", "Ls", "Rs", "Lb", "Rb"}));
}

}  // namespace
