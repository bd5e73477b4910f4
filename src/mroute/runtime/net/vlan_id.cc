#include "mroute/runtime/net/vlan_id.h"

#include <ostream>
#include <string>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/internal/address_text.h"

namespace Bridging {

VlanId::VlanId(uint32_t value) : value_(static_cast<uint16_t>(value)) {
  if (value < min || value > max) throw Kiv::RangeException("VlanId::value < 1 or > 4094 not allowed");
}

VlanId VlanId::fromText(std::string_view text) {
  auto v = Orvet::net_internal::parseDecimal(text, 0xffffffffu);
  if (!v) throw Kiv::RangeException("VlanId '" + std::string(text) + "' not allowed");
  return VlanId(*v);
}

std::ostream& operator<<(std::ostream& os, VlanId v) { return os << v.value(); }

}  // namespace Bridging
