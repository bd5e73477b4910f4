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

#include "mroute/kernel/mrt_socket_pam.h"

namespace Routing::Multicast::Notify {

class MrtNotifySocketPam : public MrtSocketPam {
 public:
  static Kiv::Ptr<MrtNotifySocketPam> MrtNotifySocketPamIs(const Kiv::Name& name) {
    return new MrtNotifySocketPam(name);
  }

  const Kiv::TypeRecord& fwkType() const override;

  // Throws ErrnoException "socket: ..." when the socket cannot be opened and
  // "setsocketopt(MRT_NOTIFY_INIT): ..." when registering or switching an
  // upcall kind on fails; the pam then stays disabled.
  void enabledIs(bool enabled) override;
  // While open, throws ErrnoException "setsockopt(IGMP_WRONGVIF)",
  // "setsockopt(IGMP_NOCACHE)" or "setsockopt(IGMP_WHOLEPKT)" when switching
  // that kind fails; `options` then keeps its old value although the kinds
  // switched before the failing one stay switched in the kernel.
  void optionsIs(uint32_t options) override;

 protected:
  explicit MrtNotifySocketPam(const Kiv::Name& name);
};

}  // namespace Routing::Multicast::Notify
