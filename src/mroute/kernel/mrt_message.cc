#include "mroute/kernel/mrt_message.h"

namespace Orvet {

std::ostream& operator<<(std::ostream& os, MrtMessageType t) { return Kiv::writeEnum(os, t); }

}  // namespace Orvet

const Kiv::TypeRecord& Kiv::EnumInfo<Orvet::MrtMessageType>::type() {
  static const Kiv::TypeRecord& type =
      Kiv::registerType("Orvet::MrtMessageType", Kiv::TypeKind::enumeration,
                        {{"wrongVifAlert", 0}, {"noCacheAlert", 1}, {"wholePktAlert", 2}});
  return type;
}

namespace Routing::Multicast::Notify {
namespace {

const Kiv::TypeRecord& entityType(const char* name) { return Kiv::registerType(name, Kiv::TypeKind::entity); }

}  // namespace

const Kiv::TypeRecord& MrtMessage::fwkType() const {
  static const Kiv::TypeRecord& type = entityType("Routing::Multicast::Notify::MrtMessage");
  return type;
}

const Kiv::TypeRecord& NoCacheMessage::fwkType() const {
  static const Kiv::TypeRecord& type = entityType("Routing::Multicast::Notify::NoCacheMessage");
  return type;
}

const Kiv::TypeRecord& WrongVifMessage::fwkType() const {
  static const Kiv::TypeRecord& type = entityType("Routing::Multicast::Notify::WrongVifMessage");
  return type;
}

const Kiv::TypeRecord& WholePktMessage::fwkType() const {
  static const Kiv::TypeRecord& type = entityType("Routing::Multicast::Notify::WholePktMessage");
  return type;
}

void WholePktMessage::rcvdPktIs(Kiv::Ptr<Orvet::Pkt> pkt) {
  rcvdPkt_ = std::move(pkt);
  notify<NotifieeConst>(kRcvdPktId, [](NotifieeConst& n) { n.onRcvdPkt(); });
}

const Kiv::TypeRecord& MrtMessageCounter::fwkType() const {
  static const Kiv::TypeRecord& type = entityType("Routing::Multicast::Notify::MrtMessageCounter");
  return type;
}

}  // namespace Routing::Multicast::Notify
