// The vexaudiodsp Python module: every binding file registers a binder,
// and importing the module runs them in name order.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cmath>
#include <cstring>
#include <map>
#include <string>

#include "Arrays.h"
#include "Binders.h"

namespace py = pybind11;

namespace vexaudiodsp_py {
namespace {

std::map<std::string, Binder>& Binders() {
  static std::map<std::string, Binder> binders;
  return binders;
}

}  // namespace

BinderRegistration::BinderRegistration(const char* name, Binder binder) { Binders()[name] = binder; }

InputAudio ToPlanar(const py::handle& object) {
  if (!py::isinstance<py::array>(object)) {
    throw py::type_error("audio must be a numpy array of float32 or float64, shaped (channels, frames)");
  }
  auto array = py::reinterpret_borrow<py::array>(object);
  const bool isFloat32 = array.dtype().is(py::dtype::of<float>());
  const bool isFloat64 = array.dtype().is(py::dtype::of<double>());
  if (!isFloat32 && !isFloat64) {
    throw py::type_error("audio must be float32 or float64, not " + std::string(py::str(array.dtype())));
  }
  if (array.ndim() != 1 && array.ndim() != 2) {
    throw py::value_error("audio must be 1-D (one channel) or 2-D (channels, frames), not " +
                          std::to_string(array.ndim()) + "-D");
  }
  InputAudio audio;
  audio.oneDimensional = array.ndim() == 1;
  const auto channels = static_cast<std::size_t>(audio.oneDimensional ? 1 : array.shape(0));
  const auto frames = static_cast<std::size_t>(array.shape(array.ndim() - 1));
  if (channels == 0) {
    throw py::value_error("audio has no channels");
  }
  audio.channels.assign(channels, std::vector<float>(frames));
  // Strided access copes with transposed and sliced arrays.
  const auto* base = static_cast<const char*>(array.data());
  const py::ssize_t channelStride = audio.oneDimensional ? 0 : array.strides(0);
  const py::ssize_t frameStride = array.strides(array.ndim() - 1);
  for (std::size_t ch = 0; ch < channels; ++ch) {
    for (std::size_t i = 0; i < frames; ++i) {
      const char* p = base + static_cast<py::ssize_t>(ch) * channelStride + static_cast<py::ssize_t>(i) * frameStride;
      if (isFloat32) {
        float v;
        std::memcpy(&v, p, sizeof v);
        audio.channels[ch][i] = v;
      } else {
        double v;
        std::memcpy(&v, p, sizeof v);
        audio.channels[ch][i] = static_cast<float>(v);
      }
    }
  }
  // One bad sample must not spoil a whole measurement or filter state: it
  // is taken as silence, and the caller is told.
  std::size_t silenced = 0;
  for (auto& channel : audio.channels) {
    for (float& v : channel) {
      if (!std::isfinite(v)) {
        v = 0.0f;
        ++silenced;
      }
    }
  }
  if (silenced > 0) {
    const std::string message =
        std::to_string(silenced) + " non-finite samples (NaN or infinite) were taken as silence";
    if (PyErr_WarnEx(PyExc_RuntimeWarning, message.c_str(), 1) != 0) {
      throw py::error_already_set();
    }
  }
  return audio;
}

py::array_t<float> FromPlanar(const Planar& audio, bool oneDimensional) {
  const auto channels = static_cast<py::ssize_t>(audio.size());
  const auto frames = static_cast<py::ssize_t>(audio.empty() ? 0 : audio[0].size());
  py::array_t<float> out =
      oneDimensional ? py::array_t<float>(std::vector<py::ssize_t>{frames}) : py::array_t<float>({channels, frames});
  float* data = out.mutable_data();
  for (py::ssize_t ch = 0; ch < channels; ++ch) {
    std::memcpy(data + ch * frames, audio[static_cast<std::size_t>(ch)].data(),
                static_cast<std::size_t>(frames) * sizeof(float));
  }
  return out;
}

double CheckSampleRate(double sampleRate) {
  if (!std::isfinite(sampleRate) || sampleRate <= 0.0) {
    throw py::value_error("sample_rate must be a positive number of Hz");
  }
  return sampleRate;
}

}  // namespace vexaudiodsp_py

PYBIND11_MODULE(vexaudiodsp, m) {
  m.doc() =
      "Audio signal processing from vexaudiodsp: every effect of the library's registry, with the same "
      "parameters, ranges and text form as the vexdsp command line.";
  for (const auto& entry : vexaudiodsp_py::Binders()) {
    entry.second(m);
  }
}
