// The display form (pretty()) shared by RouteKey and IpGenRouteKey, written
// once over their common accessors.
//
// Thread-safety: pure functions.
#pragma once

#include <string>

#include "mroute/route/route_key_type.h"
#include "mroute/runtime/assert.h"

namespace Routing::Multicast::Fib::key_internal {

template <class Prefix>
std::string displayPrefix(const Prefix& p) {
  std::string out = p.address().text();
  if (!p.isHost()) out += "/" + std::to_string(p.length());
  return out;
}

template <class Key>
std::string display(const Key& key) {
  auto vlan = [&key] { return "vlan" + std::to_string(key.vlanId().value()); };
  switch (key.kind()) {
    case unknownRouteKeyType_:
      return "Unknown Type";
    case vlanFloodset_:
      return vlan() + " Floodset";
    case multicastFloodset_:
      return vlan() + " Multicast Floodset";
    case ethGroup_:
      return vlan() + " " + key.ethAddr().text();
    case mcastGroup_: {
      auto group = key.mcastGroup();
      return "Mcast Group Kind " + std::to_string(group.kind()) + " Index " + std::to_string(group.index());
    }
    case vxlanCoreSideFloodset_:
      return vlan() + " Vxlan CoreSide Floodset";
    case mroute_:
      // (*,G) leaves out the group length even for a group prefix: log
      // readers match on "(*,232.0.0.0)".
      if (key.s().length() == 0) return "(*," + key.g().address().text() + ")";
      return "(" + displayPrefix(key.s()) + "," + displayPrefix(key.g()) + ")";
  }
  MROUTE_ASSERT(0 && "Unexpected RouteKey type");
  return std::string();
}

}  // namespace Routing::Multicast::Fib::key_internal
