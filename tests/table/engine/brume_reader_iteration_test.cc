// BrumeReader::forEach while the bucket count crosses the size of its
// read-ahead block (eight buckets): a walk that starts with the read-ahead
// and finds the table shrunk below a block, and one that starts without it
// and finds the table grown past many blocks, both return each entry present
// throughout exactly once, in first()/next() order.
#include "mroute/table/engine/brume_reader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <vector>

#include "table/table_test_util.h"

namespace {

using namespace TableTest;

class ReaderIterationTest : public ::testing::Test {
 protected:
  // The walk order of first()/next() on the table as it stands.
  static std::vector<uint64_t> order(Reader& r) {
    std::vector<uint64_t> keys;
    RecordValue out;
    for (bool more = r.first(out); more; more = r.next(out.value.key, out)) keys.push_back(out.value.key);
    return keys;
  }

  TableTest::TempRoot dir_{"reader-iteration"};
};

TEST_F(ReaderIterationTest, ForEachFollowsTheBucketCountAcrossTheReadAheadBlock) {
  Writer w(dir_.root(), config(64));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  for (uint64_t k = 0; k < 64; ++k) w.write(value(k * 7919));
  ASSERT_GE(w.numBuckets(), 32u);
  const std::vector<uint64_t> before = order(r);
  ASSERT_EQ(before.size(), 64u);

  // Shrinking: at the third entry f removes everything but one entry,
  // which halves the buckets down to four, fewer than a block. The entry
  // kept sorts into the second of the four, so that from there the walk
  // crosses the third and fourth to the end. The walk gets the removed
  // entries no more and still reaches the one kept.
  size_t kept = 3;
  while (kept < before.size() && Brume::bitReverse(RecordOps::hash(before[kept])) >> 30 != 1) ++kept;
  ASSERT_LT(kept, before.size());
  std::vector<uint64_t> seen;
  const uint64_t restartsBefore = r.readerCounters().walkRestarts;
  r.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    if (seen.size() == 3) {
      for (size_t i = 0; i < before.size(); ++i) {
        if (i != kept) w.remove(before[i]);
      }
    }
  });
  EXPECT_EQ(w.numBuckets(), 4u);
  EXPECT_EQ(seen, (std::vector<uint64_t>{before[0], before[1], before[2], before[kept]}));
  // One change under the walk, one return to the full walk: from there on
  // the small table's end markers are what the walk expects.
  EXPECT_EQ(r.readerCounters().walkRestarts, restartsBefore + 1);

  // Growing: a walk that starts on the small table (no read-ahead) while f
  // inserts enough to double the buckets many times over. The entries
  // present throughout come once each, and in the order of the grown table.
  const uint64_t first = before[kept];
  w.write(value(3));
  seen.clear();
  r.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    if (seen.size() == 1) {
      for (uint64_t k = 1000; k < 1400; ++k) w.write(value(k));
    }
  });
  EXPECT_GE(w.numBuckets(), 256u);
  const std::set<uint64_t> once(seen.begin(), seen.end());
  EXPECT_EQ(once.size(), seen.size());
  EXPECT_EQ(once.count(first), 1u);
  EXPECT_EQ(once.count(3), 1u);
  // Split order is the order of the reversed hashes whatever the count: the
  // walk returned its entries in the grown table's order.
  std::vector<uint64_t> expected;
  for (uint64_t k : order(r)) {
    if (once.count(k) != 0) expected.push_back(k);
  }
  EXPECT_EQ(seen, expected);
}

}  // namespace
