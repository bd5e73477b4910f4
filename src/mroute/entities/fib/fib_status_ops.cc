// The hand-written mount path of the ready status.
#include "mroute/entities/fib/fib_status.h"
#include "mroute/entity/mount_path.h"
#include "mroute/runtime/cell.h"

namespace Routing::Multicast::Fib {

std::string ReadyStatus::mountPath(Orvet::AddressFamily af, const Kiv::String8& mode) {
  const std::string base = Kiv::familyPath(af.value(), "routing/multicast/fibready/", "routing6/multicast/fibready/");
  // Sparse mode has one ready status for the whole device, kept in the default cell.
  if (mode == Kiv::String8("sparsemode")) return Cell::path(base + "status", 0);
  return base + mode.stdString() + "/status";
}

}  // namespace Routing::Multicast::Fib
