#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vexmediatypes/AudioChannelDescription.h"

namespace {

using vexmediatypes::AudioChannelDescription;
using vexmediatypes::AudioChannelLabel;
using vexmediatypes::AudioChannelLayout;
using Names = std::vector<std::string>;

Names ShortNames(const AudioChannelLayout& layout) {
  Names names;
  for (const AudioChannelDescription& d : layout) names.emplace_back(d.GetShortName());
  return names;
}

TEST(ChannelLayouts, StandardAndDefaultLayoutsHaveTheirChannelOrder) {
  EXPECT_EQ(ShortNames(vexmediatypes::CreateMonoChannelLayout()), (Names{"M"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateStereoChannelLayout()), (Names{"L", "R"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateBroadcast51ChannelLayout()), (Names{"L", "R", "C", "LFE", "Ls", "Rs"}));
  EXPECT_EQ(ShortNames(vexmediatypes::CreateLegacy51ChannelLayout()), (Names{"L", "C", "R", "Ls", "Rs", "LFE"}));
  EXPECT_NE(AudioChannelDescription(AudioChannelLabel::kDiscrete, 1),
            AudioChannelDescription(AudioChannelLabel::kDiscrete, 2));
  // The default layout follows the channel count; other counts are discrete channels.
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(1), vexmediatypes::CreateMonoChannelLayout());
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(2), vexmediatypes::CreateStereoChannelLayout());
  EXPECT_EQ(vexmediatypes::CreateDefaultChannelLayout(6), vexmediatypes::CreateBroadcast51ChannelLayout());
  EXPECT_TRUE(vexmediatypes::CreateDefaultChannelLayout(0).empty() &&
              vexmediatypes::CreateDefaultChannelLayout(-3).empty());
  for (int count : {3, 5, 8, 16}) {
    const AudioChannelLayout layout = vexmediatypes::CreateDefaultChannelLayout(count);
    ASSERT_EQ(layout.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(layout[static_cast<std::size_t>(i)], AudioChannelDescription(AudioChannelLabel::kDiscrete, i));
      EXPECT_STREQ(layout[static_cast<std::size_t>(i)].GetShortName(), "D");
    }
  }
}

}  // namespace
