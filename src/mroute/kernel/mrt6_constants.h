// Kernel constants of the IPv6 multicast-routing upcall socket.
//
// A Linux kernel sends IPv6 upcalls to the raw ICMPv6 socket that called
// MRT6_INIT (level IPPROTO_IPV6). The upcall kinds carry the same numbers as
// the IPv4 ones, so a pam's `options` bits mean the same kinds in both
// families. The values travel to the kernel: do not renumber.
#pragma once

#include "mroute/kernel/mrt_constants.h"

namespace Routing::Multicast::Notify {

// setsockopt(fd, IPPROTO_IPV6, MRT6_INIT, int 1): this socket owns the
// namespace's IPv6 multicast routing table and receives its upcalls.
inline constexpr int kMrt6Init = 200;
// setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, 32-byte bit set): the ICMPv6
// types the raw socket receives (a set bit blocks its type).
inline constexpr int kIcmp6Filter = 1;

// Upcall message types (byte 1 of struct mrt6msg).
inline constexpr int kMrt6MsgNoCache = 1;
inline constexpr int kMrt6MsgWrongMif = 2;
inline constexpr int kMrt6MsgWholePkt = 3;
static_assert(kMrt6MsgNoCache == kIgmpMsgNoCache && kMrt6MsgWrongMif == kIgmpMsgWrongVif &&
                  kMrt6MsgWholePkt == kIgmpMsgWholePkt,
              "an option bit stands for the same kind in both families");

// The option bits under their IPv6 names.
inline constexpr MrtNotifyOption mrt6WrongMif = igmpWrongVif;
inline constexpr MrtNotifyOption mrt6NoCache = igmpNoCache;
inline constexpr MrtNotifyOption mrt6WholePkt = igmpWholePkt;

}  // namespace Routing::Multicast::Notify
