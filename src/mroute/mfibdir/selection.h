// The choice, for one route key, among the table sets of a VRF: the route
// with the strictly highest priority wins; ties go to the table set met
// first in the collection's order; priority 0 never wins. A table set that
// meets corruption while looking the key up counts as having no route (its
// table's corruption handler has run) and the others still answer.
//
// Thread-safety: on the collection's event loop; the tables read may be
// written by other processes at any time, and the answer is their state at
// the moment of each lookup.
#pragma once

#include <cstdint>

#include "mroute/mfibdir/mfib_dir.h"

namespace Brume::Multicast::Fib {

struct Selection {
  uint32_t brumeKey = 0;  // 0: no winner
  const Kiv::Ptr<Status>* status = nullptr;
};

// Visits coll's table sets in map order, skipping the one numbered `skip`
// (0 skips none: no table set has that number). The winner's route is
// copied to *route only when it is asked for: the number alone is the
// common question, and the copy is most of what selection adds to the
// lookups themselves.
Selection selectBest(const MfibBrumeColl& coll, const Routing::Multicast::Fib::IpGenRouteKey& key, uint32_t skip = 0,
                     Route* route = nullptr);

}  // namespace Brume::Multicast::Fib
