// Application interfaces: the interface set is a counted reference shared by
// VRF collections, not a child of any of them.
#include <gtest/gtest.h>

#include "mroute/entities/apps/app_intfs.h"

namespace {

using namespace McastCommon;

struct Recorder : VrfIntfColl::NotifieeConst {
  void onIntfs() override { ++calls; }
  int calls = 0;
};

TEST(AppIntfsTest, IntfsIsNotifiesOnlyWhenTheTargetChangesAndASharedSetOutlivesACollection) {
  Kiv::Ptr<AppVrfIntfs> app = appVrfIntfsFactory("pim");
  Kiv::Ptr<VrfIntfColl> red = app->vrfIntfIs(L3::VrfName("red"));
  EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
  Kiv::Ptr<MulticastIntfsForApplications> set = multicastIntfsForApplicationsFactory("set");
  Recorder rec;
  rec.notifierIs(red);
  red->intfsIs(set);
  red->intfsIs(set);
  EXPECT_EQ(rec.calls, 1);
  EXPECT_EQ(set->references(), 2u);
  red->intfsIs(nullptr);
  EXPECT_EQ(rec.calls, 2);
  EXPECT_EQ(set->references(), 1u);

  // Deleting a collection keeps a set that others still use.
  app = AppVrfIntfsIs("pim");
  set = MulticastIntfsForApplicationsIs("set");
  set->multicastIntfIs(Orvet::IntfId::fromText("Ethernet1"), true);
  app->vrfIntfIs(L3::VrfName("red"))->intfsIs(set);
  app->vrfIntfIs(L3::VrfName("blue"))->intfsIs(set);
  app->vrfIntfDel(L3::VrfName("red"));
  EXPECT_EQ(set->references(), 2u);
  EXPECT_EQ(app->vrfIntf(L3::VrfName("blue"))->intfs(), set);
  EXPECT_EQ(vrfIntfCollFactory("x", L3::VrfName("green"))->vrfName(), L3::VrfName("green"));
  EXPECT_EQ(AppVrfIntfs::mountPath(Orvet::AddressFamily(2)), "multicastIntfs6/application");
}

}  // namespace
