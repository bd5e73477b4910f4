#include "mroute/table/queue/conquer_writer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using Brume::ConquerWriter;
using Mroute::Trace::CaptureSink;
using Entries = std::vector<std::pair<uint64_t, uint32_t>>;

constexpr uint32_t kEmber = 0xE1;
constexpr uint32_t kTomb = Brume::ConquerTable::kTombstone;
constexpr const char* kFac = "Mroute::Brume";

// A new writer of the queue in dir, attached for a table of numSlots slots.
std::unique_ptr<ConquerWriter> attached(const std::string& dir, uint32_t numSlots,
                                        Mem::ShmFs& fs = Mem::systemShmFs()) {
  auto w = std::make_unique<ConquerWriter>(dir, Brume::ConquerConfig{}, fs);
  EXPECT_TRUE(w->attachConquer(numSlots, kEmber)) << dir;
  return w;
}

// The queue's entries from the first position to the current one.
Entries entriesOf(const ConquerWriter& w) {
  Entries out;
  for (uint32_t p = 0; p < w.currentPos(); ++p) out.push_back(w.entry(p));
  return out;
}

class QueueTest : public TableTest::ShmDirTest {
 protected:
  void SetUp() override {
    ShmDirTest::SetUp();
    w_ = attached(dir_, 16);
  }
  Entries entries() const { return entriesOf(*w_); }
  std::unique_ptr<ConquerWriter> w_;
  CaptureSink sink_{"Mroute::Brume/0-9"};
};

TEST_F(QueueTest, RewritingASlotLeavesOnlyTheNewestEntryLive) {
  for (uint32_t slot : {5, 7, 5, 5}) w_->notify(slot);
  EXPECT_EQ(entries(), (Entries{{1, kTomb}, {2, 7}, {3, kTomb}, {4, 5}}));
  EXPECT_EQ(w_->position(5), 3u);
  EXPECT_EQ(w_->position(6), ConquerWriter::kNoPosition);
  EXPECT_EQ(w_->counters().uniqueNotifications, 2u);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::tombstone() tombstoning 2 with sequence:3 for slot 5 currentPos 3"));
  EXPECT_TRUE(TableTest::valid(*w_));
}

// What a queue looks like at some point: its entries, every slot's
// position, the counters and where it stands.
struct QueueState {
  Entries entries;
  std::vector<uint32_t> positions;
  uint64_t notifications = 0, unique = 0, tombstones = 0, compactions = 0, sequence = 0, corralStart = 0;
  uint32_t table = 0, capacity = 0;
  bool operator==(const QueueState&) const = default;
  size_t liveEntriesOf(uint32_t slot) const {
    size_t n = 0;
    for (const auto& e : entries) n += e.second == slot;
    return n;
  }
};

QueueState stateOf(const ConquerWriter& w) {
  const ConquerWriter::Counters c = w.counters();
  QueueState st{entriesOf(w), {}, c.notifications, c.uniqueNotifications, c.tombstones, c.compactions,
                w.sequence(), w.corralStart(), w.currentTable(), w.capacity()};
  for (uint32_t slot = 0; slot < 40; ++slot) st.positions.push_back(w.position(slot));
  EXPECT_TRUE(TableTest::valid(w));
  return st;
}

// One history that crosses everything notify()'s inline path has to follow:
// rewrites, a compaction into the other file, a corral, growth of the file,
// slots beyond those seen so far, a compaction on a reader's acknowledgement
// and a restarted writer reusing the files. The state midway (before the
// acknowledgement) and at the end.
std::pair<QueueState, QueueState> runHistory(const std::string& dir) {
  EXPECT_TRUE(Mem::makeDirectories(Mem::systemShmFs(), dir, nullptr));
  auto w = attached(dir, 16);
  w->updateNumReaders(1);
  w->updateSequence(ConquerWriter::kNoAck, 20);  // holds minSeq at 20
  for (uint32_t i = 0; i < 64; ++i) w->notify(i % 24);  // fills the file
  for (uint32_t slot = 24; slot < 30; ++slot) w->notify(slot);  // the first compacts; new slots
  w->markShrinkStart();
  w->notify(3);  // seq 71 tombstones seq 52, before the corral
  w->notify(3);  // seq 72: 71 lies in the open corral and stays
  w->markShrinkEnd();
  w->notify(3);  // seq 73: 72 lies in the closed corral [71, 72] and stays
  EXPECT_TRUE(w->resize(40));
  for (uint32_t slot = 30; slot < 40; ++slot) w->notify(slot);  // seq 74..83
  const QueueState midway = stateOf(*w);
  // The reader passes the corral: pruned to 72, compacted into conquer.1.
  w->updateSequence(20, 72);
  w = attached(dir, 40);
  for (uint32_t slot : {3, 31, 39, 3}) w->notify(slot);  // seq 84..87
  return {midway, stateOf(*w)};
}

// With per-operation tracing every notify() takes the full path; without,
// most take the inline one, which must leave exactly the same queue.
TEST_F(QueueTest, InlineNotifyMatchesTheFullPathAcrossCompactionCorralGrowthAndRestart) {
  w_.reset();
  const auto [tracedMidway, tracedEnd] = runHistory(dir_ + "/traced");
  std::pair<QueueState, QueueState> inlined;
  {
    CaptureSink quiet{"Mroute::Brume/0-8"};
    ASSERT_FALSE(Brume::brumeTrace().enabled(Brume::kTraceDetail));
    inlined = runHistory(dir_ + "/inlined");
  }
  const auto& [midway, end] = inlined;
  EXPECT_TRUE(midway == tracedMidway);
  EXPECT_TRUE(end == tracedEnd);

  // Absolute checks, so that both paths cannot be wrong alike. Midway: 83
  // notifications, 40 of them of new slots (0..29, 30..39), 41 that left a
  // tombstone and 2 whose predecessor the corral kept.
  EXPECT_EQ(midway.notifications, 83u);
  EXPECT_EQ(midway.unique, 40u);
  EXPECT_EQ(midway.tombstones, 41u);
  EXPECT_EQ(midway.compactions, 1u);
  EXPECT_EQ(midway.table, 1u);
  EXPECT_EQ(midway.capacity, 80u) << "the current file grew with the table";
  EXPECT_EQ(midway.corralStart, 71u);
  EXPECT_EQ(midway.liveEntriesOf(3), 3u) << "seq 71, 72 (corral) and 73";
  EXPECT_EQ(midway.entries.back(), (std::pair<uint64_t, uint32_t>{83, 39}));
  // At the end: the restarted writer counts its own four notifications, all
  // of slots whose entries it found in the reused file.
  EXPECT_EQ(end.notifications, 4u);
  EXPECT_EQ(end.unique, 0u);
  EXPECT_EQ(end.tombstones, 4u);
  EXPECT_EQ(end.sequence, 87u);
  EXPECT_EQ(end.table, 0u);
  EXPECT_EQ(end.corralStart, 0u);
  EXPECT_EQ(end.liveEntriesOf(3), 1u);
  EXPECT_EQ(end.entries.front(), (std::pair<uint64_t, uint32_t>{73, kTomb}));
  EXPECT_EQ(end.entries.back(), (std::pair<uint64_t, uint32_t>{87, 3}));
  EXPECT_EQ(end.positions[3], end.entries.size() - 1);
}

TEST_F(QueueTest, CorralEntriesAreNeverTombstonedOlderOnesAre) {
  int completed = 0;
  w_->shrinkCompleteIs([&] { ++completed; });
  w_->markShrinkStart();
  w_->markShrinkEnd();  // nothing posted: the corral is cleared at once
  EXPECT_EQ(completed, 1);
  EXPECT_EQ(w_->corralStart(), 0u);
  w_->notify(1);  // seq 1, before the shrink
  w_->markShrinkStart();
  EXPECT_EQ(w_->corralStart(), 2u);
  w_->notify(1);  // seq 2: seq 1 lies outside the corral
  w_->notify(1);  // seq 3: seq 2 lies in the open corral and stays live
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::tombstone() ignoring tomb.seq:2 corralStart:2 corralEnd: 0"));
  w_->updateNumReaders(1);
  w_->updateSequence(ConquerWriter::kNoAck, 1);  // a reader that is behind
  w_->markShrinkEnd();
  EXPECT_EQ(w_->corralEnd(), 3u);
  w_->notify(1);  // seq 4: 3 lies in the closed corral [2, 3]
  w_->notify(1);  // seq 5: 4 is after it
  EXPECT_EQ(entries(), (Entries{{1, kTomb}, {2, 1}, {3, 1}, {4, kTomb}, {5, 1}}));
  EXPECT_EQ(completed, 1);
  // With no reader connected, nobody needs the corral: the shrink is over
  // as soon as it ends.
  w_->readerGone(1);
  w_->updateNumReaders(0);
  w_->markShrinkStart();
  w_->notify(2);
  w_->markShrinkEnd();
  EXPECT_EQ(w_->corralStart(), 0u);
  EXPECT_EQ(completed, 2);
}

TEST_F(QueueTest, PruneFollowsTheSlowestReader) {
  for (uint32_t s = 0; s < 8; ++s) w_->notify(s);
  w_->updateNumReaders(2);
  EXPECT_EQ(w_->prune(), 0u);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::prune() cannot prune, waiting for readers"));
  w_->updateSequence(ConquerWriter::kNoAck, 5);
  w_->updateSequence(ConquerWriter::kNoAck, 3);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::updateNumReaders() waitingForReaders:0 readers:2 numReaders:2"));
  EXPECT_EQ(w_->prune(), 3u);
  w_->updateSequence(3, 7);
  EXPECT_EQ(w_->prune(), 5u);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::prune() pruning up to minSeq:5 (old minSeq:3) current sequence: 8"));
  w_->readerGone(5);
  w_->readerGone(7);
  w_->updateNumReaders(0);
  EXPECT_EQ(w_->prune(), 8u) << "with no reader connected prune reaches the sequence";
}

TEST_F(QueueTest, FullQueuePrunesAndCompactsIntoTheOtherFile) {
  ASSERT_EQ(w_->capacity(), 64u);
  w_->updateNumReaders(1);
  w_->updateSequence(ConquerWriter::kNoAck, 40);  // holds minSeq at 40
  // 64 notifications over slots 0..31 fill the file; the live entries are
  // sequences 33..64.
  for (uint32_t i = 0; i < 64; ++i) w_->notify(i % 32);
  EXPECT_EQ(w_->notify(3), 65u);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::compact() compacting secondary table conquerPos:64 minSeq:40"));
  Entries want;
  for (uint64_t s = 41; s <= 64; ++s) want.emplace_back(s, static_cast<uint32_t>((s - 1) % 32));
  want.emplace_back(65, 3);
  EXPECT_EQ(entries(), want);
  EXPECT_EQ(w_->position(8), 0u);
  EXPECT_EQ(w_->position(3), 24u);
  EXPECT_EQ(w_->position(0), ConquerWriter::kNoPosition) << "its entry was pruned";
  Raw raw0, raw1;
  openRaw(0, &raw0);
  openRaw(1, &raw1);
  EXPECT_EQ(raw0.header().currentTable, 1u) << "both files name the new current one";
  EXPECT_EQ(raw1.header().currentTable, 1u);
  EXPECT_EQ(raw1.header().minSeq, 40u);

  // Inside a corral nothing is tombstoned: a compaction that may drop no
  // entry doubles its target.
  w_->markShrinkStart();
  while (w_->currentTable() == 1) w_->notify(0);
  EXPECT_EQ(w_->capacity(), 128u);
  EXPECT_TRUE(TableTest::valid(*w_));
}

TEST_F(QueueTest, AcknowledgementCrossingTheCorralCompletesTheShrink) {
  int completed = 0;
  w_->shrinkCompleteIs([&] { ++completed; });
  w_->updateNumReaders(2);
  w_->updateSequence(ConquerWriter::kNoAck, 0);
  w_->updateSequence(ConquerWriter::kNoAck, 0);
  w_->notify(9);
  w_->markShrinkStart();
  for (uint32_t slot : {1, 2, 3}) w_->notify(slot);
  w_->markShrinkEnd();  // corral [2, 4]
  w_->updateSequence(0, 4);  // crosses corralEnd, but the other reader holds 0
  EXPECT_TRUE(sink_.contains(
      kFac, "ConquerWriter::updateSequence() updated seq:4 from reader NOT prune entire corralEnd:4 via pruneSeq:0"));
  w_->updateSequence(0, 3);
  EXPECT_EQ(w_->prune(), 3u);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::adjustCorral() adjusted corralStart from:2 to:3 minSeq:3"));
  EXPECT_EQ(completed, 0);
  w_->updateSequence(3, 4);
  EXPECT_TRUE(sink_.contains(
      kFac, "ConquerWriter::updateSequence() updated seq:4 from reader will prune entire corralEnd:4 via pruneSeq:4"));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::adjustCorral() cleared corralStart:3 corralEnd:4 minSeq:4"));
  EXPECT_EQ(completed, 1);
  EXPECT_EQ(w_->currentTable(), 1u);
  EXPECT_EQ(w_->currentPos(), 0u) << "everything was acknowledged";
}

TEST_F(QueueTest, CorruptEntriesRaiseCorruption) {
  for (uint32_t slot : {5, 6, 7}) w_->notify(slot);
  Raw raw;
  openRaw(0, &raw);
  raw.entry(0).slot = 9;
  const char* mismatch = "ConquerWriter::tombstone() conquer slot mismatch, slot:5 index:0";
  EXPECT_THROW_TEXT(w_->notify(5), Pavo::CorruptionDetectedException, mismatch);
  std::string why;
  EXPECT_FALSE(w_->validate(&why));
  EXPECT_EQ(why, "ConquerWriter::validate() slot:5 bad conquer position:0");
  raw.entry(0).slot = 5;
  // The file that is not current is checked too.
  Raw other;
  openRaw(1, &other);
  other.header().version = 9;
  EXPECT_FALSE(w_->validateFile(&why));
  EXPECT_EQ(why, "ConquerTable::validate() bad version:9");
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::validateFile(): conquer.2 validation failed"));
  other.header().version = 7;
  raw.entry(2).seqLow = 1;
  EXPECT_FALSE(w_->validate(&why));
  EXPECT_EQ(why, "ConquerWriter::validate() position:2 sequence:1 not above:2");
  EXPECT_THROW_TEXT(w_->compact(0), Pavo::CorruptionDetectedException,
                    "ConquerWriter::compact() prevNot:2 not in ascending order n.sequence:1 at position:2");
  // Untraced, notify()'s short path hands a corrupt entry to the full path's
  // report too.
  raw.entry(0).slot = 9;
  CaptureSink quiet{"Mroute::Brume/0-8"};
  ASSERT_FALSE(Brume::brumeTrace().enabled(Brume::kTraceDetail));
  EXPECT_THROW_TEXT(w_->notify(5), Pavo::CorruptionDetectedException, mismatch);
}

TEST_F(QueueTest, AttachReusesValidFilesAndReformatsOthers) {
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() to new file " + dir_ + "/conquer.2"));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerTable::Header() magic:BRUMECQR version:7 ember:0xe1 numReaders:0 "
                                   "currentTable:0 notifications:64 currentPos:0 corralStart:0 corralEnd:0"));
  w_->notify(3);
  w_->notify(4);
  // A restarted writer of the same incarnation continues the queue; a larger
  // table enlarges the current file.
  w_ = attached(dir_, 40);
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() to existing " + dir_));
  EXPECT_EQ(w_->capacity(), 80u);
  EXPECT_EQ(w_->notify(3), 3u);
  EXPECT_EQ(entries(), (Entries{{1, kTomb}, {2, 4}, {3, 3}}));

  const std::vector<std::pair<std::string, std::function<void(Raw&)>>> faults = {
      {"magic", [](Raw& r) { r.header().magic[0] = 'X'; }},
      {"files disagree", [](Raw& r) { r.header().currentTable = 1; }},
      {"currentPos", [](Raw& r) { r.header().currentPos = 81; }},
      {"ember", [](Raw& r) { r.header().ember = 7; }},
  };
  for (const auto& [what, fault] : faults) {
    SCOPED_TRACE(what);
    {
      Raw raw;
      openRaw(0, &raw);
      fault(raw);
    }
    sink_.clear();
    w_ = attached(dir_, 16);
    EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() re-formatted " + dir_ + "/conquer.1"));
    EXPECT_EQ(w_->currentPos(), 0u);
    w_->notify(1);
  }
}

// The entries are stored one at a time by every write: both files have
// their pages mapped in when made and when grown, and a kernel that cannot
// do that still gets a working queue.
TEST_F(QueueTest, QueueFilesArePopulatedWhenMadeAndGrown) {
  w_.reset();
  using Brume::ConquerTable;
  TableTest::FailingFs fs;
  const std::string dir = dir_ + "/fresh";
  ASSERT_TRUE(Mem::makeDirectories(fs, dir, nullptr));
  auto w = attached(dir, 1000, fs);
  EXPECT_EQ(fs.populated, 2 * ConquerTable::fileSize(2000)) << "both files, header to last entry";
  fs.populated = 0;
  ASSERT_TRUE(w->resize(3000));
  EXPECT_EQ(fs.populated, ConquerTable::fileSize(6000)) << "the current file, after it grew";
  fs.populated = 0;
  w = attached(dir, 3000, fs);
  EXPECT_EQ(fs.populated, ConquerTable::fileSize(6000) + ConquerTable::fileSize(2000))
      << "reused files too, each as far as its entries go";

  fs.noPopulate = true;
  w = attached(dir, 1000, fs);
  EXPECT_EQ(w->notify(5), 1u);
  EXPECT_EQ(w->notify(5), 2u);
  EXPECT_EQ(w->entry(0).second, kTomb);
  w.reset();  // before fs goes
}

TEST_F(QueueTest, AttachAndResizeFailuresAreTracedNotThrown) {
  w_->cleanup();
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::cleanup() removing file:" + dir_ + "/conquer.2"));
  EXPECT_FALSE(w_->attachConquer(0, kEmber));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() unable to calculate notifications"));
  EXPECT_FALSE(w_->attachConquer(0x10000000u, kEmber));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() " + dir_ + " initial size of 6442451016 bytes "
                                   "exceeds 2147483648 bytes for 536870912 notifications "));
  TableTest::FailingFs fs;
  w_ = std::make_unique<ConquerWriter>(dir_, Brume::ConquerConfig{}, fs);
  fs.noSpace = true;
  EXPECT_FALSE(w_->attachConquer(16, kEmber));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() failed to resize " + dir_ + "/conquer.1 to size 840"));
  EXPECT_TRUE(sink_.contains(kFac, "(the file system is full)"));
  fs.noSpace = false;
  fs.failMmap = true;
  EXPECT_FALSE(w_->attachConquer(16, kEmber));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::attachConquer() cannot attach to shmem " + dir_ +
                                       "/conquer.1 of size:840"));
  fs.failMmap = false;
  ASSERT_TRUE(w_->attachConquer(16, kEmber));
  fs.noSpace = true;
  EXPECT_FALSE(w_->resize(100));
  EXPECT_TRUE(sink_.contains(kFac, "ConquerWriter::resize() failed to resize"));
  fs.noSpace = false;
  EXPECT_TRUE(w_->resize(100));
  EXPECT_EQ(w_->capacity(), 200u);
  w_.reset();  // before fs goes
}

}  // namespace
