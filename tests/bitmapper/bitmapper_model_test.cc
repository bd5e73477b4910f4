// Long random request sequences, checked after every step against a small model of the allocator.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "bitmapper/bitmapper_test_util.h"
#include "mroute/table/shm/brume_hash.h"

namespace {

using namespace BitMapper;
using BitMapperTest::key;
using Row = std::tuple<BitMapperKey, uint32_t, bool>;  // key, refCount, isNewMapping
constexpr uint16_t kWaits = 65534;

// The rules written down once more, on plain containers.
struct Model {
  Model(uint32_t size, bool refCounting) : size(size), refCounting(refCounting) { fill(0); }
  uint32_t size, lo = 0, next = 0;  // next: the pool's next position
  bool refCounting;
  std::deque<std::pair<uint32_t, uint16_t>> pool;  // (position, index)
  std::map<BitMapperKey, uint16_t> status;
  std::map<uint16_t, Row> index;
  std::map<BitMapperKey, uint32_t> wait;

  void fill(uint32_t min) {
    pool.clear();
    for (lo = min; min < lo + size; ++min) pool.push_back({next++, uint16_t(min)});
  }
  // An index for k, or kWaits when the pool is dry.
  uint16_t take(const BitMapperKey& k) {
    const auto s = status.find(k);
    if (s != status.end() && s->second != kWaits) {
      Row& r = index[s->second];
      std::get<1>(r)++;
      std::get<2>(r) = false;
      return s->second;
    }
    if (pool.empty()) return status[k] = kWaits;
    const uint16_t i = pool.front().second;
    pool.pop_front();
    index[i] = Row{k, wait.count(k) ? wait[k] : 1, s == status.end()};
    return status[k] = i;
  }
  void alloc(const BitMapperKey& k) {
    if (take(k) == kWaits) wait[k]++;
  }
  void dealloc(const BitMapperKey& k) {
    const uint16_t i = status.at(k);
    if (i == kWaits) {
      if (--wait[k] == 0) wait.erase(k), status.erase(k);
      return;
    }
    if (refCounting && std::get<1>(index[i]) > 1) {
      std::get<1>(index[i])--;
      return;
    }
    status.erase(k);
    index.erase(i);
    pool.push_back({next++, i});
    // Waiting keys in the table's order: ascending (reversed hash, key).
    std::vector<BitMapperKey> order;
    for (const auto& [w, n] : wait) order.push_back(w);
    std::sort(order.begin(), order.end(), [](const BitMapperKey& a, const BitMapperKey& b) {
      return std::pair(Brume::bitReverse(uint32_t(a.hash())), a) < std::pair(Brume::bitReverse(uint32_t(b.hash())), b);
    });
    for (const BitMapperKey& w : order) {
      if (take(w) == kWaits) return;
      wait.erase(w);
    }
  }
};

class BitMapperModelTest : public testing::TestWithParam<std::tuple<uint32_t, bool>> {
 protected:
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
    } else if (roll < 98 && !m.status.empty()) {
      const BitMapperKey k = std::next(m.status.begin(), rng() % m.status.size())->first;
      m.dealloc(k);
      BitMapperTest::dealloc(*config, k);
    } else if (roll >= 98 && m.pool.size() == size) {  // the range moves only while all is free
      const uint32_t min = rng() % 3 == 0 ? 65534 - size : rng() % 1000;
      if (min != m.lo) m.fill(min);  // the same start again changes nothing
      config->bitMapRangeIs(min);
    }
    SCOPED_TRACE(testing::Message() << "step " << step);
    std::map<BitMapperKey, uint16_t> status;
    for (const auto& [k, i] : sm->status()->bitIndex()) status[k] = i.value();
    EXPECT_EQ(status, m.status);
    std::map<uint16_t, Row> index;
    for (const BitIndexMap& r : brume->bitIndexMap()) index[r.key().value()] = {r.bitMapperKey(), r.refCount(), r.isNewMapping()};
    EXPECT_EQ(index, m.index);
    std::map<BitMapperKey, uint32_t> wait;
    for (const WaitlistMap& w : brume->waitlistMap()) wait[w.key()] = w.refCount();
    EXPECT_EQ(wait, m.wait);
    std::deque<std::pair<uint32_t, uint16_t>> pool;
    for (const auto& e : sm->bitIndexFreePool()) pool.push_back({e.position(), e.value().value()});
    EXPECT_EQ(pool, m.pool);
    const uint32_t head = m.pool.empty() ? m.next : m.pool.front().first;
    EXPECT_EQ(sm->bitIndexFreePoolMetadata(), BitIndexFreePoolMetadata(head, m.next));
    EXPECT_EQ(sm->maxBitIndex(), m.lo + size);
  }
}

INSTANTIATE_TEST_SUITE_P(PoolsAndCounting, BitMapperModelTest,
                         testing::Combine(testing::Values(1u, 4u, 13u), testing::Bool()));

}  // namespace
