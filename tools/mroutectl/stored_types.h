// How mroutectl shows stored types beyond what they register themselves
// (mroute/table/survey/value_codec.h): route keys in their display form.
#pragma once

#include <string_view>

#include "mroute/route/ip_gen_route_key.h"

namespace Mroutectl {

// Registers the tool's codecs over the types' own; idempotent.
void registerStoredTypes();

// A route key from the operator's text: the display form "(S,G)" or
// "(*,G)", or either text form (key_command.cc). Throws CommandError
// (usage) naming what is wrong with it.
Routing::Multicast::Fib::IpGenRouteKey routeKeyFromText(std::string_view text);

}  // namespace Mroutectl
