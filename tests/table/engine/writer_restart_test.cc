// A writer that starts over files other processes left: a re-format under a
// reader that still maps the old files, the state a writer killed in the
// middle of an operation leaves, a changed configuration, a full file system
// and a shrink that gives memory back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/engine/internal/validator.h"
#include "table/table_test_util.h"

namespace {

using namespace TableTest;

class WriterRestartTest : public ::testing::Test {
 protected:
  // The deep validator's verdict on the files as they lie, without a writer.
  bool validFiles(std::string* why) {
    RawFile slots(dir_.file("slots"));
    RawFile buckets(dir_.file("buckets"));
    Brume::Validator v(slots.at<Brume::SlotTable::Header>(0), kSlotSize, buckets.at<Brume::BucketTable::Header>(0));
    return v.validate(why);
  }
  struct stat statOf(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(::stat(dir_.file(name).c_str(), &st), 0);
    return st;
  }

  TempRoot dir_{"restart"};
  Mroute::Trace::CaptureSink sink_{"Mroute::Brume/13"};
};

TEST_F(WriterRestartTest, ReformatReplacesFilesUnderAMappedReaderAndKeepsSequencesRising) {
  uint64_t sequence = 0;
  {
    Writer w(dir_.root(), config(4));
    ASSERT_TRUE(w.attach());
    for (uint64_t k = 0; k < 3000; ++k) w.write(value(k, 2));
    sequence = w.sequence();
  }
  Reader old(dir_.root());
  ASSERT_TRUE(old.initialize());
  RecordValue out;
  ASSERT_TRUE(old.lookup(2999, out));  // maps the whole grown files
  const ino_t slotsBefore = statOf("slots").st_ino;
  RawFile(dir_.file("buckets")).base()[0] = 'X';  // damaged magic: the next writer re-formats
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "BrumeWriter::attach(): re-formatted successfully"));
  // The old files were replaced, not cut short: the reader still reads them
  // whole (a shortened file would kill it), and learns of the new
  // incarnation through the ember.
  EXPECT_NE(statOf("slots").st_ino, slotsBefore);
  for (uint64_t k = 0; k < 3000; k += 7) {
    ASSERT_TRUE(old.lookup(k, out)) << k;
    EXPECT_TRUE(out.value.check());
  }
  uint32_t ember = 0;
  ASSERT_TRUE(Brume::readEmber(Mem::systemShmFs(), dir_.root(), &ember));
  EXPECT_EQ(ember, w.emberId());
  EXPECT_NE(ember, old.emberId());
  // The notification sequence goes on above what readers have seen.
  w.write(value(1, 3));
  EXPECT_GT(w.sequence(), sequence);
  expectTable(dir_.root(), 1, 2, 3);
}

TEST_F(WriterRestartTest, ChangedMaximumAndFlagsKeepSoundEntries) {
  {
    Writer w(dir_.root(), config(8));
    ASSERT_TRUE(w.attach());
    for (uint64_t k = 0; k < 100; ++k) w.write(value(k));
  }
  Writer w(dir_.root(), shrinking(8, 1000));
  ASSERT_TRUE(w.attach());
  EXPECT_FALSE(sink_.contains("Mroute::Brume", "will be lost"));
  EXPECT_EQ(w.maxSize(), 1000u);
  // The header takes the new maximum under a valid checksum: readers attach.
  expectTable(dir_.root(), 0, 100, 1);
  RawFile slots(dir_.file("slots"));
  EXPECT_EQ(slots.at<Brume::SlotTable::Header>(0)->maxSlots, 1000u);
}

// The states a kill between two stores of the writer leaves, made by hand:
// the next writer recovers them and keeps every entry.
class KilledWriterState : public WriterRestartTest {
 protected:
  void SetUp() override {
    Writer w(dir_.root(), config(128, 128));
    ASSERT_TRUE(w.attach());
    for (uint64_t k = 0; k < 127; ++k) w.write(value(k));
    numBuckets_ = w.numBuckets();
  }
  Brume::SlotTable::Header* header(RawFile& f) { return f.at<Brume::SlotTable::Header>(0); }
  // Attaches, expects every entry and room for more.
  void expectRecovered() {
    Writer w(dir_.root(), config(128, 128));
    ASSERT_TRUE(w.attach());
    EXPECT_FALSE(sink_.contains("Mroute::Brume", "will be lost"));
    EXPECT_TRUE(sink_.contains("Mroute::Brume", "BrumeWriter::attach() recovered " + dir_.dir()));
    expectTable(dir_.root(), 0, 127, 1);
    for (uint64_t k = 127; k < 300; ++k) w.write(value(k));
    EXPECT_TRUE(valid(w));
  }
  uint32_t numBuckets_ = 0;
};

TEST_F(KilledWriterState, SlotTakenOffTheFreeListButNeverLinked) {
  {
    RawFile slots(dir_.file("slots"));
    Brume::SlotTable::Header* h = header(slots);
    const uint32_t taken = h->freeSlots;
    ASSERT_NE(taken, Brume::kNoRef);
    h->freeSlots = slots.slot(taken)->next.load().ref;
    slots.slot(taken)->status |= Brume::kOccupied;
  }
  std::string why;
  EXPECT_FALSE(validFiles(&why));
  EXPECT_EQ(why, "Validator::findLeakedSlots() leaked slots:1 first slotId:127");
  expectRecovered();
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "leakedSlots:1"));
}

TEST_F(KilledWriterState, LinkedButNotCountedAndFreeListOfAGrowthNotPublished) {
  {
    RawFile slots(dir_.file("slots"));
    header(slots)->occupiedSlots -= 1;
    header(slots)->freeSlots = 128;  // a grown list whose numSlots was not stored
  }
  expectRecovered();
}

TEST_F(KilledWriterState, BucketSplitCutNotDone) {
  ASSERT_GE(numBuckets_, 2u);
  {
    // The state between publishing the doubled count and cutting the lower
    // chains: each lower chain runs on into its upper bucket's chain.
    RawFile buckets(dir_.file("buckets"));
    RawFile slots(dir_.file("slots"));
    auto* heads = buckets.at<Brume::BucketTable::Header>(0)->buckets();
    const uint32_t half = numBuckets_ / 2;
    for (uint32_t b = 0; b < half; ++b) {
      const uint32_t upper = heads[b + half].load().ref;
      if (Brume::isEndMarker(upper)) continue;
      Mem::VersionedRef* link = &heads[b];
      while (!Brume::isEndMarker(link->load().ref)) link = &slots.slot(link->load().ref)->next;
      link->init(link->load().version + 4, upper);
    }
  }
  std::string why;
  EXPECT_FALSE(validFiles(&why));
  expectRecovered();
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "cutChains:"));
}

TEST_F(KilledWriterState, InPlaceUpdateInterruptedAfterTheLookasideCopy) {
  {
    RawFile slots(dir_.file("slots"));
    slots.stageInterruptedUpdate(slots.slotOf(5));
  }
  expectRecovered();
  EXPECT_TRUE(sink_.contains("Mroute::Brume", "finishedUpdates:1"));
}

TEST_F(WriterRestartTest, FullFileSystemIsAnErrorAndKeepsWhatWasWritten) {
  TableTest::FailingFs fs;
  fs.noSpace = true;
  {
    Writer w(dir_.root(), config(8), fs);
    EXPECT_FALSE(w.attach());
    EXPECT_TRUE(sink_.contains("Mroute::Brume", "(the file system is full)"));
  }
  fs.noSpace = false;
  Writer w(dir_.root(), config(8), fs);
  ASSERT_TRUE(w.attach());
  for (uint64_t k = 0; k < 8; ++k) w.write(value(k));
  fs.noSpace = true;
  try {
    w.write(value(8));
    ADD_FAILURE() << "a growth without space did not fail";
  } catch (const Brume::TableFullException& e) {
    EXPECT_NE(std::string(e.what()).find("(the file system is full)"), std::string::npos) << e.what();
  }
  expectTable(dir_.root(), 0, 8, 1);
  fs.noSpace = false;
  w.write(value(8));
  expectTable(dir_.root(), 0, 9, 1);
}

TEST_F(WriterRestartTest, ShrinkGivesMemoryBackUnderAMappedReader) {
  Writer w(dir_.root(), shrinking(32, 4096, 32));
  ASSERT_TRUE(w.attach());
  for (uint64_t k = 0; k < 4096; ++k) w.write(value(k));
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  ASSERT_TRUE(r.lookup(4095, out));
  const struct stat before = statOf("slots");
  for (uint64_t k = 8; k < 4096; ++k) w.remove(k);
  ASSERT_EQ(w.capacity(), 32u);
  const struct stat after = statOf("slots");
  EXPECT_EQ(after.st_size, before.st_size);  // mappings stay valid
  EXPECT_LT(after.st_blocks * 512, 64 * 1024) << "blocks before: " << before.st_blocks;
  // The reader still maps the whole old length: it reads, it does not fault.
  for (uint64_t k = 0; k < 4096; ++k) EXPECT_EQ(r.lookup(k, out), k < 8) << k;
  for (uint64_t k = 8; k < 2000; ++k) w.write(value(k, 2));
  for (uint64_t k = 8; k < 2000; k += 13) ASSERT_TRUE(r.lookup(k, out)) << k;
}

}  // namespace
