// Table fronts in separate processes: a writer killed mid-churn and
// restarted (followed by readers that attached before it was there), readers
// that die or stop while the writer goes on, and a corruption report from
// another process.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>

#include "table/table_test_util.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"

namespace {

using Brume::BrumeType;
using namespace TableTest;
using Testing::runUntil;

constexpr const char* kMount = "routing/multicast/fib";
constexpr const char* kName = "route";

// Starts this test program again as a fresh process (its own writer
// incarnation) running only FrontProcessChild.<role>.
pid_t spawnRole(const std::string& role) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("MROUTE_FRONT_CHILD", "1", 1);
    const std::string filter = "--gtest_filter=FrontProcessChild." + role;
    ::execl("/proc/self/exe", "front_process_child", filter.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

void reap(pid_t pid, int sig = SIGKILL) {
  ::kill(pid, sig);
  int status = 0;
  ::waitpid(pid, &status, 0);
}

// Counts ready transitions and checks every copy a front reports.
struct Watch {
  std::vector<bool> transitions;
  uint64_t changes = 0;
  uint64_t bad = 0;
  void attach(RecordMap& m) {
    m.onReadyIs([this](bool r) { transitions.push_back(r); });
    m.onChangeIs([this, &m](const uint64_t& k) {
      ++changes;
      if (const auto v = m.lookup(k); v && (!v->value.check() || v->value.key != k)) ++bad;
    });
  }
};

class FrontProcessTest : public ::testing::Test {
 protected:
  Testing::ShmRootScope scope_{"proc"};
  Mroute::Loop::EventLoop loop_;
};

// The child processes' parts; they run only when started by spawnRole.
class FrontProcessChild : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::getenv("MROUTE_FRONT_CHILD") == nullptr) GTEST_SKIP() << "runs as a child process only";
  }
  [[noreturn]] void serve() {
    for (;;) loop_.runOnce(std::chrono::milliseconds(100));
  }
  Mroute::Loop::EventLoop loop_;
};

constexpr uint64_t kChurnKeys = 200;

TEST_F(FrontProcessChild, Churn) {
  RecordMap writer(loop_, kMount, kName, BrumeType::writer, fastOptions());
  std::mt19937_64 rng(1);
  for (uint64_t version = 1;; ++version) {
    const uint64_t k = rng() % kChurnKeys;
    if (rng() % 4 == 0) {
      writer.remove(k);
    } else {
      writer.write(value(k, version));
    }
    loop_.runOnce(std::chrono::milliseconds(0));
  }
}

// The restarted writer republishes keys 0..49 and removes the rest.
TEST_F(FrontProcessChild, Republish) {
  RecordMap writer(loop_, kMount, kName, BrumeType::writer, fastOptions());
  for (uint64_t k = 0; k < 50; ++k) writer.write(value(k, 1000000));
  for (uint64_t k = 50; k < kChurnKeys; ++k) writer.remove(k);
  serve();
}

TEST_F(FrontProcessChild, DieMidWalk) {
  RecordMap shadow(loop_, kMount, kName, BrumeType::shadow, fastOptions());
  // Dies in the middle of the first walk that brings news.
  shadow.onChangeIs([](const uint64_t& k) {
    if (k >= 2) ::raise(SIGKILL);
  });
  // News that came while the front was being opened was walked before the
  // callback was set.
  if (shadow.members() > 1) ::raise(SIGKILL);
  serve();
}

TEST_F(FrontProcessChild, Follow) {
  RecordMap shadow(loop_, kMount, kName, BrumeType::shadow, fastOptions());
  serve();
}

TEST_F(FrontProcessTest, WriterKilledMidChurnAndRestartedIsFollowedOnce) {
  const pid_t first = spawnRole("Churn");
  // The watches outlive the fronts, whose unmount still reports "not ready".
  Watch ws, wk, wr;
  RecordMap shadow(loop_, kMount, kName, BrumeType::shadow, fastOptions());
  RecordMap keys(loop_, kMount, kName, BrumeType::keyshadow, fastOptions());
  RecordMap reader(loop_, kMount, kName, BrumeType::reader, fastOptions());
  ws.attach(shadow);
  wk.attach(keys);
  wr.attach(reader);
  const bool churned = runUntil(loop_, [&] {
    return shadow.ready() && keys.ready() && reader.ready() && ws.changes > 500 && wr.changes > 500;
  });
  reap(first);
  ASSERT_TRUE(churned);
  const uint32_t oldEmber = shadow.emberId();
  for (Watch* w : {&ws, &wk, &wr}) w->transitions.clear();

  const pid_t second = spawnRole("Republish");
  auto settled = [&] {
    if (!shadow.ready() || !keys.ready() || !reader.ready() || shadow.members() != 50 || keys.members() != 50) {
      return false;
    }
    for (uint64_t k = 0; k < 50; ++k) {
      const auto v = shadow.lookup(k);
      if (!v || v->value.version != 1000000) return false;
    }
    return true;
  };
  const bool ok = runUntil(loop_, settled, std::chrono::milliseconds(5000));
  // Late events must not make anybody attach again.
  for (int i = 0; i < 20; ++i) loop_.runOnce(std::chrono::milliseconds(5));
  reap(second);
  ASSERT_TRUE(ok);
  EXPECT_NE(shadow.emberId(), oldEmber);
  for (Watch* w : {&ws, &wk, &wr}) {
    EXPECT_EQ(w->transitions, (std::vector<bool>{false, true}));
    EXPECT_EQ(w->bad, 0u);
  }
  uint64_t seen = 0;
  reader.forEach([&](const RecordValue& v) {
    ++seen;
    EXPECT_TRUE(v.value.check());
    EXPECT_EQ(v.value.version, 1000000u);
  });
  EXPECT_EQ(seen, 50u);
}

TEST_F(FrontProcessTest, DeadOrStoppedReadersDoNotStopPruning) {
  RecordMap writer(loop_, kMount, kName, BrumeType::writer, fastOptions());
  writer.write(value(1));
  // One reader kills itself in the middle of its first walk, another is
  // stopped after it attached.
  const pid_t dying = spawnRole("DieMidWalk");
  const pid_t stopped = spawnRole("Follow");
  const bool connected = runUntil(loop_, [&] { return writer.numReaders() == 2; });
  ::kill(stopped, SIGSTOP);
  for (uint64_t k = 2; k < 50; ++k) writer.write(value(k));
  Brume::ConquerWriter& queue = *writer.writer()->conquer();
  const bool released = runUntil(loop_, [&] { return writer.numReaders() == 0; });
  ::kill(stopped, SIGCONT);
  reap(dying);
  reap(stopped);
  ASSERT_TRUE(connected);
  ASSERT_TRUE(released) << "readers:" << writer.numReaders() << " closed:" << writer.notifyServer()->counters().closed
                        << " dropped:" << writer.notifyServer()->counters().dropped;
  EXPECT_FALSE(queue.waitingForReaders());
  EXPECT_EQ(queue.prune(), queue.sequence());
  EXPECT_EQ(writer.notifyServer()->counters().dropped, 1u);  // the stopped one
}

TEST_F(FrontProcessTest, CorruptionReportReachesTheWriterAndIsTracedOnce) {
  Mroute::Trace::CaptureSink sink("Mroute::Brume/0-9");
  RecordMap writer(loop_, kMount, kName, BrumeType::writer, fastOptions());
  writer.write(value(1));
  const std::string finding = "BrumeReader::first() corrupt key detected, key:1";
  const Mem::RootPath root = writer.root();
  const pid_t reporter = ::fork();
  if (reporter == 0) {  // another process reports the same finding twice
    for (int i = 0; i < 2; ++i) {
      Brume::writeCorruptionMarker(Mem::systemShmFs(), root, finding);
      ::usleep(50000);
    }
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(reporter, nullptr, 0), reporter);
  ASSERT_TRUE(runUntil(loop_, [&] {
    return sink.contains("Mroute::Brume", "WriterMounter::notify() brume validation ok");
  }));
  for (int i = 0; i < 20; ++i) loop_.runOnce(std::chrono::milliseconds(5));
  EXPECT_EQ(std::ranges::count(sink.texts("Mroute::Brume"), "WriterMounter::notify() corruptDetected: " + finding), 1);
  EXPECT_EQ(writer.writerMounter()->lastReport(), finding);
  uint32_t ember = 0;
  ASSERT_TRUE(Brume::readEmber(Mem::systemShmFs(), root, &ember));
  EXPECT_EQ(ember, writer.emberId());
}

}  // namespace
