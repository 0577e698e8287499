#pragma once

#include <cstdint>
#include <type_traits>

namespace vexcore {
namespace utility {

/// A word of independent bits, used as a per-channel mask (bit n for channel n:
/// silent, excluded or bypassed, as each user defines). Header-only, no
/// allocation; bit indices at or above the word width are ignored.
template <typename T>
class Flags {
  static_assert(std::is_unsigned<T>::value, "Flags needs an unsigned word");

 public:
  static constexpr unsigned kBits = sizeof(T) * 8;

  constexpr Flags() noexcept = default;
  constexpr explicit Flags(T bits) noexcept : bits_(bits) {}

  static constexpr Flags AllOnes() noexcept { return Flags(static_cast<T>(~T(0))); }
  /// The lowest `count` bits set (all bits when count >= kBits).
  static constexpr Flags LowBits(unsigned count) noexcept {
    return count >= kBits ? AllOnes() : Flags(static_cast<T>((T(1) << count) - 1));
  }

  constexpr T Get() const noexcept { return bits_; }
  constexpr void Set(T bits) noexcept { bits_ = bits; }

  constexpr bool IsSet(unsigned bit) const noexcept { return bit < kBits && ((bits_ >> bit) & 1u) != 0; }
  constexpr void SetBit(unsigned bit) noexcept {
    if (bit < kBits) bits_ |= T(1) << bit;
  }
  constexpr void ClearBit(unsigned bit) noexcept {
    if (bit < kBits) bits_ &= static_cast<T>(~(T(1) << bit));
  }
  constexpr bool Any() const noexcept { return bits_ != 0; }
  constexpr bool None() const noexcept { return bits_ == 0; }

  constexpr Flags& operator|=(Flags o) noexcept {
    bits_ |= o.bits_;
    return *this;
  }
  constexpr Flags& operator&=(Flags o) noexcept {
    bits_ &= o.bits_;
    return *this;
  }
  constexpr Flags& operator^=(Flags o) noexcept {
    bits_ ^= o.bits_;
    return *this;
  }
  friend constexpr Flags operator|(Flags a, Flags b) noexcept { return a |= b; }
  friend constexpr Flags operator&(Flags a, Flags b) noexcept { return a &= b; }
  friend constexpr Flags operator^(Flags a, Flags b) noexcept { return a ^= b; }
  constexpr Flags operator~() const noexcept { return Flags(static_cast<T>(~bits_)); }
  friend constexpr bool operator==(Flags a, Flags b) noexcept { return a.bits_ == b.bits_; }
  friend constexpr bool operator!=(Flags a, Flags b) noexcept { return a.bits_ != b.bits_; }

 private:
  T bits_ = 0;
};

using ChannelFlags = Flags<std::uint64_t>;

}  // namespace utility
}  // namespace vexcore
