// Routing::Multicast::Fib::IpGenRouteKey: the multicast route key of every
// MFIB table, a (source, group) pair of family-generic prefixes, stored byte
// for byte in shared-memory slots (48 bytes):
//
//   offset 0    Orvet::IpGenPrefix s   (24 bytes)
//   offset 24   Orvet::IpGenPrefix g   (24 bytes)
//
// Besides (S,G) and (*,G) routes the pair carries VLAN flood sets, Ethernet
// groups and group requests folded into reserved IPv4 groups (see
// internal/key_encoding.h); kind() tells them apart. Keys sort by group,
// then by source, and hash equal to their RouteKey form for IPv4.
//
// Thread-safety: an immutable value; every operation is a pure function.
// Comparison, hash and kind() never allocate; only pretty() and the text form
// do.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/route/group_key.h"
#include "mroute/route/route_key_type.h"
#include "mroute/runtime/net/eth_addr.h"
#include "mroute/runtime/net/prefix.h"
#include "mroute/runtime/net/vlan_id.h"

namespace Routing::Multicast::Fib {

class RouteKey;

class IpGenRouteKey {
 public:
  // Both prefixes unset.
  constexpr IpGenRouteKey() = default;
  // Copied as given.
  IpGenRouteKey(const Orvet::IpGenPrefix& s, const Orvet::IpGenPrefix& g) : s_(s), g_(g) {}
  // Widens both IPv4 prefixes.
  explicit IpGenRouteKey(const RouteKey& key);

  // Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'s': <prefix>, 'g': <prefix>});
  // errors are Kiv::DeserializationException naming "s" or "g".
  static IpGenRouteKey fromText(std::string_view text);

  const Orvet::IpGenPrefix& s() const { return s_; }
  const Orvet::IpGenPrefix& g() const { return g_; }

  // mroute_ for a multicast group; unknownRouteKeyType_ for an unset group;
  // otherwise the kind tag of the IPv4 group.
  // REQUIRES: g() is unset, multicast, or IPv4.
  RouteKeyType kind() const;
  // REQUIRES: kind() is one of the flood-set kinds or ethGroup_. Throws
  // Kiv::RangeException when the id field is 0 or 4095.
  Bridging::VlanId vlanId() const;
  // REQUIRES: kind() != mroute_. All zeros unless kind() is ethGroup_.
  Orvet::EthAddr ethAddr() const;
  // REQUIRES: kind() == mcastGroup_. The hash of the result is 0.
  ::Multicast::Group::GroupKey mcastGroup() const;

  uint32_t hash() const;
  // "(*,239.1.1.1)", "(10.0.0.0/24,232.1.1.1)", "vlan10 Floodset", ...
  // REQUIRES: kind() is a defined kind.
  std::string pretty() const;

  friend bool operator==(const IpGenRouteKey&, const IpGenRouteKey&) = default;
  friend std::strong_ordering operator<=>(const IpGenRouteKey& a, const IpGenRouteKey& b) {
    if (auto c = a.g_ <=> b.g_; c != 0) return c;
    return a.s_ <=> b.s_;
  }

 private:
  Orvet::IpGenPrefix s_;
  Orvet::IpGenPrefix g_;
};

static_assert(sizeof(IpGenRouteKey) == 48 && std::is_trivially_copyable_v<IpGenRouteKey>);

std::ostream& operator<<(std::ostream& os, const IpGenRouteKey& key);

IpGenRouteKey makeRouteKeyVlanFloodset(Bridging::VlanId vlan);
IpGenRouteKey makeRouteKeyMulticastFloodset(Bridging::VlanId vlan);
IpGenRouteKey makeRouteKeyVxlanCoreSideFloodset(Bridging::VlanId vlan);
IpGenRouteKey makeRouteKeyEthGroup(Bridging::VlanId vlan, Orvet::EthAddr eth);
IpGenRouteKey makeRouteKeyMroute(Orvet::Prefix s, Orvet::Prefix g);
IpGenRouteKey makeRouteKeyMcastGroup(::Multicast::Group::GroupKey group);

}  // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::IpGenRouteKey> {
  size_t operator()(const Routing::Multicast::Fib::IpGenRouteKey& k) const noexcept { return k.hash(); }
};
