#include "mroute/pam/socket_at.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace Orvet {
namespace {

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

ino_t socketNamespace(int fd) {
  int nsfd = ::ioctl(fd, SIOCGSKNS);
  if (nsfd < 0) return 0;
  struct stat st {};
  ::fstat(nsfd, &st);
  ::close(nsfd);
  return st.st_ino;
}

TEST(SocketAtTest, MissingNamespaceFailsWithEnoent) {
  errno = 0;
  EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, NamespaceName("mroute-no-such-ns")), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(SocketAtTest, OpensInsideNamedNamespaceAndComesBack) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
  std::string name = "mroute-sat-" + std::to_string(::getpid());
  ASSERT_EQ(std::system(("ip netns add " + name).c_str()), 0);
  ino_t home = inodeOf("/proc/thread-self/ns/net");
  int fd = socketAt(AF_INET, SOCK_DGRAM, 0, NamespaceName(name));
  int err = errno;
  ino_t target = inodeOf(namespacePath(name));
  ino_t socketNs = fd >= 0 ? socketNamespace(fd) : 0;
  if (fd >= 0) ::close(fd);
  std::system(("ip netns del " + name).c_str());
  ASSERT_GE(fd, 0) << "errno " << err;
  EXPECT_NE(target, home);
  EXPECT_EQ(socketNs, target);
  EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), home);
}

}  // namespace
}  // namespace Orvet
