#include "mroute/route/ip_gen_route_key.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/internal/key_display.h"
#include "mroute/route/internal/key_encoding.h"
#include "mroute/route/route_key.h"
#include "mroute/runtime/assert.h"

namespace Routing::Multicast::Fib {

using namespace key_internal;

namespace {

constexpr std::string_view kTypeName = "Routing::Multicast::Fib::IpGenRouteKey";

uint32_t prefixShare(const Orvet::IpGenPrefix& p) {
  if (p.af().isIpv4()) return prefixHash(p.address().v4().hostValue(), p.length());
  if (p.af().isIpv6()) return prefixHash(Orvet::ipv6AddressHash(p.address()), p.length());
  return 0;
}

Orvet::IpGenPrefix hostPrefix(uint32_t hostValue) {
  return Orvet::Prefix(Orvet::IpAddr::fromHost(hostValue), 32);
}

IpGenRouteKey floodset(RouteKeyType type, Bridging::VlanId vlan) {
  return IpGenRouteKey(Orvet::Prefix(), hostPrefix(static_cast<uint32_t>(type) << kTagShift |
                                                   static_cast<uint32_t>(vlan.value()) << kVlanShift));
}

}  // namespace

IpGenRouteKey::IpGenRouteKey(const RouteKey& key) : s_(key.s()), g_(key.g()) {}

IpGenRouteKey IpGenRouteKey::fromText(std::string_view text) {
  Kiv::ValueReader r(text, kTypeName);
  auto s = r.field<Orvet::IpGenPrefix>("s");
  auto g = r.field<Orvet::IpGenPrefix>("g");
  r.end();
  return IpGenRouteKey(s, g);
}

RouteKeyType IpGenRouteKey::kind() const {
  if (g_.isMulticast()) return mroute_;
  if (g_ == Orvet::IpGenPrefix()) return unknownRouteKeyType_;
  MROUTE_ASSERT(g().af() == Orvet::ipv4());
  return kindOfGroup(g_.address().v4().hostValue());
}

Bridging::VlanId IpGenRouteKey::vlanId() const {
  RouteKeyType type = kind();
  MROUTE_ASSERT(type == vlanFloodset_ or type == multicastFloodset_ or type == vxlanCoreSideFloodset_ or
                type == ethGroup_);
  return Bridging::VlanId(vlanBits(g_.address().v4().hostValue()));
}

Orvet::EthAddr IpGenRouteKey::ethAddr() const {
  RouteKeyType type = kind();
  MROUTE_ASSERT(type not_eq mroute_);
  if (type != ethGroup_) return Orvet::EthAddr();
  uint32_t g = g_.address().v4().hostValue();
  const uint8_t* s = s_.address().bytes();
  return Orvet::EthAddr(static_cast<uint8_t>(g >> 8), static_cast<uint8_t>(g), s[0], s[1], s[2], s[3]);
}

::Multicast::Group::GroupKey IpGenRouteKey::mcastGroup() const {
  RouteKeyType type = kind();
  MROUTE_ASSERT(type == mcastGroup_);
  uint32_t s = s_.v4().address().hostValue();
  return ::Multicast::Group::GroupKey(static_cast<uint16_t>(s >> 16), static_cast<uint16_t>(s & 0xffff), 0);
}

uint32_t IpGenRouteKey::hash() const { return prefixShare(s_) ^ prefixShare(g_); }

std::string IpGenRouteKey::pretty() const { return display(*this); }

std::ostream& operator<<(std::ostream& os, const IpGenRouteKey& key) {
  Kiv::ValueWriter(os, kTypeName).field("s", key.s()).field("g", key.g()).end();
  return os;
}

IpGenRouteKey makeRouteKeyVlanFloodset(Bridging::VlanId vlan) { return floodset(vlanFloodset_, vlan); }

IpGenRouteKey makeRouteKeyMulticastFloodset(Bridging::VlanId vlan) {
  return floodset(multicastFloodset_, vlan);
}

IpGenRouteKey makeRouteKeyVxlanCoreSideFloodset(Bridging::VlanId vlan) {
  return floodset(vxlanCoreSideFloodset_, vlan);
}

IpGenRouteKey makeRouteKeyEthGroup(Bridging::VlanId vlan, Orvet::EthAddr eth) {
  uint32_t s = static_cast<uint32_t>(eth[2]) << 24 | static_cast<uint32_t>(eth[3]) << 16 |
               static_cast<uint32_t>(eth[4]) << 8 | eth[5];
  uint32_t g = static_cast<uint32_t>(ethGroup_) << kTagShift |
               static_cast<uint32_t>(vlan.value()) << kVlanShift | static_cast<uint32_t>(eth[0]) << 8 |
               eth[1];
  return IpGenRouteKey(hostPrefix(s), hostPrefix(g));
}

IpGenRouteKey makeRouteKeyMroute(Orvet::Prefix s, Orvet::Prefix g) { return IpGenRouteKey(s, g); }

IpGenRouteKey makeRouteKeyMcastGroup(::Multicast::Group::GroupKey group) {
  uint32_t s = static_cast<uint32_t>(group.kind()) << 16 | group.index();
  return IpGenRouteKey(hostPrefix(s), hostPrefix(kMcastGroupAddress));
}

}  // namespace Routing::Multicast::Fib
