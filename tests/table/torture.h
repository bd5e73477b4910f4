// The churn protocol of the torture test, run by writer and readers either as
// threads of one process or as processes.
//
// One writer cycles through filling the key space (slot and bucket growth),
// churning (in-place updates, removals, inserts) and draining (bucket halving,
// slot shrinking with moves), while a set of stable keys is only ever updated
// in place. Readers look up random keys and iterate without pause and check
// every copy: its checksum (a torn copy), its key (a value under the wrong
// key), that a key's version never goes backwards, that stable keys are
// always found (an entry lost from a chain) and that an iteration returns no
// key twice and every stable key once.
//
// The duration comes from the environment variable MROUTE_TORTURE_SECONDS
// (default: the test's own, a few seconds), so the same test runs for hours
// by hand.
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/shm/root_path.h"

namespace TableTest {

// Counters: reader side (the first seven are faults), then writer side.
#define TORTURE_COUNTERS(X)                                                                       \
  X(torn) X(wrongKey) X(backwards) X(lost) X(missed) X(duplicates) X(corruption) X(lookups)       \
  X(found) X(iterations) X(restarts) X(lookasideReads) X(writes) X(removes) X(slotShrinks)        \
  X(bucketGrows) X(bucketShrinks) X(cycles)

struct TortureStats {
#define TORTURE_FIELD(name) uint64_t name = 0;
  TORTURE_COUNTERS(TORTURE_FIELD)
#undef TORTURE_FIELD

  uint64_t errors() const { return torn + wrongKey + backwards + lost + missed + duplicates + corruption; }
  void add(const TortureStats& o);
  std::string summary() const;
};

struct TortureShape {
  uint32_t keySpace = 4096;
  uint32_t stableKeys = 64;
  uint32_t initialSize = 64;  // slots at creation; growth starts from here
};

// Runs one writer and `readers` readers on a table under `root` for
// MROUTE_TORTURE_SECONDS (else `seconds`), as threads or as forked
// processes; returns their counters summed. `failures` receives what any of
// them raised or how a process ended badly.
TortureStats runTorture(const Mem::RootPath& root, const TortureShape& shape, int readers, bool processes,
                        double seconds, std::string* failures);

}  // namespace TableTest
