// BrumeReader against a writer in the same process: lookups, iteration over
// splits and joins, safeValue, remapping after growth, detached behaviour,
// initialisation failures and the corruption checks of a walk.
#include "mroute/table/engine/brume_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using namespace TableTest;

class BrumeReaderTest : public ::testing::Test {
 protected:
  TableTest::TempRoot dir_{"reader"};
};

TEST_F(BrumeReaderTest, FindsWhatTheWriterWroteAcrossGrowth) {
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  for (uint64_t k = 0; k < 1000; ++k) w.write(value(k, k + 1));
  // The reader mapped 4 slots and 4 buckets; it remaps as it meets more.
  RecordValue out;
  for (uint64_t k = 0; k < 1000; ++k) {
    ASSERT_TRUE(r.lookup(k, out)) << k;
    EXPECT_EQ(out.value.key, k);
    EXPECT_EQ(out.value.version, k + 1);
    EXPECT_TRUE(out.value.check());
  }
  EXPECT_FALSE(r.lookup(5000, out));
  EXPECT_EQ(r.capacity(), w.capacity());
  EXPECT_EQ(r.members(), 1000u);
}

// A reader that mapped the table when it held 4 slots meets a chain longer
// than its mapping, laid out so that the chain's first 4 entries sit in the
// slots it already maps: the walk must remap on the 5th instead of taking the
// chain for a cycle.
TEST_F(BrumeReaderTest, LookupWalksAChainLongerThanAStaleMapping) {
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  std::vector<uint64_t> chain;
  for (uint64_t k = 0; chain.size() < 7; ++k) {
    if ((RecordOps::hash(k) & 7) == 1) chain.push_back(k);
  }
  // Written in chain order: slot i holds the chain's i-th entry.
  std::sort(chain.begin(), chain.end(), [](uint64_t a, uint64_t b) {
    return Brume::bitReverse(RecordOps::hash(a)) < Brume::bitReverse(RecordOps::hash(b));
  });
  for (uint64_t k : chain) w.write(value(k, k + 3));
  ASSERT_EQ(w.numBuckets(), 8u);
  RecordValue out;
  ASSERT_TRUE(r.lookup(chain.back(), out)) << "the last of the chain, first lookup after growth";
  EXPECT_EQ(out.value.version, chain.back() + 3);
  for (uint64_t k : chain) EXPECT_TRUE(r.lookup(k, out)) << k;
}

// A lookup settles the first entries of a chain itself and hands longer
// chains to a walk: every position of a long chain must be found, with its
// own value, and a key absent from the chain must be answered "absent"
// wherever it would sort (before the first entry, between two, after the
// last).
TEST_F(BrumeReaderTest, LookupFindsEveryPositionOfALongChain) {
  Writer w(dir_.root(), config(64));
  ASSERT_TRUE(w.attach());
  ASSERT_EQ(w.numBuckets(), 64u);
  std::vector<uint64_t> chain;
  for (uint64_t k = 0; chain.size() < 7; ++k) {
    if ((RecordOps::hash(k) & 63) == 9) chain.push_back(k);
  }
  for (uint64_t k : chain) w.write(value(k, k + 7));
  ASSERT_EQ(w.numBuckets(), 64u);  // still one chain of seven
  auto rhashOf = [](uint64_t k) { return Brume::bitReverse(RecordOps::hash(k)); };
  auto sortsBefore = [&](uint64_t a, uint64_t b) { return rhashOf(a) < rhashOf(b); };
  std::sort(chain.begin(), chain.end(), sortsBefore);
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  for (uint64_t k : chain) {
    ASSERT_TRUE(r.lookup(k, out)) << "key " << k;
    EXPECT_EQ(out.value.key, k);
    EXPECT_EQ(out.value.version, k + 7);
    EXPECT_TRUE(out.value.check());
  }
  // Absent keys of the same bucket, one sorting into each gap of the chain.
  std::set<size_t> gaps;
  for (uint64_t k = 100000; gaps.size() < chain.size() + 1 && k < 10000000; ++k) {
    if ((RecordOps::hash(k) & 63) != 9) continue;
    const size_t gap =
        static_cast<size_t>(std::lower_bound(chain.begin(), chain.end(), k, sortsBefore) - chain.begin());
    if (!gaps.insert(gap).second) continue;
    EXPECT_FALSE(r.lookup(k, out)) << "absent key " << k << " found, gap " << gap;
  }
  EXPECT_EQ(gaps.size(), chain.size() + 1);
  EXPECT_EQ(r.readerCounters().restarts, 0u);
}

// The lookup's hot state follows the mappings wherever they are remapped:
// after an iteration or safeValue() grew them (not a lookup), every entry is
// found at the new mapping.
TEST_F(BrumeReaderTest, LookupAfterOtherCallsRemappedFindsEveryEntry) {
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  for (uint64_t k = 0; k < 4; ++k) w.write(value(k));
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  ASSERT_TRUE(r.lookup(3, out));
  for (uint64_t k = 4; k < 3000; ++k) w.write(value(k, 2));
  uint64_t seen = 0;
  r.forEach([&](const RecordValue&) { ++seen; });
  EXPECT_EQ(seen, 3000u);
  for (uint64_t k = 0; k < 3000; ++k) {
    ASSERT_TRUE(r.lookup(k, out)) << k;
    EXPECT_EQ(out.value.key, k);
  }
  for (uint64_t k = 3000; k < 9000; ++k) w.write(value(k, 3));
  // safeValue() past the mapping remaps first.
  uint32_t occupied = 0;
  for (uint32_t i = 0; i < w.capacity(); ++i) occupied += r.safeValue(i, out) ? 1 : 0;
  EXPECT_EQ(occupied, 9000u);
  for (uint64_t k = 0; k < 9000; ++k) {
    ASSERT_TRUE(r.lookup(k, out)) << k;
    EXPECT_EQ(out.value.version, k < 4 ? 1u : k < 3000 ? 2u : 3u);
  }
  EXPECT_FALSE(r.lookup(9000, out));
}

TEST_F(BrumeReaderTest, IterationReturnsEveryEntryOnceInBucketOrder) {
  Writer w(dir_.root(), config(16));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  RecordValue out;
  EXPECT_FALSE(r.first(out));
  for (uint64_t k = 0; k < 300; ++k) w.write(value(k));
  std::vector<uint64_t> order;
  for (bool more = r.first(out); more; more = r.next(out.value.key, out)) order.push_back(out.value.key);
  ASSERT_EQ(order.size(), 300u);
  EXPECT_EQ(std::set<uint64_t>(order.begin(), order.end()).size(), 300u);
  // Same order as the writer's own walk.
  std::vector<uint64_t> writerOrder;
  for (const RecordValue* v = w.first(); v != nullptr; v = w.next(v->value.key)) writerOrder.push_back(v->value.key);
  EXPECT_EQ(order, writerOrder);
  // next() of the entry just returned, removed meanwhile: its bucket moved on,
  // so the walk starts over from where the entry was sorted.
  ASSERT_TRUE(r.first(out));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(r.next(out.value.key, out));
  ASSERT_EQ(out.value.key, order[100]);
  w.remove(order[100]);
  ASSERT_TRUE(r.next(order[100], out));
  EXPECT_EQ(out.value.key, order[101]);
  // next() of a key removed meanwhile continues after where it was.
  const uint64_t middle = order[150];
  w.remove(middle);
  ASSERT_TRUE(r.next(middle, out));
  EXPECT_EQ(out.value.key, order[151]);
}

// forEach continues from the slot it stands on; a writer that changes the
// table under it (removals ahead, in-place updates, inserts that double the
// buckets) must send it back to the full walk, never past or round an entry.
TEST_F(BrumeReaderTest, ForEachUnderChangesReturnsEachStayingEntryOnce) {
  Writer w(dir_.root(), config(16));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  for (uint64_t k = 0; k < 300; ++k) w.write(value(k));
  std::vector<uint64_t> order;
  RecordValue out;
  for (bool more = r.first(out); more; more = r.next(out.value.key, out)) order.push_back(out.value.key);
  std::vector<uint64_t> seen;
  r.forEach([&](const RecordValue& v) { seen.push_back(v.value.key); });
  EXPECT_EQ(seen, order);

  seen.clear();
  uint64_t added = 1000;
  r.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    RecordValue probe;
    EXPECT_TRUE(r.lookup(v.value.key, probe));  // f may use the reader
    if (seen.size() % 7 == 0) w.write(value(v.value.key, 2));  // the bucket just read moves on
    if (seen.size() % 11 == 0) {
      // The slot f stands on freed and taken by a key of another bucket.
      w.remove(v.value.key);
      w.write(value(added++));
    }
    if (seen.size() == 150) {
      for (int i = 0; i < 400; ++i) w.write(value(added++));  // grows slots and buckets
    }
  });
  std::set<uint64_t> once(seen.begin(), seen.end());
  EXPECT_EQ(once.size(), seen.size());
  // The changes did send steps back to the full walk.
  EXPECT_GT(r.readerCounters().walkRestarts, 0u);
  for (uint64_t k = 0; k < 300; ++k) {
    if (w.lookup(k) != nullptr) {  // present throughout
      EXPECT_EQ(once.count(k), 1u) << k;
    }
  }
  // f detaching the reader ends the walk.
  int calls = 0;
  r.forEach([&](const RecordValue&) {
    ++calls;
    r.detach();
  });
  EXPECT_EQ(calls, 1);
}

// On a table nobody changes, forEach walks every bucket count (fewer buckets
// than its read-ahead block, exactly one block, many) in first()/next()
// order without handing a single step back to the full walk: every end
// marker it meets is the successor its read-ahead worked out.
TEST_F(BrumeReaderTest, ForEachOnAStillTableNeverFallsBack) {
  for (const uint32_t entries : {1u, 2u, 3u, 5u, 8u, 9u, 17u, 40u, 300u, 3000u}) {
    SCOPED_TRACE(entries);
    TableTest::TempRoot dir{"reader-still"};
    Writer w(dir.root(), config(1));
    ASSERT_TRUE(w.attach());
    Reader r(dir.root());
    ASSERT_TRUE(r.initialize());
    for (uint64_t k = 0; k < entries; ++k) w.write(value(k * 7919));
    std::vector<uint64_t> order;
    RecordValue out;
    for (bool more = r.first(out); more; more = r.next(out.value.key, out)) order.push_back(out.value.key);
    ASSERT_EQ(order.size(), entries);
    const uint64_t before = r.readerCounters().walkRestarts;
    std::vector<uint64_t> seen;
    r.forEach([&](const RecordValue& v) {
      EXPECT_TRUE(v.value.check());
      seen.push_back(v.value.key);
    });
    EXPECT_EQ(seen, order);
    EXPECT_EQ(r.readerCounters().walkRestarts, before) << "buckets: " << w.numBuckets();
  }
}

TEST_F(BrumeReaderTest, SafeValueReadsOccupiedSlotsOnly) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  Reader r(dir_.root());
  ASSERT_TRUE(r.initialize());
  w.write(value(11, 3));
  w.write(value(12, 3));
  w.remove(12);
  RecordValue out;
  ASSERT_TRUE(r.safeValue(0, out));
  EXPECT_EQ(out.value.key, 11u);
  EXPECT_FALSE(r.safeValue(1, out));
  EXPECT_FALSE(r.safeValue(4, out));
  EXPECT_TRUE(sink.contains("Mroute::Brume",
                            "BrumeReader::safeValue() unable to retrieve slotIndex:4 shmemCapacity:4, returning not found"));
  // A slot beyond the first mapping is reached after a remap.
  for (uint64_t k = 100; k < 110; ++k) w.write(value(k));
  EXPECT_TRUE(r.safeValue(9, out));
}

TEST_F(BrumeReaderTest, DetachedReaderAnswersNotFound) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/39");
  Reader r(dir_.root());
  RecordValue out;
  EXPECT_FALSE(r.lookup(1, out));
  EXPECT_FALSE(r.first(out));
  EXPECT_FALSE(r.safeValue(0, out));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::doLookup() bucket table detached"));
  Writer w(dir_.root(), config(4));
  ASSERT_TRUE(w.attach());
  w.write(value(1));
  ASSERT_TRUE(r.initialize());
  EXPECT_TRUE(r.lookup(1, out));
  r.detach();
  EXPECT_FALSE(r.lookup(1, out));
  r.detach();
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::detach() already detached"));
}

TEST_F(BrumeReaderTest, InitializeRefusesMissingAndInvalidFiles) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  Reader r(dir_.root());
  EXPECT_FALSE(r.initialize());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::initialize() failed to attach to buckets"));
  {
    Writer w(dir_.root(), config(4));
    ASSERT_TRUE(w.attach());
  }
  {
    TableTest::RawFile slots(dir_.file("slots"));
    *slots.at<uint32_t>(8) = 9;  // version
  }
  EXPECT_FALSE(r.initialize());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "SlotTable::Header::validate() bad version: 9"));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::initialize() failed to validate slots"));
  EXPECT_TRUE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), dir_.root()));
  // Files of another incarnation are refused too.
  {
    Writer w(dir_.root(), config(4));
    ASSERT_TRUE(w.attach());  // re-formats and removes the marker
    EXPECT_FALSE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), dir_.root()));
    std::string error;
    ASSERT_TRUE(Brume::writeEmber(Mem::systemShmFs(), dir_.root(), w.emberId() + 1, &error));
  }
  EXPECT_FALSE(r.initialize());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::initialize() failed to validate buckets"));
}

// A lookup that loaded the bucket count just before the writer doubled the
// buckets (once or twice) walks the lower chain the key left, reaches its end
// marker, and must notice the new count instead of answering "absent" for a
// key that was present throughout.
TEST_F(BrumeReaderTest, LookupPausedAcrossBucketDoublingFindsMovedKeys) {
  struct Pause {
    Writer* writer;
    uint64_t nextKey;
    uint32_t doublings;
    int calls = 0;
  };
  for (uint32_t doublings : {1u, 2u}) {
    int moved = 0;
    for (uint64_t target = 0; target < 16; ++target) {
      TableTest::TempRoot dir("pause");
      Writer w(dir.root(), config(16));
      ASSERT_TRUE(w.attach());
      for (uint64_t k = 0; k < 16; ++k) w.write(value(k));
      const uint32_t before = w.numBuckets();
      ASSERT_EQ(before, 16u);
      // Only keys whose bucket changes with the doublings can be missed.
      if ((RecordOps::hash(target) & (before * ((1u << doublings) - 1))) == 0) continue;
      ++moved;
      Reader r(dir.root());
      ASSERT_TRUE(r.initialize());
      Pause pause{&w, 1000, doublings};
      r.afterCountLoadIs(
          [](void* context) {
            auto* p = static_cast<Pause*>(context);
            if (p->calls++ != 0) return;
            // Inserts until the bucket count has doubled `doublings` times:
            // every phase of each growth runs while the reader is paused.
            const uint32_t wanted = p->writer->numBuckets() << p->doublings;
            while (p->writer->numBuckets() < wanted) p->writer->write(value(p->nextKey++));
          },
          &pause);
      RecordValue out;
      ASSERT_TRUE(r.lookup(target, out)) << "key " << target << " missed across " << doublings << " doubling(s)";
      EXPECT_EQ(out.value.key, target);
      EXPECT_EQ(w.numBuckets(), before << doublings);
      // The paused attempt was thrown away and the lookup ran again.
      EXPECT_GE(pause.calls, 2);
      EXPECT_GE(r.readerCounters().restarts, 1u);
    }
    EXPECT_GT(moved, 0);
  }
}

class ReaderCorruption : public BrumeReaderTest {
 protected:
  void SetUp() override {
    w_ = std::make_unique<Writer>(dir_.root(), config(64));
    ASSERT_TRUE(w_->attach());
    // Three keys of one bucket, chained in (rhash, key) order.
    for (uint64_t k = 0; keys_.size() < 3; ++k) {
      if ((RecordOps::hash(k) & 63) == 9) keys_.push_back(k);
    }
    for (uint64_t k : keys_) w_->write(value(k));
    std::sort(keys_.begin(), keys_.end(), [](uint64_t a, uint64_t b) {
      return Brume::bitReverse(RecordOps::hash(a)) < Brume::bitReverse(RecordOps::hash(b));
    });
    raw_ = std::make_unique<TableTest::RawFile>(dir_.file("slots"));
    ASSERT_TRUE(r_.initialize());
  }
  // The keys were written in their original order to slots 0, 1, 2.
  uint32_t indexOf(uint64_t key) {
    uint32_t i = 0;
    while (i < 3 && reinterpret_cast<RecordValue*>(raw_->slot(i)->value())->value.key != key) ++i;
    return i;
  }
  Brume::Slot* slotOf(uint64_t key) { return raw_->slot(indexOf(key)); }
  // Both iteration interfaces: each must raise the same reports.
  void iterateAll() {
    RecordValue out;
    for (bool more = r_.first(out); more; more = r_.next(out.value.key, out)) {
    }
  }
  void forEachAll() {
    r_.forEach([](const RecordValue&) {});
  }

  std::unique_ptr<Writer> w_;
  std::vector<uint64_t> keys_;
  std::unique_ptr<TableTest::RawFile> raw_;
  Reader r_{dir_.root()};
};

TEST_F(ReaderCorruption, ChainCycleIsReportedAndMarked) {
  // The last slot of the chain points back to the first.
  slotOf(keys_[2])->next.init(0, indexOf(keys_[0]));
  RecordValue out;
  EXPECT_TRUE(r_.lookup(keys_[2], out));
  // A key of the bucket sorted after the last entry walks round the cycle.
  uint64_t absent = 0;
  for (uint64_t k = 5000;; ++k) {
    if ((RecordOps::hash(k) & 63) == 9 &&
        Brume::bitReverse(RecordOps::hash(k)) > Brume::bitReverse(RecordOps::hash(keys_[2]))) {
      absent = k;
      break;
    }
  }
  try {
    r_.lookup(absent, out);
    ADD_FAILURE() << "cycle not detected";
  } catch (const Pavo::CorruptionDetectedException& e) {
    EXPECT_EQ(std::string(e.what()).rfind("BrumeReader::doLookup() hash chain cycle detected, slotCount:65", 0), 0u)
        << e.what();
  }
  EXPECT_TRUE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), dir_.root()));
  EXPECT_THROW(iterateAll(), Pavo::CorruptionDetectedException);
  EXPECT_THROW(forEachAll(), Pavo::CorruptionDetectedException);
}

TEST_F(ReaderCorruption, KeyInTheWrongBucketIsReported) {
  // The middle entry claims a hash of another bucket.
  Brume::Slot* s = slotOf(keys_[1]);
  s->rhash = Brume::bitReverse(Brume::bitReverse(s->rhash) ^ 1);
  RecordValue out;
  EXPECT_THROW(r_.lookup(keys_[2], out), Pavo::CorruptionDetectedException);
  EXPECT_THROW(iterateAll(), Pavo::CorruptionDetectedException);
  EXPECT_THROW(forEachAll(), Pavo::CorruptionDetectedException);
}

TEST_F(ReaderCorruption, EndMarkerLeadingBackIsReported) {
  // An empty bucket after the keys' bucket names that bucket again: the
  // walk would go round for ever.
  const uint32_t after = Brume::endMarkerAfter(9, 64) & ~Brume::kEndBit;
  TableTest::RawFile buckets(dir_.file("buckets"));
  buckets.at<Mem::VersionedRef>(32 + 8 * size_t{after})->init(4, Brume::kEndBit | 9);
  try {
    forEachAll();
    ADD_FAILURE() << "bucket cycle not detected";
  } catch (const Pavo::CorruptionDetectedException& e) {
    EXPECT_EQ(std::string(e.what()).rfind("BrumeReader::verifyNextBucket() has bucket:", 0), 0u) << e.what();
  }
  EXPECT_THROW(iterateAll(), Pavo::CorruptionDetectedException);
}

TEST_F(ReaderCorruption, RetryOnResizeRemapsOnlyWhenTheFilesGrew) {
  int calls = 0;
  auto op = [&] {
    if (++calls == 1) throw Pavo::CorruptionDetectedException("stale");
    return calls;
  };
  // Nothing grew: the error stands.
  EXPECT_THROW(r_.retryOnResize(op), Pavo::CorruptionDetectedException);
  for (uint64_t k = 100; k < 200; ++k) w_->write(value(k));
  calls = 0;
  EXPECT_EQ(r_.retryOnResize(op), 2);
}

}  // namespace
