// BrumeReader against a writer in the same process: lookups, remapping after
// growth, iteration over splits and joins and across forEach's read-ahead
// block, safeValue, detached behaviour, initialisation failures and the
// corruption checks of a walk.
#include "mroute/table/engine/brume_reader.h"

#include <memory>

#include "mroute/runtime/trace.h"
#include "table/table_test_util.h"

namespace {

using namespace TableTest;

class BrumeReaderTest : public ::testing::Test {
 protected:
  // A writer of a table of `initial` slots, and the reader mapping it empty.
  void open(uint32_t initial) {
    w_ = std::make_unique<Writer>(dir_.root(), config(initial));
    ASSERT_TRUE(w_->attach());
    ASSERT_TRUE(r_.initialize());
  }

  TempRoot dir_{"reader"};
  std::unique_ptr<Writer> w_;
  Reader r_{dir_.root()};
};

// The reader first maps 4 slots and 4 buckets. A lookup, an iteration and
// safeValue() each remap when they meet the grown table, and the lookup's hot
// state follows the mappings whichever call remapped them.
TEST_F(BrumeReaderTest, LookupIterationAndSafeValueRemapAcrossGrowth) {
  open(4);
  for (uint64_t k = 0; k < 1000; ++k) w_->write(value(k, 1));
  RecordValue out;
  for (uint64_t k = 0; k < 1000; ++k) {
    ASSERT_TRUE(r_.lookup(k, out)) << k;
    EXPECT_EQ(out.value.key, k);
    EXPECT_TRUE(out.value.check());
  }
  EXPECT_EQ(r_.capacity(), w_->capacity());
  EXPECT_EQ(r_.members(), 1000u);
  for (uint64_t k = 1000; k < 3000; ++k) w_->write(value(k, 2));
  uint64_t seen = 0;
  r_.forEach([&](const RecordValue&) { ++seen; });
  EXPECT_EQ(seen, 3000u);
  for (uint64_t k = 0; k < 3000; ++k) {
    ASSERT_TRUE(r_.lookup(k, out)) << k;
    EXPECT_EQ(out.value.key, k);
  }
  for (uint64_t k = 3000; k < 9000; ++k) w_->write(value(k, 3));
  uint32_t occupied = 0;
  for (uint32_t i = 0; i < w_->capacity(); ++i) occupied += r_.safeValue(i, out) ? 1 : 0;
  EXPECT_EQ(occupied, 9000u);
  for (uint64_t k = 0; k < 9000; ++k) {
    ASSERT_TRUE(r_.lookup(k, out)) << k;
    EXPECT_EQ(out.value.version, k < 1000 ? 1u : k < 3000 ? 2u : 3u);
  }
  EXPECT_FALSE(r_.lookup(9000, out));
}

// A reader that mapped the table when it held 4 slots meets a chain longer
// than its mapping, whose first 4 entries sit in the slots it maps: the walk
// must remap on the 5th instead of taking the chain for a cycle.
TEST_F(BrumeReaderTest, LookupWalksAChainLongerThanAStaleMapping) {
  open(4);
  std::vector<uint64_t> chain = keysOfBucket(8, 1, 7);
  sortInChainOrder(chain);  // written in chain order: slot i holds the chain's i-th entry
  for (uint64_t k : chain) w_->write(value(k, k + 3));
  ASSERT_EQ(w_->numBuckets(), 8u);
  RecordValue out;
  ASSERT_TRUE(r_.lookup(chain.back(), out)) << "the last of the chain, first lookup after growth";
  EXPECT_EQ(out.value.version, chain.back() + 3);
  for (uint64_t k : chain) EXPECT_TRUE(r_.lookup(k, out)) << k;
}

// A lookup settles the first entries of a chain itself and hands longer
// chains to a walk: every position of a long chain is found with its own
// value, and an absent key of the bucket is "absent" wherever it would sort
// (before the first entry, between two, after the last).
TEST_F(BrumeReaderTest, LookupFindsEveryPositionOfALongChain) {
  open(64);
  std::vector<uint64_t> chain = keysOfBucket(64, 9, 7);
  for (uint64_t k : chain) w_->write(value(k, k + 7));
  ASSERT_EQ(w_->numBuckets(), 64u);  // still one chain of seven
  sortInChainOrder(chain);
  RecordValue out;
  for (uint64_t k : chain) {
    ASSERT_TRUE(r_.lookup(k, out)) << "key " << k;
    EXPECT_EQ(out.value.key, k);
    EXPECT_EQ(out.value.version, k + 7);
    EXPECT_TRUE(out.value.check());
  }
  const auto sortsBefore = [](uint64_t a, uint64_t b) { return rhashOf(a) < rhashOf(b); };
  std::set<size_t> gaps;
  for (uint64_t k = 100000; gaps.size() < chain.size() + 1 && k < 10000000; ++k) {
    if ((RecordOps::hash(k) & 63) != 9) continue;
    const size_t gap =
        static_cast<size_t>(std::lower_bound(chain.begin(), chain.end(), k, sortsBefore) - chain.begin());
    if (!gaps.insert(gap).second) continue;
    EXPECT_FALSE(r_.lookup(k, out)) << "absent key " << k << " found, gap " << gap;
  }
  EXPECT_EQ(gaps.size(), chain.size() + 1);
  EXPECT_EQ(r_.readerCounters().restarts, 0u);
}

TEST_F(BrumeReaderTest, IterationReturnsEveryEntryOnceInBucketOrder) {
  open(16);
  RecordValue out;
  EXPECT_FALSE(r_.first(out));
  for (uint64_t k = 0; k < 300; ++k) w_->write(value(k));
  const std::vector<uint64_t> order = iterationOrder(r_);
  ASSERT_EQ(order.size(), 300u);
  EXPECT_EQ(std::set<uint64_t>(order.begin(), order.end()).size(), 300u);
  std::vector<uint64_t> writerOrder;
  for (const RecordValue* v = w_->first(); v != nullptr; v = w_->next(v->value.key)) writerOrder.push_back(v->value.key);
  EXPECT_EQ(order, writerOrder);
  // next() of the entry just returned, removed meanwhile: its bucket moved on,
  // so the walk starts over from where the entry was sorted.
  ASSERT_TRUE(r_.first(out));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(r_.next(out.value.key, out));
  ASSERT_EQ(out.value.key, order[100]);
  w_->remove(order[100]);
  ASSERT_TRUE(r_.next(order[100], out));
  EXPECT_EQ(out.value.key, order[101]);
  // next() of a key removed meanwhile continues after where it was.
  w_->remove(order[150]);
  ASSERT_TRUE(r_.next(order[150], out));
  EXPECT_EQ(out.value.key, order[151]);
}

// forEach continues from the slot it stands on; a writer that changes the
// table under it (removals ahead, in-place updates, inserts that double the
// buckets) must send it back to the full walk, never past or round an entry.
TEST_F(BrumeReaderTest, ForEachUnderChangesReturnsEachStayingEntryOnce) {
  open(16);
  for (uint64_t k = 0; k < 300; ++k) w_->write(value(k));
  std::vector<uint64_t> seen;
  uint64_t added = 1000;
  r_.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    RecordValue probe;
    EXPECT_TRUE(r_.lookup(v.value.key, probe));  // f may use the reader
    if (seen.size() % 7 == 0) w_->write(value(v.value.key, 2));  // the bucket just read moves on
    if (seen.size() % 11 == 0) {
      // The slot f stands on freed and taken by a key of another bucket.
      w_->remove(v.value.key);
      w_->write(value(added++));
    }
    if (seen.size() == 150) {
      for (int i = 0; i < 400; ++i) w_->write(value(added++));  // grows slots and buckets
    }
  });
  std::set<uint64_t> once(seen.begin(), seen.end());
  EXPECT_EQ(once.size(), seen.size());
  EXPECT_GT(r_.readerCounters().walkRestarts, 0u);
  for (uint64_t k = 0; k < 300; ++k) {
    if (w_->lookup(k) != nullptr) {  // present throughout
      EXPECT_EQ(once.count(k), 1u) << k;
    }
  }
  // f detaching the reader ends the walk.
  int calls = 0;
  r_.forEach([&](const RecordValue&) {
    ++calls;
    r_.detach();
  });
  EXPECT_EQ(calls, 1);
}

// On a table nobody changes, forEach walks every bucket count (fewer buckets
// than its read-ahead block, exactly one block, many) in first()/next()
// order without handing a step back to the full walk: every end marker it
// meets is the successor its read-ahead worked out.
TEST_F(BrumeReaderTest, ForEachOnAStillTableNeverFallsBack) {
  for (const uint32_t entries : {1u, 2u, 3u, 5u, 8u, 9u, 17u, 40u, 300u, 3000u}) {
    SCOPED_TRACE(entries);
    TempRoot dir{"reader-still"};
    Writer w(dir.root(), config(1));
    ASSERT_TRUE(w.attach());
    Reader r(dir.root());
    ASSERT_TRUE(r.initialize());
    for (uint64_t k = 0; k < entries; ++k) w.write(value(k * 7919));
    const std::vector<uint64_t> order = iterationOrder(r);
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

// forEach while the bucket count crosses its read-ahead block (eight
// buckets): a walk that starts with the read-ahead and finds the table
// shrunk below a block, and one that starts without it and finds the table
// grown past many blocks, return each entry present throughout once, in
// first()/next() order.
TEST_F(BrumeReaderTest, ForEachFollowsTheBucketCountAcrossTheReadAheadBlock) {
  open(64);
  for (uint64_t k = 0; k < 64; ++k) w_->write(value(k * 7919));
  ASSERT_GE(w_->numBuckets(), 32u);
  const std::vector<uint64_t> before = iterationOrder(r_);
  ASSERT_EQ(before.size(), 64u);
  // At the third entry f removes all but one entry, which halves the buckets
  // down to four. The one kept sorts into the second of the four, so that
  // from there the walk crosses the third and fourth to the end.
  size_t kept = 3;
  while (kept < before.size() && rhashOf(before[kept]) >> 30 != 1) ++kept;
  ASSERT_LT(kept, before.size());
  std::vector<uint64_t> seen;
  const uint64_t restartsBefore = r_.readerCounters().walkRestarts;
  r_.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    if (seen.size() == 3) {
      for (size_t i = 0; i < before.size(); ++i) {
        if (i != kept) w_->remove(before[i]);
      }
    }
  });
  EXPECT_EQ(w_->numBuckets(), 4u);
  EXPECT_EQ(seen, (std::vector<uint64_t>{before[0], before[1], before[2], before[kept]}));
  // One change, one return to the full walk: from there on the small
  // table's end markers are what the walk expects.
  EXPECT_EQ(r_.readerCounters().walkRestarts, restartsBefore + 1);

  // Growing, from a walk without read-ahead: split order is the order of the
  // reversed hashes whatever the count, so the grown table's order it is.
  w_->write(value(3));
  seen.clear();
  r_.forEach([&](const RecordValue& v) {
    EXPECT_TRUE(v.value.check());
    seen.push_back(v.value.key);
    if (seen.size() == 1) {
      for (uint64_t k = 1000; k < 1400; ++k) w_->write(value(k));
    }
  });
  EXPECT_GE(w_->numBuckets(), 256u);
  const std::set<uint64_t> once(seen.begin(), seen.end());
  EXPECT_EQ(once.size(), seen.size());
  EXPECT_EQ(once.count(before[kept]), 1u);
  EXPECT_EQ(once.count(3), 1u);
  std::vector<uint64_t> expected;
  for (uint64_t k : iterationOrder(r_)) {
    if (once.count(k) != 0) expected.push_back(k);
  }
  EXPECT_EQ(seen, expected);
}

TEST_F(BrumeReaderTest, SafeValueReadsOccupiedSlotsOnly) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  open(4);
  w_->write(value(11, 3));
  w_->write(value(12, 3));
  w_->remove(12);
  RecordValue out;
  ASSERT_TRUE(r_.safeValue(0, out));
  EXPECT_EQ(out.value.key, 11u);
  EXPECT_FALSE(r_.safeValue(1, out));
  EXPECT_FALSE(r_.safeValue(4, out));
  EXPECT_TRUE(sink.contains("Mroute::Brume",
                            "BrumeReader::safeValue() unable to retrieve slotIndex:4 shmemCapacity:4, returning not found"));
  // A slot beyond the first mapping is reached after a remap.
  for (uint64_t k = 100; k < 110; ++k) w_->write(value(k));
  EXPECT_TRUE(r_.safeValue(9, out));
}

TEST_F(BrumeReaderTest, DetachedReaderAnswersNotFound) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/39");
  RecordValue out;
  EXPECT_FALSE(r_.lookup(1, out));
  EXPECT_FALSE(r_.first(out));
  EXPECT_FALSE(r_.safeValue(0, out));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::doLookup() bucket table detached"));
  open(4);
  w_->write(value(1));
  EXPECT_TRUE(r_.lookup(1, out));
  r_.detach();
  EXPECT_FALSE(r_.lookup(1, out));
  r_.detach();
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::detach() already detached"));
}

TEST_F(BrumeReaderTest, InitializeRefusesMissingAndInvalidFiles) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  EXPECT_FALSE(r_.initialize());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::initialize() failed to attach to buckets"));
  ASSERT_TRUE(Writer(dir_.root(), config(4)).attach());
  RawFile(dir_.file("slots")).at<uint32_t>(8)[0] = 9;  // version
  EXPECT_FALSE(r_.initialize());
  EXPECT_TRUE(sink.contains("Mroute::Brume", "SlotTable::Header::validate() bad version: 9"));
  EXPECT_TRUE(sink.contains("Mroute::Brume", "BrumeReader::initialize() failed to validate slots"));
  EXPECT_TRUE(Brume::corruptionMarkerPresent(Mem::systemShmFs(), dir_.root()));
  // Files of another incarnation are refused too.
  {
    Writer w(dir_.root(), config(4));
    ASSERT_TRUE(w.attach());  // re-formats
    std::string error;
    ASSERT_TRUE(Brume::writeEmber(Mem::systemShmFs(), dir_.root(), w.emberId() + 1, &error));
  }
  EXPECT_FALSE(r_.initialize());
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
      TempRoot dir("pause");
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
            // Every phase of each growth runs while the reader is paused.
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

// Three keys of one bucket, chained in (rhash, key) order, and the files
// under them to damage.
class ReaderCorruption : public BrumeReaderTest {
 protected:
  void SetUp() override {
    open(64);
    for (uint64_t k : keys_) w_->write(value(k));
    sortInChainOrder(keys_);
    raw_ = std::make_unique<RawFile>(dir_.file("slots"));
  }
  Brume::Slot* slotOf(uint64_t key) { return raw_->slot(raw_->slotOf(key)); }
  // Both iteration interfaces must raise the same reports.
  void iterateAll() { iterationOrder(r_); }
  void forEachAll() {
    r_.forEach([](const RecordValue&) {});
  }

  std::vector<uint64_t> keys_ = keysOfBucket(64, 9, 3);
  std::unique_ptr<RawFile> raw_;
};

TEST_F(ReaderCorruption, ChainCycleIsReportedAndMarked) {
  // The last slot of the chain points back to the first.
  slotOf(keys_[2])->next.init(0, raw_->slotOf(keys_[0]));
  RecordValue out;
  EXPECT_TRUE(r_.lookup(keys_[2], out));
  // A key of the bucket sorted after the last entry walks round the cycle.
  uint64_t absent = 5000;
  while ((RecordOps::hash(absent) & 63) != 9 || rhashOf(absent) <= rhashOf(keys_[2])) ++absent;
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
  RawFile buckets(dir_.file("buckets"));
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
