// The hardware status tree: what its description decides beyond the shared shape; the flags' range
// check is the flag template's (route/route_values_test.cc).
#include <gtest/gtest.h>

#include <sstream>

#include "mroute/entities/hardware/hardware_status.h"

namespace {

using namespace Routing::Multicast::Fib::Hardware;
using Routing::Multicast::Fib::IpGenRouteKey;

IpGenRouteKey routeKey(const char* group) {
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText("0.0.0.0/0"), Orvet::IpGenPrefix::fromText(group));
}

// Unlike most, a fresh hardware status routes and avoids duplicates. A dirty
// LAG's delete hands back its count (who hears a change or an absent delete
// is the conformance suite's).
TEST(HardwareStatusTest, UnusualDefaultsPathAndDirtyLagDel) {
  Kiv::Ptr<Status> status = statusFactory("hw");
  EXPECT_TRUE(status->hwRouting() && status->avoidDuplicates() && status->deleteL2RouteOnFailure());
  EXPECT_EQ(status->pollingInterval(), 60);
  EXPECT_EQ(Status::mountPath(Orvet::AddressFamily(1)), "routing/hardware/multicast/status");
  const Orvet::IntfId lag = Orvet::IntfId::fromText("Port-Channel1");
  EXPECT_EQ(status->dirtyLagDel(lag), 0u);
  status->dirtyLagIs(lag, 4);
  EXPECT_EQ(status->dirtyLagDel(lag), 4u);
}

TEST(HardwareStatusTest, RoutesCountsEveryVrfAndChildrenKeepTheirKeys) {
  Kiv::Ptr<Status> status = StatusIs("hw");
  Kiv::Ptr<VrfStatus> red = status->vrfStatusIs(L3::VrfName("red"));
  EXPECT_EQ(red->name(), L3::VrfName("red"));
  Kiv::Ptr<RouteStatus> route = red->routeIs(routeKey("239.1.1.1/32"));
  EXPECT_EQ(route->key(), routeKey("239.1.1.1/32"));
  red->routeIs(routeKey("239.1.1.2/32"));
  status->vrfStatusIs(L3::VrfName("blue"))->routeIs(routeKey("239.1.1.1/32"));
  EXPECT_EQ(status->routes(), 3u);
  EXPECT_EQ(vrfStatusFactory(L3::VrfName("green"))->name(), L3::VrfName("green"));
}

TEST(RouteStatusTest, SkippedIdsAndHardwareFlags) {
  EXPECT_EQ(RouteStatus::kHwFlagsId, 260);
  EXPECT_EQ(RouteStatus::kLastPollTimeId, 263);
  EXPECT_EQ(RouteStatus::kFrrIntfIdId, 268);
  std::ostringstream os;
  os << HwFlags(3);
  EXPECT_EQ(os.str(), "Value('Routing::Multicast::Fib::Hardware::RouteStatus::HwFlags', ** {'noRoute': True, "
                      "'noIntfs': True})");
}

}  // namespace
