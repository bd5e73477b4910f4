#include "mroute/table/queue/conquer_reader.h"

#include <algorithm>
#include <sstream>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"

namespace Brume {

namespace {

// Entries copied per re-check: enough to amortise the fence, few enough that
// a compaction discards little work.
constexpr uint32_t kBatch = 256;
// Rounds of "file 0 names file c, but c does not name itself" before the
// files count as corrupt. A switch stores the new file's name in the new file
// before the old one, so a reader sees this only when a switch lands between
// its two loads; the next round then sees the new name, and a live writer
// needs a whole compaction per switch.
constexpr uint32_t kMaxLocateRounds = 1000;

}  // namespace

ConquerReader::ConquerReader(std::string directory, Mem::ShmFs& fs)
    : directory_(std::move(directory)),
      paths_{Mem::joinPath(directory_, ConquerTable::kFileNames[0]),
             Mem::joinPath(directory_, ConquerTable::kFileNames[1])},
      fs_(&fs),
      files_{Mem::ShmFile(fs), Mem::ShmFile(fs)} {}

void ConquerReader::corrupt(const std::string& text) const {
  MROUTE_TRACE(brumeTrace(), kTraceError, text);
  throw Pavo::CorruptionDetectedException(text);
}

bool ConquerReader::attachConquer() {
  detach();
  for (uint32_t t = 0; t < 2; ++t) {
    Mem::ShmFile& f = files_[t];
    if (!f.open(paths_[t], Mem::ShmAccess::readOnly)) {
      MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerReader::attachConquer() " << f.error());
      detach();
      return false;
    }
    // The whole file: the header says how much of it holds entries.
    const int64_t size = f.fileSize();
    if (size < static_cast<int64_t>(sizeof(ConquerTable::Header)) || !f.map(static_cast<size_t>(size))) {
      MROUTE_TRACE(brumeTrace(), kTraceError,
                   "ConquerReader::attachConquer() cannot attach to shmem " << paths_[t] << " of size:" << size
                                                                            << " " << f.error());
      detach();
      return false;
    }
  }
  return true;
}

void ConquerReader::detach() {
  files_[0].close();
  files_[1].close();
  located_ = false;
}

bool ConquerReader::initialize() {
  uint32_t ember = 0;
  if (!readEmberIn(*fs_, directory_, &ember)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerReader::initialize() failed to read ember file");
    return false;
  }
  return initialize(ember);
}

bool ConquerReader::initialize(uint32_t expectedEmber) {
  if (!attachConquer()) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerReader::initialize() failed to attach " << directory_);
    return false;
  }
  for (uint32_t t = 0; t < 2; ++t) {
    std::string why;
    const bool valid =
        Mem::checkAgainstCurrentLength(files_[t], sizeof(ConquerTable::Header), [&](size_t length) {
          return ConquerTable::validate(files_[t].base(), length, expectedEmber, &why);
        });
    if (!valid) {
      MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerReader::initialize() failed validation, reason:" << why);
      detach();
      return false;
    }
  }
  ember_ = expectedEmber;
  lastSeq_ = 0;
  acked_ = kNoAck;
  located_ = false;
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "ConquerReader::initialize() success " << directory_);
  return true;
}

bool ConquerReader::doResize(uint32_t table, uint32_t notifications) {
  const size_t bytes = ConquerTable::fileSize(notifications);
  if (files_[table].mappedSize() >= bytes) return true;
  MROUTE_TRACE(brumeTrace(), kTraceSize,
               "ConquerReader::doResize() requesting to map " << notifications
                                                              << " conquer notifications. Requested file resize to "
                                                              << bytes);
  if (!files_[table].remap(bytes)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "ConquerReader::doResize() failed to resize " << files_[table].error());
    return false;
  }
  MROUTE_TRACE(brumeTrace(), kTraceSize, "ConquerReader::doResize() successful");
  return true;
}

// Finds the current file. "conquer.1" names the current file; that file must
// name itself (between the two stores of a switch it may not yet).
void ConquerReader::locate() {
  MROUTE_ASSERT(attached());
  for (uint32_t round = 0; round < kMaxLocateRounds; ++round) {
    const uint32_t c = conquer::loadCurrentTable(header(0));
    if (c >= 2) {
      std::ostringstream os;
      os << "ConquerReader::locate() bad tableId:" << c << " in " << paths_[0];
      corrupt(os.str());
    }
    const Mem::VersionedRef::Value v = header(c).notifications.load();  // QR1
    if (conquer::loadCurrentTable(header(c)) != c) continue;
    // QW6: the file is long enough before its capacity is published.
    if (!doResize(c, v.ref)) {
      std::ostringstream os;
      os << "ConquerReader::locate() " << paths_[c] << " shorter than its " << v.ref << " notifications";
      corrupt(os.str());
    }
    tableId_ = c;
    version_ = v.version;
    capacity_ = v.ref;
    return;
  }
  corrupt("ConquerReader::locate() no current conquer file in " + directory_);
}

// QR3: the acquire fence inside recheck() keeps the copies made before it
// ahead of the version load.
bool ConquerReader::stable() const { return header(tableId_).notifications.recheck().version == version_; }

uint32_t ConquerReader::findPosition(uint64_t seq) {
  for (;;) {
    locate();
    const ConquerTable::Header& h = header(tableId_);
    const uint32_t end = std::min(conquer::loadCurrentPos(h), capacity_);
    uint32_t lo = 0;
    uint32_t hi = end;
    while (lo < hi) {
      const uint32_t mid = lo + (hi - lo) / 2;
      if (conquer::loadSequence(*ConquerTable::entry(files_[tableId_].base(), mid)) < seq) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    if (stable()) return lo;
    MROUTE_TRACE(brumeTrace(), kTraceDetail, "ConquerReader::findPosition() conquerSwapped again");
    ++counters_.restarts;
  }
}

ConquerReader::Step ConquerReader::doConquer(const Consumer& consumer) {
  const ConquerTable::Header& h = header(tableId_);
  const uint64_t minSeq = conquer::loadMinSeq(h);
  const uint32_t end = conquer::loadCurrentPos(h);  // QR2
  if (!stable()) return Step::relocate;
  if (lastSeq_ < minSeq) return Step::resync;
  if (end > capacity_ || pos_ > end) {
    std::ostringstream os;
    os << "ConquerReader::doConquer() unexpected position in " << paths_[tableId_] << " position:" << pos_
       << " currentPos:" << end << " notifications:" << capacity_;
    corrupt(os.str());
  }
  const uint8_t* base = files_[tableId_].base();
  struct Copy {
    uint64_t seq;
    uint32_t slot;
  } batch[kBatch];
  while (pos_ < end) {
    const uint32_t n = std::min(end - pos_, kBatch);
    for (uint32_t i = 0; i < n; ++i) {
      const ConquerTable::Entry& e = *ConquerTable::entry(base, pos_ + i);
      batch[i] = {conquer::loadSequence(e), conquer::loadSlot(e)};
    }
    if (!stable()) return Step::relocate;  // QR3
    for (uint32_t i = 0; i < n; ++i) {
      if (batch[i].seq <= lastSeq_) {
        std::ostringstream os;
        os << "ConquerReader::doConquer() unexpected sequence in " << paths_[tableId_] << " position:" << pos_
           << " sequence:" << batch[i].seq << " last:" << lastSeq_;
        corrupt(os.str());
      }
      lastSeq_ = batch[i].seq;
      ++pos_;
      if (batch[i].slot == ConquerTable::kTombstone) continue;
      MROUTE_TRACE(brumeTrace(), kTraceDetail,
                   "ConquerReader::doConquer() notifying slot:" << batch[i].slot << " sequence:" << batch[i].seq);
      ++counters_.delivered;
      consumer(batch[i].slot, batch[i].seq);
    }
  }
  return Step::done;
}

ConquerReader::Walk ConquerReader::conquer(const Consumer& consumer) {
  ++counters_.walks;
  MROUTE_TRACE(brumeTrace(), kTraceDetail,
               "ConquerReader::conquer() Walking conquer queue, sample:" << counters_.walks
                                                                         << " lastSeq:" << lastSeq_);
  const uint64_t before = counters_.delivered;
  for (;;) {
    if (!located_) {
      pos_ = findPosition(lastSeq_ + 1);
      located_ = true;
    }
    const Step step = doConquer(consumer);
    if (step == Step::done) break;
    if (step == Step::resync) {
      ++counters_.resyncs;
      MROUTE_TRACE(brumeTrace(), kTraceInfo,
                   "ConquerReader::conquer() missed notifications, resynchronise, lastSeq:"
                       << lastSeq_ << " minSeq:" << conquer::loadMinSeq(header(tableId_)));
      return Walk::resync;
    }
    located_ = false;
    ++counters_.restarts;
  }
  const uint64_t consumed = counters_.delivered - before;
  if (lastSeq_ != acked_) {
    MROUTE_TRACE(brumeTrace(), kTraceDetail,
                 "ConquerReader::conquer() Consumed " << consumed << " up to sequence:" << lastSeq_);
    if (ack_) ack_(acked_, lastSeq_);
    acked_ = lastSeq_;
  }
  return consumed != 0 ? Walk::consumed : Walk::upToDate;
}

uint64_t ConquerReader::resynchronize() {
  for (;;) {
    locate();
    const ConquerTable::Header& h = header(tableId_);
    const uint64_t minSeq = conquer::loadMinSeq(h);
    const uint32_t end = std::min(conquer::loadCurrentPos(h), capacity_);
    const uint64_t last = end > 0 ? conquer::loadSequence(*ConquerTable::entry(files_[tableId_].base(), end - 1)) : 0;
    if (!stable()) {
      ++counters_.restarts;
      continue;
    }
    lastSeq_ = std::max(last, minSeq);
    pos_ = end;
    located_ = true;
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "ConquerReader::resynchronize() continuing after sequence:" << lastSeq_ << " position:" << pos_);
    return lastSeq_;
  }
}

bool ConquerReader::handleAck(uint64_t minSeq) const {
  MROUTE_TRACE(brumeTrace(), kTraceDetail, "ConquerReader::handleAck() minSeq:" << minSeq << " lastSeq:" << lastSeq_);
  return lastSeq_ < minSeq;
}

}  // namespace Brume
