// What the table subcommands of mroutectl share: the route table type, the
// tables found under the shared-memory root, and a summary of one table read
// straight from its file headers (read-only; nothing is written, and the
// writer is never contacted).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route.h"
#include "mroute/table/brume_map.h"
#include "mroute/table/shm/root_path.h"
#include "mroute/table/engine/value_wrapper.h"

namespace Mroutectl {

using Route = Brume::Multicast::Fib::Route;
using RouteValue =
    KivBrume::KivBrumeMapValueWrapper<Brume::Multicast::Fib::Route, Routing::Multicast::Fib::IpGenRouteKey,
                                      &Brume::Multicast::Fib::Route::key>;
using RouteOps = Brume::DefaultOps<Routing::Multicast::Fib::IpGenRouteKey, RouteValue>;
using RouteMap = Brume::BrumeMap<Routing::Multicast::Fib::IpGenRouteKey, RouteValue, RouteOps>;

// Where the demo publishes: <root>/demo/routing/multicast/fib/route.
inline constexpr const char* kDemoMount = "demo/routing/multicast/fib";
inline constexpr const char* kDemoName = "route";

struct TableSummary {
  std::string table;  // "<mount path>/<name>" relative to the root
  std::string dir;
  bool readable = false;
  std::string valueType;
  uint32_t valueSize = 0;
  uint32_t capacity = 0;
  uint32_t maxSlots = 0;
  uint32_t members = 0;
  uint32_t ember = 0;      // of the ember file; 0 when missing
  uint32_t fileEmber = 0;  // of the slot file
  // Connected readers as the writer last recorded them in the queue header.
  // Only meaningful while the writer runs: a writer that dies leaves its last
  // count behind.
  uint32_t readers = 0;
  long writerPid = 0;  // the process holding the writer lock; 0 when none
  bool corruptionReported = false;
};

// The process holding the table directory's writer lock, found in
// /proc/locks without touching the lock; 0 when no writer holds it. When
// /proc/locks cannot be read, -1 if a writer answers on the table's socket.
long writerPid(const std::string& dir);

// Every table directory (one holding "slots") under the root, sorted.
std::vector<std::string> findTables(const std::string& rootDir);
// REQUIRES: `table` is "<mount path>/<name>" (as findTables gives them).
TableSummary summarize(const std::string& table);
// Splits "<mount path>/<name>" at its last '/'.
bool splitTable(const std::string& table, std::string* mount, std::string* name);

// The directory of "<mount path>/<name>" after the path checks of
// shm_root.h ("Q9_CHROOT" applied). Returns nothing with *error set (one
// line naming the problem: not of that shape, a path that leaves the root,
// no such table) when there is no table directory holding a slot file.
std::optional<Mem::RootPath> locateTable(const std::string& table, std::string* error);

}  // namespace Mroutectl
