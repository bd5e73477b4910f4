// Replication of what is not a plain value: inherited attributes, references, constructor attributes,
// shared tables, the read-only proxy; and the mount-path table.
#include <set>
#include <string>

#include "entitygen_sample/sample.h"
#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/entity/replication/entity_mount.h"
#include "mroute/entity/replication/mount_types.h"
#include "mroute/kivbrume/attach_on_parent.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace Kiv::NboAttrLog {
namespace {

using Mroute::Loop::EventLoop;
using namespace Sample;

class TreeReplicationTest : public ::testing::Test {
 protected:
  bool synced(const ReaderMount& m) {
    return Testing::runUntil(loop, [&] { return m.synced(); });
  }

  Testing::ShmRootScope shm{"treerepl"};
  EventLoop loop;
};

TEST_F(TreeReplicationTest, DerivedEntityCarriesItsInheritedAttributes) {
  Ptr<Branch> w = new Branch("b");
  w->weightIs(9);
  w->lengthIs(4);
  WriterMount writer(loop, "sample/branch", w, Branch::KivNboAttrLogSa::logType());
  Ptr<Branch> r = new Branch("b");
  ReaderMount reader(loop, "sample/branch", r, Branch::KivNboAttrLogSa::logType());
  ASSERT_TRUE(synced(reader));
  EXPECT_EQ(r->weight(), 9u);
  EXPECT_EQ(r->length(), 4);
  w->weightIs(11);
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return r->weight() == 11u; }));
}

TEST_F(TreeReplicationTest, ReferencesConstructorAttributesAndTablesTravelAsWhereTheyAre) {
  // Another tree mounted in this process: the reader's own mount of it is
  // what a reference to the writer's root resolves to.
  Ptr<Holder> wHolder = new Holder("holder");
  WriterMount holderWriter(loop, "sample/holder", wHolder, Holder::KivNboAttrLogSa::logType());
  Ptr<Holder> rHolder = new Holder("holder");
  ReaderMount holderReader(loop, "sample/holder", rHolder, Holder::KivNboAttrLogSa::logType());

  Ptr<Tree> w = new Tree("tree", 3, new Leaf("spare"));
  w->rootIs(w->byVlanIs(5));  // ahead of its entity in the tree's order
  w->shadeIs(wHolder);
  w->entryIs(Entry(7, 2));
  w->mountTables(loop, "sample/tree/red/pim", Brume::BrumeType::writer);
  w->entriesIs(Entry(1, 40));
  WriterMount writer(loop, "sample/tree/red/pim", w, Tree::KivNboAttrLogSa::logType());

  KivBrume::attachContextIs(&loop, Brume::BrumeType::reader);
  Ptr<Tree> r = new Tree("tree", 3, new Leaf("spare"));
  ReaderMount reader(loop, "sample/tree/red/pim", r, Tree::KivNboAttrLogSa::logType());
  ASSERT_TRUE(synced(reader));
  ASSERT_TRUE(r->byVlan(5));
  EXPECT_TRUE(r->root() == r->byVlan(5));  // the reader's own child, not a copy
  EXPECT_TRUE(r->shade() == rHolder);
  EXPECT_EQ(r->entry(7), Entry(7, 2));
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return r->entries(1) == Entry(1, 40); }));  // rows come by the table
  // Tables unmounted and mounted elsewhere after the reader is connected follow.
  w->unmountTables();
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return !r->entries().mounted(); }));
  w->mountTables(loop, "sample/tree/blue/pim", Brume::BrumeType::writer);
  w->entriesIs(Entry(2, 50));
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return r->entries(2) == Entry(2, 50); }));
  EXPECT_EQ(r->entries().front()->mountPath(), "sample/tree/blue/pim");
  w->shadeIs(nullptr);
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return !r->shade(); }));

  // A reader built with another constructor attribute is refused, by name.
  Mroute::Trace::CaptureSink traces;
  Ptr<Tree> other = new Tree("tree", 4, new Leaf("spare"));
  ReaderMount refused(loop, "sample/tree/red/pim", other, Tree::KivNboAttrLogSa::logType());
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return refused.connections() >= 2; }));
  EXPECT_FALSE(refused.synced());
  EXPECT_TRUE(traces.contains("Mroute::AttrLog", "constructor attribute of tree is 4 here, 3 at the writer"));
  KivBrume::attachContextIs(nullptr, Brume::BrumeType::writer);
}

TEST_F(TreeReplicationTest, ReadOnlyProxyRefusesBeforeStoringUnlessConverted) {
  Ptr<Holder> w = new Holder("holder");
  WriterMount writer(loop, "sample/holder", w, Holder::KivNboAttrLogSa::logType());
  Ptr<Holder> r = new Holder("holder");
  ReaderMount reader(loop, "sample/holder", r, Holder::KivNboAttrLogSa::logType());
  ASSERT_TRUE(synced(reader));
  EXPECT_THROW_TEXT(r->flagIs(false), Pavo::NoPermissionException, "write-update from readonly proxy: holder");
  EXPECT_THROW_TEXT(r->leafIs("new"), Pavo::NoPermissionException, "write-update from readonly proxy: holder");
  EXPECT_TRUE(r->flag());  // refused before it was stored
  EXPECT_FALSE(r->leaf("new"));
  reader.replica().convertibleIs(true);
  r->flagIs(false);
  r->leafIs("first")->weightIs(1);  // the whole tree was converted
  EXPECT_FALSE(r->flag());
  EXPECT_TRUE(reader.replica().converted());
}

// A mount path names the type to make and mount. Mounting an application's
// MFIB directory and following it is mfibdir/mfib_process_test.cc's; mounting
// by path alone, mroutectl_entity_test's.
TEST(MountTypesTest, EveryDeclaredAndComputedPathNamesItsType) {
  const std::pair<const char*, const char*> cases[] = {
      {"sample/holder", "Sample::Holder"},
      {"sample6/holder", "Sample::Holder"},
      {"sample/tree/red/pim", "Sample::Tree"},
      {"routing/multicast/fib", "Brume::Multicast::Fib::MfibDir"},
      {"routing6/multicast/fib/pim", "Brume::Multicast::Fib::MfibDir"},
  };
  for (const auto& [path, type] : cases) {
    const MountType* m = mountType(path);
    ASSERT_NE(m, nullptr) << path;
    EXPECT_EQ(std::string(m->type().name), type) << path;
    if (m->make != nullptr) {
      EXPECT_EQ(m->make(Name("x"))->fwkType().name, type) << path;
    }
  }
  // The path is served by the type's own attribute-log table.
  EXPECT_EQ(&mountType("routing6/multicast/fib/pim")->type(), &Brume::Multicast::Fib::MfibDir::KivNboAttrLogSa::logType());
  EXPECT_EQ(mountType("sample/tree/red"), nullptr);  // one element short
  EXPECT_EQ(mountType("sample/holder/x"), nullptr);
  EXPECT_EQ(mountType("sample/tree/red/pim")->make, nullptr);  // built only with constructor attributes

  // The sample registers the paths it declares, with a '*' for each computed
  // element, and nothing else; Leaf and Branch, declaring none, by name only.
  std::set<std::pair<std::string, std::string>> samplePatterns;
  for (const auto& p : mountPatterns()) {
    if (p.second.starts_with("Sample::")) samplePatterns.insert(p);
  }
  EXPECT_EQ(samplePatterns, (std::set<std::pair<std::string, std::string>>{
                                {"sample/holder", "Sample::Holder"},
                                {"sample6/holder", "Sample::Holder"},
                                {"sample/tree/*/*", "Sample::Tree"},
                                {"sample6/tree/*/*", "Sample::Tree"}}));
  for (const char* type : {"Sample::Leaf", "Sample::Branch"}) {
    const MountType* m = mountTypeNamed(type);
    ASSERT_NE(m, nullptr) << type;
    ASSERT_NE(m->make, nullptr) << type;
    EXPECT_EQ(m->make(Name("x"))->fwkType().name, type);
  }
}

}  // namespace
}  // namespace Kiv::NboAttrLog
