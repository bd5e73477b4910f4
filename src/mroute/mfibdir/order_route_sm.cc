#include "mroute/mfibdir/order_route_sm.h"

#include <vector>

#include "mroute/mfibdir/mfib_brume_trace.h"
#include "mroute/runtime/assert.h"

namespace Brume::Multicast::Fib {

OrderRouteSm::OrderRouteSm(const Kiv::Ptr<const MfibBrumeColl>& coll, const Kiv::Ptr<RouteOrderedCollection>& ordered)
    : ordered_(ordered) {
  MROUTE_ASSERT(coll != nullptr);
  MROUTE_ASSERT(ordered_ != nullptr);
  notifierIs(coll);
}

OrderRouteSm::~OrderRouteSm() = default;

void OrderRouteSm::handleInitialized() {
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry, "Initializing OrderRouteSm");
  initialized_ = true;
  for (const auto& [number, status] : notifier()->brumePtr()) mfibBrumeIs(number, status);
  MROUTE_TRACE(mfibBrumeTrace(), kTraceEntry, "Initialized OrderRouteSm");
}

void OrderRouteSm::onBrumePtr(const uint32_t& number) {
  if (!initialized_) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "OrderRouteSm Not initialized");
    return;
  }
  const Kiv::Ptr<Status> status = notifier()->brumePtr(number);
  if (status) {
    mfibBrumeIs(number, status);
  } else {
    mfibBrumeDel(number);
  }
}

void OrderRouteSm::mfibBrumeIs(uint32_t number, const Kiv::Ptr<const Status>& status) {
  auto& sm = brumes_[number];
  if (sm && sm->notifier() == status) return;
  sm = std::make_unique<BrumeSm>(*this, number, status);
  sm->handleInitialize();
}

void OrderRouteSm::mfibBrumeDel(uint32_t number) {
  auto it = brumes_.find(number);
  if (it == brumes_.end()) return;
  brumes_.erase(it);
  // Any key of the view may have had its winner there, and may now have
  // another or none. Its tables cannot tell which keys it held: a writer
  // that deletes its table set removes the files before it withdraws the
  // path, so a reader may find them empty by now. Every key is selected again.
  std::vector<Routing::Multicast::Fib::IpGenRouteKey> keys;
  for (const auto& [key, stored] : ordered_->route()) keys.push_back(key);
  for (const auto& key : keys) {
    const uint32_t winner = notifier()->brumeKey(key);
    if (winner == 0) {
      MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "Route entry deleted for key (s: " << key.s() << " g: " << key.g());
      ordered_->routeDel(key);
    } else if (ordered_->route(key) == number) {
      ordered_->routeIs(key, winner);
    }
  }
}

const OrderRouteSm::BrumeSm* OrderRouteSm::mfibBrume(uint32_t number) const {
  auto it = brumes_.find(number);
  return it == brumes_.end() ? nullptr : it->second.get();
}

void OrderRouteSm::routeChanged(uint32_t number, const Routing::Multicast::Fib::IpGenRouteKey& key) {
  if (!initialized_) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "OrderRouteSm Not initialized");
    return;
  }
  // A copy equal to a default Route means no table set has a winner.
  if (notifier()->route(key) == Route()) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "Route entry deleted for key (s: " << key.s() << " g: " << key.g());
    ordered_->routeDel(key);
    return;
  }
  const uint32_t stored = ordered_->route(key);
  if (stored != 0) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute,
                 "Route entry updated for key (s: " << key.s() << " g: " << key.g() << ")");
    if (stored != number) ordered_->routeIs(key, number);
    return;
  }
  MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "Route entry added for key (s: " << key.s() << " g: " << key.g() << ")");
  ordered_->routeIs(key, number);
}

OrderRouteSm::BrumeSm::BrumeSm(OrderRouteSm& owner, uint32_t number, const Kiv::Ptr<const Status>& status)
    : owner_(owner), number_(number) {
  notifierIs(status);
}

void OrderRouteSm::BrumeSm::handleInitialize() {
  const Kiv::Ptr<const Status> status = notifier();
  if (!status || !status->route().mounted() || !status->route().front()->ready()) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "OrderRouteSm Not initialized");
    return;
  }
  tableInitialized_ = true;
  std::vector<Routing::Multicast::Fib::IpGenRouteKey> keys;
  for (const Route& r : status->route()) keys.push_back(r.key());
  for (const auto& key : keys) handleRouteChanged(key);
}

void OrderRouteSm::BrumeSm::onRoute(const Routing::Multicast::Fib::IpGenRouteKey& key) {
  if (!tableInitialized_) {
    MROUTE_TRACE(mfibBrumeTrace(), kTraceRoute, "OrderRouteSm Not initialized");
    return;
  }
  handleRouteChanged(key);
}

}  // namespace Brume::Multicast::Fib
