// The generated NotifieeConst / Notifiee classes over the notifiee templates;
// list order and detaching mid-delivery are in kiv/entity_test.cc, attaching
// and detaching on every type in the conformance suite.
#include <gtest/gtest.h>

#include "recorder.h"

namespace {

using EntityTest::Log;
using EntityTest::Recorder;
using Sample::Holder;

TEST(NotifieeTest, NotifierIsMovesBetweenEntitiesAndTheDestructorDetaches) {
  Kiv::Ptr<Holder> h1 = Sample::HolderIs("h1"), h2 = Sample::HolderIs("h2");
  Log log;
  Recorder r(&log);
  r.notifierIs(h1);
  r.notifierIs(h2);
  EXPECT_TRUE(h1->notifieeList().empty());
  h1->flagIs(false);
  h2->flagIs(false);
  EXPECT_EQ(log, (Log{"flag"}));
  {
    Recorder dead(&log);
    dead.notifierIs(h2);
  }
  h2->flagIs(true);  // must not reach the dead notifiee
  EXPECT_EQ(log, (Log{"flag", "flag"}));
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
