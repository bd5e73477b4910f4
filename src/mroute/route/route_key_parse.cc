// RouteKey::fromText: reads the by-kind text form with one sscanf pattern
// for the kind and one per kind for its fields, then builds the key with the
// kind's factory.
#include <charconv>
#include <cstdio>
#include <string>
#include <vector>

#include "mroute/route/route_key.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Routing::Multicast::Fib {
namespace {

// Numbers are matched as digit strings and converted here, not by %u, which
// would wrap values beyond 32 bits (and accept a sign) without a word.
uint16_t groupField(const char* digits) {
  unsigned long long v = 0;
  const char* end = digits + std::char_traits<char>::length(digits);
  auto [ptr, ec] = std::from_chars(digits, end, v);
  if (ec != std::errc() || ptr != end || v > 0xffff) {
    throw Kiv::RangeException("GroupKey::kind or index > 65535 not allowed");
  }
  return static_cast<uint16_t>(v);
}

}  // namespace

RouteKey RouteKey::fromText(std::string_view text) {
  // sscanf needs a terminated string; every %[ target gets a buffer as long
  // as the whole text, so no conversion can overrun it.
  const std::string str(text);
  std::vector<char> a(str.size() + 1);
  std::vector<char> b(str.size() + 1);

  // %n says where the kind name ended: the pattern's blanks match any run of
  // white space, so searching the text for the pattern's literal would not.
  int consumed = 0;
  int matches = std::sscanf(
      str.c_str(), "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': '%[_a-zA-Z]%n", a.data(), &consumed);
  MROUTE_ASSERT(matches == 1);
  const std::string name(a.data());
  RouteKeyType type = RouteKeyTypeInstance(name);

  // Continue behind the kind name, its closing quote and the separator.
  size_t pos = static_cast<size_t>(consumed);
  if (pos < str.size() && str[pos] == '\'') ++pos;
  if (pos < str.size() && str[pos] == ',') ++pos;
  while (pos < str.size() && str[pos] == ' ') ++pos;
  const char* fields = str.c_str() + pos;

  switch (type) {
    case vlanFloodset_:
    case multicastFloodset_:
    case vxlanCoreSideFloodset_: {
      matches = std::sscanf(fields, "'vlanId': %[0-9]", a.data());
      MROUTE_ASSERT(matches == 1);
      const Bridging::VlanId vlan = Bridging::VlanId::fromText(a.data());
      if (type == vlanFloodset_) return RouteKey(makeRouteKeyVlanFloodset(vlan));
      if (type == multicastFloodset_) return RouteKey(makeRouteKeyMulticastFloodset(vlan));
      return RouteKey(makeRouteKeyVxlanCoreSideFloodset(vlan));
    }
    case ethGroup_: {
      matches = std::sscanf(fields, "'vlanId': %[0-9], 'ethGroup': %[:0-9a-zA-Z]", a.data(), b.data());
      MROUTE_ASSERT(matches == 2);
      const Bridging::VlanId vlan = Bridging::VlanId::fromText(a.data());
      return RouteKey(makeRouteKeyEthGroup(vlan, Orvet::EthAddr::fromText(b.data())));
    }
    case mcastGroup_: {
      matches = std::sscanf(fields, "'kind': %[0-9], 'index' : %[0-9]", a.data(), b.data());
      MROUTE_ASSERT(matches == 2);
      return RouteKey(
          makeRouteKeyMcastGroup(::Multicast::Group::GroupKey(groupField(a.data()), groupField(b.data()), 0)));
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
