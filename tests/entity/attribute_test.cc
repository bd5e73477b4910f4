// Reset, notification ids, moving notifiees, attribute ids and the type registry, on the sample;
// the shape every type shares is the conformance suite's.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "mroute/entity/kiv/type_registry.h"
#include "mroute/entity/replication/attr_log_type.h"
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

// Ids are wire format for replication. An explicit id holds; every other
// id is the one before plus one (from 258, a derived entity's after its
// base's, value fields alike), and the attribute-log table serves each id
// under the name the registry gives it.
TEST(AttributeIdTest, ExplicitIdsHoldAndTheRestCountOn) {
  const std::map<std::string, int> explicitIds = {{"Sample::Tree::late", 270}};
  const std::pair<const Kiv::TypeRecord&, const Kiv::AttrLogType*> types[] = {
      {Sample::Leaf::type(), &Sample::Leaf::KivNboAttrLogSa::logType()},
      {Sample::Holder::type(), &Sample::Holder::KivNboAttrLogSa::logType()},
      {Sample::Branch::type(), &Sample::Branch::KivNboAttrLogSa::logType()},
      {Sample::Tree::type(), &Sample::Tree::KivNboAttrLogSa::logType()},
      {Sample::Span::type(), nullptr},
      {Sample::Pair::type(), nullptr},
      {Sample::Entry::type(), nullptr},
  };
  size_t explicitSeen = 0;
  for (const auto& [type, logType] : types) {
    if (logType != nullptr) {
      EXPECT_EQ(logType->attrs.size(), type.attributes.size()) << type.name;
    }
    int previous = Kiv::kFirstAttrId - 1;
    for (const Kiv::AttrRecord& a : type.attributes) {
      const std::string name = type.name + "::" + a.name;
      const auto given = explicitIds.find(name);
      explicitSeen += given != explicitIds.end();
      EXPECT_EQ(a.id, given != explicitIds.end() ? given->second : previous + 1) << name;
      previous = a.id;
      if (logType == nullptr) continue;
      const Kiv::AttrLogAttr* logged = logType->attr(a.id);
      ASSERT_NE(logged, nullptr) << name;
      EXPECT_EQ(logged->name, a.name) << name;
    }
  }
  EXPECT_EQ(explicitSeen, explicitIds.size());
  EXPECT_EQ(Sample::Tree::kLateId, 270);  // what notifiees hear
}

std::string describe(const Kiv::AttrRecord& a) {
  std::string text = a.kind + " " + a.type;
  if (!a.defaultText.empty()) text += " = " + a.defaultText;
  if (a.capacity != 0) text += " capacity " + std::to_string(a.capacity);
  if (!a.operations.empty()) text += ": " + a.operations;
  return text;
}

// What tools list of a type: each kind of member is recorded with its type,
// default, capacity and operations, and every type of the description is
// registered under its qualified name (a flag set under the one it asks
// for), enumerations with their literals, in declaration order.
TEST(TypeRegistryTest, RecordsDescribeEveryKindOfMemberInDeclarationOrder) {
  const std::tuple<const char*, const char*, const char*> records[] = {
      {"Sample::Holder", "flag", "attr bool = true"},
      {"Sample::Holder", "ticks", "counter uint8_t = 0"},
      {"Sample::Holder", "flagDefault", "const bool = true"},
      {"Sample::Holder", "item", "coll uint32_t -> Kiv::String: itemIs itemDel itemNotify"},
      {"Sample::Holder", "sorted", "coll Kiv::Name -> bool: sortedIs sortedDel sortedNotify"},
      {"Sample::Holder", "leaf", "child Kiv::Name -> Leaf: leafIs leafDel leafNotify"},
      {"Sample::Holder", "span", "attr Span"},
      {"Sample::Branch", "weight", "attr uint32_t = 7"},
      {"Sample::Branch", "length", "attr uint16_t = 3"},
      {"Sample::Tree", "height", "ctor uint32_t"},
      {"Sample::Tree", "root", "validref Leaf"},
      {"Sample::Tree", "shade", "ref Holder"},
      {"Sample::Tree", "forest", "backptr Holder"},
      {"Sample::Tree", "prefixGroup", "const Orvet::IpGenPrefix = 224.0.0.0/4"},
      {"Sample::Tree", "entry", "coll uint32_t -> Entry: entryIs entryDel entryNotify"},
      {"Sample::Tree", "byVlan", "child Bridging::VlanId -> Leaf: byVlanIs byVlanDel byVlanNotify"},
      {"Sample::Tree", "entries", "table uint32_t -> Entry capacity 16: entriesIs entriesDel entriesNotify"},
      {"Sample::Span", "volume", "field Volume = Volume::normal"},
      {"Sample::Pair", "low", "field uint8_t = 1"},
  };
  for (const auto& [type, member, expected] : records) {
    const Kiv::TypeRecord* t = Kiv::findType(type);
    ASSERT_NE(t, nullptr) << type;
    const auto found = std::find_if(t->attributes.begin(), t->attributes.end(),
                                    [&](const Kiv::AttrRecord& a) { return a.name == member; });
    ASSERT_NE(found, t->attributes.end()) << type << "::" << member;
    EXPECT_EQ(describe(*found), expected) << type << "::" << member;
  }

  std::vector<std::string> registered;
  for (const Kiv::TypeRecord* t : Kiv::registeredTypes()) {
    if (!t->name.starts_with("Sample::")) continue;
    std::string line = t->name + " " + Kiv::typeKindName(t->kind);
    for (const Kiv::EnumLiteral& l : t->literals) line += " " + l.name;
    registered.push_back(line);
  }
  EXPECT_EQ(registered, (std::vector<std::string>{
                            "Sample::Volume enumeration quiet normal loud", "Sample::Span value",
                            "Sample::Marks value", "Sample::Octet value", "Sample::Holder::Lone value",
                            "Sample::Slot value", "Sample::Weight value", "Sample::Leaf entity",
                            "Sample::Holder entity", "Sample::Holder::Mode enumeration off on",
                            "Sample::RackSlot value", "Sample::Pair value", "Sample::Nothing value",
                            "Sample::Entry value", "Sample::Branch entity", "Sample::Tree entity"}));
}

}  // namespace
