// The hand-written operations of Orvet::Pam: taking the received packet and
// the receive hooks that each kind of pam overrides.
#include "mroute/pam/pam.h"

namespace Orvet {

void Pam::rxPktHolderRenotify() {
  if (!rxPktHolder_) return;
  notify<NotifieeConst>(kRxPktHolderId, [](NotifieeConst& n) { n.onRxPktHolder(); });
}

Kiv::Ptr<Pkt> Pam::rxPktTake() {
  if (!rxPktHolder_) doGetRxPkt();
  return std::exchange(rxPktHolder_, nullptr);
}

void Pam::doGetRxPkt() {}

void Pam::doWritable() {}

}  // namespace Orvet
