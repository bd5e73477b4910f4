#include "mroute/kernel/mrt6_upcall.h"

#include <cstring>

namespace Routing::Multicast::Notify {
namespace {

Orvet::IpGenAddr ipv6At(const uint8_t* p) {
  Orvet::IpGenAddr::Bytes b;
  std::memcpy(b.data(), p, b.size());
  return Orvet::IpGenAddr::fromIpv6(b);
}

}  // namespace

std::optional<Upcall6Header> parseUpcall6(const uint8_t* data, size_t size) {
  if (size < kUpcall6HeaderBytes || data[0] != 0) return std::nullopt;
  Upcall6Header h;
  h.msgType = data[1];
  std::memcpy(&h.mif, data + 2, sizeof h.mif);
  h.source = ipv6At(data + 8);
  h.group = ipv6At(data + 24);
  return h;
}

}  // namespace Routing::Multicast::Notify
