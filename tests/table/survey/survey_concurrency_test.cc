// The survey API reading a table its writer rewrites: every entry
// readEntries() returns was whole at one instant. A slot caught in the middle
// of an update is staged in the files (the read must take the lookaside
// copy); a writer thread rewriting large values in place checks the status
// re-check; the deep check of the live table finds nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "table/table_test_util.h"
#include "mroute/table/engine/internal/link.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"

namespace {

using namespace TableTest;

// Large enough that a writer's copy into the slot lasts long against a
// surveyor's copy out of it: a read that does not re-check is torn often.
struct Big {
  uint64_t key = 0;
  uint64_t words[510] = {};
  uint64_t checksum = 0;
  static Big make(uint64_t key, uint64_t version) {
    Big b;
    b.key = key;
    for (uint64_t& w : b.words) w = key * 0x9E3779B97F4A7C15ull + version;
    b.checksum = b.sum();
    return b;
  }
  uint64_t sum() const { return Brume::bytesHash(this, offsetof(Big, checksum)); }
  bool check() const { return checksum == sum(); }
};
using BigValue = KivBrume::KivBrumeMapValueWrapper<Big, uint64_t, &Big::key>;
using BigWriter = Brume::BrumeWriter<Brume::DefaultOps<uint64_t, BigValue>>;

template <typename Stored>
Stored load(const Brume::Survey::StoredEntry& e) {
  Stored v;
  std::memcpy(static_cast<void*>(&v), e.bytes.data(), std::min(sizeof v, e.bytes.size()));
  return v;
}

std::vector<Brume::Survey::StoredEntry> readAll(const Mem::RootPath& root) {
  std::vector<Brume::Survey::StoredEntry> entries;
  std::string error;
  EXPECT_TRUE(Brume::Survey::readEntries(root, &entries, &error)) << error;
  return entries;
}

TEST(SurveyConcurrencyTest, SlotInTheMiddleOfAnUpdateIsReadFromItsLookasideCopy) {
  TempRoot dir("survey");
  Writer w(dir.root(), config(8));
  ASSERT_TRUE(w.attach());
  w.write(value(7, 1));
  RawFile slots(dir.file("slots"));
  ASSERT_NE(slots.base(), nullptr);
  slots.stageInterruptedUpdate(slots.slotOf(7));
  const auto entries = readAll(dir.root());
  ASSERT_EQ(entries.size(), 1u);
  const RecordValue v = load<RecordValue>(entries[0]);
  EXPECT_TRUE(v.value.check()) << "the half-written body was read";
  EXPECT_EQ(v.value.version, 1u);
}

// The copy a read makes when it trusts the status it saw before copying:
// what readEntries() would return without its re-check. Counts torn copies.
uint64_t naiveTears(const Mem::ShmFile& slots) {
  constexpr size_t kBigSlot = 16 + sizeof(BigValue);
  const auto* lookaside = reinterpret_cast<const Brume::Slot*>(slots.base() + 184);
  uint64_t tears = 0;
  for (uint32_t i = 0; i < 8; ++i) {
    const auto* s = reinterpret_cast<const Brume::Slot*>(slots.base() + 184 + kBigSlot * (i + 1));
    const uint32_t st = Brume::loadAcquire(s->status);
    if ((st & Brume::kOccupied) == 0) continue;
    BigValue v;
    Brume::copyFromShared(&v, ((st & Brume::kLookaside) ? lookaside : s)->value(), sizeof v);
    tears += v.value.check() ? 0 : 1;
  }
  return tears;
}

TEST(SurveyConcurrencyTest, EntriesReadDuringInPlaceUpdatesAreNeverTorn) {
  TempRoot dir("survey");
  BigWriter w(dir.root(), config(8, 8));
  ASSERT_TRUE(w.attach());
  constexpr uint64_t kKeys = 2;
  std::vector<BigValue> versions;
  for (uint64_t v = 0; v < 4 * kKeys; ++v) versions.emplace_back(Big::make(v % kKeys, v / kKeys + 1));
  for (uint64_t k = 0; k < kKeys; ++k) w.write(versions[k]);
  Mem::ShmFile slots;
  ASSERT_TRUE(slots.open(dir.file("slots"), Mem::ShmAccess::readOnly));
  ASSERT_TRUE(slots.map(static_cast<size_t>(slots.fileSize())));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    // In place, so every write goes through the lookaside protocol; now and
    // then a removal, so slots are freed and taken again.
    for (uint64_t v = kKeys; !stop.load(std::memory_order_relaxed); ++v) {
      w.write(versions[v % versions.size()]);
      if (v % 64 == 0) w.remove(v % kKeys);
    }
  });
  // Read until copies that skip the re-check have been torn often enough:
  // this machine then demonstrably interleaved writer and surveyor, and a
  // read without the re-check, made alongside, would have been torn too.
  constexpr uint64_t kTearsWanted = 20;
  uint64_t tears = 0, copies = 0;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (tears < kTearsWanted && std::chrono::steady_clock::now() < limit) {
    for (const auto& e : readAll(dir.root())) {
      const BigValue v = load<BigValue>(e);
      ASSERT_TRUE(v.value.check()) << "torn copy of slot " << e.slot << " after " << copies << " copies";
      ASSERT_LT(v.value.key, kKeys);
      ++copies;
    }
    tears += naiveTears(slots);  // as many copies as the survey made
  }
  stop = true;
  writer.join();
  EXPECT_EQ(Brume::Survey::validateTable(dir.root()), std::vector<std::string>{});
  if (tears < kTearsWanted) GTEST_SKIP() << "writer and surveyor hardly overlapped: " << tears << " tears in 30 s";
}

}  // namespace
