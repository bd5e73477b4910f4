// The allocator in its own process, killed with SIGKILL in the middle of its
// work and started again, round after round, while this process resolves
// indexes to keys with lookupBitIndex throughout. Every index held at the
// kill is held by the same key after the restart, and the restarted
// allocator agrees with the rows it found.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>

#include "bitmapper/bitmapper_test_util.h"
#include "mroute/runtime/trace.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;
using BitMapperTest::keyNumber;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kSize = 48;
// No more keys than indexes: a request killed half-way never leaves a key
// waiting beside a free index.
constexpr uint32_t kKeys = kSize;
constexpr int kRounds = 6;

// index -> (key number, refCount) of every row.
using Rows = std::map<uint16_t, std::pair<int64_t, uint32_t>>;

Rows rowsOf(const BrumeStatus& brume) {
  Rows rows;
  for (uint16_t i = 0; i < kSize; ++i) {
    const BitIndexMap r = brume.bitIndexMap(BitIndex(i));
    if (r != BitIndexMap()) rows[i] = {keyNumber(r.bitMapperKey()), r.refCount()};
  }
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
  if (sm.status()->bitIndex().size() != rows) return "status has keys without rows";
  return "";
}

void writeLine(int fd, const std::string& text) {
  const std::string line = text + "\n";
  if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) ::_exit(4);
}

// The allocator process: reports how its restart went, waits for "go", then
// churns until it is killed.
void runAllocator(int in, int out) {
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
  // A writer that cannot use the files it finds formats fresh ones, and every
  // index is lost: say why (the validator's finding) instead of going on.
  std::string findings;
  bool lost = false;
  {
    Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
    brume->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer);
    for (const std::string& line : sink.texts("Mroute::Brume")) {
      findings += line + "; ";
      lost = lost || line.find("will be lost") != std::string::npos;
    }
  }
  if (lost) {
    writeLine(out, "bad table re-formatted at attach: " + findings);
    ::_exit(6);
  }
  Kiv::Ptr<Config> config = configFactory(kSize, true);
  Kiv::Ptr<Status> status = statusFactory();
  Kiv::Ptr<BitMapperSm> sm = bitMapperSmFactory(config, status, brume);
  const std::string bad = checkRestarted(*sm, *brume);
  writeLine(out, bad.empty() ? "ready" : "bad " + bad);
  char go;
  if (::read(in, &go, 1) != 1) ::_exit(5);
  std::mt19937 rng(::getpid());
  for (uint64_t step = 0;; ++step) {
    const BitMapperKey k = key(rng() % kKeys);
    if (!status->bitIndex(k).isNull() && rng() % 2 == 0) {
      BitMapperTest::dealloc(*config, k);
    } else {
      BitMapperTest::alloc(*config, k);
    }
    if (step % 8 == 0) loop.runOnce(std::chrono::milliseconds(0));
  }
}

class BitMapperRestartChild : public testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("MROUTE_BITMAPPER_CHILD") == nullptr) GTEST_SKIP() << "runs as a child process only";
  }
};

TEST_F(BitMapperRestartChild, Allocator) {
  runAllocator(std::atoi(std::getenv("MROUTE_BITMAPPER_IN")), std::atoi(std::getenv("MROUTE_BITMAPPER_OUT")));
}

struct Child {
  pid_t pid = -1;
  int toChild = -1;
  int fromChild = -1;
};

void killAndReap(Child& c) {
  if (c.pid <= 0) return;
  ::kill(c.pid, SIGKILL);
  int status = 0;
  ::waitpid(c.pid, &status, 0);
  ::close(c.toChild);
  ::close(c.fromChild);
  c.pid = -1;
}

// Kills the child however the test leaves its round.
struct Reaper {
  Child& child;
  ~Reaper() { killAndReap(child); }
};

// This test program again, as a fresh process (its own writer incarnation)
// running only the allocator.
Child spawnAllocator() {
  int down[2], up[2];
  if (::pipe(down) != 0 || ::pipe(up) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    // The parent's ends: a parent that dies ends the child's wait for "go".
    ::close(down[1]);
    ::close(up[0]);
    ::setenv("MROUTE_BITMAPPER_CHILD", "1", 1);
    ::setenv("MROUTE_BITMAPPER_IN", std::to_string(down[0]).c_str(), 1);
    ::setenv("MROUTE_BITMAPPER_OUT", std::to_string(up[1]).c_str(), 1);
    ::execl("/proc/self/exe", "bitmapper_allocator", "--gtest_filter=BitMapperRestartChild.Allocator",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(down[0]);
  ::close(up[1]);
  return Child{pid, down[1], up[0]};
}

class BitMapperRestartTest : public testing::Test {
 protected:
  // Resolves every index as a reader does; counts the resolved ones and the
  // answers that are not a whole key of the allocator.
  void resolveAll() {
    for (uint16_t i = 0; i < kSize; ++i) {
      const BitMapperKey k = reader->lookupBitIndex(BitIndex(i));
      if (k == BitMapperKey()) continue;
      ++resolved;
      const int64_t n = keyNumber(k);
      if (n < 0 || n >= kKeys) ++torn;
    }
  }
  // Runs the reader until pred() holds or `limit` passed.
  bool serveUntil(const std::function<bool()>& pred, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (!pred()) {
      if (Clock::now() >= end) return false;
      loop.runOnce(std::chrono::milliseconds(1));
      resolveAll();
    }
    return true;
  }
  // The child's report line; "" when none came in time.
  std::string readLine(const Child& c) {
    std::string line;
    serveUntil(
        [&] {
          pollfd p{c.fromChild, POLLIN, 0};
          if (::poll(&p, 1, 0) <= 0) return false;
          char ch;
          if (::read(c.fromChild, &ch, 1) != 1) return true;
          if (ch == '\n') return true;
          line += ch;
          return false;
        },
        std::chrono::milliseconds(10000));
    return line;
  }

  Testing::ShmRootScope root{"bitmapper-restart"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> reader = BrumeStatusIs("bitmapper");
  uint64_t resolved = 0;
  uint64_t torn = 0;
};

TEST_F(BitMapperRestartTest, KilledAllocatorKeepsEveryIndexWhileReadersResolve) {
  reader->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::reader);
  std::mt19937 rng(7);
  Rows atKill;
  uint32_t ember = 0;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    Child c = spawnAllocator();
    Reaper reaper{c};
    ASSERT_GT(c.pid, 0);
    ASSERT_EQ(readLine(c), "ready");
    // The reader follows the new incarnation and finds the rows of the old one.
    const auto* front = reader->bitIndexMap().front();
    ASSERT_TRUE(serveUntil([&] { return front->ready() && front->emberId() != ember; },
                           std::chrono::milliseconds(10000)));
    ember = front->emberId();
    EXPECT_EQ(rowsOf(*reader), atKill);
    writeLine(c.toChild, "go");
    const uint64_t before = resolved;
    serveUntil([] { return false; }, std::chrono::milliseconds(100 + rng() % 300));
    killAndReap(c);
    EXPECT_GT(resolved, before);
    atKill = rowsOf(*reader);
    EXPECT_FALSE(atKill.empty());
  }
  EXPECT_EQ(torn, 0u);
}

}  // namespace
