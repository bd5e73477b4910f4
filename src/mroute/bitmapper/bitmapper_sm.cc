#include "mroute/bitmapper/bitmapper_sm.h"

#include <optional>

#include "mroute/bitmapper/internal/table_rows.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/trace.h"

namespace BitMapper {
namespace {

const Mroute::Trace::Facility& fac() {
  static const Mroute::Trace::Facility& f = Mroute::Trace::facility("Mroute::BitMapper");
  return f;
}

}  // namespace

BitMapperSm::BitMapperSm(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
                         const Kiv::Ptr<BrumeStatus>& brumeStatus)
    : status_(status), brumeStatus_(brumeStatus) {
  notifierIs(config);
  handleInitialized();
}

BitMapperSm::~BitMapperSm() { notifierIs(nullptr); }

void BitMapperSm::handleInitialized() {
  MROUTE_TRACE(fac(), 9, "handleInitialized" << "(): Initializing ");
  if (initialized_) return;
  MROUTE_ASSERT(config()->bitMapSize());
  // A pool that is already filled keeps its range and its order.
  if (bitIndexFreePool_.empty()) {
    minBitIndexIs(config()->bitMapMinIndex());
    maxBitIndexIs(config()->bitMapMinIndex() + config()->bitMapSize());
    // Indexes whose rows survived an earlier run stay with their keys.
    for (uint32_t i = minBitIndex_; i < maxBitIndex_; ++i) {
      if (brumeStatus_->bitIndexMap(BitIndex(i)) == BitIndexMap()) bitIndexFreePoolEnq(BitIndex(i));
    }
  }
  for (std::optional<BitIndexMap> row = internal::firstRow(brumeStatus_->bitIndexMap()); row;
       row = internal::rowAfter(brumeStatus_->bitIndexMap(), row->key())) {
    status_->bitIndexIs(row->bitMapperKey(), row->key());
  }
  initializedIs(true);
}

BitIndex BitMapperSm::doAllocBitIndex(const BitMapperKey& bitMapperKey) {
  return allocIndex(bitMapperKey, status_->bitIndex(bitMapperKey), nullptr);
}

BitIndex BitMapperSm::allocIndex(const BitMapperKey& bitMapperKey, BitIndex cur, const WaitlistMap* waiting) {
  MROUTE_ASSERT(bitMapperKey != BitMapperKey());
  if (cur < BitIndex(maxBitIndex())) {
    // Another reference of the key's index, counted whether or not
    // deallocations count them.
    BitIndexMap bitIndexMap = brumeStatus_->bitIndexMap(cur);
    MROUTE_ASSERT(bitIndexMap != BitIndexMap());
    MROUTE_ASSERT(bitIndexMap.bitMapperKey() == bitMapperKey);
    bitIndexMap.refCountIs(bitIndexMap.refCount() + 1);
    bitIndexMap.isNewMappingIs(false);
    brumeStatus_->bitIndexMapIs(bitIndexMap);
    return cur;
  }
  // From here on cur is null or invalid, so each write to Status below is a
  // change: newBitIndex() spares bitIndexIs()'s look for an equal value.
  if (bitIndexFreePool_.empty()) {
    if (cur != BitIndex::invalid()) status_->newBitIndex(bitMapperKey, BitIndex::invalid());
    return BitIndex::invalid();
  }
  const BitIndex bitIndex = bitIndexFreePoolDeq();
  BitIndexMap bitIndexMap(bitIndex, bitMapperKey, 0, cur != BitIndex::invalid());
  // The waiting requests become the index's references; the request in hand
  // counts only when nothing waited. A key may have a row without being
  // marked in Status: rows survive a restart, marks do not.
  std::optional<WaitlistMap> wm;
  if (waiting != nullptr) {
    wm = *waiting;
  } else if (!brumeStatus_->waitlistMap().empty()) {
    wm = brumeStatus_->waitlistMap().find(bitMapperKey);
  }
  bitIndexMap.refCountIs(bitIndexMap.refCount() + (wm ? wm->refCount() : 1));
  brumeStatus_->bitIndexMapIs(bitIndexMap);
  status_->newBitIndex(bitMapperKey, bitIndex);
  return bitIndex;
}

void BitMapperSm::handleAllocRequestCount() {
  const BitMapperKey key = config()->allocRequestKey();
  const BitIndex bitIndex = doAllocBitIndex(key);
  MROUTE_TRACE(fac(), 9, "handleAllocRequestCount" << "Allocate index " << bitIndex);
  if (bitIndex != BitIndex::invalid()) return;
  const std::optional<WaitlistMap> wm = brumeStatus_->waitlistMap().find(key);
  brumeStatus_->waitlistMapIs(WaitlistMap(key, wm ? wm->refCount() + 1 : 1));
}

void BitMapperSm::handleDeallocRequestCount() {
  const BitMapperKey key = config()->deallocRequestKey();
  MROUTE_ASSERT(key != BitMapperKey());
  // One look-up serves the check and the removal.
  const auto found = status_->bitIndex().find(key);
  const BitIndex bitIndex = found != status_->bitIndex().end() ? found->second : BitIndex::null();
  MROUTE_ASSERT(bitIndex != BitIndex::null());
  if (bitIndex == BitIndex::invalid()) {
    // One waiting request fewer; the pool is not touched.
    WaitlistMap wm = brumeStatus_->waitlistMap(key);
    MROUTE_ASSERT(wm != WaitlistMap());
    const uint32_t count = wm.refCount();
    wm.refCountIs(count - 1);
    if (count != 1) {
      brumeStatus_->waitlistMapIs(wm);
    } else {
      status_->bitIndexDel(found);
      brumeStatus_->waitlistMapDel(key);
    }
    return;
  }
  BitIndexMap bitIndexMap = brumeStatus_->bitIndexMap(bitIndex);
  MROUTE_ASSERT(bitIndexMap != BitIndexMap());
  if (config()->enableRefCount() && bitIndexMap.refCount() > 1) {
    bitIndexMap.refCountIs(bitIndexMap.refCount() - 1);
    brumeStatus_->bitIndexMapIs(bitIndexMap);
    return;
  }
  status_->bitIndexDel(found);
  brumeStatus_->bitIndexMapDel(bitIndex);
  bitIndexFreePoolEnq(bitIndex);
  reviewKeyWaitlist();
}

bool BitMapperSm::reviewKeyWaitlist() {
  BrumeStatus::WaitlistMapTable& waitlist = brumeStatus_->waitlistMap();
  // The common case, nothing waits, without a walk over empty buckets.
  if (waitlist.empty()) return true;
  std::optional<WaitlistMap> row = internal::firstRow(waitlist);
  while (row) {
    const BitMapperKey key = row->key();
    const BitIndex bitIndex = status_->bitIndex(key);
    MROUTE_ASSERT(bitIndex >= BitIndex( maxBitIndex() ));
    // The row in hand is the key's wait-list row: no need to find it again.
    if (allocIndex(key, bitIndex, &*row) == BitIndex::invalid()) return false;
    if (bitIndexFreePool_.empty()) {
      // Every further row would get the invalid index it holds already, a
      // change of nothing: the walk ends here (usually one index was freed).
      brumeStatus_->waitlistMapDel(key);
      return waitlist.empty();
    }
    // The next row is taken while the key is still there to find it by.
    row = internal::rowAfter(waitlist, key);
    brumeStatus_->waitlistMapDel(key);
  }
  return true;
}

void BitMapperSm::handleBitMapMinIndex() {
  MROUTE_TRACE(fac(), 9, "handleBitMapMinIndex" << "()");
  MROUTE_TRACE(fac(), 8, "handleBitMapMinIndex" << "(): FreePool size: " << bitIndexFreePools());
  MROUTE_ASSERT(bitIndexFreePools() == config()->bitMapSize());
  bitIndexFreePoolDelAll();
  minBitIndexIs(config()->bitMapMinIndex());
  maxBitIndexIs(config()->bitMapMinIndex() + config()->bitMapSize());
  for (uint32_t i = minBitIndex_; i < maxBitIndex_; ++i) bitIndexFreePoolEnq(BitIndex(i));
}

void BitMapperSm::bitIndexFreePoolEnq(BitIndex bitIndex) {
  bitIndexFreePool_.enq(bitIndex);
  freePoolMetadataUpdate();
}

BitIndex BitMapperSm::bitIndexFreePoolDeq() {
  if (bitIndexFreePool_.empty()) return BitIndex::null();
  const BitIndex bitIndex = bitIndexFreePool_.deq();
  freePoolMetadataUpdate();
  return bitIndex;
}

void BitMapperSm::bitIndexFreePoolDelAll() {
  bitIndexFreePool_.delAll();
  freePoolMetadataUpdate();
}

void BitMapperSm::freePoolMetadataUpdate() {
  bitIndexFreePoolMetadata_ =
      BitIndexFreePoolMetadata(bitIndexFreePool_.headIndex(), bitIndexFreePool_.nextIndex());
}

Kiv::Ptr<BitMapperSm> bitMapperSmFactory(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
                                         const Kiv::Ptr<BrumeStatus>& brumeStatus) {
  return new BitMapperSm(config, status, brumeStatus);
}

Kiv::Ptr<BitMapperSm> BitMapperSmIs(const Kiv::Ptr<const Config>& config, const Kiv::Ptr<Status>& status,
                                    const Kiv::Ptr<BrumeStatus>& brumeStatus) {
  return bitMapperSmFactory(config, status, brumeStatus);
}

}  // namespace BitMapper
