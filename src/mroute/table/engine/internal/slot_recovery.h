// Recovery of what a writer killed in the middle of an operation leaves
// behind, run by the next writer on attach before the deep validator.
//
// Every operation of the writer is a sequence of single stores (W1-W6 in
// brume_writer.h); a kill between two of them leaves one of these, and
// nothing else:
//   - a slot taken off the free list but never linked, or unlinked but never
//     put back (a leaked slot): it is neither free nor in a chain;
//   - occupiedSlots or freeSlots not yet updated, or a grown free list not
//     yet covered by numSlots;
//   - a bucket split or join half done: a chain that runs on into entries of
//     another bucket, or ends in the marker of the other bucket count;
//   - an in-place update with LOOKASIDE still set (the lookaside slot holds a
//     whole value of that key).
// Recovery cuts each chain before its first slot that does not belong there,
// sets the end markers the bucket count calls for, finishes a stuck update
// from the lookaside slot, rebuilds the free list from every slot that no
// chain reaches and recounts occupiedSlots. A chained entry is never dropped
// unless it is out of place (then it was also in another chain, or the file
// is damaged, which the validator still reports).
//
// Thread-safety: the writer thread, holding the writer lock. Readers of the
// previous incarnation may still walk the chains: links change only by
// atomic stores that advance the bucket head's version (W2).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "mroute/table/engine/internal/bucket_writer.h"
#include "mroute/table/engine/internal/slot_writer.h"

namespace Brume {

struct RecoveryReport {
  uint32_t leakedSlots = 0;     // slots put back on the free list
  uint32_t cutChains = 0;       // chains cut or given their end marker
  uint32_t finishedUpdates = 0; // LOOKASIDE updates completed
  bool countsFixed = false;     // occupiedSlots or freeSlots rewritten
  bool changed() const { return leakedSlots != 0 || cutChains != 0 || finishedUpdates != 0 || countsFixed; }
};

// REQUIRES: both files passed their fixed header checks (magic, version,
// checksum, sizes) and numBuckets is a power of two; rhashOf recomputes a
// stored value's reversed key hash.
RecoveryReport recoverSlots(SlotWriterTable& slots, BucketWriterTable& buckets,
                            const std::function<uint32_t(const unsigned char* value)>& rhashOf);

}  // namespace Brume
