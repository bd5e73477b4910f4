// How mroutectl shows a route to a person: one line with the key in its
// display form, the incoming interface, the oif indexes the bitmap walk
// yields, the names of the flags that are set, the priority and the version:
//
//   (10.0.0.1,239.1.1.1)  iif Ethernet1  oifs 3,7,12  flags valid,programmable  prio 1  ver 17
//
// Fields that are null or zero by default (iifFrr, notify, fastdrop, rpa,
// noRpf) appear only when set. `--text` output uses the Value(...) text form
// instead (Route's operator<<).
//
// Thread-safety: pure functions of their arguments.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route.h"

namespace Mroutectl {

// The key's display form; the raw text form when the key's kind is not one
// that has a display form (a damaged slot).
std::string keyText(const Routing::Multicast::Fib::IpGenRouteKey& key);

// "3,7,12", or "none". Bits set beyond the word of maxOifIndex are not
// walked; they are counted as " (+N beyond maxOifIndex)" so that a writer
// that forgot to raise maxOifIndex shows.
std::string oifText(const Brume::Multicast::Fib::Route& route);

// The names of the route's flags and then of its iif flags that are set.
std::vector<std::string> flagNames(const Brume::Multicast::Fib::Route& route);

// items joined by sep.
std::string join(const std::vector<std::string>& items, const char* sep);

// The one-line form above.
std::string routeLine(const Brume::Multicast::Fib::Route& route);

// A record copied out of shared memory holds its fields as stored, even out
// of their range. Throws std::out_of_range naming the first such field: a
// maxOifIndex past the bitmap, a key prefix longer than its family allows.
void requireInRange(const Brume::Multicast::Fib::Route& route);

// A record another process damaged can hold a field out of its range, which
// the field's accessor refuses (std::out_of_range). What `show` makes of the
// record, or "<key>  damaged record: <why>" with *damaged set.
template <typename Show>
std::string shownOrDamaged(const std::string& key, Show&& show, bool* damaged = nullptr) {
  try {
    return show();
  } catch (const std::out_of_range& e) {
    if (damaged != nullptr) *damaged = true;
    return (key.empty() ? "" : key + "  ") + "damaged record: " + e.what();
  }
}

// What changed from `before` to `after` (same key), e.g. "oif +12 -3, flags
// +programmable, iif Ethernet1 -> Ethernet2"; empty when only the version
// differs.
std::string routeDiff(const Brume::Multicast::Fib::Route& before, const Brume::Multicast::Fib::Route& after);

}  // namespace Mroutectl
