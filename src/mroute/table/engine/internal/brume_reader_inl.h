// Member definitions of BrumeReader (brume_reader.h); included from there.
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
bool BrumeReader<Ops>::doNext(const Key* key, Stored& out) {
  if (numBuckets_ == 0) {
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeReader::doNext() bucket table detached");
    return false;
  }
  // The walk reads into out, which the caller's key often lies in: it works
  // on a private copy. The cursor's own copy serves when the key is the one
  // returned last, which is what lets the walk continue from its slot.
  Key given;
  const Key* k = nullptr;
  if (key == nullptr) {
    cursor_.valid = false;
  } else if (cursor_.valid && Ops::equal(*key, cursorKey_)) {
    k = &cursorKey_;
    const Step s = stepOnce(out, cursor_, nullptr);
    if (s == Step::end) return false;
    if (s == Step::found) {
      cursorKey_ = Ops::keyOf(out);
      return true;
    }
    ++counters_.walkRestarts;
  } else {
    cursor_.valid = false;
    given = *key;
    k = &given;
  }
  if (!nextLoop(k, out, cursor_)) return false;
  cursorKey_ = Ops::keyOf(out);
  return true;
}

template <TableOps Ops>
template <typename F>
void BrumeReader<Ops>::forEach(F&& f) {
  if (numBuckets_ == 0) {
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeReader::doNext() bucket table detached");
    return;
  }
  // Two buffers taken in turn: the entry f saw stays whole while the next
  // one is read, so a walk that has to find its place again has its key.
  Stored buffers[2];
  Stored* cur = &buffers[0];
  Stored* prev = &buffers[1];
  // The full walk gets a cursor of its own: c's address never leaves this
  // frame, so the steps keep it in registers.
  Cursor found;
  if (!nextLoop(nullptr, *cur, found)) return;
  Cursor c = found;
  ReadAhead ra;
  readAheadFrom(c.bucket, ra);
  for (;;) {
    f(std::as_const(*cur));
    if (!attached()) return;
    std::swap(cur, prev);
    const Step s = stepOnce(*cur, c, &ra);
    if (s == Step::end) return;
    if (s == Step::retry) {
      ++counters_.walkRestarts;
      // c still stands on prev's entry: the full walk starts from there.
      const Key k = Ops::keyOf(*prev);
      found = c;
      if (!nextLoop(&k, *cur, found)) return;
      c = found;
      readAheadFrom(c.bucket, ra);
    }
  }
}

template <TableOps Ops>
void BrumeReader<Ops>::readAheadFrom(uint32_t b, ReadAhead& ra) {
  const uint32_t n = numBuckets_;
  ra.pos = splitPosition(b, n);
  const uint32_t first = ra.pos - ra.pos % ReadAhead::kBlock;
  // The base of the cursor's block: the bucket at its first position.
  ra.lastBase = n < ReadAhead::kBlock ? 0 : bitReverse(first) >> (32 - std::countr_zero(n));
  readAheadFill(ra, n, first);
  if (ra.lastBase != kNoRef) {
    ra.lastBase = n < ReadAhead::kBlock ? kNoRef : successor(ra.lastBase, n / ReadAhead::kBlock);
  }
  readAheadFill(ra, n, first + ReadAhead::kBlock);
  const Mem::VersionedRef* heads = buckets_.header()->buckets();
  for (uint32_t p = ra.pos + 1; p <= ra.pos + kReadAheadBuckets; ++p) {
    readAheadSlot(ra, p, heads, slots_.base(), slots_.mappedSlots());
  }
}

template <TableOps Ops>
void BrumeReader<Ops>::readAheadFill(ReadAhead& ra, uint32_t n, uint32_t firstPos) {
  constexpr uint32_t kBlock = ReadAhead::kBlock;
  uint32_t* block = ra.ring + firstPos % ReadAhead::kRing;
  if (ra.lastBase == kNoRef) {
    for (uint32_t j = 0; j < kBlock; ++j) block[j] = kNoRef;
    return;
  }
  if (n < kBlock) {
    // Fewer buckets than a block: all of them, in split order, from the
    // first (lastBase is 0 here).
    for (uint32_t j = 0; j < kBlock; ++j) block[j] = j < n ? splitPosition(j, n) : kNoRef;
    return;
  }
  // Position firstPos + j holds bucket reverse_k(firstPos + j), and firstPos
  // is a multiple of 8: the low three bits of j become the top three bits of
  // the bucket, the rest is the block's base.
  const uint32_t q = n / kBlock;
  const Mem::VersionedRef* heads = buckets_.header()->buckets();
  static constexpr uint32_t kReverse3[kBlock] = {0, 4, 2, 6, 1, 5, 3, 7};
  for (uint32_t j = 0; j < kBlock; ++j) {
    block[j] = ra.lastBase + q * kReverse3[j];
    // The heads the read-ahead loads a few buckets later.
    __builtin_prefetch(heads + block[j]);
  }
}

template <TableOps Ops>
inline typename BrumeReader<Ops>::Step BrumeReader<Ops>::stepOnce(Stored& out, Cursor& c, ReadAhead* ra) {
  const BucketTable::Header* bh = buckets_.header();
  const Mem::VersionedRef* heads = bh->buckets();
  const uint8_t* slotBase = slots_.base();
  const uint32_t mapped = slots_.mappedSlots();
  const uint32_t n = numBuckets_;
  const uint32_t own = bits_.own;
  // The local count is c's, so numBuckets_ and bits_ describe c's chains
  // (f may have used this reader meanwhile, and it may have remapped); the
  // mapping then holds c's bucket (see lookupOnce()). The shared count is
  // re-checked before the answer (R3).
  if (n != c.numBuckets.ref) [[unlikely]] return Step::retry;
  // The step moves c's bucket fields as it crosses buckets: a retry uses
  // only c's rhash (the entry returned last), which moves with an answer.
  const Mem::VersionedRef* head = heads + c.bucket;
  // c.next was read under c.version, which the answer re-checked: it is
  // the chain's link after c's slot as the chain stood then. Every answer
  // below re-checks the head against the version the walk started from, so
  // a chain that changed since sends the step to the full walk (R8).
  uint32_t ref = c.next;
  // Every entry returned sorts strictly above the one before (chains ascend
  // in rhash, buckets in split order), so a corrupt link that leads back
  // goes to the full walk, which reports it; free slots met on the way are
  // bounded by the mapping.
  uint32_t freeLeft = mapped;
  for (;;) {
    if (isEndMarker(ref)) {
      // While the count stands the marker names the bucket's successor
      // (kNoRef after the last bucket, which kEndBit leaves unchanged);
      // anything else (a resize in flight, corruption) is verified by the
      // full walk.
      const uint32_t next = ra != nullptr ? ra->at(ra->pos + 1) : successor(c.bucket, n);
      if (ref != (kEndBit | next)) return Step::retry;
      if (next == kNoRef) return bh->numBuckets.recheck() == c.numBuckets ? Step::end : Step::retry;
      c.bucket = next;
      c.bucketRb -= own;  // plus 2^(32 - log2 n): the next reversed index
      head = heads + next;
      if (ra != nullptr) {
        // Entering a block, the block after it replaces the one left.
        if (++ra->pos % ReadAhead::kBlock == 0) [[unlikely]] {
          if (ra->lastBase != kNoRef) ra->lastBase = successor(ra->lastBase, n / ReadAhead::kBlock);
          readAheadFill(*ra, n, ra->pos + ReadAhead::kBlock);
        }
        readAheadSlot(*ra, ra->pos + kReadAheadBuckets, heads, slotBase, mapped);
      }
      // One atomic load: an empty bucket's end marker needs no re-check.
      const Mem::VersionedRef::Value hv = head->load();
      c.version = hv.version;
      ref = hv.ref;
      continue;
    }
    if (ref >= mapped) return Step::retry;
    const Slot* s = SlotTable::slotAt(slotBase, kSlotSize, ref);
    uint32_t rh;
    const uint32_t st = readSlot(s, out, &rh);
    if ((st & kOccupied) != 0) [[likely]] {
      // The slot's rhash and the key's hash must pick the bucket with the
      // count the walk stands on; a resize in flight (where the tolerance of
      // half or twice the count applies) goes to the full walk, as
      // corruption does.
      if (rh <= c.rhash || (rh & own) != c.bucketRb || (Ops::hash(Ops::keyOf(out)) & (n - 1)) != c.bucket) {
        return Step::retry;
      }
      // Read before the re-check, which then covers it too (R8).
      const uint32_t after = s->next.load().ref;
      // R2 + R3 before the answer.
      if (recheckInline(*head).version != c.version || !(recheckInline(bh->numBuckets) == c.numBuckets)) {
        return Step::retry;
      }
      // The chain's next slot, fetched while f runs.
      if (ra != nullptr && after < mapped) prefetchSlot(slotBase, after);
      c.rhash = rh;
      c.next = after;
      return Step::found;
    }
    if (freeLeft-- == 0) return Step::retry;
    ref = s->next.load().ref;
    if (recheckInline(*head).version != c.version) return Step::retry;
  }
}

template <TableOps Ops>
bool BrumeReader<Ops>::nextLoop(const Key* key, Stored& out, Cursor& c) {
  // Where the walk resumes: after (r, *key) in chain order. The cursor's
  // entry is sorted by the rhash its slot had, so it needs no hashing, and
  // a stored key whose hash disagrees with its slot's rhash cannot send the
  // walk back.
  const uint32_t r = c.valid ? c.rhash : key != nullptr ? bitReverse(Ops::hash(*key)) : 0;
  const char* corruptKey = key != nullptr ? "BrumeReader::doNext() corrupt key detected key:"
                                          : "BrumeReader::first() corrupt key detected, key:";
  c.valid = false;
  for (;; ++counters_.restarts) {
    const Mem::VersionedRef::Value nb = loadNumBuckets();
    const Mem::VersionedRef& countRef = buckets_.header()->numBuckets;
    bool skipping = key != nullptr;
    // rb is bitReverse(b) (see BucketBits); r's top bits pick the key's bucket.
    uint32_t rb = key != nullptr ? r & bits_.own : 0;
    uint32_t b = bitReverse(rb);
    uint32_t visited = 0;
    bool restart = false;
    while (!restart) {
      if (++visited > numBuckets_) {
        std::ostringstream os;
        os << "BrumeReader::first() has bucket cycle detected, bucketCount:" << visited;
        corrupt(os.str());
      }
      const Mem::VersionedRef& head = bucketOrCorrupt(b);
      const Mem::VersionedRef::Value hv = head.load();
      auto unchanged = [&] { return head.recheck().version == hv.version && countRef.recheck() == nb; };
      uint32_t ref = hv.ref;
      uint32_t count = 0;
      while (!isEndMarker(ref)) {
        const Slot* s = slots_.slot(ref);
        if (s == nullptr) {
          if (!unchanged()) {
            restart = true;
            break;
          }
          s = slotOrCorrupt(ref, "BrumeReader::doNext()");
        }
        // Bounded by the mapping as it stands after slot() remapped for
        // this index: a chain the writer grew past the old mapping is no
        // cycle.
        if (++count > slots_.mappedSlots()) {
          if (!unchanged()) {
            restart = true;
            break;
          }
          std::ostringstream os;
          os << "BrumeReader::doNext() hash chain cycle detected, slotCount:" << count;
          corrupt(os.str());
        }
        uint32_t rh;
        const uint32_t st = readSlot(s, out, &rh);
        if ((st & kOccupied) != 0) {
          // Chains hold entries in ascending (rhash, key) order and buckets
          // follow in split order: everything after the key comes after it.
          const bool after = !skipping || rh > r || (rh == r && Ops::less(*key, Ops::keyOf(out)));
          // The slot's rhash must pick this bucket; the entry returned must
          // hash to it as well.
          if (!bits_.belongs(rh, rb) || (after && !bits_.holds(Ops::hash(Ops::keyOf(out)), b))) {
            if (!unchanged()) {
              restart = true;
              break;
            }
            std::ostringstream os;
            os << corruptKey << KeyText<Ops>{Ops::keyOf(out)} << " bucket:" << b;
            corrupt(os.str());
          }
          if (after) {
            // The next link is read before the re-check, which covers it.
            const uint32_t next = s->next.load().ref;
            if (!unchanged()) {
              restart = true;
              break;
            }
            c = {true, b, rb, hv.version, rh, nb, next};
            return true;
          }
        }
        const uint32_t next = s->next.load().ref;
        if (!unchanged()) {
          restart = true;
          break;
        }
        ref = next;
      }
      if (restart) break;
      uint32_t nextRb = 0;
      if (!verifyNextBucket(rb, ref, &nextRb)) {
        if (!unchanged()) break;
        std::ostringstream os;
        os << "BrumeReader::verifyNextBucket() has bucket:" << b << "with next bucket:" << (ref & ~kEndBit)
           << "and numBuckets:" << numBuckets_;
        corrupt(os.str());
      }
      if (ref == kNoRef) {
        if (!unchanged()) break;
        if (key == nullptr) MROUTE_TRACE(brumeTrace(), kTraceDetail, "BrumeReader::first() none found!");
        return false;
      }
      b = ref & ~kEndBit;
      rb = nextRb;
      skipping = false;
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
