// The Brevet events of the upcall reader. Each record keeps numbers only;
// the text is made when the ring is dumped:
//   "Start review of kernel upcalls"
//   "Finished review of 12 kernel upcalls in 0.0004 seconds"
//   "NoCacheMessage on intf:Ethernet1 for src: 10.0.0.1 and grp: 239.1.1.1"
#pragma once

#include "mroute/runtime/brevet.h"
#include "mroute/runtime/net/intf_id.h"
#include "mroute/runtime/net/ip_addr.h"
#include "mroute/runtime/net/ip_gen_addr.h"

namespace Routing::Multicast::Notify {

extern const Mroute::BrevetEvent kBrevetStartReview;
extern const Mroute::BrevetEvent kBrevetFinishedReview;  // args: count, seconds (fromDouble)
extern const Mroute::BrevetEvent kBrevetNoCache;         // args: intf, source, group
extern const Mroute::BrevetEvent kBrevetWrongVif;        // args: intf, source, group
extern const Mroute::BrevetEvent kBrevetWholePkt;        // args: intf, source, group

// IPv6 upcalls, with the same texts: the two addresses do not fit the
// numeric arguments, so their 32 bytes travel as the record's text.
extern const Mroute::BrevetEvent kBrevetNoCache6;   // arg: intf; text: source, group
extern const Mroute::BrevetEvent kBrevetWrongVif6;  // arg: intf; text: source, group
extern const Mroute::BrevetEvent kBrevetWholePkt6;  // arg: intf; text: source, group

// Records an upcall event in the arguments order the formatters read.
inline void recordUpcall(Mroute::Brevet& b, const Mroute::BrevetEvent& e, Orvet::IntfId intf,
                         Orvet::IpAddr source, Orvet::IpAddr group) {
  b.record(e, {}, intf.value(), source.value(), group.value());
}

// The same for an IPv6 upcall (one of the ...6 events).
void recordUpcall6(Mroute::Brevet& b, const Mroute::BrevetEvent& e, Orvet::IntfId intf,
                   const Orvet::IpGenAddr& source, const Orvet::IpGenAddr& group);

}  // namespace Routing::Multicast::Notify
