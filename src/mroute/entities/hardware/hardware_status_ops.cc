// The hand-written query of the hardware status.
#include "mroute/entities/hardware/hardware_status.h"

namespace Routing::Multicast::Fib::Hardware {

uint32_t Status::routes() const {
  uint32_t n = 0;
  for (const auto& [vrf, status] : vrfStatus()) n += static_cast<uint32_t>(status->route().size());
  return n;
}

}  // namespace Routing::Multicast::Fib::Hardware
