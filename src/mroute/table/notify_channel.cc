#include "mroute/table/notify_channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "mroute/table/queue/conquer_writer.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume {

namespace {

// Socket files are reachable by the table's group, like the table files.
constexpr mode_t kSocketMode = 0660;

// A socket address for `directory`/`name`. Paths beyond sun_path go through
// the directory's /proc/self/fd link; *dirFd then holds a descriptor the
// caller closes after the call.
bool socketAddress(const std::string& directory, const std::string& name, sockaddr_un* addr, int* dirFd) {
  *dirFd = -1;
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  std::string path = Mem::joinPath(directory, name);
  if (path.size() >= sizeof addr->sun_path) {
    *dirFd = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (*dirFd < 0) return false;
    path = "/proc/self/fd/" + std::to_string(*dirFd) + "/" + name;
    if (path.size() >= sizeof addr->sun_path) return false;
  }
  std::memcpy(addr->sun_path, path.data(), path.size());
  return true;
}

void closeFd(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

}  // namespace

NotifyServer::NotifyServer(Mroute::Loop::EventLoop& loop, std::string directory, std::chrono::milliseconds ackTimeout)
    : loop_(loop),
      directory_(std::move(directory)),
      path_(Mem::joinPath(directory_, kNotifySocketName)),
      ackTimeout_(ackTimeout) {}

NotifyServer::~NotifyServer() {
  queueIs(nullptr);
  close();
}

bool NotifyServer::open() {
  if (isOpen()) return true;
  const std::string temp = std::string(kNotifySocketName) + "." + std::to_string(::getpid());
  sockaddr_un addr;
  int dirFd = -1;
  const bool addressed = socketAddress(directory_, temp, &addr, &dirFd);
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const std::string tempPath = Mem::joinPath(directory_, temp);
  ::unlink(tempPath.c_str());
  auto fail = [&](const char* call) {
    const int err = errno;
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "NotifyServer::open() " << call << "(" << path_ << ") failed: " << std::strerror(err));
    if (fd >= 0) ::close(fd);
    if (dirFd >= 0) ::close(dirFd);
    ::unlink(tempPath.c_str());
    return false;
  };
  if (!addressed) return fail("address");
  if (fd < 0) return fail("socket");
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) return fail("bind");
  if (::chmod(tempPath.c_str(), kSocketMode) != 0) return fail("chmod");
  if (::listen(fd, 128) != 0) return fail("listen");
  // Listening before the name appears: a reader that sees it can connect.
  if (::rename(tempPath.c_str(), path_.c_str()) != 0) return fail("rename");
  if (dirFd >= 0) ::close(dirFd);
  listenFd_ = fd;
  listenWatch_ = std::make_unique<Mroute::Loop::FdWatch>(loop_, listenFd_);
  listenWatch_->onReadableIs([this] { accept(); });
  const auto period = std::max(ackTimeout_ / 2, std::chrono::milliseconds(1));
  silentTimer_ = std::make_unique<Mroute::Loop::Timer>(loop_, [this] { checkSilent(); });
  silentTimer_->startPeriodic(period);
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "NotifyServer::open() listening on " << path_);
  return true;
}

void NotifyServer::close() {
  if (!isOpen()) return;
  while (!conns_.empty()) drop(conns_.begin()->first, false);
  silentTimer_.reset();
  listenWatch_.reset();
  closeFd(&listenFd_);
  ::unlink(path_.c_str());
}

void NotifyServer::queueIs(ConquerWriter* queue) {
  if (queue_ != nullptr) queue_->newsIs(nullptr);
  queue_ = queue;
  if (queue_ == nullptr) return;
  queue_->newsIs([this](uint64_t seq) { news(seq); });
  // Acknowledgements given to an earlier queue mean nothing to this one.
  for (auto& [fd, c] : conns_) {
    c->lastAck = kNoAck;
    c->since = Clock::now();
  }
  queue_->updateNumReaders(readers());
}

void NotifyServer::accept() {
  for (;;) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EAGAIN && errno != EINTR) {
        MROUTE_TRACE(brumeTrace(), kTraceError, "NotifyServer::accept() failed: " << std::strerror(errno));
      }
      return;
    }
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->since = Clock::now();
    if (board_ != nullptr) {
      // The kernel's word for who connected, not anything the reader says.
      ucred cred{};
      socklen_t len = sizeof cred;
      const bool known = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0;
      c->record = board_->readerConnected(known ? static_cast<uint32_t>(cred.pid) : 0);
    }
    c->watch = std::make_unique<Mroute::Loop::FdWatch>(loop_, fd);
    c->watch->onReadableIs([this, fd] { receive(fd); });
    conns_[fd] = std::move(c);
    ++counters_.accepted;
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "NotifyServer::accept() reader connected, readers:" << readers());
    if (queue_ != nullptr) queue_->updateNumReaders(readers());
  }
}

void NotifyServer::send(Conn& c, channel::MessageType type, uint64_t value) {
  const channel::Message m{static_cast<uint32_t>(type), 0, value};
  // A full buffer holds a kick or an answer the reader has yet to read; the
  // next acknowledgement is answered again.
  ::send(c.fd, &m, sizeof m, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void NotifyServer::kick(Conn& c, uint64_t sequence) {
  if (c.kicked) return;
  c.kicked = true;
  c.since = Clock::now();
  ++counters_.kicks;
  send(c, channel::MessageType::kick, sequence);
}

void NotifyServer::news(uint64_t sequence) {
  for (auto& [fd, c] : conns_) {
    if (c->lastAck == kNoAck || c->lastAck < sequence) kick(*c, sequence);
  }
}

void NotifyServer::receive(int fd) {
  auto it = conns_.find(fd);
  if (it == conns_.end()) return;
  Conn& c = *it->second;
  for (;;) {
    // Room for the largest message; a longer datagram is cut and ignored.
    alignas(8) unsigned char buf[sizeof(channel::HealthMessage) + 8];
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
      drop(fd, false);
      return;
    }
    channel::Message m{};
    std::memcpy(&m, buf, std::min(sizeof m, static_cast<size_t>(n)));
    if (n == sizeof(channel::HealthMessage) && m.type == static_cast<uint32_t>(channel::MessageType::health)) {
      channel::HealthMessage h;
      std::memcpy(&h, buf, sizeof h);
      if (board_ != nullptr) board_->readerReported(c.record, {h.restarts, h.lookasideReads, h.resyncs});
      continue;
    }
    if (n != sizeof m || m.type != static_cast<uint32_t>(channel::MessageType::ack)) continue;
    ++counters_.acks;
    const uint64_t prev = c.lastAck;
    c.lastAck = m.value;
    c.kicked = false;
    if (board_ != nullptr) board_->readerAcked(c.record, m.value);
    if (queue_ == nullptr) continue;
    queue_->updateSequence(prev, m.value);
    send(c, channel::MessageType::minSeq, queue_->minSeq());
    // News that came while the reader walked.
    if (queue_->sequence() > m.value) kick(c, queue_->sequence());
  }
}

void NotifyServer::drop(int fd, bool silent) {
  auto it = conns_.find(fd);
  if (it == conns_.end()) return;
  std::unique_ptr<Conn> c = std::move(it->second);
  conns_.erase(it);
  if (silent) {
    ++counters_.dropped;
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "NotifyServer::checkSilent() disconnecting a reader that did not acknowledge, lastAck:"
                     << (c->lastAck == kNoAck ? std::string("none") : std::to_string(c->lastAck)));
  } else {
    ++counters_.closed;
  }
  c->watch->remove();
  ::close(c->fd);
  if (board_ != nullptr) board_->readerLeft(c->record, silent);
  if (queue_ != nullptr) {
    if (c->lastAck != kNoAck) queue_->readerGone(c->lastAck);
    queue_->updateNumReaders(readers());
  }
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "NotifyServer::drop() reader gone, readers:" << readers());
}

void NotifyServer::checkSilent() {
  const Clock::time_point now = Clock::now();
  std::vector<int> silent;
  for (auto& [fd, c] : conns_) {
    const bool waiting = c->kicked || c->lastAck == kNoAck;
    if (waiting && now - c->since > ackTimeout_) silent.push_back(fd);
  }
  for (int fd : silent) drop(fd, true);
}

NotifyClient::NotifyClient(std::string directory) : directory_(std::move(directory)) {}

bool NotifyClient::connect() {
  if (connected()) return true;
  sockaddr_un addr;
  int dirFd = -1;
  if (!socketAddress(directory_, kNotifySocketName, &addr, &dirFd)) {
    closeFd(&dirFd);
    return false;
  }
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // A listening local socket accepts or refuses at once, even non-blocking.
  const bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  closeFd(&dirFd);
  if (!ok) {
    if (fd >= 0) ::close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

void NotifyClient::close() { closeFd(&fd_); }

NotifyClient::Inbox NotifyClient::drain() {
  Inbox in;
  while (fd_ >= 0) {
    channel::Message m;
    const ssize_t n = ::recv(fd_, &m, sizeof m, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) break;
    if (n <= 0) {
      in.hangup = true;
      break;
    }
    if (n != sizeof m) continue;
    if (m.type == static_cast<uint32_t>(channel::MessageType::kick)) in.kicked = true;
    if (m.type == static_cast<uint32_t>(channel::MessageType::minSeq)) {
      in.hasMinSeq = true;
      in.minSeq = m.value;
    }
  }
  return in;
}

bool NotifyClient::ack(uint64_t seq) {
  if (fd_ < 0) return false;
  const channel::Message m{static_cast<uint32_t>(channel::MessageType::ack), 0, seq};
  const ssize_t n = ::send(fd_, &m, sizeof m, MSG_DONTWAIT | MSG_NOSIGNAL);
  // EAGAIN: the writer is behind on reading; a later ack carries more.
  return n == sizeof m || (n < 0 && errno == EAGAIN);
}

bool NotifyClient::report(const ReaderHealth& health) {
  if (fd_ < 0) return false;
  const channel::HealthMessage m{static_cast<uint32_t>(channel::MessageType::health), 0, health.restarts,
                                 health.lookasideReads, health.resyncs};
  // EAGAIN: dropped; the next report after a walk carries the counters again.
  return ::send(fd_, &m, sizeof m, MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof m;
}

}  // namespace Brume
