// The generated NotifieeConst / Notifiee classes over the notifiee templates.
#include <gtest/gtest.h>

#include "recorder.h"

namespace {

using EntityTest::Log;
using EntityTest::Recorder;
using Sample::Holder;

TEST(NotifieeTest, AllNotifieesHearInAttachOrder) {
  Kiv::Ptr<Holder> h = Sample::HolderIs("h");
  Log log;
  Recorder a(&log, "a:"), b(&log, "b:");
  a.notifierIs(h);
  b.notifierIs(h);
  h->flagIs(false);
  h->itemIs(4, "x");
  EXPECT_EQ(log, (Log{"a:flag", "b:flag", "a:item 4", "b:item 4"}));
}

TEST(NotifieeTest, NotifierIsMovesBetweenEntitiesAndNullDetaches) {
  Kiv::Ptr<Holder> h1 = Sample::HolderIs("h1"), h2 = Sample::HolderIs("h2");
  Log log;
  Recorder r(&log);
  r.notifierIs(h1);
  r.notifierIs(h2);
  EXPECT_TRUE(h1->notifieeList().empty());
  EXPECT_EQ(r.notifier(), h2);
  h1->flagIs(false);
  h2->flagIs(false);
  EXPECT_EQ(log, (Log{"flag"}));
  r.notifierIs(nullptr);
  EXPECT_TRUE(h2->notifieeList().empty());
  h2->flagIs(true);
  EXPECT_EQ(log.size(), 1u);
  {
    Recorder dead(&log);
    dead.notifierIs(h2);
  }
  EXPECT_TRUE(h2->notifieeList().empty()) << "the destructor detaches";
  h2->flagIs(false);  // must not reach the dead notifiee
  EXPECT_EQ(log.size(), 1u);
}

TEST(NotifieeTest, ConstNotifieeWatchesConstEntity) {
  Kiv::Ptr<const Holder> c = Sample::HolderIs("c");
  struct Watcher : Holder::NotifieeConst {
    void onMode() override { ++calls; }
    int calls = 0;
  } w;
  w.notifierIs(c);
  const_cast<Holder*>(c.ptr())->modeIs(Holder::Mode::off);
  EXPECT_EQ(w.calls, 1);
  EXPECT_EQ(w.notifier(), c);
}

}  // namespace
