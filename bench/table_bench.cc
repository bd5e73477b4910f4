// Shared-memory table against the peers a user would pick instead, in one
// run on one machine, on the route table's shape (48-byte key, 168-byte
// value) at 12,000 and 1,000,000 entries:
//   ours      BrumeWriter + BrumeReader (notifications posted on every write)
//   std       a private std::unordered_map (no sharing at all)
//   boost     a Boost.Interprocess unordered_map in shared memory under an
//             interprocess_sharable_mutex (readers share, the writer excludes)
//   lmdb      LMDB (one writer, lock-free readers; one transaction per
//             write, a renewed read transaction per lookup)
//   floor     two dependent random loads over the same working set (bucket
//             word, then slot): what a lookup cannot beat
// Prints ns per operation and each peer's time divided by ours. Lookups are
// timed warm: every structure was read through once before (a long-lived
// reader has its mapping faulted in). Also: memory per entry when full, and
// reader scaling for ours and Boost: aggregate lookups per second of 1 and 2
// reader processes while the writer churns in-place updates.
//
// --benchmark_repetitions=N runs every figure N times and prints medians.
//
// Boost and LMDB are optional: without them their columns read "-".
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <thread>
#include <atomic>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/value_wrapper.h"

#ifdef MROUTE_BENCH_HAVE_BOOST
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#endif
#ifdef MROUTE_BENCH_HAVE_LMDB
#include <lmdb.h>
#endif

namespace {

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

using Stored = KivBrume::KivBrumeMapValueWrapper<Value, Key, &Value::key>;
using Ops = Brume::DefaultOps<Key, Stored>;
static_assert(sizeof(Stored) + 16 == 184);

using Clock = std::chrono::steady_clock;
double nsSince(Clock::time_point start, uint64_t ops) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / static_cast<double>(ops);
}

volatile uint64_t gSink;

struct Figures {
  double lookup = -1, insert = -1, update = -1, remove = -1, iterate = -1;
  double bytesPerEntry = -1;  // memory in use with every entry present
  // Reader scaling: lookups/s of all readers, and the writer's updates/s.
  double lookups1 = -1, lookups2 = -1, writes1 = -1, writes2 = -1;
};

struct Run {
  uint32_t n;
  uint64_t lookups;
  uint64_t updates;
  std::vector<uint32_t> order;   // random lookup order
  std::vector<uint32_t> updateOrder;
};

Run makeRun(uint32_t n) {
  Run r{n, n < 100000 ? 4000000ull : 3000000ull, std::min<uint64_t>(n, 200000), {}, {}};
  if (const char* env = std::getenv("MROUTE_BENCH_LOOKUPS")) r.lookups = std::strtoull(env, nullptr, 10);
  std::mt19937_64 rng(n);
  r.order.resize(r.lookups);
  for (auto& i : r.order) i = static_cast<uint32_t>(rng() % n);
  r.updateOrder.resize(r.updates);
  for (auto& i : r.updateOrder) i = static_cast<uint32_t>(rng() % n);
  return r;
}

std::string benchDir(const std::string& tag) {
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
  void* mem = ::mmap(nullptr, sizeof(ScalingShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
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
  const auto start = Clock::now();
  uint64_t writes = 0;
  while (Clock::now() - start < kScalingTime) {
    for (int k = 0; k < 64; ++k) writeOne(writes++);
  }
  sh->stop = true;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
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
double dirBytes(const std::string& dir) {
  double bytes = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    struct stat st {};
    if (::stat(e.path().c_str(), &st) == 0) bytes += static_cast<double>(st.st_blocks) * 512.0;
  }
  return bytes;
}

// ---- Ours ------------------------------------------------------------------

Figures benchOurs(const Run& run) {
  Figures f;
  const std::string dir = benchDir("ours");
  Brume::TableConfig c;
  c.name = "bench";
  c.initialSize = run.n;
  c.maxSize = run.n;
  Brume::BrumeWriter<Ops> w{Mem::RootPath(dir), c};
  if (!w.attach()) {
    std::fprintf(stderr, "ours: attach failed\n");
    return f;
  }
  w.conquer()->updateNumReaders(0);  // no reader connected: prune what fills
  auto t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) w.write(Stored(makeValue(i, 1)));
  f.insert = nsSince(t, run.n);
  f.bytesPerEntry = dirBytes(dir) / run.n;

  Brume::BrumeReader<Ops> r{Mem::RootPath(dir)};
  if (!r.initialize()) {
    std::fprintf(stderr, "ours: reader initialize failed\n");
    return f;
  }
  Stored out;
  uint64_t sum = 0;
  // Warm-up: a long-lived reader has every page of its mapping faulted in.
  for (uint32_t i = 0; i < run.n; ++i) sum += r.lookup(makeKey(i), out);
  t = Clock::now();
  for (uint32_t i : run.order) {
    if (r.lookup(makeKey(i), out)) sum += out.value.payload[3];
  }
  f.lookup = nsSince(t, run.lookups);

  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) w.write(Stored(makeValue(i, version++)));
  f.update = nsSince(t, run.updates);

  t = Clock::now();
  uint64_t count = 0;
  for (bool more = r.first(out); more; more = r.next(out.value.key, out)) {
    sum += out.value.payload[0];
    ++count;
  }
  f.iterate = nsSince(t, count);

  auto readerLoop = [&](ScalingShared& sh) -> uint64_t {
    Brume::BrumeReader<Ops> pr{Mem::RootPath(dir)};
    if (!pr.initialize()) return 0;
    Stored o;
    uint64_t s = 0;
    const uint64_t n = readUntilStopped(sh, run, [&](uint32_t i) {
      if (pr.lookup(makeKey(i), o)) s += o.value.payload[3];
    });
    gSink = s;
    return n;
  };
  auto writeOne = [&](uint64_t k) { w.write(Stored(makeValue(run.updateOrder[k % run.updates], version++))); };
  std::tie(f.lookups1, f.writes1) = scaling(1, readerLoop, writeOne);
  std::tie(f.lookups2, f.writes2) = scaling(2, readerLoop, writeOne);

  t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) w.remove(makeKey(i));
  f.remove = nsSince(t, run.n);
  gSink = sum;
  w.cleanup();
  std::filesystem::remove_all(dir);
  return f;
}

// ---- std::unordered_map ------------------------------------------------------

// Counts the bytes the map holds (nodes and bucket array).
size_t gStdBytes = 0;
template <typename T>
struct CountingAlloc {
  using value_type = T;
  CountingAlloc() = default;
  template <typename U>
  CountingAlloc(const CountingAlloc<U>&) {}
  T* allocate(size_t n) {
    gStdBytes += n * sizeof(T);
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, size_t n) {
    gStdBytes -= n * sizeof(T);
    std::allocator<T>().deallocate(p, n);
  }
  friend bool operator==(const CountingAlloc&, const CountingAlloc&) = default;
};

Figures benchStd(const Run& run) {
  Figures f;
  gStdBytes = 0;
  std::unordered_map<Key, Value, KeyHash, std::equal_to<Key>, CountingAlloc<std::pair<const Key, Value>>> m;
  m.reserve(run.n);
  auto t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) m.emplace(makeKey(i), makeValue(i, 1));
  f.insert = nsSince(t, run.n);
  f.bytesPerEntry = static_cast<double>(gStdBytes) / run.n;
  Value out;
  uint64_t sum = 0;
  for (uint32_t i = 0; i < run.n; ++i) sum += m.count(makeKey(i));
  t = Clock::now();
  for (uint32_t i : run.order) {
    auto it = m.find(makeKey(i));
    if (it != m.end()) {
      out = it->second;
      sum += out.payload[3];
    }
  }
  f.lookup = nsSince(t, run.lookups);
  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) m[makeKey(i)] = makeValue(i, version++);
  f.update = nsSince(t, run.updates);
  t = Clock::now();
  for (const auto& [k, v] : m) {
    out = v;
    sum += out.payload[0];
  }
  f.iterate = nsSince(t, m.size());
  t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) m.erase(makeKey(i));
  f.remove = nsSince(t, run.n);
  gSink = sum;
  return f;
}

// ---- Boost.Interprocess map under a sharable mutex ---------------------------

#ifdef MROUTE_BENCH_HAVE_BOOST
namespace bip = boost::interprocess;
Figures benchBoost(const Run& run) {
  Figures f;
  using Segment = bip::managed_shared_memory;
  using Alloc = bip::allocator<std::pair<const Key, Value>, Segment::segment_manager>;
  using Map = boost::unordered_map<Key, Value, KeyHash, std::equal_to<Key>, Alloc>;
  const std::string name = "mroute-bench-boost-" + std::to_string(::getpid());
  bip::shared_memory_object::remove(name.c_str());
  {
    Segment seg(bip::create_only, name.c_str(), size_t{run.n} * 320 + (64u << 20));
    auto* mutex = seg.construct<bip::interprocess_sharable_mutex>("mutex")();
    Map* m = seg.construct<Map>("map")(run.n, KeyHash(), std::equal_to<Key>(), Alloc(seg.get_segment_manager()));
    auto t = Clock::now();
    for (uint32_t i = 0; i < run.n; ++i) {
      bip::scoped_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      m->emplace(makeKey(i), makeValue(i, 1));
    }
    f.insert = nsSince(t, run.n);
    f.bytesPerEntry = static_cast<double>(seg.get_size() - seg.get_free_memory()) / run.n;
    Value out;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < run.n; ++i) sum += m->count(makeKey(i));
    t = Clock::now();
    for (uint32_t i : run.order) {
      bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      auto it = m->find(makeKey(i));
      if (it != m->end()) {
        out = it->second;
        sum += out.payload[3];
      }
    }
    f.lookup = nsSince(t, run.lookups);
    t = Clock::now();
    uint64_t version = 2;
    for (uint32_t i : run.updateOrder) {
      bip::scoped_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      auto it = m->find(makeKey(i));
      if (it != m->end()) it->second = makeValue(i, version++);
    }
    f.update = nsSince(t, run.updates);
    t = Clock::now();
    {
      bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      for (const auto& kv : *m) {
        out = kv.second;
        sum += out.payload[0];
      }
    }
    f.iterate = nsSince(t, m->size());

    auto readerLoop = [&](ScalingShared& sh) -> uint64_t {
      Segment rseg(bip::open_only, name.c_str());
      auto* rmutex = rseg.find<bip::interprocess_sharable_mutex>("mutex").first;
      Map* rm = rseg.find<Map>("map").first;
      if (rmutex == nullptr || rm == nullptr) return 0;
      Value o;
      uint64_t s = 0;
      const uint64_t n = readUntilStopped(sh, run, [&](uint32_t i) {
        bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*rmutex);
        auto it = rm->find(makeKey(i));
        if (it != rm->end()) {
          o = it->second;
          s += o.payload[3];
        }
      });
      gSink = s;
      return n;
    };
    auto writeOne = [&](uint64_t k) {
      const uint32_t i = run.updateOrder[k % run.updates];
      bip::scoped_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      auto it = m->find(makeKey(i));
      if (it != m->end()) it->second = makeValue(i, version++);
    };
    std::tie(f.lookups1, f.writes1) = scaling(1, readerLoop, writeOne);
    std::tie(f.lookups2, f.writes2) = scaling(2, readerLoop, writeOne);

    t = Clock::now();
    for (uint32_t i = 0; i < run.n; ++i) {
      bip::scoped_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      m->erase(makeKey(i));
    }
    f.remove = nsSince(t, run.n);
    gSink = sum;
  }
  bip::shared_memory_object::remove(name.c_str());
  return f;
}
#endif

// ---- LMDB --------------------------------------------------------------------

#ifdef MROUTE_BENCH_HAVE_LMDB
Figures benchLmdb(const Run& run) {
  Figures f;
  const std::string dir = benchDir("lmdb");
  MDB_env* env = nullptr;
  MDB_dbi dbi;
  if (mdb_env_create(&env) != 0 || mdb_env_set_mapsize(env, size_t{run.n} * 600 + (64u << 20)) != 0 ||
      mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_NOMETASYNC | MDB_WRITEMAP, 0640) != 0) {
    std::fprintf(stderr, "lmdb: cannot open\n");
    return f;
  }
  MDB_txn* txn = nullptr;
  mdb_txn_begin(env, nullptr, 0, &txn);
  mdb_dbi_open(txn, nullptr, 0, &dbi);
  mdb_txn_commit(txn);
  auto put = [&](uint32_t i, uint64_t version) {
    Key k = makeKey(i);
    Value v = makeValue(i, version);
    MDB_val mk{sizeof k, &k};
    MDB_val mv{sizeof v, &v};
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_put(txn, dbi, &mk, &mv, 0);
    mdb_txn_commit(txn);
  };
  auto t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) put(i, 1);
  f.insert = nsSince(t, run.n);
  {
    MDB_envinfo info;
    MDB_stat st;
    if (mdb_env_info(env, &info) == 0 && mdb_env_stat(env, &st) == 0) {
      f.bytesPerEntry = static_cast<double>(info.me_last_pgno + 1) * st.ms_psize / run.n;
    }
  }

  MDB_txn* rtxn = nullptr;
  mdb_txn_begin(env, nullptr, MDB_RDONLY, &rtxn);
  mdb_txn_reset(rtxn);
  Value out;
  uint64_t sum = 0;
  mdb_txn_renew(rtxn);
  for (uint32_t i = 0; i < run.n; ++i) {
    Key k = makeKey(i);
    MDB_val mk{sizeof k, &k};
    MDB_val mv;
    sum += mdb_get(rtxn, dbi, &mk, &mv) == 0;
  }
  mdb_txn_reset(rtxn);
  t = Clock::now();
  for (uint32_t i : run.order) {
    Key k = makeKey(i);
    MDB_val mk{sizeof k, &k};
    MDB_val mv;
    mdb_txn_renew(rtxn);
    if (mdb_get(rtxn, dbi, &mk, &mv) == 0) {
      std::memcpy(&out, mv.mv_data, sizeof out);
      sum += out.payload[3];
    }
    mdb_txn_reset(rtxn);
  }
  f.lookup = nsSince(t, run.lookups);

  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) put(i, version++);
  f.update = nsSince(t, run.updates);

  t = Clock::now();
  uint64_t count = 0;
  {
    mdb_txn_renew(rtxn);
    MDB_cursor* cur = nullptr;
    mdb_cursor_open(rtxn, dbi, &cur);
    MDB_val mk;
    MDB_val mv;
    for (int rc = mdb_cursor_get(cur, &mk, &mv, MDB_FIRST); rc == 0; rc = mdb_cursor_get(cur, &mk, &mv, MDB_NEXT)) {
      std::memcpy(&out, mv.mv_data, sizeof out);
      sum += out.payload[0];
      ++count;
    }
    mdb_cursor_close(cur);
    mdb_txn_reset(rtxn);
  }
  f.iterate = nsSince(t, count);

  t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) {
    Key k = makeKey(i);
    MDB_val mk{sizeof k, &k};
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_del(txn, dbi, &mk, nullptr);
    mdb_txn_commit(txn);
  }
  f.remove = nsSince(t, run.n);
  mdb_txn_abort(rtxn);
  mdb_env_close(env);
  gSink = sum;
  std::filesystem::remove_all(dir);
  return f;
}
#endif

// ---- The floor -----------------------------------------------------------------

// Bucket words (8 bytes) index slots (184 bytes), as in our files: each
// lookup is a random load of a bucket word followed by a load of the slot it
// names, dependent on it.
// withCopy: the slot's whole 168-byte value is copied out too, as every
// lookup that returns a value must.
double benchFloor(const Run& run, bool withCopy) {
  uint32_t buckets = 1;
  while (buckets < run.n) buckets *= 2;
  std::vector<uint64_t> bucketWords(buckets);
  std::vector<unsigned char> slots(size_t{run.n} * 184 + 64);
  std::mt19937_64 rng(7);
  std::vector<uint32_t> perm(run.n);
  for (uint32_t i = 0; i < run.n; ++i) perm[i] = i;
  std::shuffle(perm.begin(), perm.end(), rng);
  for (uint32_t b = 0; b < buckets; ++b) bucketWords[b] = perm[b % run.n];
  for (uint32_t i = 0; i < run.n; ++i) std::memcpy(slots.data() + size_t{i} * 184 + 16, &i, 4);
  uint64_t sum = 0;
  for (uint32_t b = 0; b < buckets; ++b) sum += bucketWords[b];
  const auto t = Clock::now();
  Value out;
  for (uint32_t i : run.order) {
    const uint64_t h = makeKey(i).hash();
    const uint64_t slot = bucketWords[h & (buckets - 1)];
    if (withCopy) {
      std::memcpy(&out, slots.data() + slot * 184 + 16, sizeof out);
      sum += out.payload[3] + out.key.w[0];
    } else {
      uint32_t word;
      std::memcpy(&word, slots.data() + slot * 184 + 16, 4);
      sum += word;
    }
  }
  const double ns = nsSince(t, run.lookups);
  gSink = sum;
  return ns;
}

// Ratios say how many times better ours is: peer time / ours, or ours / peer
// for rates (higherIsBetter).
void print(const char* what, double ours, const std::vector<std::pair<const char*, double>>& peers,
           bool higherIsBetter = false) {
  std::printf("  %-22s %9.1f", what, ours);
  for (const auto& [name, v] : peers) {
    if (v < 0) {
      std::printf(" %10s %8s", "-", "");
    } else if (ours <= 0) {
      std::printf(" %10.1f %8s", v, "");
    } else {
      std::printf(" %10.1f %7.2fx", v, higherIsBetter ? ours / v : v / ours);
    }
  }
  std::printf("\n");
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? -1 : v[v.size() / 2];
}

// The median of each figure over the repetitions.
Figures medianOf(const std::vector<Figures>& reps) {
  Figures m;
  auto field = [&](double Figures::*f) {
    std::vector<double> v;
    for (const Figures& r : reps) v.push_back(r.*f);
    m.*f = median(v);
  };
  for (double Figures::*f : {&Figures::lookup, &Figures::insert, &Figures::update, &Figures::remove, &Figures::iterate,
                             &Figures::bytesPerEntry, &Figures::lookups1, &Figures::lookups2, &Figures::writes1,
                             &Figures::writes2}) {
    field(f);
  }
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint32_t> sizes;
  int repetitions = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--benchmark_repetitions=", 0) == 0) {
      repetitions = std::max(1, std::stoi(arg.substr(arg.find('=') + 1)));
    } else {
      sizes.push_back(static_cast<uint32_t>(std::stoul(arg)));
    }
  }
  if (sizes.empty()) sizes = {12000, 1000000};
  std::printf("Shared-memory table vs peers: 48-byte key, 168-byte value; ns per operation, and peer / ours\n");
  if (repetitions > 1) std::printf("Medians of %d repetitions\n", repetitions);
  for (uint32_t n : sizes) {
    const Run run = makeRun(n);
    // MROUTE_BENCH_PEERS=std,boost,lmdb (the default) picks the peers.
    const char* env = std::getenv("MROUTE_BENCH_PEERS");
    const std::string peers = env != nullptr ? env : "std,boost,lmdb";
    std::vector<Figures> oursReps, stdReps, boostReps, lmdbReps;
    std::vector<double> floorReps, floorCopyReps;
    for (int rep = 0; rep < repetitions; ++rep) {
      oursReps.push_back(benchOurs(run));
      stdReps.push_back(peers.find("std") != std::string::npos ? benchStd(run) : Figures{});
#ifdef MROUTE_BENCH_HAVE_BOOST
      boostReps.push_back(peers.find("boost") != std::string::npos ? benchBoost(run) : Figures{});
#endif
#ifdef MROUTE_BENCH_HAVE_LMDB
      lmdbReps.push_back(peers.find("lmdb") != std::string::npos ? benchLmdb(run) : Figures{});
#endif
      floorReps.push_back(benchFloor(run, false));
      floorCopyReps.push_back(benchFloor(run, true));
    }
    const Figures ours = medianOf(oursReps);
    const Figures stdMap = medianOf(stdReps);
    const Figures boost = boostReps.empty() ? Figures{} : medianOf(boostReps);
    const Figures lmdb = lmdbReps.empty() ? Figures{} : medianOf(lmdbReps);
    const double floor = median(floorReps);
    const double floorCopy = median(floorCopyReps);
    std::printf("\n%u entries (%llu lookups, %llu updates)\n", n, static_cast<unsigned long long>(run.lookups),
                static_cast<unsigned long long>(run.updates));
    std::printf("  %-22s %9s %10s %8s %10s %8s %10s %8s\n", "operation", "ours", "std", "", "boost", "", "lmdb", "");
    print("lookup+copy", ours.lookup, {{"std", stdMap.lookup}, {"boost", boost.lookup}, {"lmdb", lmdb.lookup}});
    print("insert", ours.insert, {{"std", stdMap.insert}, {"boost", boost.insert}, {"lmdb", lmdb.insert}});
    print("in-place update", ours.update, {{"std", stdMap.update}, {"boost", boost.update}, {"lmdb", lmdb.update}});
    print("remove", ours.remove, {{"std", stdMap.remove}, {"boost", boost.remove}, {"lmdb", lmdb.remove}});
    print("iteration (per entry)", ours.iterate,
          {{"std", stdMap.iterate}, {"boost", boost.iterate}, {"lmdb", lmdb.iterate}});
    print("memory per entry (B)", ours.bytesPerEntry,
          {{"std", stdMap.bytesPerEntry}, {"boost", boost.bytesPerEntry}, {"lmdb", lmdb.bytesPerEntry}});
    std::printf("  two dependent loads (floor): %.1f ns; ours / floor = %.2fx\n", floor, ours.lookup / floor);
    std::printf("  the same plus copying the 168-byte value: %.1f ns; ours / that = %.2fx\n", floorCopy,
                ours.lookup / floorCopy);
    std::printf("  reader scaling while the writer updates (millions per second; ours / boost):\n");
    auto mps = [](double v) { return v < 0 ? -1.0 : v / 1e6; };
    print("lookups, 1 reader", mps(ours.lookups1), {{"boost", mps(boost.lookups1)}}, true);
    print("lookups, 2 readers", mps(ours.lookups2), {{"boost", mps(boost.lookups2)}}, true);
    print("writes, 1 reader", mps(ours.writes1), {{"boost", mps(boost.writes1)}}, true);
    print("writes, 2 readers", mps(ours.writes2), {{"boost", mps(boost.writes2)}}, true);
  }
  return 0;
}
