// The system calls of the upcall sockets, behind one seam.
//
// The socket pams open, configure, read and close their socket only through
// an MrtSys, so that tests can record the exact sequence of socket options
// and feed datagrams with ancillary data. MrtSys::real() is the C library
// (and Orvet::socketAt); every call returns what the system returns and
// leaves errno as the system left it.
//
// Thread-safety: the real MrtSys is stateless and shared.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include "mroute/runtime/net/namespace_name.h"

namespace Routing::Multicast::Notify {

class MrtSys {
 public:
  virtual ~MrtSys() = default;
  virtual int socketAt(int domain, int type, int protocol, const Orvet::NamespaceName& ns);
  virtual int setsockopt(int fd, int level, int option, const void* value, socklen_t len);
  virtual ssize_t recvmsg(int fd, msghdr* msg, int flags);
  virtual int close(int fd);

  static MrtSys& real();
};

}  // namespace Routing::Multicast::Notify
