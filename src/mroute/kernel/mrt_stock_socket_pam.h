// Routing::Multicast::Notify::MrtStockSocketPam: the upcall socket of a stock
// Linux kernel.
//
// The standard multicast-routing socket: a raw IPPROTO_IGMP socket on which
// MRT_INIT succeeded. The kernel sends it every no-cache upcall, wrong-vif
// upcalls when MRT_ASSERT is on, and whole-packet upcalls for packets routed
// to a register vif - the same struct igmpmsg layout as the device kernel.
// A stock kernel cannot switch kinds per socket, so `options` filters here:
// a kind not asked for is dropped before any reader decodes it (counted in
// rxFiltered), as is every datagram that is not an upcall (real IGMP
// packets, which the raw socket also receives; counted in rxNotUpcall).
//
// The kernel's multicast routing table belongs to this socket: vifs and MFC
// entries added through it (or by any CAP_NET_ADMIN raw IGMP socket in the
// namespace) disappear when it closes. The MRT_ASSERT and MRT_PIM flags are
// the namespace's and outlive the socket.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <netinet/in.h>

#include <optional>

#include "mroute/kernel/mrt_socket_pam.h"

namespace Routing::Multicast::Notify {

// The stock kernel's MRT_INIT.
inline constexpr int kMrtInit = 200;

class MrtStockSocketPam : public MrtSocketPam {
 public:
  static Kiv::Ptr<MrtStockSocketPam> MrtStockSocketPamIs(const Kiv::Name& name) {
    return new MrtStockSocketPam(name);
  }

  const Kiv::TypeRecord& fwkType() const override;

  // Only changes the filter; the kernel is not told.
  void optionsIs(uint32_t options) override;

  uint64_t rxFiltered() const { return rxFiltered_; }
  uint64_t rxNotUpcall() const { return rxNotUpcall_; }

 protected:
  explicit MrtStockSocketPam(const Kiv::Name& name);
  // For the IPv6 socket, which filters the same way.
  MrtStockSocketPam(const Kiv::Name& name, std::string typeName);
  bool acceptRx(Orvet::Pkt& pkt) override;
  // The upcall kind of a datagram, or nullopt when it is not an upcall.
  virtual std::optional<int> upcallKind(const Orvet::Pkt& pkt) const;
  int socketProtocol() const override { return IPPROTO_IGMP; }
  // MRT_INIT; a failure throws "setsockopt(MRT_INIT): ..." (e.g. "Address
  // already in use" when another socket holds the table).
  void registerUpcalls(int fd, std::string_view op, std::string_view arg) override;

 private:
  uint64_t rxFiltered_ = 0;
  uint64_t rxNotUpcall_ = 0;
};

}  // namespace Routing::Multicast::Notify
