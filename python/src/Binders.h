#pragma once

#include <pybind11/pybind11.h>

namespace vexaudiodsp_py {

/// Adds functions or classes to the `vexaudiodsp` module. Each binding file
/// registers its own binder, so a module feature touches no other file:
///
///   void BindLoudness(pybind11::module_& m) { m.def("loudness", ...); }
///   const BinderRegistration kLoudness{"loudness", BindLoudness};
///
/// Binders run in name order when the module is imported.
using Binder = void (*)(pybind11::module_&);

struct BinderRegistration {
  BinderRegistration(const char* name, Binder binder);
};

}  // namespace vexaudiodsp_py
