// PIM, VXLAN and PIM-interface status: what their descriptions decide beyond the shared shape.
#include <gtest/gtest.h>

#include "mroute/entities/pim/pim_enabled.h"
#include "mroute/entities/pim/pim_intf.h"
#include "mroute/entities/pim/pim_status.h"
#include "mroute/entities/pim/vxlan_status.h"

namespace {

using namespace Routing::Multicast::Fib::PimIntf;
using Routing::Multicast::Fib::IpGenRouteKey;

TEST(PimIntfTest, NewInterfaceHoldsOneReferenceAndBackPointers) {
  Kiv::Ptr<Status> status = statusFactory("pimintf");
  const Orvet::IntfId eth = Orvet::IntfId::fromText("Ethernet1");
  Kiv::Ptr<IntfStatus> intf = status->intfStatusIs(eth);
  EXPECT_EQ(intf->refCount(), 1u);
  EXPECT_FALSE(intf->routesProgrammed());
  EXPECT_EQ(intf->intfId(), eth);
  EXPECT_EQ(intf->pimIntfStatus(), status.ptr());  // the owner, set at creation, not counted
  EXPECT_EQ(status->references(), 1u);
  Kiv::Ptr<PrefixRouteInfo> prefix = intf->routeIs(Orvet::IpGenPrefix::fromText("10.1.0.0/16"));
  EXPECT_EQ(prefix->intfStatus(), intf.ptr());
  EXPECT_EQ(intfStatusFactory(eth, status.ptr())->pimIntfStatus(), status.ptr());
}

TEST(PimIntfTest, WildcardRoutesAreFiledUnderTheirKey) {
  Kiv::Ptr<IntfStatus> intf = IntfStatusIs("Ethernet1");
  const IpGenRouteKey key(Orvet::IpGenPrefix::fromText("0.0.0.0/0"), Orvet::IpGenPrefix::fromText("239.1.1.1/32"));
  Brume::Multicast::Fib::Route route(key);
  route.versionIs(3);
  intf->toAddWcIs(route);
  EXPECT_EQ(intf->toAddWc(key), route);
  EXPECT_EQ(intf->toAddWcDel(key), route);
  EXPECT_TRUE(intf->toAddWc().empty());
}

TEST(PimStatusTest, PathsAndThePrefixGroupConstant) {
  EXPECT_EQ(Kiv::textOf(PrefixRouteInfo::prefixGroup()), "224.0.0.0/4");
  EXPECT_EQ(PrefixRouteInfo::kPrefixGroupId, 260);
  EXPECT_EQ(Routing::Multicast::Pim::Status::mountPath(Orvet::AddressFamily(1)),
            "routing/multicast/pim/global/status");
  EXPECT_EQ(Routing::Multicast::Vxlan::Status::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/vxlan/status");
  EXPECT_EQ(Status::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/pimintf/status");
}

}  // namespace
