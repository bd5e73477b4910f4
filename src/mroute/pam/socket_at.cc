#include "mroute/pam/socket_at.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "mroute/runtime/assert.h"

namespace Orvet {

std::string namespacePath(const NamespaceName& ns) {
  if (!ns.view().empty() && ns.view().front() == '/') return ns.str();
  return "/run/netns/" + ns.str();
}

int socketAt(int domain, int type, int protocol, const NamespaceName& ns) {
  if (ns.isCurrent()) return ::socket(domain, type, protocol);

  int target = ::open(namespacePath(ns).c_str(), O_RDONLY | O_CLOEXEC);
  if (target < 0) return -1;
  // The thread's own namespace, not the process's: another thread may have
  // moved elsewhere.
  int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (home < 0) {
    int saved = errno;
    ::close(target);
    errno = saved;
    return -1;
  }
  int fd = -1;
  int saved = 0;
  if (::setns(target, CLONE_NEWNET) < 0) {
    saved = errno;
  } else {
    fd = ::socket(domain, type, protocol);
    saved = errno;
    int back = ::setns(home, CLONE_NEWNET);
    MROUTE_ASSERT(back == 0);
  }
  ::close(target);
  ::close(home);
  errno = saved;
  return fd;
}

}  // namespace Orvet
