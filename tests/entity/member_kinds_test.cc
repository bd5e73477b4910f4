// The member kinds beyond plain attributes and value collections, on the sample Tree and Branch;
// constants and mount paths.
#include <gtest/gtest.h>

#include "entitygen_sample/sample.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace Sample;
using Log = std::vector<std::string>;

struct TreeRecorder : Tree::NotifieeConst {
  explicit TreeRecorder(Log* log) : log(log) {}
  void onRoot() override { log->push_back("root"); }
  void onShade() override { log->push_back("shade"); }
  void onEntries(const uint32_t& k) override { log->push_back("entries " + std::to_string(k)); }
  void onEntrieskivImmediate() override { log->push_back("entries immediate"); }
  void onEntries() override { log->push_back("entries all"); }
  Log* log;
};

class TreeTest : public testing::Test {
 protected:
  void SetUp() override { rec.notifierIs(tree); }
  Kiv::Ptr<Leaf> root = LeafIs("root");
  Kiv::Ptr<Tree> tree = treeFactory(4, root);
  Log log;
  TreeRecorder rec{&log};
};

TEST_F(TreeTest, ValidReferenceRefusesNullAndCountsItsTarget) {
  EXPECT_EQ(tree->root(), root);
  EXPECT_EQ(root->references(), 2u);
  EXPECT_THROW_TEXT(tree->rootIs(nullptr), Kiv::RangeException, "null ValidPtr");
  EXPECT_THROW_TEXT(treeFactory(1, Kiv::Ptr<Leaf>()), Kiv::RangeException, "null ValidPtr");
  EXPECT_EQ(tree->root(), root);
  tree->rootIs(root);  // the same target: nobody hears
  Kiv::Ptr<Leaf> other = LeafIs("other");
  tree->rootIs(other);
  EXPECT_EQ(log, (Log{"root"}));
  EXPECT_EQ(root->references(), 1u);
}

TEST_F(TreeTest, PlainReferenceAndBackPointer) {
  Kiv::Ptr<Holder> holder = HolderIs("h");
  tree->shadeIs(holder);
  tree->shadeIs(holder);
  tree->forestIs(holder.ptr());  // not counted, not notified
  EXPECT_EQ(holder->references(), 2u);
  EXPECT_EQ(log, (Log{"shade"}));
  EXPECT_FALSE(tree->isDefault());
  tree->reset();
  EXPECT_EQ(holder->references(), 1u);
  EXPECT_EQ(tree->forest(), holder.ptr());  // reset leaves what it does not list
  EXPECT_TRUE(tree->isDefault());
}

TEST_F(TreeTest, CrossAttributeCheckRefusesBeforeAnythingIsStored) {
  EXPECT_THROW_TEXT(treeFactory(0, root), Kiv::RangeException, "Tree too low");
  EXPECT_THROW_TEXT(tree->lateIs(true), Kiv::RangeException, "Tree too low");  // 4 is too low to be late
  EXPECT_FALSE(tree->late());
  Kiv::Ptr<Tree> tall = treeFactory(5, root);
  tall->lateIs(true);
  EXPECT_TRUE(tall->late());
}

TEST_F(TreeTest, ChildrenKeyedByAValueAreNamedByItsText) {
  Kiv::Ptr<Leaf> leaf = tree->byVlanIs(Bridging::VlanId(10));
  EXPECT_EQ(leaf->name(), Kiv::Name("10"));
  EXPECT_EQ(leaf->parent(), tree.ptr());
  EXPECT_EQ(tree->byVlanIs(Bridging::VlanId(10)), leaf);
  for (const char* n : {"c", "a", "b"}) tree->sortedLeafIs(n);
  std::string order;
  for (const auto& [name, child] : tree->sortedLeaf()) order += name.stdString();
  EXPECT_EQ(order, "abc");
}

// A path per address family; a tree's takes its VRF and application.
TEST(MountPathTest, DeclaredPathsByFamily) {
  const Orvet::AddressFamily v4(1), v6(2);
  const L3::VrfName red("red");
  EXPECT_EQ(Holder::mountPath(v4), "sample/holder");
  EXPECT_EQ(Holder::mountPath(v6), "sample6/holder");
  EXPECT_EQ(Tree::mountPath(v4, red, "pim"), "sample/tree/red/pim");
  EXPECT_EQ(Tree::mountPath(v6, red, "pim"), "sample6/tree/red/pim");
  EXPECT_ASSERTION(Tree::mountPath(Orvet::AddressFamily(0), red, "pim"), "false && \"Unsupported address family\"");
}

// Constants are read without an entity, as described.
TEST(ConstantTest, ValuesAsDescribed) {
  EXPECT_TRUE(Holder::flagDefault());
  EXPECT_EQ(Kiv::textOf(Tree::prefixGroup()), "224.0.0.0/4");
}

class TreeTableTest : public TreeTest {
 protected:
  void SetUp() override {
    TreeTest::SetUp();
    tree->mountTables(loop, "sample/tree", Brume::BrumeType::writer);
  }
  Testing::ShmRootScope shm{"tree"};
  Mroute::Loop::EventLoop loop;
};

TEST_F(TreeTableTest, TableOperationsNotifyOnlyOnChangeAndNeedAMount) {
  tree->entriesIs(Entry(1, 5));
  tree->entriesIs(Entry(1, 5));
  tree->newEntries(Entry(1, 5));  // the generated insertion always tells
  EXPECT_EQ(tree->entriesDel(9), Entry());
  EXPECT_EQ(tree->entriesDel(1), Entry(1, 5));
  EXPECT_EQ(log, (Log{"entries 1", "entries 1", "entries 1"}));
  EXPECT_EQ(tree->entriesDelCount(), 2u);
  log.clear();
  tree->entriesNotify(4);
  tree->entriesNotifyCollection();
  EXPECT_EQ(log, (Log{"entries 4", "entries immediate", "entries all"}));
  // Unmounted, the table reads empty and writing asserts.
  tree->unmountTables();
  EXPECT_EQ(tree->entries(1), Entry());
  EXPECT_EQ(tree->entries().begin(), tree->entries().end());
  EXPECT_ASSERTION(tree->entriesIs(Entry(1, 1)), "front_ != nullptr && \"table not mounted\"");
}

struct BranchRecorder : Branch::NotifieeConst {
  void onWeight() override { log.push_back("weight"); }
  void onLength() override { log.push_back("length"); }
  Log log;
};

TEST(BranchTest, InheritedAttributesNotifyTheDerivedNotifiee) {
  Kiv::Ptr<Branch> branch = BranchIs("b");
  BranchRecorder rec;
  rec.notifierIs(branch);
  branch->weightIs(1);
  branch->lengthIs(9);
  EXPECT_EQ(rec.log, (Log{"weight", "length"}));
  EXPECT_EQ(rec.notifier(), branch);
  // A notifiee of the base hears the base's attributes only.
  struct LeafRecorder : Leaf::NotifieeConst {
    void onWeight() override { ++weights; }
    int weights = 0;
  } leafRec;
  leafRec.notifierIs(Kiv::Ptr<const Leaf>(branch));
  branch->lengthIs(8);
  branch->weightIs(2);
  EXPECT_EQ(leafRec.weights, 1);
  rec.log.clear();
  // The hand-written setter cuts to reach() and keeps its count in its state.
  branch->lengthIs(150);
  branch->lengthIs(100);
  EXPECT_EQ(branch->length(), 100);
  EXPECT_EQ(branch->cuts(), Sample::Weight(1));
  EXPECT_EQ(rec.log, (Log{"length"}));
}

}  // namespace
