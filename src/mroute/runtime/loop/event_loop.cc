#include "mroute/runtime/loop/event_loop.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "mroute/runtime/error.h"

namespace Mroute::Loop {
namespace {

constexpr int kMaxEvents = 64;

}  // namespace

EventLoop::EventLoop(Sys& sys) : sys_(sys) {
  epfd_ = sys_.epollCreate();
  if (epfd_ < 0) throwErrno("epoll_create1");
}

EventLoop::~EventLoop() {
  for (auto& [token, reg] : registrations_) reg->loop = nullptr;
  registrations_.clear();
  sys_.close(epfd_);
}

std::shared_ptr<internal::Registration> EventLoop::add(int fd) {
  auto reg = std::make_shared<internal::Registration>();
  reg->loop = this;
  reg->fd = fd;
  reg->token = nextToken_++;
  epoll_event ev{};
  ev.events = 0;
  ev.data.u64 = reg->token;
  if (sys_.epollCtl(epfd_, EPOLL_CTL_ADD, fd, &ev) < 0) throwErrno("epoll_ctl(ADD)");
  registrations_.emplace(reg->token, reg);
  return reg;
}

void EventLoop::modify(internal::Registration& reg, uint32_t events) {
  if (events == reg.events) return;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = reg.token;
  if (sys_.epollCtl(epfd_, EPOLL_CTL_MOD, reg.fd, &ev) < 0) throwErrno("epoll_ctl(MOD)");
  reg.events = events;
}

void EventLoop::remove(internal::Registration& reg) {
  // The descriptor may already be closed by its owner; the kernel then has
  // dropped it from the set and EBADF/ENOENT are expected, not faults.
  sys_.epollCtl(epfd_, EPOLL_CTL_DEL, reg.fd, nullptr);
  reg.loop = nullptr;
  reg.events = 0;
  registrations_.erase(reg.token);
}

int EventLoop::runOnce(std::chrono::milliseconds timeout) {
  epoll_event events[kMaxEvents];
  int timeoutMs = timeout.count() < 0 ? -1 : static_cast<int>(timeout.count());
  int n = sys_.epollWait(epfd_, events, kMaxEvents, timeoutMs);
  if (n < 0) {
    if (errno == EINTR) return 0;
    throwErrno("epoll_wait");
  }
  int ran = 0;
  for (int i = 0; i < n; ++i) {
    // epoll_event is packed: copy the token out rather than bind a reference
    // to a misaligned field.
    const uint64_t token = events[i].data.u64;
    auto it = registrations_.find(token);
    if (it == registrations_.end()) continue;  // removed by an earlier callback of this batch
    // Holding the registration keeps the callbacks alive even if the watcher
    // is destroyed while one of them runs.
    std::shared_ptr<internal::Registration> reg = it->second;
    uint32_t ready = events[i].events;
    // Errors and hang-ups are delivered to whichever side is watched, whose
    // next read or write then reports the condition.
    bool failed = ready & (EPOLLERR | EPOLLHUP);
    if ((ready & EPOLLIN || failed) && reg->events & EPOLLIN && reg->onReadable) {
      auto cb = reg->onReadable;
      (*cb)();
      ++ran;
    }
    if ((ready & EPOLLOUT || failed) && reg->loop && reg->events & EPOLLOUT && reg->onWritable) {
      auto cb = reg->onWritable;
      (*cb)();
      ++ran;
    }
  }
  return ran;
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) runOnce(std::chrono::milliseconds(-1));
}

FdWatch::FdWatch(EventLoop& loop, int fd) : reg_(loop.add(fd)) {}

FdWatch::~FdWatch() { remove(); }

void FdWatch::onReadableIs(Callback cb) {
  if (!reg_->loop) return;
  reg_->onReadable = cb ? std::make_shared<const Callback>(std::move(cb)) : nullptr;
  interestIs(reg_->onReadable != nullptr, writable());
}

void FdWatch::onWritableIs(Callback cb) {
  if (!reg_->loop) return;
  reg_->onWritable = cb ? std::make_shared<const Callback>(std::move(cb)) : nullptr;
  interestIs(readable(), reg_->onWritable != nullptr);
}

void FdWatch::interestIs(bool readable, bool writable) {
  if (!reg_->loop) return;
  uint32_t events =
      (readable && reg_->onReadable ? EPOLLIN : 0u) | (writable && reg_->onWritable ? EPOLLOUT : 0u);
  reg_->loop->modify(*reg_, events);
}

void FdWatch::remove() {
  if (reg_->loop) reg_->loop->remove(*reg_);
}

}  // namespace Mroute::Loop
