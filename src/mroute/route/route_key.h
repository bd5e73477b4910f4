// Routing::Multicast::Fib::RouteKey: the compact IPv4-only route key that
// clients exchange and print (16 bytes: source prefix, then group prefix,
// each an address in network order and a length). Same kinds, hash, order
// and display as IpGenRouteKey; no table is keyed by it.
//
// Its text form names the kind and the kind's fields:
//   Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'vlanFloodset', 'vlanId': 10})
//
// Thread-safety: an immutable value; every operation is a pure function.
// Comparison, hash and kind() never allocate.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/route/group_key.h"
#include "mroute/route/internal/key_encoding.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route_key_type.h"
#include "mroute/runtime/net/eth_addr.h"
#include "mroute/runtime/net/prefix.h"
#include "mroute/runtime/net/vlan_id.h"

namespace Routing::Multicast::Fib {

class RouteKey {
 public:
  // All zeros: kind unknownRouteKeyType_.
  constexpr RouteKey() = default;
  RouteKey(const Orvet::Prefix& s, const Orvet::Prefix& g) : s_(s), g_(g) {}
  // Takes the IPv4 prefixes of s and g; an unset prefix stays all zeros.
  // REQUIRES: neither prefix is IPv6.
  explicit RouteKey(const IpGenRouteKey& key);

  // Reads the by-kind text form. A text that does not match the kind's
  // pattern is an assertion ("matches == 1" / "matches == 2"); a bad VLAN id,
  // Ethernet address, prefix or kind name is a Kiv::RangeException.
  static RouteKey fromText(std::string_view text);

  const Orvet::Prefix& s() const { return s_; }
  const Orvet::Prefix& g() const { return g_; }

  // A shift and a compare: tags 14 and 15 are mroute_, others the tag.
  RouteKeyType kind() const { return key_internal::kindOfGroup(g_.address().hostValue()); }
  // REQUIRES: kind() != mroute_. Throws Kiv::RangeException when the id
  // field is 0 or 4095 (so for an unknown key).
  Bridging::VlanId vlanId() const;
  // REQUIRES: kind() != mroute_. All zeros unless kind() is ethGroup_.
  Orvet::EthAddr ethAddr() const;
  // REQUIRES: kind() == mcastGroup_. The hash of the result is 0.
  ::Multicast::Group::GroupKey mcastGroup() const;

  uint32_t hash() const {
    return key_internal::prefixHash(s_.address().hostValue(), s_.length()) ^
           key_internal::prefixHash(g_.address().hostValue(), g_.length());
  }
  // REQUIRES: kind() is a defined kind.
  std::string pretty() const;

  friend bool operator==(const RouteKey&, const RouteKey&) = default;
  friend std::strong_ordering operator<=>(const RouteKey& a, const RouteKey& b) {
    if (auto c = a.g_ <=> b.g_; c != 0) return c;
    return a.s_ <=> b.s_;
  }

 private:
  Orvet::Prefix s_;
  Orvet::Prefix g_;
};

static_assert(sizeof(RouteKey) == 16 && std::is_trivially_copyable_v<RouteKey>);

// The by-kind text form; never throws for any key.
std::ostream& operator<<(std::ostream& os, const RouteKey& key);

}  // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::RouteKey> {
  size_t operator()(const Routing::Multicast::Fib::RouteKey& k) const noexcept { return k.hash(); }
};
