// Watches one directory with inotify and reports changes of its entries.
//
// Each change is reported with the entry's name: created (also moved in),
// deleted (also moved out), modified. `dirGone` says the directory itself was
// deleted or moved (no further events follow); `overflow` says the kernel
// dropped events, so the caller must rescan. The callback may destroy the
// DirWatch; events still buffered are then dropped.
//
// Thread-safety: single-threaded, like the loop it is on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "mroute/runtime/loop/event_loop.h"

namespace Mroute::Loop {

enum class DirEvent : uint8_t { created, deleted, modified, dirGone, overflow };

const char* dirEventName(DirEvent e);

class DirWatch {
 public:
  // `name` is empty for dirGone and overflow.
  using Callback = std::function<void(DirEvent event, std::string_view name)>;

  // Throws Mroute::ErrnoException("inotify_init1" or
  // "inotify_add_watch(<path>)", ...) when refused, e.g. the path is missing
  // or not a directory.
  DirWatch(EventLoop& loop, const std::string& path, Callback cb);
  ~DirWatch();
  DirWatch(const DirWatch&) = delete;
  DirWatch& operator=(const DirWatch&) = delete;

  const std::string& path() const { return path_; }

 private:
  struct State {
    Sys* sys = nullptr;
    int fd = -1;
    Callback cb;
  };
  static void drain(const std::shared_ptr<State>& state);

  std::string path_;
  std::shared_ptr<State> state_;
  std::unique_ptr<FdWatch> watch_;
};

}  // namespace Mroute::Loop
