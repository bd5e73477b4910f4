// BrumeWriter: the single writer of a shared-memory table.
//
// It inserts, updates and removes entries so that readers in other processes,
// which take no lock, never see a half-written entry or a broken chain, grows
// the files when they fill and shrinks them when they empty, and posts every
// changed slot to the notification queue. A per-table writer lock keeps a
// second writer process off the files; the kernel releases it when the
// process dies.
//
// Ordering invariants (readers rely on them; see brume_reader.h R1-R4):
//   W1. A slot becomes reachable only through one release store of a link
//       (setRefAtomic) made after its next, rhash, body and status were
//       written.
//   W2. Every store into a link of bucket b's chain (a slot's next, including
//       the end marker) is followed by a store to bucket b's head that
//       advances its version; a store to the head advances it too. A reader
//       that sees the head's version unchanged knows no link of the chain
//       changed meanwhile.
//   W3. A removed or moved slot is unlinked (W2) before its status, next,
//       rhash or body change; only then is it freed and possibly reused. A
//       linked slot's rhash never changes (writeBody leaves it alone).
//   W4. A slot body is rewritten only between two status stores: +2
//       (LOOKASIDE set, release, then a release fence) before the body and
//       (status + 2) | OCCUPIED (release) after it. An occupied slot's new
//       value is first copied to the lookaside slot, under a release fence,
//       and at a moment when no slot has LOOKASIDE set.
//   W5. Doubling: every upper bucket gets its chain before numBuckets is
//       published (release); lower chains are cut only after. Halving:
//       chains are joined before the smaller count is published.
//   W6. Files only get longer while attached, and numSlots is published
//       after the new slots are formatted; a reader's mapping never runs
//       past the end of its file. Shrinking lowers the published count and
//       gives the pages past the last slot back, the length unchanged.
//
// Pointers returned by write(), lookup() and directWrite() stay valid until
// the next call that may grow the table (write, directWrite, remove).
//
// directWrite()/directCommit(): the caller fills the returned value in place
// with plain stores; readers of an existing entry are served the previous
// value from the lookaside slot meanwhile. (ThreadSanitizer sees the plain
// stores race with a reader's discarded copy; use write() in TSan tests.)
//
// Thread-safety: one thread per writer object; one writer per table.
#pragma once

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/engine/internal/writer_files.h"
#include "mroute/table/engine/internal/writer_hash_map.h"
#include "mroute/table/engine/table_config.h"

namespace Brume {

struct WriterCounters {
  uint64_t writes = 0;
  uint64_t updates = 0;
  uint64_t removes = 0;
  uint64_t moves = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t slotShrinks = 0;
};

enum class MountStatus { detached, attached };

template <TableOps Ops>
class BrumeWriter {
 public:
  using Key = typename Ops::Key;
  using Stored = typename Ops::Stored;

  BrumeWriter(const Mem::RootPath& root, const TableConfig& config, Mem::ShmFs& fs = Mem::systemShmFs())
      : files_(root, config, sizeof(Stored), &kDefault, &rhashOfValue, fs), map_(files_.slots(), files_.buckets()) {
    static_assert(sizeof(Stored) % 8 == 0 && alignof(Stored) <= 8, "slots keep their links 8-byte aligned");
  }
  ~BrumeWriter() {
    if (files_.attached() && directSlot_ == kNoRef) detach();
  }
  BrumeWriter(const BrumeWriter&) = delete;
  BrumeWriter& operator=(const BrumeWriter&) = delete;

  // Takes the writer lock, then maps or creates the files: existing files are
  // re-used when they pass the header checks and the deep validator and are
  // re-formatted (their entries lost) otherwise. Removes the
  // "corruption-detected" marker. False (traced) on failure.
  bool attach() {
    if (!files_.attach()) return false;
    ConquerWriter* q = files_.conquer();
    if (q != nullptr) q->shrinkCompleteIs([this] { shrinkInProgress_ = false; });
    shrinkThreshold_ = files_.slots().shrinkThreshold();
    return true;
  }

  // Inserts or updates the entry whose key v carries. With update false an
  // existing entry is kept and returned as it is.
  // Raises Pavo::InvalidInitializeException, saying why the attach failed,
  // when the writer is not attached (also remove() and directWrite()).
  const Stored* write(const Stored& v, bool update = true);
  // Removes the entry; false when absent.
  bool remove(const Key& key);
  // Null when absent or not attached.
  const Stored* lookup(const Key& key) const {
    if (!files_.attached()) return nullptr;
    const auto f = map_.find(key, Ops::hash(key), "WriterHashMap::lookup()");
    return f.found ? storedAt(f.slot) : nullptr;
  }
  // Iteration in split order (see link.h): ascending (rhash, key).
  const Stored* first() const { return files_.attached() ? firstFrom(kEndBit | 0) : nullptr; }
  const Stored* next(const Key& key) const;

  Stored* directWrite(const Key& key);
  void directCommit();

  // Compacts the slot array now if it is sparse enough.
  void shrink() {
    if (files_.attached()) doMaybeShrinkSlots(files_.slots().shrinkThreshold());
  }
  void doMaybeShrinkSlots(uint32_t threshold);

  void detach() {
    if (directSlot_ != kNoRef) pairingFault("BrumeWriter::detach() unbalanced directSlot:" + std::to_string(directSlot_));
    files_.detach();
  }
  void cleanup() { files_.cleanup(); }
  bool validate(std::string* why = nullptr) const {
    return files_.validate(why, directNew_ ? directSlot_ : kNoRef);
  }
  bool validateFiles(std::string* why = nullptr) const { return files_.validateFiles(why); }

  uint32_t capacity() const { return files_.attached() ? slotsConst().numSlots() : 0; }
  uint32_t members() const { return files_.attached() ? slotsConst().occupied() : 0; }
  uint32_t numBuckets() const { return files_.attached() ? bucketsConst().numBuckets() : 0; }
  uint32_t maxSize() const { return slotsConst().params().maxSlots; }
  uint32_t minSize() const { return slotsConst().params().minSlots; }
  uint64_t sequence() const { return conquerConst() != nullptr ? conquerConst()->sequence() : 0; }
  uint32_t emberId() const { return files_.ember(); }
  MountStatus mountStatus() const { return files_.attached() ? MountStatus::attached : MountStatus::detached; }
  // Why the last attach() failed: held by another writer (with its pid when
  // known), no space, no permission, a bad root, ...
  const AttachStatus& attachStatus() const { return files_.attachStatus(); }
  // Records why the owner stopped before attach(), for attachStatus().
  void attachRefused(const std::string& why) { files_.attachRefused(why); }
  uint32_t shrinkThreshold() const { return shrinkThreshold_; }
  bool shrinkInProgress() const { return shrinkInProgress_; }
  const WriterCounters& writerCounters() const { return counters_; }
  ConquerWriter* conquer() { return files_.conquer(); }
  const Mem::RootPath& root() const { return files_.root(); }

 private:
  static inline const Stored kDefault{};
  static uint32_t rhashOfValue(const unsigned char* value) {
    Stored copy;
    std::memcpy(&copy, value, sizeof(Stored));
    return bitReverse(Ops::hash(Ops::keyOf(copy)));
  }

  SlotWriterTable& slots() { return files_.slots(); }
  const SlotWriterTable& slotsConst() const { return const_cast<WriterFiles&>(files_).slots(); }
  const BucketWriterTable& bucketsConst() const { return const_cast<WriterFiles&>(files_).buckets(); }
  const ConquerWriter* conquerConst() const { return const_cast<WriterFiles&>(files_).conquer(); }
  Stored* storedAt(uint32_t slot) const {
    return reinterpret_cast<Stored*>(const_cast<WriterFiles&>(files_).slots().slot(slot)->value());
  }
  // The first entry from the bucket an end marker names, in split order.
  const Stored* firstFrom(uint32_t marker) const;
  void notify(uint32_t slot) {
    if (ConquerWriter* q = files_.conquer()) q->notify(slot);
  }
  // A new slot is fully written: link it in and account for it.
  void linkNew(const typename WriterHashMap<Ops>::FindResult& f, uint32_t slot);
  uint32_t allocSlot(uint32_t rhash);
  // The error of a change asked of a writer that is not attached.
  void requireAttached(const char* who) const {
    if (!files_.attached()) [[unlikely]] notAttached(who);
    files_.requireWhole(who);
  }
  [[noreturn, gnu::cold, gnu::noinline]] void notAttached(const char* who) const {
    const AttachStatus& st = files_.attachStatus();
    throw Pavo::InvalidInitializeException(std::string(who) + " Brume table not attached" +
                                           (st.message.empty() ? std::string() : ": " + st.message));
  }
  // Direct write pairing faults are programming errors: a fatal assertion
  // whose text describes the unbalanced slot.
  [[noreturn]] void pairingFault(const std::string& text) const {
    Mroute::assertFailed(text.c_str(), __FILE__, __LINE__);
  }
  // "<slot> containing value:<key of its value>" for pairing faults.
  std::string directText() const;
  // write()'s reports, out of line so that its frame stays small.
  [[noreturn, gnu::cold, gnu::noinline]] void unbalancedWrite(const Key& key) const;
  [[gnu::cold, gnu::noinline]] void traceWrite(const char* what, const Key& key, uint32_t bucket,
                                               uint32_t slot) const;

  WriterFiles files_;
  WriterHashMap<Ops> map_;
  const Mroute::Trace::Facility* trace_ = &brumeTrace();
  WriterCounters counters_;
  uint32_t shrinkThreshold_ = 0;
  bool shrinkInProgress_ = false;
  uint32_t directSlot_ = kNoRef;
  bool directNew_ = false;
  typename WriterHashMap<Ops>::FindResult directFind_{};
};

}  // namespace Brume

#include "mroute/table/engine/internal/brume_writer_inl.h"
