#include "mroute/entity/replication/attr_log_socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "mroute/entity/replication/nbo_attr_log.h"
#include "mroute/runtime/error.h"
#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm_root.h"

namespace Kiv::NboAttrLog {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

[[noreturn]] void refuse(const std::string& text) { throw Pavo::InvalidInitializeException("NboAttrLog: " + text); }

}  // namespace

std::string socketPath(std::string_view mountPath) {
  std::string path = Brume::tableRoot(mountPath, kSocketName).dir();
  if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    refuse("socket path '" + path + "' is longer than a Unix socket address allows (" +
           std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes)");
  }
  return path;
}

int connectTo(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const sockaddr_un a = addressOf(path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) < 0) {
    const int e = errno;
    ::close(fd);
    errno = e;
    return -1;
  }
  return fd;
}

Listener::Listener(Mroute::Loop::EventLoop& loop, std::string path, Accept accept)
    : path_(std::move(path)), accept_(std::move(accept)) {
  const std::string dir = path_.substr(0, path_.rfind('/'));
  std::string error;
  if (!Mem::makeDirectories(Mem::systemShmFs(), dir, &error)) refuse(error);
  if (const int live = connectTo(path_); live >= 0) {
    ::close(live);
    refuse("another writer serves " + path_);
  }
  ::unlink(path_.c_str());  // left by a writer that died
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw Mroute::ErrnoException("socket(AF_UNIX)", errno);
  // Restrict the socket before it accepts: fchmod on the unbound socket sets
  // the mode bind gives the file.
  ::fchmod(fd_, 0600);
  const sockaddr_un a = addressOf(path_);
  if (::bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) < 0 || ::chmod(path_.c_str(), 0600) < 0 ||
      ::listen(fd_, 64) < 0) {
    const int e = errno;
    ::close(fd_);
    throw Mroute::ErrnoException("bind/listen(" + path_ + ")", e);
  }
  watch_ = std::make_unique<Mroute::Loop::FdWatch>(loop, fd_);
  watch_->onReadableIs([this] { onReadable(); });
}

Listener::~Listener() {
  watch_->remove();
  ::close(fd_);
  ::unlink(path_.c_str());
}

void Listener::onReadable() {
  for (;;) {
    const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        MROUTE_TRACE(traceFacility(), 1, "NboAttrLog: accept on " << path_ << ": " << std::strerror(errno));
      }
      return;
    }
    accept_(fd);
  }
}

}  // namespace Kiv::NboAttrLog
