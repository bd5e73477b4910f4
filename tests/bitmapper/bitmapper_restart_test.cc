// The allocator in its own process, killed with SIGKILL in the middle of its
// work and started again, round after round, while this process resolves
// indexes to keys with lookupBitIndex throughout. Every index held at the
// kill is held by the same key after the restart, and the restarted
// allocator agrees with the rows it found.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <string>

#include "bitmapper/bitmapper_test_util.h"
#include "mroute/runtime/trace.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;

// No more keys than indexes: a request killed half-way never leaves a key
// waiting beside a free index.
constexpr uint32_t kSize = 48;
constexpr int kRounds = 6;

// The number of a key made by key(), or -1.
int keyNumber(const BitMapperKey& k) {
  for (uint32_t n = 0; n < kSize; ++n) {
    if (key(n) == k) return int(n);
  }
  return -1;
}

// index -> (key number, refCount) of every row.
std::map<uint16_t, std::pair<int, uint32_t>> rowsOf(const BrumeStatus& brume) {
  std::map<uint16_t, std::pair<int, uint32_t>> rows;
  for (const BitIndexMap& r : brume.bitIndexMap()) rows[r.key().value()] = {keyNumber(r.bitMapperKey()), r.refCount()};
  return rows;
}

// The allocator's view after initialisation against the rows it found:
// "" when they agree.
std::string checkRestarted(const BitMapperSm& sm, const BrumeStatus& brume) {
  uint32_t rows = 0;
  for (const BitIndexMap& r : brume.bitIndexMap()) {
    ++rows;
    if (sm.status()->bitIndex(r.bitMapperKey()) != r.key()) return "status lost row " + std::to_string(r.key().value());
  }
  for (const auto& e : sm.bitIndexFreePool()) {
    if (brume.bitIndexMap(e.value()) != BitIndexMap()) return "pool holds " + std::to_string(e.value().value());
  }
  if (rows + sm.bitIndexFreePools() != kSize) return "rows and pool do not cover the range";
  return sm.status()->bitIndex().size() == rows ? "" : "status has keys without rows";
}

// The allocator process: a fresh writer over the files the last one left.
// Reports how its restart went on `out` ("ready\n", or why not), waits for a
// byte on `in`, then churns until it is killed.
[[noreturn]] void runAllocator(int in, int out) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
  std::string report;
  {
    // A writer that cannot use the files it finds formats fresh ones, and
    // every index is lost: say why (the validator's finding).
    Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
    brume->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer);
    for (const std::string& line : sink.texts("Mroute::Brume")) {
      if (line.find("will be lost") != std::string::npos) report += "re-formatted: " + line;
    }
  }
  Kiv::Ptr<Config> config = configFactory(kSize, true);
  Kiv::Ptr<Status> status = statusFactory();
  Kiv::Ptr<BitMapperSm> sm = bitMapperSmFactory(config, status, brume);
  report += checkRestarted(*sm, *brume);
  report = (report.empty() ? "ready" : report) + "\n";
  char go;
  if (::write(out, report.data(), report.size()) != ssize_t(report.size()) || ::read(in, &go, 1) != 1) ::_exit(5);
  std::mt19937 rng(::getpid());
  for (uint64_t step = 0;; ++step) {
    const BitMapperKey k = key(rng() % kSize);
    if (!status->bitIndex(k).isNull() && rng() % 2 == 0) {
      BitMapperTest::dealloc(*config, k);
    } else {
      BitMapperTest::alloc(*config, k);
    }
    if (step % 8 == 0) loop.runOnce(std::chrono::milliseconds(0));
  }
}

class BitMapperRestartTest : public testing::Test {
 protected:
  // Runs the reader until pred() holds or `limit` passed, resolving every
  // index as a reader does and counting answers that are not a whole key.
  bool serveUntil(const std::function<bool()>& pred, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      loop.runOnce(std::chrono::milliseconds(1));
      for (uint16_t i = 0; i < kSize; ++i) {
        const BitMapperKey k = reader->lookupBitIndex(BitIndex(i));
        if (k == BitMapperKey()) continue;
        ++resolved;
        torn += keyNumber(k) < 0;
      }
    }
    return true;
  }

  Testing::ShmRootScope root{"bitmapper-restart"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> reader = BrumeStatusIs("bitmapper");
  uint64_t resolved = 0, torn = 0;
};

TEST_F(BitMapperRestartTest, KilledAllocatorKeepsEveryIndexWhileReadersResolve) {
  reader->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::reader);
  std::mt19937 rng(7);
  std::map<uint16_t, std::pair<int, uint32_t>> atKill;
  uint32_t ember = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    int down[2], up[2];
    ASSERT_EQ(::pipe(down) | ::pipe(up), 0);
    const pid_t pid = ::fork();
    if (pid == 0) runAllocator(down[0], up[1]);
    ::close(down[0]);
    ::close(up[1]);
    std::string line;
    serveUntil([&] {
      pollfd p{up[0], POLLIN, 0};
      char ch = '\n';
      if (::poll(&p, 1, 0) <= 0) return false;
      if (::read(up[0], &ch, 1) == 1 && ch != '\n') line += ch;
      return ch == '\n';
    });
    EXPECT_EQ(line, "ready");
    // The reader follows the new incarnation and finds the rows of the old one.
    const auto* front = reader->bitIndexMap().front();
    EXPECT_TRUE(serveUntil([&] { return front->ready() && front->emberId() != ember; }));
    ember = front->emberId();
    EXPECT_EQ(rowsOf(*reader), atKill);
    const uint64_t before = resolved;
    EXPECT_EQ(::write(down[1], "g", 1), 1);
    serveUntil([] { return false; }, std::chrono::milliseconds(100 + rng() % 300));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::close(down[1]);
    ::close(up[0]);
    EXPECT_GT(resolved, before);
    atKill = rowsOf(*reader);
    EXPECT_FALSE(atKill.empty());
    if (HasFailure()) break;
  }
  EXPECT_EQ(torn, 0u);
}

}  // namespace
