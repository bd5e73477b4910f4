#include "mroute/kernel/mrt_sys.h"

#include <unistd.h>

#include "mroute/pam/socket_at.h"

namespace Routing::Multicast::Notify {

int MrtSys::socketAt(int domain, int type, int protocol, const Orvet::NamespaceName& ns) {
  return Orvet::socketAt(domain, type, protocol, ns);
}

int MrtSys::setsockopt(int fd, int level, int option, const void* value, socklen_t len) {
  return ::setsockopt(fd, level, option, value, len);
}

ssize_t MrtSys::recvmsg(int fd, msghdr* msg, int flags) { return ::recvmsg(fd, msg, flags); }

int MrtSys::close(int fd) { return ::close(fd); }

MrtSys& MrtSys::real() {
  static MrtSys sys;
  return sys;
}

}  // namespace Routing::Multicast::Notify
