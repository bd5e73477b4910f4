// Reading the header of an IPv6 kernel upcall, with bounds checks.
//
// An IPv6 upcall starts with struct mrt6msg (40 bytes):
//
//   offset  size  field
//        0     1  must be zero (the ICMPv6 type byte; real ICMPv6 messages
//                 never carry type 0)
//        1     1  message type: 1 no cache, 2 wrong mif, 3 whole packet
//        2     2  mif index, in the kernel's (host) byte order
//        4     4  padding
//        8    16  source address
//       24    16  group address
//
// A whole-packet upcall goes on with the packet the kernel copied, its IPv6
// header first. No-cache and wrong-mif upcalls are followed by bytes the
// kernel does not initialise: nothing after the header may be read.
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "mroute/runtime/net/ip_gen_addr.h"

namespace Routing::Multicast::Notify {

inline constexpr size_t kUpcall6HeaderBytes = 40;

struct Upcall6Header {
  uint8_t msgType = 0;
  uint16_t mif = 0;
  Orvet::IpGenAddr source;
  Orvet::IpGenAddr group;
};

// The header, or nullopt when the datagram is shorter than 40 bytes or its
// first byte is not zero (an ICMPv6 message, not an upcall).
std::optional<Upcall6Header> parseUpcall6(const uint8_t* data, size_t size);

}  // namespace Routing::Multicast::Notify
