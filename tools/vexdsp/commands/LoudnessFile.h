#pragma once

// Shared by `vexdsp loudness` and `vexdsp normalize`: measuring a whole
// sound file with the library's loudness analyzer.

#include <sndfile.h>

#include <string>
#include <vector>

#include "AudioFile.h"
#include "CliError.h"
#include "Pipeline.h"
#include "Progress.h"
#include "vexaudiodsp/loudness/Loudness.h"
#include "vexaudiodsp/loudness/LoudnessAnalyzer.h"

namespace vexdsp {

// BS.1770 roles from the file's channel map: the LFE is left out, the
// surround and back channels are weighted 1.41. Without a map, the default
// layout for the channel count.
inline std::vector<dsp::Itu1770::ChannelLabel> LabelsForFile(const AudioFileReader& reader) {
  const std::vector<int> map = reader.GetChannelMap();
  if (map.size() != static_cast<std::size_t>(reader.GetNumChannels())) return {};
  std::vector<dsp::Itu1770::ChannelLabel> labels;
  for (int role : map) {
    switch (role) {
      case SF_CHANNEL_MAP_LFE:
        labels.push_back(dsp::Itu1770::kLowFrequencyEffects);
        break;
      case SF_CHANNEL_MAP_REAR_LEFT:
      case SF_CHANNEL_MAP_SIDE_LEFT:
        labels.push_back(dsp::Itu1770::kLeftSurround);
        break;
      case SF_CHANNEL_MAP_REAR_RIGHT:
      case SF_CHANNEL_MAP_SIDE_RIGHT:
        labels.push_back(dsp::Itu1770::kRightSurround);
        break;
      case SF_CHANNEL_MAP_LEFT:
      case SF_CHANNEL_MAP_FRONT_LEFT:
        labels.push_back(dsp::Itu1770::kLeft);
        break;
      case SF_CHANNEL_MAP_RIGHT:
      case SF_CHANNEL_MAP_FRONT_RIGHT:
        labels.push_back(dsp::Itu1770::kRight);
        break;
      case SF_CHANNEL_MAP_CENTER:
      case SF_CHANNEL_MAP_FRONT_CENTER:
        labels.push_back(dsp::Itu1770::kCenter);
        break;
      default:
        labels.push_back(dsp::Itu1770::kOther);
        break;
    }
  }
  return labels;
}

// Measures the whole of `path`; CliError when it cannot be read.
inline dsp::LoudnessSummary MeasureLoudness(const std::string& path, const char* what = "measuring") {
  AudioFileReader reader(path);
  dsp::LoudnessAnalyzer analyzer;
  analyzer.SetLabels(LabelsForFile(reader));
  FileSource source(reader, true);
  Progress progress(what, reader.GetNumFrames());
  std::string error;
  const bool ok = dsp::host::RunAnalyzer(analyzer, source, reader.GetNumChannels(), reader.GetSampleRate(), 0, -1,
                                         nullptr, &error, [&](std::int64_t done) { progress.Update(done); });
  progress.Finish();
  source.Check();
  if (!ok) throw CliError(path + ": " + error);
  source.WarnSilenced();
  return analyzer.GetSummary();
}

// The standard named on the command line ("ebu" or "atsc").
inline int StandardFromName(const std::string& name) {
  return name == "atsc" ? dsp::loudness::kStandardAtsc : dsp::loudness::kStandardEbu;
}

inline std::string UnitName(int standard, bool absolute) {
  const auto wide = dsp::loudness::GetLoudnessUnitString(dsp::loudness::GetUnitForLoudnessStandard(standard), absolute);
  return std::string(wide.begin(), wide.end());
}

}  // namespace vexdsp
