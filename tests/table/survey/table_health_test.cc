// The writer's health file read back through the survey: a reader's record
// (state, acknowledgement, the counters of its slow paths) and the queue's
// compactions must match what the reader and the queue actually did.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "table/table_test_util.h"
#include "mroute/table/queue/conquer_writer.h"
#include "mroute/table/survey/table_survey.h"

namespace {

using Brume::BrumeType;
using Brume::Survey::TableStat;
using namespace TableTest;
using Testing::runUntil;

constexpr uint64_t kKeys = 8;

// The single reader record of the table's health, or nullptr.
const TableStat::Reader* onlyReader(const TableStat& s) {
  return s.health && s.health->readers.size() == 1 ? &s.health->readers[0] : nullptr;
}

// The reader's record shows it has acknowledged everything the queue holds.
bool caughtUp(const TableStat& s) {
  const TableStat::Reader* r = onlyReader(s);
  return r != nullptr && r->acked && r->lastAck == s.newestSequence;
}

// The first attempt of a look-up is spoilt: the writer relinks the key's
// chain between the reader's load of the bucket count and its walk.
struct Relink {
  RecordMap* writer;
  uint64_t key;
  int calls = 0;
  static void hook(void* context) {
    auto* self = static_cast<Relink*>(context);
    if (self->calls++ != 0) return;
    self->writer->remove(self->key);
    self->writer->write(value(self->key, 2));
  }
};

TEST(TableHealthTest, ReaderCountersCompactionsAndDepartureAreRecorded) {
  Testing::ShmRootScope scope("health");
  Mroute::Loop::EventLoop loop;
  RecordMap writer(loop, "apps", "t", BrumeType::writer, fastOptions());
  ASSERT_TRUE(writer.ready());
  for (uint64_t k = 0; k < kKeys; ++k) writer.write(value(k, 1));
  auto reader = std::make_unique<RecordMap>(loop, "apps", "t", BrumeType::reader, fastOptions());
  ASSERT_TRUE(reader->ready());
  ASSERT_TRUE(runUntil(loop, [&] { return writer.numReaders() == 1; }));
  Brume::BrumeReader<RecordOps>& files = *reader->reader();

  // A restarted look-up still answers the key's newest value.
  Relink relink{&writer, 3};
  files.afterCountLoadIs(&Relink::hook, &relink);
  ASSERT_EQ(reader->lookup(3)->value.version, 2u);
  files.afterCountLoadIs(nullptr, nullptr);
  EXPECT_GE(relink.calls, 2);

  // A lookup of an uncommitted update reads the lookaside copy.
  *writer.writer()->directWrite(5) = value(5, 2);
  ASSERT_TRUE(reader->lookup(5).has_value());
  writer.writer()->directCommit();

  // The reader walks the queue, acknowledges, and reports its counters.
  const Brume::ReaderCounters& own = files.readerCounters();
  ASSERT_GE(own.restarts, 1u);
  ASSERT_GE(own.lookasideReads, 1u);
  TableStat s;
  runUntil(loop, [&] {
    s = Brume::Survey::statTable("apps/t");
    return caughtUp(s) && onlyReader(s)->restarts == own.restarts &&
           onlyReader(s)->lookasideReads == own.lookasideReads;
  });
  ASSERT_TRUE(s.health.has_value()) << s.healthProblem;
  EXPECT_EQ(s.health->writerPid, static_cast<uint32_t>(::getpid()));
  const TableStat::Reader* r = onlyReader(s);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->state, "connected");
  EXPECT_EQ(r->pid, static_cast<uint32_t>(::getpid()));
  EXPECT_EQ(r->goneNs, 0u);
  EXPECT_TRUE(r->acked);
  EXPECT_EQ(r->lastAck, s.newestSequence) << "lag";
  EXPECT_EQ(r->restarts, own.restarts);
  EXPECT_EQ(r->lookasideReads, own.lookasideReads);
  EXPECT_EQ(r->resyncs, 0u);
  EXPECT_EQ(s.health->compactions, 0u);

  // Updates of the same keys, unseen by the reader, until the queue is full
  // and compacts: what every reader acknowledged is dropped, and each key's
  // newest entry is kept.
  Brume::ConquerWriter& queue = *writer.writer()->conquer();
  for (uint64_t v = 10; queue.counters().compactions == 0 && v < 10000; ++v) {
    writer.write(value(v % kKeys, v));
  }
  ASSERT_EQ(queue.counters().compactions, 1u);
  s = Brume::Survey::statTable("apps/t");
  ASSERT_TRUE(s.health.has_value()) << s.healthProblem;
  EXPECT_EQ(s.health->compactions, 1u);
  EXPECT_GT(s.health->lastCompactionNs, 0u);
  EXPECT_EQ(s.health->lastCompactionKept, kKeys);
  // The write that found the queue full follows the kept entries.
  EXPECT_EQ(s.queueEntries, s.health->lastCompactionKept + 1);

  // The reader catches up across the compaction, then goes away.
  EXPECT_TRUE(runUntil(loop, [&] { return caughtUp(s = Brume::Survey::statTable("apps/t")); }));
  ASSERT_NE(onlyReader(s), nullptr);
  const uint64_t lastAck = onlyReader(s)->lastAck;
  reader.reset();
  runUntil(loop, [&] {
    s = Brume::Survey::statTable("apps/t");
    return onlyReader(s) != nullptr && onlyReader(s)->state != "connected";
  });
  r = onlyReader(s);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->state, "gone");
  EXPECT_GT(r->goneNs, 0u);
  EXPECT_EQ(r->lastAck, lastAck);
  EXPECT_EQ(s.health->readersDropped, 0u);
  EXPECT_EQ(writer.numReaders(), 0u);
}

}  // namespace
