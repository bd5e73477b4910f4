// Member definitions of BrumeWriter (brume_writer.h); included from there.
#pragma once

namespace Brume {

inline constexpr const char* kPairingHint = " - Make sure the DirectIs/Commit are properly paired!";

template <TableOps Ops>
std::string BrumeWriter<Ops>::directText() const {
  std::ostringstream os;
  os << directSlot_ << " containing value:" << KeyText<Ops>{Ops::keyOf(*storedAt(directSlot_))};
  return os.str();
}

template <TableOps Ops>
uint32_t BrumeWriter<Ops>::allocSlot(uint32_t rhash) {
  // A free slot at hand: no growth, nothing else to adjust.
  if (slots().freeHead() != kNoRef) [[likely]] return slots().alloc(rhash);
  const uint32_t before = slots().numSlots();
  const uint32_t slot = slots().alloc(rhash);
  const uint32_t after = slots().numSlots();
  if (after != before) {
    if (ConquerWriter* q = files_.conquer()) q->resize(after);
    shrinkThreshold_ = slots().shrinkThreshold();
  }
  return slot;
}

template <TableOps Ops>
void BrumeWriter<Ops>::linkNew(const typename WriterHashMap<Ops>::FindResult& f, uint32_t slot) {
  map_.linkIn(f.link, f.bucket, slot);
  const uint32_t occupied = slots().occupied() + 1;
  slots().occupiedIs(occupied);
  ++counters_.writes;
  if (occupied > files_.buckets().numBuckets() && map_.growBuckets()) ++counters_.bucketGrows;
}

template <TableOps Ops>
void BrumeWriter<Ops>::unbalancedWrite(const Key& key) const {
  std::ostringstream os;
  os << "BrumeWriter::write() unbalanced directSlot:" << directText() << " when writing value:" << KeyText<Ops>{key}
     << kPairingHint;
  pairingFault(os.str());
}

template <TableOps Ops>
void BrumeWriter<Ops>::traceWrite(const char* what, const Key& key, uint32_t bucket, uint32_t slot) const {
  std::ostringstream os;
  os << "BrumeWriter::write() " << what << KeyText<Ops>{key} << " bucket:" << bucket << " slot:" << slot;
  if (what[0] == 'e') os << " next:" << slotsConst().slot(slot)->next.loadRelaxed().ref;
  Mroute::Trace::emit(*trace_, kTraceDetail, os.str());
}

template <TableOps Ops>
const typename Ops::Stored* BrumeWriter<Ops>::write(const Stored& v, bool update) {
  requireAttached("BrumeWriter::write()");
  const Key& key = Ops::keyOf(v);
  if (directSlot_ != kNoRef) [[unlikely]] unbalancedWrite(key);
  // One hash per write: the bucket, the reversed hash the chain is sorted by
  // and the new slot's rhash all come from it, through the find.
  const uint32_t hash = Ops::hash(key);
  const auto f = map_.find(key, hash);
  if (f.found) {
    Slot* const s = slots().slot(f.slot);
    const auto* stored = reinterpret_cast<const Stored*>(s->value());
    if (!update) return stored;
    ConquerWriter* const q = files_.conquer();
    if (q != nullptr) q->prefetch(f.slot);
    slots().template writeBodyOf<sizeof(Stored)>(s, &v);
    ++counters_.updates;
    if (trace_->enabled(kTraceDetail)) [[unlikely]] traceWrite("existing ", key, f.bucket, f.slot);
    if (q != nullptr) q->notify(f.slot);
    return stored;
  }
  // The find result holds indexes, not pointers, so it survives a growth
  // that moves the mapping.
  const uint32_t slot = allocSlot(f.rhash);
  Slot* const s = slots().slot(slot);
  slots().template writeBodyOf<sizeof(Stored)>(s, &v);
  linkNew(f, slot);
  if (trace_->enabled(kTraceDetail)) [[unlikely]] traceWrite("new ", key, f.bucket, slot);
  notify(slot);
  // linkNew may have grown the bucket file, never the slot file.
  return reinterpret_cast<const Stored*>(s->value());
}

template <TableOps Ops>
bool BrumeWriter<Ops>::remove(const Key& key) {
  requireAttached("BrumeWriter::remove()");
  if (directSlot_ != kNoRef) {
    std::ostringstream os;
    os << "BrumeWriter::remove() unbalanced directSlot:" << directText() << " when removing key:"
       << KeyText<Ops>{key} << kPairingHint;
    pairingFault(os.str());
  }
  const auto f = map_.find(key, Ops::hash(key));
  if (!f.found) return false;
  map_.unlink(f.link, f.bucket, f.slot);
  slots().release(f.slot);
  const uint32_t occupied = slots().occupied() - 1;
  slots().occupiedIs(occupied);
  ++counters_.removes;
  notify(f.slot);
  if (occupied < shrinkThreshold_ / 2) doMaybeShrinkSlots(shrinkThreshold_);
  if (occupied < files_.buckets().numBuckets() / 4) {
    map_.shrinkBuckets();
    ++counters_.bucketShrinks;
  }
  return true;
}

template <TableOps Ops>
typename Ops::Stored* BrumeWriter<Ops>::directWrite(const Key& key) {
  requireAttached("BrumeWriter::directWrite()");
  if (directSlot_ != kNoRef) {
    std::ostringstream os;
    os << "BrumeWriter::directWrite() unbalanced directSlot:" << directText() << " when modifying key:"
       << KeyText<Ops>{key} << kPairingHint;
    pairingFault(os.str());
  }
  const uint32_t hash = Ops::hash(key);
  directFind_ = map_.find(key, hash);
  if (directFind_.found) {
    directSlot_ = directFind_.slot;
    directNew_ = false;
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeWriter::directWrite() existing " << KeyText<Ops>{key});
  } else {
    directSlot_ = allocSlot(directFind_.rhash);
    directNew_ = true;
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeWriter::directWrite() new " << KeyText<Ops>{key});
  }
  slots().beginBodyWrite(slots().slot(directSlot_));
  // A new slot is not reachable yet (W1); its body starts as a default value.
  if (directNew_) copyToShared(slots().slot(directSlot_)->value(), &kDefault, sizeof(Stored));
  return storedAt(directSlot_);
}

template <TableOps Ops>
void BrumeWriter<Ops>::directCommit() {
  if (directSlot_ == kNoRef) {
    pairingFault(std::string("BrumeWriter::directCommit() not in direct mode! ") +
                 "Make sure the DirectIs/Commit are properly paired!");
  }
  const uint32_t slot = directSlot_;
  Slot* s = slots().slot(slot);
  slots().endBodyWrite(s);
  if (directNew_) {
    // The chain order and bucket depend on the key: the caller must have
    // stored the key it asked for.
    const Key stored = Ops::keyOf(*storedAt(slot));
    if (bitReverse(Ops::hash(stored)) != s->rhash) {
      pairingFault("BrumeWriter::directCommit() value key differs from the key of directWrite");
    }
    linkNew(directFind_, slot);
  } else {
    ++counters_.updates;
  }
  directSlot_ = kNoRef;
  notify(slot);
}

template <TableOps Ops>
const typename Ops::Stored* BrumeWriter<Ops>::firstFrom(uint32_t marker) const {
  const BucketWriterTable& buckets = bucketsConst();
  const uint32_t n = buckets.numBuckets();
  // Empty buckets hand on to the next one through their end markers.
  for (uint32_t visited = 0; marker != kNoRef && visited <= n; ++visited) {
    const uint32_t ref = buckets.bucket(marker & ~kEndBit).loadRelaxed().ref;
    if (!isEndMarker(ref)) return storedAt(ref);
    marker = ref;
  }
  return nullptr;
}

template <TableOps Ops>
const typename Ops::Stored* BrumeWriter<Ops>::next(const Key& key) const {
  if (!files_.attached()) return nullptr;
  const auto f = map_.find(key, Ops::hash(key), "WriterHashMap::lookup()");
  if (!f.found) return nullptr;
  const uint32_t ref = slotsConst().slot(f.slot)->next.loadRelaxed().ref;
  if (!isEndMarker(ref)) return storedAt(ref);
  return firstFrom(ref);
}

template <TableOps Ops>
void BrumeWriter<Ops>::doMaybeShrinkSlots(uint32_t threshold) {
  if (threshold == 0) return;
  if (shrinkInProgress_) {
    MROUTE_TRACE(brumeTrace(), kTraceDetail,
                 "BrumeWriter::doMaybeShrinkSlots() shrink started, ignoring shrinkThreshold:" << threshold);
    return;
  }
  SlotWriterTable& st = slots();
  const uint32_t occupied = st.occupied();
  uint32_t floorPow2 = 1;
  while (floorPow2 * 2 <= occupied) floorPow2 *= 2;
  const uint32_t minSlots = st.params().minSlots;
  const uint32_t target = occupied == 0 ? minSlots : std::max(minSlots, 4 * floorPow2);
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "BrumeWriter::doMaybeShrinkSlots() threshold:" << target << " shrinkThreshold:" << threshold
                                                              << (threshold > target ? " SUPER SHRINK!" : ""));
  const uint32_t numSlots = st.numSlots();
  if (target >= numSlots) return;
  st.purgeFreeSlots(target);
  ConquerWriter* q = files_.conquer();
  // Cleared by the queue once every reader has caught up over the moves (at
  // once when none were posted or nothing is corralled).
  shrinkInProgress_ = q != nullptr;
  if (q != nullptr) q->markShrinkStart();
  for (uint32_t i = target; i < numSlots; ++i) {
    Slot* from = st.slot(i);
    if ((from->status & kOccupied) == 0) {
      MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeWriter::doMaybeShrinkSlots skipping not occupied slot:" << i);
      continue;
    }
    const Key key = Ops::keyOf(*storedAt(i));
    const auto f = map_.find(key, Ops::hash(key));
    MROUTE_ASSERT(f.found && "key not found");
    MROUTE_ASSERT(f.slot == i && "not referenced");
    const uint32_t to = st.alloc(from->rhash);
    st.move(i, to);
    // The moved copy is complete (W1); one store makes it replace the old
    // slot in its chain, then the old slot is retired (W3).
    map_.storeLink(f.link, f.bucket, to);
    storeRelease(st.slot(i)->status, st.slot(i)->status & ~kOccupied);
    ++counters_.moves;
    if (q != nullptr) {
      q->tombstone(i);
      q->notify(to);
    }
  }
  if (q != nullptr) q->markShrinkEnd();
  st.shrinkTo(target);
  ++counters_.slotShrinks;
  shrinkThreshold_ = st.shrinkThreshold();
}

}  // namespace Brume
