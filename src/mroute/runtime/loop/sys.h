// The system calls of the event loop, behind one seam.
//
// EventLoop, Timer and DirWatch reach epoll, timerfd, inotify, read and close
// only through a Sys, so that tests can inject faults (an interrupted wait, a
// refused registration) without touching the kernel. Sys::real() forwards to
// the C library; every function returns what the C call returns and leaves
// errno as the call left it.
//
// Thread-safety: the real Sys has no state and may be shared by any number of
// loops and threads.
#pragma once

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace Mroute::Loop {

class Sys {
 public:
  virtual ~Sys() = default;

  // epoll_create1(EPOLL_CLOEXEC).
  virtual int epollCreate();
  virtual int epollCtl(int epfd, int op, int fd, epoll_event* event);
  virtual int epollWait(int epfd, epoll_event* events, int maxEvents, int timeoutMs);
  // timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC).
  virtual int timerCreate();
  virtual int timerSet(int fd, const itimerspec& when);
  // inotify_init1(IN_NONBLOCK | IN_CLOEXEC).
  virtual int inotifyCreate();
  virtual int inotifyAddWatch(int fd, const char* path, uint32_t mask);
  virtual ssize_t read(int fd, void* buf, size_t size);
  virtual int close(int fd);

  // The process-wide seam that calls the C library.
  static Sys& real();
};

}  // namespace Mroute::Loop
