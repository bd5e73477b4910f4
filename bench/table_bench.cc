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
// Every peer's updates run right after its inserts, before any lookup: our
// reader lives in this process under a second mapping of the same pages, and
// on this machine a store through the writer's mapping to a line last read
// through the reader's costs 30-50 ns more (measured): a cost of one process
// holding two addresses of a line, which no peer here pays (each reads and
// writes through one address).
//
// --benchmark_repetitions=N runs every figure N times and prints medians.
//
// Boost and LMDB are optional: without them their columns read "-".
#include <bit>
#include <cstdio>
#include <cstring>
#include <functional>
#include <tuple>
#include <unordered_map>

#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/value_wrapper.h"
#include "table_bench_shape.h"

namespace {

using namespace TableBench;

using Stored = KivBrume::KivBrumeMapValueWrapper<Value, Key, &Value::key>;
using Ops = Brume::DefaultOps<Key, Stored>;
static_assert(sizeof(Stored) + 16 == 184);

// ---- Ours ------------------------------------------------------------------

// Functions of their own, so that a run under callgrind can count the
// instructions of the timed lookups and of a whole iteration (inclusive cost
// divided by lookups or entries): the reader's fast paths are inlined.
[[gnu::noinline]] uint64_t lookupOurs(Brume::BrumeReader<Ops>& r, const Run& run) {
  Stored out;
  uint64_t sum = 0;
  for (uint32_t i : run.order) {
    if (r.lookup(makeKey(i), out)) sum += out.value.payload[3];
  }
  return sum;
}
[[gnu::noinline]] uint64_t iterateOurs(Brume::BrumeReader<Ops>& r, uint64_t* sum) {
  uint64_t count = 0;
  r.forEach([&](const Stored& e) {
    *sum += e.value.payload[0];
    ++count;
  });
  return count;
}

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
  // Updates before any lookup, as for every peer (see the top of the file).
  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) w.write(Stored(makeValue(i, version++)));
  f.update = nsSince(t, run.updates);

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
  sum += lookupOurs(r, run);
  f.lookup = nsSince(t, run.lookups);

  t = Clock::now();
  uint64_t count = 0;
  for (uint32_t pass = 0; pass < run.passes; ++pass) count += iterateOurs(r, &sum);
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
  if (run.scaling) {
    std::tie(f.lookups1, f.writes1) = scaling(1, readerLoop, writeOne);
    std::tie(f.lookups2, f.writes2) = scaling(2, readerLoop, writeOne);
  }

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
  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) m[makeKey(i)] = makeValue(i, version++);
  f.update = nsSince(t, run.updates);
  Value out;
  uint64_t sum = 0;
  for (uint32_t i = 0; i < run.n; ++i) sum += m.count(makeKey(i));
  t = Clock::now();
  for (uint32_t i : run.order) {
    auto it = m.find(makeKey(i));
    if (it != m.end()) {
      out = it->second;
      keepCopy(out);
      sum += out.payload[3];
    }
  }
  f.lookup = nsSince(t, run.lookups);
  t = Clock::now();
  for (uint32_t pass = 0; pass < run.passes; ++pass) {
    for (const auto& [k, v] : m) {
      out = v;
      keepCopy(out);
      sum += out.payload[0];
    }
  }
  f.iterate = nsSince(t, m.size() * run.passes);
  t = Clock::now();
  for (uint32_t i = 0; i < run.n; ++i) m.erase(makeKey(i));
  f.remove = nsSince(t, run.n);
  gSink = sum;
  return f;
}

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
      keepCopy(out);
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

// A chained table at the floor: the same bucket count and the same chains,
// in the same order, as our table holds (each bucket's keys by reversed
// hash, slot i holding key i as our in-order inserts leave them), walked with
// nothing but an end test and a whole-key compare per slot. What remains
// between ours and this is the cost of sharing the table (version re-checks,
// the consistent copy, the corruption checks, the notifications), not of the
// chains every operation of a chained table walks.
class BareChains {
 public:
  static constexpr uint32_t kEnd = ~0u;

  explicit BareChains(uint32_t n) : slots_(size_t{n} * 184 + 64) {
    while (buckets_ < n) buckets_ *= 2;
    bucketWords_.assign(buckets_, kEnd);
    std::vector<std::vector<uint32_t>> chains(buckets_);
    for (uint32_t i = 0; i < n; ++i) {
      const Value v = makeValue(i, 1);
      std::memcpy(valueAt(i), &v, sizeof v);
      chains[makeKey(i).hash() & (buckets_ - 1)].push_back(i);
    }
    for (uint32_t b = 0; b < buckets_; ++b) {
      auto& c = chains[b];
      std::sort(c.begin(), c.end(), [](uint32_t x, uint32_t y) {
        return Brume::bitReverse(makeKey(x).hash()) < Brume::bitReverse(makeKey(y).hash());
      });
      uint32_t next = kEnd;
      for (size_t k = c.size(); k-- > 0;) {
        std::memcpy(slotAt(c[k]), &next, 4);
        next = c[k];
      }
      bucketWords_[b] = next;
    }
  }

  uint32_t find(const Key& k) {
    uint32_t slot = static_cast<uint32_t>(bucketWords_[k.hash() & (buckets_ - 1)]);
    while (slot != kEnd && std::memcmp(valueAt(slot), &k, sizeof k) != 0) std::memcpy(&slot, slotAt(slot), 4);
    return slot;
  }
  unsigned char* valueAt(uint64_t slot) { return slotAt(slot) + 16; }

  // Every entry in our iteration order: buckets in split order (bucket b at
  // the position whose bits reversed are b), each chain from its head.
  template <typename F>
  uint64_t forEach(F&& f) {
    const int shift = 32 - std::countr_zero(buckets_);
    uint64_t count = 0;
    for (uint32_t pos = 0; pos < buckets_; ++pos) {
      const uint32_t b = buckets_ == 1 ? 0 : Brume::bitReverse(pos) >> shift;
      for (uint32_t slot = static_cast<uint32_t>(bucketWords_[b]); slot != kEnd; std::memcpy(&slot, slotAt(slot), 4)) {
        f(valueAt(slot));
        ++count;
      }
    }
    return count;
  }

 private:
  unsigned char* slotAt(uint64_t slot) { return slots_.data() + slot * 184; }

  uint32_t buckets_ = 1;
  std::vector<uint64_t> bucketWords_;
  std::vector<unsigned char> slots_;
};

double benchFloorChained(const Run& run) {
  BareChains t(run.n);
  uint64_t sum = 0;
  const auto start = Clock::now();
  Value out;
  for (uint32_t i : run.order) {
    const uint32_t slot = t.find(makeKey(i));
    if (slot == BareChains::kEnd) continue;
    std::memcpy(&out, t.valueAt(slot), sizeof out);
    keepCopy(out);
    sum += out.payload[3] + out.key.w[0];
  }
  const double ns = nsSince(start, run.lookups);
  gSink = sum;
  return ns;
}

// The bare chained table's iteration: whole passes, each value copied out
// and handed to the same callback as ours.
double benchFloorChainedIterate(const Run& run) {
  BareChains t(run.n);
  uint64_t sum = 0, count = 0;
  const auto start = Clock::now();
  for (uint32_t pass = 0; pass < run.passes; ++pass) {
    count += t.forEach([&](const unsigned char* value) {
      Value out;
      std::memcpy(&out, value, sizeof out);
      keepCopy(out);
      sum += out.payload[0];
    });
  }
  const double ns = nsSince(start, count);
  gSink = sum;
  return ns;
}

// The bare chained table's in-place update: find, store the new value; with
// notify, also the least a queue of changes asks for: append an entry naming
// the slot and turn the slot's previous entry into a tombstone (its position
// kept per slot), with no compaction (the queue is long enough for the run).
double benchFloorChainedUpdate(const Run& run, bool notify) {
  struct Entry {
    uint64_t sequence;
    uint32_t slot;
    uint32_t live;
  };
  BareChains t(run.n);
  std::vector<Entry> queue(size_t{run.n} + run.updates);
  std::vector<uint32_t> positions(run.n);
  for (uint32_t i = 0; i < run.n; ++i) {
    queue[i] = {i, i, 1};
    positions[i] = i;
  }
  uint64_t tail = run.n;
  uint64_t version = 2;
  const auto start = Clock::now();
  for (uint32_t i : run.updateOrder) {
    const Value v = makeValue(i, version++);
    const uint32_t slot = t.find(v.key);
    if (slot == BareChains::kEnd) continue;
    std::memcpy(t.valueAt(slot), &v, sizeof v);
    if (notify) {
      queue[positions[slot]].live = 0;
      queue[tail] = {tail, slot, 1};
      positions[slot] = static_cast<uint32_t>(tail++);
    }
  }
  const double ns = nsSince(start, run.updates);
  uint64_t sum = tail;
  for (uint32_t i = 0; i < run.n; ++i) sum += t.valueAt(i)[60];
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
    std::vector<double> floorReps, floorCopyReps, floorChainedReps, bareUpdateReps, bareNotifyReps, bareIterateReps;
    for (int rep = 0; rep < repetitions; ++rep) {
      oursReps.push_back(benchOurs(run));
      stdReps.push_back(peers.find("std") != std::string::npos ? benchStd(run) : Figures{});
      boostReps.push_back(peers.find("boost") != std::string::npos ? benchBoost(run) : Figures{});
      lmdbReps.push_back(peers.find("lmdb") != std::string::npos ? benchLmdb(run) : Figures{});
      floorReps.push_back(benchFloor(run, false));
      floorCopyReps.push_back(benchFloor(run, true));
      floorChainedReps.push_back(benchFloorChained(run));
      bareUpdateReps.push_back(benchFloorChainedUpdate(run, false));
      bareNotifyReps.push_back(benchFloorChainedUpdate(run, true));
      bareIterateReps.push_back(benchFloorChainedIterate(run));
    }
    const Figures ours = medianOf(oursReps);
    const Figures stdMap = medianOf(stdReps);
    const Figures boost = boostReps.empty() ? Figures{} : medianOf(boostReps);
    const Figures lmdb = lmdbReps.empty() ? Figures{} : medianOf(lmdbReps);
    const double floor = median(floorReps);
    const double floorCopy = median(floorCopyReps);
    const double floorChained = median(floorChainedReps);
    std::printf("\n%u entries (%llu lookups, %llu updates, %u iteration passes)\n", n,
                static_cast<unsigned long long>(run.lookups), static_cast<unsigned long long>(run.updates), run.passes);
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
    std::printf("  a bare chained table on our chains, plus the copy: %.1f ns; ours / that = %.2fx\n", floorChained,
                ours.lookup / floorChained);
    const double bareUpdate = median(bareUpdateReps);
    const double bareNotify = median(bareNotifyReps);
    std::printf("  the bare chained table's update: %.1f ns; with a notification (append, tombstone): %.1f ns; "
                "ours / that = %.2fx\n", bareUpdate, bareNotify, ours.update / bareNotify);
    const double bareIterate = median(bareIterateReps);
    std::printf("  the bare chained table's iteration in our order, copying each value: %.1f ns per entry; "
                "ours / that = %.2fx\n", bareIterate, ours.iterate / bareIterate);
    std::printf("  reader scaling while the writer updates (millions per second; ours / boost):\n");
    auto mps = [](double v) { return v < 0 ? -1.0 : v / 1e6; };
    print("lookups, 1 reader", mps(ours.lookups1), {{"boost", mps(boost.lookups1)}}, true);
    print("lookups, 2 readers", mps(ours.lookups2), {{"boost", mps(boost.lookups2)}}, true);
    print("writes, 1 reader", mps(ours.writes1), {{"boost", mps(boost.writes1)}}, true);
    print("writes, 2 readers", mps(ours.writes2), {{"boost", mps(boost.writes2)}}, true);
  }
  return 0;
}
