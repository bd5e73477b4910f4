#include "mroute/table/engine/internal/validator.h"

#include <sstream>
#include <utility>

#include "mroute/table/shm/brume_hash.h"

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"

namespace Brume {

namespace {

[[noreturn]] void raise(const std::ostringstream& os) { throw Pavo::CorruptionDetectedException(os.str()); }

}  // namespace

Validator::Validator(const SlotTable::Header* slots, uint32_t slotSize, const BucketTable::Header* buckets,
                     const NotificationView* notifications,
                     std::function<uint32_t(const unsigned char* value)> rhashOf)
    : slots_(slots),
      slotSize_(slotSize),
      buckets_(buckets),
      notifications_(notifications),
      rhashOf_(std::move(rhashOf)),
      numSlots_(slots->numSlots.loadRelaxed().ref) {}

bool Validator::validate(std::string* why) {
  marks_.assign(numSlots_, 0);
  if (notifications_ != nullptr) positions_.assign(notifications_->size, 0);
  try {
    walkFreeSlots();
    walkOccupiedSlots();
    findLeakedSlots();
  } catch (const Pavo::CorruptionDetectedException& e) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "Validator::validate caught:" << e.what());
    if (why != nullptr) *why = e.what();
    return false;
  }
  return true;
}

void Validator::walkFreeSlots() {
  MROUTE_TRACE(brumeTrace(), kTraceDetail, "Validator::walkFreeSlots() starting");
  for (uint32_t i = slots_->freeSlots; i != kNoRef; i = slot(i)->next.loadRelaxed().ref) {
    std::ostringstream os;
    if (i >= numSlots_) {
      os << "Validator::walkFreeSlots() corrupted free slot detected with out of bound index:" << i;
      raise(os);
    }
    if (marks_[i] != 0) {
      os << "Validator::walkFreeSlots() duplicate freeSlot detected:" << i;
      raise(os);
    }
    if ((slot(i)->status & kOccupied) != 0) {
      os << "Validator::walkFreeSlots() corrupted free slot not marked as empty:" << i;
      raise(os);
    }
    marks_[i] = 1;
  }
}

// A slot that is neither free nor chained was lost by a writer that died
// between taking it off the free list and linking it (or the reverse); the
// next writer's attach gives it back.
void Validator::findLeakedSlots() {
  uint32_t leaked = 0;
  uint32_t first = kNoRef;
  for (uint32_t i = 0; i < numSlots_; ++i) {
    if (marks_[i] != 0 || i == pending_) continue;
    if (leaked++ == 0) first = i;
  }
  if (leaked != 0) {
    std::ostringstream os;
    os << "Validator::findLeakedSlots() leaked slots:" << leaked << " first slotId:" << first;
    raise(os);
  }
}

void Validator::markOccupied(uint32_t i) {
  std::ostringstream os;
  if (i >= numSlots_) {
    os << "Validator::markOccupied() out of bound slot:" << i << " numSlots:" << numSlots_;
    raise(os);
  }
  if (marks_[i] != 0) {
    os << "Validator::markOccupied() duplicate slot: " << i;
    raise(os);
  }
  marks_[i] = 2;
  const uint32_t status = slot(i)->status;
  if ((status & kOccupied) == 0) {
    os << "Validator::markOccupied() missing OCCUPIED bit: 0x" << std::hex << status;
    raise(os);
  }
  if ((status & kLookaside) != 0) {
    os << "Validator::markOccupied() stuck LOOKASIDE bit: 0x" << std::hex << status;
    raise(os);
  }
  if (notifications_ == nullptr) return;
  const uint32_t pos = notifications_->positionOf ? notifications_->positionOf(i) : kNoRef;
  if (pos == kNoRef) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "Validator::markOccupied() no notification in conquer queue" << " for occupied slotId:" << i);
    return;
  }
  if (pos >= notifications_->size) {
    os << "Validator::markOccupied() slot:" << i << " bad conquer index:" << pos << " size:" << notifications_->size;
    raise(os);
  }
  if (positions_[pos] != 0) {
    os << "Validator::markOccupied() slot:" << i << " duplicate conquer position:" << pos;
    raise(os);
  }
  positions_[pos] = 1;
}

void Validator::walkOccupiedSlots() {
  const uint32_t numBuckets = buckets_->numBuckets.loadRelaxed().ref;
  const uint32_t occupied = slots_->occupiedSlots;
  uint32_t walked = 0;
  const Mem::VersionedRef* heads = buckets_->buckets();
  for (uint32_t b = 0; b < numBuckets; ++b) {
    uint32_t ref = heads[b].loadRelaxed().ref;
    uint32_t previous = 0;
    while (!isEndMarker(ref)) {
      markOccupied(ref);
      const Slot* s = slot(ref);
      if ((bitReverse(s->rhash) & (numBuckets - 1)) != b || s->rhash < previous) {
        std::ostringstream os;
        os << "Validator::walkOccupiedSlots() slot:" << ref << " out of place in bucket:" << b << " rhash:0x"
           << std::hex << s->rhash;
        raise(os);
      }
      if (rhashOf_ && rhashOf_(s->value()) != s->rhash) {
        std::ostringstream os;
        os << "Validator::walkOccupiedSlots() slot:" << ref << " rhash does not match its key";
        raise(os);
      }
      previous = s->rhash;
      if (++walked > occupied) {
        std::ostringstream os;
        os << "Validator::walkOccupiedSlots() walkedSlots:" << walked
           << "is greater than header->occupiedSlots:" << occupied;
        raise(os);
      }
      ref = slot(ref)->next.loadRelaxed().ref;
    }
    if (ref != endMarkerAfter(b, numBuckets)) {
      std::ostringstream os;
      os << "Validator::walkOccupiedSlots() bad end marker of bucket:" << b << " marker:0x" << std::hex << ref;
      raise(os);
    }
  }
  if (walked != occupied) {
    std::ostringstream os;
    os << "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:" << occupied << " walkedSlots:" << walked;
    raise(os);
  }
}

}  // namespace Brume
