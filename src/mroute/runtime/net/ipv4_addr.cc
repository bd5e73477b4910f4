#include "mroute/runtime/net/ipv4_addr.h"

#include <ostream>

#include "mroute/runtime/error.h"

namespace Orvet {

IpAddr IpAddr::fromText(std::string_view text) {
  auto v = net_internal::parseIpv4(text);
  if (!v) throw Kiv::RangeException("IpAddr '" + std::string(text) + "' not allowed");
  return fromHost(*v);
}

std::ostream& operator<<(std::ostream& os, IpAddr a) { return os << a.text(); }

}  // namespace Orvet
