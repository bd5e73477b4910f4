// How route keys fold non-route kinds into IPv4 (s, g) pairs, shared by
// RouteKey and IpGenRouteKey:
//
//   g bits 31..28   kind tag (RouteKeyType; 14 and 15 are IP multicast)
//   g bits 27..16   VLAN id of the flood-set and Ethernet-group kinds
//   g bits 15..0    Ethernet-group: the first two bytes of the address
//   s               Ethernet-group: the last four bytes of the address;
//                   mcastGroup: (group kind << 16) | group index
//
// Thread-safety: pure functions.
#pragma once

#include <cstdint>

#include "mroute/route/route_key_type.h"

namespace Routing::Multicast::Fib::key_internal {

constexpr uint32_t kTagShift = 28;
constexpr uint32_t kVlanShift = 16;
constexpr uint32_t kVlanMask = 0xfff;
constexpr uint32_t kMcastGroupAddress = static_cast<uint32_t>(mcastGroup_) << kTagShift;  // 64.0.0.0

// The kind of a key whose group is the IPv4 address `gHost` (host order): a
// tag of 14 or 15 is an IP multicast group; any other tag is the kind itself.
constexpr RouteKeyType kindOfGroup(uint32_t gHost) {
  uint32_t tag = gHost >> kTagShift;
  return (tag & ~1u) == 14 ? mroute_ : static_cast<RouteKeyType>(tag);
}

constexpr uint32_t vlanBits(uint32_t gHost) { return (gHost >> kVlanShift) & kVlanMask; }

// Thomas Wang's 32-bit integer hash. Shared-memory tables place keys by it:
// never change it.
constexpr uint32_t wangHash(uint32_t x) {
  x = ~x + (x << 15);
  x ^= x >> 12;
  x += x << 2;
  x ^= x >> 4;
  x *= 2057;
  x ^= x >> 16;
  return x;
}

// One prefix's share of the key hash.
constexpr uint32_t prefixHash(uint32_t address, uint32_t length) { return wangHash(address ^ length); }

}  // namespace Routing::Multicast::Fib::key_internal
