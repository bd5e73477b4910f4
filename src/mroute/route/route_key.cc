#include "mroute/route/route_key.h"

#include <ostream>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/internal/key_display.h"
#include "mroute/runtime/assert.h"

namespace Routing::Multicast::Fib {

namespace {

Orvet::Prefix narrow(const Orvet::IpGenPrefix& p) {
  return p.af() == Orvet::afUnknown() ? Orvet::Prefix() : p.v4();
}

}  // namespace

RouteKey::RouteKey(const IpGenRouteKey& key) : s_(narrow(key.s())), g_(narrow(key.g())) {}

Bridging::VlanId RouteKey::vlanId() const {
  const RouteKey& key = *this;
  MROUTE_ASSERT(key.kind() != mroute_);
  return Bridging::VlanId(key_internal::vlanBits(g_.address().hostValue()));
}

Orvet::EthAddr RouteKey::ethAddr() const {
  RouteKeyType type = kind();
  MROUTE_ASSERT(type != mroute_);
  if (type != ethGroup_) return Orvet::EthAddr();
  uint32_t g = g_.address().hostValue();
  uint32_t s = s_.address().hostValue();
  return Orvet::EthAddr(static_cast<uint8_t>(g >> 8), static_cast<uint8_t>(g), static_cast<uint8_t>(s >> 24),
                        static_cast<uint8_t>(s >> 16), static_cast<uint8_t>(s >> 8), static_cast<uint8_t>(s));
}

::Multicast::Group::GroupKey RouteKey::mcastGroup() const {
  RouteKeyType type = kind();
  MROUTE_ASSERT(type == mcastGroup_);
  uint32_t s = s_.address().hostValue();
  return ::Multicast::Group::GroupKey(static_cast<uint16_t>(s >> 16), static_cast<uint16_t>(s & 0xffff), 0);
}

std::string RouteKey::pretty() const { return key_internal::display(*this); }

std::ostream& operator<<(std::ostream& os, const RouteKey& key) {
  Kiv::ValueWriter w(os, "Routing::Multicast::Fib::IpGenRouteKey");
  RouteKeyType type = key.kind();
  w.field("kind", type);
  // The VLAN field is printed raw so that printing never throws; the parser
  // range-checks it.
  uint32_t vlan = key_internal::vlanBits(key.g().address().hostValue());
  switch (type) {
    case vlanFloodset_:
    case multicastFloodset_:
    case vxlanCoreSideFloodset_:
      w.field("vlanId", vlan);
      break;
    case ethGroup_:
      w.field("vlanId", vlan).field("ethGroup", key.ethAddr());
      break;
    case mcastGroup_: {
      auto group = key.mcastGroup();
      w.field("kind", group.kind()).field("index", group.index());
      break;
    }
    case mroute_:
      w.field("s", key.s()).field("g", key.g());
      break;
    case unknownRouteKeyType_:
      break;
  }
  w.end();
  return os;
}

}  // namespace Routing::Multicast::Fib
