// Route keys as an operator types and reads them: the display form read back,
// VLAN ids, and a display that names the key exactly.
//
// Thread-safety: pure functions.
#pragma once

#include <string>
#include <string_view>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/runtime/net/vlan_id.h"

namespace Routing::Multicast::Fib {

// "(S,G)" or "(*,G)", IPv4 or IPv6: "(*,239.1.1.1)", "(10.0.0.0/24, 232.1.1.1)",
// "(*,239.1.1.0/24)". Blanks around the whole text, the parentheses, the
// comma and either prefix are all ignored alike. Throws Kiv::RangeException
// whose text names the part that is wrong, e.g. "bad group '10.0.0.1': not a
// multicast group".
IpGenRouteKey routeKeyFromDisplay(std::string_view text);

// A VLAN id: a decimal number 1..4094, blanks around it ignored. Throws
// Kiv::RangeException "bad VLAN id '<text>': expected a number 1..4094".
Bridging::VlanId vlanIdFromText(std::string_view text);

// The display of pretty(), except that a (*,G) group shorter than a host
// prefix keeps its length: pretty() leaves it out because log readers match
// on "(*,232.0.0.0)", but an operator has to see which key it is, and
// routeKeyFromDisplay() reads this form back to the same key.
std::string exactDisplay(const IpGenRouteKey& key);

}  // namespace Routing::Multicast::Fib
