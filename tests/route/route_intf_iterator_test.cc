// The route interface iterators, over the table set and over a cache.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "mroute/route/mfib_status.h"
#include "mroute/route/route_intf_iterator.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace Brume::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;
using Items = std::vector<std::string>;

// "<interface> 0x<flags>[ #<oif index>]" for each item, in order.
template <class It>
Items walk(It it) {
  Items items;
  for (it.next(); !it.atEnd(); it.next()) {
    std::ostringstream os;
    os << it.intf().name() << " 0x" << std::hex << it.flags().value();
    if (!it.oifIndex().isNull()) os << std::dec << " #" << it.oifIndex().value();
    items.push_back(os.str());
  }
  return items;
}

class RouteIntfIteratorTest : public testing::Test {
 protected:
  void SetUp() override {
    status->mountTables(loop, Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("default"), "pim"),
                        Brume::BrumeType::writer);
    route.iifIs(Orvet::IntfId("Vlan10"));
    route.notifyIs(Orvet::IntfId("Register0"));
    route.versionIs(1);
    for (uint16_t i : {3, 9}) route.oifIs(OifIndex(i), true);
    route.maxOifIndexIs(OifIndex(9));
  }
  void map(uint16_t index, const char* intf) {
    status->oifIndexIntfIs(OifIndexIntf(OifIndex(index), Orvet::IntfId(intf), 1));
    cache[OifIndex(index)] = Orvet::IntfId(intf);
  }

  Testing::ShmRootScope root{"intfiter"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<Status> status = StatusIs("pim");
  Route route{IpGenRouteKey(Orvet::IpGenPrefix::fromText("10.1.1.1/32"), Orvet::IpGenPrefix::fromText("232.1.1.1/32"))};
  OifIntfCache cache;
};

TEST_F(RouteIntfIteratorTest, SpecialInterfacesComeFirstThenOifsAscending) {
  map(3, "Ethernet3");
  map(9, "Ethernet9");
  status->routeIs(route);
  const Items expected{"Vlan10 0x2", "Register0 0x4", "Ethernet3 0x5 #3", "Ethernet9 0x5 #9"};
  EXPECT_EQ(walk(RouteIntfIteratorConst(route, *status)), expected);
  EXPECT_EQ(walk(CachedMapRouteIntfIteratorConst(route, cache)), expected);

  // Every special stage, in its place, with its own flag.
  route.iifFlagsIs(Route::IifFlags(1));
  route.fastdropIs(Orvet::IntfId("Vlan20"));
  route.iifFrrIs(Orvet::IntfId("Vlan30"));
  status->routeIs(route);
  EXPECT_EQ(walk(RouteIntfIteratorConst(route, *status)),
            (Items{"Vlan10 0xa", "Register0 0x4", "Vlan20 0x10", "Vlan30 0x20", "Ethernet3 0x5 #3", "Ethernet9 0x5 #9"}));
}

TEST_F(RouteIntfIteratorTest, RouteWithOnlyANoRpfIifOrAnUnsetMaxYieldsNoOifs) {
  Route bare(route.key());
  bare.iifIs(Orvet::IntfId("Vlan10"));
  bare.iifFlagsIs(Route::IifFlags(1));
  bare.oifIs(OifIndex(3), true);  // maxOifIndex left unset: the bit is not walked
  map(3, "Ethernet3");
  status->routeIs(bare);
  EXPECT_EQ(walk(RouteIntfIteratorConst(bare, *status)), (Items{"Vlan10 0xa"}));
  EXPECT_EQ(walk(CachedMapRouteIntfIteratorConst(bare, cache)), (Items{"Vlan10 0xa"}));
  EXPECT_TRUE(walk(CachedMapRouteIntfIteratorConst(Route(route.key()), cache)).empty());
}

TEST_F(RouteIntfIteratorTest, MissingMappingIsSkippedAndTraced) {
  Mroute::Trace::CaptureSink sink("Mroute::RouteIntfIteratorConst");
  map(9, "Ethernet9");
  status->routeIs(route);
  RouteIntfIteratorConst it(route, *status);
  EXPECT_EQ(walk(it), (Items{"Vlan10 0x2", "Register0 0x4", "Ethernet9 0x5 #9"}));
  EXPECT_EQ(walk(CachedMapRouteIntfIteratorConst(route, cache)), (Items{"Vlan10 0x2", "Register0 0x4", "Ethernet9 0x5 #9"}));
  EXPECT_EQ(sink.texts("Mroute::RouteIntfIteratorConst"),
            (Items{"RouteIntfIterator: missing intf mapping index 3",
                   "CachedMapRouteIntfIterator: missing intf mapping from cache: 3"}));

  // The last index unmapped: the walk ends after the specials.
  cache.clear();
  cache[OifIndex(3)] = Orvet::IntfId("Ethernet3");
  EXPECT_EQ(walk(CachedMapRouteIntfIteratorConst(route, cache)), (Items{"Vlan10 0x2", "Register0 0x4", "Ethernet3 0x5 #3"}));
}

TEST_F(RouteIntfIteratorTest, ChangedOrRemovedRouteEndsTheWalkAtTheFirstOifStep) {
  Mroute::Trace::CaptureSink sink("Mroute::RouteIntfIteratorConst");
  map(3, "Ethernet3");
  map(9, "Ethernet9");
  status->routeIs(route);
  RouteIntfIteratorConst it(route, *status);
  it.next();
  it.next();
  Route changed = route;
  changed.versionIs(2);
  status->routeIs(changed);
  it.next();
  EXPECT_TRUE(it.atEnd());
  EXPECT_EQ(sink.texts("Mroute::RouteIntfIteratorConst"), (Items{"next(): route version mismatch 1!=2"}));

  // Changed between two oifs: the first is reported, the second ends it.
  RouteIntfIteratorConst mid(changed, *status);
  for (int i = 0; i < 3; ++i) mid.next();
  EXPECT_EQ(mid.oifIndex(), OifIndex(3));
  status->routeDel(route.key());
  mid.next();
  EXPECT_TRUE(mid.atEnd());
  // The cached iterator checks no version.
  EXPECT_EQ(walk(CachedMapRouteIntfIteratorConst(route, cache)).size(), 4u);
}

TEST_F(RouteIntfIteratorTest, MappingToTheNullInterfaceAsserts) {
  status->routeIs(route);
  status->oifIndexIntfIs(OifIndexIntf(OifIndex(3), Orvet::IntfId(), 1));
  cache[OifIndex(3)] = Orvet::IntfId();
  RouteIntfIteratorConst it(route, *status);
  it.next();
  it.next();
  EXPECT_ASSERTION(it.next(), "intfId != Orvet::IntfId()");
  CachedMapRouteIntfIteratorConst cached(route, cache);
  cached.next();
  cached.next();
  EXPECT_ASSERTION(cached.next(), "intfId != Orvet::IntfId()");
}

}  // namespace
