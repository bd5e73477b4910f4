#include "mroute/table/engine/internal/slot_writer.h"

#include <unistd.h>

#include <atomic>
#include <sstream>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"

namespace Brume {

SlotWriterTable::SlotWriterTable(Mem::ShmFs& fs, const Mem::RootPath& root, SlotParams params)
    : fs_(&fs),
      root_(root),
      params_(std::move(params)),
      slotSize_(params_.valueSize + static_cast<uint32_t>(sizeof(Slot))),
      file_(fs) {}

bool SlotWriterTable::attach(uint32_t ember, bool reformat, bool* existed, std::string* why) {
  *existed = false;
  bool created = false;
  if (!file_.openOrCreate(root_.file(kSlotFileName), &created)) {
    *why = "SlotWriter::attach() cannot open: " + file_.error();
    return false;
  }
  MROUTE_TRACE(brumeTrace(), kTraceSize, "SlotWriter::attach() wanted capacity:" << params_.initialSlots);
  if (!created && !reformat) {
    const int64_t size = file_.fileSize();
    if (size > 0 && !file_.map(static_cast<size_t>(size))) {
      *why = "SlotWriter::attach() cannot map: " + file_.error();
      return false;
    }
    if (size > 0) {
      *existed = true;
      adoptCount();
      MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::attach() to existing " << file_.path());
      return true;
    }
    // An empty file (a writer died right after creating it) is formatted.
  }
  const size_t bytes = SlotTable::fileSize(slotSize_, params_.initialSlots);
  file_.unmap();
  const bool replace = !created && file_.fileSize() > 0;
  if (replace) {
    // Readers may map the old file: it is replaced whole, never shortened.
    file_.close();
    if (!file_.createReplacement(root_.file(kSlotFileName), bytes)) {
      *why = "SlotWriter::attach() cannot size " + root_.file(kSlotFileName) + ": " + file_.error();
      return false;
    }
  } else if (!file_.reserve(bytes) || !file_.map(bytes)) {
    *why = "SlotWriter::attach() cannot size " + file_.path() + ": " + file_.error();
    return false;
  }
  SlotTable::format(file_.base(), {ember, params_.valueType, params_.classType, params_.valueSize,
                                   params_.maxSlots, params_.config, params_.initialSlots, params_.defaultValue});
  adoptCount();
  if (replace && !file_.publishAs(root_.file(kSlotFileName))) {
    *why = "SlotWriter::attach() cannot replace " + root_.file(kSlotFileName) + ": " + file_.error();
    return false;
  }
  if (created) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::attach() to new file " << file_.path());
  } else {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::attach() re-formatted " << file_.path());
  }
  return true;
}

bool SlotWriterTable::validateHeader(uint32_t ember, std::string* why) const {
  if (!file_.isMapped()) {
    *why = "SlotTable::Header::validate() bad header file size: 0 wanted:" +
           std::to_string(SlotTable::fixedSize(slotSize_));
    return false;
  }
  return header()->validate(file_.mappedSize(), slotSize_, ember, why);
}

bool SlotWriterTable::validateFixedHeader(uint32_t ember, std::string* why) const {
  return file_.isMapped() && header()->validateFixed(file_.mappedSize(), slotSize_, ember, why);
}

void SlotWriterTable::adoptConfig() {
  SlotTable::Header* h = header();
  // A reader validating the header meanwhile may see a checksum fail, report
  // it and retry; the writer mounter then finds the table sound.
  storeRelaxed(h->maxSlots, params_.maxSlots);
  storeRelaxed(h->config, params_.config);
  storeRelaxed(h->hash, h->computeHash());
}

bool SlotWriterTable::mapAll(std::string* why) {
  const size_t need = SlotTable::fileSize(slotSize_, numSlots());
  if (file_.mappedSize() >= need) return true;
  if (!file_.remap(need)) {
    *why = "SlotWriter::attach() cannot map: " + file_.error();
    return false;
  }
  return true;
}

void SlotWriterTable::detach() { file_.close(); }

void SlotWriterTable::cleanup() {
  const std::string path = root_.file(kSlotFileName);
  file_.close();
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::cleanup() removing file:" << path);
  Mem::unlinkShmFile(*fs_, path, nullptr);
}

uint32_t SlotWriterTable::allocSlow(uint32_t rhash) {
  if (header()->freeSlots == kNoRef && !grow()) {
    std::ostringstream os;
    os << "SlotWriter::alloc() Brume table full (occupancy:" << occupied() << " tableSize:" << params_.maxSlots
       << ") " << params_.name;
    if (!growError_.empty()) os << ": " << growError_;
    throw Brume::TableFullException(os.str());
  }
  const uint32_t i = header()->freeSlots;
  if (i >= numSlots()) badFreeSlot(i);
  return alloc(rhash);
}

void SlotWriterTable::badFreeSlot(uint32_t i) const {
  std::ostringstream os;
  os << "SlotWriter::alloc() bad free slot:" << i << " numSlots:" << numSlots();
  throw Pavo::CorruptionDetectedException(os.str());
}

void SlotWriterTable::release(uint32_t i) {
  SlotTable::Header* h = header();
  Slot* s = slot(i);
  storeRelease(s->status, s->status & ~(kOccupied | kLookaside));
  s->next.setRefAtomic(h->freeSlots, kLinkIncrement);
  storeRelaxed(h->freeSlots, i);
}

bool SlotWriterTable::resizeFile(uint32_t slots) {
  const size_t bytes = SlotTable::fileSize(slotSize_, slots);
  uint8_t* old = file_.base();
  // The file only ever gets longer while attached (W6), and every page of
  // the slots is reserved before a store can touch it: the range may hold
  // pages a shrink gave back.
  growError_.clear();
  if (!file_.reserve(bytes)) {
    growError_ = file_.error();
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "SlotWriter::resize() failed to resize " << slots << " slots, needed " << bytes
                                                          << " bytes. Reason: " << file_.error());
    return false;
  }
  // A mapping that already covers the slots (the table shrank and grows
  // again) stays as it is.
  if (file_.mappedSize() < bytes && !file_.remap(bytes)) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "SlotWriter::resize() failed to resize " << slots << " slots, needed " << bytes
                                                          << " bytes. Reason: " << file_.error());
    return false;
  }
  if (file_.base() != old) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "SlotWriter::resize() remap base address changed from " << static_cast<void*>(old) << " to "
                                                                         << static_cast<void*>(file_.base()));
  }
  return true;
}

bool SlotWriterTable::grow() {
  const uint32_t n = numSlots();
  if (occupied() != n) {
    std::ostringstream os;
    os << "SlotWriter::grow() the slot table is full but numSlots: " << n << " and occupiedSlots: " << occupied()
       << " are not equal";
    throw Pavo::CorruptionDetectedException(os.str());
  }
  if (fixedCapacity()) return false;
  uint64_t wanted;
  if (n < params_.maxSlots) {
    wanted = std::min<uint64_t>(std::max<uint64_t>(2ull * n, 1), params_.maxSlots);
  } else {
    // The maximum is soft: past it the table keeps growing by a tenth, and
    // only a failure to enlarge the file makes it full.
    wanted = static_cast<uint64_t>(n * 1.1);
    if (wanted <= n) wanted = n + 1;
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::resize() overflowing by " << (wanted - n));
  }
  if (wanted >= kEndBit) return false;  // slot indexes must keep bit 31 clear
  const auto next = static_cast<uint32_t>(wanted);
  if (!resizeFile(next)) return false;
  SlotTable::formatSlots(file_.base(), slotSize_, n, next, params_.defaultValue);
  addFreeSlots(n, next);
  // W6: the slots exist in the file before numSlots says so.
  header()->numSlots.setRefAtomic(next, kCountIncrement);
  numSlots_ = next;
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::grow() " << params_.name << " from " << n << " slots to " << next);
  return true;
}

void SlotWriterTable::addFreeSlots(uint32_t start, uint32_t end) {
  if (start >= end || end > kEndBit) {
    std::ostringstream os;
    os << "SlotWriterTable::addFreeSlots() bad index range, start:" << start << " end:" << end;
    throw Pavo::CorruptionDetectedException(os.str());
  }
  if (header()->freeSlots != kNoRef) {
    throw Pavo::CorruptionDetectedException("SlotWriterTable::addFreeSlots() free-list is not empty");
  }
  for (uint32_t i = start; i < end; ++i) {
    slot(i)->next.setRefAtomic(i + 1 < end ? i + 1 : kNoRef, kLinkIncrement);
  }
  storeRelaxed(header()->freeSlots, start);
}

void SlotWriterTable::purgeFreeSlots(uint32_t target) {
  const uint32_t n = numSlots();
  if (target > n) {
    std::ostringstream os;
    os << "SlotWriter::purgeFreeSlots() bad threshold:" << target << " numSlots:" << n;
    throw Pavo::CorruptionDetectedException(os.str());
  }
  // Rebuild the list from the kept slots, in their present order.
  uint32_t head = kNoRef;
  uint32_t tail = kNoRef;
  uint32_t length = 0;
  uint32_t walked = 0;
  for (uint32_t i = header()->freeSlots; i != kNoRef;) {
    if (i >= n || ++walked > n) {
      std::ostringstream os;
      os << "SlotWriter::purgeFreeSlots() corrupt free list at:" << i;
      throw Pavo::CorruptionDetectedException(os.str());
    }
    const uint32_t next = slot(i)->next.loadRelaxed().ref;
    if (i < target) {
      if (tail == kNoRef) {
        head = i;
      } else {
        slot(tail)->next.setRefAtomic(i, kLinkIncrement);
      }
      tail = i;
      ++length;
    }
    i = next;
  }
  if (tail != kNoRef) slot(tail)->next.setRefAtomic(kNoRef, kLinkIncrement);
  storeRelaxed(header()->freeSlots, head);
  // Every slot below target is either occupied or on the list.
  uint32_t occupiedBelow = 0;
  for (uint32_t i = 0; i < target; ++i) occupiedBelow += (slot(i)->status & kOccupied) != 0;
  if (length != target - occupiedBelow) {
    std::ostringstream os;
    os << "SlotWriter::purgeFreeSlots() numSlots mismatch, length of freeList:" << length
       << " expected:" << (target - occupiedBelow);
    throw Pavo::CorruptionDetectedException(os.str());
  }
}

void SlotWriterTable::move(uint32_t from, uint32_t to) {
  if (to >= from) {
    std::ostringstream os;
    os << "SlotWriter::move() should always move entries to lower section fromSlotId:" << from
       << " toSlotId:" << to;
    throw Pavo::CorruptionDetectedException(os.str());
  }
  if (to >= numSlots() || (slot(to)->status & kOccupied) != 0) {
    std::ostringstream os;
    os << "SlotWriter::move() not valid toSlotId:" << to;
    throw Pavo::CorruptionDetectedException(os.str());
  }
  Slot* src = slot(from);
  Slot* dst = slot(to);
  storeRelaxed(dst->rhash, src->rhash);
  writeBody(dst, src->value());
  dst->next.setRefAtomic(src->next.loadRelaxed().ref, kLinkIncrement);
}

void SlotWriterTable::shrinkTo(uint32_t newNumSlots) {
  header()->numSlots.setRefAtomic(newNumSlots, kCountIncrement);
  numSlots_ = newNumSlots;
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotWriter::shrink() newNumSlots:" << newNumSlots);
  // The pages past the last slot go back to the file system; the length
  // stays (W6), so a reader still on a moved slot reads zeros, not a fault,
  // and re-checks its bucket version.
  const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  const uint64_t keep = (SlotTable::fileSize(slotSize_, newNumSlots) + page - 1) / page * page;
  if (!file_.release(keep)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "SlotWriter::shrink() cannot return memory: " << file_.error());
  }
}

uint32_t SlotWriterTable::shrinkThreshold() const {
  const uint32_t n = numSlots();
  if (!shrinkEnabled() || fixedCapacity() || n <= params_.minSlots) return 0;
  uint32_t t = 1;
  while (t * 2 < n) t *= 2;
  MROUTE_TRACE(brumeTrace(), kTraceDetail, "SlotWriter::shrinkThreshold(): shrinkThreshold_:" << t);
  return t;
}


void SlotWriterTable::beginBodyWrite(Slot* s) {
  const uint32_t st = s->status;
  if ((st & kOccupied) != 0) {
    Slot* look = lookaside();
    Mem::releaseFence();
    storeRelaxed(look->rhash, s->rhash);
    copyToShared(look->value(), s->value(), params_.valueSize);
  }
  storeRelease(s->status, st + kLookaside);
  Mem::releaseFence();
}

void SlotWriterTable::endBodyWrite(Slot* s) { storeRelease(s->status, (s->status + kLookaside) | kOccupied); }

}  // namespace Brume
