// What reset covers, the id a notifiee hears and moving a notifiee between
// entities; ids, mount paths and registration records are pinned by the
// golden files, counters and the shape shared by every type are in the
// conformance suite, list order and detaching mid-delivery in kiv/entity_test.cc.
#include <gtest/gtest.h>

#include "recorder.h"

namespace {

using EntityTest::Log;
using EntityTest::Recorder;
using Sample::Holder;

using AttributeTest = EntityTest::HolderTest;

// reset() covers what the description lists (flag, mode, item), through the
// setters, and nothing else.
TEST_F(AttributeTest, ResetCoversOnlyListedMembers) {
  holder->flagIs(false);
  holder->itemIs(1, "one");
  holder->ticksIs(9);
  EXPECT_FALSE(holder->isDefault());
  log.clear();
  holder->reset();
  EXPECT_EQ(log, (Log{"flag", "item 1"}));
  EXPECT_TRUE(holder->isDefault());
  EXPECT_EQ(holder->ticks(), 9);
  EXPECT_EQ(holder->leaf().size(), 1u);
}

// A notifiee hears every notification by id before the attribute's own callback.
TEST_F(AttributeTest, NotificationCarriesTheAttributeId) {
  struct IdProbe : Holder::NotifieeConst {
    void onNotification(Kiv::AttrId id) override { seen.push_back("any " + std::to_string(id)); }
    void onTicks() override { seen.push_back("ticks " + std::to_string(notifier()->notifieeList().attrInDelivery())); }
    Log seen;
  } probe;
  probe.notifierIs(holder);
  holder->ticksInc(2);
  EXPECT_EQ(probe.seen, (Log{"any 261", "ticks 261"}));
}

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

}  // namespace
