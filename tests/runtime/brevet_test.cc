#include "mroute/runtime/brevet.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ostream>
#include <string>
#include <thread>

#include "testing/expect_assert.h"

namespace Mroute {
namespace {

uint64_t fixedClock() { return 1'700'000'000'123'456'789ull; }  // 2023-11-14 22:13:20.123456

void formatPass(std::ostream& os, const BrevetRecord& r) {
  os << "Finished review of " << r.args[0] << " kernel upcalls in " << Brevet::toDouble(r.args[1])
     << " seconds";
}

const BrevetEvent kStart{1, "StartReview"};
const BrevetEvent kFinished{2, "FinishedReview", formatPass};

TEST(BrevetTest, DumpFormatsEachRecord) {
  Brevet b("Test", 8, fixedClock);
  b.record(kStart, "Start review of kernel upcalls");
  b.record(kFinished, {}, 17, Brevet::fromDouble(0.25));
  b.record(kStart, "", 0, 42);
  EXPECT_EQ(b.dumpText(),
            "2023-11-14 22:13:20.123456 Test #0 StartReview Start review of kernel upcalls\n"
            "2023-11-14 22:13:20.123456 Test #1 Finished review of 17 kernel upcalls in 0.25 seconds\n"
            "2023-11-14 22:13:20.123456 Test #2 StartReview 42\n");
}

TEST(BrevetTest, WrapKeepsTheNewestInOrder) {
  Brevet b("Test", 4, fixedClock);
  for (uint64_t i = 0; i < 10; ++i) b.record(kStart, {}, i);
  auto recs = b.snapshot();
  ASSERT_EQ(recs.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(recs[i].seqNo, 6 + i);
    EXPECT_EQ(recs[i].args[0], 6 + i);
  }
  EXPECT_EQ(b.written(), 10u);
}

TEST(BrevetTest, LongTextIsCutAndShortTextLeavesNoResidue) {
  Brevet b("Test", 2, fixedClock);
  std::string longText(BrevetRecord::kTextBytes + 10, 'x');
  b.record(kStart, longText);
  b.record(kStart, "ab");
  b.record(kStart, "c");  // reuses the slot of the long text
  auto recs = b.snapshot();
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_EQ(recs[0].textView(), "ab");
  EXPECT_EQ(recs[1].textView(), "c");
  Brevet fresh("Test", 2, fixedClock);
  fresh.record(kStart, longText);
  EXPECT_EQ(fresh.snapshot()[0].textView(), std::string(BrevetRecord::kTextBytes, 'x'));
}

TEST(BrevetTest, CapacityMustBePowerOfTwo) {
  EXPECT_ASSERTION(Brevet("Bad", 6), "capacity > 0 && (capacity & (capacity - 1)) == 0");
}

// A reader racing the writer must only ever see whole records: each carries
// its number, a checksum of it and its number as text. The writer runs until
// the reader has checked enough records, so a busy machine that delays the
// reader makes the test longer, not vacuous; the time bound only guards
// against a reader that makes no progress at all.
TEST(BrevetConcurrencyTest, ReaderNeverSeesTornRecords) {
  Brevet b("Race", 64);
  constexpr uint64_t kWanted = 50'000;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (uint64_t n = 0; !stop.load(std::memory_order_relaxed); ++n) {
      b.record(kStart, std::to_string(n), n, n * 0x9e3779b97f4a7c15ull, ~n);
    }
  });
  uint64_t checked = 0;
  while (checked < kWanted && std::chrono::steady_clock::now() < deadline) {
    uint64_t last = 0;
    bool first = true;
    for (const BrevetRecord& r : b.snapshot()) {
      EXPECT_EQ(r.args[0], r.seqNo);
      EXPECT_EQ(r.args[1], r.seqNo * 0x9e3779b97f4a7c15ull);
      EXPECT_EQ(r.args[2], ~r.seqNo);
      EXPECT_EQ(r.textView(), std::to_string(r.seqNo));
      EXPECT_TRUE(first || r.seqNo > last);
      if (::testing::Test::HasFailure()) break;
      first = false;
      last = r.seqNo;
      ++checked;
    }
    if (::testing::Test::HasFailure()) break;
  }
  stop = true;
  writer.join();
  EXPECT_GE(checked, kWanted) << "the reader made no progress within the time bound";
  EXPECT_EQ(b.snapshot().back().seqNo, b.written() - 1);
}

}  // namespace
}  // namespace Mroute
