// Scalar and constant attributes, reset/isDefault, ids, mount paths,
// registration and the generated notifiee classes of a generated entity;
// counters and the shape shared by every type are in the conformance suite,
// list order and detaching mid-delivery in kiv/entity_test.cc.
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

TEST_F(AttributeTest, AttributeIdsCountFrom258IncludingConstantsAndMountPathsByFamily) {
  EXPECT_EQ(Holder::kFlagId, 258);
  EXPECT_EQ(Holder::kFlagDefaultId, 260);
  EXPECT_EQ(Holder::kSpanId, 265);
  EXPECT_EQ(Holder::mountPath(Orvet::ipv4()), "sample/holder");
  EXPECT_EQ(Holder::mountPath(Orvet::ipv6()), "sample6/holder");
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

TEST(TypeRegistrationTest, EveryTypeIsRegisteredAtLoadInUnitOrder) {
  std::vector<std::string> names;
  for (const Kiv::TypeRecord* r : Kiv::registeredTypes()) {
    if (r->name.starts_with("Sample::")) names.push_back(r->name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Sample::Volume", "Sample::Span", "Sample::Marks", "Sample::Octet",
                                             "Sample::Holder::Lone", "Sample::Slot", "Sample::Weight",
                                             "Sample::Leaf", "Sample::Holder", "Sample::Holder::Mode",
                                             "Sample::RackSlot", "Sample::Pair", "Sample::Nothing", "Sample::Entry",
                                             "Sample::Branch", "Sample::Tree"}));
  // Entities list their attributes with ids, kinds and defaults.
  const Kiv::TypeRecord* tree = Kiv::findType("Sample::Tree");
  ASSERT_NE(tree, nullptr);
  ASSERT_EQ(tree->attributes.size(), 11u);
  const Kiv::AttrRecord& entries = tree->attributes.back();
  EXPECT_EQ(entries.id, 274);
  EXPECT_EQ(entries.kind, "table");
  EXPECT_EQ(entries.capacity, 16u);
  EXPECT_EQ(entries.operations, "entriesIs entriesDel entriesNotify");
  EXPECT_EQ(tree->attributes[4].defaultText, "224.0.0.0/4");
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
