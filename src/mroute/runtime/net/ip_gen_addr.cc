#include "mroute/runtime/net/ip_gen_addr.h"

#include <ostream>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Orvet {

IpGenAddr::IpGenAddr(IpAddr v4) : af_(ipv4().value()) {
  uint32_t network = v4.value();
  std::memcpy(bytes_, &network, sizeof network);
}

IpGenAddr IpGenAddr::fromIpv6(const Bytes& bytes) {
  IpGenAddr a;
  a.af_ = ipv6().value();
  std::memcpy(a.bytes_, bytes.data(), bytes.size());
  return a;
}

IpGenAddr IpGenAddr::fromText(std::string_view text) {
  if (text == "unset") return IpGenAddr();
  if (text.find(':') == std::string_view::npos) return IpGenAddr(IpAddr::fromText(text));
  Bytes bytes;
  if (!net_internal::parseIpv6(text, bytes.data())) {
    throw Kiv::RangeException("IpGenAddr '" + std::string(text) + "' not allowed");
  }
  return fromIpv6(bytes);
}

IpAddr IpGenAddr::v4() const {
  MROUTE_ASSERT(af() == ipv4());
  uint32_t network;
  std::memcpy(&network, bytes_, sizeof network);
  return IpAddr::fromNetwork(network);
}

bool IpGenAddr::isMulticast() const {
  if (af().isIpv4()) return (bytes_[0] >> 4) == 0xe;
  if (af().isIpv6()) return bytes_[0] == 0xff;
  return false;
}

std::string IpGenAddr::text() const {
  if (af().isIpv4()) return v4().text();
  if (af().isIpv6()) return net_internal::formatIpv6(bytes_);
  return "unset";
}

uint32_t ipv6AddressHash(const uint8_t bytes[16]) {
  // Fold the four host-order words with a multiply-xorshift step so that
  // addresses differing in any word (not only the last) spread.
  uint32_t h = 0;
  for (int i = 0; i < 16; i += 4) {
    uint32_t word = static_cast<uint32_t>(bytes[i]) << 24 | static_cast<uint32_t>(bytes[i + 1]) << 16 |
                    static_cast<uint32_t>(bytes[i + 2]) << 8 | bytes[i + 3];
    h = (h ^ word) * 0x9e3779b1u;
    h ^= h >> 15;
  }
  return h;
}

uint32_t ipv6AddressHash(const IpGenAddr& addr) { return ipv6AddressHash(addr.bytes()); }

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.text(); }

}  // namespace Orvet
