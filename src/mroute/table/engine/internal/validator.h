// Validator: the deep check the writer runs on files it attaches to. It walks
// the free list and every hash chain, marks each slot once and compares the
// counts with the header; with a notification view it also checks that every
// occupied slot's notification position is in the queue and unique.
//
// Each chained slot must also sit in the bucket its rhash names, in
// ascending rhash order, with an rhash that matches its key; a slot that is
// neither free nor chained is reported as leaked.
//
// Every finding raises Pavo::CorruptionDetectedException inside; validate()
// catches it, traces "Validator::validate caught:" and returns false.
//
// Thread-safety: the writer thread, before readers are told the table exists
// (it reads plain, non-atomic).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mroute/table/engine/internal/bucket_file.h"
#include "mroute/table/engine/internal/slot_file.h"

namespace Brume {

// What the validator needs of the notification queue: its size and the
// position of each slot's live notification (kNoRef when it has none).
struct NotificationView {
  uint32_t size = 0;
  std::function<uint32_t(uint32_t slot)> positionOf;
};

class Validator {
 public:
  // REQUIRES: both headers passed their header checks and the mappings hold
  // numSlots slots and numBuckets buckets.
  // rhashOf, when given, recomputes a stored value's reversed key hash, to
  // check each slot's rhash against its key.
  Validator(const SlotTable::Header* slots, uint32_t slotSize, const BucketTable::Header* buckets,
            const NotificationView* notifications = nullptr,
            std::function<uint32_t(const unsigned char* value)> rhashOf = nullptr);

  bool validate(std::string* why = nullptr);
  // A slot the writer took off the free list for a direct write that is not
  // committed yet: neither free nor chained, and not leaked.
  void pendingSlotIs(uint32_t slot) { pending_ = slot; }

 private:
  void walkFreeSlots();
  void walkOccupiedSlots();
  void findLeakedSlots();
  void markOccupied(uint32_t slot);
  const Slot* slot(uint32_t i) const { return SlotTable::slotAt(slots_, slotSize_, i); }

  const SlotTable::Header* slots_;
  uint32_t slotSize_;
  const BucketTable::Header* buckets_;
  const NotificationView* notifications_;
  std::function<uint32_t(const unsigned char*)> rhashOf_;
  uint32_t numSlots_;
  uint32_t pending_ = kNoRef;
  std::vector<uint8_t> marks_;
  std::vector<uint8_t> positions_;
};

}  // namespace Brume
