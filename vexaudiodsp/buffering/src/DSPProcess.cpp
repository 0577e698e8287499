#include "vexaudiodsp/buffering/DSPProcess.h"

namespace dsp {

DSPProcess::~DSPProcess() = default;
bool DSPProcess::SetSelection(std::int64_t, std::int64_t) { return true; }
void DSPProcess::SetIOConfig(int, float) {}
void DSPProcess::Start() {}
int DSPProcess::Flush(float**, int, int) { return 0; }
void DSPProcess::Done() {}
int DSPProcess::GetLatency() const { return 0; }
void DSPProcess::ParameterChanged() {}

}  // namespace dsp
