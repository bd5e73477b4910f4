// Routing::Multicast::Notify::Mrt6SocketPam: the IPv6 upcall socket of a
// Linux kernel.
//
// A raw IPPROTO_ICMPV6 socket on which MRT6_INIT succeeded. The kernel sends
// it every no-cache upcall, wrong-mif upcalls when MRT6_ASSERT is on, and
// whole-packet upcalls for packets routed to a register mif (MIFF_REGISTER),
// each starting with struct mrt6msg (mrt6_upcall.h). Like the stock IPv4
// socket, the kernel cannot be told which kinds to send: `options` (the
// same bits as IPv4, mrt6_constants.h) filters them here, counted in
// rxFiltered. The socket also asks the kernel, with ICMP6_FILTER, to keep
// every real ICMPv6 message away from it (neighbour discovery, MLD); should
// one still arrive it is dropped and counted in rxNotUpcall.
//
// The kernel's IPv6 multicast routing table belongs to this socket: mifs and
// MFC6 entries are added through it and disappear when it closes. MRT6_ASSERT
// and MRT6_PIM are the namespace's and outlive it.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <netinet/in.h>

#include "mroute/kernel/mrt6_constants.h"
#include "mroute/kernel/mrt_stock_socket_pam.h"
#include "mroute/runtime/net/ip_gen_addr.h"

namespace Routing::Multicast::Notify {

class Mrt6SocketPam : public MrtStockSocketPam {
 public:
  static Kiv::Ptr<Mrt6SocketPam> Mrt6SocketPamIs(const Kiv::Name& name) { return new Mrt6SocketPam(name); }

  const Kiv::TypeRecord& fwkType() const override;

  // From IPV6_PKTINFO, IPV6_HOPLIMIT and IPV6_TCLASS of the last datagram,
  // when the kernel sent them; rxIfIndex() is shared with IPv4.
  const Orvet::IpGenAddr& rxDstIp6Addr() const { return rxDstIp6Addr_; }
  uint8_t rxHopLimit() const { return rxHopLimit_; }
  uint8_t rxTrafficClass() const { return rxTrafficClass_; }

 protected:
  explicit Mrt6SocketPam(const Kiv::Name& name);

  int socketDomain() const override { return AF_INET6; }
  int socketProtocol() const override { return IPPROTO_ICMPV6; }
  // MRT6_INIT, then ICMP6_FILTER blocking every type; a failure throws
  // "setsockopt(MRT6_INIT): ..." (e.g. "Address already in use" when another
  // socket holds the table) or "setsockopt(ICMP6_FILTER): ...".
  void registerUpcalls(int fd, std::string_view op, std::string_view arg) override;
  std::optional<int> upcallKind(const Orvet::Pkt& pkt) const override;
  // A 28-byte IPv6 address and IPV6_PKTINFO.
  RxLayout rxLayout() const override;
  bool readAncillary(const msghdr& msg) override;

 private:
  Orvet::IpGenAddr rxDstIp6Addr_;
  uint8_t rxHopLimit_ = 0;
  uint8_t rxTrafficClass_ = 0;
};

}  // namespace Routing::Multicast::Notify
