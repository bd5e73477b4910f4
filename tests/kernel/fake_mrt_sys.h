// A recording MrtSys for tests: logs every socket call as text, fails the
// calls it is told to, and serves queued datagrams (with ancillary records)
// to recvmsg. The socket it "opens" is a real eventfd so that the event
// loop can watch it; datagramsIs/push make it readable.
#pragma once

#include <netinet/in.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "mroute/kernel/mrt_sys.h"
#include "mroute/pam/pkt.h"
#include "mroute/runtime/net/ip_addr.h"
#include "mroute/runtime/net/ip_gen_addr.h"

namespace Routing::Multicast::Notify::fake {

struct Datagram {
  std::string bytes;
  int err = 0;                        // recvmsg fails with this errno instead
  std::vector<std::string> controls;  // whole cmsg records, packed in order
};

// A cmsg record at `level` (IPPROTO_IP by default) carrying `payload`.
inline std::string cmsgRecord(int type, const void* payload, size_t len, int level = IPPROTO_IP) {
  std::string rec(CMSG_SPACE(len), '\0');
  cmsghdr h{};
  h.cmsg_len = CMSG_LEN(len);
  h.cmsg_level = level;
  h.cmsg_type = type;
  std::memcpy(rec.data(), &h, sizeof h);
  std::memcpy(CMSG_DATA(reinterpret_cast<cmsghdr*>(rec.data())), payload, len);
  return rec;
}

// An upcall: IPv4-header-shaped, `ihl` words of header, then `tail`.
inline std::string upcall(uint8_t type, uint16_t vif, Orvet::IpAddr src, Orvet::IpAddr grp, int ihl = 5,
                          const std::string& tail = "", uint8_t proto = 0) {
  std::string b(static_cast<size_t>(ihl) * 4, '\0');
  b[0] = static_cast<char>(0x40 | ihl);
  b[8] = static_cast<char>(type);
  b[9] = static_cast<char>(proto);
  b[10] = static_cast<char>(vif & 0xff);
  b[11] = static_cast<char>(vif >> 8);
  uint32_t s = src.value(), g = grp.value();
  std::memcpy(b.data() + 12, &s, 4);
  std::memcpy(b.data() + 16, &g, 4);
  return b + tail;
}

// An IPv6 upcall: struct mrt6msg (the mif in host order, as the kernel
// writes it), then `tail`. `mbz` is the byte that must be zero.
inline std::string upcall6(uint8_t type, uint16_t mif, const Orvet::IpGenAddr& src,
                           const Orvet::IpGenAddr& grp, const std::string& tail = "", uint8_t mbz = 0) {
  std::string b(40, '\0');
  b[0] = static_cast<char>(mbz);
  b[1] = static_cast<char>(type);
  std::memcpy(b.data() + 2, &mif, sizeof mif);
  std::memcpy(b.data() + 8, src.bytes(), 16);
  std::memcpy(b.data() + 24, grp.bytes(), 16);
  return b + tail;
}

// A packet of `pkts` holding `bytes`.
inline Kiv::Ptr<Orvet::Pkt> pktOf(Orvet::PktManager& pkts, const std::string& bytes) {
  Kiv::Ptr<Orvet::Pkt> p = pkts.newPkt(bytes.size());
  p->dataIs(bytes);
  return p;
}

// A clock that moves 1 ms each time it is read, so a read pass of N steps
// reads at most N upcalls whatever the machine's speed.
inline std::chrono::steady_clock::time_point steppingClock() {
  static std::chrono::steady_clock::time_point t{};
  t += std::chrono::milliseconds(1);
  return t;
}

class FakeMrtSys : public MrtSys {
 public:
  ~FakeMrtSys() override {
    for (int fd : open_) ::close(fd);
  }

  std::vector<std::string> calls;
  int failSocket = 0;
  std::map<std::pair<int, int>, int> failOption;  // (option, value) -> errno
  std::string lastOptionBytes;                    // the value of the last setsockopt
  std::deque<Datagram> queue;
  // What the last recvmsg was given, for layout checks.
  socklen_t lastNameLen = 0;
  size_t lastControlLen = 0;
  size_t lastCmsgLen = 0;
  int lastCmsgLevel = -1;
  int lastCmsgType = -1;
  size_t lastIovLen = 0;
  int lastFlags = 0;

  void push(Datagram d) {
    queue.push_back(std::move(d));
    uint64_t one = 1;
    for (int fd : open_) (void)::write(fd, &one, sizeof one);
  }

  int socketAt(int domain, int type, int protocol, const Orvet::NamespaceName& ns) override {
    calls.push_back("socket(" + std::to_string(domain) + "," + std::to_string(type) + "," +
                    std::to_string(protocol) + "," + ns.str() + ")");
    if (failSocket) {
      errno = failSocket;
      return -1;
    }
    int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    open_.push_back(fd);
    return fd;
  }
  int setsockopt(int, int level, int option, const void* value, socklen_t len) override {
    int v = 0;
    if (len == sizeof v) std::memcpy(&v, value, sizeof v);
    lastOptionBytes.assign(static_cast<const char*>(value), len);
    calls.push_back("setsockopt(" + std::to_string(level) + "," + std::to_string(option) + "," +
                    std::to_string(v) + ")");
    auto it = failOption.find({option, v});
    if (it != failOption.end()) {
      errno = it->second;
      return -1;
    }
    return 0;
  }
  ssize_t recvmsg(int fd, msghdr* msg, int flags) override {
    lastNameLen = msg->msg_namelen;
    lastControlLen = msg->msg_controllen;
    cmsghdr first;
    std::memcpy(&first, msg->msg_control, sizeof first);
    lastCmsgLen = first.cmsg_len;
    lastCmsgLevel = first.cmsg_level;
    lastCmsgType = first.cmsg_type;
    lastIovLen = msg->msg_iov[0].iov_len;
    lastFlags = flags;
    if (queue.empty()) {
      uint64_t drain;
      (void)::read(fd, &drain, sizeof drain);
      errno = EAGAIN;
      return -1;
    }
    Datagram d = std::move(queue.front());
    queue.pop_front();
    if (d.err) {
      errno = d.err;
      return -1;
    }
    std::string control;
    for (const std::string& c : d.controls) control += c;
    if (control.size() > msg->msg_controllen) control.resize(0);
    std::memcpy(msg->msg_control, control.data(), control.size());
    msg->msg_controllen = control.size();
    size_t n = std::min(d.bytes.size(), msg->msg_iov[0].iov_len);
    std::memcpy(msg->msg_iov[0].iov_base, d.bytes.data(), n);
    return static_cast<ssize_t>(n);
  }
  int close(int fd) override {
    calls.push_back("close");
    std::erase(open_, fd);
    return ::close(fd);
  }

 private:
  std::vector<int> open_;
};

}  // namespace Routing::Multicast::Notify::fake
