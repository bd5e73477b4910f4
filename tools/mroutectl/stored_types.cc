#include "stored_types.h"

#include "mroute/route/route.h"
#include "mroute/table/engine/value_wrapper.h"
#include "mroute/table/survey/value_codec.h"
#include "route_text.h"

namespace Mroutectl {

void registerStoredTypes() {
  // Every table type registers itself (value_codec.h); route keys are shown
  // and read in their display form "(S,G)" here.
  using Routing::Multicast::Fib::IpGenRouteKey;
  using Brume::Multicast::Fib::Route;
  Brume::Survey::registerStoredType<KivBrume::KivBrumeMapValueWrapper<Route, IpGenRouteKey, &Route::key>>(
      [](std::string_view text) { return routeKeyFromText(text); },
      [](const IpGenRouteKey& key) { return keyText(key); });
}

}  // namespace Mroutectl
