#include "mroute/route/oif_bitmap.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "testing/expect_assert.h"

namespace Brume::Multicast::Fib {
namespace {

OifIndex idx(uint16_t v) { return OifIndex(v); }

OifBitmap withBits(std::initializer_list<uint16_t> bits) {
  OifBitmap b;
  for (uint16_t i : bits) b.set(idx(i));
  return b;
}

std::vector<uint16_t> walk(const OifBitmap& b, OifIndex max) {
  std::vector<uint16_t> out;
  for (OifIndex i = b.next(OifIndex::null, max); !i.isNull(); i = b.next(i, max)) out.push_back(i.value());
  return out;
}

// The walk written the slow way: every bit after `cur` up to the end of the
// word that holds `max`.
OifIndex slowNext(const OifBitmap& b, OifIndex cur, OifIndex max) {
  if (max.isNull()) return OifIndex::null;
  unsigned end = ((max.value() >> 6) + 1) * 64;
  for (unsigned i = cur.isNull() ? 0 : cur.value() + 1u; i < end; ++i) {
    if (b.test(idx(static_cast<uint16_t>(i)))) return idx(static_cast<uint16_t>(i));
  }
  return OifIndex::null;
}

// A null max yields nothing; otherwise the bound is the word holding max.
TEST(OifBitmapWalk, WordEdges) {
  EXPECT_EQ(walk(withBits({5, 40, 64}), idx(5)), (std::vector<uint16_t>{5, 40}));
  OifBitmap b = withBits({0, 63, 64, 511});
  EXPECT_EQ(b.next(OifIndex::null, OifIndex::null), OifIndex::null);
  EXPECT_FALSE(b.iterator(OifIndex::null));
  EXPECT_EQ(b.next(idx(63), idx(511)), idx(64));
  EXPECT_EQ(b.next(idx(62), idx(511)), idx(63));
  EXPECT_EQ(b.next(idx(511), idx(511)), OifIndex::null);
  EXPECT_EQ(b.next(idx(510), idx(511)), idx(511));
  EXPECT_EQ(b.next(OifIndex::null, idx(511)), idx(0));
  // A current index in a word beyond the bound ends the walk at once.
  EXPECT_EQ(b.next(idx(64), idx(63)), OifIndex::null);
  EXPECT_EQ(b.next(idx(63), idx(63)), OifIndex::null);
}

TEST(OifBitmapWalk, MatchesBitByBitScanOnRandomBitmaps) {
  std::mt19937_64 rng(7);
  for (int round = 0; round < 200; ++round) {
    OifBitmap b;
    // Sparse and dense words both occur.
    for (uint8_t w = 0; w < OifBitmap::kWords; ++w) b.wordIs(w, rng() & rng() & (round % 2 ? rng() : ~0ull));
    OifIndex max = idx(static_cast<uint16_t>(rng() % 512));
    for (uint16_t cur = 0; cur <= 512; cur += 1 + rng() % 9) {
      ASSERT_EQ(b.next(idx(cur), max), slowNext(b, idx(cur), max)) << "cur " << cur << " max " << max;
    }
    ASSERT_EQ(b.next(OifIndex::null, max), slowNext(b, OifIndex::null, max));
  }
}

TEST(OifBitmapIterator, StartsAtGivenIndexWhenSetElseAfterIt) {
  OifBitmap b = withBits({3, 9, 70});
  std::vector<uint16_t> seen;
  for (OifIndex i : b.iterator(idx(70), idx(9))) seen.push_back(i.value());
  EXPECT_EQ(seen, (std::vector<uint16_t>{9, 70}));
  EXPECT_EQ(b.iterator(idx(70), idx(4)).key(), idx(9));
  EXPECT_EQ(b.iterator(idx(70), idx(71)).key(), OifIndex::null);
  // The start obeys the same word bound as the walk.
  EXPECT_EQ(b.iterator(idx(10), idx(70)).key(), OifIndex::null);
  EXPECT_EQ(b.iterator(idx(70), OifIndex::null).key(), OifIndex::null);
}

// Bits and words; the count is eight bits wide; null is not a position.
TEST(OifBitmapBits, SetClearTestWordsAndCount) {
  OifBitmap b;
  b.set(idx(130));
  EXPECT_TRUE(b.test(idx(130)));
  EXPECT_EQ(b.word(2), uint64_t{1} << 2);
  EXPECT_TRUE(b.clear(idx(130)));
  EXPECT_FALSE(b.clear(idx(130)));
  b.wordIs(7, 0xf0);
  EXPECT_TRUE(b.test(idx(448 + 4)));
  EXPECT_EQ(b.wordDel(7), 0xf0u);
  EXPECT_EQ(b.word(7), 0u);
  EXPECT_ASSERTION(b.set(OifIndex::null), "i.value() < OifIndex::kPositions");
  EXPECT_ASSERTION(b.word(8), "n < kWords");
  for (uint8_t w = 0; w < OifBitmap::kWords; ++w) b.wordIs(w, ~0ull);
  EXPECT_EQ(b.count(), 0);
  b.clear(idx(511));
  EXPECT_EQ(b.count(), 255);
  EXPECT_EQ(withBits({1, 100, 500}).count(), 3);
}

}  // namespace
}  // namespace Brume::Multicast::Fib
