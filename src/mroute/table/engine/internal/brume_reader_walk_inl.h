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
    const Step s = stepOnce<false>(out, cursor_, nullptr);
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
  // A table of fewer buckets than a read-ahead block is too small for one.
  if (numBuckets_ >= ReadAhead::kBlock) {
    walk<true>(f);
  } else {
    walk<false>(f);
  }
}

template <TableOps Ops>
template <bool kAhead, typename F>
void BrumeReader<Ops>::walk(F& f) {
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
  if constexpr (kAhead) c.inBlock = readAheadFrom(c.bucket, ra);
  for (;;) {
    f(std::as_const(*cur));
    if (!attached()) return;
    std::swap(cur, prev);
    const Step s = stepOnce<kAhead>(*cur, c, &ra);
    if (s == Step::end) return;
    if (s == Step::retry) [[unlikely]] {
      ++counters_.walkRestarts;
      // c still stands on prev's entry: the full walk starts from there.
      const Key k = Ops::keyOf(*prev);
      found = c;
      if (!nextLoop(&k, *cur, found)) return;
      c = found;
      if constexpr (kAhead) c.inBlock = readAheadFrom(c.bucket, ra);
    }
  }
}

template <TableOps Ops>
uint32_t BrumeReader<Ops>::readAheadFrom(uint32_t b, ReadAhead& ra) {
  constexpr uint32_t kBlock = ReadAhead::kBlock;
  const uint32_t n = numBuckets_;
  const uint32_t pos = splitPosition(b, n);
  if (n < kBlock) {
    // Fewer buckets than a block: one block of them all, in split order,
    // from bucket 0; kNoRef after the last.
    ra.base = 0;
    ra.nextBase = kNoRef;
    for (uint32_t j = 0; j <= kBlock; ++j) ra.offset[j] = j < n ? splitPosition(j, n) : kNoRef;
    for (uint32_t j = 0; j < kBlock; ++j) ra.lead[j] = 0;
    return pos;
  }
  // Position 8i + j holds bucket reverse_k(8i + j): the low three bits of
  // the position become the top three bits of the bucket, the rest is the
  // block's base.
  static constexpr uint32_t kReverse3[kBlock] = {0, 4, 2, 6, 1, 5, 3, 7};
  const uint32_t q = n / kBlock;
  for (uint32_t j = 0; j < kBlock; ++j) ra.offset[j] = q * kReverse3[j];
  // The leads that stay within the block.
  for (uint32_t j = 0; j + kReadAheadBuckets < kBlock; ++j) ra.lead[j] = ra.offset[j + kReadAheadBuckets];
  ra.base = bitReverse(pos - pos % kBlock) >> (32 - std::countr_zero(n));
  ra.nextBase = successor(ra.base, q);
  readAheadLead(ra);
  // The slots the walk meets first.
  const Mem::VersionedRef* heads = view_.buckets;
  for (uint32_t j = pos % kBlock + 1; j <= pos % kBlock + kReadAheadBuckets; ++j) {
    const uint32_t a = j < kBlock ? ra.base + ra.offset[j] : ra.nextBase + ra.offset[j - kBlock];
    readAheadSlot(a & view_.bucketMask, heads, view_.slot0, view_.mappedSlots);
  }
  return pos % kBlock;
}

template <TableOps Ops>
void BrumeReader<Ops>::readAheadNextBlock(ReadAhead& ra) {
  ra.base = ra.nextBase;
  // Past the last block the base stays kNoRef: its last position's
  // successor is kNoRef, so the walk never moves on from there.
  if (ra.base != kNoRef) ra.nextBase = successor(ra.base, numBuckets_ / ReadAhead::kBlock);
  readAheadLead(ra);
}

template <TableOps Ops>
void BrumeReader<Ops>::readAheadLead(ReadAhead& ra) {
  constexpr uint32_t kBlock = ReadAhead::kBlock;
  const uint32_t step = ra.nextBase - ra.base;
  ra.offset[kBlock] = step;
  for (uint32_t j = kBlock - kReadAheadBuckets; j < kBlock; ++j) {
    ra.lead[j] = step + ra.offset[j + kReadAheadBuckets - kBlock];
  }
  if (ra.nextBase == kNoRef) return;
  // The heads the read-ahead loads a few buckets later.
  const Mem::VersionedRef* heads = view_.buckets;
  for (uint32_t j = 0; j < kBlock; ++j) __builtin_prefetch(heads + ra.nextBase + ra.offset[j]);
}

template <TableOps Ops>
template <bool kAhead>
inline typename BrumeReader<Ops>::Step BrumeReader<Ops>::stepOnce(Stored& out, Cursor& c, ReadAhead* ra) {
  // The mappings and the count as they stand now: f may have used this
  // reader since the last step, and remapped.
  const uint8_t* const slot0 = view_.slot0;
  const Mem::VersionedRef* const heads = view_.buckets;
  // The count word lies in the header just before the bucket array: taken
  // from heads, it costs the step no register of its own.
  const Mem::VersionedRef* const countRef =
      &reinterpret_cast<const BucketTable::Header*>(reinterpret_cast<const uint8_t*>(heads) -
                                                    sizeof(BucketTable::Header))->numBuckets;
  const uint32_t mapped = view_.mappedSlots;
  const uint32_t mask = view_.bucketMask;
  // The local count must be c's, so that the masks describe c's chains; the
  // mapping then holds every bucket below it (see lookupOnce()). The shared
  // count is re-checked before the answer (R3).
  if (mask + 1 != c.numBuckets()) [[unlikely]] return Step::retry;
  // The step moves c's bucket fields as it crosses buckets: a retry uses
  // only c's rhash (the entry returned last), which moves with an answer.
  const Mem::VersionedRef* head = heads + c.bucket;
  // c.next was read under c.version, which the answer re-checked: it is
  // the chain's link after c's slot as the chain stood then. Every answer
  // below re-checks the head against the version the walk started from, so
  // a chain that changed since sends the step to the full walk (R8).
  uint32_t ref = c.next;
  for (;;) {
    if (isEndMarker(ref)) {
      // While the count stands the marker names the bucket's successor
      // (kNoRef after the last bucket, which kEndBit leaves unchanged);
      // anything else (a resize in flight, corruption) is verified by the
      // full walk. Checking for the very successor rather than for any later
      // bucket costs no bit reversal, and no bucket can be skipped.
      uint32_t next;
      if constexpr (kAhead) {
        next = ra->base + ra->offset[c.inBlock + 1];
      } else {
        next = successor(c.bucket, mask + 1);
      }
      if (ref != (kEndBit | next)) [[unlikely]] return Step::retry;
      if (next == kNoRef) return recheckWord(*countRef) == c.countWord ? Step::end : Step::retry;
      c.bucket = next;
      // The next bucket's rhashes follow this one's: its lowest is the
      // bound, its highest one bucket's width (2^(32 - log2 n)) further.
      c.rhash = c.rhashMax;
      c.rhashMax -= view_.ownBits;
      head = heads + next;
      if constexpr (kAhead) {
        if (++c.inBlock == ReadAhead::kBlock) [[unlikely]] {
          c.inBlock = 0;
          readAheadNextBlock(*ra);
        }
        readAheadSlot((ra->base + ra->lead[c.inBlock]) & mask, heads, slot0, mapped);
      }
      // One atomic load: an empty bucket's end marker needs no re-check.
      const Mem::VersionedRef::Value hv = head->load();
      c.version = hv.version;
      ref = hv.ref;
      continue;
    }
    if (ref >= mapped) [[unlikely]] return Step::retry;
    const Slot* s = reinterpret_cast<const Slot*>(slot0 + size_t{ref} * kSlotSize);
    // R1 for a slot nobody is updating: OCCUPIED without LOOKASIDE, the
    // same before and after the copy. Anything else (an update under way,
    // or a free slot in the chain, which means the chain changed after the
    // head was read: a slot is unlinked before it is freed, W3) goes to the
    // full walk, which reads the slot the whole way (readSlot()).
    const uint32_t st = loadAcquire(s->status);
    const uint32_t rh = loadRelaxed(s->rhash);
    copyFromShared(&out, s->value(), sizeof(Stored));
    Mem::acquireFence();  // the copy's loads stay before the re-check
    // The entry's rhash sorts above the bound, which also keeps a corrupt
    // link that leads back from going round, and within the bucket: the
    // slot's rhash and the key's hash must pick the bucket with the count
    // the walk stands on. A resize in flight (where the tolerance of half or
    // twice the count applies) goes to the full walk, as corruption does.
    if ((st & (kOccupied | kLookaside)) != kOccupied || loadRelaxed(s->status) != st || rh <= c.rhash ||
        rh > c.rhashMax || (Ops::hash(Ops::keyOf(out)) & mask) != c.bucket) [[unlikely]] {
      return Step::retry;
    }
    // Read before the re-check, which then covers it too (R8).
    const uint32_t after = s->next.load().ref;
    // R2 + R3 before the answer.
    if (recheckInline(*head).version != c.version || recheckWord(*countRef) != c.countWord) [[unlikely]] {
      return Step::retry;
    }
    // The chain's next slot, fetched while f runs (slot 0 at a chain's
    // end: no branch on it, see readAheadSlot()).
    if constexpr (kAhead) prefetchSlot(slot0, withinOrZero(after, mapped));
    c.rhash = rh;
    c.next = after;
    return Step::found;
  }
}

template <TableOps Ops>
bool BrumeReader<Ops>::nextLoop(const Key* key, Stored& out, Cursor& c) {
  // Where the walk resumes: after (r, *key) in chain order. A valid cursor
  // gives the rhash its entry's slot had, or the bound below a bucket the
  // step had crossed into (every rhash below it was passed): it needs no
  // hashing, and a stored key whose hash disagrees with its slot's rhash
  // cannot send the walk back.
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
            c = {true, b, hv.version, rh, rb | ~bits_.own, std::bit_cast<uint64_t>(nb), next, 0};
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
