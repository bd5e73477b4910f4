#include "mroute/table/engine/internal/slot_recovery.h"

#include <vector>

#include "mroute/table/engine/internal/link.h"

namespace Brume {

namespace {

// Stores ref into a link of bucket b's chain and advances the head's version
// (W2), so that a reader walking the chain restarts.
void storeChainLink(Mem::VersionedRef& link, Mem::VersionedRef& head, uint32_t ref) {
  link.setRefAtomic(ref, kLinkIncrement);
  if (&link != &head) head.setRefAtomic(head.loadRelaxed().ref, kLinkIncrement);
}

}  // namespace

RecoveryReport recoverSlots(SlotWriterTable& slots, BucketWriterTable& buckets,
                            const std::function<uint32_t(const unsigned char* value)>& rhashOf) {
  RecoveryReport report;
  const uint32_t numSlots = slots.numSlots();
  const uint32_t numBuckets = buckets.numBuckets();
  const uint32_t bucketBits = bitReverse(numBuckets - 1);
  // The bits that pick a bucket under half the count: a split or join in
  // flight mixes only the chains of b and b + numBuckets / 2.
  const uint32_t halfBits = bitReverse(numBuckets / 2 - 1) & (numBuckets > 1 ? ~0u : 0u);
  std::vector<uint8_t> chained(numSlots, 0);
  uint32_t occupied = 0;
  Slot* const look = slots.lookaside();
  struct Store {
    Mem::VersionedRef* link;
    Mem::VersionedRef* head;
    uint32_t ref;
  };
  std::vector<Store> stores;
  uint32_t finish = kNoRef;
  // First pass: find what to repair, writing nothing. Anything a kill cannot
  // have left means damage: then nothing is touched and the validator
  // decides.
  for (uint32_t b = 0; b < numBuckets; ++b) {
    Mem::VersionedRef& head = buckets.bucket(b);
    Mem::VersionedRef* link = &head;
    uint32_t previous = 0;
    for (;;) {
      const uint32_t ref = link->loadRelaxed().ref;
      if (isEndMarker(ref)) break;
      if (ref >= numSlots || chained[ref] != 0) return report;
      Slot* s = slots.slot(ref);
      const bool here = ((s->rhash ^ bitReverse(b)) & bucketBits) == 0;
      if (!here) {
        // The tail that a split moves away or a join appends: cut it off.
        if (((s->rhash ^ bitReverse(b)) & halfBits) != 0 || (s->status & kOccupied) == 0) return report;
        break;
      }
      if ((s->status & kOccupied) == 0 || s->rhash < previous || rhashOf(s->value()) != s->rhash) return report;
      if ((s->status & kLookaside) != 0) {
        // An update in flight: the lookaside slot holds a whole value of the
        // same key (the new one, or the old one of a direct write).
        if (finish != kNoRef || look->rhash != s->rhash || rhashOf(look->value()) != s->rhash) return report;
        finish = ref;
      }
      chained[ref] = 1;
      ++occupied;
      previous = s->rhash;
      link = &s->next;
    }
    if (link->loadRelaxed().ref != endMarkerAfter(b, numBuckets)) {
      stores.push_back({link, &head, endMarkerAfter(b, numBuckets)});
    }
  }
  // Second pass: repair.
  for (const Store& st : stores) storeChainLink(*st.link, *st.head, st.ref);
  report.cutChains = static_cast<uint32_t>(stores.size());
  if (finish != kNoRef) {
    Slot* s = slots.slot(finish);
    copyToShared(s->value(), look->value(), slots.valueSize());
    slots.endBodyWrite(s);  // LOOKASIDE cleared, update count advanced
    report.finishedUpdates = 1;
  }
  // The slots the old free list holds (bounded: it may loop or run wild).
  SlotTable::Header* h = slots.header();
  std::vector<uint8_t> listed(numSlots, 0);
  uint32_t i = h->freeSlots;
  for (uint32_t steps = 0; i < numSlots && steps < numSlots && listed[i] == 0 && chained[i] == 0; ++steps) {
    listed[i] = 1;
    i = slots.slot(i)->next.loadRelaxed().ref;
  }
  // The new free list: every slot no chain reaches, in index order.
  uint32_t freeHead = kNoRef;
  for (uint32_t j = numSlots; j-- > 0;) {
    if (chained[j] != 0) continue;
    Slot* s = slots.slot(j);
    if (listed[j] == 0) ++report.leakedSlots;
    if ((s->status & (kOccupied | kLookaside)) != 0) storeRelease(s->status, s->status & ~(kOccupied | kLookaside));
    if (s->next.loadRelaxed().ref != freeHead) s->next.setRefAtomic(freeHead, kLinkIncrement);
    freeHead = j;
  }
  if (h->freeSlots != freeHead) {
    storeRelaxed(h->freeSlots, freeHead);
    report.countsFixed = true;
  }
  if (h->occupiedSlots != occupied) {
    storeRelaxed(h->occupiedSlots, occupied);
    report.countsFixed = true;
  }
  return report;
}

}  // namespace Brume
