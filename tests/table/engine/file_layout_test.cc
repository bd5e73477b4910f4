// The "slots" and "buckets" files byte by byte, their header checks (every
// message, in order) and the header checksum.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/internal/bucket_file.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "table/table_test_util.h"
#include "testing/expect_assert.h"

namespace {

using Brume::BucketTable;
using Brume::SlotTable;

std::vector<unsigned char> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

uint32_t u32(const std::vector<unsigned char>& b, size_t off) {
  uint32_t v;
  std::memcpy(&v, b.data() + off, 4);
  return v;
}

// A formatted slot file image of n slots with 72-byte values (S = 88).
struct SlotImage {
  explicit SlotImage(uint32_t n, uint32_t valueSize = 72) : valueSize(valueSize), value(valueSize, 0) {
    bytes.resize(SlotTable::fileSize(valueSize + 16, n) + 8);
    SlotTable::format(data(), {0x1234, "Value", "Class", valueSize, 100, 5, n, value.data()});
  }
  void* data() { return reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(bytes.data()) + 7) & ~uintptr_t{7}); }
  SlotTable::Header* header() { return static_cast<SlotTable::Header*>(data()); }
  // "ok", or the first finding of the header checks.
  std::string check(size_t size, uint32_t ember = 0) {
    std::string why;
    return header()->validate(size, valueSize + 16, ember, &why) ? "ok" : why;
  }
  uint32_t valueSize;
  std::vector<unsigned char> value;
  std::vector<unsigned char> bytes;
};

TEST(SlotFileLayout, RawBytesOfAWrittenTable) {
  TableTest::TempRoot dir("layout");
  Brume::TableConfig c;
  c.initialSize = 4;
  c.maxSize = 64;
  c.shrinkSlots = true;
  c.valueType = "TableTest::Record";
  Brume::BrumeWriter<TableTest::RecordOps> w(dir.root(), c);
  ASSERT_TRUE(w.attach());
  w.write(TableTest::value(42, 7));
  const auto slots = readFile(dir.file("slots"));
  const uint32_t valueSize = sizeof(TableTest::RecordValue);
  const uint32_t slotSize = 16 + valueSize;
  ASSERT_EQ(slots.size(), 184u + slotSize + 4 * slotSize);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(slots.data()), 8), "BRUMESLT");
  EXPECT_EQ(u32(slots, 8), 10u);
  EXPECT_EQ(u32(slots, 12), w.emberId());
  EXPECT_STREQ(reinterpret_cast<const char*>(slots.data() + 16), "TableTest::Record");
  EXPECT_STREQ(reinterpret_cast<const char*>(slots.data() + 80), "Brume::BrumeMap");
  EXPECT_EQ(u32(slots, 144), valueSize);
  EXPECT_EQ(u32(slots, 148), slotSize);
  EXPECT_EQ(u32(slots, 152), 64u);
  EXPECT_EQ(u32(slots, 156), Brume::kConfigShrinkSlots | Brume::kConfigPruneConquer);
  EXPECT_EQ(u32(slots, 164), 1u);  // occupiedSlots
  EXPECT_EQ(u32(slots, 168), 1u);  // freeSlots: slot 0 was taken first
  EXPECT_EQ(u32(slots, 180), 4u);  // numSlots.ref
  // Slot 0 at 184 + S: the entry, its chain end marker, status and rhash.
  const size_t slot0 = 184 + slotSize;
  EXPECT_EQ(u32(slots, slot0 + 8), 1u + 4u);  // OCCUPIED, update count 1 (LOOKASIDE added and cleared)
  const uint32_t hash = TableTest::RecordOps::hash(42);
  EXPECT_EQ(u32(slots, slot0 + 12), Brume::bitReverse(hash));
  uint64_t key;
  std::memcpy(&key, slots.data() + slot0 + 16, 8);
  EXPECT_EQ(key, 42u);
  EXPECT_EQ(u32(slots, slot0 + 4) & Brume::kEndBit, Brume::kEndBit);
  // Free slots 1..3 chain in index order.
  EXPECT_EQ(u32(slots, 184 + 2 * slotSize + 4), 2u);
  EXPECT_EQ(u32(slots, 184 + 4 * slotSize + 4), Brume::kNoRef);

  const auto buckets = readFile(dir.file("buckets"));
  ASSERT_GE(buckets.size(), 32u + 4 * 8);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buckets.data()), 8), "BRUMEBKT");
  EXPECT_EQ(u32(buckets, 8), 2u);
  EXPECT_EQ(u32(buckets, 12), w.emberId());
  EXPECT_EQ(u32(buckets, 20), 4u);  // numBuckets.ref
  const uint32_t b = hash & 3;
  EXPECT_EQ(u32(buckets, 32 + 8 * b + 4), 0u);  // the bucket's head is slot 0
  for (uint32_t i = 0; i < 4; ++i) {
    if (i != b) {
      EXPECT_EQ(u32(buckets, 32 + 8 * i + 4), Brume::endMarkerAfter(i, 4)) << i;
    }
  }
  const auto ember = readFile(dir.file("ember"));
  ASSERT_EQ(ember.size(), 4u);
  EXPECT_EQ(u32(ember, 0), w.emberId());
}

TEST(SlotFileLayout, HeaderChecksInOrder) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  SlotImage img(0);
  const size_t fixed = 184 + 88;
  // Exactly the fixed part with numSlots 0 validates; one byte less does not.
  EXPECT_EQ(img.check(fixed), "ok");
  const std::string tooShort = img.check(fixed - 1);
  EXPECT_EQ(tooShort, "SlotTable::Header::validate() bad header file size: 271 wanted:272");
  EXPECT_TRUE(sink.contains("Mroute::Brume", tooShort));

  SlotImage four(4);
  const size_t full = SlotTable::fileSize(88, 4);
  // Ember: no expectation passes, a different one fails.
  EXPECT_EQ(four.check(full, 0x1234), "ok");
  EXPECT_EQ(four.check(full, 0x99), "SlotTable::validate() bad ember:0x1234 wanted:0x99");
  // freeSlots: none is fine, numSlots is out of range.
  four.header()->freeSlots = Brume::kNoRef;
  EXPECT_EQ(four.check(full), "ok");
  four.header()->freeSlots = 4;
  EXPECT_EQ(four.check(full), "SlotTable::Header::validate() bad freeSlots: 4 slots: 4");
  four.header()->freeSlots = 0;
  four.header()->occupiedSlots = 5;
  EXPECT_EQ(four.check(full), "SlotTable::Header::validate() bad occupiedSlots: 5 num slots: 4");
  four.header()->occupiedSlots = 0;
  EXPECT_EQ(four.check(full - 1), "SlotTable::Header::validate() bad shmem size:" + std::to_string(full - 1) +
                                      " wanted:" + std::to_string(full) + " for 4 slots");
  // The checksum covers the fourth configuration word.
  four.header()->config ^= 1;
  EXPECT_EQ(four.check(full).rfind("SlotTable::Header::validate() checksum fail: ", 0), 0u) << four.check(full);
  four.header()->config ^= 1;
  four.header()->version = 11;
  EXPECT_EQ(four.check(full), "SlotTable::Header::validate() bad version: 11");
  four.header()->magic[0] = 'X';
  EXPECT_EQ(four.check(full), "SlotTable::Header::validate() bad magic: 0x544c53454d555258");
}

TEST(SlotFileLayout, TypeNamesUpTo63Characters) {
  std::vector<uint64_t> buf(SlotTable::fileSize(24, 1) / 8 + 1);
  std::vector<unsigned char> value(8, 0);
  const std::string n63(63, 'v');
  const std::string n64(64, 'v');
  SlotTable::format(buf.data(), {1, n63, n63, 8, 1, 0, 1, value.data()});
  EXPECT_EQ(static_cast<SlotTable::Header*>(static_cast<void*>(buf.data()))->computeHash(),
            static_cast<SlotTable::Header*>(static_cast<void*>(buf.data()))->hash);
  EXPECT_THROW_TEXT(SlotTable::format(buf.data(), {1, n64, "c", 8, 1, 0, 1, value.data()}),
                    Pavo::InvalidInitializeException,
                    "SlotTable::Header() value typename " + n64 + " exceeds 64 characters");
  EXPECT_THROW_TEXT(SlotTable::format(buf.data(), {1, "v", n64, 8, 1, 0, 1, value.data()}),
                    Pavo::InvalidInitializeException,
                    "SlotTable::Header() class typename: " + n64 + " exceeds 64 characters");
}

TEST(BucketFileLayout, EmptyBucketsInSplitOrderThenHeaderChecksInOrder) {
  std::vector<uint64_t> buf(4 + 4);
  BucketTable::format(buf.data(), 7, 4);
  auto* h = static_cast<BucketTable::Header*>(static_cast<void*>(buf.data()));
  // An empty bucket names the next one in split order (0, 2, 1, 3).
  EXPECT_EQ(h->buckets()[0].load().ref, 0x80000002u);
  EXPECT_EQ(h->buckets()[2].load().ref, 0x80000001u);
  EXPECT_EQ(h->buckets()[1].load().ref, 0x80000003u);
  EXPECT_EQ(h->buckets()[3].load().ref, 0xFFFFFFFFu);
  const auto check = [h](size_t size, uint32_t ember = 7) {
    std::string why;
    return h->validate(size, ember, &why) ? "ok" : why;
  };
  EXPECT_EQ(check(64), "ok");
  EXPECT_EQ(check(31), "BucketTable::validate() bad header file size: 31 wanted:32");
  EXPECT_EQ(check(63), "BucketTable::validate() bad shmem size:63 wanted:64");
  EXPECT_EQ(check(64, 8), "BucketTable::validate() bad ember:0x7 wanted:0x8");
  // The count check lets 0x80000000 through (then the size check fails) and
  // stops 0x80000001.
  h->numBuckets.init(0, 0x80000000u);
  EXPECT_EQ(check(64).rfind("BucketTable::validate() bad shmem size:", 0), 0u) << check(64);
  h->numBuckets.init(0, 0x80000001u);
  EXPECT_EQ(check(64), "BucketTable::validate() bad numBuckets:2147483649");
  h->version = 3;
  EXPECT_EQ(check(64), "BucketTable::validate() bad version: 3");
  h->magic[7] = 'X';
  EXPECT_EQ(check(64).rfind("BucketTable::validate() bad magic: 0x", 0), 0u) << check(64);
}

}  // namespace
