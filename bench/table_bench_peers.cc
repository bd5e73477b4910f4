// The peers a user would pick instead of ours: a private std::unordered_map
// (no sharing at all), a Boost.Interprocess unordered_map in shared memory
// under an interprocess_sharable_mutex (readers share, the writer excludes)
// and LMDB (one transaction per write, a renewed read transaction per
// lookup). Boost and LMDB are optional; without their library there is no
// such peer.
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <tuple>
#include <unordered_map>

#include "table_bench_peer.h"

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
namespace {

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

class StdMap final : public Peer {
 public:
  explicit StdMap(const Run& run) : Peer("std", run, kUpdate | kLookup | kIterate) {}

  bool insertAll() override {
    gStdBytes = 0;
    m_.reserve(run_.n);
    // Timed warm, as our files are (their pages are mapped in when they are
    // made): the nodes' heap pages are faulted in by a first fill, which the
    // allocator keeps for the second (see keepHeapPages()).
    for (uint32_t i = 0; i < run_.n; ++i) m_.emplace(makeKey(i), makeValue(i, 1));
    m_.clear();
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) m_.emplace(makeKey(i), makeValue(i, 1));
    shot_.insert = nsSince(t, run_.n);
    shot_.bytesPerEntry = static_cast<double>(gStdBytes) / run_.n;
    return true;
  }
  void updates(const uint32_t* begin, const uint32_t* end) override {
    auto& m = m_;
    uint64_t version = version_;
    for (const uint32_t* i = begin; i != end; ++i) m[makeKey(*i)] = makeValue(*i, version++);
    version_ = version;
  }
  bool startReading() override {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < run_.n; ++i) sum += m_.count(makeKey(i));
    sum_ += sum;
    return true;
  }
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    auto& m = m_;
    Value out;
    uint64_t sum = 0;
    for (const uint32_t* i = begin; i != end; ++i) {
      auto it = m.find(makeKey(*i));
      if (it != m.end()) {
        out = it->second;
        keepCopy(out);
        sum += out.payload[3];
      }
    }
    sum_ += sum;
  }
  uint64_t iteratePass() override {
    Value out;
    uint64_t sum = 0;
    for (const auto& [k, v] : m_) {
      out = v;
      keepCopy(out);
      sum += out.payload[0];
    }
    sum_ += sum;
    return m_.size();
  }
  void removeAll() override {
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) m_.erase(makeKey(i));
    shot_.remove = nsSince(t, run_.n);
  }

 private:
  std::unordered_map<Key, Value, KeyHash, std::equal_to<Key>, CountingAlloc<std::pair<const Key, Value>>> m_;
};

// ---- Boost.Interprocess map under a sharable mutex ---------------------------

#ifdef MROUTE_BENCH_HAVE_BOOST
namespace bip = boost::interprocess;

class BoostMap final : public Peer {
  using Segment = bip::managed_shared_memory;
  using Alloc = bip::allocator<std::pair<const Key, Value>, Segment::segment_manager>;
  using Map = boost::unordered_map<Key, Value, KeyHash, std::equal_to<Key>, Alloc>;
  using Mutex = bip::interprocess_sharable_mutex;

 public:
  explicit BoostMap(const Run& run)
      : Peer("boost", run, kUpdate | kLookup | kIterate),
        segName_("mroute-bench-boost-" + std::to_string(::getpid())) {
    bip::shared_memory_object::remove(segName_.c_str());
  }
  ~BoostMap() override {
    seg_.reset();
    bip::shared_memory_object::remove(segName_.c_str());
  }

  bool insertAll() override {
    auto& seg = seg_.emplace(bip::create_only, segName_.c_str(), size_t{run_.n} * 320 + (64u << 20));
    mutex_ = seg.construct<Mutex>("mutex")();
    m_ = seg.construct<Map>("map")(run_.n, KeyHash(), std::equal_to<Key>(), Alloc(seg.get_segment_manager()));
    Map* m = m_;
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) {
      bip::scoped_lock<Mutex> lock(*mutex_);
      m->emplace(makeKey(i), makeValue(i, 1));
    }
    shot_.insert = nsSince(t, run_.n);
    shot_.bytesPerEntry = static_cast<double>(seg.get_size() - seg.get_free_memory()) / run_.n;
    return true;
  }
  void updates(const uint32_t* begin, const uint32_t* end) override {
    Map* m = m_;
    Mutex* mutex = mutex_;
    uint64_t version = version_;
    for (const uint32_t* i = begin; i != end; ++i) {
      bip::scoped_lock<Mutex> lock(*mutex);
      auto it = m->find(makeKey(*i));
      if (it != m->end()) it->second = makeValue(*i, version++);
    }
    version_ = version;
  }
  bool startReading() override {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < run_.n; ++i) sum += m_->count(makeKey(i));
    sum_ += sum;
    return true;
  }
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    Map* m = m_;
    Mutex* mutex = mutex_;
    Value out;
    uint64_t sum = 0;
    for (const uint32_t* i = begin; i != end; ++i) {
      bip::sharable_lock<Mutex> lock(*mutex);
      auto it = m->find(makeKey(*i));
      if (it != m->end()) {
        out = it->second;
        keepCopy(out);
        sum += out.payload[3];
      }
    }
    sum_ += sum;
  }
  uint64_t iteratePass() override {
    Value out;
    uint64_t sum = 0;
    {
      bip::sharable_lock<Mutex> lock(*mutex_);
      for (const auto& kv : *m_) {
        out = kv.second;
        keepCopy(out);
        sum += out.payload[0];
      }
    }
    sum_ += sum;
    return m_->size();
  }
  void scaling() override {
    auto readerLoop = [&](ScalingShared& sh) -> uint64_t {
      Segment rseg(bip::open_only, segName_.c_str());
      auto* rmutex = rseg.find<Mutex>("mutex").first;
      Map* rm = rseg.find<Map>("map").first;
      if (rmutex == nullptr || rm == nullptr) return 0;
      Value o;
      uint64_t s = 0;
      const uint64_t n = readUntilStopped(sh, run_, [&](uint32_t i) {
        bip::sharable_lock<Mutex> lock(*rmutex);
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
      const uint32_t i = run_.updateOrder[k % run_.updates];
      bip::scoped_lock<Mutex> lock(*mutex_);
      auto it = m_->find(makeKey(i));
      if (it != m_->end()) it->second = makeValue(i, version_++);
    };
    std::tie(shot_.lookups1, shot_.writes1) = TableBench::scaling(1, readerLoop, writeOne);
    std::tie(shot_.lookups2, shot_.writes2) = TableBench::scaling(2, readerLoop, writeOne);
  }
  void removeAll() override {
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) {
      bip::scoped_lock<Mutex> lock(*mutex_);
      m_->erase(makeKey(i));
    }
    shot_.remove = nsSince(t, run_.n);
  }

 private:
  const std::string segName_;
  std::optional<Segment> seg_;
  Mutex* mutex_ = nullptr;
  Map* m_ = nullptr;
};
#endif

// ---- LMDB --------------------------------------------------------------------

#ifdef MROUTE_BENCH_HAVE_LMDB
class Lmdb final : public Peer {
 public:
  explicit Lmdb(const Run& run) : Peer("lmdb", run, kUpdate | kLookup | kIterate), dir_(benchDir("lmdb")) {}
  ~Lmdb() override {
    if (rtxn_ != nullptr) mdb_txn_abort(rtxn_);
    if (env_ != nullptr) mdb_env_close(env_);
    std::filesystem::remove_all(dir_);
  }

  bool insertAll() override {
    if (mdb_env_create(&env_) != 0 || mdb_env_set_mapsize(env_, size_t{run_.n} * 600 + (64u << 20)) != 0 ||
        mdb_env_open(env_, dir_.c_str(), MDB_NOSYNC | MDB_NOMETASYNC | MDB_WRITEMAP, 0640) != 0) {
      std::fprintf(stderr, "lmdb: cannot open\n");
      return false;
    }
    MDB_txn* txn = nullptr;
    mdb_txn_begin(env_, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, 0, &dbi_);
    mdb_txn_commit(txn);
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) put(i, 1);
    shot_.insert = nsSince(t, run_.n);
    MDB_envinfo info;
    MDB_stat st;
    if (mdb_env_info(env_, &info) == 0 && mdb_env_stat(env_, &st) == 0) {
      shot_.bytesPerEntry = static_cast<double>(info.me_last_pgno + 1) * st.ms_psize / run_.n;
    }
    return true;
  }
  void updates(const uint32_t* begin, const uint32_t* end) override {
    uint64_t version = version_;
    for (const uint32_t* i = begin; i != end; ++i) put(*i, version++);
    version_ = version;
  }
  bool startReading() override {
    mdb_txn_begin(env_, nullptr, MDB_RDONLY, &rtxn_);
    mdb_txn_reset(rtxn_);
    uint64_t sum = 0;
    mdb_txn_renew(rtxn_);
    for (uint32_t i = 0; i < run_.n; ++i) {
      Key k = makeKey(i);
      MDB_val mk{sizeof k, &k};
      MDB_val mv;
      sum += mdb_get(rtxn_, dbi_, &mk, &mv) == 0;
    }
    mdb_txn_reset(rtxn_);
    sum_ += sum;
    return true;
  }
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    MDB_txn* rtxn = rtxn_;
    const MDB_dbi dbi = dbi_;
    Value out;
    uint64_t sum = 0;
    for (const uint32_t* i = begin; i != end; ++i) {
      Key k = makeKey(*i);
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
    sum_ += sum;
  }
  uint64_t iteratePass() override {
    Value out;
    uint64_t sum = 0, count = 0;
    mdb_txn_renew(rtxn_);
    MDB_cursor* cur = nullptr;
    mdb_cursor_open(rtxn_, dbi_, &cur);
    MDB_val mk;
    MDB_val mv;
    for (int rc = mdb_cursor_get(cur, &mk, &mv, MDB_FIRST); rc == 0;
         rc = mdb_cursor_get(cur, &mk, &mv, MDB_NEXT)) {
      std::memcpy(&out, mv.mv_data, sizeof out);
      keepCopy(out);
      sum += out.payload[0];
      ++count;
    }
    mdb_cursor_close(cur);
    mdb_txn_reset(rtxn_);
    sum_ += sum;
    return count;
  }
  void removeAll() override {
    const auto t = Clock::now();
    for (uint32_t i = 0; i < run_.n; ++i) {
      Key k = makeKey(i);
      MDB_val mk{sizeof k, &k};
      MDB_txn* txn = nullptr;
      mdb_txn_begin(env_, nullptr, 0, &txn);
      mdb_del(txn, dbi_, &mk, nullptr);
      mdb_txn_commit(txn);
    }
    shot_.remove = nsSince(t, run_.n);
  }

 private:
  // One transaction per write.
  void put(uint32_t i, uint64_t version) {
    Key k = makeKey(i);
    Value v = makeValue(i, version);
    MDB_val mk{sizeof k, &k};
    MDB_val mv{sizeof v, &v};
    MDB_txn* txn = nullptr;
    mdb_txn_begin(env_, nullptr, 0, &txn);
    mdb_put(txn, dbi_, &mk, &mv, 0);
    mdb_txn_commit(txn);
  }

  const std::string dir_;
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_txn* rtxn_ = nullptr;  // read-only, renewed for each lookup and pass
};
#endif

}  // namespace

std::unique_ptr<Peer> makeStd(const Run& run) { return std::make_unique<StdMap>(run); }

#ifdef MROUTE_BENCH_HAVE_BOOST
std::unique_ptr<Peer> makeBoost(const Run& run) { return std::make_unique<BoostMap>(run); }
#else
std::unique_ptr<Peer> makeBoost(const Run&) { return nullptr; }
#endif
#ifdef MROUTE_BENCH_HAVE_LMDB
std::unique_ptr<Peer> makeLmdb(const Run& run) { return std::make_unique<Lmdb>(run); }
#else
std::unique_ptr<Peer> makeLmdb(const Run&) { return nullptr; }
#endif

}  // namespace TableBench
