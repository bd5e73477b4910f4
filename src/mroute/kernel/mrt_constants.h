// Kernel constants of the IPv4 multicast-routing upcall socket.
//
// The device kernel extends the multicast-routing socket options (the stock
// ones are 200..212) with three of its own: register as the notification
// socket, and switch one upcall kind on or off. The values travel to the
// kernel: do not renumber.
#pragma once

#include <cstdint>

namespace Routing::Multicast::Notify {

// setsockopt(fd, IPPROTO_IP, MRT_NOTIFY_INIT, int 1): this socket receives
// the upcalls.
inline constexpr int MRT_NOTIFY_INIT = 211;
// setsockopt(fd, IPPROTO_IP, MRT_NOTIFY_ENABLE / MRT_NOTIFY_DISABLE, int kind)
// with kind one of the upcall message types below.
inline constexpr int MRT_NOTIFY_ENABLE = 213;
inline constexpr int MRT_NOTIFY_DISABLE = 214;

// The stock kernel's MRT_INIT: setsockopt(fd, IPPROTO_IP, MRT_INIT, int 1)
// makes this socket the owner of the namespace's multicast routing table.
inline constexpr int kMrtInit = 200;

// Upcall message types (byte 8 of an upcall).
inline constexpr int kIgmpMsgNoCache = 1;
inline constexpr int kIgmpMsgWrongVif = 2;
inline constexpr int kIgmpMsgWholePkt = 3;

// Bits of a pam's `options`: which upcall kinds are wanted.
enum MrtNotifyOption : uint32_t {
  none = 0,
  igmpWrongVif = 0x1,
  igmpNoCache = 0x2,
  igmpWholePkt = 0x4,
};

// The option bits in the order in which they are applied, with the upcall
// kind each stands for.
struct MrtOptionKind {
  MrtNotifyOption bit;
  int kind;
  const char* name;  // "wrongvif", "nocache", "wholepkt"
};
inline constexpr MrtOptionKind kMrtOptionKinds[] = {
    {igmpWrongVif, kIgmpMsgWrongVif, "wrongvif"},
    {igmpNoCache, kIgmpMsgNoCache, "nocache"},
    {igmpWholePkt, kIgmpMsgWholePkt, "wholepkt"},
};

// The option bit of an upcall kind, or none for an unknown kind.
constexpr MrtNotifyOption optionOfKind(int kind) {
  for (const MrtOptionKind& k : kMrtOptionKinds) {
    if (k.kind == kind) return k.bit;
  }
  return none;
}

}  // namespace Routing::Multicast::Notify
