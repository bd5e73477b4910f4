// The trace facility of the table framework and its level conventions.
//
// Thread-safety: as Mroute::Trace (any thread).
#pragma once

#include "mroute/runtime/trace.h"

namespace Brume {

// "Mroute::Brume": 1 errors (validation failures, corruption), 3 attach and
// resize summaries, 8 sizes, 9 per-operation lines.
inline Mroute::Trace::Facility& brumeTrace() {
  static Mroute::Trace::Facility& fac = Mroute::Trace::facility("Mroute::Brume");
  return fac;
}

inline constexpr int kTraceError = 1;
inline constexpr int kTraceInfo = 3;
inline constexpr int kTraceSize = 8;
inline constexpr int kTraceDetail = 9;

}  // namespace Brume
