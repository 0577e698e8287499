#include "vexaudiodsp/buffering/Initializer.h"

namespace dsp {

Initializer::Initializer() = default;
Initializer::~Initializer() = default;
void Initializer::Initialize() { initialized_ = true; }
void Initializer::Terminate() { initialized_ = false; }

}  // namespace dsp
