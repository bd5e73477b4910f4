// BrumeWriter: insert/update/remove, growth at the soft maximum, fixed
// capacity, bucket split and join, slot shrinking with moves and the corral,
// direct write pairing, attach re-use and re-format, the validator's
// findings.
#include "mroute/table/engine/brume_writer.h"

#include <gtest/gtest.h>

#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using namespace TableTest;

class BrumeWriterTest : public ::testing::Test {
 protected:
  // The writer and a fresh reader find exactly [from, to) at `version`.
  void expectContents(Writer& w, uint64_t from, uint64_t to, uint64_t version) {
    for (uint64_t k = from; k < to; ++k) ASSERT_NE(w.lookup(k), nullptr) << k;
    expectTable(dir_.root(), from, to, version);
    EXPECT_TRUE(valid(w));
  }

  TempRoot dir_{"writer"};
};

TEST_F(BrumeWriterTest, SecondWriteOfAKeyUpdatesInPlace) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/9");
  Writer w(dir_.root(), config(8));
  ASSERT_TRUE(w.attach());
  const auto* first = w.write(value(7, 1));
  const auto* slot = reinterpret_cast<const Brume::Slot*>(reinterpret_cast<const unsigned char*>(first) - 16);
  const uint32_t status = slot->status;
  EXPECT_EQ(status & 3u, Brume::kOccupied);
  EXPECT_EQ(w.write(value(7, 2)), first);
  EXPECT_EQ(slot->status, status + 4);
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeWriter::write() new "));
  EXPECT_TRUE(sink.contains("Mroute::Brume", " slot:0 next:"));  // the update's line
  EXPECT_EQ(w.members(), 1u);
  EXPECT_EQ(w.lookup(7)->value.version, 2u);
  EXPECT_EQ(w.write(value(7, 3), false)->value.version, 2u);
  EXPECT_TRUE(w.remove(7));
  EXPECT_FALSE(w.remove(7));
  EXPECT_EQ(w.lookup(7), nullptr);
  EXPECT_EQ(w.members(), 0u);
  EXPECT_EQ(w.writerCounters().writes, 1u);
  EXPECT_EQ(w.writerCounters().updates, 1u);
  EXPECT_TRUE(valid(w));
}

TEST_F(BrumeWriterTest, DoublesUpToTheSoftMaximumThenGrowsByATenth) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/3");
  Writer w(dir_.root(), config(4, 100));
  ASSERT_TRUE(w.attach());
  std::vector<uint32_t> sizes{w.capacity()};
  for (uint64_t k = 0; k < 122; ++k) {
    w.write(value(k));
    if (w.capacity() != sizes.back()) sizes.push_back(w.capacity());
  }
  EXPECT_EQ(sizes, (std::vector<uint32_t>{4, 8, 16, 32, 64, 100, 110, 121, 133}));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "SlotWriter::resize() overflowing by 10"));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "SlotWriter::grow() test from 100 slots to 110"));
  expectContents(w, 0, 122, 1);
}

TEST_F(BrumeWriterTest, ZeroSizeIsRefusedFixedCapacityRaisesTableFull) {
  EXPECT_THROW_TEXT(Writer(dir_.root(), config(0)), Pavo::InvalidInitializeException,
                    "BrumeMap::init() 0 is not a valid initialization size");
  auto c = config(4, 4);
  c.fixedCapacity = true;
  Writer w(dir_.root(), c);
  ASSERT_TRUE(w.attach());
  for (uint64_t k = 0; k < 4; ++k) w.write(value(k));
  EXPECT_THROW_TEXT(w.write(value(99)), Brume::TableFullException,
                    "SlotWriter::alloc() Brume table full (occupancy:4 tableSize:4) test");
  EXPECT_EQ(w.capacity(), 4u);
  EXPECT_EQ(w.lookup(99), nullptr);
  // Updates of present keys need no slot.
  w.write(value(2, 5));
  EXPECT_EQ(w.lookup(2)->value.version, 5u);
  EXPECT_TRUE(valid(w));
}

TEST_F(BrumeWriterTest, BucketsDoubleAndHalveKeepingEveryKeyReachable) {
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  EXPECT_EQ(w.numBuckets(), 4u);
  for (uint64_t k = 0; k < 600; ++k) w.write(value(k));
  // Doubled whenever the entries outnumbered the buckets.
  EXPECT_EQ(w.numBuckets(), 1024u);
  expectContents(w, 0, 600, 1);
  // Halved whenever the entries fell below a quarter of the buckets.
  for (uint64_t k = 0; k < 560; ++k) ASSERT_TRUE(w.remove(k));
  EXPECT_EQ(w.numBuckets(), 128u);
  expectContents(w, 560, 600, 1);
  for (uint64_t k = 560; k < 600; ++k) ASSERT_TRUE(w.remove(k));
  EXPECT_EQ(w.numBuckets(), 2u);
  expectContents(w, 0, 0, 1);
}

TEST_F(BrumeWriterTest, LongChainsSplitAndJoinInOrder) {
  // Keys of one chain of a 64-bucket table, written in key order (anywhere
  // in the chain): each doubling splits it, each halving joins it back.
  Writer w(dir_.root(), config(64));
  ASSERT_TRUE(w.attach());
  const std::vector<uint64_t> keys = keysOfBucket(64, 5, 200);
  for (uint64_t k : keys) w.write(value(k, 3));
  EXPECT_EQ(w.numBuckets(), 256u);
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  for (uint64_t k : keys) ASSERT_TRUE(r.lookup(k, out)) << k;
  EXPECT_TRUE(valid(w));
  for (size_t i = 0; i < keys.size(); i += 2) ASSERT_TRUE(w.remove(keys[i]));
  for (size_t i = 0; i < 180; i += 2) ASSERT_TRUE(w.remove(keys[i + 1]));
  EXPECT_LT(w.numBuckets(), 256u);
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(r.lookup(keys[i], out), i >= 181 && i % 2 == 1) << i;
  }
  EXPECT_TRUE(valid(w));
}

TEST_F(BrumeWriterTest, ShrinkMovesEntriesBelowTheTargetAndCorralsTheirNotifications) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/39");
  Writer w(dir_.root(), shrinking(16, 1024, 16));
  ASSERT_TRUE(w.attach());
  // One reader is connected and acknowledges nothing until told to.
  Brume::ConquerWriter* q = w.conquer();
  ASSERT_NE(q, nullptr);
  q->updateNumReaders(1);
  q->updateSequence(Brume::ConquerWriter::kNoAck, 0);
  for (uint64_t k = 0; k < 256; ++k) w.write(value(k, 2));
  ASSERT_EQ(w.capacity(), 256u);
  EXPECT_EQ(w.shrinkThreshold(), 128u);
  // Keep the entries in the highest slots so that they must move.
  for (uint64_t k = 0; k < 192; ++k) ASSERT_TRUE(w.remove(k));
  EXPECT_EQ(w.capacity(), 256u);
  const uint64_t before = w.sequence();
  ASSERT_TRUE(w.remove(192));  // 63 left: below 128 / 2
  // target = max(minSlots, 4 * 32) = 128
  EXPECT_EQ(w.capacity(), 128u);
  EXPECT_EQ(w.writerCounters().moves, 63u);
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeWriter::doMaybeShrinkSlots() threshold:128 shrinkThreshold:128"));
  EXPECT_EQ(q->corralStart(), before + 2);  // after the removal's own notification
  EXPECT_EQ(q->corralEnd(), w.sequence());
  EXPECT_EQ(w.sequence() - before, 1u + 63u);
  expectContents(w, 193, 256, 2);
  // The next shrink waits until the readers caught up over the corral.
  EXPECT_TRUE(w.shrinkInProgress());
  for (uint64_t k = 193; k < 225; ++k) ASSERT_TRUE(w.remove(k));
  EXPECT_EQ(w.capacity(), 128u);
  EXPECT_TRUE(sink.contains("Mroute::Brume",
                            "BrumeWriter::doMaybeShrinkSlots() shrink started, ignoring shrinkThreshold:64"));
  // The reader's acknowledgement past the corral ends the shrink.
  q->updateSequence(0, q->sequence());
  EXPECT_FALSE(w.shrinkInProgress());
  w.shrink();  // 31 entries: target max(16, 4 * 16) = 64
  EXPECT_EQ(w.capacity(), 64u);
  expectContents(w, 225, 256, 2);
}

TEST_F(BrumeWriterTest, DirectWriteFillsInPlaceAndMustBePaired) {
  Writer w(dir_.root(), config(8));
  ASSERT_TRUE(w.attach());
  w.write(value(1, 1));
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue* v = w.directWrite(1);
  *v = value(1, 2);
  // Until the commit a reader is served the previous value from the
  // lookaside slot.
  RecordValue out;
  ASSERT_TRUE(r.lookup(1, out));
  EXPECT_EQ(out.value.version, 1u);
  EXPECT_EQ(r.readerCounters().lookasideReads, 1u);
  EXPECT_ASSERTION(w.directWrite(2),
                   "BrumeWriter::directWrite() unbalanced directSlot:0 containing value:1 when modifying key:2"
                   " - Make sure the DirectIs/Commit are properly paired!");
  EXPECT_ASSERTION(w.write(value(3)),
                   "BrumeWriter::write() unbalanced directSlot:0 containing value:1 when writing value:3"
                   " - Make sure the DirectIs/Commit are properly paired!");
  EXPECT_ASSERTION(w.remove(1),
                   "BrumeWriter::remove() unbalanced directSlot:0 containing value:1 when removing key:1"
                   " - Make sure the DirectIs/Commit are properly paired!");
  EXPECT_ASSERTION(w.detach(), "BrumeWriter::detach() unbalanced directSlot:0");
  w.directCommit();
  ASSERT_TRUE(r.lookup(1, out));
  EXPECT_EQ(out.value.version, 2u);
  EXPECT_ASSERTION(w.directCommit(),
                   "BrumeWriter::directCommit() not in direct mode! Make sure the DirectIs/Commit are properly paired!");
  // A new key: reachable only after the commit.
  *w.directWrite(9) = value(9, 4);
  EXPECT_FALSE(r.lookup(9, out));
  EXPECT_TRUE(valid(w)) << "the pending slot is not leaked";
  w.directCommit();
  ASSERT_TRUE(r.lookup(9, out));
  EXPECT_EQ(out.value.version, 4u);
  EXPECT_TRUE(valid(w));
}

TEST_F(BrumeWriterTest, AttachReusesValidFilesAndReformatsCorruptOnes) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/13");
  uint32_t ember;
  {
    Writer w(dir_.root(), config(8));
    ASSERT_TRUE(w.attach());
    for (uint64_t k = 0; k < 20; ++k) w.write(value(k, 6));
    ember = w.emberId();
  }
  {
    Writer w(dir_.root(), config(8));
    ASSERT_TRUE(w.attach());
    EXPECT_EQ(w.emberId(), ember);
    EXPECT_EQ(w.members(), 20u);
    expectContents(w, 0, 20, 6);
  }
  // A reader that finds the files corrupt leaves the marker; a stuck
  // LOOKASIDE bit fails the deep validation, so the writer starts afresh.
  Brume::writeCorruptionMarker(Mem::systemShmFs(), dir_.root(), "test");
  RawFile(dir_.file("slots")).slot(0)->status |= Brume::kLookaside;
  Writer w(dir_.root(), config(8));
  ASSERT_TRUE(w.attach());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeWriter::attach() failed, all entries from " + dir_.dir() +
                                                 " will be lost"));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeWriter::attach(): re-formatted successfully"));
  EXPECT_EQ(w.members(), 0u);
  EXPECT_FALSE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), dir_.root()));
  w.cleanup();
  EXPECT_FALSE(std::filesystem::exists(dir_.file("slots")));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("buckets")));
}

class ValidatorFindings : public BrumeWriterTest {
 protected:
  void SetUp() override {
    w_ = std::make_unique<Writer>(dir_.root(), config(8));
    ASSERT_TRUE(w_->attach());
    for (uint64_t k = 0; k < 4; ++k) w_->write(value(k));
    raw_ = std::make_unique<RawFile>(dir_.file("slots"));
  }
  Brume::Slot* slot(uint32_t i) { return raw_->slot(i); }
  Brume::SlotTable::Header* header() { return raw_->at<Brume::SlotTable::Header>(0); }
  std::string finding() {
    std::string why;
    EXPECT_FALSE(w_->validate(&why));
    return why;
  }

  std::unique_ptr<Writer> w_;
  std::unique_ptr<RawFile> raw_;
};

TEST_F(ValidatorFindings, FreeListFaults) {
  // Slots 0-3 are occupied, 4-7 free (4 -> 5 -> 6 -> 7).
  slot(7)->next.init(0, 5);
  EXPECT_EQ(finding(), "Validator::walkFreeSlots() duplicate freeSlot detected:5");
  slot(7)->next.init(0, 8);
  EXPECT_EQ(finding(), "Validator::walkFreeSlots() corrupted free slot detected with out of bound index:8");
  slot(7)->next.init(0, Brume::kNoRef);
  slot(6)->status |= Brume::kOccupied;
  EXPECT_EQ(finding(), "Validator::walkFreeSlots() corrupted free slot not marked as empty:6");
  slot(6)->status &= ~Brume::kOccupied;
  EXPECT_TRUE(valid(*w_));
}

TEST_F(ValidatorFindings, OccupiedSlotFaults) {
  slot(2)->status &= ~Brume::kOccupied;
  EXPECT_EQ(finding(), "Validator::markOccupied() missing OCCUPIED bit: 0x4");
  slot(2)->status |= Brume::kOccupied | Brume::kLookaside;
  EXPECT_EQ(finding(), "Validator::markOccupied() stuck LOOKASIDE bit: 0x7");
  slot(2)->status &= ~Brume::kLookaside;
  header()->occupiedSlots = 3;
  EXPECT_EQ(finding(), "Validator::walkOccupiedSlots() walkedSlots:4is greater than header->occupiedSlots:3");
  header()->occupiedSlots = 5;
  EXPECT_EQ(finding(), "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:5 walkedSlots:4");
  header()->occupiedSlots = 4;
  // A free slot linked into a chain is met twice.
  const uint32_t end = slot(3)->next.load().ref;
  slot(3)->next.init(0, 4);
  slot(4)->next.init(0, end);
  slot(4)->status = Brume::kOccupied;
  EXPECT_EQ(finding(), "Validator::walkFreeSlots() corrupted free slot not marked as empty:4");
}

TEST_F(ValidatorFindings, SlotsThatDoNotBelongWhereTheyAre) {
  // A key changed under its stored rhash.
  reinterpret_cast<RecordValue*>(slot(1)->value())->value.key = 77;
  EXPECT_EQ(finding(), "Validator::walkOccupiedSlots() slot:1 rhash does not match its key");
  reinterpret_cast<RecordValue*>(slot(1)->value())->value.key = 1;
  EXPECT_TRUE(valid(*w_));
  // An rhash of another bucket.
  slot(1)->rhash ^= 0x80000000u;
  EXPECT_EQ(finding().rfind("Validator::walkOccupiedSlots() slot:1 out of place in bucket:", 0), 0u);
}

TEST_F(ValidatorFindings, WritesReportDamagedChainsAndFreeListsInsteadOfFollowingThem) {
  // Slot 1 holds key 1. With its rhash lowered to the smallest of its bucket
  // the walk for key 1 goes past it, along whatever its next says.
  const uint32_t rhash = slot(1)->rhash;
  const uint32_t next = slot(1)->next.load().ref;
  slot(1)->rhash = rhash & Brume::topBits(3);  // 8 buckets
  slot(1)->next.init(0, 1);
  EXPECT_THROW_TEXT(w_->write(value(1, 2)), Pavo::CorruptionDetectedException,
                    "WriterHashMap::find() hash chain cycle detected, slotCount:9 slot:1");
  slot(1)->next.init(0, 8);
  EXPECT_THROW_TEXT(w_->remove(1), Pavo::CorruptionDetectedException,
                    "WriterHashMap::find() hash chain cycle detected, slotCount:1 slot:8");
  slot(1)->rhash = rhash ^ 0x80000000u;
  slot(1)->next.init(0, next);
  EXPECT_THROW_TEXT(w_->write(value(1, 2)), Pavo::CorruptionDetectedException,
                    "WriterHashMap::find() corrupt key detected, slot:1 bucket:" +
                        std::to_string(Brume::bitReverse(rhash) & 7));
  slot(1)->rhash = rhash;
  // Slots 4-7 are free (4 -> 5 -> 6 -> 7).
  slot(4)->next.init(0, 8);
  EXPECT_THROW_TEXT(w_->write(value(50)), Pavo::CorruptionDetectedException,
                    "SlotWriter::alloc() bad free slot:8 numSlots:8");
  slot(4)->next.init(0, 5);
  header()->freeSlots = 9;
  EXPECT_THROW_TEXT(w_->write(value(50)), Pavo::CorruptionDetectedException,
                    "SlotWriter::alloc() bad free slot:9 numSlots:8");
  header()->freeSlots = 4;
  // Nothing was changed by the refused writes.
  EXPECT_EQ(w_->write(value(1, 2))->value.version, 2u);
  EXPECT_TRUE(valid(*w_));
}

}  // namespace
