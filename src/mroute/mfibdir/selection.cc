#include "mroute/mfibdir/selection.h"

#include <optional>

#include "mroute/mfibdir/merged_route_iterator.h"

namespace Brume::Multicast::Fib {

Selection selectBest(const MfibBrumeColl& coll, const Routing::Multicast::Fib::IpGenRouteKey& key, uint32_t skip,
                     Route* route) {
  Selection best;
  uint8_t bestPriority = 0;
  for (const auto& [number, status] : coll.brumePtr()) {
    if (number == skip && skip != 0) continue;
    if (!status) continue;
    // The front's lookup, as find() makes it but without find()'s second
    // copy of the route: it answers "none" after corruption, when the
    // front has run the table's handler.
    auto* front = status->route().front();
    if (front == nullptr) continue;
    const auto stored = front->lookup(key);
    // Strictly greater: a tie keeps the first, and priority 0 never wins.
    if (!stored || stored->value.routePriority().value() <= bestPriority) continue;
    bestPriority = stored->value.routePriority().value();
    best.brumeKey = number;
    best.status = &status;
    if (route != nullptr) *route = stored->value;
  }
  return best;
}

uint32_t MfibBrumeColl::brumeKey(const Routing::Multicast::Fib::IpGenRouteKey& key) const {
  return selectBest(*this, key).brumeKey;
}

Kiv::Ptr<Status> MfibBrumeColl::mfibBrume(const Routing::Multicast::Fib::IpGenRouteKey& key) const {
  const Selection s = selectBest(*this, key);
  return s.status != nullptr ? *s.status : Kiv::Ptr<Status>();
}

Route MfibBrumeColl::route(const Routing::Multicast::Fib::IpGenRouteKey& key) const {
  Route r;
  selectBest(*this, key, 0, &r);
  return r;
}

Kiv::Ptr<Status> MfibBrumeColl::nextBestBrume(uint32_t currBrumeKey,
                                              const Routing::Multicast::Fib::IpGenRouteKey& key) const {
  const Selection s = selectBest(*this, key, currBrumeKey);
  return s.status != nullptr ? *s.status : Kiv::Ptr<Status>();
}

uint32_t MfibBrumeColl::routes() const {
  uint32_t n = 0;
  for (MfibBrumeCollRouteIteratorConst it(*this); !it.atEnd(); it.updateToBestRouteIterators()) ++n;
  return n;
}

}  // namespace Brume::Multicast::Fib
