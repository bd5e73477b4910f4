#include "mroute/kernel/mrt_upcall.h"

#include <cstring>

namespace Routing::Multicast::Notify {

std::optional<UpcallHeader> parseUpcall(const uint8_t* data, size_t size) {
  if (size < kUpcallHeaderBytes) return std::nullopt;
  UpcallHeader h;
  h.headerBytes = static_cast<size_t>(data[0] & 0x0f) * 4;
  if (h.headerBytes < kUpcallHeaderBytes || h.headerBytes > size) return std::nullopt;
  h.msgType = data[8];
  h.ipProto = data[9];
  h.vif = static_cast<uint16_t>(data[10] | data[11] << 8);
  uint32_t src, grp;
  std::memcpy(&src, data + 12, 4);
  std::memcpy(&grp, data + 16, 4);
  h.source = Orvet::IpAddr::fromNetwork(src);
  h.group = Orvet::IpAddr::fromNetwork(grp);
  return h;
}

}  // namespace Routing::Multicast::Notify
