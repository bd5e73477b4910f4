#include "mroute/runtime/net/ip_gen_prefix.h"

#include <ostream>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/net/internal/prefix_order.h"

namespace Orvet {

IpGenPrefix::IpGenPrefix(const Prefix& v4) : address_(v4.address()), length_(v4.length()) {}

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, uint32_t length) : length_(length) {
  if (address.af().isIpv4()) {
    if (length > 32) throw Kiv::RangeException("IpGenPrefix::length > 32 not allowed");
    address_ = Prefix(address.v4(), length).address();
  } else if (address.af().isIpv6()) {
    if (length > 128) throw Kiv::RangeException("IpGenPrefix::length > 128 not allowed");
    IpGenAddr::Bytes bytes;
    std::memcpy(bytes.data(), address.bytes(), bytes.size());
    net_internal::clearHostBits(bytes.data(), length, 16);
    address_ = IpGenAddr::fromIpv6(bytes);
  } else {
    throw Kiv::RangeException("IpGenPrefix::af unset not allowed");
  }
}

IpGenPrefix IpGenPrefix::fromText(std::string_view text) {
  if (text == "unset") return IpGenPrefix();
  size_t slash = text.find('/');
  IpGenAddr address;
  try {
    address = IpGenAddr::fromText(text.substr(0, slash));
  } catch (const Kiv::RangeException&) {
    address = IpGenAddr();
  }
  uint32_t width = address.af().isIpv4() ? 32 : 128;
  std::optional<uint32_t> length = width;
  if (slash != std::string_view::npos) length = net_internal::parseDecimal(text.substr(slash + 1), width);
  if (address.af() == afUnknown() || !length) {
    throw Kiv::RangeException("IpGenPrefix '" + std::string(text) + "' not allowed");
  }
  return IpGenPrefix(address, *length);
}

Prefix IpGenPrefix::v4() const {
  MROUTE_ASSERT(af() == ipv4());
  return Prefix(address_.v4(), length_);
}

uint32_t IpGenPrefix::maxLength() const {
  if (af().isIpv4()) return 32;
  if (af().isIpv6()) return 128;
  return 0;
}

bool IpGenPrefix::isMulticast() const {
  if (af().isIpv4()) return length_ >= 4 && address_.isMulticast();
  if (af().isIpv6()) return length_ >= 8 && address_.isMulticast();
  return false;
}

std::string IpGenPrefix::text() const {
  if (af() == afUnknown()) return "unset";
  return address_.text() + "/" + std::to_string(length_);
}

std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.af() != b.af()) return a.af() <=> b.af();
  return net_internal::comparePrefixes(a.address().bytes(), a.length(), b.address().bytes(), b.length(),
                                       a.af().isIpv4() ? 4 : 16);
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) { return os << p.text(); }

}  // namespace Orvet
