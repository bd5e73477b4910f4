// The seven tables of the system compile and round-trip entries through the
// writer and a reader. Value types that other parts have not written yet are
// stood in for by plain records of the same shape, in this file only.
#include <gtest/gtest.h>

#include <string>

#include "mroute/route/bidir_group.h"
#include "mroute/route/df_profile.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/oif_index_intf.h"
#include "mroute/route/route.h"
#include "mroute/runtime/net/ip_gen_prefix.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/value_wrapper.h"
#include "table/table_test_util.h"

namespace StandIn {

using Routing::Multicast::Fib::IpGenRouteKey;

// Routing::Multicast::Fib::Counter: 72 bytes, so that its slots are 88.
struct Counter {
  IpGenRouteKey key;
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t lastChange = 0;
  friend bool operator==(const Counter&, const Counter&) = default;
};
static_assert(sizeof(Counter) == 72);

// BitMapper::BitIndex, BitMapperKey, BitIndexMap, WaitlistMap.
using BitIndex = uint16_t;
struct BitMapperKey {
  uint64_t intfId = 0;
  uint64_t addrHigh = 0;
  uint64_t addrLow = 0;
  uint32_t af = 0;
  uint32_t pad = 0;
  friend bool operator==(const BitMapperKey&, const BitMapperKey&) = default;
};
struct BitIndexMap {
  BitIndex key = 0xFFFF;
  uint16_t pad = 0;
  uint32_t refCount = 0;
  BitMapperKey mapperKey;
  friend bool operator==(const BitIndexMap&, const BitIndexMap&) = default;
};
struct WaitlistMap {
  BitMapperKey key;
  uint64_t sequence = 0;
  friend bool operator==(const WaitlistMap&, const WaitlistMap&) = default;
};

}  // namespace StandIn

namespace {

using Routing::Multicast::Fib::IpGenRouteKey;
namespace Fib = Brume::Multicast::Fib;

Orvet::IpGenPrefix group(uint32_t i) {
  return Orvet::IpGenPrefix::fromText("239.1." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "/32");
}
IpGenRouteKey routeKey(uint32_t i) { return IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.0.0.1/32"), group(i)); }

// Prefix keys hash like the group half of a route key.
template <typename Stored>
struct PrefixOps : Brume::DefaultOps<Orvet::IpGenPrefix, Stored> {
  static uint32_t hash(const Orvet::IpGenPrefix& p) { return IpGenRouteKey(Orvet::IpGenPrefix(), p).hash(); }
};

using RouteValue = KivBrume::KivBrumeMapValueWrapper<Fib::Route, IpGenRouteKey, &Fib::Route::key>;
using CounterValue = KivBrume::KivBrumeMapValueWrapper<StandIn::Counter, IpGenRouteKey, &StandIn::Counter::key>;
using BidirValue = KivBrume::KivBrumeMapValueWrapper<Fib::BidirGroup, Orvet::IpGenPrefix, &Fib::BidirGroup::key>;
using DfValue = KivBrume::KivBrumeMapValueWrapper<Fib::DfProfile, Orvet::IntfId, &Fib::DfProfile::key>;
using OifValue = KivBrume::KivBrumeMapValueWrapper<Fib::OifIndexIntf, Fib::OifIndex, &Fib::OifIndexIntf::key>;
using BitIndexValue =
    KivBrume::KivBrumeMapValueWrapper<StandIn::BitIndexMap, StandIn::BitIndex, &StandIn::BitIndexMap::key>;
using WaitlistValue =
    KivBrume::KivBrumeMapValueWrapper<StandIn::WaitlistMap, StandIn::BitMapperKey, &StandIn::WaitlistMap::key>;

struct RouteTable {
  using Ops = Brume::DefaultOps<IpGenRouteKey, RouteValue>;
  static RouteValue make(uint32_t i) { return RouteValue(Fib::Route(routeKey(i))); }
};
struct CounterTable {
  using Ops = Brume::DefaultOps<IpGenRouteKey, CounterValue>;
  static CounterValue make(uint32_t i) { return CounterValue(StandIn::Counter{routeKey(i), i, 2u * i, 0}); }
};
struct BidirTable {
  using Ops = PrefixOps<BidirValue>;
  static BidirValue make(uint32_t i) { return BidirValue(Fib::BidirGroup(group(i), Fib::RpaIndex())); }
};
struct DfTable {
  using Ops = Brume::DefaultOps<Orvet::IntfId, DfValue>;
  static DfValue make(uint32_t i) { return DfValue(Fib::DfProfile(Orvet::IntfId::fromValue(1000 + i), i)); }
};
struct OifTable {
  using Ops = Brume::DefaultOps<Fib::OifIndex, OifValue>;
  static OifValue make(uint32_t i) { return OifValue(Fib::OifIndexIntf(Fib::OifIndex(i % 512))); }
};
struct BitIndexTable {
  using Ops = Brume::DefaultOps<StandIn::BitIndex, BitIndexValue>;
  static BitIndexValue make(uint32_t i) {
    StandIn::BitIndexMap m;
    m.key = static_cast<StandIn::BitIndex>(i);
    return BitIndexValue(m);
  }
};
struct WaitlistTable {
  using Ops = Brume::DefaultOps<StandIn::BitMapperKey, WaitlistValue>;
  static WaitlistValue make(uint32_t i) { return WaitlistValue(StandIn::WaitlistMap{{i, 0, i * 7ull, 1, 0}, i}); }
};

static_assert(sizeof(RouteValue) + 16 == 184, "route slots are 184 bytes");
static_assert(sizeof(CounterValue) + 16 == 88, "counter slots are 88 bytes");

template <typename T>
class Instantiation : public ::testing::Test {};

using Tables = ::testing::Types<RouteTable, CounterTable, BidirTable, DfTable, OifTable, BitIndexTable, WaitlistTable>;
TYPED_TEST_SUITE(Instantiation, Tables);

TYPED_TEST(Instantiation, WritesAndReadsBack) {
  using Ops = typename TypeParam::Ops;
  TableTest::TempRoot dir("inst");
  Brume::TableConfig c;
  c.initialSize = 16;
  Brume::BrumeWriter<Ops> w(dir.root(), c);
  ASSERT_TRUE(w.attach());
  constexpr uint32_t n = 300;  // grows slots and buckets
  for (uint32_t i = 0; i < n; ++i) w.write(TypeParam::make(i));
  EXPECT_EQ(w.members(), n);
  Brume::BrumeReader<Ops> r(dir.root());
  ASSERT_TRUE(r.initialize());
  typename Ops::Stored out;
  for (uint32_t i = 0; i < n; ++i) {
    const auto want = TypeParam::make(i);
    ASSERT_TRUE(r.lookup(Ops::keyOf(want), out)) << i;
    EXPECT_TRUE(out.value == want.value) << i;
  }
  for (uint32_t i = 0; i < n; i += 2) EXPECT_TRUE(w.remove(Ops::keyOf(TypeParam::make(i))));
  for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(r.lookup(Ops::keyOf(TypeParam::make(i)), out), i % 2 == 1) << i;
  std::string why;
  EXPECT_TRUE(w.validate(&why)) << why;
}

}  // namespace
