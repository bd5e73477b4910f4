#include "mroute/runtime/loop/event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "mroute/runtime/error.h"
#include "testing/expect_assert.h"

namespace Mroute::Loop {
namespace {

using std::chrono::milliseconds;

struct Pipe {
  int rd = -1, wr = -1;
  Pipe() {
    int fds[2];
    EXPECT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    rd = fds[0];
    wr = fds[1];
  }
  ~Pipe() {
    if (rd >= 0) ::close(rd);
    if (wr >= 0) ::close(wr);
  }
  void put(char c = 'x') { ASSERT_EQ(::write(wr, &c, 1), 1); }
  int take() {
    char c;
    return static_cast<int>(::read(rd, &c, 1));
  }
};

class EventLoopTest : public testing::Test {
 protected:
  EventLoop loop;
  Pipe p;
};

TEST_F(EventLoopTest, ReadableAndWritableCallbacksFollowInterest) {
  FdWatch r(loop, p.rd), w(loop, p.wr);
  int reads = 0, writes = 0;
  r.onReadableIs([&] {
    ++reads;
    p.take();
  });
  w.onWritableIs([&] { ++writes; });
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);  // the empty pipe is only writable
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(reads, 0);

  w.interestIs(false, false);
  p.put();
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_EQ(reads, 1);
  EXPECT_EQ(writes, 1);
  EXPECT_FALSE(w.writable());

  w.interestIs(false, true);  // the callback kept its place
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_EQ(writes, 2);
  w.onWritableIs(nullptr);
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 0);
}

TEST_F(EventLoopTest, WatchDestroyedInsideItsOwnCallback) {
  auto w = std::make_unique<FdWatch>(loop, p.rd);
  bool ranToEnd = false;
  w->onReadableIs([&] {
    w.reset();  // destroys the std::function that is running
    ranToEnd = true;
  });
  p.put();
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_TRUE(ranToEnd);
  EXPECT_EQ(loop.watchCount(), 0u);
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 0);
}

TEST_F(EventLoopTest, RemovedInTheSameBatchIsNotCalled) {
  // Both pipes are ready in one wait; whichever runs first removes the other.
  Pipe& a = p;
  Pipe b;
  FdWatch wa(loop, a.rd), wb(loop, b.rd);
  int calls = 0;
  wa.onReadableIs([&] {
    ++calls;
    wb.remove();
  });
  wb.onReadableIs([&] {
    ++calls;
    wa.remove();
  });
  a.put();
  b.put();
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(loop.watchCount(), 1u);
  EXPECT_FALSE(wa.watching() && wb.watching());
}

TEST_F(EventLoopTest, RemovalInsideReadableSkipsWritable) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
  FdWatch w(loop, fds[0]);
  int writes = 0;
  w.onReadableIs([&] { w.remove(); });
  w.onWritableIs([&] { ++writes; });
  ASSERT_EQ(::write(fds[1], "x", 1), 1);
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_EQ(writes, 0);
  w.onWritableIs([&] { ++writes; });  // ignored once removed
  EXPECT_FALSE(w.writable());
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST_F(EventLoopTest, RunUntilStop) {
  FdWatch r(loop, p.rd);
  int seen = 0;
  r.onReadableIs([&] {
    p.take();
    if (++seen < 3)
      p.put();
    else
      loop.stop();
  });
  p.put();
  loop.run();
  EXPECT_EQ(seen, 3);
  EXPECT_TRUE(loop.stopped());
}

// Faults injected through the seam.
class FaultySys : public Sys {
 public:
  int failCtlWith = 0;
  int interruptWaits = 0;
  int epollCtl(int epfd, int op, int fd, epoll_event* ev) override {
    if (failCtlWith != 0) {
      errno = failCtlWith;
      return -1;
    }
    return Sys::epollCtl(epfd, op, fd, ev);
  }
  int epollWait(int epfd, epoll_event* evs, int max, int timeoutMs) override {
    if (interruptWaits > 0) {
      --interruptWaits;
      errno = EINTR;
      return -1;
    }
    return Sys::epollWait(epfd, evs, max, timeoutMs);
  }
};

TEST(EventLoopFaultTest, InterruptedWaitIsNotAnError) {
  FaultySys sys;
  EventLoop loop(sys);
  Pipe p;
  FdWatch r(loop, p.rd);
  int reads = 0;
  r.onReadableIs([&] {
    ++reads;
    p.take();
  });
  p.put();
  sys.interruptWaits = 1;
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 0);
  EXPECT_EQ(loop.runOnce(milliseconds(0)), 1);
  EXPECT_EQ(reads, 1);
}

TEST(EventLoopFaultTest, RefusedRegistrationThrowsWithContext) {
  FaultySys sys;
  EventLoop loop(sys);
  Pipe p;
  sys.failCtlWith = ENOMEM;
  EXPECT_THROW_TEXT(FdWatch(loop, p.rd), ErrnoException, "epoll_ctl(ADD): Cannot allocate memory");
  EXPECT_EQ(loop.watchCount(), 0u);
  sys.failCtlWith = 0;
  FdWatch w(loop, p.rd);
  sys.failCtlWith = ENOSPC;
  EXPECT_THROW_TEXT(w.onReadableIs([] {}), ErrnoException, "epoll_ctl(MOD): No space left on device");
  EXPECT_FALSE(w.readable());
}

}  // namespace
}  // namespace Mroute::Loop
