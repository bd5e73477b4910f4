#include "mroute/runtime/loop/timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "testing/shm_root_scope.h"

namespace Mroute::Loop {
namespace {

using std::chrono::milliseconds;

using Testing::runUntil;

class TimerTest : public testing::Test {
 protected:
  EventLoop loop;
  int fired = 0;
};

TEST_F(TimerTest, OneShotFiresOnceAndDisarms) {
  Timer t(loop, [&] { ++fired; });
  EXPECT_FALSE(t.armed());
  t.startOneShot(milliseconds(5));
  EXPECT_TRUE(t.armed());
  ASSERT_TRUE(runUntil(loop, [&] { return fired == 1; }));
  EXPECT_FALSE(t.armed());
  loop.runOnce(milliseconds(30));
  EXPECT_EQ(fired, 1);
}

// A zero it_value disarms a timerfd: a zero or negative delay must still fire,
// at the very next wait, or a retry scheduled "now" would never happen.
TEST_F(TimerTest, ZeroOrNegativeDelayFiresAtTheNextWait) {
  for (auto delay : {milliseconds(0), milliseconds(-5)}) {
    Timer t(loop, [&] { ++fired; });
    t.startOneShot(delay);
    EXPECT_TRUE(t.armed());
    loop.runOnce(milliseconds(500));
    EXPECT_EQ(fired, 1) << delay.count();
    EXPECT_FALSE(t.armed());
    fired = 0;
  }
}

TEST_F(TimerTest, PeriodicRepeatsUntilCancelledFromItsCallback) {
  std::unique_ptr<Timer> t;
  t = std::make_unique<Timer>(loop, [&] {
    if (++fired == 3) t->cancel();
  });
  t->startPeriodic(milliseconds(3));
  ASSERT_TRUE(runUntil(loop, [&] { return fired == 3; }));
  EXPECT_FALSE(t->armed());
  loop.runOnce(milliseconds(20));
  EXPECT_EQ(fired, 3);
}

TEST_F(TimerTest, CancelAfterExpiryBeforeDispatchSuppressesCallback) {
  Timer t(loop, [&] { ++fired; });
  t.startOneShot(milliseconds(1));
  ::usleep(5'000);  // expired; readiness pending in the kernel
  t.cancel();
  loop.runOnce(milliseconds(10));
  EXPECT_EQ(fired, 0);
}

TEST_F(TimerTest, RearmPushesExpiryBack) {
  Timer t(loop, [&] { ++fired; });
  t.startOneShot(milliseconds(5));
  t.startOneShot(milliseconds(300));
  loop.runOnce(milliseconds(40));
  EXPECT_EQ(fired, 0);
  EXPECT_TRUE(t.armed());
  t.startOneShot(milliseconds(1));  // and forward again
  EXPECT_TRUE(runUntil(loop, [&] { return fired == 1; }));
}

TEST_F(TimerTest, DestroyedInsideItsCallback) {
  std::unique_ptr<Timer> t;
  t = std::make_unique<Timer>(loop, [&] {
    ++fired;
    t.reset();
  });
  t->startPeriodic(milliseconds(2));
  ASSERT_TRUE(runUntil(loop, [&] { return t == nullptr; }));
  loop.runOnce(milliseconds(10));
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(loop.watchCount(), 0u);
}

}  // namespace
}  // namespace Mroute::Loop
