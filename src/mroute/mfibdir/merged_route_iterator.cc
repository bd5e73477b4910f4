#include "mroute/mfibdir/merged_route_iterator.h"

#include <algorithm>

#include "mroute/runtime/error.h"

namespace Brume::Multicast::Fib {

namespace {

// A reader's copy is a scan of the slots, each copied whole (the reader's
// version checks); walking the chains would look every key up again. After
// corruption the front's own walk takes over: it runs the table's handler.
void copyRoutes(const Status& status, std::vector<Route>& out) {
  auto* front = status.route().front();
  out.reserve(status.route().size());
  auto* reader = front->reader();
  auto frontWalk = [&] { front->forEach([&](const auto& stored) { out.push_back(stored.value); }); };
  if (reader == nullptr || front->mode() == Brume::BrumeType::shadow) {
    frontWalk();
    return;
  }
  if (!reader->attached()) return;
  try {
    typename std::remove_pointer_t<decltype(reader)>::Stored v;
    const uint32_t n = reader->capacity();
    for (uint32_t slot = 0; slot < n; ++slot) {
      if (reader->retryOnResize([&] { return reader->safeValue(slot, v); })) out.push_back(v.value);
    }
  } catch (const Pavo::CorruptionDetectedException&) {
    out.clear();
    frontWalk();
  }
}

}  // namespace

MfibBrumeCollRouteIteratorConst::MfibBrumeCollRouteIteratorConst(const MfibBrumeColl& coll) {
  cursors_.reserve(coll.brumePtr().size());
  for (const auto& [number, status] : coll.brumePtr()) {
    if (!status || !status->route().mounted()) continue;
    Cursor& c = cursors_.emplace_back();
    c.brumeKey = number;
    c.status = status;
    copyRoutes(*status, c.routes);
    // Ordered by (hash, key): an integer compare almost always decides, and
    // equal keys of different tables still meet (same hash). Sorting indexes
    // moves 4 bytes where a record would move 168.
    c.hashes.resize(c.routes.size());
    for (size_t i = 0; i < c.routes.size(); ++i) c.hashes[i] = c.routes[i].key().hash();
    c.order.resize(c.routes.size());
    for (uint32_t i = 0; i < c.order.size(); ++i) c.order[i] = i;
    std::sort(c.order.begin(), c.order.end(), [&](uint32_t a, uint32_t b) {
      if (c.hashes[a] != c.hashes[b]) return c.hashes[a] < c.hashes[b];
      return c.routes[a].key() < c.routes[b].key();
    });
    // A key the writer moved between two slots during the scan shows twice.
    c.order.erase(std::unique(c.order.begin(), c.order.end(),
                              [&](uint32_t a, uint32_t b) { return c.routes[a].key() == c.routes[b].key(); }),
                  c.order.end());
  }
  updateToBestRouteIterators();
}

void MfibBrumeCollRouteIteratorConst::updateToBestRouteIterators() {
  best_ = nullptr;
  bestKey_ = 0;
  bestStatus_ = nullptr;
  for (;;) {
    const Cursor* least = nullptr;
    for (const Cursor& c : cursors_) {
      if (!c.done() && (least == nullptr || c.before(*least))) least = &c;
    }
    if (least == nullptr) return;
    const Routing::Multicast::Fib::IpGenRouteKey key = least->current().key();
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
