// Keyed collections and child-entity collections of a generated entity.
#include <gtest/gtest.h>

#include "recorder.h"

namespace {

using EntityTest::Log;
using Sample::Holder;

using CollectionTest = EntityTest::HolderTest;

// Same value, absent delete and xDelAll are in the conformance suite. An
// absent key reads the default; new always notifies; xNotify asks readers to
// look again; a delete by iterator notifies.
TEST_F(CollectionTest, AbsentKeysNewNotifyAndDelByIterator) {
  holder->newItem(1, "a");
  holder->newItem(1, "a");
  holder->itemNotify(7);
  EXPECT_EQ(log, (Log{"item 1", "item 1", "item 7"}));
  EXPECT_EQ(holder->item().count(7), 0u);
  EXPECT_EQ(holder->item(2), "");  // absent: the value type's default
  log.clear();
  holder->itemDel(holder->item().find(1));
  EXPECT_EQ(log, (Log{"item 1"}));
  EXPECT_TRUE(holder->item().empty());
}

// The member is gone by the time notifiees hear of its removal.
TEST_F(CollectionTest, DelAllNotifiesEachMemberAfterRemoval) {
  for (uint32_t k : {1u, 2u, 3u}) holder->itemIs(k, "v");
  struct Checker : Holder::NotifieeConst {
    void onItem(const uint32_t& k) override {
      EXPECT_EQ(notifier()->item().count(k), 0u);
      ++calls;
    }
    using Holder::NotifieeConst::onItem;
    int calls = 0;
  } checker;
  checker.notifierIs(holder);
  holder->itemDelAll();
  EXPECT_EQ(checker.calls, 3);
  EXPECT_TRUE(holder->item().empty());
}

// A notifiee that deletes other members from inside the walk must not break it.
TEST_F(CollectionTest, DelAllSurvivesCallbacksThatDelete) {
  for (uint32_t k = 0; k < 10; ++k) holder->itemIs(k, "v");
  struct Greedy : Holder::Notifiee {
    void onItem(const uint32_t&) override {
      if (!notifier()->item().empty()) notifier()->itemDel(notifier()->item().begin()->first);
    }
    using Holder::NotifieeConst::onItem;
  } greedy;
  greedy.notifierIs(holder);
  holder->itemDelAll();
  EXPECT_TRUE(holder->item().empty());
}

TEST_F(CollectionTest, OrderedCollectionIteratesInKeyOrder) {
  for (const char* k : {"m", "c", "x", "a"}) holder->sortedIs(k, true);
  std::string keys;
  for (const auto& [k, v] : holder->sorted()) keys += k.stdString();
  EXPECT_EQ(keys, "acmx");
  holder->sortedDelAll();
  EXPECT_EQ(log.back(), "sorted x");  // removed front to back
}

TEST_F(CollectionTest, ChildrenAreOwnedAndParented) {
  ASSERT_TRUE(holder->leaf("first"));  // made by doInit
  EXPECT_EQ(holder->leaf("first")->parent(), holder.ptr());
  Kiv::Ptr<Sample::Leaf> a = holder->leafIs("a");
  EXPECT_EQ(holder->leafIs("a"), a);  // existing child, no notification
  EXPECT_EQ(log, (Log{"leaf a"}));
  EXPECT_EQ(a->name(), "a");
  EXPECT_EQ(a->weight(), 7u);
  EXPECT_EQ(a->references(), 2u);  // the collection and `a`
  holder->leafDel("a");
  EXPECT_EQ(a->parent(), nullptr);
  EXPECT_EQ(a->references(), 1u);
  EXPECT_FALSE(holder->leaf("a"));
  holder->leafDel(holder->leaf().find("first"));
  EXPECT_TRUE(holder->leaf().empty());
  EXPECT_EQ(log, (Log{"leaf a", "leaf a", "leaf first"}));
}

// A new child replaces a member of the same name; a child that outlives its
// parent loses it.
TEST_F(CollectionTest, NewChildReplacesItsNamesakeAndOutlivesItsParent) {
  Kiv::Ptr<Sample::Leaf> old = holder->leaf("first");
  Kiv::Ptr<Sample::Leaf> fresh = holder->newLeaf("first");
  EXPECT_NE(old, fresh);
  EXPECT_EQ(old->parent(), nullptr);
  EXPECT_EQ(holder->leaf("first"), fresh);
  EXPECT_EQ(log, (Log{"leaf first"}));
  rec.notifierIs(nullptr);
  holder = nullptr;
  EXPECT_EQ(fresh->parent(), nullptr);
}

}  // namespace
