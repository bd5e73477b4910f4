// The key filter of `dump` and `follow`: routes whose group lies inside a
// group prefix and whose source lies inside a source prefix ("(*,G)" routes
// have the zero-length source, inside only a zero-length source prefix).
#pragma once

#include <optional>
#include <string>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/runtime/net/ip_gen_prefix.h"

namespace Mroutectl {

struct RouteFilter {
  std::optional<Orvet::IpGenPrefix> group;
  std::optional<Orvet::IpGenPrefix> source;

  // Reads the operator's prefixes; throws CommandError (usage) for a bad one.
  static RouteFilter fromText(const std::string& group, const std::string& source);
  bool active() const { return group || source; }
  bool matches(const Routing::Multicast::Fib::IpGenRouteKey& key) const;
};

// `inner` lies inside `outer`: same family, at least as long, and equal in
// the first outer.length() bits.
bool within(const Orvet::IpGenPrefix& inner, const Orvet::IpGenPrefix& outer);

}  // namespace Mroutectl
