// Mem::BusGuard keeps a process alive when a table file shrinks under its
// mapping.
//
// Touching a page of a shared file mapping that lies past the end of the
// file raises SIGBUS. Table files never shrink while they are mapped (the
// writer gives pages back by punching holes, which keeps the length), so a
// shorter file is damage done by another process, and the process that maps
// it must report it, not die of it. Every mapping of a table file is
// watched: on a SIGBUS inside one, the handler maps zero-filled private pages
// over the rest of the mapping from the faulting page on (every later page
// lies past the end as well), so the access is retried and reads zeros, and
// it counts the fault against the mapping. The table code then finds the
// damage by its own checks, or by asking faulted(). A SIGBUS anywhere else
// goes to the handler installed before (or to the default action, which ends
// the process as it would have). A process that installs a SIGBUS handler of
// its own after the first table file is mapped must pass faults it does not
// know on to the handler it replaced, as this one does.
//
// Thread-safety: watch(), forget() and faulted() may be called from any
// thread; the handler reads the watch list without locks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Mem {

namespace bus_guard_internal {
// Counted by the handler; read inline by BusGuard::faults().
inline std::atomic<uint64_t> faults{0};
}  // namespace bus_guard_internal

class BusGuard {
 public:
  // At most this many mappings are watched at once; a mapping beyond them is
  // not watched (watch() returns kNotWatched) and faults as it would.
  static constexpr int kMaxWatched = 2048;
  static constexpr int kNotWatched = -1;

  // Starts watching [base, base + length), mapped with `writable` access;
  // installs the handler on first use. Returns the watch's id.
  // REQUIRES: base is page-aligned.
  static int watch(const void* base, size_t length, bool writable);
  // Stops watching; call before the range is unmapped or moved. kNotWatched
  // is ignored.
  static void forget(int id);
  // Whether a SIGBUS hit the watched range since watch().
  static bool faulted(int id);
  // SIGBUS faults taken in watched ranges since the process started: one
  // load, for hot paths that look for damage only when there was some.
  static uint64_t faults() { return bus_guard_internal::faults.load(std::memory_order_relaxed); }
};

}  // namespace Mem
