// BrumeMap::WriterMounter: the writer's answer to a reader's corruption
// report.
//
// A reader that finds the table corrupt writes the "corruption-detected"
// marker with its finding into the table directory. On every such file event
// the writer mounter traces a report it has not seen yet (the same text is
// traced once), validates the table and then either raises
// Pavo::CorruptionDetectedException with the validator's reason (the writer's
// owner decides what to do, e.g. re-format) or, when the table is sound,
// rewrites the ember file with the writer's identifier, so that every reader
// re-checks its attachment.
//
// The writer is reached through the Front interface so that the decisions can
// be tested without a table.
//
// Thread-safety: runs on the writer's event loop; no locks.
#pragma once

#include <string>
#include <string_view>

#include "mroute/table/shm/root_path.h"

namespace Brume {

class WriterMounter {
 public:
  class Front {
   public:
    virtual ~Front() = default;
    // The writer's validation of the whole table; *why says what is wrong.
    virtual bool validate(std::string* why) = 0;
    // Writes the writer's identifier into the ember file.
    virtual bool rewriteEmber(std::string* why) = 0;
    // Removes and registers again the writer's own watch, so that the
    // rewrite's event does not come back to this mounter.
    virtual bool resetEmberWatch() = 0;
    // The ember file holds the writer's identifier.
    virtual bool validateEmber() = 0;
  };

  WriterMounter(Front& front, const Mem::RootPath& root);
  WriterMounter(const WriterMounter&) = delete;
  WriterMounter& operator=(const WriterMounter&) = delete;

  // A file event named `eventName` in the table directory. Throws
  // Pavo::CorruptionDetectedException when the table fails validation.
  void notify(std::string_view eventName);

  const std::string& markerPath() const { return markerPath_; }
  // The text of the last corruption report seen ("" before the first).
  const std::string& lastReport() const { return lastReport_; }
  // The marker's text without its line end; "" when it is missing.
  std::string readMarker() const;

 private:
  Front& front_;
  std::string emberPath_;
  std::string markerPath_;
  std::string lastReport_;
};

}  // namespace Brume
