#include "mroute/entity/kiv/string.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "mroute/entity/kiv/hash_map.h"

namespace {

TEST(StringTest, TextFormIsSingleQuotedAndReadsBack) {
  Kiv::Name n("Ethernet1");
  EXPECT_EQ(Kiv::textOf(n), "'Ethernet1'");
  Kiv::String8 tricky("it's");
  EXPECT_EQ(Kiv::textOf(tricky), "'it\\'s'");
  EXPECT_EQ(Kiv::TextTraits<Kiv::String8>::read(Kiv::textOf(tricky)), tricky);
  std::ostringstream os;
  os << n;
  EXPECT_EQ(os.str(), "Ethernet1");
}

TEST(StringTest, ComparesAndHashesByContent) {
  EXPECT_LT(Kiv::Name("a"), Kiv::Name("b"));
  std::unordered_set<Kiv::String> set{"x", "y"};
  EXPECT_EQ(set.count(Kiv::String(std::string("x"))), 1u);
}

TEST(KeyedCollectionTest, LookupDoesNotInsertAndTreeIteratesInKeyOrder) {
  Kiv::HashMap<Kiv::Name, int> h;
  EXPECT_EQ(h.lookup("a"), nullptr);
  EXPECT_TRUE(h.empty());
  h.emplace("a", 1);
  EXPECT_EQ(*h.lookup("a"), 1);
  Kiv::RbTreeMap<int, int> t{{3, 0}, {1, 0}, {2, 0}};
  int last = 0;
  for (auto& [k, v] : t) {
    EXPECT_GT(k, last);
    last = k;
  }
  EXPECT_EQ(t.lookup(4), nullptr);
}

}  // namespace
