#include "vexaudiodsp/host/Response.h"

#include <algorithm>
#include <cmath>

namespace dsp {
namespace host {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr std::int64_t kMaxImpulseFrames = std::int64_t{1} << 20;

// Channel 0's response to a unit impulse, long enough to cover the
// effect's latency and declared tail.
std::vector<double> RecordImpulse(Effect& effect, int numChannels) {
  const std::int64_t wanted = effect.GetLatency() + effect.GetTailFrames() + 8192;
  const auto length = static_cast<int>(std::clamp<std::int64_t>(wanted, 1, kMaxImpulseFrames));
  std::vector<std::vector<float>> in(static_cast<std::size_t>(numChannels),
                                     std::vector<float>(static_cast<std::size_t>(Effect::kMaxBlock)));
  std::vector<std::vector<float>> out = in;
  std::vector<float*> inPointers;
  std::vector<float*> outPointers;
  for (std::size_t ch = 0; ch < in.size(); ++ch) {
    inPointers.push_back(in[ch].data());
    outPointers.push_back(out[ch].data());
  }
  std::vector<double> impulse(static_cast<std::size_t>(length));
  in[0][0] = 1.0f;
  for (int offset = 0; offset < length; offset += Effect::kMaxBlock) {
    const int n = std::min(Effect::kMaxBlock, length - offset);
    effect.Process(inPointers.data(), outPointers.data(), numChannels, n);
    std::copy(out[0].begin(), out[0].begin() + n, impulse.begin() + offset);
    in[0][0] = 0.0f;
  }
  return impulse;
}

}  // namespace

std::vector<double> LogFrequencies(double low, double high, int count) {
  std::vector<double> frequencies;
  if (count < 1 || !(low > 0.0) || !(high >= low)) {
    return frequencies;
  }
  if (count == 1) {
    return {low};
  }
  const double step = std::log(high / low) / (count - 1);
  for (int i = 0; i < count; ++i) {
    frequencies.push_back(low * std::exp(step * i));
  }
  frequencies.back() = high;
  return frequencies;
}

bool ComputeResponse(Effect& effect, double sampleRate, const std::vector<double>& frequenciesHz,
                     std::vector<std::complex<double>>* response, bool* measured, std::string* error) {
  int channels = 1;
  std::string refusal = effect.CheckIO(channels, sampleRate);
  if (!refusal.empty()) {
    channels = std::max(effect.GetInfo().io.minChannels, 1);
    refusal = effect.CheckIO(channels, sampleRate);
  }
  if (!refusal.empty()) {
    if (error != nullptr) {
      *error = "effect '" + effect.GetInfo().name + "' " + refusal;
    }
    return false;
  }
  effect.SetIOConfig(channels, static_cast<float>(sampleRate));
  effect.Start();
  response->assign(frequenciesHz.size(), {});
  if (effect.GetTransferFunction(frequenciesHz.data(), static_cast<int>(frequenciesHz.size()), response->data())) {
    *measured = false;
    return true;
  }

  *measured = true;
  const std::vector<double> impulse = RecordImpulse(effect, channels);
  effect.Reset();
  const double latency = effect.GetLatency();
  for (std::size_t i = 0; i < frequenciesHz.size(); ++i) {
    const double w = 2.0 * kPi * std::clamp(frequenciesHz[i], 0.0, sampleRate / 2.0) / sampleRate;
    // The transform is evaluated exactly at each asked frequency: bins of
    // a zero-padded FFT would have to be interpolated, and that loses
    // tenths of a dB wherever the phase turns fast.
    const std::complex<double> step = std::polar(1.0, -w);
    std::complex<double> rotation = 1.0;
    std::complex<double> sum = 0.0;
    for (std::size_t n = 0; n < impulse.size(); ++n) {
      sum += impulse[n] * rotation;
      rotation *= step;
      if ((n & 1023) == 1023) {
        rotation /= std::abs(rotation);
      }
    }
    // The effect's own latency is not part of its character: it is taken
    // out of the phase, as a host compensates it.
    (*response)[i] = sum * std::polar(1.0, w * latency);
  }
  return true;
}

}  // namespace host
}  // namespace dsp
