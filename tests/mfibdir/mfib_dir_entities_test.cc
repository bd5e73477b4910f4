// The MFIB directory's entities: the published directory and its per-VRF
// entries, and the key order of the ordered route views.
#include <gtest/gtest.h>

#include <vector>

#include "mroute/mfibdir/mfib_dir.h"
#include "testing/expect_assert.h"

namespace {

using namespace Brume::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;

IpGenRouteKey routeKey(const char* source, const char* group) {
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText(source), Orvet::IpGenPrefix::fromText(group));
}

TEST(MfibDirTest, DirectoryPathsByFamily) {
  EXPECT_EQ(MfibDir::mountPath(Orvet::AddressFamily(1)), "routing/multicast/fib");
  EXPECT_EQ(MfibDir::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/fib");
  EXPECT_ASSERTION(MfibDir::mountPath(Orvet::AddressFamily(7)), "false && \"Unsupported address family\"");
}

TEST(MfibDirTest, VrfEntriesAreChildrenNamedByTheVrf) {
  Kiv::Ptr<MfibDir> dir = MfibDirIs("pim");
  Kiv::Ptr<MfibDirColl> red = dir->dirCollIs(L3::VrfName("red"));
  EXPECT_EQ(red->name(), Kiv::Name("red"));
  EXPECT_EQ(red->parent(), dir.ptr());
  red->brumeUrlIs("routing/multicast/routestatus/red/pim", true);
  red->bitMapperBrumeUrlIs("routing/multicast/bitmapper/red");
  EXPECT_TRUE(red->brumeUrl("routing/multicast/routestatus/red/pim"));
  EXPECT_FALSE(red->brumeUrl("routing/multicast/routestatus/red/igmp"));
  EXPECT_THROW_TEXT(dir->dirCollIs(L3::VrfName(std::string(101, 'r'))), Kiv::RangeException,
                    "VrfName::bytes > 100 not allowed");
  dir->dirCollDel(L3::VrfName("red"));
  EXPECT_EQ(red->parent(), nullptr);
  EXPECT_TRUE(dir->isDefault());
}

TEST(OrderedRoutesTest, KeysIterateGroupFirstThenSource) {
  Kiv::Ptr<RouteOrderedCollection> routes = RouteOrderedCollectionIs("routes");
  routes->routeIs(routeKey("10.0.0.2/32", "239.1.1.1/32"), 1);
  routes->routeIs(routeKey("10.0.0.1/32", "239.1.1.1/32"), 2);
  routes->routeIs(routeKey("10.9.9.9/32", "232.1.1.1/32"), 3);
  std::vector<uint32_t> order;
  for (const auto& [key, number] : routes->route()) order.push_back(number);
  EXPECT_EQ(order, (std::vector<uint32_t>{3, 2, 1}));
  Kiv::Ptr<ModalRouteOrderedCollection> modal = ModalRouteOrderedCollectionIs("modal");
  modal->routeIs(routeKey("10.0.0.1/32", "239.1.1.1/32"), true);
  modal->routeDel(routeKey("10.0.0.1/32", "239.1.1.1/32"));
  EXPECT_TRUE(modal->isDefault());
}

}  // namespace
