// Member definitions of BrumeReader (brume_reader.h): attach, slot reads and
// lookups; the whole-table walks are in brume_reader_walk_inl.h.
#pragma once

namespace Brume {

template <TableOps Ops>
bool BrumeReader<Ops>::initialize() {
  if (attached()) return true;
  if (!std::atomic_ref<uint64_t>::is_always_lock_free) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "Hardware does not support Atomics");
    return false;
  }
  if (!buckets_.attach(root_)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeReader::initialize() failed to attach to buckets");
    return false;
  }
  if (!slots_.attach(root_)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BrumeReader::initialize() failed to attach to slots");
    buckets_.detach();
    return false;
  }
  auto fail = [this](const char* what, const std::string& why) {
    if (!why.empty()) writeCorruptionMarker(*fs_, root_, why);
    MROUTE_TRACE(brumeTrace(), kTraceError, what);
    slots_.detach();
    buckets_.detach();
    return false;
  };
  if (!readEmber(*fs_, root_, &ember_)) return fail("BrumeReader::initialize() failed to read ember file", "");
  std::string why;
  if (!buckets_.validate(ember_, &why)) return fail("BrumeReader::initialize() failed to validate buckets", why);
  view_.countSeen = buckets_.header()->numBuckets.load();
  const uint32_t n = view_.countSeen.ref;
  if (n == 0 || (n & (n - 1)) != 0 || !buckets_.doResize(n)) {
    return fail("BrumeReader::initialize() failed to validate buckets",
                "BucketTable::validate() bad numBuckets:" + std::to_string(n));
  }
  if (!slots_.validate(ember_, &why)) return fail("BrumeReader::initialize() failed to validate slots", why);
  useNumBuckets(n);
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "BrumeReader::initialize() success " << root_.dir() << " capacity: " << capacity()
                                                    << " emberId: " << ember_);
  return true;
}

template <TableOps Ops>
void BrumeReader<Ops>::detach() {
  if (!attached()) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeReader::detach() already detached");
    return;
  }
  slots_.detach();
  buckets_.detach();
  useNumBuckets(0);
  cursor_.valid = false;
}

template <TableOps Ops>
void BrumeReader<Ops>::corrupt(const std::string& what) {
  MROUTE_TRACE(brumeTrace(), kTraceError, what);
  writeCorruptionMarker(*fs_, root_, what);
  throw Pavo::CorruptionDetectedException(what);
}

template <TableOps Ops>
inline uint32_t BrumeReader<Ops>::readSlot(const Slot* s, Stored& out, uint32_t* rhash) {
  const uint32_t st = loadAcquire(s->status);
  uint32_t rh;
  if ((st & kLookaside) == 0) [[likely]] {
    rh = loadRelaxed(s->rhash);
    copyFromShared(&out, s->value(), sizeof(Stored));
    // R1: the copy's loads stay before the re-check.
    Mem::acquireFence();
    if (loadRelaxed(s->status) == st) [[likely]] {
      *rhash = rh;
      return st;
    }
    ++counters_.restarts;
  }
  // Through a local of its own: the caller's rhash need not live in memory.
  const uint32_t again = readSlotAgain(s, out, &rh);
  *rhash = rh;
  return again;
}

template <TableOps Ops>
uint32_t BrumeReader<Ops>::readSlotAgain(const Slot* s, Stored& out, uint32_t* rhash) {
  for (;;) {
    const uint32_t st = loadAcquire(s->status);
    const Slot* src = s;
    if ((st & kLookaside) != 0) {
      src = slots_.header()->lookaside();
      ++counters_.lookasideReads;
    }
    const uint32_t rh = loadRelaxed(src->rhash);
    copyFromShared(&out, src->value(), sizeof(Stored));
    // R1: the copy's loads stay before the re-check.
    Mem::acquireFence();
    if (loadRelaxed(s->status) == st) {
      *rhash = rh;
      return st;
    }
    ++counters_.restarts;
  }
}

template <TableOps Ops>
void BrumeReader<Ops>::numBucketsChanged(uint32_t n) {
  if (n == 0 || (n & (n - 1)) != 0) {
    std::ostringstream os;
    os << "BucketReader::compareNumBuckets() found mismatch, local:" << numBuckets_ << " file:" << n;
    corrupt(os.str());
  }
  if (!buckets_.doResize(n)) {
    std::ostringstream os;
    os << "BucketReader::doResize() found invalid numBuckets:" << n;
    corrupt(os.str());
  }
  useNumBuckets(n);
}

template <TableOps Ops>
const Slot* BrumeReader<Ops>::slotOrCorrupt(uint32_t i, const char* who) {
  const Slot* s = slots_.slot(i);
  if (s == nullptr) [[unlikely]] {
    std::ostringstream os;
    os << who << " slot index out of range:" << i << " capacity:" << slots_.mappedSlots();
    corrupt(os.str());
  }
  return s;
}

template <TableOps Ops>
void BrumeReader<Ops>::bucketOutOfRange(uint32_t b) {
  std::ostringstream os;
  os << "BucketReader::operator[] out-of-range, index:" << b;
  corrupt(os.str());
}

template <TableOps Ops>
void BrumeReader<Ops>::lookupCycle(uint32_t count) {
  std::ostringstream os;
  os << "BrumeReader::doLookup() hash chain cycle detected," << " slotCount:" << count
     << " capacity:" << slots_.mappedSlots();
  corrupt(os.str());
}

template <TableOps Ops>
void BrumeReader<Ops>::lookupCorruptKey(const Key& k, uint32_t b) {
  std::ostringstream os;
  os << "BrumeReader::doLookup() corrupt key detected" << " key:" << KeyText<Ops>{k} << " bucketIndex:" << b;
  corrupt(os.str());
}

template <TableOps Ops>
inline bool BrumeReader<Ops>::doLookup(const Key& key, Stored& out) {
  if (!view_.fast) [[unlikely]] return lookupSlow(key, out);
  const uint32_t h = Ops::hash(key);
  return lookupOnce(key, h, bitReverse(h), out);
}

template <TableOps Ops>
bool BrumeReader<Ops>::lookupSlow(const Key& key, Stored& out) {
  if (numBuckets_ == 0) {
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeReader::doLookup() bucket table detached");
    return false;
  }
  const uint32_t h = Ops::hash(key);
  return lookupLoop(key, bitReverse(h), out);
}

template <TableOps Ops>
inline bool BrumeReader<Ops>::lookupOnce(const Key& key, uint32_t h, uint32_t r, Stored& out) {
  // h & bucketMask < numBuckets_ <= mappedBuckets(): the local count is only
  // ever taken after the bucket mapping was made to hold it, and mappings
  // never shrink.
  const Mem::VersionedRef& head = view_.buckets[h & view_.bucketMask];
  const Mem::VersionedRef::Value hv = head.load();
  uint32_t ref = refOf(hv);
  // The usual chains: the key's entry among the first kInlineSlots. Entries
  // sorted before it are passed on their rhash and next alone (R5).
  for (uint32_t step = 1;; ++step) {
    // mappedSlots <= kEndBit: a slot index within it is no end marker.
    if (ref >= view_.mappedSlots) break;
    const Slot* s = reinterpret_cast<const Slot*>(view_.slot0 + size_t{ref} * kSlotSize);
    uint32_t rh = loadRelaxed(s->rhash);
    if (rh == r) [[likely]] {
      const uint32_t st = readSlot(s, out, &rh);
      // The key is compared on the private copy, before the re-checks.
      if (rh == r && (st & kOccupied) != 0 && Ops::equal(Ops::keyOf(out), key)) [[likely]] {
        // R2 + R3 (R6, R7): the head word and the count word unchanged
        // since the walk began.
        if (head.recheck() == hv && view_.count->recheck() == view_.countSeen) [[likely]] return true;
        return lookupRetry(key, r, out);
      }
      break;
    }
    // Past the key's place, too far, or an rhash that this bucket's chain
    // cannot hold without a resize in flight: the walk settles it.
    if (rh > r || step == kInlineSlots || ((rh ^ r) & view_.ownBits) != 0) break;
    const uint32_t next = s->next.load().ref;
    // R2 alone, as in lookupWalk().
    if (head.recheck().version != hv.version) return lookupRetry(key, r, out);
    ref = next;
  }
  // The walk goes on from where this stopped.
  return lookupRest(key, r, head, hv, ref, out);
}

template <TableOps Ops>
bool BrumeReader<Ops>::lookupRest(const Key& key, uint32_t r, const Mem::VersionedRef& head,
                                  Mem::VersionedRef::Value hv, uint32_t ref, Stored& out) {
  const Attempt a = lookupWalk(key, r, head, hv, ref, out);
  if (a != Attempt::retry) return a == Attempt::found;
  return lookupRetry(key, r, out);
}

template <TableOps Ops>
typename BrumeReader<Ops>::Attempt BrumeReader<Ops>::lookupWalk(const Key& key, uint32_t r,
                                                                const Mem::VersionedRef& head,
                                                                Mem::VersionedRef::Value hv, uint32_t ref,
                                                                Stored& out) {
  // The view is taken into locals once, before anything is copied into out:
  // nothing in one attempt remaps, and out may alias this object for all the
  // compiler knows.
  const uint8_t* const slot0 = view_.slot0;
  const uint32_t mapped = view_.mappedSlots;
  const uint32_t own = view_.ownBits;
  const Mem::VersionedRef* const countRef = view_.count;
  const Mem::VersionedRef::Value nb = view_.countSeen;  // R6
  auto unchanged = [&] { return head.recheck().version == hv.version && countRef->recheck() == nb; };
  // Whether a reversed hash may stand in this bucket's chain. Its top bits
  // equal to r's settle it; otherwise a resize may be in flight, which the
  // half and twice masks allow for.
  auto belongs = [&](uint32_t rh) { return ((rh ^ r) & own) == 0 || bits_.belongs(rh, r & own); };
  // The cycle bound as a count-down: more steps than mapped slots means a
  // loop, which the full loop then reports.
  for (uint32_t left = mapped; !isEndMarker(ref); --left) {
    if (ref >= mapped || left == 0) [[unlikely]] return Attempt::retry;
    const Slot* s = reinterpret_cast<const Slot*>(slot0 + size_t{ref} * kSlotSize);
    // R5.
    uint32_t rh = loadRelaxed(s->rhash);
    if (rh >= r) {
      const uint32_t st = readSlot(s, out, &rh);
      if ((st & kOccupied) != 0 && rh >= r) {
        if (rh == r && Ops::equal(Ops::keyOf(out), key)) return unchanged() ? Attempt::found : Attempt::retry;
        if (!unchanged()) return Attempt::retry;
        if (rh > r || Ops::less(key, Ops::keyOf(out))) {
          // The stopping key must belong here; the full loop reports it if not.
          return belongs(bitReverse(Ops::hash(Ops::keyOf(out)))) ? Attempt::absent : Attempt::retry;
        }
      }
    }
    if (!belongs(rh)) [[unlikely]] return Attempt::retry;
    const uint32_t next = s->next.load().ref;
    // R2 alone: the head's version covers every link of the chain (W2), so
    // the next link read belongs to the chain as it stood when the walk
    // began. The count is re-checked before the answer only: a split or
    // join changes the chain's links, and with them the head (W2, W5).
    if (head.recheck().version != hv.version) return Attempt::retry;
    ref = next;
  }
  return unchanged() ? Attempt::absent : Attempt::retry;
}

template <TableOps Ops>
bool BrumeReader<Ops>::lookupLoop(const Key& key, uint32_t r, Stored& out) {
  // The reversal is its own inverse: the caller's common case keeps no
  // register for h.
  const uint32_t h = bitReverse(r);
  for (;; ++counters_.restarts) {
    const Mem::VersionedRef::Value nb = loadNumBuckets();
    if (afterCountLoad_ != nullptr) [[unlikely]] afterCountLoad_(afterCountLoadContext_);
    // Taken after loadNumBuckets(), which may move the mapping.
    const Mem::VersionedRef& countRef = buckets_.header()->numBuckets;
    const uint32_t b = h & (numBuckets_ - 1);
    const uint32_t rb = r & bits_.own;  // bitReverse(b)
    const Mem::VersionedRef& head = bucketOrCorrupt(b);
    const Mem::VersionedRef::Value hv = head.load();
    // R2 + R3.
    auto unchanged = [&] { return head.recheck().version == hv.version && countRef.recheck() == nb; };
    uint32_t ref = hv.ref;
    uint32_t count = 0;
    for (;;) {
      if (isEndMarker(ref)) {
        if (unchanged()) return false;
        break;
      }
      const Slot* s = slots_.slot(ref);
      if (s == nullptr) {
        if (!unchanged()) break;
        s = slotOrCorrupt(ref, "BrumeReader::doLookup()");
      }
      // Bounded by the mapping as it stands after slot() remapped for this
      // index: a chain the writer grew past a stale mapping is no cycle.
      if (++count > slots_.mappedSlots()) {
        if (!unchanged()) break;
        lookupCycle(count);
      }
      // R5: a slot sorted before the key is passed on its rhash and next
      // alone; only a slot where the key may be is copied.
      uint32_t rh = loadRelaxed(s->rhash);
      if (rh >= r) [[likely]] {
        const uint32_t st = readSlot(s, out, &rh);
        if ((st & kOccupied) != 0 && rh >= r) {
          const Key k = Ops::keyOf(out);
          if (rh == r && Ops::equal(k, key)) [[likely]] {
            if (unchanged()) return true;
            break;
          }
          if (rh > r || Ops::less(key, k)) {
            if (!unchanged()) break;
            if (!bits_.belongs(bitReverse(Ops::hash(k)), rb)) {
              lookupCorruptKey(k, b);
            }
            return false;
          }
        }
      }
      if (!bits_.belongs(rh, rb)) [[unlikely]] {
        if (!unchanged()) break;
        readSlot(s, out, &rh);
        lookupCorruptKey(Ops::keyOf(out), b);
      }
      const uint32_t next = s->next.load().ref;
      if (!unchanged()) break;
      ref = next;
    }
  }
}

template <TableOps Ops>
bool BrumeReader<Ops>::safeValue(uint32_t slotIndex, Stored& out) {
  if (!attached()) return false;
  const Slot* s = slots_.slot(slotIndex);
  if (s == nullptr) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "BrumeReader::safeValue() unable to retrieve slotIndex:" << slotIndex << " shmemCapacity:"
                                                                          << slots_.mappedSlots()
                                                                          << ", returning not found");
    return false;
  }
  uint32_t rh;
  return (readSlot(s, out, &rh) & kOccupied) != 0;
}

template <TableOps Ops>
template <typename Op>
auto BrumeReader<Ops>::retryOnResize(Op&& op) -> decltype(op()) {
  try {
    return op();
  } catch (const Pavo::CorruptionDetectedException&) {
    if (!attached()) throw;
    const uint8_t* slotBase = slots_.base();
    const uint8_t* bucketBase = buckets_.base();
    const uint32_t mappedSlots = slots_.mappedSlots();
    const uint32_t mappedBuckets = buckets_.mappedBuckets();
    slots_.doResize();
    const Mem::VersionedRef::Value count = buckets_.header()->numBuckets.load();
    const uint32_t n = count.ref;
    if (n != 0 && (n & (n - 1)) == 0 && buckets_.doResize(n)) {
      useNumBuckets(n);
      view_.countSeen = count;
    }
    if (slotBase == slots_.base() && bucketBase == buckets_.base() && mappedSlots == slots_.mappedSlots() &&
        mappedBuckets == buckets_.mappedBuckets()) {
      throw;
    }
    return op();
  }
}

}  // namespace Brume
