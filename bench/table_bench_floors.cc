// table_bench's floors: what a lookup, an update and an iteration cannot
// beat on the same working set. Two dependent random loads (alone and with
// the value copied), and a bare chained table on our chains.
#include <bit>
#include <cstring>
#include <optional>

#include "mroute/table/engine/brume_reader.h"
#include "table_bench_peer.h"

namespace TableBench {
namespace {

// Bucket words (8 bytes) index slots (184 bytes), as in our files: each
// lookup is a random load of a bucket word followed by a load of the slot it
// names, dependent on it.
// withCopy: the slot's whole 168-byte value is copied out too, as every
// lookup that returns a value must.
class Floor final : public Peer {
 public:
  Floor(const Run& run, bool withCopy)
      : Peer(withCopy ? "floor+copy" : "floor", run, kLookup), withCopy_(withCopy) {}

  bool insertAll() override {
    while (buckets_ < run_.n) buckets_ *= 2;
    bucketWords_.resize(buckets_);
    slots_.resize(size_t{run_.n} * 184 + 64);
    std::mt19937_64 rng(7);
    std::vector<uint32_t> perm(run_.n);
    for (uint32_t i = 0; i < run_.n; ++i) perm[i] = i;
    std::shuffle(perm.begin(), perm.end(), rng);
    for (uint32_t b = 0; b < buckets_; ++b) bucketWords_[b] = perm[b % run_.n];
    for (uint32_t i = 0; i < run_.n; ++i) std::memcpy(slots_.data() + size_t{i} * 184 + 16, &i, 4);
    return true;
  }
  bool startReading() override {
    uint64_t sum = 0;
    for (uint32_t b = 0; b < buckets_; ++b) sum += bucketWords_[b];
    sum_ += sum;
    return true;
  }
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    const bool withCopy = withCopy_;
    const uint64_t* bucketWords = bucketWords_.data();
    const unsigned char* slots = slots_.data();
    const uint32_t mask = buckets_ - 1;
    uint64_t sum = 0;
    Value out;
    for (const uint32_t* i = begin; i != end; ++i) {
      const uint64_t h = makeKey(*i).hash();
      const uint64_t slot = bucketWords[h & mask];
      if (withCopy) {
        std::memcpy(&out, slots + slot * 184 + 16, sizeof out);
        keepCopy(out);
        sum += out.payload[3] + out.key.w[0];
      } else {
        uint32_t word;
        std::memcpy(&word, slots + slot * 184 + 16, 4);
        sum += word;
      }
    }
    sum_ += sum;
  }

 private:
  const bool withCopy_;
  uint32_t buckets_ = 1;
  std::vector<uint64_t> bucketWords_;
  std::vector<unsigned char> slots_;
};

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
      for (uint32_t slot = static_cast<uint32_t>(bucketWords_[b]); slot != kEnd;
           std::memcpy(&slot, slotAt(slot), 4)) {
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

// The bare chained table's lookup (then the copy) and its iteration: whole
// passes, each value copied out and handed to the same callback as ours.
class BareChained final : public Peer {
 public:
  explicit BareChained(const Run& run) : Peer("bare", run, kLookup | kIterate) {}

  bool insertAll() override {
    t_.emplace(run_.n);
    return true;
  }
  bool startReading() override {
    uint64_t found = 0;
    for (uint32_t i = 0; i < run_.n; ++i) found += t_->find(makeKey(i)) != BareChains::kEnd;
    sum_ += found;
    return true;
  }
  void lookups(const uint32_t* begin, const uint32_t* end) override {
    BareChains& t = *t_;
    uint64_t sum = 0;
    Value out;
    for (const uint32_t* i = begin; i != end; ++i) {
      const uint32_t slot = t.find(makeKey(*i));
      if (slot == BareChains::kEnd) continue;
      std::memcpy(&out, t.valueAt(slot), sizeof out);
      keepCopy(out);
      sum += out.payload[3] + out.key.w[0];
    }
    sum_ += sum;
  }
  uint64_t iteratePass() override {
    uint64_t sum = 0;
    const uint64_t count = t_->forEach([&](const unsigned char* value) {
      Value out;
      std::memcpy(&out, value, sizeof out);
      keepCopy(out);
      sum += out.payload[0];
    });
    sum_ += sum;
    return count;
  }

 private:
  std::optional<BareChains> t_;
};

// The bare chained table's in-place update: find, store the new value; with
// notify, also the least a queue of changes asks for: append an entry naming
// the slot and turn the slot's previous entry into a tombstone (its position
// kept per slot), with no compaction (the queue is long enough for the run,
// replays included).
class BareUpdate final : public Peer {
  struct Entry {
    uint64_t sequence;
    uint32_t slot;
    uint32_t live;
  };

 public:
  BareUpdate(const Run& run, bool notify)
      : Peer(notify ? "bare+notify" : "bare update", run, kUpdate), notify_(notify) {}
  ~BareUpdate() override {
    if (!t_) return;
    uint64_t sum = tail_;
    for (uint32_t i = 0; i < run_.n; ++i) sum += t_->valueAt(i)[60];
    sum_ += sum;
  }

  bool insertAll() override {
    t_.emplace(run_.n);
    queue_.resize(size_t{run_.n} + 2 * run_.updates);  // every pass but the first is also replayed
    positions_.resize(run_.n);
    for (uint32_t i = 0; i < run_.n; ++i) {
      queue_[i] = {i, i, 1};
      positions_[i] = i;
    }
    tail_ = run_.n;
    return true;
  }
  void updates(const uint32_t* begin, const uint32_t* end) override {
    BareChains& t = *t_;
    const bool notify = notify_;
    Entry* queue = queue_.data();
    uint32_t* positions = positions_.data();
    uint64_t tail = tail_;
    uint64_t version = version_;
    for (const uint32_t* i = begin; i != end; ++i) {
      const Value v = makeValue(*i, version++);
      const uint32_t slot = t.find(v.key);
      if (slot == BareChains::kEnd) continue;
      std::memcpy(t.valueAt(slot), &v, sizeof v);
      if (notify) {
        queue[positions[slot]].live = 0;
        queue[tail] = {tail, slot, 1};
        positions[slot] = static_cast<uint32_t>(tail++);
      }
    }
    tail_ = tail;
    version_ = version;
  }

 private:
  const bool notify_;
  std::optional<BareChains> t_;
  std::vector<Entry> queue_;
  std::vector<uint32_t> positions_;
  uint64_t tail_ = 0;
};

}  // namespace

std::unique_ptr<Peer> makeFloor(const Run& run, bool withCopy) {
  return std::make_unique<Floor>(run, withCopy);
}
std::unique_ptr<Peer> makeBareChained(const Run& run) { return std::make_unique<BareChained>(run); }
std::unique_ptr<Peer> makeBareUpdate(const Run& run, bool notify) {
  return std::make_unique<BareUpdate>(run, notify);
}

}  // namespace TableBench
