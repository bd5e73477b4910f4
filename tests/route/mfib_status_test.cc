// An application's MFIB table set: its route and oif-index tables, paths and the per-VRF collection.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "testing/expect_assert.h"
#include "mroute/bitmapper/brume_status.h"
#include "mroute/route/mfib_status.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace Brume::Multicast::Fib;
using Routing::Multicast::Fib::IpGenRouteKey;
using Log = std::vector<std::string>;

IpGenRouteKey routeKey(const char* source, const char* group) {
  return IpGenRouteKey(Orvet::IpGenPrefix::fromText(source), Orvet::IpGenPrefix::fromText(group));
}

struct Recorder : Status::NotifieeConst {
  explicit Recorder(Log* log) : log(log) {}
  void onRoute(const IpGenRouteKey& k) override { log->push_back("route " + k.s().text() + " " + k.g().text()); }
  void onRoutekivImmediate() override { log->push_back("route immediate"); }
  void onRoute() override { log->push_back("route all"); }
  void onBitMapperBrumeStatus() override { log->push_back("bitMapper"); }
  Log* log;
};

class MfibStatusTest : public testing::Test {
 protected:
  void SetUp() override {
    status->mountTables(loop, Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("red"), "pim"),
                        Brume::BrumeType::writer);
    rec.notifierIs(status);
  }
  Testing::ShmRootScope root{"mfibstatus"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<Status> status = StatusIs("pim");
  Log log;
  Recorder rec{&log};
  const IpGenRouteKey key = routeKey("10.0.0.0/24", "232.1.1.1/32");
};

// A delete returns the record it removed (an unset key when there was none),
// tells notifiees only of a real change, and counts every call.
TEST_F(MfibStatusTest, DeletesReturnTheRecordAndNotifyOnlyRealChanges) {
  EXPECT_EQ(status->routeDel(key).key(), IpGenRouteKey());
  EXPECT_TRUE(log.empty());
  Route r(key);
  r.versionIs(4);
  status->routeIs(r);
  status->routeIs(r);  // the same value: no change
  EXPECT_EQ(status->routeDel(key), r);
  EXPECT_EQ(log, (Log{"route 10.0.0.0/24 232.1.1.1/32", "route 10.0.0.0/24 232.1.1.1/32"}));
  EXPECT_EQ(status->route(key), Route());
  EXPECT_EQ(status->routeDelCount(), 2u);

  status->routeIs(Route(key));
  status->routeIs(Route(routeKey("0.0.0.0/0", "239.1.1.1/32")));
  log.clear();
  status->routeDelAll();
  EXPECT_EQ(log.size(), 2u);
  EXPECT_EQ(status->route().size(), 0u);
  EXPECT_EQ(status->routeDel(status->route().end()).key(), IpGenRouteKey());  // an exhausted iterator
  EXPECT_EQ(log.size(), 2u);
}

// Each table counts its own deletes and commits.
TEST_F(MfibStatusTest, DirectWriteIsPublishedByCommitAndCommitWithoutASlotAsserts) {
  Route* slot = status->routeDirectIs(key);
  *slot = Route(key);
  slot->versionIs(9);
  status->routeCommit(slot);
  EXPECT_EQ(status->route(key).version(), 9u);
  EXPECT_EQ(status->routeCommitCount(), 1u);
  EXPECT_EQ(log, (Log{"route 10.0.0.0/24 232.1.1.1/32"}));
  EXPECT_ASSERTION(status->routeCommit(slot), "BrumeMap::directCommit() in no man's land");
  // The oif-index table counts its deletes and commits on its own.
  const OifIndex three(3);
  status->oifIndexIntfDel(three);
  OifIndexIntf* oifSlot = status->oifIndexIntfDirectIs(three);
  *oifSlot = OifIndexIntf(three, Orvet::IntfId("Ethernet7"), 1);
  status->oifIndexIntfCommit(oifSlot);
  EXPECT_EQ(status->oifIndexIntfDelCount(), 1u);
  EXPECT_EQ(status->oifIndexIntfCommitCount(), 1u);
  EXPECT_EQ(status->routeDelCount(), 0u);
  EXPECT_EQ(status->routeCommitCount(), 1u);
  EXPECT_EQ(status->oifIndexIntf(three).intf(), Orvet::IntfId("Ethernet7"));
}

// A commit whose notification queue turns out corrupt still publishes the key
// to the notifiees and hands the finding to the table's corruption handler.
TEST_F(MfibStatusTest, CommitIntoACorruptQueueRunsTheHandlerAndStillAnnounces) {
  status->routeIs(Route(key));
  // The first queue entry's slot word (header 72 bytes, slot at 8 in the
  // 12-byte entry) no longer names the slot it was written for.
  const std::string dir = std::string(std::getenv("MROUTE_SHM_ROOT")) + "/" +
                          Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("red"), "pim") + "/route/";
  for (const char* file : {"conquer.1", "conquer.2"}) {
    std::fstream f(dir + file, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(f.is_open()) << dir + file;
    const uint32_t bogus = 0x7ffffff0u;
    f.seekp(72 + 8);
    f.write(reinterpret_cast<const char*>(&bogus), sizeof bogus);
  }
  std::vector<std::string> found;
  status->route().onCorruptionIs([&](const std::string& what) { found.push_back(what); });
  log.clear();
  Route* slot = status->routeDirectIs(key);
  slot->versionIs(2);
  status->routeCommit(slot);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_NE(found[0].find("conquer slot mismatch"), std::string::npos) << found[0];
  EXPECT_EQ(log, (Log{"route 10.0.0.0/24 232.1.1.1/32"}));
  EXPECT_EQ(status->routeCommitCount(), 1u);
}

TEST_F(MfibStatusTest, ReaderLearnsChangesAsKeysAndReadinessAsTheCollection) {
  Kiv::Ptr<Status> reader = StatusIs("pim");
  Log readLog;
  Recorder readRec(&readLog);
  readRec.notifierIs(reader);
  status->routeIs(Route(key));
  reader->mountTables(loop, Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("red"), "pim"),
                      Brume::BrumeType::shadow);
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return reader->route(key) == Route(key); }));
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return !readLog.empty() && readLog.back() == "route all"; }));
  readLog.clear();
  status->routeDel(key);
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return !readLog.empty(); }));
  EXPECT_EQ(readLog, (Log{"route 10.0.0.0/24 232.1.1.1/32"}));
  EXPECT_EQ(reader->route(key), Route());
}

TEST_F(MfibStatusTest, BitMapperReferenceNotifiesOnlyWhenTheTargetChanges) {
  Kiv::Ptr<BitMapper::BrumeStatus> bits = BitMapper::BrumeStatusIs("bits");
  status->bitMapperBrumeStatusIs(bits);
  status->bitMapperBrumeStatusIs(bits);
  EXPECT_EQ(log, (Log{"bitMapper"}));
  EXPECT_EQ(bits->references(), 2u);  // counted: the entity holds one
  status->reset();
  EXPECT_EQ(bits->references(), 1u);
  EXPECT_TRUE(status->isDefault());
}

TEST(MfibStatusPathTest, PathsByFamilyVrfAndApplication) {
  EXPECT_EQ(Status::mountPath(Orvet::AddressFamily(2), L3::VrfName("red"), "pim"),
            "routing6/multicast/routestatus/red/pim");
  EXPECT_EQ(Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("default"), "igmp"),
            "routing/multicast/routestatus/default/igmp");
  EXPECT_ASSERTION(Status::mountPath(Orvet::AddressFamily(3), L3::VrfName("red"), "pim"),
                   "false && \"Unsupported address family\"");
}

// The bidirectional table set: both tables, keyed by group prefix and by
// interface, delete, commit and count each on their own.
TEST(BidirStatusTest, EachTableDeletesCommitsAndCountsOnItsOwn) {
  struct BidirLog : BidirStatus::NotifieeConst {
    void onBidirGroup(const Orvet::IpGenPrefix& k) override { log.push_back("group " + k.text()); }
    void onDfProfile(const Orvet::IntfId& k) override { log.push_back("df " + k.name()); }
    Log log;
  };
  Testing::ShmRootScope root{"bidirstatus"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BidirStatus> bidir = BidirStatusIs("pim");
  bidir->mountTables(loop, "routing/multicast/bidirstatus/red/pim", Brume::BrumeType::writer);
  BidirLog rec;
  rec.notifierIs(bidir);
  const Orvet::IpGenPrefix group = Orvet::IpGenPrefix::fromText("239.0.0.0/8");
  const Orvet::IntfId intf("Ethernet4");

  EXPECT_EQ(bidir->bidirGroupDel(group).key(), Orvet::IpGenPrefix());
  EXPECT_EQ(bidir->dfProfileDel(intf).key(), Orvet::IntfId());
  EXPECT_TRUE(rec.log.empty());
  const BidirGroup g(group, RpaIndex(3));
  bidir->bidirGroupIs(g);
  DfProfile* df = bidir->dfProfileDirectIs(intf);
  *df = DfProfile(intf, 0x5);
  bidir->dfProfileCommit(df);
  EXPECT_EQ(bidir->dfProfile(intf).dfBitmap(), 0x5u);
  EXPECT_EQ(bidir->bidirGroupDel(group), g);
  EXPECT_EQ(rec.log, (Log{"group 239.0.0.0/8", "df Ethernet4", "group 239.0.0.0/8"}));
  EXPECT_EQ(bidir->bidirGroupDelCount(), 2u);
  EXPECT_EQ(bidir->dfProfileDelCount(), 1u);
  EXPECT_EQ(bidir->bidirGroupCommitCount(), 0u);
  EXPECT_EQ(bidir->dfProfileCommitCount(), 1u);
  bidir->unmountTables();
}

TEST(VrfStatusTest, StatusByVrfHoldsReferences) {
  Kiv::Ptr<VrfStatus> vrfs = VrfStatusIs("pim");
  Kiv::Ptr<Status> red = StatusIs("red");
  vrfs->statusIs(L3::VrfName("red"), red);
  EXPECT_EQ(vrfs->status(L3::VrfName("red")), red);
  EXPECT_EQ(vrfs->status(L3::VrfName("blue")), nullptr);
  vrfs->statusIs(L3::VrfName("blue"), StatusIs("blue"));
  struct VrfLog : VrfStatus::NotifieeConst {
    void onStatus(const L3::VrfName& vrf) override { log.push_back(vrf.str()); }
    Log log;
  } rec;
  rec.notifierIs(vrfs);
  vrfs->statusDel(L3::VrfName("green"));  // missing: nobody is told
  vrfs->statusDel(L3::VrfName("red"));
  EXPECT_EQ(red->references(), 1u);
  vrfs->statusDelAll();
  EXPECT_EQ(rec.log, (Log{"red", "blue"}));
  EXPECT_TRUE(vrfs->isDefault());
}

}  // namespace
