// ConquerWriter: the writer's side of a table's notification queue.
//
// Every write, removal and move of a table entry appends the changed slot's
// index with a new 64-bit sequence number; the slot's previous entry becomes
// a tombstone, so a reader that catches up sees each slot once, at its latest
// change. The queue lives in two files, "conquer.1" and "conquer.2" (layout in
// internal/conquer_file.h); when the current one is full the writer prunes
// what every reader has acknowledged and compacts the live entries into the
// other file, which then becomes current.
//
// Calls the table writer makes:
//   attachConquer(numSlots, ember)  once, after attaching the slot file;
//                                   false (traced) when the files cannot be had
//   notify(slot)                    after every write, update, removal and
//                                   move, once the slot is complete; returns
//                                   the new sequence
//   tombstone(oldSlot)              when a shrink moves an entry away
//   markShrinkStart()/markShrinkEnd()  around the moves of a slot shrink; the
//                                   callback of shrinkCompleteIs() runs once
//                                   every reader has caught up over the moves
//   resize(numSlots)                after the slot table grew
//   position(slot), currentPos(), entry(pos)  for the deep validator
//   validate()/validateFile(), cleanup(), detach()
// The reader connection (a later layer) calls updateSequence(prevSeq, seq)
// for each reader acknowledgement, updateNumReaders(n) when readers come and
// go, and readerGone(lastSeq) for a reader that left.
//
// Ordering invariants that readers rely on (see ConquerReader):
//   QW1. An entry's words are stored before the release store of currentPos
//       that covers it, and never change while the file is current, except
//       the slot word turning into the tombstone (one 32-bit store).
//   QW2. A table entry is written completely before its notify(): a reader
//       that acquires currentPos past the entry sees the slot's new contents.
//   QW3. A file is rewritten (compaction target) only while it is not current.
//       When a file stops being current its notifications version is bumped
//       (release), and a release fence precedes the first entry store of the
//       rewrite, so a reader whose copy saw any rewritten word sees the bump
//       on its re-check and discards the copy.
//   QW4. A compaction target gets its entries, currentPos and minSeq before
//       its currentTable and a notifications-version bump are stored with
//       release; only then is the old file told (currentTable, version bump).
//   QW5. minSeq only grows, and never passes the lowest sequence acknowledged
//       by a connected reader.
//   QW6. Files only grow (a reader's mapping never runs past the end of the
//       file).
//   QW7. A re-formatted queue starts above every sequence the old files
//       plausibly posted, with minSeq there, so that a reader still attached
//       resynchronises instead of waiting for sequences it has seen.
//
// Thread-safety: one writer thread per table (the writer lock keeps other
// processes off); no member may be called concurrently.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume {

struct ConquerConfig {
  // Drop what every reader has acknowledged when the queue fills up. Without
  // pruning, compaction only drops tombstones and minSeq stays 0.
  bool prune = true;
  // Keep the notifications posted during a slot shrink (the corral) until
  // every reader has acknowledged them.
  bool corral = true;
};

class ConquerWriter {
 public:
  static constexpr uint32_t kNoPosition = 0xFFFFFFFFu;
  // prevSeq of a reader's first acknowledgement.
  static constexpr uint64_t kNoAck = ~uint64_t{0};
  static constexpr uint32_t kMinNotifications = 64;
  static constexpr uint64_t kMaxFileBytes = uint64_t{2} << 30;

  struct Counters {
    uint64_t notifications = 0;
    uint64_t uniqueNotifications = 0;  // notify() of a slot without a live entry
    uint64_t tombstones = 0;
    uint64_t prunes = 0;
    uint64_t compactions = 0;
  };

  ConquerWriter(std::string directory, ConquerConfig config, Mem::ShmFs& fs = Mem::systemShmFs());
  ~ConquerWriter() { detach(); }
  ConquerWriter(const ConquerWriter&) = delete;
  ConquerWriter& operator=(const ConquerWriter&) = delete;

  // Entries a queue needs for a table of numSlots slots; 0 when it cannot be
  // calculated.
  static uint64_t notificationsFor(uint32_t numSlots);

  // Maps both files: re-uses them when they are valid for `ember` (and
  // reuseExisting is set), formats them otherwise. A formatted queue goes on
  // from the highest sequence the old files held. False, with the reason
  // traced, when they cannot be made.
  bool attachConquer(uint32_t numSlots, uint32_t ember, bool reuseExisting = true);
  bool attached() const { return files_[0].isMapped() && files_[1].isMapped(); }
  // A queue file that shrank under its mapping (another process truncated
  // it), or null.
  const Mem::ShmFile* shrunk() const {
    for (const Mem::ShmFile& f : files_) {
      if (f.shrankUnderMapping()) return &f;
    }
    return nullptr;
  }
  // Why the last attach or resize could not make or map a file.
  const std::string& error() const { return error_; }

  // Appends `slot` with the next sequence and tombstones its previous entry.
  // Returns the sequence. Raises Pavo::CorruptionDetectedException when the
  // queue is corrupt or cannot make room.
  // REQUIRES: attached() && slot < 0x80000000
  uint64_t notify(uint32_t slot) {
    // Inline for the common case: room in the file, a slot seen before, no
    // corral and no per-operation tracing; fastLimit_ is 0 unless the first
    // three hold. notifySlow() does the rest, and all the reporting. No
    // counter is touched here for a slot seen before (counters() derives
    // them from the sequence).
    const uint32_t pos = currentPos_;
    if (pos >= fastLimit_ || slot >= tracked_ || trace_->enabled(kTraceDetail)) [[unlikely]] {
      return notifySlow(slot);
    }
    uint8_t* const base = fastBase_;
    uint32_t& position = positions_[slot];
    if (position != kNoPosition) {
      ConquerTable::Entry& e = *ConquerTable::entry(base, position);
      if (position >= pos || conquer::loadSlot(e) != slot) [[unlikely]] return notifySlow(slot);
      // QW1: one 32-bit store, as tombstoneAt() makes it.
      conquer::storeWord(e.slot, ConquerTable::kTombstone);
    } else {
      ++fastUnique_;
    }
    const uint64_t seq = sequence_ + 1;
    sequence_ = seq;
    conquer::storeEntry(*ConquerTable::entry(base, pos), seq, slot);
    position = pos;
    currentPos_ = pos + 1;
    conquer::storeCurrentPos(*ConquerTable::header(base), pos + 1);  // QW1: publishes the entry
    if (news_) news_(seq);
    return seq;
  }
  // Turns the slot's live entry into a tombstone unless it lies in the
  // corral. Returns whether an entry was tombstoned.
  bool tombstone(uint32_t slot);
  // Advances minSeq to what every connected reader has acknowledged (or to
  // the current sequence when none is connected). Returns minSeq.
  uint64_t prune();
  // Copies the live entries above minSeq into the other file and makes it
  // current. REQUIRES: minSeq <= this->minSeq() (a pruned sequence)
  void compact(uint64_t minSeq);

  // A reader acknowledged `seq`; its previous acknowledgement was prevSeq
  // (kNoAck for its first).
  void updateSequence(uint64_t prevSeq, uint64_t seq);
  // A reader whose last acknowledgement was lastSeq has left.
  void readerGone(uint64_t lastSeq);
  // `connected` readers are connected now.
  void updateNumReaders(uint32_t connected);
  uint32_t numReaders() const { return numReaders_; }
  bool waitingForReaders() const { return waitingForReaders_; }

  void markShrinkStart();
  void markShrinkEnd();
  void adjustCorral();
  // Called when the notifications of the last shrink need no more protection
  // (every reader acknowledged them, or the shrink posted none).
  void shrinkCompleteIs(std::function<void()> callback) { shrinkComplete_ = std::move(callback); }
  // Called after each compaction with the live notifications it kept (the
  // writer's health board records it).
  void compactedIs(std::function<void(uint64_t kept)> callback) { compacted_ = std::move(callback); }
  // Called after each notify(); the reader connection wakes readers with it.
  void newsIs(std::function<void(uint64_t sequence)> callback) { news_ = std::move(callback); }

  // Enlarges the current file when the slot table has grown.
  bool resize(uint32_t numSlots);

  // Header checks of both files.
  bool validateFile(std::string* why) const;
  // validateFile() and then the current file's entries: positions, ascending
  // sequences and the writer's remembered positions.
  bool validate(std::string* why) const;

  // Unmaps; cleanup() also removes both files.
  void detach();
  void cleanup();

  uint64_t sequence() const { return sequence_; }
  uint64_t minSeq() const { return minSeq_; }
  uint64_t corralStart() const { return corralStart_; }
  uint64_t corralEnd() const { return corralEnd_; }
  uint32_t currentTable() const { return cur_; }
  uint32_t currentPos() const { return currentPos_; }
  uint32_t capacity() const { return capacityOf(cur_); }
  // Position of the slot's live entry in the current file, or kNoPosition.
  uint32_t position(uint32_t slot) const { return slot < positions_.size() ? positions_[slot] : kNoPosition; }
  // A hint that notify(slot) follows soon: starts fetching the queue entry
  // that notify() turns into a tombstone, so that its cache and TLB misses
  // overlap the caller's value write instead of following it (the position
  // is loaded here, and nothing waits for it). Branch-free on purpose: with
  // the checks as branches GCC 12 dropped the prefetch. A prefetch never
  // faults, so a slot without an entry, or a detached queue, merely fetches
  // something harmless; the address is formed as an integer because the
  // base may be null.
  void prefetch(uint32_t slot) const {
    const uint32_t p = slot < tracked_ ? positions_[slot] : 0;
    const uintptr_t at = reinterpret_cast<uintptr_t>(fastBase_) + ConquerTable::fileSize(std::min(p, fastLimit_));
    __builtin_prefetch(reinterpret_cast<const void*>(at), 1);
  }
  // {sequence, slot} of an entry of the current file. REQUIRES: pos < currentPos()
  std::pair<uint64_t, uint32_t> entry(uint32_t pos) const;
  Counters counters() const;
  const std::string& path(uint32_t table) const { return paths_[table]; }

 private:
  uint64_t notifySlow(uint32_t slot);
  ConquerTable::Header& header(uint32_t t) const { return *ConquerTable::header(files_[t].base()); }
  ConquerTable::Entry& entryAt(uint32_t t, uint32_t pos) const { return *ConquerTable::entry(files_[t].base(), pos); }
  uint32_t capacityOf(uint32_t t) const { return header(t).notifications.loadRelaxed().ref; }
  bool reuse();
  uint64_t carriedSequence() const;
  bool format(uint32_t t, bool created);
  bool reserveFailed(uint32_t t, uint64_t bytes, const char* who);
  bool growFile(uint32_t t, uint32_t notifications);
  bool validateEntries(std::string* why) const;
  // Makes room in positions_ for `slot`.
  void growPositions(uint32_t slot);
  // tombstone() of the slot whose live entry is at pos.
  bool tombstoneAt(uint32_t slot, uint32_t pos);
  bool inCorral(uint64_t seq) const;
  // Recomputes what notify()'s inline path tests (fastLimit_, fastBase_,
  // tracked_) after anything they depend on changed: attach and detach, the
  // current file, its capacity or mapping, the corral, positions_'s size.
  void refreshFastPath();
  // Sets sequence_ without counting the jump as notifications.
  void sequenceIs(uint64_t seq) {
    sequenceBase_ += seq - sequence_;
    sequence_ = seq;
  }
  void clearCorral();
  void storeCorral();

  std::string directory_;
  ConquerConfig config_;
  Mem::ShmFs* fs_;
  std::string paths_[2];
  std::string error_;
  Mem::ShmFile files_[2];
  uint32_t ember_ = 0;
  uint32_t cur_ = 0;
  uint32_t currentPos_ = 0;  // private copy of the current header's currentPos
  uint64_t minCapacity_ = 0;
  uint64_t sequence_ = 0;
  // sequence_ - sequenceBase_ is the number of notify() calls so far: every
  // notify() advances sequence_ by one, and sequenceIs() moves both.
  uint64_t sequenceBase_ = 0;
  uint64_t minSeq_ = 0;
  uint64_t corralStart_ = 0;
  uint64_t corralEnd_ = 0;
  std::vector<uint32_t> positions_;  // slot -> position of its live entry
  std::multiset<uint64_t> acks_;     // last acknowledgement of each reader
  uint32_t numReaders_ = 0;
  bool waitingForReaders_ = false;
  std::function<void()> shrinkComplete_;
  std::function<void(uint64_t)> news_;
  std::function<void(uint64_t)> compacted_;
  // Counted by the slow paths; notify()'s inline path only counts the slots
  // it saw for the first time, in fastUnique_.
  Counters counters_;
  uint64_t fastUnique_ = 0;
  // notify()'s inline path: the current file's capacity while attached and
  // without a corral (0 otherwise), its base, and positions_.size().
  uint32_t fastLimit_ = 0;
  uint32_t tracked_ = 0;
  uint8_t* fastBase_ = nullptr;
  const Mroute::Trace::Facility* trace_ = &brumeTrace();
};

}  // namespace Brume
