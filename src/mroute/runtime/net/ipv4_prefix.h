// Orvet::Prefix: an IPv4 address and a length 0..32 (8 bytes: address in
// network order, then the length). Host bits beyond the length are cleared on
// construction, so equal prefixes are equal byte for byte.
//
// Ordering is the routing order: a prefix sorts before every prefix that
// contains it, and prefixes that do not nest sort by address; /0 sorts last.
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

#include "mroute/runtime/net/ipv4_addr.h"

namespace Orvet {

class Prefix {
 public:
  static constexpr uint32_t maxLength = 32;

  constexpr Prefix() = default;
  // Throws Kiv::RangeException "Prefix::length > 32 not allowed".
  Prefix(IpAddr address, uint32_t length);
  // "10.0.0.0/24"; a bare address is a host prefix. Host bits are cleared.
  static Prefix fromText(std::string_view text);

  IpAddr address() const { return address_; }
  uint32_t length() const { return length_; }
  bool isHost() const { return length_ == maxLength; }
  // Inside 224.0.0.0/4 (a shorter prefix is not).
  bool isMulticast() const { return length_ >= 4 && address_.isMulticast(); }
  std::string text() const;

  friend bool operator==(const Prefix&, const Prefix&) = default;
  friend std::strong_ordering operator<=>(const Prefix& a, const Prefix& b);

 private:
  IpAddr address_;
  uint32_t length_ = 0;
};

static_assert(sizeof(Prefix) == 8 && std::is_trivially_copyable_v<Prefix>);

std::ostream& operator<<(std::ostream& os, const Prefix& p);

}  // namespace Orvet

template <>
struct std::hash<Orvet::Prefix> {
  size_t operator()(const Orvet::Prefix& p) const noexcept {
    return std::hash<uint64_t>()(static_cast<uint64_t>(p.address().hostValue()) << 8 | p.length());
  }
};
