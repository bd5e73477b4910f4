// Reading the header of a kernel upcall, with bounds checks.
//
// An upcall overlays an IPv4 header (the layout of struct igmpmsg):
//
//   offset  size  field
//        0     8  reserved (version/IHL at 0, used for the header length)
//        8     1  message type: 1 no cache, 2 wrong vif, 3 whole packet
//        9     1  zero (the IPv4 protocol byte; real IGMP packets carry 2)
//       10     2  virtual-interface index, little-endian (high byte at 11)
//       12     4  source address
//       16     4  group address
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "mroute/runtime/net/ip_addr.h"

namespace Routing::Multicast::Notify {

inline constexpr size_t kUpcallHeaderBytes = 20;

struct UpcallHeader {
  uint8_t msgType = 0;
  uint8_t ipProto = 0;
  uint16_t vif = 0;
  Orvet::IpAddr source;
  Orvet::IpAddr group;
  // The IPv4 header length (IHL * 4) of the datagram, the bytes to strip to
  // reach a whole packet's copy.
  size_t headerBytes = 0;
};

// The header, or nullopt when the datagram is shorter than 20 bytes or its
// header length is below 20 or beyond the datagram.
std::optional<UpcallHeader> parseUpcall(const uint8_t* data, size_t size);

}  // namespace Routing::Multicast::Notify
