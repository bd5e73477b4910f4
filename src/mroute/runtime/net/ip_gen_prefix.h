// Orvet::IpGenPrefix: an IPv4 or IPv6 prefix, laid out for shared-memory
// slots (exactly 24 bytes):
//
//   offset 0   uint32 af        0 unset, 1 IPv4, 2 IPv6
//   offset 4   uint8[16]        address, network order, host bits cleared
//   offset 20  uint32 length    0..32 or 0..128
//
// The default value has the unset family. Ordering is by family first, then
// the routing order of Orvet::Prefix applied to the family's bits.
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

#include "mroute/runtime/net/ip_gen_addr.h"
#include "mroute/runtime/net/ipv4_prefix.h"

namespace Orvet {

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  IpGenPrefix(const Prefix& v4);  // NOLINT: widening is lossless
  // Throws Kiv::RangeException for a length beyond the family's width or an
  // unset address family.
  IpGenPrefix(const IpGenAddr& address, uint32_t length);
  // "10.0.0.0/24", "ff00::/8", a bare address (host prefix), or "unset".
  static IpGenPrefix fromText(std::string_view text);

  AddressFamily af() const { return address_.af(); }
  const IpGenAddr& address() const { return address_; }
  uint32_t length() const { return length_; }
  // REQUIRES: af() == ipv4().
  Prefix v4() const;
  // 32 bits for IPv4, 128 for IPv6, 0 when unset.
  uint32_t maxLength() const;
  bool isHost() const { return length_ == maxLength() && maxLength() != 0; }
  // Inside 224.0.0.0/4 or ff00::/8.
  bool isMulticast() const;
  std::string text() const;

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b);

 private:
  IpGenAddr address_;
  uint32_t length_ = 0;
};

static_assert(sizeof(IpGenPrefix) == 24 && std::is_trivially_copyable_v<IpGenPrefix>);

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);

}  // namespace Orvet

template <>
struct std::hash<Orvet::IpGenPrefix> {
  size_t operator()(const Orvet::IpGenPrefix& p) const noexcept {
    return std::hash<Orvet::IpGenAddr>()(p.address()) * 31 + p.length();
  }
};
