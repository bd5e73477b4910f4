#include "mroute/kernel/mrt_brevet.h"

#include <cstring>
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

Orvet::IpGenAddr ipv6At(const char* p) {
  Orvet::IpGenAddr::Bytes b;
  std::memcpy(b.data(), p, b.size());
  return Orvet::IpGenAddr::fromIpv6(b);
}

void formatUpcall6(std::ostream& os, const Mroute::BrevetRecord& r) {
  os << r.event->name << " on intf:" << Orvet::IntfId::fromValue(r.args[0]);
  if (r.textLen < 32) return;  // cannot happen: recordUpcall6 writes 32 bytes
  os << " for src: " << ipv6At(r.text) << " and grp: " << ipv6At(r.text + 16);
}

}  // namespace

void recordUpcall6(Mroute::Brevet& b, const Mroute::BrevetEvent& e, Orvet::IntfId intf,
                   const Orvet::IpGenAddr& source, const Orvet::IpGenAddr& group) {
  static_assert(Mroute::BrevetRecord::kTextBytes >= 32);
  char addrs[32];
  std::memcpy(addrs, source.bytes(), 16);
  std::memcpy(addrs + 16, group.bytes(), 16);
  b.record(e, std::string_view(addrs, sizeof addrs), intf.value());
}

const Mroute::BrevetEvent kBrevetStartReview{1, "StartReview", formatStart};
const Mroute::BrevetEvent kBrevetFinishedReview{2, "FinishedReview", formatFinished};
const Mroute::BrevetEvent kBrevetNoCache{3, "NoCacheMessage", formatUpcall};
const Mroute::BrevetEvent kBrevetWrongVif{4, "WrongVifMessage", formatUpcall};
const Mroute::BrevetEvent kBrevetWholePkt{5, "WholePktMessage", formatUpcall};
const Mroute::BrevetEvent kBrevetNoCache6{6, "NoCacheMessage", formatUpcall6};
const Mroute::BrevetEvent kBrevetWrongVif6{7, "WrongVifMessage", formatUpcall6};
const Mroute::BrevetEvent kBrevetWholePkt6{8, "WholePktMessage", formatUpcall6};

}  // namespace Routing::Multicast::Notify
