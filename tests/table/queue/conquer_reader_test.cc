#include "mroute/table/queue/conquer_reader.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/queue/conquer_writer.h"
#include "mroute/table/shm/ember_file.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using Brume::ConquerReader;
using Brume::ConquerWriter;
using Mroute::Trace::CaptureSink;
using Walk = ConquerReader::Walk;
using Deliveries = std::vector<std::pair<uint32_t, uint64_t>>;

constexpr uint32_t kEmber = 0xE1;
constexpr const char* kFac = "Mroute::Brume";

class ConquerReaderTest : public TableTest::ShmDirTest {
 protected:
  // A writer for a table of numSlots slots and a reader of its queue.
  void start(uint32_t numSlots) {
    writer_ = std::make_unique<ConquerWriter>(dir_, Brume::ConquerConfig{});
    ASSERT_TRUE(writer_->attachConquer(numSlots, kEmber));
    reader_ = std::make_unique<ConquerReader>(dir_);
    ASSERT_TRUE(reader_->initialize(kEmber));
  }
  // The reader's acknowledgements go straight to the writer.
  void connect() {
    writer_->updateNumReaders(1);
    reader_->ackIs([this](uint64_t prev, uint64_t seq) { writer_->updateSequence(prev, seq); });
  }
  uint64_t notify(uint32_t slot) { return latest_[slot] = writer_->notify(slot); }

  // A consumer that checks the order and records what it was given.
  ConquerReader::Consumer recorder() {
    return [this](uint32_t slot, uint64_t seq) {
      EXPECT_GT(seq, delivered_.empty() ? 0 : delivered_.back().second) << "slot " << slot;
      seen_[slot] = seq;
      delivered_.emplace_back(slot, seq);
    };
  }
  // Every slot's latest change was delivered.
  void expectCaughtUp() {
    for (const auto& [slot, seq] : latest_) ASSERT_EQ(seen_[slot], seq) << "slot " << slot;
  }

  std::unique_ptr<ConquerWriter> writer_;
  std::unique_ptr<ConquerReader> reader_;
  std::map<uint32_t, uint64_t> latest_, seen_;
  Deliveries delivered_;
};

TEST_F(ConquerReaderTest, WalkDeliversEachSlotAtItsLatestChangeAndAcknowledges) {
  start(16);
  for (uint32_t slot : {1, 2, 1, 3}) notify(slot);
  std::vector<std::pair<uint64_t, uint64_t>> acks;
  reader_->ackIs([&](uint64_t prev, uint64_t seq) { acks.emplace_back(prev, seq); });
  Raw raw;
  openRaw(0, &raw);
  const std::vector<unsigned char> before(raw.file.base(), raw.file.base() + raw.file.mappedSize());
  EXPECT_EQ(reader_->conquer(recorder()), Walk::consumed);
  EXPECT_EQ(delivered_, (Deliveries{{2, 2}, {1, 3}, {3, 4}}));
  EXPECT_EQ(std::vector<unsigned char>(raw.file.base(), raw.file.base() + raw.file.mappedSize()), before)
      << "a reader never writes the queue";
  notify(2);
  EXPECT_EQ(reader_->conquer(recorder()), Walk::consumed);
  EXPECT_EQ(reader_->conquer(recorder()), Walk::upToDate);
  EXPECT_EQ(acks, (std::vector<std::pair<uint64_t, uint64_t>>{{ConquerReader::kNoAck, 4}, {4, 5}}));
}

TEST_F(ConquerReaderTest, ReaderFollowsCompactionsWithoutGapsOrRepeats) {
  start(32);
  connect();
  std::mt19937 rng(7);
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    for (int i = static_cast<int>(rng() % 150); i > 0; --i) notify(rng() % 32);
    reader_->conquer(recorder());
    expectCaughtUp();
  }
  EXPECT_GT(writer_->counters().compactions, 20u);
  EXPECT_GT(reader_->counters().restarts, 0u);
  EXPECT_EQ(reader_->counters().resyncs, 0u) << "an acknowledging reader is never pruned past";
}

TEST_F(ConquerReaderTest, CopyFromAFileRewrittenMidWalkIsDiscarded) {
  start(400);
  connect();
  for (uint32_t s = 0; s < 400; ++s) notify(s);  // two batches of the walk
  // While the first batch is delivered the writer compacts twice, so the file
  // being walked is rewritten with its entries at other positions.
  const auto record = recorder();
  reader_->conquer([&](uint32_t slot, uint64_t seq) {
    record(slot, seq);
    while (writer_->counters().compactions < 2) notify(writer_->sequence() % 800);
  });
  EXPECT_EQ(writer_->currentTable(), 0u);
  reader_->conquer(recorder());
  expectCaughtUp();
  EXPECT_GT(reader_->counters().restarts, 0u);
}

TEST_F(ConquerReaderTest, ReaderBelowMinSeqIsToldToResynchronise) {
  start(16);
  notify(1);
  notify(2);
  EXPECT_EQ(reader_->conquer(recorder()), Walk::consumed);
  notify(3);
  writer_->compact(writer_->prune());  // nobody connected: everything goes
  EXPECT_TRUE(reader_->handleAck(writer_->minSeq()));
  CaptureSink sink("Mroute::Brume/0-9");
  EXPECT_EQ(reader_->conquer(recorder()), Walk::resync);
  EXPECT_TRUE(sink.contains(kFac, "ConquerReader::conquer() missed notifications, resynchronise, lastSeq:2 minSeq:3"));
  EXPECT_EQ(reader_->resynchronize(), 3u);
  notify(7);
  delivered_.clear();
  EXPECT_EQ(reader_->conquer(recorder()), Walk::consumed);
  EXPECT_EQ(delivered_, (Deliveries{{7, 4}}));
  // A writer that re-formats corrupt files starts above every sequence the
  // old ones posted, so attached readers resynchronise instead of waiting.
  Raw raw;
  openRaw(0, &raw);
  raw.header().magic[0] = 'X';
  ConquerWriter reformatted(dir_, {});
  ASSERT_TRUE(reformatted.attachConquer(16, kEmber));
  EXPECT_EQ(reformatted.minSeq(), 5u);
  EXPECT_EQ(reader_->conquer(recorder()), Walk::resync);
  ConquerReader late(dir_);
  ASSERT_TRUE(late.initialize(kEmber));
  EXPECT_EQ(late.conquer(recorder()), Walk::resync) << "a new reader starts below minSeq";
}

TEST_F(ConquerReaderTest, FindPositionAndRemapFollowTheWriter) {
  start(16);
  for (uint32_t i = 0; i < 10; ++i) notify(i % 4);  // live: 7..10
  EXPECT_EQ(reader_->findPosition(6), 5u);
  EXPECT_EQ(reader_->findPosition(11), 10u);
  writer_->compact(0);
  EXPECT_EQ(reader_->findPosition(1), 0u);
  EXPECT_EQ(reader_->findPosition(8), 1u);
  EXPECT_EQ(reader_->findPosition(11), 4u);
  ASSERT_TRUE(writer_->resize(1000));
  for (uint32_t s = 0; s < 1500; ++s) notify(s);
  CaptureSink sink("Mroute::Brume/0-9");
  reader_->conquer(recorder());
  EXPECT_TRUE(sink.contains(kFac, "ConquerReader::doResize() requesting to map 2000 conquer notifications. "
                                  "Requested file resize to 24072"));
  expectCaughtUp();
}

TEST_F(ConquerReaderTest, CorruptQueueRaisesInsteadOfLooping) {
  start(16);
  for (uint32_t slot : {1, 2, 3}) notify(slot);
  const ConquerReader::Consumer ignore = [](uint32_t, uint64_t) {};
  const std::string path0 = dir_ + "/conquer.1";
  Raw raw0, raw1;
  openRaw(0, &raw0);
  openRaw(1, &raw1);
  raw0.entry(2).seqLow = 2;
  EXPECT_THROW_TEXT(reader_->conquer(ignore), Pavo::CorruptionDetectedException,
                    "ConquerReader::doConquer() unexpected sequence in " + path0 + " position:2 sequence:2 last:2");
  raw0.entry(2).seqLow = 3;
  raw0.header().currentPos = 65;
  EXPECT_THROW_TEXT(reader_->conquer(ignore), Pavo::CorruptionDetectedException,
                    "ConquerReader::doConquer() unexpected position in " + path0 +
                        " position:2 currentPos:65 notifications:64");
  raw0.header().currentPos = 3;
  // Faults found while looking for the current file.
  ConquerReader fresh(dir_);
  ASSERT_TRUE(fresh.initialize(kEmber));
  raw0.header().currentTable = 7;
  EXPECT_THROW_TEXT(fresh.conquer(ignore), Pavo::CorruptionDetectedException,
                    "ConquerReader::locate() bad tableId:7 in " + path0);
  raw0.header().currentTable = 1;  // each file names the other
  raw1.header().currentTable = 0;
  EXPECT_THROW_TEXT(fresh.conquer(ignore), Pavo::CorruptionDetectedException,
                    "ConquerReader::locate() no current conquer file in " + dir_);
  raw0.header().currentTable = 0;
  raw0.header().notifications.init(9, 1000);
  EXPECT_THROW_TEXT(fresh.conquer(ignore), Pavo::CorruptionDetectedException,
                    "ConquerReader::locate() " + path0 + " shorter than its 1000 notifications");
}

TEST_F(ConquerReaderTest, InitializeRefusesMissingAndInvalidFiles) {
  CaptureSink sink("Mroute::Brume/0-9");
  ConquerReader reader(dir_);
  EXPECT_FALSE(reader.initialize(kEmber));
  EXPECT_TRUE(sink.contains(kFac, "ConquerReader::initialize() failed to attach " + dir_));
  start(16);
  EXPECT_FALSE(reader.initialize(kEmber + 1));
  EXPECT_TRUE(sink.contains(kFac, "ConquerReader::initialize() failed validation, reason:ConquerTable::validate() "
                                  "bad ember:0xe1 wanted:0xe2"));
  EXPECT_FALSE(reader.attached());
  EXPECT_ASSERTION(reader.conquer(recorder()), "attached()");
  // Without an ember given, the table directory's ember file decides.
  EXPECT_FALSE(reader.initialize());
  EXPECT_TRUE(sink.contains(kFac, "ConquerReader::initialize() failed to read ember file"));
  std::string error;
  ASSERT_TRUE(Brume::writeEmber(Mem::systemShmFs(), Mem::RootPath(dir_), kEmber + 1, &error)) << error;
  EXPECT_FALSE(reader.initialize());
  ASSERT_TRUE(Brume::writeEmber(Mem::systemShmFs(), Mem::RootPath(dir_), kEmber, &error)) << error;
  EXPECT_TRUE(reader.initialize());
}

}  // namespace
