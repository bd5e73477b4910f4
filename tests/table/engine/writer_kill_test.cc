// Writer-kill campaign: a writer process inserts, updates and removes (the
// table grows and shrinks as it fills and drains) and is killed with SIGKILL
// at a random moment of an operation of a chosen kind. After each kill a new
// reader checks every key against the journal the writer kept (either
// outcome is allowed only for the operation in flight), a new writer attaches
// without re-formatting, finds the deep validation sound and the entry count
// right, and the next writer process goes on from there.
//
// MROUTE_KILL_SECONDS=1800 runs it for half an hour (default: 120 kills).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <thread>

#include "mroute/runtime/trace.h"
#include "table/table_test_util.h"

namespace {

using namespace TableTest;

constexpr uint32_t kKeys = 1500;
// Operation kinds (a growth or shrink is the insert or remove that makes it).
enum Kind : uint32_t { kNone, kInsert, kUpdate, kRemove, kGrowth, kShrink, kKinds };
constexpr const char* kKindNames[kKinds] = {"none", "insert", "update", "remove", "growth", "shrink"};

// The journal, in a shared anonymous mapping made before fork. The writer
// records the operation it is about to make, makes it, then records its
// outcome; the order of these stores is what the checks rely on.
struct Journal {
  std::atomic<uint32_t> running{0};
  std::atomic<uint64_t> ops{0};
  std::atomic<uint64_t> nextVersion{1};
  std::atomic<uint32_t> versions[kKeys] = {};  // committed version; 0: absent
  std::atomic<uint32_t> key{0};
  std::atomic<uint32_t> before{0};
  std::atomic<uint32_t> after{0};
  std::atomic<uint32_t> kind{kNone};
};

Brume::TableConfig killConfig() { return shrinking(16, 4096, 16); }

// The writer process: fills the table to about kKeys entries, drains it to a
// few, and again, until it is killed.
[[noreturn]] void runWriter(const Mem::RootPath& root, Journal& j, uint32_t seed) {
  Writer w(root, killConfig());
  if (!w.attach()) ::_exit(3);
  std::mt19937 rng(seed);
  j.running.store(1);
  for (;;) {
    const bool filling = (j.ops.load() / 4000) % 2 == 0;
    const uint32_t key = rng() % kKeys;
    const uint32_t before = j.versions[key].load();
    const uint32_t dice = rng() % 10;
    Kind kind;
    if (before == 0) {
      if (!filling && dice != 0) continue;
      kind = kInsert;
    } else {
      kind = (filling ? dice == 0 : dice != 0) ? kRemove : kUpdate;
    }
    const uint32_t members = w.members();
    if (kind == kInsert && (members == w.capacity() || members + 1 > w.numBuckets())) kind = kGrowth;
    if (kind == kRemove && (members - 1 < w.shrinkThreshold() / 2 || members - 1 < w.numBuckets() / 4)) {
      kind = kShrink;
    }
    const uint32_t after = kind == kRemove || kind == kShrink ? 0 : static_cast<uint32_t>(j.nextVersion++);
    j.key.store(key);
    j.before.store(before);
    j.after.store(after);
    j.kind.store(kind);
    if (after == 0) {
      w.remove(key);
    } else {
      w.write(value(key, after));
    }
    j.versions[key].store(after);
    j.kind.store(kNone);
    j.ops.fetch_add(1);
  }
}

TEST(WriterKill, EveryKillLeavesTheJournalledEntriesAndARecoverableTable) {
  TempRoot dir("kill");
  void* mem = ::mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mem, MAP_FAILED);
  auto* j = new (mem) Journal;
  std::mt19937 rng(20261123);
  const char* env = std::getenv("MROUTE_KILL_SECONDS");
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(env ? std::atof(env) : 0.0);
  unsigned long kills = 0, killedIn[kKinds] = {}, recovered = 0, wrong = 0;
  for (uint32_t round = 0; round < 120 || std::chrono::steady_clock::now() < end; ++round) {
    j->running.store(0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) runWriter(dir.root(), *j, round);
    // Wait for an operation of the round's kind to start (any, after a
    // while), then kill within the next few microseconds.
    const Kind target = static_cast<Kind>(1 + round % (kKinds - 1));
    const auto started = std::chrono::steady_clock::now();
    while (j->running.load() == 0 && std::chrono::steady_clock::now() - started < std::chrono::seconds(10)) {
      std::this_thread::yield();
    }
    ASSERT_EQ(j->running.load(), 1u) << "writer did not start in round " << round;
    const auto waitFrom = std::chrono::steady_clock::now();
    const auto patience = std::chrono::milliseconds(50 + rng() % 100);
    while (j->kind.load() != target && std::chrono::steady_clock::now() - waitFrom < patience) {
    }
    const auto delay = std::chrono::nanoseconds(rng() % 20000);
    for (const auto t = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() - t < delay;) {
    }
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "writer ended by itself: " << status;
    ++kills;
    const uint32_t kind = j->kind.load();
    ++killedIn[kind];

    // A new reader: every key as journalled; the one in flight either way.
    uint32_t present = 0;
    {
      Reader r(dir.root());
      ASSERT_TRUE(r.initialize()) << "round " << round;
      RecordValue out;
      for (uint32_t k = 0; k < kKeys; ++k) {
        const uint32_t found = r.lookup(k, out) ? static_cast<uint32_t>(out.value.version) : 0;
        if (found != 0) {
          ++present;
          ASSERT_TRUE(out.value.check() && out.value.key == k) << "torn entry of key " << k << " round " << round;
        }
        const uint32_t expected = j->versions[k].load();
        const bool inFlight = kind != kNone && j->key.load() == k;
        const bool ok = found == expected || (inFlight && (found == j->before.load() || found == j->after.load()));
        if (!ok) {
          ++wrong;
          ADD_FAILURE() << "round " << round << " key " << k << ": found version " << found << ", journal "
                        << expected << (inFlight ? " (in flight)" : "") << ", killed in " << kKindNames[kind];
        }
      }
    }
    // A new writer recovers what the kill left and keeps every entry.
    {
      Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
      Writer w(dir.root(), killConfig());
      ASSERT_TRUE(w.attach()) << "round " << round;
      ASSERT_FALSE(sink.contains("Mroute::Brume", "will be lost")) << "re-formatted in round " << round;
      recovered += sink.contains("Mroute::Brume", "BrumeWriter::attach() recovered");
      std::string why;
      ASSERT_TRUE(w.validate(&why)) << "round " << round << ": " << why;
      EXPECT_EQ(w.members(), present) << "round " << round;
    }
    // The in-flight operation is settled: take what the table holds.
    if (kind != kNone) {
      Reader r(dir.root());
      ASSERT_TRUE(r.initialize());
      RecordValue out;
      const uint32_t k = j->key.load();
      j->versions[k].store(r.lookup(k, out) ? static_cast<uint32_t>(out.value.version) : 0);
      j->kind.store(kNone);
    }
    if (wrong != 0) break;
  }
  std::printf("kill campaign: %lu SIGKILLs, %lu recoveries, %lu wrong entries; in flight:", kills, recovered, wrong);
  for (uint32_t k = 0; k < kKinds; ++k) std::printf(" %s %lu", kKindNames[k], killedIn[k]);
  std::printf("\n");
  EXPECT_GE(kills, 100u);
  EXPECT_GT(killedIn[kGrowth] + killedIn[kShrink], 0u);
  j->~Journal();
  ::munmap(mem, sizeof(Journal));
}

}  // namespace
