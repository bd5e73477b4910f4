// Configuration of one shared-memory table, given by its owner to the writer.
// The sizes and flags that matter to readers are stored in the slot file's
// header; readers need none of this.
//
// Thread-safety: a value type.
#pragma once

#include <cstdint>
#include <string>

namespace Brume {

struct TableConfig {
  std::string name = "table";    // for messages
  uint32_t initialSize = 1024;   // slots formatted at creation; 0 is refused
  uint32_t maxSize = 1u << 20;   // soft maximum (maxSlots); the table grows a tenth past it
  uint32_t minSize = 1;          // slot shrinking stops here
  bool fixedCapacity = false;    // never grows or shrinks; full raises TableFullException
  bool shrinkSlots = false;      // compact the slot array when it empties
  bool pruneConquer = true;      // prune acknowledged notifications
  bool notifications = true;     // keep a notification queue at all
  std::string valueType = "value";
  std::string classType = "Brume::BrumeMap";
};

}  // namespace Brume
