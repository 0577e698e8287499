// vexaudiodsp.resample: whole arrays through dsp::Resample with the
// converter's delay removed, as the command line does.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>

#include "Arrays.h"
#include "Binders.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/resample/ResampleConverter.h"

namespace py = pybind11;

namespace vexaudiodsp_py {
namespace {

py::array_t<float> ResampleArray(const py::handle& x, double fromRate, double toRate, const std::string& quality) {
  CheckSampleRate(fromRate);
  CheckSampleRate(toRate);
  dsp::ResampleQuality q;
  if (!dsp::ParseResampleQuality(quality, &q)) {
    throw py::value_error("quality '" + quality + "' is not one of low, medium, high, best");
  }
  InputAudio audio = ToPlanar(x);
  dsp::MultiChannelResample converter;
  std::string error;
  if (!converter.Configure(audio.NumChannels(), fromRate, toRate, q, &error)) throw py::value_error(error);

  std::vector<const float*> channels;
  for (const auto& c : audio.channels) channels.push_back(c.data());
  dsp::host::MemorySource source(channels, static_cast<std::int64_t>(audio.Frames()));
  dsp::host::MemorySink sink(audio.NumChannels());
  {
    py::gil_scoped_release release;
    dsp::host::RenderRateChange(converter, audio.NumChannels(), source, sink);
  }
  return FromPlanar(sink.GetAudio(), audio.oneDimensional);
}

void BindResample(py::module_& m) {
  m.def("resample", &ResampleArray, py::arg("x"), py::arg("from_rate"), py::arg("to_rate"), py::arg("quality") = "high",
        "Converts float32/float64 audio shaped (channels, frames) or 1-D from one sample rate to another; returns "
        "float32 with round(frames * to_rate / from_rate) frames, lined up with the input (the converter's delay "
        "removed). quality: 'low', 'medium', 'high' (default: spurs below -120 dBc, passband to about 21 kHz at "
        "44.1/48 kHz) or 'best'. Rates must be positive and within a factor of 96 of each other; equal rates "
        "return a copy.");
}

const BinderRegistration kResample{"resample", BindResample};

}  // namespace
}  // namespace vexaudiodsp_py
