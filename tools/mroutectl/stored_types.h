// The stored value types mroutectl shows by name: their codecs are
// registered with the survey API (mroute/table/survey/value_codec.h) at
// the start of every run, so that any table of these types is dumped, looked
// up, followed and validated (key hashes included) by the type its files
// record.
#pragma once

#include <string_view>

#include "mroute/route/ip_gen_route_key.h"

namespace Mroutectl {

// Registers the codecs; idempotent.
void registerStoredTypes();

// A route key from the operator's text: the display form "(S,G)" or
// "(*,G)", or either text form (key_command.cc). Throws CommandError
// (usage) naming what is wrong with it.
Routing::Multicast::Fib::IpGenRouteKey routeKeyFromText(std::string_view text);

}  // namespace Mroutectl
