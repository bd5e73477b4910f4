// table_bench's peers in shared memory: a Boost.Interprocess unordered_map
// under an interprocess_sharable_mutex (readers share, the writer excludes)
// and LMDB (one transaction per write, a renewed read transaction per
// lookup). Each is optional; without its library it reports nothing.
#include <cstdio>
#include <cstring>
#include <functional>
#include <tuple>

#include "table_bench_shape.h"

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

namespace TableBench {

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
    t = Clock::now();
    uint64_t version = 2;
    for (uint32_t i : run.updateOrder) {
      bip::scoped_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      auto it = m->find(makeKey(i));
      if (it != m->end()) it->second = makeValue(i, version++);
    }
    f.update = nsSince(t, run.updates);
    Value out;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < run.n; ++i) sum += m->count(makeKey(i));
    t = Clock::now();
    for (uint32_t i : run.order) {
      bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      auto it = m->find(makeKey(i));
      if (it != m->end()) {
        out = it->second;
        keepCopy(out);
        sum += out.payload[3];
      }
    }
    f.lookup = nsSince(t, run.lookups);
    t = Clock::now();
    for (uint32_t pass = 0; pass < run.passes; ++pass) {
      bip::sharable_lock<bip::interprocess_sharable_mutex> lock(*mutex);
      for (const auto& kv : *m) {
        out = kv.second;
        keepCopy(out);
        sum += out.payload[0];
      }
    }
    f.iterate = nsSince(t, m->size() * run.passes);

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
          keepCopy(o);
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
    if (run.scaling) {
      std::tie(f.lookups1, f.writes1) = scaling(1, readerLoop, writeOne);
      std::tie(f.lookups2, f.writes2) = scaling(2, readerLoop, writeOne);
    }

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
  t = Clock::now();
  uint64_t version = 2;
  for (uint32_t i : run.updateOrder) put(i, version++);
  f.update = nsSince(t, run.updates);

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
      keepCopy(out);
      sum += out.payload[3];
    }
    mdb_txn_reset(rtxn);
  }
  f.lookup = nsSince(t, run.lookups);

  t = Clock::now();
  uint64_t count = 0;
  for (uint32_t pass = 0; pass < run.passes; ++pass) {
    mdb_txn_renew(rtxn);
    MDB_cursor* cur = nullptr;
    mdb_cursor_open(rtxn, dbi, &cur);
    MDB_val mk;
    MDB_val mv;
    for (int rc = mdb_cursor_get(cur, &mk, &mv, MDB_FIRST); rc == 0; rc = mdb_cursor_get(cur, &mk, &mv, MDB_NEXT)) {
      std::memcpy(&out, mv.mv_data, sizeof out);
      keepCopy(out);
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

#ifndef MROUTE_BENCH_HAVE_BOOST
Figures benchBoost(const Run&) { return {}; }
#endif
#ifndef MROUTE_BENCH_HAVE_LMDB
Figures benchLmdb(const Run&) { return {}; }
#endif

}  // namespace TableBench
