// vexaudiodsp.loudness: the figures of `vexdsp loudness --json` for an array.

#include "vexaudiodsp/loudness/Loudness.h"

#include <pybind11/pybind11.h>

#include <cmath>
#include <string>
#include <vector>

#include "Arrays.h"
#include "Binders.h"
#include "vexaudiodsp/loudness/LoudnessMeter.h"

namespace py = pybind11;

namespace vexaudiodsp_py {
namespace {

constexpr double kNoValue = -300.0;

py::object ValueOrNone(double v) { return v > kNoValue ? py::object(py::float_(v)) : py::object(py::none()); }

py::dict Loudness(const py::handle& x, double sampleRate, const std::string& standardName) {
  int standard = 0;
  if (standardName == "ebu") {
    standard = dsp::loudness::kStandardEbu;
  } else if (standardName == "atsc") {
    standard = dsp::loudness::kStandardAtsc;
  } else {
    throw py::value_error("standard must be 'ebu' or 'atsc', not '" + standardName + "'");
  }
  const double rate = CheckSampleRate(sampleRate);
  const InputAudio audio = ToPlanar(x);
  const int channels = audio.NumChannels();
  // Channels follow the default layout for their count: 6 are L R C LFE Ls Rs.
  const std::vector<dsp::Itu1770::ChannelLabel> labels =
      dsp::Itu1770::LabelsFromLayout(vexmediatypes::CreateDefaultChannelLayout(channels));
  dsp::LoudnessSummary s;
  {
    py::gil_scoped_release release;
    constexpr std::size_t kBlock = 8192;
    dsp::LoudnessMeter meter;
    meter.Init(kBlock, static_cast<int>(std::lround(rate)), labels);
    std::vector<const float*> pointers;
    for (const auto& channel : audio.channels) pointers.push_back(channel.data());
    meter.Process(pointers.data(), audio.Frames());
    s = meter.GetSummary();
  }
  const auto unit = dsp::loudness::GetLoudnessUnitString(dsp::loudness::GetUnitForLoudnessStandard(standard), true);
  py::dict out;
  out["integrated"] = s.valid ? ValueOrNone(s.integrated) : py::object(py::none());
  out["unit"] = std::string(unit.begin(), unit.end());
  out["true_peak_db"] = ValueOrNone(s.truePeakDb);
  out["true_peak_position"] = static_cast<double>(s.truePeakPosition) / rate;
  out["momentary_max"] = ValueOrNone(s.momentaryMax);
  out["short_term_max"] = ValueOrNone(s.shortTermMax);
  out["loudness_range"] = s.loudnessRange;
  out["valid"] = s.valid;
  out["compliant"] = dsp::loudness::IsCompliant(standard, s.valid, s.integrated, s.truePeakDb);
  return out;
}

void BindLoudness(py::module_& m) {
  m.def("loudness", &Loudness, py::arg("x"), py::arg("sample_rate"), py::arg("standard") = "ebu",
        "Loudness of planar audio (channels, frames) or one channel: integrated loudness after ITU-R BS.1770-4, "
        "true peak (dBTP) and its position in seconds, maximum momentary and short-term loudness, loudness range "
        "(EBU Tech 3342), and whether it meets the standard ('ebu': -23 LUFS +/- 0.5, <= -1 dBTP; 'atsc': -24 "
        "LKFS +/- 2, <= -2 dBTP). Values that cannot be measured (too short, silence) are None. Six channels are "
        "taken as L R C LFE Ls Rs.");
}

const BinderRegistration kLoudness{"loudness", BindLoudness};

}  // namespace
}  // namespace vexaudiodsp_py
