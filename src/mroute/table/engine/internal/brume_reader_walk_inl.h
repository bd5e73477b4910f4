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
    const Step s = stepOnce(out, cursor_);
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
  Cursor c;
  if (!nextLoop(nullptr, buffers[0], c)) return;
  walk(f, c, &buffers[0], &buffers[1]);
}

template <TableOps Ops>
template <typename F>
inline void BrumeReader<Ops>::walk(F& f, Cursor c, Stored* cur, Stored* prev) {
  ReadAhead ra;
  // A table of fewer buckets than a read-ahead block is too small for one.
  // One loop serves both ways: f then never leaves forEach()'s frame, and
  // what f keeps in registers stays there.
  bool ahead = numBuckets_ >= ReadAhead::kBlock;
  if (ahead) {
    c.endMarker = readAheadFrom(c.bucket, ra);
    c.item = 0;
  }
  for (;;) {
    f(std::as_const(*cur));
    if (!attached()) return;
    std::swap(cur, prev);
    const Step s = ahead ? stepAhead(*cur, c, ra) : stepOnce(*cur, c);
    if (s == Step::end) return;
    if (s == Step::retry) [[unlikely]] {
      ++counters_.walkRestarts;
      // c still stands on prev's entry: the full walk starts from there.
      // The full walk gets a cursor of its own: c's address never leaves
      // this frame, so the steps keep it in registers.
      const Key k = Ops::keyOf(*prev);
      Cursor found = c;
      if (!nextLoop(&k, *cur, found)) return;
      c = found;
      ahead = numBuckets_ >= ReadAhead::kBlock;
      if (ahead) {
        c.endMarker = readAheadFrom(c.bucket, ra);
        c.item = 0;
      }
    }
  }
}

template <TableOps Ops>
uint32_t BrumeReader<Ops>::readAheadFrom(uint32_t bucket, ReadAhead& ra) {
  constexpr uint32_t kBlock = ReadAhead::kBlock;
  const uint32_t n = numBuckets_;
  const uint32_t q = n / kBlock;
  const uint32_t shift = 32 - static_cast<uint32_t>(std::countr_zero(n));
  // Position 8i + j holds bucket reverse_k(8i + j): the low three bits of
  // the position become the top three bits of the bucket, the rest is the
  // block's base.
  static constexpr uint32_t kReverse3[kBlock] = {0, 4, 2, 6, 1, 5, 3, 7};
  for (uint32_t j = 0; j < kBlock; ++j) ra.offset[j] = q * kReverse3[j];
  // The end marker that names bucket base + offset[j] is base + endOffset[j]
  // (base + offset[j] < n <= 2^31 leaves bit 31 clear); each block keeps its
  // own endOffset[kBlock], which names the next block's base.
  for (typename ReadAhead::Block& blk : ra.blocks) {
    for (uint32_t j = 0; j < kBlock; ++j) blk.endOffset[j] = kEndBit | ra.offset[j];
  }
  // Wraps to 0 at kBlock when the table has exactly one block.
  for (uint32_t j = 0; j <= kBlock; ++j) ra.rhashOffset[j] = static_cast<uint32_t>(uint64_t{j} << shift);
  const uint32_t pos = splitPosition(bucket, n);
  const uint32_t j = pos % kBlock;
  typename ReadAhead::Block& blk = ra.blocks[0];
  blk.base = splitPosition(pos - j, n);
  blk.nextBase = successor(blk.base, q);
  blk.rhashBase = (pos - j) << shift;
  const uint32_t after = j + 1 < kBlock ? blk.base + ra.offset[j + 1] : blk.nextBase;
  ra.current = 0;
  readAheadBlock(ra, blk, j + 1);
  for (uint32_t i = 1; i < ReadAhead::kDepth; ++i) {
    const typename ReadAhead::Block& before = ra.blocks[i - 1];
    typename ReadAhead::Block& next = ra.blocks[i];
    next.base = before.base == kNoRef ? kNoRef : before.nextBase;
    next.count = 0;
    next.bad = false;
    if (next.base == kNoRef) continue;
    next.nextBase = successor(next.base, q);
    next.rhashBase = before.rhashBase + ra.rhashOffset[kBlock];
    readAheadBlock(ra, next, 0);
  }
  return kEndBit | after;
}

template <TableOps Ops>
inline void BrumeReader<Ops>::readAheadBlock(ReadAhead& ra, typename ReadAhead::Block& blk, uint32_t from) {
  constexpr uint32_t kBlock = ReadAhead::kBlock;
  const Mem::VersionedRef* heads = view_.buckets;
  const uint8_t* slot0 = view_.slot0;
  const uint32_t mapped = view_.mappedSlots;
  const uint32_t base = blk.base;
  const uint32_t nextBase = blk.nextBase;  // kNoRef past the last block
  uint32_t count = 0;
  uint32_t bad = 0;
  // The heads are loaded relaxed and ordered before the walk's reads of the
  // slots they name by one acquire fence after them all (R2 re-checks each
  // version before the answer, however much later).
  // kNoRef past the last block, which kEndBit leaves unchanged.
  blk.endOffset[kBlock] = (kEndBit | nextBase) - base;
  uint32_t bucket = from < kBlock ? base + ra.offset[from] : kNoRef;
#pragma GCC unroll 8
  for (uint32_t j = from; j < kBlock; ++j) {
    const Mem::VersionedRef::Value head = heads[bucket].loadRelaxed();
    const uint32_t ref = refOf(head);
    // Without branches: the head is kept at j, and j in the order of the
    // occupied buckets (an empty bucket's place there is overwritten by
    // the next); an empty bucket's end marker must name the bucket after
    // it; its prefetch goes to slot 0.
    blk.heads[j] = head;
    blk.order[count] = static_cast<uint8_t>(j);
    const uint32_t marker = base + blk.endOffset[j + 1];
    const uint32_t emptyMask = static_cast<uint32_t>(static_cast<int32_t>(ref) >> 31);
    bad |= (ref ^ marker) & emptyMask;
    count += 1 + emptyMask;
    prefetchSlot(slot0, withinOrZero(ref, mapped));
    bucket = marker & ~kEndBit;
  }
  Mem::acquireFence();
  blk.bad = bad != 0;
  blk.count = blk.bad ? 0 : count;
  // The heads read when the walk enters the block after.
  if (nextBase == kNoRef) return;
  for (uint32_t j = 0; j < kBlock; ++j) __builtin_prefetch(heads + nextBase + ra.offset[j]);
}

template <TableOps Ops>
void BrumeReader<Ops>::readAheadNextBlock(ReadAhead& ra) {
  constexpr uint32_t kDepth = ReadAhead::kDepth;
  typename ReadAhead::Block& left = ra.blocks[ra.current];
  // (current + 1) % kDepth, without a division or a branch.
  static_assert(kDepth == 3);
  static constexpr uint8_t kAfter[kDepth] = {1, 2, 0};
  ra.current = kAfter[ra.current];
  // The block after the one entered: its first slots were prefetched one
  // block ago, so their next links are in cache by now, or nearly. Loaded
  // as hints (a slot index past the mapping reads slot 0), they name the
  // chains' second slots, which are prefetched in turn.
  const typename ReadAhead::Block& ahead = ra.blocks[kAfter[ra.current]];
  const uint8_t* slot0 = view_.slot0;
  const uint32_t mapped = view_.mappedSlots;
  for (uint32_t i = 0; i < ahead.count; ++i) {
    const size_t first = withinOrZero(refOf(ahead.heads[ahead.order[i]]), mapped);
    const Slot* s = reinterpret_cast<const Slot*>(slot0 + first * kSlotSize);
    prefetchSlot(slot0, withinOrZero(s->next.loadRelaxed().ref, mapped));
  }
  // The block left becomes the one after that.
  left.base = ahead.base == kNoRef ? kNoRef : ahead.nextBase;
  left.count = 0;
  left.bad = false;
  if (left.base == kNoRef) return;
  left.nextBase = successor(left.base, numBuckets_ / ReadAhead::kBlock);
  left.rhashBase = ahead.rhashBase + ra.rhashOffset[ReadAhead::kBlock];
  readAheadBlock(ra, left, 0);
}

template <TableOps Ops>
inline typename BrumeReader<Ops>::Step BrumeReader<Ops>::stepSlot(Stored& out, Cursor& c, uint32_t ref,
                                                                const uint8_t* slot0,
                                                                const Mem::VersionedRef* heads, uint32_t mapped,
                                                                uint32_t mask) {
  if (ref >= mapped) [[unlikely]] return Step::retry;
  const Slot* s = reinterpret_cast<const Slot*>(slot0 + size_t{ref} * kSlotSize);
  // R1 for a slot nobody is updating: OCCUPIED without LOOKASIDE, the same
  // before and after the copy. Anything else (an update under way, or a
  // free slot in the chain, which means the chain changed after the head
  // was read: a slot is unlinked before it is freed, W3) goes to the full
  // walk, which reads the slot the whole way (readSlot()).
  const uint32_t st = loadAcquire(s->status);
  const uint32_t rh = loadRelaxed(s->rhash);
  copyFromShared(&out, s->value(), sizeof(Stored));
  Mem::acquireFence();  // the copy's loads stay before the re-check
  // The entry's rhash sorts above the bound, which also keeps a corrupt
  // link that leads back from going round, and within the bucket: the
  // slot's rhash and the key's hash must pick the bucket with the count the
  // walk stands on. A resize in flight (where the tolerance of half or
  // twice the count applies) goes to the full walk, as corruption does.
  if ((st & (kOccupied | kLookaside)) != kOccupied || loadRelaxed(s->status) != st || rh <= c.rhash ||
      rh > c.rhashMax || (Ops::hash(Ops::keyOf(out)) & mask) != c.bucket) [[unlikely]] {
    return Step::retry;
  }
  // Read before the re-check, which then covers it too (R8).
  const uint32_t after = s->next.load().ref;
  // R2 + R3 before the answer. The count word lies in the header just
  // before the bucket array: taken from heads, it costs no register.
  const Mem::VersionedRef& countRef =
      reinterpret_cast<const BucketTable::Header*>(reinterpret_cast<const uint8_t*>(heads) -
                                                   sizeof(BucketTable::Header))->numBuckets;
  if (recheckInline(heads[c.bucket]).version != c.version || recheckWord(countRef) != c.countWord) [[unlikely]] {
    return Step::retry;
  }
  c.rhash = rh;
  c.next = after;
  return Step::found;
}

template <TableOps Ops>
inline typename BrumeReader<Ops>::Step BrumeReader<Ops>::stepOnce(Stored& out, Cursor& c) {
  // The mappings and the count as they stand now: f may have used this
  // reader since the last step, and remapped.
  const uint8_t* const slot0 = view_.slot0;
  const Mem::VersionedRef* const heads = view_.buckets;
  const uint32_t mapped = view_.mappedSlots;
  const uint32_t mask = view_.bucketMask;
  // The local count must be c's, so that the masks describe c's chains; the
  // mapping then holds every bucket below it (see lookupOnce()). The shared
  // count is re-checked before the answer (R3).
  if (mask + 1 != c.numBuckets()) [[unlikely]] return Step::retry;
  // c.next was read under c.version, which the answer re-checked: it is
  // the chain's link after c's slot as the chain stood then. Every answer
  // re-checks the head against the version the walk read it at, so a chain
  // that changed since sends the step to the full walk (R8).
  uint32_t ref = c.next;
  while (isEndMarker(ref)) {
    // While the count stands the marker names the bucket's successor
    // (kNoRef after the last bucket, which kEndBit leaves unchanged);
    // anything else (a resize in flight, corruption) is verified by the
    // full walk. Checking for the very successor rather than for any later
    // bucket costs no bit reversal, and no bucket can be skipped.
    const uint32_t next = successor(c.bucket, mask + 1);
    if (ref != (kEndBit | next)) [[unlikely]] return Step::retry;
    if (next == kNoRef) return recheckWord(*view_.count) == c.countWord ? Step::end : Step::retry;
    c.bucket = next;
    // The next bucket's rhashes follow this one's: its lowest is the bound,
    // its highest one bucket's width (2^(32 - log2 n)) further.
    c.rhash = c.rhashMax;
    c.rhashMax -= view_.ownBits;
    // One atomic load: an empty bucket's end marker needs no re-check.
    const Mem::VersionedRef::Value hv = heads[next].load();
    c.version = hv.version;
    ref = hv.ref;
  }
  return stepSlot(out, c, ref, slot0, heads, mapped, mask);
}

template <TableOps Ops>
inline typename BrumeReader<Ops>::Step BrumeReader<Ops>::stepAhead(Stored& out, Cursor& c, ReadAhead& ra) {
  const uint8_t* const slot0 = view_.slot0;
  const Mem::VersionedRef* const heads = view_.buckets;
  const uint32_t mapped = view_.mappedSlots;
  const uint32_t mask = view_.bucketMask;
  // As in stepOnce(); ra was set up for c's count too.
  if (mask + 1 != c.numBuckets()) [[unlikely]] return Step::retry;
  uint32_t ref = c.next;
  if (isEndMarker(ref)) {
    // The chain's end must name the bucket after it; the buckets between
    // it and the next one ra found occupied were found empty, each with the
    // end marker that names the bucket after it.
    if (ref != c.endMarker) [[unlikely]] return Step::retry;
    const typename ReadAhead::Block* blk = &ra.blocks[ra.current];
    for (;;) {
      if (c.item < blk->count) break;
      // The block's empty buckets are passed only if their markers held.
      if (blk->bad) [[unlikely]] return Step::retry;
      if (blk->nextBase == kNoRef) {
        return recheckWord(*view_.count) == c.countWord ? Step::end : Step::retry;
      }
      readAheadNextBlock(ra);
      blk = &ra.blocks[ra.current];
      c.item = 0;
    }
    const uint32_t j = blk->order[c.item++];
    const Mem::VersionedRef::Value head = blk->heads[j];
    c.bucket = blk->base + ra.offset[j];
    c.endMarker = blk->base + blk->endOffset[j + 1];
    // Everything below the bucket was passed.
    c.rhash = blk->rhashBase + ra.rhashOffset[j] - 1;
    c.rhashMax = blk->rhashBase + ra.rhashOffset[j + 1] - 1;
    c.version = head.version;
    ref = head.ref;
  }
  return stepSlot(out, c, ref, slot0, heads, mapped, mask);
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
            c = {true, b, hv.version, rh, rb | ~bits_.own, std::bit_cast<uint64_t>(nb), next, 0, 0};
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
