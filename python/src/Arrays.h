#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

namespace vexaudiodsp_py {

using Planar = std::vector<std::vector<float>>;

/// Audio handed in from Python: float32 or float64, shaped (channels,
/// frames), or 1-D for one channel. Anything else raises TypeError (dtype)
/// or ValueError (rank, no channels); the samples are copied into planar
/// float storage the library can process while the GIL is released.
struct InputAudio {
  Planar channels;
  bool oneDimensional = false;
  std::size_t Frames() const { return channels.empty() ? 0 : channels[0].size(); }
  int NumChannels() const { return static_cast<int>(channels.size()); }
};

InputAudio ToPlanar(const pybind11::handle& array);

/// Planar float audio back to a float32 array, (channels, frames), or 1-D
/// when `oneDimensional`.
pybind11::array_t<float> FromPlanar(const Planar& audio, bool oneDimensional);

/// Checks a sample rate from Python: finite and positive, else ValueError.
double CheckSampleRate(double sampleRate);

}  // namespace vexaudiodsp_py
