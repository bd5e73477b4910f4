// Orvet::EthAddr: a 6-byte Ethernet (MAC) address in wire order, printed as
// "01:00:5e:01:02:03".
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Orvet {

class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;

  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}
  constexpr EthAddr(uint8_t m0, uint8_t m1, uint8_t m2, uint8_t m3, uint8_t m4, uint8_t m5)
      : bytes_{m0, m1, m2, m3, m4, m5} {}
  // Six colon-separated groups of one or two hex digits; anything else is a
  // Kiv::RangeException.
  static EthAddr fromText(std::string_view text);

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr uint8_t operator[](size_t i) const { return bytes_[i]; }
  constexpr bool isZero() const { return *this == EthAddr(); }
  // Group bit: the lowest bit of the first byte.
  constexpr bool isMulticast() const { return (bytes_[0] & 1) != 0; }
  std::string text() const;

  friend constexpr bool operator==(const EthAddr&, const EthAddr&) = default;
  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) = default;

 private:
  Bytes bytes_{};
};

static_assert(sizeof(EthAddr) == 6 && std::is_trivially_copyable_v<EthAddr>);

std::ostream& operator<<(std::ostream& os, const EthAddr& a);

}  // namespace Orvet

template <>
struct std::hash<Orvet::EthAddr> {
  size_t operator()(const Orvet::EthAddr& a) const noexcept {
    uint64_t v = 0;
    for (uint8_t b : a.bytes()) v = v << 8 | b;
    return std::hash<uint64_t>()(v);
  }
};
