#include "mroute/pam/pam.h"

namespace Orvet {

const Kiv::TypeRecord& Pam::fwkType() const {
  static const Kiv::TypeRecord& type = Kiv::registerType("Orvet::Pam", Kiv::TypeKind::entity);
  return type;
}

void Pam::rxPktHolderIs(Kiv::Ptr<Pkt> pkt) {
  rxPktHolder_ = std::move(pkt);
  if (!rxPktHolder_) return;
  rxPktInc(1);
  notify<NotifieeConst>(kRxPktHolderId, [](NotifieeConst& n) { n.onRxPktHolder(); });
}

void Pam::rxPktHolderRenotify() {
  if (!rxPktHolder_) return;
  notify<NotifieeConst>(kRxPktHolderId, [](NotifieeConst& n) { n.onRxPktHolder(); });
}

Kiv::Ptr<Pkt> Pam::rxPktTake() {
  if (!rxPktHolder_) doGetRxPkt();
  return std::exchange(rxPktHolder_, nullptr);
}

}  // namespace Orvet
