// A timer on the event loop, backed by its own timerfd.
//
// One-shot or periodic; start again to re-arm with new times, cancel to
// disarm. The callback runs from the loop; it may cancel, re-arm or destroy
// its own timer. A timer cancelled after it expired but before its callback
// ran is not called back.
//
// Thread-safety: single-threaded, like the loop it is on.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "mroute/runtime/loop/event_loop.h"

namespace Mroute::Loop {

class Timer {
 public:
  using Callback = std::function<void()>;
  using Duration = std::chrono::nanoseconds;

  // Throws Mroute::ErrnoException("timerfd_create", ...) when refused.
  Timer(EventLoop& loop, Callback cb);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Fires once after `delay` (a zero or negative delay fires at the next
  // wait). Replaces any earlier arming.
  void startOneShot(Duration delay);
  // Fires every `period`, first after `period`. Replaces any earlier arming.
  // REQUIRES: period > 0.
  void startPeriodic(Duration period);
  void cancel();

  bool armed() const { return state_->armed; }
  // Expirations folded into the last callback (above 1 when the loop was
  // late for a periodic timer).
  uint64_t lastExpirations() const { return state_->lastExpirations; }

 private:
  struct State {
    Sys* sys = nullptr;
    int fd = -1;
    bool armed = false;
    bool periodic = false;
    uint64_t lastExpirations = 0;
    Callback cb;
  };
  static void expire(const std::shared_ptr<State>& state);
  void set(Duration value, Duration interval);

  std::shared_ptr<State> state_;
  std::unique_ptr<FdWatch> watch_;
};

}  // namespace Mroute::Loop
