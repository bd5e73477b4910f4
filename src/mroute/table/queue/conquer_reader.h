// ConquerReader: a reader's walk of a table's notification queue.
//
// The reader maps "conquer.1" and "conquer.2" read-only, walks the current
// file from the last sequence it delivered and hands each named slot, in
// sequence order, to its consumer, which then reads the slot from the slot
// file. Tombstones (entries superseded by a later one of the same slot) are
// skipped, so each slot is delivered at its latest change. When the writer
// compacted into the other file, the reader finds its place there again by
// sequence (findPosition). A reader whose last sequence fell below minSeq has
// missed notifications: conquer() answers Walk::resync, and the owner calls
// resynchronize() and re-reads its whole view from the slot file.
//
// Ordering the reader relies on (the writer's side is QW1..QW6 in
// conquer_writer.h):
//   QR1. A file is read only after its notifications version was loaded
//       (acquire) and the file named itself current; the version is kept.
//   QR2. Entries below currentPos, loaded with acquire, are complete (QW1), and
//       so are the table slots they name (QW2).
//   QR3. Entries copied from shared memory are used only after an acquire
//       fence and a re-load of the version that shows no change (QW3, QW4);
//       otherwise the copy is dropped and the reader relocates.
//   QR4. The reader never stores to the queue files: both are mapped
//       read-only.
//
// Thread-safety: one thread per ConquerReader; any number of readers in any
// processes walk concurrently with the writer, without locks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume {

class ConquerReader {
 public:
  static constexpr uint64_t kNoAck = ~uint64_t{0};

  enum class Walk {
    upToDate,  // nothing new
    consumed,  // delivered at least one slot
    resync,    // notifications were missed: resynchronize() and re-read all
  };
  // Receives each changed slot with the sequence of its notification.
  using Consumer = std::function<void(uint32_t slot, uint64_t sequence)>;
  // Carries an acknowledgement to the writer (ConquerWriter::updateSequence);
  // prevSeq is kNoAck for the reader's first.
  using Ack = std::function<void(uint64_t prevSeq, uint64_t seq)>;

  struct Counters {
    uint64_t walks = 0;
    uint64_t delivered = 0;
    uint64_t restarts = 0;  // the file changed under a copy or a search
    uint64_t resyncs = 0;
  };

  explicit ConquerReader(std::string directory, Mem::ShmFs& fs = Mem::systemShmFs());
  ConquerReader(const ConquerReader&) = delete;
  ConquerReader& operator=(const ConquerReader&) = delete;

  // Maps and checks both files; ember 0 expects none. False, with the reason
  // traced, when they are missing or invalid. Starts before sequence 1.
  bool initialize(uint32_t expectedEmber);
  // The same, expecting the ember the table directory's ember file names
  // (false, traced, when it cannot be read).
  bool initialize();
  // Maps both files read-only (initialize() does this first).
  bool attachConquer();
  void detach();
  bool attached() const { return files_[0].isMapped() && files_[1].isMapped(); }

  // Delivers every slot notified since the last walk, in sequence order, then
  // acknowledges the sequence reached. Raises
  // Pavo::CorruptionDetectedException when the queue is corrupt.
  // REQUIRES: attached()
  Walk conquer(const Consumer& consumer);
  // Skips to the current end of the queue and returns its sequence; the
  // owner then re-reads the whole table (every later change is delivered by
  // the next walks).
  uint64_t resynchronize();
  // Position in the current file of the first entry whose sequence is at
  // least seq; restarts when the file switches during the search. Leaves the
  // reader on that file.
  uint32_t findPosition(uint64_t seq);
  // Maps file `table` far enough for `notifications` entries.
  bool doResize(uint32_t table, uint32_t notifications);
  // The writer answered an acknowledgement with its minSeq: true when this
  // reader has missed notifications.
  bool handleAck(uint64_t minSeq) const;

  void ackIs(Ack ack) { ack_ = std::move(ack); }
  uint64_t lastSequence() const { return lastSeq_; }
  uint32_t currentTable() const { return tableId_; }
  uint32_t emberId() const { return ember_; }
  const Counters& counters() const { return counters_; }

 private:
  enum class Step { done, relocate, resync };
  Step doConquer(const Consumer& consumer);
  void locate();
  bool stable() const;
  [[noreturn]] void corrupt(const std::string& text) const;
  const ConquerTable::Header& header(uint32_t t) const { return *ConquerTable::header(files_[t].base()); }

  std::string directory_;
  std::string paths_[2];
  Mem::ShmFs* fs_;
  Mem::ShmFile files_[2];
  uint32_t ember_ = 0;
  // Where the walk stands: file, its notifications version and capacity when
  // it was found current (QR1), the next position and the last sequence.
  uint32_t tableId_ = 0;
  uint32_t version_ = 0;
  uint32_t capacity_ = 0;
  bool located_ = false;
  uint32_t pos_ = 0;
  uint64_t lastSeq_ = 0;
  uint64_t acked_ = kNoAck;
  Ack ack_;
  Counters counters_;
};

}  // namespace Brume
