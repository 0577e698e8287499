#pragma once

#include <complex>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/host/Effect.h"

namespace dsp {
namespace host {

/// The frequency response of an effect on channel 0 at the given
/// frequencies (Hz), at `sampleRate`. Uses the effect's transfer function
/// when it has one; otherwise it configures a fresh run of the effect (one
/// channel, or the fewest it accepts), feeds a unit impulse, records the
/// impulse response over its latency and declared tail plus 8192 frames
/// (at most 2^20), and evaluates its Fourier transform exactly at each
/// frequency (the latency is taken out of the phase). The effect is started,
/// reset and left configured. `measured` tells which way was taken. False
/// with the reason when the effect refuses every configuration tried.
VEXAUDIODSP_API bool ComputeResponse(Effect& effect, double sampleRate, const std::vector<double>& frequenciesHz,
                                     std::vector<std::complex<double>>* response, bool* measured, std::string* error);

/// About `count` frequencies from `low` to `high` Hz, evenly spaced on a
/// logarithmic axis.
VEXAUDIODSP_API std::vector<double> LogFrequencies(double low, double high, int count);

}  // namespace host
}  // namespace dsp
