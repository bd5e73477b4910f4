// The trace facility of the table framework and its level conventions.
//
// Thread-safety: as Mroute::Trace (any thread).
#pragma once

#include <sstream>
#include <string>

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

// A header check failed: traces the finding as an error, hands it to the
// caller when it asked for it (`why` may be null) and returns false.
inline bool validationFailed(std::string* why, const std::ostringstream& os) {
  MROUTE_TRACE(brumeTrace(), kTraceError, os.str());
  if (why != nullptr) *why = os.str();
  return false;
}

}  // namespace Brume
