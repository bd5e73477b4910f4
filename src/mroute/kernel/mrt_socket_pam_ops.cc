// The hand-written operations of MrtSocketPam: opening, registering and
// closing the socket, changing the upcall kinds, and the receive path.
#include "mroute/kernel/mrt_socket_pam.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>

#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

namespace Routing::Multicast::Notify {
namespace {

// Room for exactly one packet-information record of either family (the IPv4
// one is 24 bytes on the 32-bit ABI the layout was drawn for, 32 on LP64).
constexpr size_t kRxControlBytes = std::max(CMSG_SPACE(sizeof(in_pktinfo)), CMSG_SPACE(sizeof(in6_pktinfo)));

std::string hex(uint32_t v) {
  std::ostringstream os;
  os << std::hex << v;
  return os.str();
}

std::string systemMessage(int err) { return Mroute::ErrnoException("", err).what() + 2; }

// Stops watching the descriptor, then closes it, so that the loop never sees
// a closed descriptor.
void closeWatched(MrtSys& sys, const Kiv::Ptr<Orvet::FileDesc>& fileDesc, Kiv::Ptr<Orvet::PamFdSm>& fdSm) {
  fdSm = nullptr;
  sys.close(fileDesc->descriptor());
  fileDesc->descriptorIs(-1);
}

const Mroute::Trace::Facility& fac() {
  static const Mroute::Trace::Facility& f = Mroute::Trace::facility("Mroute::MrtPam");
  return f;
}

}  // namespace

MrtSys& MrtSocketPam::sys() const { return *seams_.sys; }
void MrtSocketPam::sysIs(MrtSys& sys) { seams_.sys = &sys; }
Orvet::PktManager& MrtSocketPam::pktManager() const { return *seams_.pktManager; }
void MrtSocketPam::pktManagerIs(Orvet::PktManager& mgr) { seams_.pktManager = &mgr; }

void MrtSocketPam::onZeroReferences() {
  handleCleanup();
  fdSm_ = nullptr;
  fileDesc_ = nullptr;
  Orvet::Pam::onZeroReferences();
}

bool MrtSocketPam::tracing(int level) const { return fac().enabled(level); }

void MrtSocketPam::trace(int level, std::string_view op, std::string_view arg, std::string_view text) const {
  MROUTE_TRACE(fac(), level,
               "void " << fwkType().name << "::" << op << '(' << arg << ") NS:" << netNs_
                       << (text.empty() ? "" : " ") << text);
}

void MrtSocketPam::netNsIs(const Orvet::NamespaceName& ns) {
  if (ns == netNs_) return;
  Kiv::attrIs<NotifieeConst>(*this, kNetNsId, netNs_, ns, &NotifieeConst::onNetNs);
  handleNetNs();
}

void MrtSocketPam::handleNetNs() {
  trace(9, "handleNetNs()", "", "");
  if (!enabled_) return;
  enabledIs(false);
  enabledIs(true);
}

void MrtSocketPam::enabledIs(bool on) {
  constexpr std::string_view op = "enabledIs(bool)";
  const char* arg = on ? "1" : "0";
  trace(9, op, arg, "");
  if (on == enabled_) return;
  if (!on) {
    MROUTE_ASSERT(fileDesc());
    closeWatched(sys(), fileDesc_, fdSm_);
    fileDesc_ = nullptr;
    trace(9, op, arg, "Mrt pam is disabled");
    Kiv::attrIs<NotifieeConst>(*this, kEnabledId, enabled_, false, &NotifieeConst::onEnabled);
    return;
  }
  MROUTE_ASSERT(eventLoop());
  int fd = sys().socketAt(socketDomain(), SOCK_RAW, socketProtocol(), netNs_);
  if (fd < 0) {
    int err = errno;
    trace(9, op, arg, "socket open error");
    throw Mroute::ErrnoException("socket", err);
  }
  registerUpcalls(fd, op, arg);
  Kiv::Ptr<Orvet::FileDesc> fileDesc(new Orvet::FileDesc(name()));
  fileDesc->descriptorIs(fd);
  try {
    fdSm_ = new Orvet::PamFdSm(*eventLoop(), fileDesc, this);
  } catch (const Mroute::ErrnoException& e) {
    closeAndThrow(fd, e.context(), e.errnum());
  }
  fileDesc_ = fileDesc;
  trace(9, op, arg, "Mrt pam is enabled");
  Kiv::attrIs<NotifieeConst>(*this, kEnabledId, enabled_, true, &NotifieeConst::onEnabled);
}

int MrtSocketPam::setIntOption(int fd, int option, int value) {
  return setOption(fd, IPPROTO_IP, option, &value, sizeof value);
}

int MrtSocketPam::setOption(int fd, int level, int option, const void* value, socklen_t len) {
  return sys().setsockopt(fd, level, option, value, len) < 0 ? errno : 0;
}

void MrtSocketPam::closeAndThrow(int fd, std::string_view context, int err) {
  sys().close(fd);
  throw Mroute::ErrnoException(context, err);
}

void MrtSocketPam::optionsIs(uint32_t newOptions) {
  constexpr std::string_view op = "optionsIs(uint32_t)";
  const std::string arg = std::to_string(newOptions);
  trace(9, op, arg, "");
  if (enabled_) {
    uint32_t changed = options_ ^ newOptions;
    if (tracing(9)) {
      trace(9, op, arg, "oldOptions=" + hex(options_) + "newOptions=" + hex(newOptions));
      trace(9, op, arg, "changedOptions=" + hex(changed));
    }
    if (changed == 0) return;
    switchKinds(fileDesc_->descriptor(), changed);  // throws before anything is stored
  }
  Kiv::attrIs<NotifieeConst>(*this, kOptionsId, options_, newOptions, &NotifieeConst::onOptions);
}

void MrtSocketPam::switchKinds(int, uint32_t) {}

int MrtSocketPam::socketDomain() const { return AF_INET; }

int MrtSocketPam::socketProtocol() const { return IPPROTO_RAW; }

void MrtSocketPam::registerUpcalls(int, std::string_view, std::string_view) {}

void MrtSocketPam::handleCleanup() {
  trace(9, "handleCleanup()", "", "");
  if (!enabled_) return;
  MROUTE_ASSERT(fileDesc());
  closeWatched(sys(), fileDesc_, fdSm_);
  enabled_ = false;  // the pam is going: nobody to tell
}

bool MrtSocketPam::acceptRx(Orvet::Pkt&) { return true; }

void MrtSocketPam::doGetRxPkt() {
  if (enabled_ && rxPktHolder()) {
    // The reader stopped before taking it (its pass ran out of time).
    rxPktHolderRenotify();
    return;
  }
  MrtRx rx = receive();
  if (!rx.pkt) return;
  rxPktInc(1);
  rxPktHolderIs(rx.pkt);
}

MrtRxLayout MrtSocketPam::rxLayout() const {
  return {sizeof(sockaddr_in), IPPROTO_IP, IP_PKTINFO, sizeof(in_pktinfo)};
}

MrtRx MrtSocketPam::receive() {
  constexpr std::string_view s = "doGetRxPkt()";
  if (!enabled_) {
    trace(9, s, "", "IpSocketPam not enabled. Aborting action");
    return {MrtRxStatus::failed, nullptr};
  }
  Kiv::Ptr<Orvet::Pkt> pkt = pktManager().newPkt(maxRxPktData_);
  if (!pkt) {
    trace(9, s, "", "Failed to obtain new packet object");
    return {MrtRxStatus::failed, nullptr};
  }
  size_t maxSize = pkt->maxSize();
  MROUTE_ASSERT(maxSize >= maxRxPktData());

  const MrtRxLayout layout = rxLayout();
  sockaddr_in6 from{};  // room for either family's address
  MROUTE_ASSERT(layout.nameLen <= sizeof from);
  static_assert(sizeof(sockaddr_in) == 16);
  iovec iov{pkt->data(), maxRxPktData_};
  alignas(cmsghdr) unsigned char control[kRxControlBytes] = {};
  const size_t controlLen = CMSG_SPACE(layout.cmsgDataLen);
  MROUTE_ASSERT(controlLen <= sizeof control);
  cmsghdr* first = reinterpret_cast<cmsghdr*>(control);
  first->cmsg_len = CMSG_LEN(layout.cmsgDataLen);
  first->cmsg_level = layout.cmsgLevel;
  first->cmsg_type = layout.cmsgType;
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = layout.nameLen;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = controlLen;

  ssize_t n = sys().recvmsg(fileDesc_->descriptor(), &msg, rxFlags_);
  if (n < 0) {
    int err = errno;
    if (err == EAGAIN) return {MrtRxStatus::empty, nullptr};
    if (tracing(2)) {
      trace(2, s, "", "recvmsg failed with " + std::to_string(err) + " (" + systemMessage(err) + ")");
    }
    rxErrorsInc(1);
    return {MrtRxStatus::failed, nullptr};
  }
  // MSG_TRUNC in rxFlags makes recvmsg report the datagram's full length.
  size_t length = std::min(static_cast<size_t>(n), static_cast<size_t>(maxRxPktData_));
  if (tracing(9)) trace(9, s, "", "Received packet of size " + std::to_string(length));
  if (!readAncillary(msg)) trace(9, s, "", "recvmsg failed to retrieve ifindex");

  rxPktCountInc(1);
  pkt->sizeIs(length);
  if (length == 0) {
    trace(9, s, "", "Discarding empty packet");
    return {MrtRxStatus::skipped, nullptr};
  }
  if (!acceptRx(*pkt)) return {MrtRxStatus::skipped, nullptr};
  return {MrtRxStatus::packet, std::move(pkt)};
}

bool MrtSocketPam::readAncillary(const msghdr& msg) {
  constexpr std::string_view s = "doGetRxPkt()";
  bool sawPktInfo = false;
  for (const cmsghdr* c = CMSG_FIRSTHDR(&msg); c;
       c = CMSG_NXTHDR(const_cast<msghdr*>(&msg), const_cast<cmsghdr*>(c))) {
    if (c->cmsg_level != IPPROTO_IP) continue;
    const unsigned char* data = CMSG_DATA(c);
    size_t dataLen = c->cmsg_len - CMSG_LEN(0);
    if (c->cmsg_type == IP_PKTINFO && dataLen >= sizeof(in_pktinfo)) {
      in_pktinfo info;
      std::memcpy(&info, data, sizeof info);
      rxIfIndexIs(static_cast<uint32_t>(info.ipi_ifindex));
      rxDstIpAddrIs(Orvet::IpAddr::fromNetwork(info.ipi_addr.s_addr));
      sawPktInfo = true;
      if (tracing(9)) {
        trace(9, s, "",
              "Packet arrived on interface index " + std::to_string(rxIfIndex_) + " with destination IP of " +
                  rxDstIpAddr_.text());
      }
    } else if (c->cmsg_type == IP_ORIGDSTADDR && dataLen >= sizeof(sockaddr_in)) {
      sockaddr_in orig;
      std::memcpy(&orig, data, sizeof orig);
      rxOrigDstIpAddrIs(Orvet::IpAddr::fromNetwork(orig.sin_addr.s_addr));
      if (tracing(9)) trace(9, s, "", "Original destination IP is " + rxOrigDstIpAddr_.text());
    } else if (c->cmsg_type == IP_TOS && dataLen >= 1) {
      rxTOSIs(data[0]);
      if (tracing(9)) trace(9, s, "", "TOS of received packet is 0x" + hex(rxTOS_));
    } else if (c->cmsg_type == IP_TTL && dataLen >= sizeof(int)) {
      int ttl;
      std::memcpy(&ttl, data, sizeof ttl);
      rxTTLIs(static_cast<uint8_t>(ttl));
      if (tracing(9)) trace(9, s, "", "TTL of received packet is 0x" + hex(rxTTL_));
    }
  }
  return sawPktInfo;
}

}  // namespace Routing::Multicast::Notify
