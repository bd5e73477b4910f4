// The churn protocol shared by the process and thread torture tests.
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

#include <atomic>
#include <cstdint>
#include <string>

#include "mroute/table/shm/root_path.h"

namespace TableTest {

struct TortureStats {
  // Reader side.
  uint64_t lookups = 0;
  uint64_t found = 0;
  uint64_t iterations = 0;
  uint64_t restarts = 0;
  uint64_t lookasideReads = 0;
  uint64_t torn = 0;         // checksum failed
  uint64_t wrongKey = 0;     // value under another key
  uint64_t backwards = 0;    // a key's version went back
  uint64_t lost = 0;         // a lookup did not find a stable key
  uint64_t missed = 0;       // an iteration did not return a stable key
  uint64_t duplicates = 0;   // an iteration returned a key twice
  uint64_t corruption = 0;   // CorruptionDetectedException on sane files
  // Writer side.
  uint64_t writes = 0;
  uint64_t removes = 0;
  uint64_t slotShrinks = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t cycles = 0;

  uint64_t errors() const { return torn + wrongKey + backwards + lost + missed + duplicates + corruption; }
  void add(const TortureStats& o);
  std::string summary() const;
};

struct TortureShape {
  uint32_t keySpace = 4096;
  uint32_t stableKeys = 64;
  uint32_t initialSize = 64;  // slots at creation; growth starts from here
};

// Seconds to run: MROUTE_TORTURE_SECONDS when set, else `fallback`.
double tortureSeconds(double fallback);

// Writer: attaches, publishes `ready`, churns until `stop`, then fills
// `stats`. The table is cleaned up by the caller.
void runTortureWriter(const Mem::RootPath& root, const TortureShape& shape, const std::atomic<bool>& stop,
                      std::atomic<bool>& ready, TortureStats& stats);

// Reader: waits for `ready`, then looks up and iterates until `stop`.
void runTortureReader(const Mem::RootPath& root, const TortureShape& shape, const std::atomic<bool>& stop,
                      const std::atomic<bool>& ready, uint64_t seed, TortureStats& stats);

}  // namespace TableTest
