// Test support for entities with shared tables: a private shared-memory root
// per scope (MROUTE_SHM_ROOT points into it while the scope lives) and
// running an event loop until a condition holds.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "mroute/runtime/loop/event_loop.h"

namespace Testing {

class ShmRootScope {
 public:
  explicit ShmRootScope(const std::string& tag) {
    static std::atomic<int> counter{0};
    dir_ = (std::filesystem::temp_directory_path() /
            ("mroute-" + tag + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++)))
               .string();
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

}  // namespace Testing
