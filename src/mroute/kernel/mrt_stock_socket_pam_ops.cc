// The hand-written operations of MrtStockSocketPam: MRT_INIT and the filter
// that stands in for per-kind switches.
#include "mroute/kernel/mrt_stock_socket_pam.h"

#include <netinet/in.h>

#include <string>

#include "mroute/kernel/mrt_upcall.h"

namespace Routing::Multicast::Notify {

Kiv::Ptr<MrtStockSocketPam> MrtStockSocketPam::MrtStockSocketPamIs(const Kiv::Name& name) {
  return new MrtStockSocketPam(name);
}

int MrtStockSocketPam::socketProtocol() const { return IPPROTO_IGMP; }

void MrtStockSocketPam::registerUpcalls(int fd, std::string_view, std::string_view) {
  if (int err = setIntOption(fd, kMrtInit, 1)) closeAndThrow(fd, "setsockopt(MRT_INIT)", err);
}

std::optional<int> MrtStockSocketPam::upcallKind(const Orvet::Pkt& pkt) const {
  std::optional<UpcallHeader> h = parseUpcall(pkt.data(), pkt.size());
  // Upcalls carry zero in the protocol byte; IGMP packets carry 2.
  if (!h || h->ipProto != 0) return std::nullopt;
  return h->msgType;
}

bool MrtStockSocketPam::acceptRx(Orvet::Pkt& pkt) {
  std::optional<int> kind = upcallKind(pkt);
  if (!kind) {
    rxNotUpcallInc(1);
    return false;
  }
  MrtNotifyOption bit = optionOfKind(*kind);
  if (bit == none || !(options() & bit)) {
    rxFilteredInc(1);
    return false;
  }
  return true;
}

}  // namespace Routing::Multicast::Notify
