// The hand-written mount path of the ready status.
#include "mroute/entities/fib/fib_status.h"
#include "mroute/entity/mount_path.h"

namespace Routing::Multicast::Fib {

std::string ReadyStatus::mountPath(Orvet::AddressFamily af, const Kiv::String8& mode) {
  const std::string base = Kiv::familyPath(af.value(), "routing/multicast/fibready/", "routing6/multicast/fibready/");
  // Without cells the per-cell form of a path in the default cell is the path itself.
  if (mode == Kiv::String8("sparsemode")) return base + "status";
  return base + mode.stdString() + "/status";
}

}  // namespace Routing::Multicast::Fib
