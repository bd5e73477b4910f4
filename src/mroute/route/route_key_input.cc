#include "mroute/route/route_key_input.h"

#include <charconv>

#include "mroute/route/internal/key_display.h"
#include "mroute/runtime/error.h"

namespace Routing::Multicast::Fib {
namespace {

using Orvet::IpGenPrefix;

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

IpGenPrefix prefix(std::string_view what, std::string_view text) {
  try {
    return IpGenPrefix::fromText(text);
  } catch (const Kiv::RangeException&) {
    throw Kiv::RangeException("bad " + std::string(what) + " '" + std::string(text) +
                              "': expected an address or a prefix such as 10.0.0.0/24");
  }
}

}  // namespace

IpGenRouteKey routeKeyFromDisplay(std::string_view text) {
  std::string_view whole = trimmed(text);
  std::string_view inner = whole.size() >= 2 && whole.front() == '(' && whole.back() == ')'
                               ? whole.substr(1, whole.size() - 2)
                               : std::string_view();
  size_t comma = inner.find(',');
  if (comma == std::string_view::npos || inner.find(',', comma + 1) != std::string_view::npos) {
    throw Kiv::RangeException("bad key '" + std::string(text) + "': expected (S,G) or (*,G)");
  }
  std::string_view sText = trimmed(inner.substr(0, comma));
  std::string_view gText = trimmed(inner.substr(comma + 1));
  IpGenPrefix g = prefix("group", gText);
  if (!g.isMulticast()) {
    throw Kiv::RangeException("bad group '" + std::string(gText) + "': not a multicast group");
  }
  IpGenPrefix s;
  if (sText == "*") {
    s = g.af() == Orvet::ipv4() ? IpGenPrefix(Orvet::Prefix()) : IpGenPrefix(Orvet::IpGenAddr::fromIpv6({}), 0);
  } else {
    s = prefix("source", sText);
  }
  if (s.af() != g.af()) {
    throw Kiv::RangeException("bad key '" + std::string(text) + "': source and group families differ");
  }
  return IpGenRouteKey(s, g);
}

Bridging::VlanId vlanIdFromText(std::string_view text) {
  std::string_view digits = trimmed(text);
  uint32_t v = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() || v < 1 || v > 4094) {
    throw Kiv::RangeException("bad VLAN id '" + std::string(text) + "': expected a number 1..4094");
  }
  return Bridging::VlanId(v);
}

std::string exactDisplay(const IpGenRouteKey& key) {
  if (key.kind() == mroute_ && key.s().length() == 0 && !key.g().isHost()) {
    return "(*," + key_internal::displayPrefix(key.g()) + ")";
  }
  return key.pretty();
}

}  // namespace Routing::Multicast::Fib
