// RouteKey::fromText: reads the by-kind text form with one sscanf pattern
// for the kind and one per kind for its fields, then builds the key with the
// kind's factory.
#include <cstdio>
#include <string>
#include <vector>

#include "mroute/route/route_key.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Routing::Multicast::Fib {

RouteKey RouteKey::fromText(std::string_view text) {
  // sscanf needs a terminated string; every %[ target gets a buffer as long
  // as the whole text, so no conversion can overrun it.
  const std::string str(text);
  std::vector<char> a(str.size() + 1);
  std::vector<char> b(str.size() + 1);

  int matches = std::sscanf(
      str.c_str(), "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': '%[_a-zA-Z]", a.data());
  MROUTE_ASSERT(matches == 1);
  const std::string name(a.data());
  RouteKeyType type = RouteKeyTypeInstance(name);

  // Continue behind the kind name, its closing quote and the separator.
  size_t pos = str.find("'kind': '") + 9 + name.size();
  if (pos < str.size() && str[pos] == '\'') ++pos;
  if (pos < str.size() && str[pos] == ',') ++pos;
  while (pos < str.size() && str[pos] == ' ') ++pos;
  const char* fields = str.c_str() + pos;

  unsigned x = 0;
  unsigned y = 0;
  switch (type) {
    case vlanFloodset_:
    case multicastFloodset_:
    case vxlanCoreSideFloodset_: {
      matches = std::sscanf(fields, "'vlanId': %u", &x);
      MROUTE_ASSERT(matches == 1);
      Bridging::VlanId vlan(x);
      if (type == vlanFloodset_) return RouteKey(makeRouteKeyVlanFloodset(vlan));
      if (type == multicastFloodset_) return RouteKey(makeRouteKeyMulticastFloodset(vlan));
      return RouteKey(makeRouteKeyVxlanCoreSideFloodset(vlan));
    }
    case ethGroup_: {
      matches = std::sscanf(fields, "'vlanId': %u, 'ethGroup': %[:0-9a-zA-Z]", &x, a.data());
      MROUTE_ASSERT(matches == 2);
      Bridging::VlanId vlan(x);
      return RouteKey(makeRouteKeyEthGroup(vlan, Orvet::EthAddr::fromText(a.data())));
    }
    case mcastGroup_: {
      matches = std::sscanf(fields, "'kind': %u, 'index' : %u", &x, &y);
      MROUTE_ASSERT(matches == 2);
      if (x > 0xffff || y > 0xffff) throw Kiv::RangeException("GroupKey::kind or index > 65535 not allowed");
      return RouteKey(makeRouteKeyMcastGroup(
          ::Multicast::Group::GroupKey(static_cast<uint16_t>(x), static_cast<uint16_t>(y), 0)));
    }
    case mroute_: {
      matches = std::sscanf(fields, "'s': %[./0-9], 'g': %[./0-9]", a.data(), b.data());
      MROUTE_ASSERT(matches == 2);
      return RouteKey(
          makeRouteKeyMroute(Orvet::Prefix::fromText(a.data()), Orvet::Prefix::fromText(b.data())));
    }
    case unknownRouteKeyType_:
      break;
  }
  return RouteKey();
}

}  // namespace Routing::Multicast::Fib
