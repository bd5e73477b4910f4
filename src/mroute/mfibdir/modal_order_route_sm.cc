#include "mroute/mfibdir/modal_order_route_sm.h"

#include <optional>
#include <vector>

#include "mroute/mfibdir/mfib_brume_trace.h"
#include "mroute/runtime/assert.h"

namespace Brume::Multicast::Fib {

ModalOrderRouteSm::ModalOrderRouteSm(const Kiv::Ptr<const Status>& status,
                                     const Kiv::Ptr<ModalRouteOrderedCollection>& ordered)
    : ordered_(ordered) {
  MROUTE_ASSERT(ordered_ != nullptr);
  notifierIs(status);
}

void ModalOrderRouteSm::handleInitialized() {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry, "Initializing ModalOrderRouteSm");
  initialized_ = true;
  std::vector<Routing::Multicast::Fib::IpGenRouteKey> keys;
  for (const Route& r : notifier()->route()) keys.push_back(r.key());
  for (const auto& k : keys) handleRouteChanged(k);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry, "Initialized ModalOrderRouteSm");
}

void ModalOrderRouteSm::handleRouteChanged(const Routing::Multicast::Fib::IpGenRouteKey& key) {
  if (!initialized_) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "ModalOrderRouteSm not initialized");
    return;
  }
  const std::optional<Route> r = notifier()->route().find(key);
  if (!r) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "Route entry deleted for key (s: " << key.s() << " g: " << key.g());
    ordered_->routeDel(key);
    return;
  }
  if (ordered_->route().lookup(key) == nullptr) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute,
                 "Route entry added for key (s: " << key.s() << " g: " << key.g() << ")");
    ordered_->routeIs(key, true);
    return;
  }
  // The key is there already: nothing in the ordered map changes.
  MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute,
               "Route entry updated for key (s: " << key.s() << " g: " << key.g() << ")");
}

}  // namespace Brume::Multicast::Fib
