#include "mroute/runtime/net/ipv4_prefix.h"

#include <ostream>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/internal/prefix_order.h"

namespace Orvet {

Prefix::Prefix(IpAddr address, uint32_t length) : length_(length) {
  if (length > maxLength) throw Kiv::RangeException("Prefix::length > 32 not allowed");
  uint32_t mask = length == 0 ? 0 : ~0u << (32 - length);
  address_ = IpAddr::fromHost(address.hostValue() & mask);
}

Prefix Prefix::fromText(std::string_view text) {
  size_t slash = text.find('/');
  auto address = net_internal::parseIpv4(text.substr(0, slash));
  std::optional<uint32_t> length = maxLength;
  if (slash != std::string_view::npos) length = net_internal::parseDecimal(text.substr(slash + 1), maxLength);
  if (!address || !length) throw Kiv::RangeException("Prefix '" + std::string(text) + "' not allowed");
  return Prefix(IpAddr::fromHost(*address), *length);
}

std::string Prefix::text() const { return address_.text() + "/" + std::to_string(length_); }

std::strong_ordering operator<=>(const Prefix& a, const Prefix& b) {
  uint32_t x = a.address().value();
  uint32_t y = b.address().value();
  return net_internal::comparePrefixes(reinterpret_cast<const uint8_t*>(&x), a.length(),
                                       reinterpret_cast<const uint8_t*>(&y), b.length(), 4);
}

std::ostream& operator<<(std::ostream& os, const Prefix& p) { return os << p.text(); }

}  // namespace Orvet
