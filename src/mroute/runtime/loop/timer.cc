#include "mroute/runtime/loop/timer.h"

#include <cerrno>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Mroute::Loop {
namespace {

timespec toTimespec(std::chrono::nanoseconds d) {
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(d.count() / 1'000'000'000);
  ts.tv_nsec = static_cast<long>(d.count() % 1'000'000'000);
  return ts;
}

}  // namespace

Timer::Timer(EventLoop& loop, Callback cb) : state_(std::make_shared<State>()) {
  state_->sys = &loop.sys();
  state_->cb = std::move(cb);
  state_->fd = state_->sys->timerCreate();
  if (state_->fd < 0) throwErrno("timerfd_create");
  try {
    watch_ = std::make_unique<FdWatch>(loop, state_->fd);
  } catch (...) {
    state_->sys->close(state_->fd);
    throw;
  }
  // The watch holds the state, not the timer: the timer may be destroyed by
  // its own callback.
  watch_->onReadableIs([state = state_] { expire(state); });
}

Timer::~Timer() {
  watch_.reset();
  state_->sys->close(state_->fd);
  state_->fd = -1;
  state_->armed = false;
}

void Timer::expire(const std::shared_ptr<State>& state) {
  uint64_t count = 0;
  // Nonblocking: a timer cancelled or re-armed after its readiness was
  // collected has nothing to read and is not called back.
  if (state->fd < 0 || state->sys->read(state->fd, &count, sizeof count) != sizeof count) return;
  state->lastExpirations = count;
  if (!state->periodic) state->armed = false;
  if (state->cb) state->cb();
}

void Timer::set(Duration value, Duration interval) {
  itimerspec when{};
  when.it_value = toTimespec(value);
  when.it_interval = toTimespec(interval);
  if (state_->sys->timerSet(state_->fd, when) < 0) throwErrno("timerfd_settime");
}

void Timer::startOneShot(Duration delay) {
  // A zero it_value would disarm; the shortest real delay fires at once.
  set(delay.count() > 0 ? delay : Duration(1), Duration::zero());
  state_->periodic = false;
  state_->armed = true;
}

void Timer::startPeriodic(Duration period) {
  MROUTE_ASSERT(period.count() > 0);
  set(period, period);
  state_->periodic = true;
  state_->armed = true;
}

void Timer::cancel() {
  set(Duration::zero(), Duration::zero());
  state_->armed = false;
  state_->periodic = false;
}

}  // namespace Mroute::Loop
