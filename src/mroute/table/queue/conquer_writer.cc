#include "mroute/table/queue/conquer_writer.h"

#include <algorithm>
#include <sstream>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"

namespace Brume {

namespace {

[[noreturn]] void corrupt(const std::ostringstream& os) {
  MROUTE_TRACE(brumeTrace(), kTraceError, os.str());
  throw Pavo::CorruptionDetectedException(os.str());
}

constexpr uint32_t kNoSlot = 0xFFFFFFFFu;

// The reports of notify() and tombstone(), out of line so that their common
// path stays free of stream objects.
[[noreturn, gnu::cold, gnu::noinline]] void positionOutOfRange(const char* who, uint32_t pos, uint32_t max,
                                                                 uint32_t slot) {
  std::ostringstream os;
  os << "ConquerWriter::" << who << " conquer index out-of-range, " << (slot == kNoSlot ? "pos:" : "tomb:") << pos
     << " max:" << max;
  if (slot != kNoSlot) os << " slot:" << slot;
  corrupt(os);
}

[[noreturn, gnu::cold, gnu::noinline]] void slotMismatch(uint32_t slot, uint32_t pos) {
  std::ostringstream os;
  os << "ConquerWriter::tombstone() conquer slot mismatch, slot:" << slot << " index:" << pos;
  corrupt(os);
}

const char* tableName(uint32_t t) { return t == 0 ? "primary" : "secondary"; }

}  // namespace

ConquerWriter::ConquerWriter(std::string directory, ConquerConfig config, Mem::ShmFs& fs)
    : directory_(std::move(directory)),
      config_(config),
      fs_(&fs),
      paths_{Mem::joinPath(directory_, ConquerTable::kFileNames[0]),
             Mem::joinPath(directory_, ConquerTable::kFileNames[1])},
      files_{Mem::ShmFile(fs), Mem::ShmFile(fs)} {}

uint64_t ConquerWriter::notificationsFor(uint32_t numSlots) {
  if (numSlots == 0) return 0;
  // Twice the slots: each slot has at most one live entry outside a corral,
  // so a compaction always frees at least half of the file.
  const uint64_t n = std::max<uint64_t>(kMinNotifications, uint64_t{2} * numSlots);
  return n < Mem::VersionedRef::kNoRef ? n : 0;
}

void ConquerWriter::refreshFastPath() {
  tracked_ = static_cast<uint32_t>(positions_.size());
  fastBase_ = attached() ? files_[cur_].base() : nullptr;
  fastLimit_ = 0;
  if (fastBase_ == nullptr || corralStart_ != 0) return;
  // Never past what is mapped, whatever the header says.
  const uint64_t mapped = ConquerTable::entriesIn(files_[cur_].mappedSize());
  fastLimit_ = static_cast<uint32_t>(std::min<uint64_t>(capacityOf(cur_), mapped));
}

ConquerWriter::Counters ConquerWriter::counters() const {
  Counters c = counters_;
  const uint64_t all = sequence_ - sequenceBase_;
  // Every notify() that notifySlow() did not count took the inline path:
  // either a first notification of its slot or one that left a tombstone.
  const uint64_t inlined = all - counters_.notifications;
  c.notifications = all;
  c.uniqueNotifications += fastUnique_;
  c.tombstones += inlined - fastUnique_;
  return c;
}

// ---- Notify, tombstone ------------------------------------------------------

std::pair<uint64_t, uint32_t> ConquerWriter::entry(uint32_t pos) const {
  const ConquerTable::Entry& e = entryAt(cur_, pos);
  return {conquer::loadSequence(e), conquer::loadSlot(e)};
}

void ConquerWriter::growPositions(uint32_t slot) {
  // Grown geometrically: inserts in slot order would otherwise resize (and
  // fill) once per notification.
  positions_.resize(std::max(size_t{slot} + 1, 2 * positions_.size()), kNoPosition);
  refreshFastPath();
}

uint64_t ConquerWriter::notifySlow(uint32_t slot) {
  MROUTE_ASSERT(attached());
  MROUTE_ASSERT(slot < 0x80000000u);
  uint32_t cap = capacityOf(cur_);
  if (currentPos_ >= cap) [[unlikely]] {
    compact(prune());
    cap = capacityOf(cur_);
  }
  if (slot >= positions_.size()) [[unlikely]] growPositions(slot);
  // The slot's previous entry, if any, becomes a tombstone (which cannot
  // change the capacity).
  const uint32_t previous = positions_[slot];
  if (previous == kNoPosition) {
    ++counters_.uniqueNotifications;
  } else {
    tombstoneAt(slot, previous);
  }
  if (currentPos_ >= cap) [[unlikely]] positionOutOfRange("notify()", currentPos_, cap, kNoSlot);
  ++sequence_;
  conquer::storeEntry(entryAt(cur_, currentPos_), sequence_, slot);
  positions_[slot] = currentPos_;
  ++currentPos_;
  conquer::storeCurrentPos(header(cur_), currentPos_);  // QW1: publishes the entry
  ++counters_.notifications;
  MROUTE_TRACE(brumeTrace(), kTraceDetail,
               "ConquerWriter::notify() slot:" << slot << " sequence:" << sequence_ << " pos:" << currentPos_ - 1);
  if (news_) news_(sequence_);
  return sequence_;
}

bool ConquerWriter::inCorral(uint64_t seq) const {
  // While a shrink runs the corral is open-ended (corralEnd 0).
  return corralStart_ != 0 && seq >= corralStart_ && (corralEnd_ == 0 || seq <= corralEnd_);
}

bool ConquerWriter::tombstone(uint32_t slot) {
  MROUTE_ASSERT(attached());
  const uint32_t pos = position(slot);
  return pos != kNoPosition && tombstoneAt(slot, pos);
}

bool ConquerWriter::tombstoneAt(uint32_t slot, uint32_t pos) {
  if (pos >= currentPos_) [[unlikely]] positionOutOfRange("tombstone()", pos, currentPos_, slot);
  ConquerTable::Entry& e = entryAt(cur_, pos);
  if (conquer::loadSlot(e) != slot) [[unlikely]] slotMismatch(slot, pos);
  const uint64_t seq = conquer::loadSequence(e);
  if (inCorral(seq)) {
    // A reader catching up over a shrink must see every entry of the corral.
    MROUTE_TRACE(brumeTrace(), kTraceDetail,
                 "ConquerWriter::tombstone() ignoring tomb.seq:" << seq << " corralStart:" << corralStart_
                                                                 << " corralEnd: " << corralEnd_);
    return false;
  }
  MROUTE_TRACE(brumeTrace(), kTraceDetail,
               "ConquerWriter::tombstone() tombstoning " << pos << " with sequence:" << seq << " for slot " << slot
                                                         << " currentPos " << currentPos_);
  // QW1: one 32-bit store; a reader sees the slot or the tombstone, and the
  // slot's newer entry follows either way.
  conquer::storeWord(e.slot, ConquerTable::kTombstone);
  positions_[slot] = kNoPosition;
  ++counters_.tombstones;
  return true;
}

// ---- Prune, compact ---------------------------------------------------------

uint64_t ConquerWriter::prune() {
  if (!config_.prune) return minSeq_;
  if (waitingForReaders_) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerWriter::prune() cannot prune, waiting for readers");
    return minSeq_;
  }
  uint64_t lowest = acks_.empty() ? kNoAck : *acks_.begin();
  if (lowest == kNoAck) lowest = sequence_;
  // An acknowledgement beyond what was posted (a reader of an earlier
  // incarnation) must not prune entries not yet written.
  lowest = std::min(lowest, sequence_);
  if (lowest <= minSeq_) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::prune() cannot prune, minSeq:" << minSeq_ << " lowestSequence:" << lowest);
    return minSeq_;
  }
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "ConquerWriter::prune() pruning up to minSeq:" << lowest << " (old minSeq:" << minSeq_
                                                              << ") current sequence: " << sequence_);
  minSeq_ = lowest;  // QW5
  conquer::storeMinSeq(header(cur_), minSeq_);
  ++counters_.prunes;
  adjustCorral();
  return minSeq_;
}

void ConquerWriter::compact(uint64_t minSeq) {
  MROUTE_ASSERT(attached());
  MROUTE_ASSERT(minSeq <= minSeq_);
  const uint32_t src = cur_;
  const uint32_t dst = 1 - cur_;
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "ConquerWriter::compact() compacting " << tableName(dst) << " table conquerPos:" << currentPos_
                                                      << " minSeq:" << minSeq << " sequence_:" << sequence_);
  // First pass: check the order and count what survives.
  const ConquerTable::Entry* entries = &entryAt(src, 0);
  const uint32_t end = currentPos_;
  uint64_t live = 0;
  uint64_t prev = 0;
  for (uint32_t p = 0; p < end; ++p) {
    const uint64_t seq = conquer::loadSequence(entries[p]);
    const uint32_t slot = conquer::loadSlot(entries[p]);
    if (seq <= prev) [[unlikely]] {
      std::ostringstream os;
      os << "ConquerWriter::compact() prevNot:" << prev << " not in ascending order n.sequence:" << seq
         << " at position:" << p;
      corrupt(os);
    }
    prev = seq;
    // Counted without a branch: tombstones and live entries alternate at
    // random, which a branch predictor cannot follow.
    live += static_cast<uint64_t>(slot != ConquerTable::kTombstone) & static_cast<uint64_t>(seq > minSeq);
  }
  // The target keeps at least half of itself free for new notifications.
  const uint64_t wanted = std::max(minCapacity_, 2 * live);
  if (capacityOf(dst) < wanted && !growFile(dst, static_cast<uint32_t>(wanted))) {
    throw Pavo::MemoryResourceException("ConquerWriter::compact() cannot grow " + paths_[dst]);
  }
  // QW3: dst stopped being current with a version bump; the fence orders that
  // bump before the entry stores below for a reader still copying from dst.
  Mem::releaseFence();
  std::fill(positions_.begin(), positions_.end(), kNoPosition);
  uint32_t n = 0;
  entries = &entryAt(src, 0);  // taken again: growing dst may have moved mappings
  // Nothing survives when every reader has caught up (or none is connected).
  for (uint32_t p = 0; live != 0 && p < currentPos_; ++p) {
    const uint64_t seq = conquer::loadSequence(entries[p]);
    const uint32_t slot = conquer::loadSlot(entries[p]);
    if (slot == ConquerTable::kTombstone || seq <= minSeq) continue;
    conquer::storeEntry(entryAt(dst, n), seq, slot);
    if (slot < positions_.size()) positions_[slot] = n;
    ++n;
  }
  // QW4: the target's contents first, then name it current.
  ConquerTable::Header& d = header(dst);
  conquer::storeMinSeq(d, std::max(minSeq, minSeq_));
  conquer::storeRelaxed64(d.corralStart, corralStart_);
  conquer::storeRelaxed64(d.corralEnd, corralEnd_);
  __atomic_store_n(&d.numReaders, numReaders_, __ATOMIC_RELAXED);
  conquer::storeCurrentPos(d, n);
  conquer::storeCurrentTable(d, dst);
  d.notifications.setRefAtomic(capacityOf(dst), 1);
  ConquerTable::Header& s = header(src);
  conquer::storeCurrentTable(s, dst);
  s.notifications.setRefAtomic(capacityOf(src), 1);  // QW3: src is no longer current
  cur_ = dst;
  currentPos_ = n;
  refreshFastPath();
  ++counters_.compactions;
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "ConquerWriter::compact() switched to " << paths_[dst] << " live:" << n << " notifications:"
                                                       << capacityOf(dst));
  if (compacted_) compacted_(n);
  adjustCorral();
}

// ---- Readers ----------------------------------------------------------------

void ConquerWriter::updateSequence(uint64_t prevSeq, uint64_t seq) {
  if (prevSeq != kNoAck) {
    const auto it = acks_.find(prevSeq);
    if (it != acks_.end()) acks_.erase(it);
  }
  acks_.insert(seq);
  const bool wasWaiting = waitingForReaders_;
  waitingForReaders_ = numReaders_ > acks_.size();
  if (wasWaiting && !waitingForReaders_) updateNumReaders(numReaders_);
  const uint64_t from = prevSeq == kNoAck ? 0 : prevSeq;
  const uint64_t end = corralEnd_;
  if (end == 0 || !(from < end && end <= seq)) return;
  // Once minSeq reaches corralEnd, prune() clears the corral (which tells the
  // shrinker) and the compaction drops the corral's entries.
  const uint64_t pruneSeq = prune();
  if (pruneSeq >= end) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::updateSequence() updated seq:" << seq << " from reader will prune entire corralEnd:"
                                                                << end << " via pruneSeq:" << pruneSeq);
    compact(pruneSeq);
  } else {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::updateSequence() updated seq:" << seq << " from reader NOT prune entire corralEnd:"
                                                                << end << " via pruneSeq:" << pruneSeq);
  }
}

void ConquerWriter::readerGone(uint64_t lastSeq) {
  const auto it = acks_.find(lastSeq);
  if (it != acks_.end()) acks_.erase(it);
}

void ConquerWriter::updateNumReaders(uint32_t connected) {
  numReaders_ = connected;
  // A connected reader that has not acknowledged yet may still need anything.
  waitingForReaders_ = connected > acks_.size();
  if (attached()) __atomic_store_n(&header(cur_).numReaders, connected, __ATOMIC_RELAXED);
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "ConquerWriter::updateNumReaders() waitingForReaders:" << waitingForReaders_ << " readers:"
                                                                      << acks_.size() << " numReaders:" << connected);
}

// ---- Corral -----------------------------------------------------------------

void ConquerWriter::storeCorral() {
  refreshFastPath();
  if (!attached()) return;
  conquer::storeRelaxed64(header(cur_).corralStart, corralStart_);
  conquer::storeRelaxed64(header(cur_).corralEnd, corralEnd_);
}

void ConquerWriter::clearCorral() {
  corralStart_ = corralEnd_ = 0;
  storeCorral();
  if (shrinkComplete_) shrinkComplete_();
}

void ConquerWriter::markShrinkStart() {
  if (!config_.corral) return;
  corralStart_ = sequence_ + 1;
  corralEnd_ = 0;
  storeCorral();
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerWriter::markShrinkStart() corralStart:" << corralStart_);
}

void ConquerWriter::markShrinkEnd() {
  if (!config_.corral) {
    if (shrinkComplete_) shrinkComplete_();
    return;
  }
  if (corralStart_ != 0 && corralStart_ <= sequence_) {
    corralEnd_ = sequence_;
    storeCorral();
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::markShrinkEnd() corralStart:" << corralStart_ << " corralEnd:" << corralEnd_);
    if (config_.prune) {
      // Readers that have acknowledged the whole corral already (or no
      // reader at all) leave nothing to protect: this clears it.
      prune();
    } else if (shrinkComplete_) {
      // Without pruning nothing is ever dropped: readers will see the corral.
      shrinkComplete_();
    }
    return;
  }
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "ConquerWriter::markShrinkEnd() corralStart:" << corralStart_ << " cleared, no notification posted");
  clearCorral();
}

void ConquerWriter::adjustCorral() {
  if (corralStart_ == 0) return;
  if (corralEnd_ != 0 && corralStart_ > corralEnd_) {
    std::ostringstream os;
    os << "ConquerWriter::adjustCorral() corralStart:" << corralStart_ << " greater than corralEnd:" << corralEnd_;
    corrupt(os);
  }
  if (corralEnd_ != 0 && minSeq_ >= corralEnd_) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::adjustCorral() cleared corralStart:" << corralStart_ << " corralEnd:" << corralEnd_
                                                                      << " minSeq:" << minSeq_);
    clearCorral();
  } else if (corralStart_ < minSeq_) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::adjustCorral() adjusted corralStart from:" << corralStart_ << " to:" << minSeq_
                                                                            << " minSeq:" << minSeq_);
    corralStart_ = minSeq_;
    storeCorral();
  }
}

// ---- Validation -------------------------------------------------------------

bool ConquerWriter::validateFile(std::string* why) const {
  for (uint32_t t = 0; t < 2; ++t) {
    if (!ConquerTable::validate(files_[t].base(), files_[t].mappedSize(), ember_, why)) {
      MROUTE_TRACE(brumeTrace(), kTraceError,
                   "ConquerWriter::validateFile(): " << ConquerTable::kFileNames[t] << " validation failed");
      return false;
    }
  }
  return true;
}

bool ConquerWriter::validate(std::string* why) const {
  return validateFile(why) && validateEntries(why);
}

bool ConquerWriter::validateEntries(std::string* why) const {
  std::ostringstream os;
  const uint32_t cap = capacityOf(cur_);
  if (conquer::loadCurrentTable(header(1 - cur_)) != cur_ || conquer::loadCurrentTable(header(cur_)) != cur_) {
    os << "ConquerWriter::validate() files disagree on currentTable, expected:" << cur_;
  } else if (currentPos_ > cap || conquer::loadCurrentPos(header(cur_)) != currentPos_) {
    os << "ConquerWriter::validate() bad currentPos:" << conquer::loadCurrentPos(header(cur_))
       << " notifications:" << cap;
  } else if (corralEnd_ != 0 && corralStart_ > corralEnd_) {
    os << "ConquerWriter::validate() corralStart:" << corralStart_ << " greater than corralEnd:" << corralEnd_;
  } else {
    uint64_t prev = 0;
    for (uint32_t p = 0; p < currentPos_ && os.tellp() == 0; ++p) {
      const uint64_t seq = entry(p).first;
      if (seq <= prev) os << "ConquerWriter::validate() position:" << p << " sequence:" << seq << " not above:" << prev;
      prev = seq;
    }
    for (uint32_t slot = 0; slot < positions_.size() && os.tellp() == 0; ++slot) {
      const uint32_t pos = positions_[slot];
      if (pos != kNoPosition && (pos >= currentPos_ || entry(pos).second != slot)) {
        os << "ConquerWriter::validate() slot:" << slot << " bad conquer position:" << pos;
      }
    }
  }
  if (os.tellp() == 0) return true;
  MROUTE_TRACE(brumeTrace(), kTraceError, os.str());
  if (why != nullptr) *why = os.str();
  return false;
}

}  // namespace Brume
