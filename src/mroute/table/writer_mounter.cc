#include "mroute/table/writer_mounter.h"

#include <algorithm>
#include <string>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume {

WriterMounter::WriterMounter(Front& front, const Mem::RootPath& root)
    : front_(front), emberPath_(root.file(kEmberFileName)), markerPath_(root.dir() + "/" + kCorruptionMarkerName) {}

std::string WriterMounter::readMarker() const {
  // Opened as the table files are (no link followed, no FIFO waited on), and
  // read no further than a report can reasonably be long.
  constexpr int64_t kMostRead = 64 * 1024;
  Mem::ShmFile file;
  if (!file.open(markerPath_, Mem::ShmAccess::readOnly)) return {};
  const int64_t size = std::min(file.fileSize(), kMostRead);
  if (size <= 0 || !file.map(static_cast<size_t>(size))) return {};
  std::string s(reinterpret_cast<const char*>(file.base()), static_cast<size_t>(size));
  while (!s.empty() && (s.back() == '\n' || s.back() == '\0')) s.pop_back();
  return s;
}

void WriterMounter::notify(std::string_view eventName) {
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "WriterMounter::notify() " << eventName);
  const std::string report = readMarker();
  if (!report.empty() && report != lastReport_) {
    MROUTE_TRACE(brumeTrace(), 1, "WriterMounter::notify() corruptDetected: " << report);
    lastReport_ = report;
  }
  std::string why;
  if (!front_.validate(&why)) {
    MROUTE_TRACE(brumeTrace(), 0, "WriterMounter::notify() failed brume validation " << why);
    throw Pavo::CorruptionDetectedException(why);
  }
  std::string error;
  if (!front_.rewriteEmber(&error)) {
    MROUTE_TRACE(brumeTrace(), 1, "WriterMounter::notify() cannot rewrite " << emberPath_ << ": " << error);
  }
  if (!front_.resetEmberWatch()) {
    MROUTE_TRACE(brumeTrace(), 1, "EmberWatcher::resetWatch() failed to reset watch on " << emberPath_);
  }
  if (!front_.validateEmber()) {
    MROUTE_TRACE(brumeTrace(), 1, "WriterMounter::notify() ember file " << emberPath_ << " does not hold our id");
  }
  MROUTE_TRACE(brumeTrace(), 1, "WriterMounter::notify() brume validation ok");
}

}  // namespace Brume
