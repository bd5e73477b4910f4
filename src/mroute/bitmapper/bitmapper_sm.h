// BitMapper::BitMapperSm: the bit-index allocator.
//
// It reacts to the request counts of a Config and keeps three things in step:
// its free pool (a first-in first-out queue of indexes), the private map
// key -> index of Status, and the shared tables bitIndexMap and waitlistMap
// of BrumeStatus, which every other agent reads.
//
//   Kiv::Ptr<Config> config = configFactory(1024, true);
//   brumeStatus->mountTables(loop, path, Brume::BrumeType::writer);
//   Kiv::Ptr<BitMapperSm> sm = bitMapperSmFactory(config, statusFactory(), brumeStatus);
//   config->allocRequestKeyIs(key);
//   config->allocRequestCountInc(1);   // brumeStatus->bitIndexMap() now maps an index to key
//
// Indexes come from [bitMapMinIndex, bitMapMinIndex + bitMapSize); a freed
// index goes to the tail of the pool, so the least recently freed index is
// reused first. Repeated requests for a key share its index by reference
// count. When the pool is empty a request waits in waitlistMap; the next
// freed index goes to the first waiting key in the table's order, with all
// its waiting references. Rows of bitIndexMap that survive in shared memory
// from an earlier run stay allocated across a restart.
//
// A requester's programming error (a request for the default key, freeing a
// key that holds nothing, moving the range while indexes are in use) is a
// fatal assertion naming the violated expression. Traces go to
// "Mroute::BitMapper": 9 entry lines, 8 sizes.
//
// REQUIRES: both BrumeStatus tables mounted as their writer.
// Thread-safety: the owning agent's event loop; the allocator is the only
// writer of its Status and of both tables.
#pragma once

#include <cstdint>

#include "mroute/bitmapper/bit_index.h"
#include "mroute/bitmapper/brume_status.h"
#include "mroute/bitmapper/config.h"
#include "mroute/bitmapper/free_pool.h"
#include "mroute/bitmapper/link_queue.h"
#include "mroute/bitmapper/records.h"
#include "mroute/bitmapper/status.h"
#include "mroute/entity/kiv/ptr.h"

namespace BitMapper {

class BitMapperSm : public Kiv::PtrInterface, public Config::NotifieeConst {
 public:
  using FreePool = LinkQueue<BitIndex>;

  // Attaches to config, then runs handleInitialized().
  BitMapperSm(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
              const Kiv::Ptr<BrumeStatus>& brumeStatus);
  ~BitMapperSm() override;

  Kiv::Ptr<const Config> config() const { return notifier(); }
  const Kiv::Ptr<Status>& status() const { return status_; }
  const Kiv::Ptr<BrumeStatus>& brumeStatus() const { return brumeStatus_; }

  uint32_t minBitIndex() const { return minBitIndex_; }
  // One past the highest index of the range.
  uint32_t maxBitIndex() const { return maxBitIndex_; }
  bool initialized() const { return initialized_; }

  const FreePool& bitIndexFreePool() const { return bitIndexFreePool_; }
  uint32_t bitIndexFreePools() const { return bitIndexFreePool_.size(); }
  // The bound declared for the pool: every index free, twice.
  uint32_t bitIndexFreePoolLimit() const { return 2 * config()->bitMapSize(); }
  const BitIndexFreePoolMetadata& bitIndexFreePoolMetadata() const { return bitIndexFreePoolMetadata_; }

  // Fills the pool with the indexes that no surviving row holds and rebuilds
  // Status from the rows; does nothing once initialized.
  void handleInitialized();
  // One request for the key held by config at this moment.
  void handleAllocRequestCount();
  void handleDeallocRequestCount();
  // REQUIRES: every index free (asserted).
  void handleBitMapMinIndex();

  // One reference of `bitMapperKey`: its index, or BitIndex::invalid() when
  // the key has to wait.
  BitIndex doAllocBitIndex(const BitMapperKey& bitMapperKey);
  // Serves waiting keys while the pool lasts; false when it ran dry.
  bool reviewKeyWaitlist();

  void bitIndexFreePoolEnq(BitIndex bitIndex);
  // The head of the pool; null when it is empty.
  BitIndex bitIndexFreePoolDeq();
  void bitIndexFreePoolDelAll();

  void minBitIndexIs(uint32_t v) { minBitIndex_ = v; }
  void maxBitIndexIs(uint32_t v) { maxBitIndex_ = v; }
  void initializedIs(bool v) { initialized_ = v; }

  void onAllocRequestCount() override { handleAllocRequestCount(); }
  void onDeallocRequestCount() override { handleDeallocRequestCount(); }
  void onBitMapMinIndex() override { handleBitMapMinIndex(); }

 private:
  // doAllocBitIndex() for a key whose Status entry (cur) is known, and, when
  // waiting is not null, its wait-list row too.
  BitIndex allocIndex(const BitMapperKey& bitMapperKey, BitIndex cur, const WaitlistMap* waiting);
  void freePoolMetadataUpdate();

  Kiv::Ptr<Status> status_;
  Kiv::Ptr<BrumeStatus> brumeStatus_;
  uint32_t minBitIndex_ = 0;
  uint32_t maxBitIndex_ = 0;
  FreePool bitIndexFreePool_;
  BitIndexFreePoolMetadata bitIndexFreePoolMetadata_;
  bool initialized_ = false;
};

Kiv::Ptr<BitMapperSm> bitMapperSmFactory(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
                                         const Kiv::Ptr<BrumeStatus>& brumeStatus);
Kiv::Ptr<BitMapperSm> BitMapperSmIs(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
                                    const Kiv::Ptr<BrumeStatus>& brumeStatus);

}  // namespace BitMapper
