// ReaderMounter's decisions over a fake front: which events attach, detach or
// are ignored, the remount timer, its traces and the "CANARY: " line.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/reader_mounter.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace {

using Brume::BrumeType;
using Brume::ReaderMounter;

class FakeFront : public ReaderMounter::Front {
 public:
  BrumeType kind = BrumeType::reader;
  uint32_t id = 0;
  int state = 0;
  bool isAdvertised = false;
  bool isNotifying = true;
  uint32_t fileId = 0;
  bool attachWorks = true;  // attach succeeds when the file id is not 0
  std::vector<std::string> calls;
  std::string name = "routing/t";
  std::string path = "/dev/shm/mroute/routing/t";

  BrumeType mode() const override { return kind; }
  uint32_t emberId() const override { return id; }
  int attachState() const override { return state; }
  bool advertised() const override { return isAdvertised; }
  bool notifying() const override { return isNotifying; }
  uint32_t currentEmberId() const override { return fileId; }
  void attach() override {
    calls.push_back("attach");
    if (attachWorks && fileId != 0) {
      id = fileId;
      state = kind == BrumeType::reader ? 1 : 2;
    }
  }
  void detach() override {
    calls.push_back("detach");
    id = 0;
    state = 0;
  }
  const std::string& tableName() const override { return name; }
  const std::string& tablePath() const override { return path; }
};

std::vector<std::string> gSyslog;
void captureLog(const std::string& line) { gSyslog.push_back(line); }

class ReaderMounterTest : public ::testing::Test {
 protected:
  void SetUp() override { gSyslog.clear(); }
  Mroute::Trace::CaptureSink sink_{"Mroute::Brume/0-9"};
  Mroute::Loop::EventLoop loop_;
  FakeFront front_;
  ReaderMounter mounter_{front_, loop_, std::chrono::hours(1), &captureLog};
};

TEST_F(ReaderMounterTest, NoWriterYetArmsTheTimerAndTraces) {
  mounter_.notify("slots");
  EXPECT_EQ(mounter_.events(), 1u);
  EXPECT_TRUE(front_.calls.empty());  // 0 == 0: nothing to attach to
  EXPECT_TRUE(mounter_.timerArmed());
  EXPECT_EQ(sink_.texts("Mroute::Brume"),
            (std::vector<std::string>{
                "ReaderMounter::notify() routing/t eventName: slots",
                "BrumeMap::ReaderMounter::notify() eventName: slots emberId: 0 brumeMap.emberId: 0 mode: reader",
                "BrumeMap::ReaderMounter::notify() arming remount timer"}));
  EXPECT_EQ(sink_.lines()[1].level, 2);
  EXPECT_EQ(sink_.lines()[0].level, 5);
}

TEST_F(ReaderMounterTest, CorruptionEventAndPausedFrontChangeNothing) {
  front_.fileId = 7;
  mounter_.notify("corruption-detected");
  EXPECT_TRUE(front_.calls.empty());
  EXPECT_FALSE(mounter_.hasTimer());
  front_.isAdvertised = true;
  front_.isNotifying = false;
  mounter_.notify("ember");
  EXPECT_TRUE(front_.calls.empty());
  EXPECT_EQ(mounter_.events(), 2u);
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "ReaderMounter::notify() ignoring notify, advertised:1 notifying:0"));
}

TEST_F(ReaderMounterTest, NewIncarnationOrMissingFilesDetachAndAttachOnce) {
  front_.fileId = 7;
  mounter_.notify("ember");
  EXPECT_EQ(front_.calls, std::vector<std::string>{"attach"});  // id 0 before: nothing to detach
  EXPECT_EQ(front_.id, 7u);
  front_.calls.clear();
  front_.fileId = 8;  // the writer restarted
  mounter_.notify("ember");
  EXPECT_EQ(front_.calls, (std::vector<std::string>{"detach", "attach"}));
  front_.calls.clear();
  mounter_.notify("ember");  // same identifier again
  EXPECT_TRUE(front_.calls.empty());
  EXPECT_FALSE(mounter_.timerArmed());
  // The files are gone: detach and retry on the timer.
  front_.fileId = 0;
  mounter_.notify("ember");
  EXPECT_EQ(front_.calls, (std::vector<std::string>{"detach", "attach"}));
  EXPECT_TRUE(mounter_.timerArmed());
}

TEST_F(ReaderMounterTest, UnsynchronisedShadowAttachesAgain) {
  front_.kind = BrumeType::shadow;
  front_.id = 7;
  front_.fileId = 7;
  front_.state = 1;  // reader attached, copy not synchronised
  mounter_.notify("slots");
  EXPECT_EQ(front_.calls, std::vector<std::string>{"attach"});
  EXPECT_EQ(front_.state, 2);
  front_.calls.clear();
  mounter_.notify("slots");
  EXPECT_TRUE(front_.calls.empty());
}

TEST_F(ReaderMounterTest, TimeoutRetriesThenReportsCanary) {
  front_.kind = BrumeType::keyshadow;
  mounter_.notify("mount");
  mounter_.timeout();
  mounter_.timeout();
  EXPECT_EQ(mounter_.timeouts(), 2u);
  EXPECT_TRUE(mounter_.timerArmed());
  const std::string retry =
      "ReaderMounter::timeout() start retrying to mount /dev/shm/mroute/routing/t. This message can be safely "
      "ignored if the writer is not running.";
  EXPECT_EQ(std::ranges::count(sink_.texts("Mroute::Brume"), retry), 1);
  EXPECT_TRUE(gSyslog.empty());

  front_.fileId = 9;  // the writer formatted the table
  mounter_.timeout();
  EXPECT_EQ(front_.state, 2);
  EXPECT_FALSE(mounter_.timerArmed());
  EXPECT_EQ(mounter_.timeouts(), 0u);
  const std::string canary = "CANARY: routing/t ReaderMounter::timeout() remounted after 3 timeouts";
  EXPECT_TRUE(sink_.contains("Mroute::Brume", canary));
  ASSERT_EQ(gSyslog.size(), 1u);
  EXPECT_EQ(gSyslog[0], canary);
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "BrumeMap::ReaderMounter::notify() eventName: remount timeout emberId: 9 "
                                              "brumeMap.emberId: 0 mode: keyshadow"));
}

TEST_F(ReaderMounterTest, TimerFiresOnTheLoop) {
  ReaderMounter fast(front_, loop_, std::chrono::milliseconds(5), &captureLog);
  fast.notify("mount");
  EXPECT_TRUE(Testing::runUntil(loop_, [&] { return fast.timeouts() >= 2; }));
  front_.fileId = 3;
  EXPECT_TRUE(Testing::runUntil(loop_, [&] { return front_.state != 0; }));
  EXPECT_EQ(front_.state, 1);
  ASSERT_EQ(gSyslog.size(), 1u);
  EXPECT_EQ(gSyslog[0].rfind("CANARY: routing/t ReaderMounter::timeout() remounted after ", 0), 0u);
}

TEST_F(ReaderMounterTest, FullyAttachedOfAWriterIsAnAssertion) {
  front_.kind = BrumeType::writer;
  EXPECT_ASSERTION(mounter_.fullyAttached(), "brumeMap.md_.mode() == reader()");
}

}  // namespace
