// Orvet::AddressFamily: the address-family word carried by generic addresses
// and prefixes (unset 0, IPv4 1, IPv6 2).
//
// The numbers are stored in shared-memory table slots: do not renumber.
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>

namespace Orvet {

class AddressFamily {
 public:
  constexpr AddressFamily() = default;
  constexpr explicit AddressFamily(uint32_t value) : value_(value) {}

  constexpr uint32_t value() const { return value_; }
  constexpr bool isIpv4() const { return value_ == 1; }
  constexpr bool isIpv6() const { return value_ == 2; }

  friend constexpr bool operator==(AddressFamily, AddressFamily) = default;
  friend constexpr auto operator<=>(AddressFamily, AddressFamily) = default;

  // "ipv4", "ipv6" or "unknown"; any other number prints as "unknown" too.
  static AddressFamily fromText(std::string_view text);

 private:
  uint32_t value_ = 0;
};

constexpr AddressFamily afUnknown() { return AddressFamily(0); }
constexpr AddressFamily ipv4() { return AddressFamily(1); }
constexpr AddressFamily ipv6() { return AddressFamily(2); }

std::ostream& operator<<(std::ostream& os, AddressFamily af);

}  // namespace Orvet

template <>
struct std::hash<Orvet::AddressFamily> {
  size_t operator()(Orvet::AddressFamily af) const noexcept { return af.value(); }
};
