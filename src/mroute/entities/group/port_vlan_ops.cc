// The shared outLif field of a group member: a VLAN id or an egress logical
// interface.
#include "mroute/entities/group/port_vlan.h"

namespace MrouteLib {

bool PortVlan::isOutLif() const { return outLif().value() - 1u > 4093u; }

Bridging::VlanId PortVlan::vlanId() const { return Bridging::VlanId(static_cast<uint16_t>(outLif().value())); }

void PortVlan::vlanIdIs(Bridging::VlanId vlan) { outLifIs(OutLif(vlan.value())); }

}  // namespace MrouteLib
