// One conformance suite over every generated type, run as typed tests:
// entities (registration, notifiees, defaults, reset, attribute ids, mount
// paths), values (text round trips, equality, order, hash), enumerations
// (literals both ways) and, through small per-type traits, the set-like
// collections and the counters.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mroute/bitmapper/brume_status.h"
#include "mroute/bitmapper/config.h"
#include "mroute/bitmapper/status.h"
#include "mroute/entities/apps/app_intfs.h"
#include "mroute/entities/fib/config.h"
#include "mroute/entities/fib/fib_status.h"
#include "mroute/entities/fib/intf_boundary_status.h"
#include "mroute/entities/fib/intf_config.h"
#include "mroute/entities/fib/multicast_legacy_config.h"
#include "mroute/entities/fib/vrf_config.h"
#include "mroute/entities/group/group.h"
#include "mroute/entities/group/port_vlan.h"
#include "mroute/entities/hardware/hardware_status.h"
#include "mroute/entities/pim/pim_enabled.h"
#include "mroute/entities/pim/pim_intf.h"
#include "mroute/entities/pim/pim_status.h"
#include "mroute/entities/pim/vxlan_status.h"
#include "mroute/kernel/kernel_mfib_status.h"
#include "mroute/kernel/mrt_message.h"
#include "mroute/kernel/mrt_message_type.h"
#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/pam/pam.h"
#include "mroute/route/mfib_status.h"
#include "mroute/route/oif_index.h"
#include "mroute/route/route_flags.h"
#include "mroute/route/route_key_type.h"
#include "mroute/route/route_priority.h"
#include "mroute/route/rpa_index.h"
#include "mroute/route/intf_flags.h"
#include "testing/expect_assert.h"

namespace {

namespace Fib = Routing::Multicast::Fib;
namespace Hw = Routing::Multicast::Fib::Hardware;
namespace PimIntf = Routing::Multicast::Fib::PimIntf;
namespace Group = Multicast::Group;
namespace BFib = Brume::Multicast::Fib;
namespace Notify = Routing::Multicast::Notify;

// ---------------------------------------------------------------- entities

// A fresh entity of type E; types whose constructor needs more than a name
// get valid values here.
template <class E>
Kiv::Ptr<E> fresh() {
  if constexpr (std::is_same_v<E, BitMapper::Config>) {
    return BitMapper::configFactory(64, true);
  } else {
    return new E(Kiv::Name("conformance"));
  }
}

template <class E>
class EntityShape : public testing::Test {
 protected:
  Kiv::Ptr<E> entity = fresh<E>();
};

using Entities = testing::Types<
    Fib::Config, Fib::IntfConfig, Fib::VrfConfig, Routing::Multicast::MulticastLegacyConfig, Fib::Status,
    Fib::VrfEnabledStatus, Fib::ReadyStatus, Fib::BidirStatus, Fib::MbrIntf, Fib::CounterStatusCtl,
    Fib::CounterStatus, Orvet::IntfBoundaryStatus, Hw::Status, Hw::VrfStatus, Hw::RouteStatus,
    Routing::Multicast::Pim::Status, Routing::Multicast::Vxlan::Status, MrouteLib::PimEnabled, PimIntf::Status,
    PimIntf::IntfStatus, PimIntf::PrefixRouteInfo, PimIntf::PrefixMrouteStatus, Group::Request, Group::Response,
    Group::ClientConfig, Group::Config, Group::Status, McastCommon::AppVrfIntfs, McastCommon::VrfIntfColl,
    McastCommon::MulticastIntfsForApplications, BitMapper::Config, BitMapper::Status, BitMapper::BrumeStatus,
    BFib::Status, BFib::BidirStatus, BFib::BidirStatusCtl, BFib::VrfStatus, BFib::MfibDir, BFib::MfibDirColl,
    BFib::MfibBrumeColl, BFib::MfibBrumeDir, BFib::ModalRouteOrderedCollection, BFib::RouteOrderedCollection,
    Routing::KernelMfib::Status, Routing::KernelMfib::StatusColl, Notify::MrtMessage, Notify::NoCacheMessage,
    Notify::WrongVifMessage, Notify::WholePktMessage, Notify::MrtMessageCounter, Orvet::Pam, Notify::MrtSocketPam,
    Notify::MrtNotifySocketPam, Notify::MrtStockSocketPam, Notify::Mrt6SocketPam>;
TYPED_TEST_SUITE(EntityShape, Entities);

TYPED_TEST(EntityShape, RegisteredOnceByItsQualifiedName) {
  const Kiv::TypeRecord& type = TypeParam::type();
  EXPECT_EQ(Kiv::findType(type.name), &type);
  EXPECT_EQ(&this->entity->fwkType(), &type);
  EXPECT_EQ(type.kind, Kiv::TypeKind::entity);
  int seen = 0;
  for (const Kiv::TypeRecord* r : Kiv::registeredTypes()) seen += r->name == type.name;
  EXPECT_EQ(seen, 1);
}

TYPED_TEST(EntityShape, AttributeIdsStartAt258AndRise) {
  int previous = Kiv::kFirstAttrId - 1;
  for (const Kiv::AttrRecord& a : TypeParam::type().attributes) {
    EXPECT_GT(a.id, previous) << a.name;
    previous = a.id;
  }
}

TYPED_TEST(EntityShape, FreshIsDefaultAndResetKeepsIt) {
  EXPECT_TRUE(this->entity->isDefault());
  this->entity->reset();
  EXPECT_TRUE(this->entity->isDefault());
  EXPECT_EQ(this->entity->references(), 1u);
}

TYPED_TEST(EntityShape, NotifieesAttachAndDetach) {
  typename TypeParam::Notifiee n;
  n.notifierIs(this->entity);
  EXPECT_EQ(n.notifier(), this->entity);
  EXPECT_TRUE(this->entity->notifieeList().contains(&n));
  n.isRegisteredNotifieeIs(false);
  EXPECT_FALSE(this->entity->notifieeList().contains(&n));
  n.notifierIs(nullptr);
  EXPECT_EQ(this->entity->references(), 1u);
}

TYPED_TEST(EntityShape, MountPathsPairByFamily) {
  if constexpr (requires { TypeParam::mountPath(Orvet::AddressFamily(1)); }) {
    const std::string v4 = TypeParam::mountPath(Orvet::AddressFamily(1));
    const std::string v6 = TypeParam::mountPath(Orvet::AddressFamily(2));
    EXPECT_NE(v4, v6);
    EXPECT_TRUE(v6.find('6') != std::string::npos) << v6;
    EXPECT_ASSERTION(TypeParam::mountPath(Orvet::AddressFamily(3)), "false && \"Unsupported address family\"");
  } else {
    GTEST_SKIP() << "no fixed mount path";
  }
}

// ---------------------------------------------------------------- values

template <class V>
class ValueShape : public testing::Test {};

using Values = testing::Types<BitMapper::BitIndex, BitMapper::BitMapperKey, BitMapper::BitIndexMap,
                              BitMapper::WaitlistMap, BitMapper::TableInfo, Fib::Counter, Fib::Intf, Fib::IntfFlags,
                              Hw::HwFlags, PimIntf::PrefixKey, PimIntf::PrefixMroute, MrouteLib::OutLif,
                              MrouteLib::PortProperty, MrouteLib::PortPropertyMask, MrouteLib::PortVlan,
                              BFib::Route::RouteFlags, BFib::Route::IifFlags, BFib::IntfFlags, BFib::OifIndex,
                              BFib::RpaIndex, BFib::RoutePriority>;
TYPED_TEST_SUITE(ValueShape, Values);

TYPED_TEST(ValueShape, TextFormRoundTripsAndNamesTheType) {
  const TypeParam v{};
  const std::string text = Kiv::textOf(v);
  EXPECT_EQ(TypeParam::fromText(text), v) << text;
  EXPECT_EQ(Kiv::textOf(TypeParam::fromText(text)), text);
  if (text.starts_with("Value(")) {
    EXPECT_TRUE(text.starts_with("Value('" + TypeParam::type().name + "', ** {")) << text;
  }
  EXPECT_EQ(Kiv::findType(TypeParam::type().name), &TypeParam::type());
}

TYPED_TEST(ValueShape, EqualValuesHashAlikeAndOrderIsStrict) {
  const TypeParam a{}, b{};
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<TypeParam>()(a), std::hash<TypeParam>()(b));
  EXPECT_FALSE(a < b);
  static_assert(std::is_trivially_copyable_v<TypeParam> || !std::is_same_v<TypeParam, Fib::Counter>);
}

// ---------------------------------------------------------------- enumerations

template <class E>
class EnumerationShape : public testing::Test {};

using Enumerations = testing::Types<Fib::CounterMode, Fib::Config::MultipathControl, Fib::RouteKeyType,
                                    Orvet::MrtMessageType>;
TYPED_TEST_SUITE(EnumerationShape, Enumerations);

TYPED_TEST(EnumerationShape, EveryLiteralReadsBackEveryWay) {
  const Kiv::TypeRecord& type = Kiv::EnumInfo<TypeParam>::type();
  ASSERT_FALSE(type.literals.empty());
  EXPECT_EQ(Kiv::findType(type.name), &type);
  for (const Kiv::EnumLiteral& l : type.literals) {
    const TypeParam e = Kiv::enumInstance<TypeParam>(l.value);
    EXPECT_EQ(Kiv::enumInstance<TypeParam>(l.name), e);
    EXPECT_EQ(std::string_view(stringValue(e)), l.name);
    const std::string strep = valueToStrep(e);
    EXPECT_EQ(strep, "'" + l.name + "'");
    TypeParam parsed{};
    EXPECT_TRUE(sequenceToValue(strep.data(), strep.data() + strep.size(), parsed));
    EXPECT_EQ(parsed, e);
  }
  TypeParam untouched = Kiv::enumInstance<TypeParam>(type.literals.back().value);
  const std::string bogus = "'noSuchLiteral'";
  EXPECT_FALSE(sequenceToValue(bogus.data(), bogus.data() + bogus.size(), untouched));
  EXPECT_EQ(untouched, Kiv::enumInstance<TypeParam>(type.literals.back().value));
}

// ---------------------------------------------------------------- set-like collections

// Traits of one set-like collection x (key -> bool) of entity E: the
// operations, two keys and a notifiee that records onX(key).
#define SET_TRAITS(Traits, E, x, X, K, key1, key2)                          \
  struct Traits {                                                           \
    using Entity = E;                                                       \
    using Key = K;                                                          \
    struct Recorder : E::NotifieeConst {                                    \
      void on##X(const K& k) override { keys.push_back(k); }                \
      using E::NotifieeConst::on##X;                                        \
      std::vector<K> keys;                                                  \
    };                                                                      \
    static void set(E& e, const K& k, bool v) { e.x##Is(k, v); }            \
    static bool get(const E& e, const K& k) { return e.x(k); }              \
    static void del(E& e, const K& k) { e.x##Del(k); }                      \
    static void delAll(E& e) { e.x##DelAll(); }                             \
    static void notify(E& e, const K& k) { e.x##Notify(k); }                \
    static size_t size(const E& e) { return e.x().size(); }                 \
    static K first() { return key1; }                                       \
    static K second() { return key2; }                                      \
  }

const L3::VrfName kRed("red"), kBlue("blue");
const Orvet::IntfId kEth1 = Orvet::IntfId::fromText("Ethernet1"), kEth2 = Orvet::IntfId::fromText("Ethernet2");

SET_TRAITS(CounterRoutes, Fib::Config, counterRoute, CounterRoute, Fib::IpGenRouteKey,
           Fib::IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.0.0.0/8"), Orvet::IpGenPrefix::fromText("232.0.0.1/32")),
           Fib::IpGenRouteKey());
SET_TRAITS(VrfEnabled, Fib::VrfEnabledStatus, vrf, Vrf, L3::VrfName, kRed, kBlue);
SET_TRAITS(VrfReady, Fib::ReadyStatus, vrfReady, VrfReady, L3::VrfName, kRed, kBlue);
SET_TRAITS(BidirEnabled, Fib::BidirStatus, bidirEnabledVrf, BidirEnabledVrf, L3::VrfName, kRed, kBlue);
SET_TRAITS(MbrIntfs, Fib::MbrIntf, intf, Intf, Orvet::IntfId, kEth1, kEth2);
SET_TRAITS(VxlanIntfs, Fib::Status, vxlanIntf, VxlanIntf, Orvet::IntfId, kEth1, kEth2);
SET_TRAITS(LocalSources, Fib::Status, notifyLocalSources, NotifyLocalSources, Kiv::String8, "igmp", "pim");
SET_TRAITS(SparseVrfs, Routing::Multicast::Pim::Status, pimEnabledSparseModeVrf, PimEnabledSparseModeVrf,
           L3::VrfName, kRed, kBlue);
SET_TRAITS(PimVlans, MrouteLib::PimEnabled, pimVlanEnabled, PimVlanEnabled, Bridging::VlanId, Bridging::VlanId(1),
           Bridging::VlanId(4094));
SET_TRAITS(AppIntfs, McastCommon::MulticastIntfsForApplications, multicastIntf, MulticastIntf, Orvet::IntfId, kEth1,
           kEth2);
SET_TRAITS(OrderedKeys, BFib::ModalRouteOrderedCollection, route, Route, Fib::IpGenRouteKey,
           Fib::IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.0.0.0/8"), Orvet::IpGenPrefix::fromText("232.0.0.1/32")),
           Fib::IpGenRouteKey());
SET_TRAITS(BrumeUrls, BFib::MfibDirColl, brumeUrl, BrumeUrl, Kiv::String, "routing/a", "routing/b");

// A fresh entity of traits T's type, watched by T's recorder.
template <class T>
class Traited : public testing::Test {
 protected:
  void SetUp() override { rec.notifierIs(entity); }
  Kiv::Ptr<typename T::Entity> entity = fresh<typename T::Entity>();
  typename T::Recorder rec;
};

template <class T>
using SetCollection = Traited<T>;
using Sets = testing::Types<CounterRoutes, VrfEnabled, VrfReady, BidirEnabled, MbrIntfs, VxlanIntfs, LocalSources,
                            SparseVrfs, PimVlans, AppIntfs, OrderedKeys, BrumeUrls>;
TYPED_TEST_SUITE(SetCollection, Sets);

TYPED_TEST(SetCollection, SameValueAndAbsentDeleteTellNobody) {
  auto& e = *this->entity;
  TypeParam::set(e, TypeParam::first(), true);
  TypeParam::set(e, TypeParam::first(), true);
  TypeParam::del(e, TypeParam::second());
  EXPECT_EQ(this->rec.keys.size(), 1u);
  EXPECT_TRUE(TypeParam::get(e, TypeParam::first()));
  EXPECT_FALSE(TypeParam::get(e, TypeParam::second()));
  TypeParam::set(e, TypeParam::first(), false);  // another value: a change
  EXPECT_EQ(this->rec.keys.size(), 2u);
  TypeParam::notify(e, TypeParam::second());  // a nudge, no change
  EXPECT_EQ(this->rec.keys.back(), TypeParam::second());
  EXPECT_EQ(TypeParam::size(e), 1u);
}

TYPED_TEST(SetCollection, DelAllTellsEachMember) {
  auto& e = *this->entity;
  TypeParam::set(e, TypeParam::first(), true);
  TypeParam::set(e, TypeParam::second(), true);
  this->rec.keys.clear();
  TypeParam::delAll(e);
  EXPECT_EQ(TypeParam::size(e), 0u);
  std::set<typename TypeParam::Key> told(this->rec.keys.begin(), this->rec.keys.end());
  EXPECT_EQ(told, (std::set<typename TypeParam::Key>{TypeParam::first(), TypeParam::second()}));
  EXPECT_TRUE(e.isDefault());
}

// ---------------------------------------------------------------- counters

#define COUNTER_TRAITS(Traits, E, x, X, T)                                  \
  struct Traits {                                                           \
    using Entity = E;                                                       \
    struct Recorder : E::NotifieeConst {                                    \
      void on##X() override { ++calls; }                                    \
      int calls = 0;                                                        \
    };                                                                      \
    static T inc(E& e, T n) { return e.x##Inc(n); }                         \
    static T dec(E& e, T n) { return e.x##Dec(n); }                         \
    static T get(const E& e) { return e.x(); }                              \
  }

COUNTER_TRAITS(AllocRequests, BitMapper::Config, allocRequestCount, AllocRequestCount, uint32_t);
COUNTER_TRAITS(CounterSize, Fib::CounterStatusCtl, currSize, CurrSize, uint32_t);
COUNTER_TRAITS(CounterActive, Fib::CounterStatusCtl, currActive, CurrActive, uint32_t);
COUNTER_TRAITS(RequestIds, Group::Request, requestId, RequestId, uint32_t);
COUNTER_TRAITS(ResponseIds, Group::Response, responseId, ResponseId, uint32_t);
COUNTER_TRAITS(WaitForDisabled, Hw::Status, waitForRoutingDisabledCnt, WaitForRoutingDisabledCnt, uint32_t);
COUNTER_TRAITS(ClearMfib, Fib::Config, clearMfibCount, ClearMfibCount, uint8_t);
COUNTER_TRAITS(UpcallsReceived, Notify::MrtMessageCounter, received, Received, uint32_t);
COUNTER_TRAITS(UpcallsInvalid, Notify::MrtMessageCounter, invalid, Invalid, uint32_t);
COUNTER_TRAITS(PamRxErrors, Orvet::Pam, rxErrors, RxErrors, uint64_t);
COUNTER_TRAITS(UpcallsFiltered, Notify::MrtStockSocketPam, rxFiltered, RxFiltered, uint64_t);

template <class T>
using CounterShape = Traited<T>;
using Counters = testing::Types<AllocRequests, CounterSize, CounterActive, RequestIds, ResponseIds, WaitForDisabled,
                                ClearMfib, UpcallsReceived, UpcallsInvalid, PamRxErrors, UpcallsFiltered>;
TYPED_TEST_SUITE(CounterShape, Counters);

TYPED_TEST(CounterShape, IncAndDecReturnTheNewCountAndNotifyOncePerChange) {
  auto& e = *this->entity;
  EXPECT_EQ(TypeParam::inc(e, 3), 3u);
  EXPECT_EQ(this->rec.calls, 1);
  EXPECT_EQ(TypeParam::inc(e, 0), 3u);
  EXPECT_EQ(this->rec.calls, 1);
  EXPECT_EQ(TypeParam::dec(e, 1), 2u);
  EXPECT_EQ(TypeParam::get(e), 2u);
  EXPECT_EQ(this->rec.calls, 2);
  TypeParam::dec(e, 2);
  EXPECT_EQ(TypeParam::dec(e, 1), static_cast<decltype(TypeParam::get(e))>(-1));  // unsigned: wraps
}

}  // namespace
