// The MFIB directory: the writer adding and deleting table sets, the reader mounting what it announces.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mfib_test_util.h"
#include "mroute/mfibdir/mfib_dir_sm.h"
#include "mroute/mfibdir/mfib_dir_writer.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"

namespace {

using namespace MfibTest;
using namespace Brume::Multicast::Fib;
using Texts = std::vector<std::string>;

const L3::VrfName kRed("red");
const L3::VrfName kDefault("default");
const std::string kPimRed = "routing/multicast/routestatus/red/pim";

class MfibDirTest : public testing::Test {
 protected:
  void SetUp() override {
    EXPECT_FALSE(writer.initialized());
    writer.handleInitialized();
    EXPECT_TRUE(writer.initialized());
    initTraces = traces();
  }
  Texts traces() {
    Texts t = sink.texts("Mroute::MfibBrume");
    sink.clear();
    return t;
  }
  Testing::ShmRootScope root{"mfibdir"};
  Mroute::Loop::EventLoop loop;
  Mroute::Trace::CaptureSink sink{"Mroute::MfibBrume"};
  MfibEntityManager manager{loop};
  Kiv::Ptr<MfibDirDirectory> directory = MfibDirDirectoryIs("directory");
  Kiv::Ptr<MfibBrumeDir> brumeDir = MfibBrumeDirIs("writer");
  MfibDirWriter writer{"pim", directory, brumeDir, manager};
  Texts initTraces;
};

// Initializing publishes the directory with its default collection; the
// first table set of a VRF creates both collections, a second neither.
TEST_F(MfibDirTest, InitializingPublishesTheDirectoryAndTheFirstTableSetOfAVrfItsCollections) {
  EXPECT_EQ(initTraces, (Texts{"MfibDirWriter::handleInitialized() for app pim",
                               "Created directory collection for default vrf default"}));
  EXPECT_EQ(directory->mfibDir(Kiv::Name("pim")), writer.mfibDir());
  EXPECT_NE(writer.mfibDir()->dirColl(kDefault), nullptr);
  Kiv::Ptr<Status> pim = writer.doAddBrume(kRed, "pim");
  EXPECT_EQ(traces(), (Texts{"MfibDirWriter::doAddBrume() vrf red application pim for app pim", "Mounted " + kPimRed,
                             "Created Brumed directory collection for vrf red",
                             "Created directory collection for vrf red",
                             "Added url " + kPimRed + " into mfibDir collection"}));
  Kiv::Ptr<Status> igmp = writer.doAddBrume(kRed, "igmp");
  EXPECT_EQ(traces(), (Texts{"MfibDirWriter::doAddBrume() vrf red application igmp for app pim",
                             "Mounted routing/multicast/routestatus/red/igmp",
                             "Added url routing/multicast/routestatus/red/igmp into mfibDir collection"}));
  EXPECT_EQ(writer.doAddBrume(kRed, "pim"), pim);  // already there
  EXPECT_EQ(writer.mfibBrume("igmp", kRed), igmp);
  EXPECT_EQ(writer.mfibBrume("igmp"), nullptr);  // not in the default VRF

  const auto& numbers = brumeDir->brumeColl(kRed)->brumePtr();
  ASSERT_EQ(numbers.size(), 2u);
  EXPECT_EQ(numbers.count(0), 0u);  // 0 is the "no winner" answer
  EXPECT_TRUE(writer.mfibDir()->dirColl(kRed)->brumeUrl(Kiv::String(kPimRed)));
  pim->routeIs(route(key("10.0.0.1/32", "232.0.0.1/32"), 3));
  EXPECT_EQ(brumeDir->brumeColl(kRed)->mfibBrume(key("10.0.0.1/32", "232.0.0.1/32")), pim);
}

TEST_F(MfibDirTest, LastTableSetOfAVrfDeletesBothCollectionsButTheDefaultDirectoryStays) {
  writer.doAddBrume(kRed, "pim");
  writer.doAddBrume(kRed, "igmp");
  writer.doAddBrume(kDefault, "pim");
  sink.clear();
  writer.doDelBrume(kRed, "igmp");
  EXPECT_EQ(traces(), (Texts{"MfibDirWriter::doDelBrume() vrf red application igmp for app pim",
                             "Unmounted routing/multicast/routestatus/red/igmp",
                             "Deleted url routing/multicast/routestatus/red/igmp from mfibDir collection"}));
  writer.doDelBrume(kRed, "pim");
  EXPECT_EQ(traces(), (Texts{"MfibDirWriter::doDelBrume() vrf red application pim for app pim", "Unmounted " + kPimRed,
                             "Deleted Brumed directory collection for vrf red",
                             "Deleted url " + kPimRed + " from mfibDir collection",
                             "Deleted directory collection for vrf red"}));
  EXPECT_EQ(brumeDir->brumeColl(kRed), nullptr);
  EXPECT_EQ(writer.mfibDir()->dirColl(kRed), nullptr);

  writer.doDelBrume(kDefault, "pim");
  EXPECT_EQ(brumeDir->brumeColl(kDefault), nullptr);
  ASSERT_NE(writer.mfibDir()->dirColl(kDefault), nullptr);
  EXPECT_TRUE(writer.mfibDir()->dirColl(kDefault)->brumeUrl().empty());
  EXPECT_EQ(writer.mfibBrume("pim"), nullptr);
}

TEST_F(MfibDirTest, BitMapperStatusIsAnnouncedBesideTheTableSets) {
  Kiv::Ptr<BitMapper::BrumeStatus> bits = writer.doAddBitMapperBrume(kRed, "bitmapper");
  const std::string path = "routing/multicast/bitmapperstatus/red/bitmapper";
  EXPECT_EQ(traces(), (Texts{"MfibDirWriter::doAddBitMapperBrume() vrf red application bitmapper for app pim",
                             "Mounted " + path, "Created directory collection for vrf red",
                             "Added bitmapper url " + path + " into mfibDir collection"}));
  EXPECT_EQ(writer.mfibBitMapperBrume("bitmapper", kRed), bits);
  EXPECT_EQ(writer.mfibDir()->dirColl(kRed)->bitMapperBrumeUrl(), Kiv::String(path));
  EXPECT_EQ(brumeDir->brumeColl(kRed), nullptr);  // not a route table set
  writer.doDelBitMapperBrume(kRed, "bitmapper");
  EXPECT_EQ(writer.mfibDir()->dirColl(kRed), nullptr);
  EXPECT_EQ(writer.mfibBitMapperBrume("bitmapper", kRed), nullptr);
}

TEST_F(MfibDirTest, ReaderMountsAnnouncedTableSetsAndDropsWithdrawnOnes) {
  const IpGenRouteKey k = key("10.0.0.1/32", "232.0.0.1/32");
  writer.doAddBrume(kRed, "pim")->routeIs(route(k, 1));
  sink.clear();
  Kiv::Ptr<MfibBrumeDir> readDir = MfibBrumeDirIs("reader");
  std::unique_ptr<MfibDirSm> sm = mfibDirSmFactory(directory, readDir, manager);
  sm->handleMfibDir();
  EXPECT_EQ(traces(), (Texts{"Created Mfib directory pim", "Mounted " + kPimRed,
                             "Created Brumed directory collection for vrf red"}));
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return readDir->brumeColl(kRed)->route(k) == route(k, 1); }));
  // A table set announced while the reader runs, then withdrawn.
  writer.doAddBrume(kRed, "igmp")->routeIs(route(k, 2));
  EXPECT_EQ(readDir->brumeColl(kRed)->route(k), route(k, 2));
  writer.doDelBrume(kRed, "igmp");
  EXPECT_EQ(readDir->brumeColl(kRed)->brumePtr().size(), 1u);
  EXPECT_EQ(readDir->brumeColl(kRed)->route(k), route(k, 1));
  // A VRF collection that goes takes its table sets along.
  writer.doAddBrume(kDefault, "pim");
  writer.mfibDir()->dirCollDel(kRed);
  EXPECT_EQ(sm->appDirSm(Kiv::Name("pim"))->mfibColl(kRed), nullptr);
  EXPECT_EQ(readDir->brumeColl(kRed), nullptr);
  sink.clear();
  // So does the application's whole directory.
  directory->mfibDirDel(Kiv::Name("pim"));
  EXPECT_EQ(traces(), (Texts{"Deleted Mfib directory pim", "Unmounted routing/multicast/routestatus/default/pim",
                             "Deleted Brumed directory collection for vrf default"}));
  EXPECT_EQ(sm->appDirSm(Kiv::Name("pim")), nullptr);
}

TEST(MfibDirProgrammingErrorTest, NullArgumentsAndUnknownFamiliesAreRefusedWithTheirTexts) {
  Mroute::Loop::EventLoop loop;
  MfibEntityManager manager{loop};
  MfibDirSm sm(MfibDirDirectoryIs("d"), MfibBrumeDirIs("b"), manager);
  MfibDirSm::AppDirSm app(sm);
  EXPECT_THROW_TEXT(app.mfibAppDirIs(nullptr), Kiv::RangeException,
                    "null _mfibAppDir parameter to mutator for Brume::Multicast::Fib::MfibDirSm::mfibAppDir not "
                    "allowed\"");
  EXPECT_THROW_TEXT(app.appDirIs(nullptr), Kiv::RangeException,
                    "null _appDir parameter to mutator for Brume::Multicast::Fib::MfibDirSm::appDir not allowed\"");
  EXPECT_EQ(MfibDir::mountPath(Orvet::AddressFamily(1)), "routing/multicast/fib");
  EXPECT_EQ(MfibDir::mountPath(Orvet::AddressFamily(2)), "routing6/multicast/fib");
}

}  // namespace
