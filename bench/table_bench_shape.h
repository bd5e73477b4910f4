// The shape, the run and the helpers every table_bench peer shares: keys and
// values computed from their index, the random orders of a run and its pass
// sizes, reader scaling in forked processes.
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace TableBench {

// ---- The shape -------------------------------------------------------------

struct Key {
  uint64_t w[6];
  uint32_t hash() const {
    uint64_t h = w[0] * 0x9E3779B97F4A7C15ull;
    for (int i = 1; i < 6; ++i) h = (h ^ w[i]) * 0xff51afd7ed558ccdull;
    return static_cast<uint32_t>(h ^ (h >> 29) ^ (h >> 47));
  }
  friend bool operator==(const Key&, const Key&) = default;
  friend auto operator<=>(const Key&, const Key&) = default;
};
static_assert(sizeof(Key) == 48);

struct Value {
  Key key;
  uint64_t payload[15];
};
static_assert(sizeof(Value) == 168);

struct KeyHash {
  size_t operator()(const Key& k) const { return k.hash(); }
};

// Keys are computed from their index, so that no benchmark pays a cache miss
// to fetch the key it looks up.
inline Key makeKey(uint64_t i) {
  Key k;
  uint64_t x = i * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
  for (int j = 0; j < 6; ++j) {
    x ^= x >> 31;
    x *= 0xbf58476d1ce4e5b9ull;
    k.w[j] = x;
  }
  k.w[0] = i;  // distinct keys
  return k;
}
inline Value makeValue(uint64_t i, uint64_t version) {
  Value v;
  v.key = makeKey(i);
  for (int j = 0; j < 15; ++j) v.payload[j] = version + j;
  return v;
}

// Times are the calling thread's CPU time: on a shared machine a pass the
// scheduler interrupts is not charged for the time another process ran (the
// machine's own slow spells are what the interleaved passes are for).
struct Clock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<Clock>;
  static constexpr bool is_steady = true;
  static time_point now() {
    timespec ts;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return time_point(duration(ts.tv_sec * 1000000000ll + ts.tv_nsec));
  }
};
using WallClock = std::chrono::steady_clock;

inline double nsSince(Clock::time_point start, uint64_t ops) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / static_cast<double>(ops);
}

inline volatile uint64_t gSink;

// Our reader hands back a whole copy of the value; a peer's loop that reads one
// word of its copy would let the compiler drop the rest of it. This keeps the
// copy whole (the compiler must assume the bytes are read).
template <typename T>
inline void keepCopy(const T& copy) {
  asm volatile("" : : "r"(&copy) : "memory");
}

struct Run {
  uint32_t n;
  uint64_t lookups;
  uint64_t updates;
  uint32_t passes;  // whole iterations timed
  // Lookups and updates are timed in passes of this many operations (the
  // last one may be shorter), a pass of every peer in turn.
  uint64_t lookupsPerPass;
  uint64_t updatesPerPass;
  uint32_t iterationsPerPass;   // whole iterations timed together
  std::vector<uint32_t> order;  // random lookup order
  std::vector<uint32_t> updateOrder;
  bool scaling = true;  // MROUTE_BENCH_SCALING=0: no reader processes (for a run under callgrind)
};

inline Run makeRun(uint32_t n) {
  // 200,000 updates at every size: a route table's entries are updated over
  // and over, not once each. Iteration: whole passes until 2,000,000 entries
  // were visited (a pass at 12,000 entries is a fraction of a millisecond:
  // its median needs many), and at least five.
  // A pass lasts a millisecond or two for ours (an iteration pass visits
  // 100,000 entries or one whole iteration): long enough for the clock,
  // short enough that a slow spell of the machine (seconds) covers the same
  // pass of every peer.
  const bool large = n >= 100000;
  Run r{};
  r.n = n;
  r.lookups = large ? 3000000 : 4000000;
  r.updates = 200000;
  r.passes = std::max(5u, (2000000 + n - 1) / n);
  r.lookupsPerPass = large ? 5000 : 50000;
  r.updatesPerPass = large ? 2000 : 20000;
  r.iterationsPerPass = std::max(1u, 100000 / n);
  if (const char* env = std::getenv("MROUTE_BENCH_LOOKUPS")) r.lookups = std::strtoull(env, nullptr, 10);
  if (const char* env = std::getenv("MROUTE_BENCH_PASSES")) r.passes = std::max(1, std::atoi(env));
  if (const char* env = std::getenv("MROUTE_BENCH_UPDATES"))
    r.updates = std::max(1ull, std::strtoull(env, nullptr, 10));
  if (const char* env = std::getenv("MROUTE_BENCH_SCALING")) r.scaling = std::string(env) != "0";
  std::mt19937_64 rng(n);
  r.order.resize(r.lookups);
  for (auto& i : r.order) i = static_cast<uint32_t>(rng() % n);
  r.updateOrder.resize(r.updates);
  for (auto& i : r.updateOrder) i = static_cast<uint32_t>(rng() % n);
  return r;
}

inline std::string benchDir(const std::string& tag) {
  const std::string d = "/dev/shm/mroute-bench-" + std::to_string(::getpid()) + "-" + tag;
  std::filesystem::remove_all(d);
  std::filesystem::create_directories(d);
  return d;
}

// ---- Reader scaling --------------------------------------------------------

// Readers run in forked processes for a fixed time while the parent (the
// writer) updates entries in place; counts meet in an anonymous shared page.
constexpr auto kScalingTime = std::chrono::milliseconds(400);

struct ScalingShared {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> lookups[2];
};

// Runs `readers` processes of readerLoop(stop flag) -> lookups made, and
// writeOne(i) in the parent until they stop. Returns {lookups/s, writes/s}.
template <typename ReaderLoop, typename WriteOne>
std::pair<double, double> scaling(int readers, ReaderLoop readerLoop, WriteOne writeOne) {
  void* mem =
      ::mmap(nullptr, sizeof(ScalingShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) return {-1, -1};
  auto* sh = new (mem) ScalingShared();
  std::vector<pid_t> pids;
  for (int i = 0; i < readers; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      sh->lookups[i] = readerLoop(*sh);
      ::_exit(0);
    }
    if (pid > 0) pids.push_back(pid);
  }
  while (sh->ready.load() < static_cast<int>(pids.size())) std::this_thread::yield();
  sh->go = true;
  const auto start = WallClock::now();
  uint64_t writes = 0;
  while (WallClock::now() - start < kScalingTime) {
    for (int k = 0; k < 64; ++k) writeOne(writes++);
  }
  sh->stop = true;
  const double seconds = std::chrono::duration<double>(WallClock::now() - start).count();
  for (pid_t pid : pids) ::waitpid(pid, nullptr, 0);
  uint64_t total = 0;
  for (size_t i = 0; i < pids.size(); ++i) total += sh->lookups[i];
  ::munmap(mem, sizeof(ScalingShared));
  if (static_cast<int>(pids.size()) != readers) return {-1, -1};
  return {static_cast<double>(total) / seconds, static_cast<double>(writes) / seconds};
}

// Lookups in random order until the writer says stop; the count.
template <typename LookupOne>
uint64_t readUntilStopped(ScalingShared& sh, const Run& run, LookupOne lookupOne) {
  ++sh.ready;
  while (!sh.go.load()) std::this_thread::yield();
  uint64_t n = 0;
  for (;;) {
    for (uint32_t i : run.order) {
      lookupOne(i);
      if ((++n & 255) == 0 && sh.stop.load(std::memory_order_relaxed)) return n;
    }
  }
}

// Bytes the files of a table directory occupy (tmpfs pages in use).
inline double dirBytes(const std::string& dir) {
  double bytes = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    struct stat st {};
    if (::stat(e.path().c_str(), &st) == 0) bytes += static_cast<double>(st.st_blocks) * 512.0;
  }
  return bytes;
}

}  // namespace TableBench
