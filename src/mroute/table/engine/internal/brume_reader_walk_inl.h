// Member definitions of BrumeReader's walks over the whole table (first,
// next, forEach and the steps and read-ahead they share); included from
// brume_reader.h after the lookup's definitions.
#pragma once

namespace Brume {

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

}  // namespace Brume
