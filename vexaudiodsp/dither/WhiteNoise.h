#pragma once

#include <cstdint>

#include "vexaudiodsp/Export.h"

namespace dsp {

/// The library's random source: eleven 32-bit linear congruential generators
/// stepped in turn (x <- x * 0x0BB38435 + 0x3619636B mod 2^32), each giving
/// the top 23 bits of its state. Seeding runs a short chain of the same
/// recurrence (switching to a second constant pair after six steps) so that
/// nearby seeds start far apart; a given seed always repeats the same
/// sequence, on every platform.
///
/// - fRandom(): uniform in [0, 1) with a resolution of 2^-23 (never 1.0).
/// - dwWhite(): the raw 23-bit word.
/// - fGaussian(sigma): sum of twelve uniforms, centred, scaled by sigma / 2:
///   approximately normal with mean 0 and standard deviation sigma / 2
///   (callers wanting a deviation s pass 2 s), bounded by +-3 sigma.
///
/// A small copyable value class: no allocation, no virtual functions, no
/// locking. One thread at a time per object. The default constructor seeds
/// from the C runtime's rand(), so it is not reproducible; pass a seed when
/// the sequence must repeat.
class VEXAUDIODSP_API WhiteNoise {
 public:
  static constexpr int kGenerators = 11;

  WhiteNoise();
  explicit WhiteNoise(unsigned seed) { Seed(seed); }

  /// Restarts the sequence belonging to `seed`.
  void Seed(unsigned seed);

  double fRandom() {
    Step();
    std::uint32_t bits = 0x40000000u | output_[index_];
    float value;
    static_assert(sizeof(value) == sizeof(bits), "float must be 32 bits");
    __builtin_memcpy(&value, &bits, sizeof(value));
    return static_cast<double>((value - 2.0f) * 0.5f);
  }

  unsigned dwWhite() {
    Step();
    return output_[index_];
  }

  double fGaussian(double sigma) {
    double sum = 0.0;
    for (int i = 0; i < 12; ++i) sum += fRandom();
    return (sum - 6.0) * (sigma * 0.5);
  }

  /// Read-only views of the generator state (for diagnostics and tests).
  std::uint32_t GetState(int i) const { return state_[i]; }
  std::uint32_t GetOutput(int i) const { return output_[i]; }
  std::uint32_t GetIndex() const { return index_; }

  static constexpr std::uint32_t kA = 0x0BB38435u;
  static constexpr std::uint32_t kC = 0x3619636Bu;
  static constexpr std::uint32_t kA2 = 0xFFB38435u;
  static constexpr std::uint32_t kC2 = 0x0019636Bu;

 private:
  friend class WhiteNoiseProbe;

  void Step() {
    index_ = (index_ + 1u) % kGenerators;
    state_[index_] = state_[index_] * kA + kC;
    output_[index_] = state_[index_] >> 9;
  }

  /// Steps generator i alone; the turn order (`index_`) is not changed.
  unsigned GetNext(int i) {
    state_[i] = state_[i] * kA + kC;
    output_[i] = state_[i] >> 9;
    return output_[i];
  }

  std::uint32_t state_[kGenerators];
  std::uint32_t output_[kGenerators];
  std::uint32_t index_;
};

}  // namespace dsp
