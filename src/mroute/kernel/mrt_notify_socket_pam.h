// Routing::Multicast::Notify::MrtNotifySocketPam: the upcall socket of the
// device kernel.
//
// A raw IPPROTO_RAW socket registered with MRT_NOTIFY_INIT; each upcall kind
// in `options` is switched on with MRT_NOTIFY_ENABLE when the socket opens,
// and kinds are switched on and off one by one (MRT_NOTIFY_ENABLE /
// MRT_NOTIFY_DISABLE) when `options` changes while open. Closing the socket
// ends the registration; nothing is sent on the way down. A stock kernel
// refuses MRT_NOTIFY_INIT: use MrtStockSocketPam there.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <netinet/in.h>

#include "mroute/kernel/mrt_socket_pam.h"

namespace Routing::Multicast::Notify {

class MrtNotifySocketPam : public MrtSocketPam {
 public:
  static Kiv::Ptr<MrtNotifySocketPam> MrtNotifySocketPamIs(const Kiv::Name& name) {
    return new MrtNotifySocketPam(name);
  }

  const Kiv::TypeRecord& fwkType() const override;

  // While open, throws ErrnoException "setsockopt(IGMP_WRONGVIF)",
  // "setsockopt(IGMP_NOCACHE)" or "setsockopt(IGMP_WHOLEPKT)" when switching
  // that kind fails; `options` then keeps its old value although the kinds
  // switched before the failing one stay switched in the kernel.
  void optionsIs(uint32_t options) override;

 protected:
  explicit MrtNotifySocketPam(const Kiv::Name& name);

  int socketProtocol() const override { return IPPROTO_RAW; }
  // Registers with option 211 and switches on each kind of `options` (213);
  // a failure throws "setsocketopt(MRT_NOTIFY_INIT): ..." and the pam stays
  // disabled.
  void registerUpcalls(int fd, std::string_view op, std::string_view arg) override;
};

}  // namespace Routing::Multicast::Notify
