// ConquerWriter: making, adopting, growing and removing the two queue files.
#include "mroute/table/queue/conquer_writer.h"

#include <algorithm>
#include <string>

#include "mroute/runtime/assert.h"
#include "mroute/table/shm/brume_trace.h"

namespace Brume {

// ---- Attach -----------------------------------------------------------------

bool ConquerWriter::attachConquer(uint32_t numSlots, uint32_t ember, bool reuseExisting) {
  detach();
  ember_ = ember;
  minCapacity_ = notificationsFor(numSlots);
  if (minCapacity_ == 0) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "ConquerWriter::attachConquer() unable to calculate notifications for " << numSlots << " slots");
    return false;
  }
  const uint64_t bytes = ConquerTable::fileSize(minCapacity_);
  if (bytes > kMaxFileBytes) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "ConquerWriter::attachConquer() " << directory_ << " initial size of " << bytes << " bytes exceeds "
                                                   << kMaxFileBytes << " bytes for " << minCapacity_
                                                   << " notifications ");
    return false;
  }
  bool created[2] = {false, false};
  for (uint32_t t = 0; t < 2; ++t) {
    if (!files_[t].openOrCreate(paths_[t], &created[t])) {
      MROUTE_TRACE(brumeTrace(), kTraceError,
                   "ConquerWriter::attachConquer() cannot attach to shmem " << paths_[t] << " of size:" << bytes
                                                                            << " reason:" << files_[t].error());
      error_ = files_[t].error();
      detach();
      return false;
    }
  }
  if (reuseExisting && !created[0] && !created[1] && reuse()) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::attachConquer() to existing " << directory_ << " currentTable:" << cur_
                                                               << " currentPos:" << currentPos_
                                                               << " sequence:" << sequence_ << " minSeq:" << minSeq_);
    refreshFastPath();
    return true;
  }
  for (uint32_t t = 0; t < 2; ++t) {
    const int64_t size = files_[t].fileSize();
    if (!files_[t].isMapped() && size >= static_cast<int64_t>(sizeof(ConquerTable::Header))) files_[t].map(size);
  }
  const uint64_t carried = carriedSequence();
  for (uint32_t t = 0; t < 2; ++t) {
    if (!format(t, created[t])) {
      detach();
      return false;
    }
  }
  // A reader still attached to the old queue must not wait for sequences it
  // has already seen: the fresh queue starts above them, with minSeq there,
  // so such a reader is told to resynchronise.
  cur_ = 0;
  currentPos_ = 0;
  sequenceIs(carried == 0 ? 0 : carried + 1);
  minSeq_ = sequence_;
  corralStart_ = corralEnd_ = 0;
  positions_.clear();
  for (uint32_t t = 0; t < 2; ++t) conquer::storeMinSeq(header(t), minSeq_);
  refreshFastPath();
  return true;
}

// The highest sequence the mapped old files plausibly posted, or 0.
uint64_t ConquerWriter::carriedSequence() const {
  uint64_t high = 0;
  for (uint32_t t = 0; t < 2; ++t) {
    const Mem::ShmFile& f = files_[t];
    if (f.mappedSize() < sizeof(ConquerTable::Header)) continue;
    const ConquerTable::Header& h = header(t);
    high = std::max(high, conquer::loadMinSeq(h));
    const uint32_t pos = conquer::loadCurrentPos(h);
    if (pos > 0 && pos <= ConquerTable::entriesIn(f.mappedSize())) {
      high = std::max(high, conquer::loadSequence(*ConquerTable::entry(f.base(), pos - 1)));
    }
  }
  // A garbage header says nothing; the fresh queue then starts at 0.
  return high < (uint64_t{1} << 62) ? high : 0;
}

// File t could not be sized or given `bytes`: traces why under `who` and
// keeps the reason for error(). Returns false.
bool ConquerWriter::reserveFailed(uint32_t t, uint64_t bytes, const char* who) {
  const Mem::ShmFile& f = files_[t];
  MROUTE_TRACE(brumeTrace(), kTraceError,
               who << " failed to resize " << paths_[t] << " to size " << bytes << " reason:" << f.error());
  error_ = f.error();
  return false;
}

bool ConquerWriter::format(uint32_t t, bool created) {
  Mem::ShmFile& f = files_[t];
  const uint64_t bytes = ConquerTable::fileSize(minCapacity_);
  const int64_t size = f.fileSize();
  // Files never shrink (QW6): a reader of an earlier incarnation may still map
  // the old length.
  if (size < 0 || !f.reserve(bytes)) return reserveFailed(t, bytes, "ConquerWriter::attachConquer()");
  const size_t mapBytes = std::max<uint64_t>(bytes, static_cast<uint64_t>(size));
  if (!(f.isMapped() ? f.remap(mapBytes) : f.map(mapBytes))) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "ConquerWriter::attachConquer() cannot attach to shmem " << paths_[t] << " of size:" << mapBytes
                                                                          << " reason:" << f.error());
    error_ = f.error();
    return false;
  }
  // Continue the notifications version of an old file so that a reader still
  // on it sees a change (a garbage header merely gives some other version).
  const uint32_t version =
      static_cast<uint64_t>(size) >= sizeof(ConquerTable::Header) ? header(t).notifications.version() + 1 : 0;
  ConquerTable::format(f.base(), ember_, static_cast<uint32_t>(minCapacity_), 0, version);
  // The entries are stored one by one on every write; their pages are mapped
  // in now rather than by a fault on the first store to each.
  f.populate(0, bytes);
  if (created) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerWriter::attachConquer() to new file " << paths_[t]);
  } else {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerWriter::attachConquer() re-formatted " << paths_[t]);
  }
  return true;
}

// Maps both existing files and adopts them when they pass every check.
bool ConquerWriter::reuse() {
  std::string why;
  bool valid = true;
  for (uint32_t t = 0; t < 2; ++t) {
    const int64_t size = files_[t].fileSize();
    if (size >= static_cast<int64_t>(sizeof(ConquerTable::Header))) files_[t].map(size);
    valid = valid && ConquerTable::validate(files_[t].base(), files_[t].mappedSize(), ember_, &why);
  }
  if (!valid) return false;
  const uint32_t t0 = conquer::loadCurrentTable(header(0));
  if (t0 != conquer::loadCurrentTable(header(1))) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerWriter::attachConquer() files disagree on currentTable");
    return false;
  }
  cur_ = t0;
  const ConquerTable::Header& h = header(cur_);
  currentPos_ = conquer::loadCurrentPos(h);
  minSeq_ = conquer::loadMinSeq(h);
  corralStart_ = conquer::loadRelaxed64(h.corralStart);
  corralEnd_ = conquer::loadRelaxed64(h.corralEnd);
  positions_.clear();
  if (!validateEntries(&why)) return false;
  sequenceIs(currentPos_ > 0 ? std::max(minSeq_, entry(currentPos_ - 1).first) : minSeq_);
  // Only slots of the current table are tracked: an entry of a slot that a
  // shrink removed stays untracked until it is pruned.
  const uint32_t tracked = static_cast<uint32_t>(minCapacity_ / 2);
  for (uint32_t p = 0; p < currentPos_; ++p) {
    const uint32_t slot = entry(p).second;
    if (slot >= tracked) continue;
    if (slot >= positions_.size()) growPositions(slot);
    positions_[slot] = p;
  }
  // As for a formatted file (format()); the pages a file's entries use were
  // reserved when it was made or grown.
  for (uint32_t t = 0; t < 2; ++t) files_[t].populate(0, ConquerTable::fileSize(capacityOf(t)));
  if (capacityOf(cur_) < minCapacity_ && !growFile(cur_, static_cast<uint32_t>(minCapacity_))) return false;
  return true;
}

bool ConquerWriter::growFile(uint32_t t, uint32_t notifications) {
  Mem::ShmFile& f = files_[t];
  const uint64_t bytes = ConquerTable::fileSize(notifications);
  if (bytes > kMaxFileBytes) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "ConquerWriter::resize() failed to resize " << paths_[t] << " to " << notifications
                                                             << " notifications: " << bytes << " bytes exceeds "
                                                             << kMaxFileBytes);
    return false;
  }
  const int64_t size = f.fileSize();
  if (size < 0 || !f.reserve(bytes)) return reserveFailed(t, bytes, "ConquerWriter::resize()");
  uint8_t* const oldBase = f.base();
  if (f.mappedSize() < bytes && !f.remap(bytes)) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "ConquerWriter::resize() failed to resize " << paths_[t] << " reason:" << f.error());
    error_ = f.error();
    return false;
  }
  if (f.base() != oldBase) {
    MROUTE_TRACE(brumeTrace(), kTraceSize,
                 "ConquerWriter::resize() remap base address changed from " << static_cast<void*>(oldBase) << " to "
                                                                             << static_cast<void*>(f.base()));
  }
  f.populate(0, bytes);
  // The file is long enough before a reader can learn the new capacity (QW6).
  header(t).notifications.setRefAtomic(notifications, 1);
  refreshFastPath();
  return true;
}

bool ConquerWriter::resize(uint32_t numSlots) {
  MROUTE_ASSERT(attached());
  const uint64_t wanted = notificationsFor(numSlots);
  if (wanted == 0) return false;
  if (capacityOf(cur_) < wanted) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerWriter::resize() resizing active conquer " << paths_[cur_] << " from " << capacityOf(cur_)
                                                                    << " to " << wanted << " notifications");
    if (!growFile(cur_, static_cast<uint32_t>(wanted))) return false;
  }
  minCapacity_ = wanted;
  return true;
}

void ConquerWriter::detach() {
  files_[0].close();
  files_[1].close();
  refreshFastPath();
}

void ConquerWriter::cleanup() {
  detach();
  for (const std::string& p : paths_) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerWriter::cleanup() removing file:" << p);
    std::string why;
    if (!Mem::unlinkShmFile(*fs_, p, &why)) MROUTE_TRACE(brumeTrace(), kTraceError, why);
  }
}

}  // namespace Brume
