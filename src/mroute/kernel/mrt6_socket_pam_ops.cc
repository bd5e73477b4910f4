// The hand-written operations of Mrt6SocketPam: MRT6_INIT, the ICMPv6
// filter, and the IPv6 header and ancillary data.
#include "mroute/kernel/mrt6_socket_pam.h"

#include <netinet/in.h>

#include <cstring>
#include <sstream>
#include <string>

#include "mroute/kernel/mrt6_upcall.h"

namespace Routing::Multicast::Notify {
namespace {

std::string hex(unsigned v) {
  std::ostringstream os;
  os << std::hex << v;
  return os.str();
}

}  // namespace

Kiv::Ptr<Mrt6SocketPam> Mrt6SocketPam::Mrt6SocketPamIs(const Kiv::Name& name) { return new Mrt6SocketPam(name); }

int Mrt6SocketPam::socketDomain() const { return AF_INET6; }

int Mrt6SocketPam::socketProtocol() const { return IPPROTO_ICMPV6; }

void Mrt6SocketPam::registerUpcalls(int fd, std::string_view, std::string_view) {
  int one = 1;
  if (int err = setOption(fd, IPPROTO_IPV6, kMrt6Init, &one, sizeof one)) {
    closeAndThrow(fd, "setsockopt(MRT6_INIT)", err);
  }
  // Upcalls reach the socket whatever the filter says; real ICMPv6 messages
  // stay in the kernel.
  unsigned char blockAll[32];
  std::memset(blockAll, 0xff, sizeof blockAll);
  if (int err = setOption(fd, IPPROTO_ICMPV6, kIcmp6Filter, blockAll, sizeof blockAll)) {
    closeAndThrow(fd, "setsockopt(ICMP6_FILTER)", err);
  }
}

std::optional<int> Mrt6SocketPam::upcallKind(const Orvet::Pkt& pkt) const {
  std::optional<Upcall6Header> h = parseUpcall6(pkt.data(), pkt.size());
  if (!h) return std::nullopt;
  return h->msgType;
}

MrtRxLayout Mrt6SocketPam::rxLayout() const {
  return {sizeof(sockaddr_in6), IPPROTO_IPV6, IPV6_PKTINFO, sizeof(in6_pktinfo)};
}

bool Mrt6SocketPam::readAncillary(const msghdr& msg) {
  constexpr std::string_view s = "doGetRxPkt()";
  bool sawPktInfo = false;
  for (const cmsghdr* c = CMSG_FIRSTHDR(&msg); c;
       c = CMSG_NXTHDR(const_cast<msghdr*>(&msg), const_cast<cmsghdr*>(c))) {
    if (c->cmsg_level != IPPROTO_IPV6) continue;
    const unsigned char* data = CMSG_DATA(c);
    size_t dataLen = c->cmsg_len - CMSG_LEN(0);
    if (c->cmsg_type == IPV6_PKTINFO && dataLen >= sizeof(in6_pktinfo)) {
      in6_pktinfo info;
      std::memcpy(&info, data, sizeof info);
      rxIfIndexIs(info.ipi6_ifindex);
      Orvet::IpGenAddr::Bytes dst;
      std::memcpy(dst.data(), &info.ipi6_addr, dst.size());
      rxDstIp6AddrIs(Orvet::IpGenAddr::fromIpv6(dst));
      sawPktInfo = true;
      if (tracing(9)) {
        trace(9, s, "",
              "Packet arrived on interface index " + std::to_string(rxIfIndex()) +
                  " with destination IP of " + rxDstIp6Addr().text());
      }
    } else if (c->cmsg_type == IPV6_TCLASS && dataLen >= sizeof(int)) {
      int tclass;
      std::memcpy(&tclass, data, sizeof tclass);
      rxTrafficClassIs(static_cast<uint8_t>(tclass));
      if (tracing(9)) trace(9, s, "", "Traffic class of received packet is 0x" + hex(rxTrafficClass()));
    } else if (c->cmsg_type == IPV6_HOPLIMIT && dataLen >= sizeof(int)) {
      int hops;
      std::memcpy(&hops, data, sizeof hops);
      rxHopLimitIs(static_cast<uint8_t>(hops));
      if (tracing(9)) trace(9, s, "", "Hop limit of received packet is 0x" + hex(rxHopLimit()));
    }
  }
  return sawPktInfo;
}

}  // namespace Routing::Multicast::Notify
