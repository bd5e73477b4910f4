// What the upcall socket pams (mrt_socket_pam.ent) hold besides their
// attributes, and what one receive gives back.
//
// MrtSocketSeams: the system calls and the packet manager a pam uses,
// replaceable by tests (MrtSocketPam::sysIs, pktManagerIs). MrtRx: the result
// of one MrtSocketPam::receive(). MrtRxLayout: how a family's pam lays out
// the control buffer of recvmsg.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "mroute/entity/kiv/ptr.h"
#include "mroute/kernel/mrt_sys.h"
#include "mroute/pam/pkt.h"

namespace Routing::Multicast::Notify {

struct MrtSocketSeams {
  MrtSys* sys = &MrtSys::real();
  Orvet::PktManager* pktManager = &Orvet::PktManager::global();
};

// What one receive() did.
enum class MrtRxStatus : uint8_t {
  packet,   // `pkt` holds a datagram for the readers
  skipped,  // a datagram was read but is not for the readers (empty, filtered)
  empty,    // nothing to read
  failed,   // not enabled, no packet memory, or a receive error (traced)
};

struct MrtRx {
  MrtRxStatus status;
  Kiv::Ptr<Orvet::Pkt> pkt;
};

// What recvmsg is given: room for the sender's address, and the one
// ancillary record the control buffer is laid out for (IPv4: a 16-byte
// address and IP_PKTINFO).
struct MrtRxLayout {
  socklen_t nameLen;
  int cmsgLevel;
  int cmsgType;
  size_t cmsgDataLen;
};

}  // namespace Routing::Multicast::Notify
