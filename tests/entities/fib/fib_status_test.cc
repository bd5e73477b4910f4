// The FIB status entities: what their descriptions decide beyond the shared shape.
#include <gtest/gtest.h>

#include "mroute/entities/fib/fib_status.h"
#include "mroute/entities/fib/vrf_config.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace Routing::Multicast::Fib;

TEST(ReadyStatusTest, SparseModeIsTheDevicePathInTheDefaultCellAndOtherModesArePathElements) {
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(2), "sparsemode"), "cell/0/routing6/multicast/fibready/status");
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(1), "sparsemode"), "cell/0/routing/multicast/fibready/status");
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(1), "bidir"), "routing/multicast/fibready/bidir/status");
  EXPECT_EQ(VrfEnabledStatus::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/fibenabled/status");
  EXPECT_ASSERTION(ReadyStatus::mountPath(Orvet::AddressFamily(5), "bidir"),
                   "false && \"Unsupported address family\"");
}

TEST(CounterStatusCtlTest, StartsAtNoneAndZeroUnlikeTheConfiguredMode) {
  Kiv::Ptr<CounterStatusCtl> ctl = CounterStatusCtlIs("ctl");
  EXPECT_EQ(ctl->mode(), CounterMode::None);
  EXPECT_EQ(VrfConfig::counterModeDefault(), CounterMode::byteMode);
}

TEST(CounterStatusTest, TableIsMountedUnderTheEntityPathWhenItGetsItsParent) {
  Testing::ShmRootScope root("counters");
  Mroute::Loop::EventLoop loop;
  KivBrume::attachContextIs(&loop, Brume::BrumeType::writer);
  Kiv::Ptr<Status> parent = StatusIs("status");
  Kiv::Ptr<CounterStatus> counters = CounterStatusIs("counters");
  EXPECT_FALSE(counters->counter().mounted());
  counters->parentIs(parent.ptr());
  ASSERT_TRUE(counters->counter().mounted());
  EXPECT_EQ(counters->counter().front()->mountPath(), "status/counters");
  const IpGenRouteKey key(Orvet::IpGenPrefix::fromText("10.0.0.0/24"), Orvet::IpGenPrefix::fromText("232.1.1.1/32"));
  counters->counterIs(Counter(key, 7, 1.5, true));
  EXPECT_EQ(counters->counter(key).value(), 7u);
  counters->parentIs(nullptr);
  EXPECT_FALSE(counters->counter().mounted());
  KivBrume::attachContextIs(nullptr, Brume::BrumeType::writer);
}

TEST(IntfTest, FlagsPrintUnderTheInterfaceName) {
  IntfFlags flags;
  flags.forwardIs(true);
  flags.frrIs(true);
  EXPECT_EQ(Kiv::textOf(flags),
            "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': True, 'accept': False, "
            "'notify': False, 'noRpf': False, 'fastdrop': False, 'frr': True})");
  const Intf intf(Orvet::IntfId::fromText("Ethernet1"), flags);
  EXPECT_EQ(Intf::fromText(Kiv::textOf(intf)), intf);
}

}  // namespace
