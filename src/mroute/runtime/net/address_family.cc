#include "mroute/runtime/net/address_family.h"

#include <ostream>
#include <string>

#include "mroute/runtime/error.h"

namespace Orvet {

AddressFamily AddressFamily::fromText(std::string_view text) {
  if (text == "ipv4") return ipv4();
  if (text == "ipv6") return ipv6();
  if (text == "unknown") return afUnknown();
  throw Kiv::RangeException("AddressFamily '" + std::string(text) + "' not allowed");
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
  if (af.isIpv4()) return os << "ipv4";
  if (af.isIpv6()) return os << "ipv6";
  return os << "unknown";
}

}  // namespace Orvet
