// Test support for shared tables: a private directory or shared-memory root
// per scope, and running an event loop until a condition holds.
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

// A fresh path in the shared-memory file system, unique to this process and
// object, removed with everything in it at the end. It is not created: the
// code under test creates what it needs, and some tests check that it does not.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    dir_ = "/dev/shm/mroute-test-" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(counter++);
    std::filesystem::remove_all(dir_);
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

// A scratch directory that is the shared-memory root (MROUTE_SHM_ROOT) while
// the scope lives.
class ShmRootScope : public ScratchDir {
 public:
  explicit ShmRootScope(const std::string& tag = "root") : ScratchDir(tag) {
    ::setenv("MROUTE_SHM_ROOT", dir().c_str(), 1);
  }
  ~ShmRootScope() { ::unsetenv("MROUTE_SHM_ROOT"); }
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
