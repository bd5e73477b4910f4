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

// One event on a front in a given state: what notify() asks of the front
// (the fake attaches whenever files exist) and whether it leaves the remount
// timer armed. Every event is counted, ignored ones too.
TEST_F(ReaderMounterTest, EventAttachesDetachesOrIsIgnoredByTheFrontsState) {
  const struct {
    const char* what;
    BrumeType kind;
    uint32_t id;
    int state;
    uint32_t fileId;
    bool paused;  // advertised but not notifying
    const char* event;
    std::vector<std::string> calls;
    bool timer;
  } rows[] = {
      {"no writer yet", BrumeType::reader, 0, 0, 0, false, "slots", {}, true},
      {"a corruption report", BrumeType::reader, 0, 0, 7, false, "corruption-detected", {}, false},
      {"a paused front", BrumeType::reader, 0, 0, 7, true, "ember", {}, false},
      {"the first files", BrumeType::reader, 0, 0, 7, false, "ember", {"attach"}, false},
      {"a restarted writer", BrumeType::reader, 7, 1, 8, false, "ember", {"detach", "attach"}, false},
      {"the same incarnation", BrumeType::reader, 8, 1, 8, false, "ember", {}, false},
      {"files gone", BrumeType::reader, 8, 1, 0, false, "ember", {"detach", "attach"}, true},
      {"an unsynchronised shadow", BrumeType::shadow, 7, 1, 7, false, "slots", {"attach"}, false},
      {"a synchronised shadow", BrumeType::shadow, 7, 2, 7, false, "slots", {}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    FakeFront front;
    front.kind = row.kind;
    front.id = row.id;
    front.state = row.state;
    front.fileId = row.fileId;
    front.isAdvertised = row.paused;
    front.isNotifying = !row.paused;
    ReaderMounter mounter{front, loop_, std::chrono::hours(1), &captureLog};
    mounter.notify(row.event);
    EXPECT_EQ(front.calls, row.calls);
    EXPECT_EQ(mounter.hasTimer(), row.timer);
    EXPECT_EQ(mounter.timerArmed(), row.timer);
    EXPECT_EQ(mounter.events(), 1u);
  }
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "ReaderMounter::notify() ignoring notify, advertised:1 notifying:0"));
}

TEST_F(ReaderMounterTest, NotifyTracesTheEventAndTheTimer) {
  mounter_.notify("slots");
  EXPECT_EQ(sink_.texts("Mroute::Brume"),
            (std::vector<std::string>{
                "ReaderMounter::notify() routing/t eventName: slots",
                "BrumeMap::ReaderMounter::notify() eventName: slots emberId: 0 brumeMap.emberId: 0 mode: reader",
                "BrumeMap::ReaderMounter::notify() arming remount timer"}));
  EXPECT_EQ(sink_.lines()[1].level, 2);
  EXPECT_EQ(sink_.lines()[0].level, 5);
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
