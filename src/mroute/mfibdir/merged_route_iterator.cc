#include "mroute/mfibdir/merged_route_iterator.h"

#include <algorithm>

namespace Brume::Multicast::Fib {

MfibBrumeCollRouteIteratorConst::MfibBrumeCollRouteIteratorConst(const MfibBrumeColl& coll) {
  cursors_.reserve(coll.brumePtr().size());
  for (const auto& [number, status] : coll.brumePtr()) {
    if (!status || !status->route().mounted()) continue;
    Cursor& c = cursors_.emplace_back();
    c.brumeKey = number;
    c.status = status;
    c.routes.reserve(status->route().size());
    status->route().front()->forEach([&](const auto& stored) { c.routes.push_back(stored.value); });
    // Sorting indexes moves 4 bytes where a record would move 168.
    c.order.resize(c.routes.size());
    for (uint32_t i = 0; i < c.order.size(); ++i) c.order[i] = i;
    std::sort(c.order.begin(), c.order.end(),
              [&](uint32_t a, uint32_t b) { return c.routes[a].key() < c.routes[b].key(); });
  }
  updateToBestRouteIterators();
}

void MfibBrumeCollRouteIteratorConst::updateToBestRouteIterators() {
  best_ = nullptr;
  bestKey_ = 0;
  bestStatus_ = nullptr;
  for (;;) {
    const Routing::Multicast::Fib::IpGenRouteKey* least = nullptr;
    for (const Cursor& c : cursors_) {
      if (!c.done() && (least == nullptr || c.current().key() < *least)) least = &c.current().key();
    }
    if (least == nullptr) return;
    const Routing::Multicast::Fib::IpGenRouteKey key = *least;
    candidates_.clear();
    uint8_t bestPriority = 0;
    // The same rule as selectBest: strictly greater, in the collection's order.
    for (Cursor& c : cursors_) {
      if (c.done() || !(c.current().key() == key)) continue;
      const Route& r = c.current();
      candidates_.push_back({c.brumeKey, &c.status, &r});
      if (r.routePriority().value() > bestPriority) {
        bestPriority = r.routePriority().value();
        best_ = &r;
        bestKey_ = c.brumeKey;
        bestStatus_ = c.status;
      }
      ++c.pos;
    }
    if (best_ != nullptr) return;
  }
}

}  // namespace Brume::Multicast::Fib
