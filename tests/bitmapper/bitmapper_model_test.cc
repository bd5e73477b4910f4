// Long random sequences of alloc, dealloc and range moves, with reference
// counting on and off, checked after every step against a small model of the
// allocator's rules: Status, both shared tables, the pool's order and its
// positions.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <vector>

#include "bitmapper/bitmapper_test_util.h"
#include "mroute/table/shm/brume_hash.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;

constexpr uint16_t kWaits = 65534;
constexpr uint16_t kNull = 65535;

struct Row {
  BitMapperKey key;
  uint32_t refCount;
  bool isNew;
  bool operator==(const Row&) const = default;
};

// The rules written down once more, on plain containers.
struct Model {
  Model(uint32_t size, bool refCounting) : size(size), refCounting(refCounting) { fill(0); }

  void fill(uint32_t min) {
    lo = min;
    hi = min + size;
    pool.clear();
    for (uint32_t i = lo; i < hi; ++i) push(uint16_t(i));
  }
  void push(uint16_t i) { pool.push_back({nextPosition++, i}); }
  uint32_t headPosition() const { return pool.empty() ? nextPosition : pool.front().first; }

  uint16_t take(const BitMapperKey& k) {
    const auto s = status.find(k);
    const uint16_t cur = s == status.end() ? kNull : s->second;
    if (cur < hi) {
      index[cur].refCount++;
      index[cur].isNew = false;
      return cur;
    }
    if (pool.empty()) {
      status[k] = kWaits;
      return kWaits;
    }
    const uint16_t i = pool.front().second;
    pool.pop_front();
    const auto w = wait.find(k);
    index[i] = Row{k, w == wait.end() ? 1 : w->second, cur != kWaits};
    status[k] = i;
    return i;
  }
  void alloc(const BitMapperKey& k) {
    if (take(k) == kWaits) wait[k]++;
  }
  void dealloc(const BitMapperKey& k) {
    const uint16_t i = status.at(k);
    if (i == kWaits) {
      if (--wait[k] == 0) {
        wait.erase(k);
        status.erase(k);
      }
      return;
    }
    if (refCounting && index[i].refCount > 1) {
      index[i].refCount--;
      return;
    }
    status.erase(k);
    index.erase(i);
    push(i);
    // Waiting keys in the table's order: ascending (reversed hash, key).
    std::vector<BitMapperKey> order;
    for (const auto& [w, n] : wait) order.push_back(w);
    std::sort(order.begin(), order.end(), [](const BitMapperKey& a, const BitMapperKey& b) {
      const uint32_t ra = Brume::bitReverse(uint32_t(a.hash())), rb = Brume::bitReverse(uint32_t(b.hash()));
      return ra != rb ? ra < rb : a < b;
    });
    for (const BitMapperKey& w : order) {
      if (take(w) == kWaits) return;
      wait.erase(w);
    }
  }

  uint32_t size;
  bool refCounting;
  uint32_t lo = 0, hi = 0;
  uint32_t nextPosition = 0;
  std::deque<std::pair<uint32_t, uint16_t>> pool;
  std::map<BitMapperKey, uint16_t> status;
  std::map<uint16_t, Row> index;
  std::map<BitMapperKey, uint32_t> wait;
};

class BitMapperModelTest : public testing::TestWithParam<std::tuple<uint32_t, bool>> {
 protected:
  void expectSame(const Model& m, const BitMapperSm& sm, int step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    std::map<BitMapperKey, uint16_t> status;
    for (const auto& [k, i] : sm.status()->bitIndex()) status[k] = i.value();
    EXPECT_EQ(status, m.status);
    std::map<uint16_t, Row> index;
    for (const BitIndexMap& r : brume->bitIndexMap()) {
      index[r.key().value()] = Row{r.bitMapperKey(), r.refCount(), r.isNewMapping()};
    }
    EXPECT_EQ(index, m.index);
    std::map<BitMapperKey, uint32_t> wait;
    for (const WaitlistMap& w : brume->waitlistMap()) wait[w.key()] = w.refCount();
    EXPECT_EQ(wait, m.wait);
    std::deque<std::pair<uint32_t, uint16_t>> pool;
    for (const auto& e : sm.bitIndexFreePool()) pool.push_back({e.position(), e.value().value()});
    EXPECT_EQ(pool, m.pool);
    EXPECT_EQ(sm.bitIndexFreePoolMetadata(), BitIndexFreePoolMetadata(m.headPosition(), m.nextPosition));
    EXPECT_EQ(sm.maxBitIndex(), m.hi);
  }

  Testing::ShmRootScope root{"bitmapper-model"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
};

TEST_P(BitMapperModelTest, RandomRequestsFollowTheRules) {
  const auto [size, refCounting] = GetParam();
  brume->mountTables(loop, BitMapperTest::kMount, Brume::BrumeType::writer);
  Kiv::Ptr<Config> config = configFactory(size, refCounting);
  Kiv::Ptr<BitMapperSm> sm = bitMapperSmFactory(config, statusFactory(), brume);
  Model m(size, refCounting);
  std::mt19937 rng(size * 2 + refCounting);
  const uint32_t keys = size + size / 2 + 2;  // enough to run the pool dry
  for (int step = 0; step < 10000 && !HasFailure(); ++step) {
    const uint32_t roll = rng() % 100;
    if (roll < 50) {
      const BitMapperKey k = key(rng() % keys);
      m.alloc(k);
      BitMapperTest::alloc(*config, k);
    } else if (roll < 98) {
      if (m.status.empty()) continue;
      auto it = m.status.begin();
      std::advance(it, rng() % m.status.size());
      const BitMapperKey k = it->first;
      m.dealloc(k);
      BitMapperTest::dealloc(*config, k);
    } else {
      if (m.pool.size() != size) continue;  // the range moves only while all is free
      const uint32_t min = rng() % 3 == 0 ? 65534 - size : rng() % 1000;
      if (min != m.lo) m.fill(min);  // the same start again changes nothing
      config->bitMapRangeIs(min);
    }
    expectSame(m, *sm, step);
  }
}

INSTANTIATE_TEST_SUITE_P(PoolsAndCounting, BitMapperModelTest,
                         testing::Combine(testing::Values(1u, 4u, 13u), testing::Bool()));

}  // namespace
