#include "mroute/table/engine/internal/table_reader_files.h"

#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"

namespace Brume {

bool SlotReaderTable::attach(const Mem::RootPath& root) {
  if (!file_.open(root.file(kSlotFileName), Mem::ShmAccess::readOnly)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "SlotReader::attach() no shared memory region " << file_.error());
    return false;
  }
  const int64_t size = file_.fileSize();
  if (size <= 0 || !file_.map(static_cast<size_t>(size))) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "SlotReader::attach() cannot attach to shmem size:" << size << " " << file_.error());
    file_.close();
    return false;
  }
  account();
  return true;
}

void SlotReaderTable::detach() {
  file_.close();
  mappedSlots_ = 0;
  view_->slot0 = nullptr;
  view_->mappedSlots = 0;
}

bool SlotReaderTable::validate(uint32_t ember, std::string* why) const {
  return Mem::checkAgainstCurrentLength(file_, SlotTable::fixedSize(slotSize_), [&](size_t length) {
    return header()->validate(length, slotSize_, ember, why);
  });
}

void SlotReaderTable::account() {
  const size_t fixed = SlotTable::fixedSize(slotSize_);
  const size_t mapped = file_.mappedSize();
  const size_t n = mapped < fixed ? 0 : (mapped - fixed) / slotSize_;
  mappedSlots_ = static_cast<uint32_t>(std::min<size_t>(n, kEndBit));
  view_->slot0 = mappedSlots_ == 0 ? nullptr : file_.base() + fixed;
  view_->mappedSlots = mappedSlots_;
}

bool SlotReaderTable::doResize() {
  if (!attached() || file_.mappedSize() < SlotTable::fixedSize(slotSize_)) return false;
  const uint32_t n = header()->numSlots.load().ref;
  if (n <= mappedSlots_) return false;
  const size_t bytes = SlotTable::fileSize(slotSize_, n);
  MROUTE_TRACE(brumeTrace(), kTraceSize,
               "SlotReader::doResize() requesting to map" << n << "slots. Requested file resize to" << bytes);
  const uint8_t* old = file_.base();
  if (!file_.remap(bytes)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "SlotReader::doResize() failed to resize " << file_.error());
    return false;
  }
  account();
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "SlotReader::doResize() successful");
  if (old != file_.base()) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "SlotReader::doResize() changed base address mapping from" << static_cast<const void*>(old) << " to "
                                                                            << static_cast<const void*>(file_.base()));
  }
  return true;
}

const Slot* SlotReaderTable::slotSlow(uint32_t i) {
  if (!attached()) return nullptr;
  doResize();
  if (i < mappedSlots_) return SlotTable::slotAt(file_.base(), slotSize_, i);
  MROUTE_TRACE(brumeTrace(), kTraceError,
               "SlotReader::Slots::operator[] out-of-range, index:" << i << " mapped:" << mappedSlots_);
  return nullptr;
}

bool BucketReaderTable::attach(const Mem::RootPath& root) {
  if (!file_.open(root.file(kBucketFileName), Mem::ShmAccess::readOnly)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BucketReader::attach() no shared memory region " << file_.error());
    return false;
  }
  const int64_t size = file_.fileSize();
  if (size <= 0 || !file_.map(static_cast<size_t>(size))) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "BucketReader::attach() cannot attach to shmem size:" << size << " " << file_.error());
    file_.close();
    return false;
  }
  const size_t mapped = file_.mappedSize();
  mappedBuckets_ = mapped < sizeof(BucketTable::Header)
                       ? 0
                       : static_cast<uint32_t>(std::min<size_t>((mapped - sizeof(BucketTable::Header)) / 8,
                                                                BucketTable::kMaxBuckets));
  publish();
  return true;
}

void BucketReaderTable::detach() {
  file_.close();
  mappedBuckets_ = 0;
  publish();
}

void BucketReaderTable::publish() {
  const bool mapped = file_.isMapped() && file_.mappedSize() >= sizeof(BucketTable::Header);
  view_->buckets = mapped ? header()->buckets() : nullptr;
  view_->count = mapped ? &header()->numBuckets : nullptr;
}

bool BucketReaderTable::validate(uint32_t ember, std::string* why) const {
  return Mem::checkAgainstCurrentLength(file_, sizeof(BucketTable::Header),
                                        [&](size_t length) { return header()->validate(length, ember, why); });
}

bool BucketReaderTable::doResize(uint32_t n) {
  if (n <= mappedBuckets_) return true;
  if (n > BucketTable::kMaxBuckets) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "BucketReader::doResize() found invalid numBuckets:" << n);
    return false;
  }
  const size_t bytes = BucketTable::fileSize(n);
  MROUTE_TRACE(brumeTrace(), kTraceSize,
               "BucketReader::doResize() requesting to map" << n << "buckets. Requested file resize to" << bytes);
  const uint8_t* old = file_.base();
  if (!file_.remap(bytes)) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "BucketReader::doResize() bad shmem size:" << file_.fileSize() << " wanted:" << bytes);
    MROUTE_TRACE(brumeTrace(), kTraceError, "BucketReader::doResize() failed to resize " << file_.error());
    return false;
  }
  mappedBuckets_ = n;
  publish();
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "BucketReader::doResize() successful");
  if (old != file_.base()) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "BucketReader::doResize() changed base address mapping from" << static_cast<const void*>(old)
                                                                              << " to "
                                                                              << static_cast<const void*>(file_.base()));
  }
  return true;
}

const Mem::VersionedRef* BucketReaderTable::outOfRange(uint32_t b) const {
  MROUTE_TRACE(brumeTrace(), kTraceError,
               "BucketReader::operator[] out-of-range, index:" << b << " mapped:" << mappedBuckets_);
  return nullptr;
}

}  // namespace Brume
