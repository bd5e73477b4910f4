// HealthBoard: the writer's record of its readers and its queue in the
// table's "health" file (layout in internal/health_file.h), for operators.
//
// The writer's notification channel tells it when a reader connects
// (readerConnected, with the pid the kernel vouches for), acknowledges,
// sends its counters, and leaves; the queue tells it of compactions and the
// writer mounter of corruption reports. Each is one short store sequence
// into the mapped file; none lies on a path a look-up takes. A reader that
// leaves keeps its record, marked gone, until a new reader needs the room.
//
// A board that cannot make its file (full file system, no permission) is
// inert: every call does nothing, and the table works on.
//
// Thread-safety: single-threaded, on the writer's event loop.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "mroute/table/queue/internal/health_file.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume {

// What a reader tells its writer about itself: counters of the slow paths
// of its look-ups and queue walks.
struct ReaderHealth {
  uint64_t restarts = 0;
  uint64_t lookasideReads = 0;
  uint64_t resyncs = 0;
  bool operator==(const ReaderHealth&) const = default;
};

class HealthBoard {
 public:
  static constexpr uint32_t kNoRecord = ~uint32_t{0};

  HealthBoard() = default;
  HealthBoard(const HealthBoard&) = delete;
  HealthBoard& operator=(const HealthBoard&) = delete;

  // Makes a fresh file for this writer in `directory` (a tool that maps the
  // old one keeps it whole). False, with the reason traced, when it cannot.
  bool open(const std::string& directory, uint32_t ember);
  void close() { file_.close(); }
  // Removes the file.
  void cleanup(const std::string& directory);
  bool isOpen() const { return file_.isMapped(); }

  // A record for a reader that just connected: a free one, else the one
  // gone longest. kNoRecord when every record holds a connected reader (the
  // reader is then only counted as unlisted).
  uint32_t readerConnected(uint32_t pid);
  void readerAcked(uint32_t record, uint64_t seq);
  void readerReported(uint32_t record, const ReaderHealth& health);
  void readerLeft(uint32_t record, bool dropped);

  void compacted(uint64_t kept);
  void corruptionReported(std::string_view text);

 private:
  HealthFile::Header& header() const { return *reinterpret_cast<HealthFile::Header*>(file_.base()); }
  HealthFile::Reader* record(uint32_t i) const {
    return isOpen() && i < HealthFile::kMaxReaders ? HealthFile::reader(file_.base(), i) : nullptr;
  }

  Mem::ShmFile file_;
};

// Wall-clock time in ns since the epoch, as the health file keeps it.
uint64_t healthClockNs();

}  // namespace Brume
