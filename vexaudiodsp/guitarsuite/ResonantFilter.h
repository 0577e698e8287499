#pragma once

#include <cstdint>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexcore/Flags.h"
#include "vexcore/RefCounted.h"
#include "vexmediatypes/AudioChannelDescription.h"

namespace dsp {
namespace guitarsuite {

/// The modes of the guitar suite's resonant filters. Any other value leaves
/// the audio untouched.
enum FilterMode : unsigned { kLowpass = 0, kHighpass = 1, kBandpass = 2 };

/// Cutoff and resonance ranges of Retro, Rez and TalkBox: 20 ... 20000 Hz
/// and 0 ... 1. Setters clamp to them (NaN counts as the minimum).
struct VEXAUDIODSP_API ResonantFilterRanges {
  static constexpr float kMinCutoff = 20.0f;
  static constexpr float kMaxCutoff = 20000.0f;
  static constexpr float kMinResonance = 0.0f;
  static constexpr float kMaxResonance = 1.0f;
};

}  // namespace guitarsuite
}  // namespace dsp
