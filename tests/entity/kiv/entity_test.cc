// The runtime's entity base and notifiee list, below the typed templates.
#include "mroute/entity/kiv/entity.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "testing/expect_assert.h"

namespace {

const Kiv::TypeRecord& plainType() {
  static const Kiv::TypeRecord& r = Kiv::registerType("KivTest::Plain", Kiv::TypeKind::entity);
  return r;
}

struct Plain : Kiv::Entity {
  explicit Plain(const Kiv::Name& n) : Kiv::Entity(n) {}
  const Kiv::TypeRecord& fwkType() const override { return plainType(); }
  void zeroReferencesIs(bool z) override {
    Kiv::Entity::zeroReferencesIs(z);
    if (z && sawZero) *sawZero = true;
  }
  bool* sawZero = nullptr;
};

struct Listener : Kiv::NotifieeBase {
  void attach(Plain* p) { notifierEntityIs(p); }
  Kiv::Entity* notifier() const { return notifierEntity(); }
  std::function<void()> onEvent;
};

void fire(Plain& p, Kiv::AttrId attr = 300) {
  p.notify<Listener>(attr, [&](Listener& l) {
    EXPECT_EQ(p.notifieeList().attrInDelivery(), attr);
    if (l.onEvent) l.onEvent();
  });
}

TEST(EntityTest, TypeRegistryFindsOnlyRegisteredNamesOnce) {
  Kiv::Ptr<Plain> p = new Plain("one");
  EXPECT_EQ(Kiv::findType("KivTest::Plain"), &p->fwkType());
  EXPECT_EQ(Kiv::findType("KivTest::Nothing"), nullptr);
  EXPECT_ASSERTION(Kiv::registerType("KivTest::Plain", Kiv::TypeKind::entity),
                   "r.byName.find(name) == r.byName.end()");
}

// Listeners that record their number in `order` when they hear `p`.
class NotifieeListTest : public testing::Test {
 protected:
  void listen(Listener& l, int i) {
    l.attach(p.ptr());
    l.onEvent = [this, i] { order.push_back(i); };
  }
  Kiv::Ptr<Plain> p = new Plain("p");
  std::vector<int> order;
};

// Delivery follows list order. A notifiee that detaches itself, or a later
// one, mid-delivery: the walk skips the removed ones and the list is whole
// again afterwards.
TEST_F(NotifieeListTest, DeliversInListOrderAndDetachDuringDeliverySkipsRemoved) {
  Listener a, b, c;
  listen(a, 1);
  listen(b, 2);
  listen(c, 3);
  fire(*p);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(p->notifieeList().attrInDelivery(), Kiv::kNoAttrId);
  order.clear();
  a.onEvent = [&] { order.push_back(1); a.attach(nullptr); c.isRegisteredNotifieeIs(false); };
  fire(*p);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(p->notifieeList().size(), 1u);
  EXPECT_EQ(a.notifier(), nullptr);
  EXPECT_EQ(c.notifier(), p.ptr());  // still attached, only unregistered
  c.isRegisteredNotifieeIs(true);
  order.clear();
  fire(*p);
  EXPECT_EQ(order, (std::vector<int>{2, 3}));
}

TEST_F(NotifieeListTest, AddedDuringDeliveryHearsNextTime) {
  Listener a, late;
  listen(a, 1);
  a.onEvent = [&] { order.push_back(1); listen(late, 2); };
  fire(*p);
  EXPECT_EQ(order, (std::vector<int>{1}));
  fire(*p);
  EXPECT_EQ(order, (std::vector<int>{1, 1, 2}));
}

// A notifiee keeps its notifier alive; registering without one asserts.
TEST(NotifieeLifetimeTest, NotifieeKeepsItsNotifierAliveAndNeedsOneToRegister) {
  bool sawZero = false;
  {
    Listener l;
    {
      Kiv::Ptr<Plain> p = new Plain("p");
      p->sawZero = &sawZero;
      l.attach(p.ptr());
    }
    EXPECT_FALSE(sawZero);
    EXPECT_EQ(l.notifier()->references(), 1u);
  }
  EXPECT_TRUE(sawZero);  // the destructor detached and dropped the reference
  Listener l;
  EXPECT_ASSERTION(l.isRegisteredNotifieeIs(true), "!on || notifier_");
}

}  // namespace
