// Orvet::IpAddr: an IPv4 address, stored in network byte order exactly as it
// travels on the wire and in shared-memory slots.
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/runtime/net/internal/address_text.h"

namespace Orvet {

class IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr IpAddr(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
      : IpAddr(fromHost(static_cast<uint32_t>(a) << 24 | static_cast<uint32_t>(b) << 16 |
                        static_cast<uint32_t>(c) << 8 | d)) {}

  static constexpr IpAddr fromHost(uint32_t hostValue) {
    return fromNetwork(net_internal::byteSwap(hostValue));
  }
  static constexpr IpAddr fromNetwork(uint32_t networkValue) {
    IpAddr a;
    a.value_ = networkValue;
    return a;
  }
  // Dotted decimal "10.0.0.1"; anything else is a Kiv::RangeException.
  static IpAddr fromText(std::string_view text);

  // Network byte order.
  constexpr uint32_t value() const { return value_; }
  constexpr uint32_t hostValue() const { return net_internal::byteSwap(value_); }
  // 224.0.0.0/4.
  constexpr bool isMulticast() const { return (hostValue() >> 28) == 0xe; }
  std::string text() const { return net_internal::formatIpv4(hostValue()); }

  friend constexpr bool operator==(IpAddr, IpAddr) = default;
  // Numeric order of the host-order value.
  friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) {
    return a.hostValue() <=> b.hostValue();
  }

 private:
  uint32_t value_ = 0;
};

static_assert(sizeof(IpAddr) == 4 && std::is_trivially_copyable_v<IpAddr>);

std::ostream& operator<<(std::ostream& os, IpAddr a);

}  // namespace Orvet

template <>
struct std::hash<Orvet::IpAddr> {
  size_t operator()(Orvet::IpAddr a) const noexcept { return std::hash<uint32_t>()(a.hostValue()); }
};
