// The shared outLif field of a group member: a VLAN id or an egress logical
// interface.
#include "mroute/entities/group/port_vlan.h"

namespace MrouteLib {

bool PortVlan::isOutLif() const { return outLif().value() - 1u > 4093u; }

// The whole 32-bit field is checked: 65537 is an out-LIF, not VLAN 1.
Bridging::VlanId PortVlan::vlanId() const { return Bridging::VlanId(outLif().value()); }

void PortVlan::vlanIdIs(Bridging::VlanId vlan) { outLifIs(OutLif(vlan.value())); }

}  // namespace MrouteLib
