#include "mroute/bitmapper/internal/table_rows.h"

#include "mroute/runtime/trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"

namespace BitMapper::internal {

void corruptionDetected(const Brume::BrumeMapBase& front, const std::string& what) {
  MROUTE_TRACE(Mroute::Trace::facility("Mroute::BitMapper"), 1,
               "corruptionDetected() " << front.tableName() << ": " << what);
  Brume::writeCorruptionMarker(Mem::systemShmFs(), front.root(), what);
}

}  // namespace BitMapper::internal
