// vexaudiodsp.capture_noise_print and vexaudiodsp.NoisePrint: noise prints
// for the "denoise" effect.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Arrays.h"
#include "Binders.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/nonoise/NoisePrint.h"

namespace py = pybind11;

namespace vexaudiodsp_py {
namespace {

[[noreturn]] void RaiseOSError(const std::string& message) {
  PyErr_SetString(PyExc_OSError, message.c_str());
  throw py::error_already_set();
}

// A print as Python sees it. Effects take file paths, so the print keeps
// one: the file it was loaded from or last saved to, or else a temporary
// file written on first use and removed with the object.
class PyNoisePrint {
 public:
  PyNoisePrint() = default;
  explicit PyNoisePrint(dsp::nonoise::NoisePrint print) : print_(std::move(print)) {}
  ~PyNoisePrint() {
    if (!temporary_.empty()) std::remove(temporary_.c_str());
  }
  PyNoisePrint(const PyNoisePrint&) = delete;
  PyNoisePrint& operator=(const PyNoisePrint&) = delete;

  static std::unique_ptr<PyNoisePrint> Load(const std::string& path) {
    auto p = std::make_unique<PyNoisePrint>();
    std::string error;
    bool ok = false;
    {
      py::gil_scoped_release release;
      ok = p->print_.Load(path, &error);
    }
    if (!ok) {
      if (error.rfind("cannot open", 0) == 0) RaiseOSError(error);
      throw py::value_error(error);
    }
    p->path_ = path;
    return p;
  }

  void Save(const std::string& path) {
    std::string error;
    if (!print_.Save(path, &error)) RaiseOSError(error);
    path_ = path;
  }

  std::string Path() {
    if (!path_.empty()) return path_;
    if (temporary_.empty()) {
      const char* dir = std::getenv("TMPDIR");
      std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/vexaudiodsp-print-XXXXXX";
      const int fd = mkstemp(pattern.data());
      if (fd < 0) RaiseOSError("cannot create a temporary file for the noise print");
      close(fd);
      std::string error;
      if (!print_.Save(pattern, &error)) {
        std::remove(pattern.c_str());
        RaiseOSError(error);
      }
      temporary_ = pattern;
    }
    return temporary_;
  }

  const dsp::nonoise::NoisePrint& Get() const { return print_; }

  // Bins 0 ... N/2 of one curve kind, shaped (channels, bins).
  py::array_t<double> Curve(double** curves) const {
    const int channels = print_.GetChannels();
    const int bins = print_.GetFFTSize() / 2 + 1;
    py::array_t<double> out({channels, bins});
    auto view = out.mutable_unchecked<2>();
    for (int c = 0; c < channels; ++c) {
      for (int k = 0; k < bins; ++k) view(c, k) = curves[c][k];
    }
    return out;
  }

 private:
  dsp::nonoise::NoisePrint print_;
  std::string path_;
  std::string temporary_;
};

std::unique_ptr<PyNoisePrint> Capture(const py::handle& x, double sampleRate, double start, double end, int fftSize) {
  const double rate = CheckSampleRate(sampleRate);
  InputAudio audio = ToPlanar(x);
  if (!std::isfinite(start) || !std::isfinite(end) || start < 0.0 || end <= start) {
    throw py::value_error("capture_noise_print: need 0 <= start < end (seconds)");
  }
  const auto frames = static_cast<std::int64_t>(audio.Frames());
  const std::int64_t first = std::llround(start * rate);
  const std::int64_t last = std::min<std::int64_t>(std::llround(end * rate), frames);
  if (first >= frames) throw py::value_error("capture_noise_print: start lies beyond the end of the audio");
  std::vector<const float*> pointers;
  for (const auto& ch : audio.channels) pointers.push_back(ch.data());
  dsp::nonoise::NoisePrint print;
  std::string error;
  bool ok = false;
  {
    py::gil_scoped_release release;
    dsp::host::MemorySource source(pointers, frames);
    ok = dsp::nonoise::CaptureNoisePrintFromSource(source, audio.NumChannels(), rate, first, last - first, fftSize,
                                                   &print, &error);
  }
  if (!ok) throw py::value_error("capture_noise_print: " + error);
  return std::make_unique<PyNoisePrint>(std::move(print));
}

void BindNoNoise(py::module_& m) {
  py::class_<PyNoisePrint>(m, "NoisePrint",
                           "A noise print for Effect('denoise', print=...): per channel and bin the minimum, "
                           "maximum and RMS magnitude of a noise-only selection. Usable wherever a path is: "
                           "os.fspath(print) is the file it came from, was saved to, or a temporary copy.")
      .def_static("load", &PyNoisePrint::Load, py::arg("path"), "Reads a print file (ValueError if it is damaged).")
      .def("save", &PyNoisePrint::Save, py::arg("path"), "Writes the print file (versioned, hashed).")
      .def_property_readonly("path", &PyNoisePrint::Path)
      .def("__fspath__", &PyNoisePrint::Path)
      .def_property_readonly("sample_rate", [](const PyNoisePrint& p) { return p.Get().GetSampleRate(); })
      .def_property_readonly("channels", [](const PyNoisePrint& p) { return p.Get().GetChannels(); })
      .def_property_readonly("fft_size", [](const PyNoisePrint& p) { return p.Get().GetFFTSize(); })
      .def_property_readonly("frames", [](const PyNoisePrint& p) { return p.Get().GetFrames(); })
      .def_property_readonly("level_spread_db", [](const PyNoisePrint& p) { return p.Get().GetLevelSpreadDb(); })
      .def_property_readonly("warnings", [](const PyNoisePrint& p) { return p.Get().GetWarnings(); })
      .def_property_readonly("minimum", [](const PyNoisePrint& p) { return p.Curve(p.Get().GetRecord().minCurve); })
      .def_property_readonly("maximum", [](const PyNoisePrint& p) { return p.Curve(p.Get().GetRecord().maxCurve); })
      .def_property_readonly("average", [](const PyNoisePrint& p) { return p.Curve(p.Get().GetRecord().averageCurve); })
      .def("__repr__", [](const PyNoisePrint& p) {
        const auto& n = p.Get();
        return "<NoisePrint " + std::to_string(n.GetChannels()) + " ch, FFT " + std::to_string(n.GetFFTSize()) + ", " +
               dsp::host::FormatNumber(n.GetSampleRate()) + " Hz, " + std::to_string(n.GetFrames()) + " frames>";
      });

  m.def("capture_noise_print", &Capture, py::arg("x"), py::arg("sample_rate"), py::arg("start"), py::arg("end"),
        py::arg("fft_size") = 4096,
        "Captures a noise print from x[:, start*rate:end*rate] (seconds), a selection that holds only noise. "
        "ValueError when the selection is shorter than fft_size + 3 samples.");
}

const BinderRegistration kNoNoise{"nonoise", BindNoNoise};

}  // namespace
}  // namespace vexaudiodsp_py
