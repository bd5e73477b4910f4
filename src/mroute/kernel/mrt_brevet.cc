#include "mroute/kernel/mrt_brevet.h"

#include <ostream>

namespace Routing::Multicast::Notify {
namespace {

void formatStart(std::ostream& os, const Mroute::BrevetRecord&) { os << "Start review of kernel upcalls"; }

void formatFinished(std::ostream& os, const Mroute::BrevetRecord& r) {
  os << "Finished review of " << r.args[0] << " kernel upcalls in " << Mroute::Brevet::toDouble(r.args[1])
     << " seconds";
}

void formatUpcall(std::ostream& os, const Mroute::BrevetRecord& r) {
  os << r.event->name << " on intf:" << Orvet::IntfId::fromValue(r.args[0])
     << " for src: " << Orvet::IpAddr::fromNetwork(static_cast<uint32_t>(r.args[1]))
     << " and grp: " << Orvet::IpAddr::fromNetwork(static_cast<uint32_t>(r.args[2]));
}

}  // namespace

const Mroute::BrevetEvent kBrevetStartReview{1, "StartReview", formatStart};
const Mroute::BrevetEvent kBrevetFinishedReview{2, "FinishedReview", formatFinished};
const Mroute::BrevetEvent kBrevetNoCache{3, "NoCacheMessage", formatUpcall};
const Mroute::BrevetEvent kBrevetWrongVif{4, "WrongVifMessage", formatUpcall};
const Mroute::BrevetEvent kBrevetWholePkt{5, "WholePktMessage", formatUpcall};

}  // namespace Routing::Multicast::Notify
