// The trace facility of the MFIB directory and the ordered views,
// "Mroute::MfibBrume": 3 directory changes, 7 route entries, 9 entry lines.
//
// Thread-safety: as Mroute::Trace (any thread).
#pragma once

#include "mroute/runtime/trace.h"

namespace Brume::Multicast::Fib {

inline Mroute::Trace::Facility& mfibBrumeTrace() {
  static Mroute::Trace::Facility& fac = Mroute::Trace::facility("Mroute::MfibBrume");
  return fac;
}

inline constexpr int kTraceDir = 3;
inline constexpr int kTraceRoute = 7;
inline constexpr int kTraceEntry = 9;

}  // namespace Brume::Multicast::Fib
