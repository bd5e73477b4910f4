// Helpers of the table-front tests: a private shared-memory root per test
// (MROUTE_SHM_ROOT points into it while the test runs) and running an event
// loop until a condition holds.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/brume_map.h"
#include "table_test_util.h"

namespace FrontTest {

using RecordMap = Brume::BrumeMap<uint64_t, TableTest::RecordValue, TableTest::RecordOps>;

class ShmRootScope {
 public:
  explicit ShmRootScope(const std::string& tag = "front") {
    static std::atomic<int> counter{0};
    dir_ = "/dev/shm/mroute-front-" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(counter++);
    std::filesystem::remove_all(dir_);
    ::setenv("MROUTE_SHM_ROOT", dir_.c_str(), 1);
  }
  ~ShmRootScope() {
    ::unsetenv("MROUTE_SHM_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  ShmRootScope(const ShmRootScope&) = delete;
  ShmRootScope& operator=(const ShmRootScope&) = delete;
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

// Runs the loop until pred() holds or `limit` passed; returns pred().
inline bool runUntil(Mroute::Loop::EventLoop& loop, const std::function<bool()>& pred,
                     std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    loop.runOnce(std::chrono::milliseconds(5));
  }
  return true;
}

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
