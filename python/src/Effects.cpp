// vexaudiodsp.effects(), vexaudiodsp.Effect and vexaudiodsp.process: the
// library's effect registry as Python objects.

#include <pybind11/complex.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "Arrays.h"
#include "Binders.h"
#include "vexaudiodsp/host/EffectRegistry.h"
#include "vexaudiodsp/host/Render.h"
#include "vexaudiodsp/host/Response.h"

namespace py = pybind11;
using dsp::host::Effect;
using dsp::host::EffectInfo;
using dsp::host::ParamDescriptor;
using dsp::host::ParamKind;

namespace vexaudiodsp_py {
namespace {

py::dict Describe(const ParamDescriptor& param) {
  py::dict d;
  d["id"] = param.id;
  d["name"] = param.name;
  d["unit"] = param.unit;
  d["kind"] = dsp::host::ToString(param.kind);
  d["scale"] = dsp::host::ToString(param.scale);
  d["description"] = param.description;
  d["rebuilds_state"] = param.rebuildsState;
  if (param.kind != ParamKind::kPath) {
    d["minimum"] = param.minimum;
    d["maximum"] = param.maximum;
    d["default"] = param.kind == ParamKind::kChoice ? py::object(py::str(param.Format(param.defaultValue)))
                                                    : py::object(py::float_(param.defaultValue));
  }
  if (param.kind == ParamKind::kChoice) {
    d["choices"] = param.choices;
  }
  return d;
}

py::dict Describe(const EffectInfo& info) {
  py::dict d;
  d["name"] = info.name;
  d["description"] = info.description;
  d["note"] = info.note;
  d["accepts"] = info.io.Describe();
  d["min_channels"] = info.io.minChannels;
  d["max_channels"] = info.io.maxChannels;
  py::list params;
  for (const ParamDescriptor& param : info.params) {
    params.append(Describe(param));
  }
  d["params"] = params;
  return d;
}

// An effect held for Python: configured for the channel count and rate of
// the audio it is given, and reconfigured only when those change or a
// parameter that rebuilds state was set, so consecutive process() calls
// stream.
class PyEffect {
 public:
  PyEffect(const std::string& name, const py::kwargs& settings) {
    std::string error;
    effect_ = dsp::host::CreateEffect(name, &error);
    if (effect_ == nullptr) {
      throw py::value_error(error);
    }
    for (const auto& item : settings) {
      Set(py::str(item.first), py::reinterpret_borrow<py::object>(item.second));
    }
  }

  py::object Get(const std::string& id) const {
    const int index = Index(id);
    const ParamDescriptor& param = effect_->GetParam(index);
    const double value = effect_->GetValue(index);
    switch (param.kind) {
      case ParamKind::kToggle:
        return py::bool_(value != 0.0);
      case ParamKind::kChoice:
        return py::str(param.Format(value));
      case ParamKind::kInteger:
        return py::int_(static_cast<long long>(value));
      case ParamKind::kPath:
        return py::str(effect_->GetPath(index));
      case ParamKind::kNumber:
        break;
    }
    return py::float_(value);
  }

  void Set(const std::string& id, const py::object& value) {
    const int index = Index(id);
    const ParamDescriptor& param = effect_->GetParam(index);
    std::string text;
    if (py::isinstance<py::bool_>(value)) {
      text = value.cast<bool>() ? "on" : "off";
    } else if (py::isinstance<py::str>(value)) {
      text = value.cast<std::string>();
    } else if (py::hasattr(value, "__fspath__")) {
      text = py::str(value.attr("__fspath__")()).cast<std::string>();
    } else if (py::isinstance<py::int_>(value) || py::isinstance<py::float_>(value) ||
               py::hasattr(value, "__float__")) {
      if (param.kind == ParamKind::kPath) {
        throw py::type_error("'" + id + "' takes a file path");
      }
      const double number = py::float_(value).cast<double>();
      const std::string why = param.Check(number);
      if (!why.empty()) {
        throw py::value_error("effect '" + effect_->GetInfo().name + "': value " + param.Format(number) + " for '" +
                              id + "' " + why);
      }
      effect_->SetValue(index, number);
      restart_ = restart_ || param.rebuildsState;
      return;
    } else {
      throw py::type_error("'" + id + "' takes a number, a bool or a string");
    }
    std::string error;
    if (!effect_->SetText(index, text, &error)) {
      throw py::value_error("effect '" + effect_->GetInfo().name + "': " + error);
    }
    restart_ = restart_ || param.rebuildsState;
  }

  py::array_t<float> Process(const py::handle& x, double sampleRate) {
    InputAudio audio = ToPlanar(x);
    Configure(audio.NumChannels(), CheckSampleRate(sampleRate));
    std::vector<float*> pointers;
    for (auto& channel : audio.channels) {
      pointers.push_back(channel.data());
    }
    {
      py::gil_scoped_release release;
      effect_->Process(pointers.data(), pointers.data(), audio.NumChannels(), static_cast<int>(audio.Frames()));
    }
    return FromPlanar(audio.channels, audio.oneDimensional);
  }

  py::array Response(const std::vector<double>& frequencies, double sampleRate) {
    std::vector<std::complex<double>> response;
    bool measured = false;
    std::string error;
    if (!dsp::host::ComputeResponse(*effect_, CheckSampleRate(sampleRate), frequencies, &response, &measured, &error)) {
      throw py::value_error(error);
    }
    // The response left the effect configured for its own measurement.
    channels_ = 0;
    return py::array(py::cast(response));
  }

  void Reset() { effect_->Reset(); }
  int Latency() const { return effect_->IsStarted() ? effect_->GetLatency() : 0; }
  std::int64_t Tail() const { return effect_->IsStarted() ? effect_->GetTailFrames() : 0; }
  std::string Repr() const { return "vexaudiodsp.Effect('" + dsp::host::FormatEffect(*effect_) + "')"; }
  std::string Text() const { return dsp::host::FormatEffect(*effect_); }
  std::string Name() const { return effect_->GetInfo().name; }
  std::vector<std::string> Params() const {
    std::vector<std::string> ids;
    for (const ParamDescriptor& param : effect_->GetInfo().params) {
      ids.push_back(param.id);
    }
    return ids;
  }
  bool Has(const std::string& id) const { return effect_->FindParam(id) >= 0; }

 private:
  int Index(const std::string& id) const {
    const int index = effect_->FindParam(id);
    if (index < 0) {
      throw py::attribute_error("effect '" + effect_->GetInfo().name + "' has no parameter '" + id + "'");
    }
    return index;
  }

  void Configure(int numChannels, double sampleRate) {
    if (numChannels == channels_ && sampleRate == rate_ && !restart_ && effect_->IsStarted()) {
      return;
    }
    const std::string refusal = effect_->CheckIO(numChannels, sampleRate);
    if (!refusal.empty()) {
      throw py::value_error("effect '" + effect_->GetInfo().name + "' " + refusal);
    }
    effect_->SetIOConfig(numChannels, static_cast<float>(sampleRate));
    effect_->Start();
    channels_ = numChannels;
    rate_ = sampleRate;
    restart_ = false;
  }

  std::unique_ptr<Effect> effect_;
  int channels_ = 0;
  double rate_ = 0.0;
  bool restart_ = false;
};

py::array_t<float> ProcessChain(const py::handle& x, double sampleRate, const std::vector<std::string>& effects,
                                const py::object& tail) {
  dsp::host::EffectChain chain;
  for (const std::string& text : effects) {
    std::string error;
    if (!chain.Add(text, &error)) {
      throw py::value_error(error);
    }
  }
  InputAudio audio = ToPlanar(x);
  std::string error;
  if (!chain.Prepare(audio.NumChannels(), CheckSampleRate(sampleRate), &error)) {
    throw py::value_error(error);
  }
  std::int64_t tailFrames = 0;
  if (py::isinstance<py::str>(tail)) {
    if (tail.cast<std::string>() != "auto") {
      throw py::value_error("tail must be 'auto' or a number of seconds");
    }
    tailFrames = chain.GetTailFrames();
  } else if (!tail.is_none()) {
    const double seconds = py::float_(tail).cast<double>();
    if (!std::isfinite(seconds) || seconds < 0.0) {
      throw py::value_error("tail must be 'auto' or a number of seconds from 0");
    }
    tailFrames = std::llround(seconds * sampleRate);
  }
  std::vector<const float*> pointers;
  for (const auto& channel : audio.channels) {
    pointers.push_back(channel.data());
  }
  dsp::host::MemorySource source(pointers, static_cast<std::int64_t>(audio.Frames()));
  dsp::host::MemorySink sink(audio.NumChannels());
  {
    py::gil_scoped_release release;
    dsp::host::RenderProcess(chain.GetChain(), audio.NumChannels(), source, sink, tailFrames);
  }
  return FromPlanar(sink.GetAudio(), audio.oneDimensional);
}

void BindEffects(py::module_& m) {
  m.def(
      "effects",
      [] {
        py::list list;
        for (const EffectInfo* info : dsp::host::EffectRegistry::Instance().All()) {
          list.append(Describe(*info));
        }
        return list;
      },
      "Every registered effect with its parameter descriptors, as dicts.");

  py::class_<PyEffect>(m, "Effect",
                       "An effect of the registry, e.g. Effect('gain', db=-6). Parameters read and write as "
                       "attributes; process() streams: state carries over between calls.")
      .def(py::init<const std::string&, const py::kwargs&>(), py::arg("name"))
      .def("process", &PyEffect::Process, py::arg("x"), py::arg("sample_rate"),
           "Processes float32/float64 audio shaped (channels, frames) or 1-D; returns float32 of the same shape.")
      .def("response", &PyEffect::Response, py::arg("frequencies"), py::arg("sample_rate") = 48000.0,
           "Complex frequency response on channel 0 at the given frequencies in Hz (the transfer function where "
           "the effect has one, else measured from its impulse response).")
      .def("reset", &PyEffect::Reset, "Clears the effect's state; parameters stay.")
      .def_property_readonly("latency", &PyEffect::Latency, "Delay of the output in frames (after process).")
      .def_property_readonly("tail", &PyEffect::Tail, "Frames the effect rings after its input stops.")
      .def_property_readonly("name", &PyEffect::Name)
      .def_property_readonly("params", &PyEffect::Params, "The parameter ids, in order.")
      .def_property_readonly("text", &PyEffect::Text, "The effect's name:key=value text form.")
      .def("__repr__", &PyEffect::Repr)
      .def("__dir__",
           [](const PyEffect& self) {
             std::vector<std::string> names = self.Params();
             for (const char* member : {"process", "response", "reset", "latency", "tail", "name", "params", "text"}) {
               names.emplace_back(member);
             }
             return names;
           })
      .def("__getattr__", &PyEffect::Get)
      .def("__setattr__", [](PyEffect& self, const std::string& id, const py::object& value) {
        if (!self.Has(id)) {
          throw py::attribute_error("effect '" + self.Name() + "' has no parameter '" + id + "'");
        }
        self.Set(id, value);
      });

  m.def("process", &ProcessChain, py::arg("x"), py::arg("sample_rate"), py::arg("effects"),
        py::arg("tail") = py::none(),
        "Runs a chain of effects given in text form ('gain:db=-6', ...) over the audio, with the chain's latency "
        "compensated as the command line does; tail='auto' or seconds appends the effects' ring-out.");
}

const BinderRegistration kEffects{"effects", BindEffects};

}  // namespace
}  // namespace vexaudiodsp_py
