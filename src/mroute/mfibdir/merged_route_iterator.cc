#include "mroute/mfibdir/merged_route_iterator.h"

#include <algorithm>
#include <utility>

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

// Sorts (hash << 32 | index) words by their hash: a radix sort, four stable
// passes of 8 bits, costs a few operations per entry where a comparison sort
// pays a log factor of indirect compares.
void sortByHash(std::vector<uint64_t>& words) {
  std::vector<uint64_t> tmp(words.size());
  uint32_t count[256];
  for (int shift = 32; shift < 64; shift += 8) {
    std::fill(std::begin(count), std::end(count), 0);
    for (uint64_t w : words) ++count[(w >> shift) & 0xff];
    uint32_t sum = 0;
    for (uint32_t& c : count) sum += std::exchange(c, sum);
    for (uint64_t w : words) tmp[count[(w >> shift) & 0xff]++] = w;
    words.swap(tmp);
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
    c.order.resize(c.routes.size());
    for (uint32_t i = 0; i < c.routes.size(); ++i) c.order[i] = uint64_t(c.routes[i].key().hash()) << 32 | i;
    sortByHash(c.order);
    // Keys of equal hash (rare apart from copies of one key) in key order,
    // and a key the writer moved between two slots during the scan once.
    const auto keyOf = [&](uint64_t w) -> const Routing::Multicast::Fib::IpGenRouteKey& {
      return c.routes[uint32_t(w)].key();
    };
    for (auto run = c.order.begin(); run != c.order.end();) {
      auto end = run + 1;
      while (end != c.order.end() && (*end >> 32) == (*run >> 32)) ++end;
      if (end - run > 1) std::sort(run, end, [&](uint64_t a, uint64_t b) { return keyOf(a) < keyOf(b); });
      run = end;
    }
    c.order.erase(std::unique(c.order.begin(), c.order.end(),
                              [&](uint64_t a, uint64_t b) { return (a >> 32) == (b >> 32) && keyOf(a) == keyOf(b); }),
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
    const Route& leastRoute = least->current();
    const uint32_t hash = least->currentHash();
    candidates_.clear();
    uint8_t bestPriority = 0;
    // The same rule as selectBest: strictly greater, in the collection's order.
    // (leastRoute stays valid: cursors only move their positions.)
    for (Cursor& c : cursors_) {
      if (&c != least && (c.done() || c.currentHash() != hash || !(c.current().key() == leastRoute.key()))) continue;
      const Route& r = c.current();
      candidates_.push_back({c.brumeKey, &c.status, &r});
      if (r.routePriority().value() > bestPriority) {
        bestPriority = r.routePriority().value();
        best_ = &r;
        bestKey_ = c.brumeKey;
        bestStatus_ = &c.status;
      }
      ++c.pos;
    }
    if (best_ != nullptr) return;
  }
}

}  // namespace Brume::Multicast::Fib
