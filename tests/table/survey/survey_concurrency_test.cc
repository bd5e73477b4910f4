// The survey API reading a table while its writer rewrites it: every
// entry readEntries() returns is a value that was whole at one instant, and
// the deep check of a live table finds nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "../table_test_util.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"

namespace {

using namespace TableTest;

TEST(SurveyConcurrencyTest, EntriesReadDuringInPlaceUpdatesAreNeverTorn) {
  TempRoot dir("survey");
  Writer w(dir.root(), config(64));
  ASSERT_TRUE(w.attach());
  constexpr uint64_t kKeys = 32;
  for (uint64_t k = 0; k < kKeys; ++k) w.write(value(k, 1));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    // In-place updates (the lookaside protocol) and removals with re-adds.
    for (uint64_t v = 2; !stop.load(std::memory_order_relaxed); ++v) {
      const uint64_t k = v % kKeys;
      if (v % 7 == 0) {
        w.remove(k);
      }
      w.write(value(k, v));
    }
  });
  uint64_t copies = 0;
  // Long enough for the writer to be caught mid-copy many times.
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (std::chrono::steady_clock::now() < end) {
    std::vector<Brume::Survey::StoredEntry> entries;
    std::string error;
    ASSERT_TRUE(Brume::Survey::readEntries(dir.root(), &entries, &error)) << error;
    for (const auto& e : entries) {
      ASSERT_EQ(e.bytes.size(), sizeof(RecordValue));
      RecordValue v;
      std::memcpy(static_cast<void*>(&v), e.bytes.data(), sizeof v);
      ASSERT_TRUE(v.value.check()) << "torn copy of slot " << e.slot;
      ASSERT_LT(v.value.key, kKeys);
    }
    copies += entries.size();
  }
  stop = true;
  writer.join();
  EXPECT_GT(copies, 0u);
  EXPECT_EQ(Brume::Survey::validateTable(dir.root()), std::vector<std::string>{});
}

}  // namespace
