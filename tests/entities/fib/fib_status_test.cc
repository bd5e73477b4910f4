// The FIB status entities: the ready status's per-mode path, the counter
// control's start values, the counter table that follows its entity's place
// in the tree, and the route interface value.
#include <gtest/gtest.h>

#include <sstream>

#include "mroute/entities/fib/fib_status.h"
#include "mroute/entities/fib/vrf_config.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace Routing::Multicast::Fib;

template <class T>
std::string text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

TEST(ReadyStatusTest, SparseModeIsTheDevicePathInTheDefaultCellAndOtherModesArePathElements) {
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(2), "sparsemode"), "cell/0/routing6/multicast/fibready/status");
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(1), "sparsemode"), "cell/0/routing/multicast/fibready/status");
  EXPECT_EQ(ReadyStatus::mountPath(Orvet::AddressFamily(1), "bidir"), "routing/multicast/fibready/bidir/status");
  EXPECT_ASSERTION(ReadyStatus::mountPath(Orvet::AddressFamily(5), "bidir"),
                   "false && \"Unsupported address family\"");
}

TEST(FibStatusTest, SettingAMemberTwiceNotifiesOnce) {
  struct Recorder : VrfEnabledStatus::NotifieeConst {
    void onVrf(const L3::VrfName&) override { ++calls; }
    using VrfEnabledStatus::NotifieeConst::onVrf;
    int calls = 0;
  } rec;
  Kiv::Ptr<VrfEnabledStatus> enabled = VrfEnabledStatusIs("enabled");
  rec.notifierIs(enabled);
  enabled->vrfIs(L3::VrfName("red"), true);
  enabled->vrfIs(L3::VrfName("red"), true);
  EXPECT_EQ(rec.calls, 1);
  EXPECT_EQ(VrfEnabledStatus::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/fibenabled/status");
}

TEST(CounterStatusCtlTest, StartsAtNoneAndZeroUnlikeTheConfiguredMode) {
  Kiv::Ptr<CounterStatusCtl> ctl = CounterStatusCtlIs("ctl");
  EXPECT_EQ(ctl->mode(), CounterMode::None);
  EXPECT_EQ(VrfConfig::counterModeDefault(), CounterMode::byteMode);
  EXPECT_EQ(ctl->currSizeInc(3), 3u);
  EXPECT_EQ(ctl->currSizeDec(1), 2u);
  EXPECT_FALSE(ctl->isDefault());
  ctl->reset();
  EXPECT_TRUE(ctl->isDefault());
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

TEST(IntfTest, FlagsPrintUnderTheInterfaceNameAndRefuseHighBits) {
  IntfFlags flags;
  flags.forwardIs(true);
  flags.frrIs(true);
  EXPECT_EQ(text(flags), "Value('Routing::Multicast::Fib::Intf::IntfFlags', ** {'forward': True, 'accept': False, "
                         "'notify': False, 'noRpf': False, 'fastdrop': False, 'frr': True})");
  EXPECT_THROW_TEXT(IntfFlags(0x40), Kiv::RangeException, "IntfFlags::value > 0x3f not allowed");
  const Intf intf(Orvet::IntfId::fromText("Ethernet1"), flags);
  EXPECT_EQ(Intf::fromText(text(intf)), intf);
}

}  // namespace
