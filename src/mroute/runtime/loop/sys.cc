#include "mroute/runtime/loop/sys.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <ctime>

namespace Mroute::Loop {

int Sys::epollCreate() { return ::epoll_create1(EPOLL_CLOEXEC); }

int Sys::epollCtl(int epfd, int op, int fd, epoll_event* event) { return ::epoll_ctl(epfd, op, fd, event); }

int Sys::epollWait(int epfd, epoll_event* events, int maxEvents, int timeoutMs) {
  return ::epoll_wait(epfd, events, maxEvents, timeoutMs);
}

int Sys::timerCreate() { return ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC); }

int Sys::timerSet(int fd, const itimerspec& when) { return ::timerfd_settime(fd, 0, &when, nullptr); }

int Sys::inotifyCreate() { return ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC); }

int Sys::inotifyAddWatch(int fd, const char* path, uint32_t mask) {
  return ::inotify_add_watch(fd, path, mask);
}

ssize_t Sys::read(int fd, void* buf, size_t size) { return ::read(fd, buf, size); }

int Sys::close(int fd) { return ::close(fd); }

Sys& Sys::real() {
  static Sys sys;
  return sys;
}

}  // namespace Mroute::Loop
