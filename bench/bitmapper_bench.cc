// Bit-index allocator: allocation + deallocation pairs per second, through
// the requesters' Config (set the key, bump the count), with every write to
// the shared tables bitIndexMap and waitlistMap (each posted to its
// notification queue) and to Status included.
//
//   BM_AllocDealloc/<pool>/0   half the pool in use; each pair allocates a key
//                              a fresh index from the pool's head and frees it
//                              again to the tail
//   BM_AllocDealloc/<pool>/1   the pool used up and 16 keys waiting; each pair
//                              frees an index, which goes to the first waiting
//                              key (wait-list walk and row removal included),
//                              and requests the freed key again, which then
//                              waits
// Pools of 1,024 and 65,000 indexes. items_per_second is pairs per second.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <deque>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "mroute/bitmapper/bitmapper_sm.h"
#include "mroute/runtime/loop/event_loop.h"

namespace {

using namespace BitMapper;

constexpr uint32_t kWaiting = 16;

BitMapperKey key(uint32_t n) {
  return BitMapperKey(Orvet::IntfId::fromText("Ethernet" + std::to_string(n + 1)),
                      Orvet::IpGenAddr::fromText("10." + std::to_string(n / 65536) + "." +
                                                 std::to_string(n / 256 % 256) + "." + std::to_string(n % 256)));
}

void alloc(Config& config, const BitMapperKey& k) {
  config.allocRequestKeyIs(k);
  config.allocRequestCountInc(1);
}

void dealloc(Config& config, const BitMapperKey& k) {
  config.deallocRequestKeyIs(k);
  config.deallocRequestCountInc(1);
}

// One pair each. Out of line so that a profiler can count the pairs apart
// from the set-up (valgrind --toggle-collect=pair*).
[[gnu::noinline]] void pairFromThePool(Config& config, const BitMapperKey& spare) {
  alloc(config, spare);
  dealloc(config, spare);
}

// Frees the oldest holder's index, which goes to the first waiting key, and
// requests the freed key again, which then waits.
[[gnu::noinline]] void pairServingAWaitingKey(Config& config, const BrumeStatus& brume,
                                              std::deque<std::pair<BitMapperKey, BitIndex>>& holders) {
  const auto [k, freed] = holders.front();
  holders.pop_front();
  dealloc(config, k);
  holders.emplace_back(brume.bitIndexMap(freed).bitMapperKey(), freed);
  alloc(config, k);
}

// A private shared-memory root for one run.
class ShmRoot {
 public:
  ShmRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mroute-bitmapper-bench-XXXXXX").string();
    dir_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
    ::setenv("MROUTE_SHM_ROOT", dir_.c_str(), 1);
  }
  ~ShmRoot() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  std::string dir_;
};

void BM_AllocDealloc(benchmark::State& state) {
  const uint32_t pool = static_cast<uint32_t>(state.range(0));
  const bool waiting = state.range(1) != 0;
  ShmRoot root;
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> brume = BrumeStatusIs("bitmapper");
  brume->mountTables(loop, "bitmapper/bench", Brume::BrumeType::writer);
  Kiv::Ptr<Config> config = configFactory(pool, true);
  Kiv::Ptr<BitMapperSm> sm = bitMapperSmFactory(config, statusFactory(), brume);
  const uint32_t held = waiting ? pool : pool / 2;
  std::vector<BitMapperKey> keys;
  for (uint32_t n = 0; n < held + kWaiting + 1; ++n) keys.push_back(key(n));
  // The keys holding an index, oldest first, with the index each holds (the
  // loop keeps track itself rather than asking the allocator's Status).
  std::deque<std::pair<BitMapperKey, BitIndex>> holders;
  for (uint32_t n = 0; n < held; ++n) {
    alloc(*config, keys[n]);
    holders.emplace_back(keys[n], sm->status()->bitIndex(keys[n]));
  }
  if (waiting) {
    for (uint32_t n = held; n < held + kWaiting; ++n) alloc(*config, keys[n]);
  }
  const BitMapperKey& spare = keys[held + kWaiting];
  for (auto _ : state) {
    if (waiting) {
      pairServingAWaitingKey(*config, *brume, holders);
    } else {
      pairFromThePool(*config, spare);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  if (sm->bitIndexFreePools() != (waiting ? 0 : pool - held) ||
      brume->waitlistMap().size() != (waiting ? kWaiting : 0)) {
    state.SkipWithError("the pool did not come back to its starting state");
  }
}

BENCHMARK(BM_AllocDealloc)->ArgsProduct({{1024, 65000}, {0, 1}})->ArgNames({"pool", "waiting"});

}  // namespace

BENCHMARK_MAIN();
