// Best-route selection across the table sets of a VRF and the merged walk:
// strict priority, ties to the first in map order, priority 0 never wins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mfib_test_util.h"
#include "mroute/mfibdir/merged_route_iterator.h"
#include "mroute/mfibdir/mfib_entity_manager.h"
#include "mroute/runtime/trace.h"
#include "mroute/table/engine/internal/slot_file.h"

namespace {

using namespace MfibTest;
using namespace Brume::Multicast::Fib;

class SelectionTest : public testing::Test {
 protected:
  Testing::ShmRootScope root{"selection"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<Status> low = writerStatus(loop, "red", "low");
  Kiv::Ptr<Status> high = writerStatus(loop, "red", "high");
  Kiv::Ptr<Status> zero = writerStatus(loop, "red", "zero");
  Kiv::Ptr<MfibBrumeColl> coll = MfibBrumeCollIs("red");
  const IpGenRouteKey k = key("10.0.0.1/32", "232.0.0.1/32");

  void SetUp() override {
    coll->brumePtrIs(1, low);
    coll->brumePtrIs(2, high);
    coll->brumePtrIs(3, zero);
  }
};

TEST_F(SelectionTest, StrictlyHighestPriorityWinsTiesStayWithTheFirstAndZeroNeverWins) {
  zero->routeIs(route(k, 0));  // alone, and still no winner
  EXPECT_EQ(coll->brumeKey(k), 0u);
  EXPECT_EQ(coll->mfibBrume(k), nullptr);
  EXPECT_EQ(coll->route(k), Route());
  low->routeIs(route(k, 1));
  EXPECT_EQ(coll->nextBestBrume(1, k), nullptr);
  high->routeIs(route(k, 2, 7));
  EXPECT_EQ(coll->brumeKey(k), 2u);
  EXPECT_EQ(coll->mfibBrume(k), high);
  EXPECT_EQ(coll->route(k), route(k, 2, 7));
  EXPECT_EQ(coll->nextBestBrume(2, k), low);
  EXPECT_EQ(coll->nextBestBrume(1, k), high);
  // A tie goes to the first in map order, and a change of the other at the
  // same priority does not displace it.
  low->routeIs(route(k, 2));
  const uint32_t first = coll->brumePtr().begin()->first != 3 ? coll->brumePtr().begin()->first
                                                               : std::next(coll->brumePtr().begin())->first;
  EXPECT_EQ(coll->brumeKey(k), first);
  (first == 1 ? high : low)->routeIs(route(k, 2, 5));
  EXPECT_EQ(coll->brumeKey(k), first);
  // The winner withdraws: the next best takes over; an unmounted table set
  // has no routes and the others still answer.
  (first == 1 ? low : high)->routeDel(k);
  EXPECT_EQ(coll->brumeKey(k), 3 - first);
  low->routeIs(route(k, 1));
  high->routeIs(route(k, 2));
  high->unmountTables();
  EXPECT_EQ(coll->brumeKey(k), 1u);
}

TEST_F(SelectionTest, MergedWalkVisitsEachKeyOnceOnItsWinner) {
  const IpGenRouteKey a = key("10.0.0.9/32", "232.0.0.1/32");
  const IpGenRouteKey b = key("10.0.0.1/32", "232.0.0.2/32");
  const IpGenRouteKey onlyZero = key("10.0.0.1/32", "232.0.0.3/32");
  const IpGenRouteKey c = key("10.0.0.1/32", "239.0.0.1/32");
  low->routeIs(route(b, 1));
  low->routeIs(route(k, 1));
  high->routeIs(route(k, 2));
  high->routeIs(route(c, 5));
  zero->routeIs(route(onlyZero, 0));
  zero->routeIs(route(a, 0));
  low->routeIs(route(a, 3));

  // key -> (winner, candidates): each key once, whatever the walk's order.
  std::map<IpGenRouteKey, std::pair<uint32_t, size_t>> seen;
  for (MfibBrumeCollRouteIteratorConst it(*coll); !it.atEnd(); it.updateToBestRouteIterators()) {
    EXPECT_TRUE(seen.emplace(it.route().key(), std::make_pair(it.brumeKey(), it.candidates().size())).second);
    EXPECT_EQ(it.brumeKey(), coll->brumeKey(it.route().key()));
    EXPECT_EQ(it.route(), coll->route(it.route().key()));
  }
  using Seen = std::map<IpGenRouteKey, std::pair<uint32_t, size_t>>;
  EXPECT_EQ(seen, (Seen{{k, {2, 2}}, {a, {1, 2}}, {b, {1, 1}}, {c, {2, 1}}}));
  EXPECT_EQ(coll->routes(), 4u);
  coll->brumePtrDelAll();
  EXPECT_EQ(coll->routes(), 0u);
}

// A forwarding agent's view: the table sets mounted read-only. A table whose
// chain is damaged under the winner's route counts as having no route (its
// front detaches and says why); the others still answer, for that key too.
TEST_F(SelectionTest, CorruptTableCountsAsNoRouteAndTheOthersStillAnswer) {
  // A key whose hash is odd: flipping the lowest hash bit in its slot sorts
  // the slot before the key and sends it to another bucket, which a lookup
  // of the key notices.
  IpGenRouteKey k = this->k;
  for (int n = 10; k.hash() % 2 == 0; ++n) k = key("10.0.0.1/32", ("232.0.1." + std::to_string(n) + "/32").c_str());
  const IpGenRouteKey other = key("10.0.0.2/32", "232.0.0.9/32");
  low->routeIs(route(k, 1));
  high->routeIs(route(k, 2));
  high->routeIs(route(other, 2));
  MfibEntityManager manager(loop);
  Kiv::Ptr<MfibBrumeColl> readers = MfibBrumeCollIs("red");
  uint32_t number = 0;
  for (const char* app : {"low", "high"}) {
    const std::string path = Status::mountPath(Orvet::AddressFamily(1), L3::VrfName("red"), app);
    readers->brumePtrIs(++number, manager.mountStatus(path, Brume::BrumeType::reader,
                                                      TableInfo::mfibMountInfo(Status::type().name)));
  }
  ASSERT_TRUE(Testing::runUntil(loop, [&] { return readers->brumeKey(k) == 2 && readers->brumeKey(other) == 2; }));

  // The slot of high's route for k claims another bucket's hash (rhash is
  // the bit-reversed hash).
  const auto* stored = high->route().front()->writer()->lookup(k);
  ASSERT_NE(stored, nullptr);
  auto* slot = reinterpret_cast<Brume::Slot*>(
      const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(stored)) - sizeof(Brume::Slot));
  slot->rhash ^= 0x80000000u;

  Mroute::Trace::CaptureSink sink("Mroute::Brume/1");
  EXPECT_EQ(readers->brumeKey(k), 1u);
  EXPECT_EQ(readers->route(k), route(k, 1));
  EXPECT_EQ(readers->nextBestBrume(1, k), nullptr);
  const std::vector<std::string> texts = sink.texts("Mroute::Brume");
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_THAT(texts[0], testing::HasSubstr("BrumeReader::doLookup() corrupt key detected"));
  EXPECT_THAT(texts[1], testing::HasSubstr("detaching from corrupt files"));
  // Detached, high has no routes at all until it attaches again.
  EXPECT_EQ(readers->brumeKey(other), 0u);
  EXPECT_EQ(readers->routes(), 1u);
}

}  // namespace
