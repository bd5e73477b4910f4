// Multi-process torture: one writer process churns the table while reader
// processes look up and iterate without pause. Prints what was done and
// fails on any torn, misplaced, lost, duplicated or backward read.
// MROUTE_TORTURE_SECONDS=1800 runs it for half an hour.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <new>
#include <thread>

#include "table/table_test_util.h"
#include "table/torture.h"

namespace {

constexpr int kReaders = 2;

// Lives in a shared anonymous mapping made before fork.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<bool> ready{false};
  TableTest::TortureStats writer;
  TableTest::TortureStats readers[kReaders];
};

TEST(TortureProcess, ReadersNeverSeeATornOrMisplacedEntry) {
  static_assert(std::atomic<bool>::is_always_lock_free);
  TableTest::TempRoot dir("torture-proc");
  void* mem = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mem, MAP_FAILED);
  auto* shared = new (mem) Shared;
  const TableTest::TortureShape shape;
  std::vector<pid_t> children;
  auto spawn = [&](auto body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      int rc = 0;
      try {
        body();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "torture child: %s\n", e.what());
        rc = 1;
      }
      ::_exit(rc);
    }
    children.push_back(pid);
  };
  spawn([&] { TableTest::runTortureWriter(dir.root(), shape, shared->stop, shared->ready, shared->writer); });
  for (int i = 0; i < kReaders; ++i) {
    spawn([&, i] {
      TableTest::runTortureReader(dir.root(), shape, shared->stop, shared->ready, 1000 + i, shared->readers[i]);
    });
  }
  const double seconds = TableTest::tortureSeconds(3.0);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  shared->stop.store(true);
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << pid << " status " << status;
  }
  TableTest::TortureStats total = shared->writer;
  for (const auto& r : shared->readers) total.add(r);
  std::printf("torture (%d reader processes, %.0f s): %s\n", kReaders, seconds, total.summary().c_str());
  EXPECT_EQ(total.errors(), 0u) << total.summary();
  EXPECT_GT(total.lookups, 0u);
  EXPECT_GT(total.iterations, 0u);
  if (total.cycles > 0) {  // a slow (sanitized) run may not finish a cycle
    EXPECT_GT(total.slotShrinks, 0u);
    EXPECT_GT(total.bucketShrinks, 0u);
  }
  shared->~Shared();
  ::munmap(mem, sizeof(Shared));
}

}  // namespace
