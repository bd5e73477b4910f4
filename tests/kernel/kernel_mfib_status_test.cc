#include "mroute/kernel/kernel_mfib_status.h"

#include <gtest/gtest.h>

#include "kernel/fake_mrt_sys.h"
#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/vif_intf_map.h"
#include "mroute/runtime/loop/event_loop.h"

namespace Routing::KernelMfib {
namespace {

using Orvet::IntfId;

TEST(KernelMfibStatusTest, MountPathsByFamilyAndAFreshCollectionHoldsTheDefaultVrf) {
  EXPECT_EQ(StatusColl::mountPath(Orvet::ipv4()), "routing/kernelmfib/status");
  EXPECT_EQ(StatusColl::mountPath(Orvet::ipv6()), "routing6/kernelmfib/status");
  Kiv::Ptr<StatusColl> coll = StatusCollIs("kernelMfibStatus");
  ASSERT_EQ(coll->vrfStatus().size(), 1u);
  Kiv::Ptr<Status> def = coll->vrfStatus("default");
  ASSERT_TRUE(def);
  EXPECT_EQ(def->parent(), coll.ptr());
  EXPECT_EQ(def->name(), Kiv::Name("default"));
}

TEST(KernelMfibStatusTest, UpcallVifIsMappedThroughThePublishedStatus) {
  Kiv::Ptr<StatusColl> coll = StatusCollIs("kernelMfibStatus");
  Kiv::Ptr<Status> red = coll->vrfStatusIs("red");
  red->vifStatusCollIs(IntfId("Ethernet7"), 3);
  red->intfIdCollIs(3, IntfId("Ethernet7"));
  EXPECT_TRUE(red->intfIdColl(4).isNull());

  StatusVifIntfMap vifs(red);
  Mroute::Loop::EventLoop loop;
  Mroute::Brevet brevet("Test", 8);
  Orvet::PktManager pkts(2048, 4);
  auto mgr = Routing::Multicast::Notify::MrtNotifyPamManager::MrtNotifyPamManagerIs(
      Orvet::ipv4(), "", loop, Routing::Multicast::Notify::MrtUpcallSource::deviceKernel, brevet);
  Kiv::Ptr<Orvet::Pkt> pkt = Routing::Multicast::Notify::fake::pktOf(
      pkts, Routing::Multicast::Notify::fake::upcall(1, 3, {10, 0, 0, 1}, {239, 1, 1, 1}));
  mgr->readMrtMessage(pkt, vifs);
  EXPECT_EQ(mgr->noCacheMessage()->intfId(), IntfId("Ethernet7"));
  red->intfIdCollDel(3);
  mgr->readMrtMessage(pkt, vifs);
  EXPECT_TRUE(mgr->noCacheMessage()->intfId().isNull());
}

}  // namespace
}  // namespace Routing::KernelMfib
