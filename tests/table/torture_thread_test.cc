// The torture protocol with threads in one process, so that
// ThreadSanitizer checks every shared access of writer and readers.
// MROUTE_TORTURE_SECONDS sets the duration.
//
// The table starts large enough that no file is ever remapped: the sanitizer
// does not intercept mremap, and the stale shadow of an earlier mapping at
// the same address shows up as false races. Slot and bucket shrinking and
// regrowth within the mapping are still exercised; growth by remapping is
// the process test's part.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "table/table_test_util.h"
#include "table/torture.h"

namespace {

TEST(TortureThreads, ReadersNeverSeeATornOrMisplacedEntry) {
  TableTest::TempRoot dir("torture-thr");
  std::atomic<bool> stop{false};
  std::atomic<bool> ready{false};
  const TableTest::TortureShape shape{1024, 32, 2048};
  TableTest::TortureStats writer;
  std::vector<TableTest::TortureStats> readers(2);
  std::vector<std::string> failures(3);
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    try {
      TableTest::runTortureWriter(dir.root(), shape, stop, ready, writer);
    } catch (const std::exception& e) {
      failures[0] = e.what();
      ready = true;
    }
  });
  for (size_t i = 0; i < readers.size(); ++i) {
    threads.emplace_back([&, i] {
      try {
        TableTest::runTortureReader(dir.root(), shape, stop, ready, 77 + i, readers[i]);
      } catch (const std::exception& e) {
        failures[i + 1] = e.what();
      }
    });
  }
  const double seconds = TableTest::tortureSeconds(2.0);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (auto& t : threads) t.join();
  for (const auto& f : failures) EXPECT_EQ(f, "");
  TableTest::TortureStats total = writer;
  for (const auto& r : readers) total.add(r);
  std::printf("torture (2 reader threads, %.0f s): %s\n", seconds, total.summary().c_str());
  EXPECT_EQ(total.errors(), 0u) << total.summary();
  EXPECT_GT(total.lookups, 0u);
}

}  // namespace
