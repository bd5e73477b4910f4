#include "mroute/table/queue/health_board.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "mroute/table/shm/brume_trace.h"

namespace Brume {

uint64_t healthClockNs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

bool HealthBoard::open(const std::string& directory, uint32_t ember) {
  close();
  const std::string path = Mem::joinPath(directory, kHealthFileName);
  if (!file_.createReplacement(path, HealthFile::kSize)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "HealthBoard::open() " << path << ": " << file_.error());
    file_.close();
    return false;
  }
  // A fresh file reads as zeros: free records, no compaction, no report.
  // It is formatted before it takes the name, so a tool never sees it blank.
  HealthFile::Header& h = header();
  health::beginWrite(h.generation);
  std::memcpy(h.magic, HealthFile::kMagic, sizeof h.magic);
  health::store(h.version, HealthFile::kVersion);
  health::store(h.ember, ember);
  health::store(h.writerPid, static_cast<uint32_t>(::getpid()));
  health::store(h.records, HealthFile::kMaxReaders);
  health::endWrite(h.generation);
  if (!file_.publishAs(path)) {
    MROUTE_TRACE(brumeTrace(), kTraceError, "HealthBoard::open() " << path << ": " << file_.error());
    file_.close();
    return false;
  }
  return true;
}

void HealthBoard::cleanup(const std::string& directory) {
  close();
  std::string why;
  const std::string path = Mem::joinPath(directory, kHealthFileName);
  if (!Mem::unlinkShmFile(Mem::systemShmFs(), path, &why)) MROUTE_TRACE(brumeTrace(), kTraceError, why);
}

uint32_t HealthBoard::readerConnected(uint32_t pid) {
  if (!isOpen()) return kNoRecord;
  uint32_t best = kNoRecord;
  uint64_t bestGone = ~uint64_t{0};
  for (uint32_t i = 0; i < HealthFile::kMaxReaders; ++i) {
    const HealthFile::Reader& r = *record(i);
    const auto state = static_cast<HealthFile::ReaderState>(health::load(r.state));
    if (state == HealthFile::ReaderState::free) {
      best = i;
      break;
    }
    if (state != HealthFile::ReaderState::connected && health::load(r.goneNs) < bestGone) {
      best = i;
      bestGone = health::load(r.goneNs);
    }
  }
  HealthFile::Header& h = header();
  if (best == kNoRecord) {
    health::beginWrite(h.generation);
    health::store(h.unlisted, health::load(h.unlisted) + 1);
    health::endWrite(h.generation);
    return kNoRecord;
  }
  HealthFile::Reader& r = *record(best);
  health::beginWrite(r.generation);
  health::store(r.state, static_cast<uint32_t>(HealthFile::ReaderState::connected));
  health::store(r.pid, pid);
  health::store(r.connectedNs, healthClockNs());
  health::store(r.goneNs, 0);
  health::store(r.lastAck, HealthFile::kNoAck);
  health::store(r.restarts, 0);
  health::store(r.lookasideReads, 0);
  health::store(r.resyncs, 0);
  health::endWrite(r.generation);
  return best;
}

void HealthBoard::readerAcked(uint32_t i, uint64_t seq) {
  HealthFile::Reader* r = record(i);
  if (r == nullptr) return;
  health::beginWrite(r->generation);
  health::store(r->lastAck, seq);
  health::endWrite(r->generation);
}

void HealthBoard::readerReported(uint32_t i, const ReaderHealth& report) {
  HealthFile::Reader* r = record(i);
  if (r == nullptr) return;
  health::beginWrite(r->generation);
  health::store(r->restarts, report.restarts);
  health::store(r->lookasideReads, report.lookasideReads);
  health::store(r->resyncs, report.resyncs);
  health::endWrite(r->generation);
}

void HealthBoard::readerLeft(uint32_t i, bool dropped) {
  if (isOpen() && dropped) {
    HealthFile::Header& h = header();
    health::beginWrite(h.generation);
    health::store(h.readersDropped, health::load(h.readersDropped) + 1);
    health::endWrite(h.generation);
  }
  if (isOpen() && i == kNoRecord) {
    HealthFile::Header& h = header();
    health::beginWrite(h.generation);
    health::store(h.unlisted, std::max<uint32_t>(health::load(h.unlisted), 1) - 1);
    health::endWrite(h.generation);
  }
  HealthFile::Reader* r = record(i);
  if (r == nullptr) return;
  health::beginWrite(r->generation);
  health::store(r->state, static_cast<uint32_t>(dropped ? HealthFile::ReaderState::dropped
                                                        : HealthFile::ReaderState::gone));
  health::store(r->goneNs, healthClockNs());
  health::endWrite(r->generation);
}

void HealthBoard::compacted(uint64_t kept) {
  if (!isOpen()) return;
  HealthFile::Header& h = header();
  health::beginWrite(h.generation);
  health::store(h.compactions, health::load(h.compactions) + 1);
  health::store(h.lastCompactionNs, healthClockNs());
  health::store(h.lastCompactionKept, kept);
  health::endWrite(h.generation);
}

void HealthBoard::corruptionReported(std::string_view text) {
  if (!isOpen()) return;
  HealthFile::Header& h = header();
  char padded[sizeof h.lastReport] = {};
  std::memcpy(padded, text.data(), std::min(text.size(), sizeof padded - 1));
  health::beginWrite(h.generation);
  health::store(h.corruptionReports, health::load(h.corruptionReports) + 1);
  health::store(h.lastReportNs, healthClockNs());
  // Word by word, like every other field a tool may be copying now.
  for (size_t w = 0; w < sizeof padded / 4; ++w) {
    uint32_t word;
    std::memcpy(&word, padded + 4 * w, 4);
    health::store(reinterpret_cast<uint32_t*>(h.lastReport)[w], word);
  }
  health::endWrite(h.generation);
}

}  // namespace Brume
