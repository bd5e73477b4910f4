// Helpers of the table-front tests: the record table type, the shared root
// scope and loop runner, and options with short timers.
#pragma once

#include <chrono>

#include "mroute/table/brume_map.h"
#include "table/table_test_util.h"
#include "testing/shm_root_scope.h"

namespace FrontTest {

using RecordMap = Brume::BrumeMap<uint64_t, TableTest::RecordValue, TableTest::RecordOps>;

using Testing::runUntil;
using Testing::ShmRootScope;

// Options with short timers for tests.
inline Brume::BrumeMapOptions fastOptions() {
  Brume::BrumeMapOptions o;
  o.table.initialSize = 64;
  o.table.maxSize = 1 << 16;
  o.remountPeriod = std::chrono::milliseconds(50);
  o.ackTimeout = std::chrono::milliseconds(300);
  o.reconnectPeriod = std::chrono::milliseconds(20);
  o.systemLog = nullptr;
  return o;
}

}  // namespace FrontTest
