// SlotWriterTable: the writer's side of the "slots" file: create or attach,
// allocate and free slots through the free list, grow (doubling, then a tenth
// past the soft maximum), purge and shrink.
//
// Thread-safety: used by the table's one writer thread only. Readers in other
// processes see the file concurrently; the invariants they rely on are listed
// in brume_writer.h (W1-W6). Slot pointers are invalidated by grow() (the
// mapping may move): keep indexes across calls, not pointers.
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/shm/shm_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

struct SlotParams {
  std::string name;  // table name for messages
  std::string valueType;
  std::string classType;
  uint32_t valueSize = 0;
  const void* defaultValue = nullptr;  // valueSize bytes
  uint32_t initialSlots = 1;
  uint32_t maxSlots = 1;
  uint32_t minSlots = 1;
  uint32_t config = 0;  // kConfig* flags
};

class SlotWriterTable {
 public:
  SlotWriterTable(Mem::ShmFs& fs, const Mem::RootPath& root, SlotParams params);
  ~SlotWriterTable() { detach(); }
  SlotWriterTable(const SlotWriterTable&) = delete;
  SlotWriterTable& operator=(const SlotWriterTable&) = delete;

  // Opens the file, creating and formatting it when missing or when
  // `reformat` is set. *existed tells whether an existing file was kept (it
  // then still has to be validated). False with *why on a system failure.
  bool attach(uint32_t ember, bool reformat, bool* existed, std::string* why);
  // Header checks of the mapped file (slot_file.h).
  bool validateHeader(uint32_t ember, std::string* why) const;
  // The header checks that do not look at occupiedSlots and freeSlots.
  bool validateFixedHeader(uint32_t ember, std::string* why) const;
  // Takes the configured maximum and flags into the header (checksum too).
  void adoptConfig();
  // Maps the whole slot array the header announces (after validateHeader).
  bool mapAll(std::string* why);
  void detach();
  // Unmaps and removes the file.
  void cleanup();

  bool attached() const { return file_.isMapped(); }
  SlotTable::Header* header() const { return reinterpret_cast<SlotTable::Header*>(file_.base()); }
  Slot* slot(uint32_t i) const { return SlotTable::slotAt(file_.base(), slotSize_, i); }
  Slot* lookaside() const { return header()->lookaside(); }
  uint32_t slotSize() const { return slotSize_; }
  uint32_t valueSize() const { return params_.valueSize; }
  // The writer's own count, not the header's: it alone changes the count, and
  // a header another process damaged must not send it past the mapping.
  uint32_t numSlots() const { return numSlots_; }
  uint32_t occupied() const { return header()->occupiedSlots; }
  uint32_t freeHead() const { return header()->freeSlots; }
  const SlotParams& params() const { return params_; }
  bool fixedCapacity() const { return (params_.config & kConfigFixedCapacity) != 0; }
  bool shrinkEnabled() const { return (params_.config & kConfigShrinkSlots) != 0; }
  uint8_t* base() const { return file_.base(); }
  // The file, when it shrank under the mapping (another process truncated it).
  const Mem::ShmFile* shrunk() const { return file_.shrankUnderMapping() ? &file_ : nullptr; }

  // Takes the head of the free list, growing first when it is empty, and
  // stores rhash in it. Raises Brume::TableFullException when no slot can be
  // had and Pavo::CorruptionDetectedException when the free list is broken.
  uint32_t alloc(uint32_t rhash) {
    SlotTable::Header* h = header();
    const uint32_t i = h->freeSlots;
    const uint32_t n = numSlots();
    // kNoRef (an empty list) is out of range too.
    if (i >= n) [[unlikely]] return allocSlow(rhash);
    Slot* s = slot(i);
    const uint32_t next = s->next.loadRelaxed().ref;
    if (next >= n && next != kNoRef) [[unlikely]] badFreeSlot(next);
    storeRelaxed(h->freeSlots, next);
    storeRelaxed(s->rhash, rhash);
    return i;
  }
  // Pushes slot i (already unlinked from its chain, W3) on the free list.
  void release(uint32_t i);
  void occupiedIs(uint32_t n) { storeRelaxed(header()->occupiedSlots, n); }

  // Doubles numSlots up to maxSlots, then adds a tenth. False when capacity
  // is fixed or the file cannot be enlarged.
  bool grow();
  // Drops every free slot >= target from the free list.
  void purgeFreeSlots(uint32_t target);
  // Pushes [start, end) on the (empty) free list.
  void addFreeSlots(uint32_t start, uint32_t end);
  // Copies rhash and value of `from` into the free slot `to` (< from) and
  // marks it occupied; `to` must already be taken off the free list.
  void move(uint32_t from, uint32_t to);
  // Publishes the smaller numSlots after a shrink and returns the pages past
  // the last slot; the file keeps its length (W6) so that a reader still
  // walking a moved slot never faults.
  void shrinkTo(uint32_t newNumSlots);
  // The largest power of two strictly below numSlots when slot shrinking is
  // on (0 otherwise).
  uint32_t shrinkThreshold() const;

  // Writes a whole new value into slot s by the status-word protocol (W4):
  // an occupied slot's readers are served the new value from the lookaside
  // slot while the slot itself is rewritten.
  void writeBody(Slot* s, const void* value) { writeBodyOfSize(s, value, params_.valueSize); }
  // The same for a value size known when compiling: the two copies become
  // plain moves instead of calls. REQUIRES: size == the table's value size
  template <uint32_t size>
  void writeBodyOf(Slot* s, const void* value) {
    writeBodyOfSize(s, value, size);
  }
  // The two halves of the same protocol around an in-place fill by the
  // caller (direct write): an occupied slot's current value is copied to the
  // lookaside slot first, so readers keep seeing it until endBodyWrite.
  void beginBodyWrite(Slot* s);
  void endBodyWrite(Slot* s);

 private:
  // Takes the count from the header: after attaching, and after formatting.
  void adoptCount() { numSlots_ = header()->numSlots.loadRelaxed().ref; }
  bool resizeFile(uint32_t slots);
  // alloc() when the free list is empty (grow first) or its head is bad.
  [[gnu::noinline]] uint32_t allocSlow(uint32_t rhash);
  [[noreturn, gnu::cold, gnu::noinline]] void badFreeSlot(uint32_t i) const;
  [[gnu::always_inline]] void writeBodyOfSize(Slot* s, const void* value, uint32_t size) {
    const uint32_t st = s->status;
    if ((st & kOccupied) != 0) {
      Slot* look = lookaside();
      // W4: no slot has LOOKASIDE set now. The fence orders the previous
      // update's final status before these stores for a reader that still
      // copies the lookaside slot on behalf of that update.
      Mem::releaseFence();
      storeRelaxed(look->rhash, s->rhash);
      copyToShared(look->value(), value, size);
    }
    storeRelease(s->status, st + kLookaside);
    // Readers that copy the body below and then re-check the status see the
    // changed status (fence-to-fence with their acquire fence).
    Mem::releaseFence();
    copyToShared(s->value(), value, size);
    storeRelease(s->status, (st + 2 * kLookaside) | kOccupied);
  }

  Mem::ShmFs* fs_;
  Mem::RootPath root_;
  SlotParams params_;
  uint32_t slotSize_;
  uint32_t numSlots_ = 0;
  Mem::ShmFile file_;
  std::string growError_;  // why the last growth could not enlarge the file
};

}  // namespace Brume
