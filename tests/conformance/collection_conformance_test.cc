// Keyed members and counters, run over every generated entity type: every
// collection and child collection through the attribute-log table of its
// type (same value and absent delete tell nobody, xDelAll tells each), the
// shared tables' collection-level order, and counters' Inc/Dec. A counter or
// a table without traits here fails the suite.
#include <string>
#include <vector>

#include "conformance.h"

namespace Conformance {
namespace {

template <class E>
class Members : public testing::Test {
 protected:
  void SetUp() override {
    a.notifierIs(Kiv::Ptr<const E>(entity));
    b.notifierIs(Kiv::Ptr<const E>(entity));
  }
  Kiv::Ptr<E> entity = fresh<E>();
  HeardLog log;
  Listener<E> a{log, 'a'}, b{log, 'b'};
};
TYPED_TEST_SUITE(Members, Entities);

// Each change heard by a, then b.
HeardLog heardTimes(Kiv::AttrId id, size_t n) {
  HeardLog out;
  for (size_t i = 0; i < n; ++i) out.insert(out.end(), {{'a', id}, {'b', id}});
  return out;
}

void checkMembers(Kiv::Entity& e, HeardLog& log) {
  const Kiv::AttrLogType& logType = logTypeOf(e);
  for (const Kiv::AttrRecord& r : e.fwkType().attributes) {
    if (r.kind != "coll" && r.kind != "child") continue;
    SCOPED_TRACE(e.fwkType().name + "::" + r.name);
    const Kiv::AttrLogAttr* a = logType.attr(r.id);
    ASSERT_TRUE(a != nullptr && a->delAll != nullptr);
    if (a->reference) continue;  // members are references, resolved by path in a tree
    const auto [keyType, valueType] = keyAndValue(r.type);
    const Samples* keys = samplesOf(keyType);
    ASSERT_NE(keys, nullptr) << "no sample values of " << keyType;
    const bool children = a->kind == Kiv::AttrLogKind::children;
    const Samples* values = children ? nullptr : samplesOf(valueType);
    ASSERT_TRUE(children || values != nullptr) << "no sample values of " << valueType;
    const std::string none;  // a child carries no value
    const std::string& v1 = children ? none : values->first;
    log.clear();
    applyMember(*a, e, keys->first, &v1);
    applyMember(*a, e, keys->first, &v1);  // the same again
    a->delMember(e, keys->second);          // absent
    EXPECT_EQ(log, heardTimes(r.id, 1));
    if (!children) {
      applyMember(*a, e, keys->first, &values->second);
      EXPECT_EQ(log, heardTimes(r.id, 2));
    }
    applyMember(*a, e, keys->second, &v1);  // a record filed under its own key replaces the first
    std::vector<std::string> present;
    a->keys(e, present);
    ASSERT_FALSE(present.empty());
    log.clear();
    a->delAll(e);
    EXPECT_EQ(log, heardTimes(r.id, present.size()));
    present.clear();
    a->keys(e, present);
    EXPECT_TRUE(present.empty());
  }
}

TYPED_TEST(Members, CollectionsNotifyOnlyOnChangeAndDelAllTellsEach) { checkMembers(*this->entity, this->log); }

// ---------------------------------------------------------------- traits by name

// Counters and shared tables have operations the attribute-log table does not
// carry; each gets traits below, and a member without them fails the suite.
struct Covered {
  const char* attr;
  bool (*holds)(const Kiv::Entity&);
};
std::vector<Covered>& covered() {
  static std::vector<Covered> all;
  return all;
}
template <class E>
bool cover(const char* attr) {
  covered().push_back({attr, [](const Kiv::Entity& e) { return dynamic_cast<const E*>(&e) != nullptr; }});
  return true;
}

TYPED_TEST(Members, EveryCounterAndTableHasTraits) {
  for (const Kiv::AttrRecord& r : TypeParam::type().attributes) {
    if (r.kind != "counter" && r.kind != "table") continue;
    bool found = false;
    for (const Covered& c : covered()) found |= r.name == c.attr && c.holds(*this->entity);
    EXPECT_TRUE(found) << TypeParam::type().name << "::" << r.name << " has no traits";
  }
}

// ---------------------------------------------------------------- shared tables

// A notifiee of table x that logs its three callbacks by name.
#define TABLE_TRAITS(Traits, E, x, X)                                        \
  struct Traits {                                                            \
    using Entity = E;                                                        \
    using Key = E::X##Table::key_type;                                       \
    struct Recorder : E::NotifieeConst {                                     \
      Recorder(std::vector<std::string>& log, std::string who) : log(log), who(who) {} \
      void on##X(const Key&) override { log.push_back(who + " key"); }       \
      void on##X##kivImmediate() override { log.push_back(who + " immediate"); } \
      void on##X() override { log.push_back(who + " whole"); }               \
      std::vector<std::string>& log;                                         \
      std::string who;                                                       \
    };                                                                       \
    static void notify(E& e) { e.x##Notify(Key()); }                         \
    static void notifyCollection(E& e) { e.x##NotifyCollection(); }         \
    static inline const bool covered = cover<E>(#x);                         \
  }

TABLE_TRAITS(Routes, BFib::Status, route, Route);
TABLE_TRAITS(OifIndexes, BFib::Status, oifIndexIntf, OifIndexIntf);
TABLE_TRAITS(BidirGroups, BFib::BidirStatus, bidirGroup, BidirGroup);
TABLE_TRAITS(DfProfiles, BFib::BidirStatus, dfProfile, DfProfile);
TABLE_TRAITS(BitIndexes, BitMapper::BrumeStatus, bitIndexMap, BitIndexMap);
TABLE_TRAITS(Waitlist, BitMapper::BrumeStatus, waitlistMap, WaitlistMap);
TABLE_TRAITS(Counters, Fib::CounterStatus, counter, Counter);

template <class T>
class TableOrder : public testing::Test {};
using Tables = testing::Types<Routes, OifIndexes, BidirGroups, DfProfiles, BitIndexes, Waitlist, Counters>;
TYPED_TEST_SUITE(TableOrder, Tables);

TYPED_TEST(TableOrder, KeyThenImmediateThenWholeInListOrder) {
  ASSERT_TRUE(TypeParam::covered);
  Kiv::Ptr<typename TypeParam::Entity> e = fresh<typename TypeParam::Entity>();
  std::vector<std::string> log;
  typename TypeParam::Recorder a(log, "a"), b(log, "b");
  a.notifierIs(Kiv::Ptr<const typename TypeParam::Entity>(e));
  b.notifierIs(Kiv::Ptr<const typename TypeParam::Entity>(e));
  TypeParam::notify(*e);
  TypeParam::notifyCollection(*e);
  EXPECT_EQ(log, (std::vector<std::string>{"a key", "b key", "a immediate", "b immediate", "a whole", "b whole"}));
}

// ---------------------------------------------------------------- counters

#define COUNTER_TRAITS(Traits, E, x, X, T)                                   \
  struct Traits {                                                            \
    using Entity = E;                                                        \
    static constexpr Kiv::AttrId kId = E::k##X##Id;                          \
    static T inc(E& e, T n) { return e.x##Inc(n); }                          \
    static T dec(E& e, T n) { return e.x##Dec(n); }                          \
    static T get(const E& e) { return e.x(); }                               \
    static inline const bool covered = cover<E>(#x);                         \
  }

COUNTER_TRAITS(AllocRequests, BitMapper::Config, allocRequestCount, AllocRequestCount, uint32_t);
COUNTER_TRAITS(DeallocRequests, BitMapper::Config, deallocRequestCount, DeallocRequestCount, uint32_t);
COUNTER_TRAITS(CounterSize, Fib::CounterStatusCtl, currSize, CurrSize, uint32_t);
COUNTER_TRAITS(CounterActive, Fib::CounterStatusCtl, currActive, CurrActive, uint32_t);
COUNTER_TRAITS(RequestIds, Group::Request, requestId, RequestId, uint32_t);
COUNTER_TRAITS(ResponseIds, Group::Response, responseId, ResponseId, uint32_t);
COUNTER_TRAITS(WaitForDisabled, Hw::Status, waitForRoutingDisabledCnt, WaitForRoutingDisabledCnt, uint32_t);
COUNTER_TRAITS(ClearMfib, Fib::Config, clearMfibCount, ClearMfibCount, uint8_t);
COUNTER_TRAITS(UpcallsReceived, Notify::MrtMessageCounter, received, Received, uint32_t);
COUNTER_TRAITS(UpcallsInvalid, Notify::MrtMessageCounter, invalid, Invalid, uint32_t);
COUNTER_TRAITS(PamReadable, Orvet::Pam, readableCount, ReadableCount, uint64_t);
COUNTER_TRAITS(PamWritable, Orvet::Pam, writableCount, WritableCount, uint64_t);
COUNTER_TRAITS(PamRx, Orvet::Pam, rxPkt, RxPkt, uint64_t);
COUNTER_TRAITS(PamTx, Orvet::Pam, txPkt, TxPkt, uint64_t);
COUNTER_TRAITS(PamTxDrops, Orvet::Pam, txDrops, TxDrops, uint64_t);
COUNTER_TRAITS(PamTxErrors, Orvet::Pam, txErrors, TxErrors, uint64_t);
COUNTER_TRAITS(PamRxErrors, Orvet::Pam, rxErrors, RxErrors, uint64_t);
COUNTER_TRAITS(UpcallPkts, Notify::MrtSocketPam, rxPktCount, RxPktCount, uint64_t);
COUNTER_TRAITS(UpcallsFiltered, Notify::MrtStockSocketPam, rxFiltered, RxFiltered, uint64_t);
COUNTER_TRAITS(NotUpcalls, Notify::MrtStockSocketPam, rxNotUpcall, RxNotUpcall, uint64_t);

template <class T>
class CounterShape : public testing::Test {};
using CounterTypes = testing::Types<AllocRequests, DeallocRequests, CounterSize, CounterActive, RequestIds,
                                    ResponseIds, WaitForDisabled, ClearMfib, UpcallsReceived, UpcallsInvalid,
                                    PamReadable, PamWritable, PamRx, PamTx, PamTxDrops, PamTxErrors, PamRxErrors,
                                    UpcallPkts, UpcallsFiltered, NotUpcalls>;
TYPED_TEST_SUITE(CounterShape, CounterTypes);

TYPED_TEST(CounterShape, IncAndDecReturnTheNewCountAndNotifyOncePerChange) {
  ASSERT_TRUE(TypeParam::covered);
  Kiv::Ptr<typename TypeParam::Entity> e = fresh<typename TypeParam::Entity>();
  HeardLog log;
  Listener<typename TypeParam::Entity> a(log, 'a');
  a.notifierIs(Kiv::Ptr<const typename TypeParam::Entity>(e));
  EXPECT_EQ(TypeParam::inc(*e, 3), 3u);
  EXPECT_EQ(TypeParam::inc(*e, 0), 3u);  // no change: nobody hears
  EXPECT_EQ(TypeParam::dec(*e, 1), 2u);
  EXPECT_EQ(TypeParam::get(*e), 2u);
  EXPECT_EQ(log, (HeardLog{{'a', TypeParam::kId}, {'a', TypeParam::kId}}));
  TypeParam::dec(*e, 2);
  EXPECT_EQ(TypeParam::dec(*e, 1), static_cast<decltype(TypeParam::get(*e))>(-1));  // unsigned: wraps
}

}  // namespace
}  // namespace Conformance
