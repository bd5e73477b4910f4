// The route table type as the tool opens it, and where the demo publishes.
#pragma once

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route.h"
#include "mroute/table/brume_map.h"
#include "mroute/table/engine/value_wrapper.h"

namespace Mroutectl {

using Route = Brume::Multicast::Fib::Route;
using RouteValue =
    KivBrume::KivBrumeMapValueWrapper<Brume::Multicast::Fib::Route, Routing::Multicast::Fib::IpGenRouteKey,
                                      &Brume::Multicast::Fib::Route::key>;
using RouteOps = Brume::DefaultOps<Routing::Multicast::Fib::IpGenRouteKey, RouteValue>;
using RouteMap = Brume::BrumeMap<Routing::Multicast::Fib::IpGenRouteKey, RouteValue, RouteOps>;

// Where the demo publishes: <root>/demo/routing/multicast/fib/route.
inline constexpr const char* kDemoMount = "demo/routing/multicast/fib";
inline constexpr const char* kDemoName = "route";

}  // namespace Mroutectl
