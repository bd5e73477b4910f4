// The allocator's rules, its restart over surviving rows, a corrupt table and a requester's errors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "bitmapper/bitmapper_test_util.h"
#include "mroute/bitmapper/internal/table_rows.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "testing/expect_assert.h"

namespace {

using namespace BitMapper;
using BitMapperTest::alloc;
using BitMapperTest::dealloc;
using BitMapperTest::key;

std::vector<int> levels(const Mroute::Trace::CaptureSink& sink) {
  std::vector<int> out;
  for (const auto& line : sink.lines()) {
    if (line.facility == "Mroute::BitMapper") out.push_back(line.level);
  }
  return out;
}

class BitMapperSmTest : public testing::Test {
 protected:
  void SetUp() override { brume->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer); }

  // An allocator of `size` indexes from `minIndex`.
  void start(uint32_t size, bool refCount, uint32_t minIndex = 0) {
    config = configFactory(size, refCount);
    config->bitMapRangeIs(minIndex);
    sm = bitMapperSmFactory(config, status, brume);
  }
  std::vector<uint16_t> pool() const {
    std::vector<uint16_t> out;
    for (const auto& e : sm->bitIndexFreePool()) out.push_back(e.value().value());
    return out;
  }
  BitIndex statusOf(uint32_t n) const { return status->bitIndex(key(n)); }
  BitIndexMap row(uint16_t i) const { return brume->bitIndexMap(BitIndex(i)); }
  uint32_t waiting(uint32_t n) const { return brume->waitlistMap(key(n)).refCount(); }

  Testing::ShmRootScope root{"bitmapper-sm"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
  Kiv::Ptr<Status> status = statusFactory();
  Kiv::Ptr<Config> config;
  Kiv::Ptr<BitMapperSm> sm;
};

TEST_F(BitMapperSmTest, RangeInOrderThenFreedInQueueOrderThenToWaitingKeys) {
  start(4, true, 10);
  EXPECT_EQ(sm->maxBitIndex(), 14u);
  EXPECT_EQ(sm->bitIndexFreePoolLimit(), 8u);
  for (uint32_t n = 0; n < 4; ++n) alloc(*config, key(n));
  for (uint32_t n = 0; n < 4; ++n) EXPECT_EQ(row(10 + n), BitIndexMap(BitIndex(10 + n), key(n), 1, true));
  alloc(*config, key(4));
  alloc(*config, key(4));
  EXPECT_EQ(statusOf(4), BitIndex::invalid());
  EXPECT_EQ(waiting(4), 2u);
  // A waiting key dealloc'd down to nothing leaves both maps and the pool alone.
  dealloc(*config, key(4));
  dealloc(*config, key(4));
  EXPECT_TRUE(statusOf(4).isNull());
  EXPECT_EQ(brume->waitlistMap().size(), 0u);
  // Freed 11, then 10: handed out again in that order.
  dealloc(*config, key(1));
  dealloc(*config, key(0));
  EXPECT_EQ(pool(), (std::vector<uint16_t>{11, 10}));
  EXPECT_EQ(sm->bitIndexFreePoolMetadata(), BitIndexFreePoolMetadata(4, 6));
  alloc(*config, key(5));
  alloc(*config, key(6));
  EXPECT_EQ(statusOf(5), BitIndex(11));
  EXPECT_EQ(statusOf(6), BitIndex(10));
  // A key waiting with two references gets the next freed index with both.
  alloc(*config, key(7));
  alloc(*config, key(7));
  dealloc(*config, key(2));
  EXPECT_EQ(row(12), BitIndexMap(BitIndex(12), key(7), 2, false));
  EXPECT_EQ(brume->waitlistMap().size(), 0u);
  EXPECT_TRUE(sm->bitIndexFreePool().empty());
  // isNewMapping also goes false when a direct mapping is requested again.
  alloc(*config, key(5));
  EXPECT_EQ(row(11), BitIndexMap(BitIndex(11), key(5), 2, false));
}

TEST_F(BitMapperSmTest, ReferenceCountingDecidesWhichDeallocationFrees) {
  for (bool refCount : {false, true}) {
    SCOPED_TRACE(refCount);
    status = statusFactory();
    brume->bitIndexMapDelAll();
    start(4, refCount);
    for (int i = 0; i < 3; ++i) alloc(*config, key(1));
    EXPECT_EQ(row(0).refCount(), 3u);  // counted either way
    int deallocs = 0;
    while (!statusOf(1).isNull() && deallocs < 5) {
      dealloc(*config, key(1));
      ++deallocs;
    }
    EXPECT_EQ(deallocs, refCount ? 3 : 1);
    EXPECT_EQ(row(0), BitIndexMap());
    EXPECT_EQ(pool(), (std::vector<uint16_t>{1, 2, 3, 0}));
  }
}

TEST_F(BitMapperSmTest, RangeMovesWhileEverythingIsFreeAndTraces) {
  Mroute::Trace::CaptureSink sink("Mroute::BitMapper/0-9");
  start(3, false);
  EXPECT_EQ(sink.texts("Mroute::BitMapper"), (std::vector<std::string>{"handleInitialized(): Initializing "}));
  sink.clear();
  config->bitMapRangeIs(100);
  EXPECT_EQ(sink.texts("Mroute::BitMapper"),
            (std::vector<std::string>{"handleBitMapMinIndex()", "handleBitMapMinIndex(): FreePool size: 3"}));
  EXPECT_EQ(levels(sink), (std::vector<int>{9, 8}));
  EXPECT_EQ(pool(), (std::vector<uint16_t>{100, 101, 102}));
  EXPECT_EQ(sm->maxBitIndex(), 103u);
  sink.clear();
  for (uint32_t n = 0; n < 4; ++n) alloc(*config, key(n));
  EXPECT_EQ(sink.texts("Mroute::BitMapper"),
            (std::vector<std::string>{"handleAllocRequestCountAllocate index 100",
                                      "handleAllocRequestCountAllocate index 101",
                                      "handleAllocRequestCountAllocate index 102",
                                      "handleAllocRequestCountAllocate index 65534"}));
  EXPECT_EQ(levels(sink), (std::vector<int>{9, 9, 9, 9}));
  sink.clear();
  sm->handleInitialized();  // once only: no second fill
  EXPECT_EQ(sink.texts("Mroute::BitMapper"), (std::vector<std::string>{"handleInitialized(): Initializing "}));
  EXPECT_TRUE(sm->bitIndexFreePool().empty());
}

TEST_F(BitMapperSmTest, RestartKeepsSurvivingRowsAllocated) {
  start(6, true);
  for (uint32_t n = 0; n < 4; ++n) alloc(*config, key(n));
  alloc(*config, key(2));
  dealloc(*config, key(1));
  sm = nullptr;
  brume->unmountTables();
  // A new incarnation over the files the old one left.
  Kiv::Ptr<BrumeStatus> again = BrumeStatusIs("bitmapper");
  again->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer);
  brume = again;
  status = statusFactory();
  sm = bitMapperSmFactory(config, status, brume);
  EXPECT_EQ(pool(), (std::vector<uint16_t>{1, 4, 5}));
  EXPECT_EQ(status->bitIndex().size(), 3u);
  EXPECT_EQ(statusOf(0), BitIndex(0));
  EXPECT_EQ(statusOf(2), BitIndex(2));
  EXPECT_EQ(statusOf(3), BitIndex(3));
  EXPECT_EQ(row(2).refCount(), 2u);
  alloc(*config, key(9));
  EXPECT_EQ(statusOf(9), BitIndex(1));
}

TEST_F(BitMapperSmTest, EveryRequesterErrorIsAFatalAssertion) {
  start(2, true, 10);
  EXPECT_ASSERTION(alloc(*config, BitMapperKey()), "bitMapperKey != BitMapperKey()");
  EXPECT_ASSERTION(dealloc(*config, BitMapperKey()), "key != BitMapperKey()");
  EXPECT_ASSERTION(dealloc(*config, key(5)), "bitIndex != BitIndex::null()");
  // Status and tables that disagree.
  status->bitIndexIs(key(6), BitIndex(11));
  EXPECT_ASSERTION(alloc(*config, key(6)), "bitIndexMap != BitIndexMap()");
  EXPECT_ASSERTION(dealloc(*config, key(6)), "bitIndexMap != BitIndexMap()");
  alloc(*config, key(1));
  status->bitIndexIs(key(7), BitIndex(10));
  EXPECT_ASSERTION(alloc(*config, key(7)), "bitIndexMap.bitMapperKey() == bitMapperKey");
  status->bitIndexIs(key(8), BitIndex::invalid());
  EXPECT_ASSERTION(dealloc(*config, key(8)), "wm != WaitlistMap()");
  // A key that owns an index must not wait as well.
  brume->waitlistMapIs(WaitlistMap(key(1), 1));
  alloc(*config, key(2));
  EXPECT_ASSERTION(dealloc(*config, key(2)), "bitIndex >= BitIndex( maxBitIndex() )");
  EXPECT_ASSERTION(config->bitMapRangeIs(20), "bitIndexFreePools() == config()->bitMapSize()");
  // An empty pool never reaches the allocator's own assertion: the Config refuses it.
  EXPECT_THROW_TEXT(configFactory(0, true), Kiv::RangeException, "Config::bitMapSize == 0 not allowed");
}

TEST(BitMapperConfigTest, RangeReachingTheReservedIndexesIsRefused) {
  EXPECT_THROW_TEXT(configFactory(65535, true), Kiv::RangeException,
                    "Config::bitMapMinIndex + bitMapSize > 65534 not allowed (bitMapMinIndex 0, bitMapSize 65535)");
  Kiv::Ptr<Config> config = configFactory(65534, false);  // 0..65533: the largest pool
  EXPECT_THROW_TEXT(config->bitMapRangeIs(1), Kiv::RangeException,
                    "Config::bitMapMinIndex + bitMapSize > 65534 not allowed (bitMapMinIndex 1, bitMapSize 65534)");
  config = configFactory(10, false);
  EXPECT_THROW(config->bitMapMinIndexIs(65525), Kiv::RangeException);  // the generated setter checks too
  EXPECT_THROW(config->bitMapRangeIs(0xfffffff8u), Kiv::RangeException);  // would wrap in 32 bits
  EXPECT_EQ(config->bitMapMinIndex(), 0u);
  config->bitMapRangeIs(65524);
  EXPECT_EQ(config->bitMapMinIndex(), 65524u);
}

TEST(LinkQueueTest, PositionsOnlyGrowAndTheSpaceCanFill) {
  LinkQueue<BitIndex> q;
  EXPECT_EQ(q.enq(BitIndex(7)), 0u);
  EXPECT_EQ(q.enq(BitIndex(8)), 1u);
  q.skipTo(10);
  EXPECT_EQ(q.enq(BitIndex(9)), 10u);
  EXPECT_EQ(q.deq(), BitIndex(7));
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_EQ(q.nextIndex(), 11u);
  EXPECT_EQ(q.removals(), 1u);
  // The next position may not wrap onto the head's.
  q.skipTo(0xffffffffu);
  EXPECT_EQ(q.enq(BitIndex(1)), 0xffffffffu);
  EXPECT_THROW_TEXT(q.enq(BitIndex(2)), Kiv::RangeException, "linkqueue index space full");
  EXPECT_EQ(q.size(), 3u);
  EXPECT_EQ(q.deq(), BitIndex(8));
  EXPECT_EQ(q.enq(BitIndex(2)), 0u);  // past the top, behind the new head
  q.delAll();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.headIndex(), q.nextIndex());
  // An element someone still holds is never reused for a later append.
  q.enq(BitIndex(5));
  const Kiv::Ptr<LinkQueue<BitIndex>::Element> held = q.head();
  EXPECT_EQ(q.deq(), BitIndex(5));
  q.enq(BitIndex(6));
  EXPECT_EQ(held->value(), BitIndex(5));
}

TEST(LinkQueueTest, LongQueueIsReleasedWithoutRecursion) {
  LinkQueue<BitIndex> q;
  for (uint32_t i = 0; i < 1'000'000; ++i) q.enq(BitIndex(i % 60000));
  EXPECT_EQ(q.size(), 1'000'000u);
}

// A table whose chain is damaged in the middle of a walk: the walk stops
// there, and the finding goes to the writer's corruption handling.
TEST_F(BitMapperSmTest, CorruptRowEndsTheWalkAndIsReported) {
  for (uint16_t i = 100; i < 108; ++i) brume->bitIndexMapIs(BitIndexMap(BitIndex(i), key(i), 1, true));
  std::vector<uint16_t> order;
  for (auto r = internal::firstRow(brume->bitIndexMap()); r; r = internal::rowAfter(brume->bitIndexMap(), r->key())) {
    order.push_back(r->key().value());
  }
  ASSERT_EQ(order.size(), 8u);
  auto* writer = brume->bitIndexMap().front()->writer();
  // Move the slot of the fourth row into another bucket.
  const auto* stored = writer->lookup(BitIndex(order[3]));
  auto* slot = reinterpret_cast<Brume::Slot*>(const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(stored)) -
                                              sizeof(Brume::Slot));
  slot->rhash ^= 0x80000000u;
  for (uint16_t i = 0; i < 4; ++i) ASSERT_NO_THROW(writer->lookup(BitIndex(i))) << "pick other rows";

  Mroute::Trace::CaptureSink sink("Mroute::BitMapper/1");
  start(4, true);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(pool(), (std::vector<uint16_t>{0, 1, 2, 3}));
  EXPECT_EQ(status->bitIndex().size(), 4u);  // the rows up to the damaged one
  EXPECT_EQ(status->bitIndex(key(order[3])), BitIndex(order[3]));
  EXPECT_TRUE(status->bitIndex(key(order[4])).isNull());
  const Brume::BrumeMapBase& front = *brume->bitIndexMap().front();
  EXPECT_TRUE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), front.root()));
  const std::vector<std::string> texts = sink.texts("Mroute::BitMapper");
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_THAT(texts[0], testing::HasSubstr("corruptionDetected() bitmapper/test/bitIndexMap: "
                                           "WriterHashMap::lookup() corrupt key detected"));
  // The writer front's own handling validates the table and raises to its owner.
  bool raised = false;
  Testing::runUntil(loop, [&] {
    try {
      loop.runOnce(std::chrono::milliseconds(5));
    } catch (const Pavo::CorruptionDetectedException&) {
      raised = true;
    }
    return raised;
  });
  EXPECT_TRUE(raised);
}

}  // namespace
