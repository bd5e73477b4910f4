// The event loop of one agent: descriptor readiness on epoll.
//
// An agent runs exactly one EventLoop. Watchers (FdWatch here, Timer in
// timer.h, DirWatch in dir_watch.h) register with it and are called back from
// runOnce()/run() when their descriptor is ready. Callbacks may add, change,
// remove or destroy any watcher, including the one being called back: a
// removed watcher is never called again, not even for readiness already
// collected in the same wait.
//
// Thread-safety: single-threaded. The loop and every watcher on it are used
// only by the thread that runs the loop (stop() included). Nothing is locked.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "mroute/runtime/loop/sys.h"

namespace Mroute::Loop {

class EventLoop;

namespace internal {

using Callback = std::function<void()>;

// One registered descriptor. Shared between its watcher and the loop so that
// a watcher destroyed inside its own callback leaves the running callback
// alive until it returns.
struct Registration {
  EventLoop* loop = nullptr;  // null once removed or once the loop is gone
  int fd = -1;
  uint64_t token = 0;   // epoll data; never reused, so stale readiness is recognised
  uint32_t events = 0;  // EPOLLIN / EPOLLOUT currently asked for
  std::shared_ptr<const Callback> onReadable;
  std::shared_ptr<const Callback> onWritable;
};

}  // namespace internal

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws Mroute::ErrnoException("epoll_create1", ...) when epoll is refused.
  explicit EventLoop(Sys& sys = Sys::real());
  // Watchers still alive are detached and do nothing afterwards.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Waits at most `timeout` for readiness (negative: no limit, zero: poll)
  // and runs the callbacks of what became ready. Returns the number of
  // callbacks run; an interrupted wait (EINTR) runs none.
  int runOnce(std::chrono::milliseconds timeout);
  // Runs until stop() is called from a callback.
  void run();
  // REQUIRES: called on the loop's thread (typically from a callback).
  void stop() { stopped_ = true; }
  bool stopped() const { return stopped_; }

  // Descriptors currently watched.
  size_t watchCount() const { return registrations_.size(); }
  Sys& sys() const { return sys_; }

 private:
  friend class FdWatch;

  std::shared_ptr<internal::Registration> add(int fd);
  void modify(internal::Registration& reg, uint32_t events);
  void remove(internal::Registration& reg);

  Sys& sys_;
  int epfd_ = -1;
  uint64_t nextToken_ = 1;
  bool stopped_ = false;
  std::unordered_map<uint64_t, std::shared_ptr<internal::Registration>> registrations_;
};

// Watches one descriptor for readability and writability. The descriptor is
// the caller's: FdWatch never closes it. Interest follows the callbacks set:
// a watch with no callback asks for nothing.
class FdWatch {
 public:
  using Callback = internal::Callback;

  // REQUIRES: fd is open and not watched by another FdWatch on this loop.
  // Throws Mroute::ErrnoException("epoll_ctl(ADD)", ...) when epoll refuses it.
  FdWatch(EventLoop& loop, int fd);
  ~FdWatch();
  FdWatch(const FdWatch&) = delete;
  FdWatch& operator=(const FdWatch&) = delete;

  // A null callback withdraws that interest.
  void onReadableIs(Callback cb);
  void onWritableIs(Callback cb);
  // Keeps the callbacks but asks epoll only for the interests given.
  void interestIs(bool readable, bool writable);

  // Stops watching for good; safe inside this watch's own callback. Later
  // setters are ignored.
  void remove();

  int fd() const { return reg_->fd; }
  bool watching() const { return reg_->loop != nullptr; }
  bool readable() const { return reg_->events & EPOLLIN; }
  bool writable() const { return reg_->events & EPOLLOUT; }

 private:
  std::shared_ptr<internal::Registration> reg_;
};

}  // namespace Mroute::Loop
