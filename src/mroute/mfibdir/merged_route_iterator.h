// MfibBrumeCollRouteIteratorConst: the merged view of a VRF's table sets,
// each key visited once and positioned on its winning route (the choice of
// selection.h). Keys that no table set can win (only priority 0 routes) are
// not visited. The order is that of the keys' hashes, which merges the
// tables without comparing whole keys; consumers that need key order keep an
// ordered view (order_route_sm.h) or sort what they collect.
//
//   for (MfibBrumeCollRouteIteratorConst it(coll); !it.atEnd(); it.updateToBestRouteIterators())
//     program(it.route());
//
// The iterator walks copies of the tables taken at construction, so a walk
// is one consistent snapshot per table set; changes made later are
// announced by the tables' notifications, on which callers select again.
//
// Thread-safety: on the collection's event loop.
#pragma once

#include <cstdint>
#include <vector>

#include "mroute/mfibdir/mfib_dir.h"

namespace Brume::Multicast::Fib {

class MfibBrumeCollRouteIteratorConst {
 public:
  // Takes the copies and positions on the first key that has a winner.
  explicit MfibBrumeCollRouteIteratorConst(const MfibBrumeColl& coll);

  bool atEnd() const { return best_ == nullptr; }
  // REQUIRES: !atEnd()
  const Route& route() const { return *best_; }
  uint32_t brumeKey() const { return bestKey_; }
  const Kiv::Ptr<Status>& status() const { return bestStatus_ != nullptr ? *bestStatus_ : kNoStatus; }
  // The candidates for the current key: every table set's route for it, in
  // the collection's order (the winner among them).
  struct Candidate {
    uint32_t brumeKey;
    const Kiv::Ptr<Status>* status;
    const Route* route;
  };
  const std::vector<Candidate>& candidates() const { return candidates_; }

  // Moves to the next key in key order that has a winner.
  void updateToBestRouteIterators();

 private:
  struct Cursor {
    uint32_t brumeKey;
    Kiv::Ptr<Status> status;
    std::vector<Route> routes;
    // (hash of the key << 32 | index into routes), ascending; keys of equal
    // hash in key order.
    std::vector<uint64_t> order;
    size_t pos = 0;
    bool done() const { return pos >= order.size(); }
    const Route& current() const { return routes[uint32_t(order[pos])]; }
    uint32_t currentHash() const { return uint32_t(order[pos] >> 32); }
    // REQUIRES: neither is done().
    bool before(const Cursor& o) const {
      if (currentHash() != o.currentHash()) return currentHash() < o.currentHash();
      // The same key in several tables is the common tie: equality is inline.
      return !(current().key() == o.current().key()) && current().key() < o.current().key();
    }
  };

  std::vector<Cursor> cursors_;  // in the collection's map order
  std::vector<Candidate> candidates_;
  const Route* best_ = nullptr;
  uint32_t bestKey_ = 0;
  const Kiv::Ptr<Status>* bestStatus_ = nullptr;
  static inline const Kiv::Ptr<Status> kNoStatus;
};

}  // namespace Brume::Multicast::Fib
