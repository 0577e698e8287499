#include "vexaudiodsp/dither/WhiteNoise.h"

#include <cstdlib>

namespace dsp {

WhiteNoise::WhiteNoise() { Seed(static_cast<unsigned>(std::rand() % 65536)); }

void WhiteNoise::Seed(unsigned seed) {
  // x[0] is unused so that x[k] matches the k-th value of the seeding chain.
  std::uint32_t x[12];
  x[1] = seed * kA + kC;
  for (int k = 1; k < 6; ++k) x[k + 1] = x[k] * kA + kC;
  // The crossover step mixes the pairs; the repeatable sequences depend on it.
  x[7] = x[6] * kA + kC2;
  for (int k = 7; k < 11; ++k) x[k + 1] = x[k] * kA2 + kC2;

  for (int i = 1; i < kGenerators; ++i) {
    state_[i] = ((x[i + 1] >> 9) & 0xFFFFu) ^ (12347u * static_cast<std::uint32_t>(i + 3));
    output_[i] = 0;
  }
  state_[0] = (((x[1] >> 9) & 0xFFFFu) ^ 0x90B1u) * kA + kC;
  output_[0] = state_[0] >> 9;
  index_ = output_[0] % kGenerators;
}

}  // namespace dsp
