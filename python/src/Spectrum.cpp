// vexaudiodsp.spectrum: the library's spectrum meter over a whole array.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "Arrays.h"
#include "Binders.h"
#include "vexaudiodsp/spectrummeter/SpectrumMeterDSP.h"

namespace py = pybind11;
using dsp::spectrummeter::SpectrumMeterDSP;

namespace vexaudiodsp_py {
namespace {

template <typename Code>
Code Lookup(const std::map<std::string, Code>& table, const std::string& value, const char* what) {
  const auto found = table.find(value);
  if (found != table.end()) return found->second;
  std::string names;
  for (const auto& [name, code] : table) names += (names.empty() ? "" : ", ") + name;
  throw py::value_error(std::string(what) + " '" + value + "' is not one of " + names);
}

py::dict Spectrum(const py::handle& x, double sampleRate, const std::string& type, const std::string& average,
                  int fftSize, const std::string& window) {
  static const std::map<std::string, SpectrumMeterDSP::SpectrumType> kTypes = {
      {"linear", SpectrumMeterDSP::kLinear},
      {"third-octave", SpectrumMeterDSP::kThirdOctave},
      {"critical", SpectrumMeterDSP::kCriticalBand}};
  static const std::map<std::string, SpectrumMeterDSP::AverageWindowSize> kAverages = {
      {"none", SpectrumMeterDSP::kPeakHold},  {"1s", SpectrumMeterDSP::kAverage1s},
      {"3s", SpectrumMeterDSP::kAverage3s},   {"5s", SpectrumMeterDSP::kAverage5s},
      {"10s", SpectrumMeterDSP::kAverage10s}, {"infinite", SpectrumMeterDSP::kInfinite}};
  static const std::map<std::string, SpectrumMeterDSP::FFTWindow> kWindows = {{"hamming", SpectrumMeterDSP::kHamming},
                                                                              {"blackman", SpectrumMeterDSP::kBlackman},
                                                                              {"bartlett", SpectrumMeterDSP::kBartlett},
                                                                              {"kaiser", SpectrumMeterDSP::kKaiser},
                                                                              {"hann", SpectrumMeterDSP::kHann}};
  static const std::map<std::string, SpectrumMeterDSP::FFTSize> kSizes = {{"512", SpectrumMeterDSP::kFFT512},
                                                                          {"1024", SpectrumMeterDSP::kFFT1024},
                                                                          {"2048", SpectrumMeterDSP::kFFT2048},
                                                                          {"4096", SpectrumMeterDSP::kFFT4096},
                                                                          {"8192", SpectrumMeterDSP::kFFT8192}};

  const double rate = CheckSampleRate(sampleRate);
  const auto spectrumType = Lookup(kTypes, type, "type");
  const auto averageWindow = Lookup(kAverages, average, "average");
  const auto fftWindow = Lookup(kWindows, window, "window");
  const auto size = Lookup(kSizes, std::to_string(fftSize), "fft_size");
  const InputAudio audio = ToPlanar(x);
  if (audio.Frames() < static_cast<std::size_t>(fftSize)) {
    throw py::value_error("the signal has " + std::to_string(audio.Frames()) + " frames, fewer than fft_size " +
                          std::to_string(fftSize));
  }

  SpectrumMeterDSP meter(static_cast<float>(rate), audio.NumChannels());
  meter.SetParams(spectrumType, averageWindow, size, SpectrumMeterDSP::kOverlap50, fftWindow);
  std::vector<float> values(SpectrumMeterDSP::kMaxValues);
  unsigned count = 0;
  {
    py::gil_scoped_release release;
    std::vector<const float*> planar;
    for (const auto& channel : audio.channels) planar.push_back(channel.data());
    meter.Process(planar.data(), static_cast<int>(audio.Frames()), vexcore::utility::Flags<std::uint64_t>());
    SpectrumMeterDSP::SpectrumType shown;
    meter.GetBands(values.data(), count, shown, true);
  }

  py::array_t<double> hz(count);
  py::array_t<float> level(count);
  py::array_t<double> dbfs(count);
  auto h = hz.mutable_unchecked<1>();
  auto l = level.mutable_unchecked<1>();
  auto d = dbfs.mutable_unchecked<1>();
  for (unsigned i = 0; i < count; ++i) {
    const int k = static_cast<int>(i);
    h(k) = spectrumType == SpectrumMeterDSP::kLinear        ? k * rate / fftSize
           : spectrumType == SpectrumMeterDSP::kThirdOctave ? SpectrumMeterDSP::GetThirdOctaveBand(k)
                                                            : SpectrumMeterDSP::GetCriticalBand(k);
    l(k) = values[i];
    d(k) =
        values[i] > 0.0f ? 20.0 * std::log10(static_cast<double>(values[i])) : -std::numeric_limits<double>::infinity();
  }
  py::dict result;
  result["hz"] = hz;
  result["level"] = level;
  result["dbfs"] = dbfs;
  result["type"] = type;
  result["average"] = average;
  result["fft_size"] = fftSize;
  return result;
}

void BindSpectrum(py::module_& m) {
  m.def("spectrum", &Spectrum, py::arg("x"), py::arg("sample_rate"), py::arg("type") = "third-octave",
        py::arg("average") = "none", py::arg("fft_size") = 4096, py::arg("window") = "hann",
        R"doc(The spectrum of a whole signal through the library's spectrum meter.

x: float32 or float64 array, (channels, frames) or 1-D; the channels are
mixed (their mean). type: "linear" (one value per FFT bin), "third-octave"
(32 bands from 20 Hz) or "critical" (26 bands). average: "none" (peak hold),
"1s", "3s", "5s", "10s" (moving mean at the end) or "infinite" (mean of all
frames). fft_size: 512 ... 8192; frames overlap by half. window: "hann",
"hamming", "blackman", "bartlett" or "kaiser".

Returns a dict: "hz" (bin frequencies, or the bands' lower edges), "level"
(linear full scale: a sine of amplitude A reads A in its bin or band),
"dbfs" (20 log10 level, -inf for silence), and the settings.)doc");
}

const BinderRegistration kSpectrum{"spectrum", BindSpectrum};

}  // namespace
}  // namespace vexaudiodsp_py
