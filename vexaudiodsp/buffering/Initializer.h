#pragma once

#include "vexaudiodsp/Export.h"

namespace dsp {

/// Marks library start-up and shut-down for a host. Initialize() and
/// Terminate() only flip the flag; the library needs no global set-up, so
/// they start nothing, allocate nothing and may be called repeatedly.
class VEXAUDIODSP_API Initializer {
 public:
  Initializer();
  virtual ~Initializer();
  virtual void Initialize();
  virtual void Terminate();
  bool IsInitialized() const { return initialized_; }

 private:
  bool initialized_ = false;
};

}  // namespace dsp
