#include "mroute/kernel/mrt_notify_pam_manager.h"

#include "mroute/kernel/mrt6_socket_pam.h"
#include "mroute/kernel/mrt6_upcall.h"
#include "mroute/kernel/mrt_brevet.h"
#include "mroute/kernel/mrt_constants.h"
#include "mroute/kernel/mrt_notify_socket_pam.h"
#include "mroute/kernel/mrt_stock_socket_pam.h"
#include "mroute/kernel/mrt_upcall.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/trace.h"

namespace Routing::Multicast::Notify {
namespace {

const Mroute::Trace::Facility& fac() {
  static const Mroute::Trace::Facility& f = Mroute::Trace::facility("Mroute::MrtNotify");
  return f;
}

}  // namespace

Kiv::Ptr<MrtNotifyPamManager> MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::AddressFamily af,
                                                                         const Orvet::NamespaceName& netNs,
                                                                         Mroute::Loop::EventLoop& loop,
                                                                         MrtUpcallSource source,
                                                                         Mroute::Brevet& brevet) {
  return new MrtNotifyPamManager(af, netNs, loop, source, brevet);
}

MrtNotifyPamManager::MrtNotifyPamManager(Orvet::AddressFamily af, const Orvet::NamespaceName& netNs,
                                         Mroute::Loop::EventLoop& loop, MrtUpcallSource source,
                                         Mroute::Brevet& brevet)
    : Kiv::Entity("MrtNotifyPamManager"),
      af_(af),
      netNs_(netNs),
      loop_(loop),
      source_(source),
      brevet_(brevet),
      noCacheMessage_(NoCacheMessageIs("noCacheMessage")),
      wrongVifMessage_(WrongVifMessageIs("wrongVifMessage")),
      wholePktMessage_(WholePktMessageIs("wholePktMessage")) {}

const Kiv::TypeRecord& MrtNotifyPamManager::fwkType() const {
  static const Kiv::TypeRecord& type =
      Kiv::registerType("Routing::Multicast::Notify::MrtNotifyPamManager", Kiv::TypeKind::entity);
  return type;
}

void MrtNotifyPamManager::pamIs(Kiv::Ptr<MrtSocketPam> pam) {
  if (pam == pam_) return;
  pam_ = std::move(pam);
  notify<NotifieeConst>(kPamId, [](NotifieeConst& n) { n.onPam(); });
}

void MrtNotifyPamManager::handlePamInit() {
  MROUTE_TRACE(fac(), 8, "void Routing::Multicast::Notify::MrtNotifyPamManager::handlePamInit()");
  if (af_ == Orvet::ipv4()) {
    MROUTE_TRACE(fac(), 8, "Initializing Pam for IPv4");
    if (source_ == MrtUpcallSource::stockKernel) {
      pamIs(MrtStockSocketPam::MrtStockSocketPamIs("MrtNotify"));
    } else {
      pamIs(MrtNotifySocketPam::MrtNotifySocketPamIs("MrtNotify"));
    }
    MROUTE_ASSERT(pam_);
    pam_->eventLoopIs(&loop_);
    pam_->netNsIs(netNs_);
  } else if (af_ == Orvet::ipv6() && source_ == MrtUpcallSource::stockKernel) {
    MROUTE_TRACE(fac(), 8, "Initializing Pam for IPv6");
    pamIs(Mrt6SocketPam::Mrt6SocketPamIs("MrtNotify6"));
    MROUTE_ASSERT(pam_);
    pam_->eventLoopIs(&loop_);
    pam_->netNsIs(netNs_);
  } else if (af_ == Orvet::ipv6()) {
    // The device kernel's notification socket is IPv4 only.
    MROUTE_TRACE(fac(), 8, "Ignoring initializing Pam for IPv6");
  } else {
    MROUTE_ASSERT(0 && "Unsupported address family.");
  }
}

void MrtNotifyPamManager::noCacheCounterIs(uint32_t v) {
  Kiv::attrIs(*this, kNoCacheCounterId, noCacheCounter_, v, &NotifieeConst::onNoCacheCounter);
}
uint32_t MrtNotifyPamManager::noCacheCounterInc(uint32_t n) {
  Kiv::attrInc(*this, kNoCacheCounterId, noCacheCounter_, n, &NotifieeConst::onNoCacheCounter);
  return noCacheCounter_;
}
void MrtNotifyPamManager::wrongVifCounterIs(uint32_t v) {
  Kiv::attrIs(*this, kWrongVifCounterId, wrongVifCounter_, v, &NotifieeConst::onWrongVifCounter);
}
uint32_t MrtNotifyPamManager::wrongVifCounterInc(uint32_t n) {
  Kiv::attrInc(*this, kWrongVifCounterId, wrongVifCounter_, n, &NotifieeConst::onWrongVifCounter);
  return wrongVifCounter_;
}
void MrtNotifyPamManager::wholePktCounterIs(uint32_t v) {
  Kiv::attrIs(*this, kWholePktCounterId, wholePktCounter_, v, &NotifieeConst::onWholePktCounter);
}
uint32_t MrtNotifyPamManager::wholePktCounterInc(uint32_t n) {
  Kiv::attrInc(*this, kWholePktCounterId, wholePktCounter_, n, &NotifieeConst::onWholePktCounter);
  return wholePktCounter_;
}

void MrtNotifyPamManager::readMrtMessage(const Kiv::Ptr<Orvet::Pkt>& pkt,
                                         const Routing::KernelMfib::VifIntfMap& vifStatus) {
  if (af_ == Orvet::ipv4()) {
    readIgmpmsg(pkt, vifStatus);
  } else if (af_ == Orvet::ipv6()) {
    readMrt6msg(pkt, vifStatus);
  } else {
    MROUTE_ASSERT(0 && "Unknown address family not supported");
  }
}

void MrtNotifyPamManager::readIgmpmsg(const Kiv::Ptr<Orvet::Pkt>& pkt,
                                      const Routing::KernelMfib::VifIntfMap& vifStatus) {
  std::optional<UpcallHeader> h = parseUpcall(pkt->data(), pkt->size());
  if (!h) {
    ++truncated_;
    MROUTE_TRACE(fac(), 2, "MrtNotify Rcv: upcall of " << pkt->size() << " bytes has no valid header");
    return;
  }
  MROUTE_TRACE(fac(), 9, "ipproto: " << unsigned(h->ipProto));
  MROUTE_TRACE(fac(), 9, "igmpmsg type: " << unsigned(h->msgType));
  MROUTE_TRACE(fac(), 9, "Headerbytes: " << h->headerBytes);
  MROUTE_TRACE(fac(), 9, "sAddr: " << h->source << " gAddr: " << h->group << " vif " << h->vif);
  if (optionOfKind(h->msgType) == none) {
    MROUTE_TRACE(fac(), 9, "MrtNotify Rcv: Invalid igmp Alert");
    return;
  }
  handOn({h->msgType, h->source, h->group, h->headerBytes}, vifStatus.intfIdColl(h->vif), pkt);
}

void MrtNotifyPamManager::readMrt6msg(const Kiv::Ptr<Orvet::Pkt>& pkt,
                                      const Routing::KernelMfib::VifIntfMap& vifStatus) {
  std::optional<Upcall6Header> h = parseUpcall6(pkt->data(), pkt->size());
  if (!h) {
    ++truncated_;
    MROUTE_TRACE(fac(), 2, "MrtNotify Rcv: upcall of " << pkt->size() << " bytes has no valid header");
    return;
  }
  MROUTE_TRACE(fac(), 9, "mrt6msg type: " << unsigned(h->msgType));
  MROUTE_TRACE(fac(), 9, "Headerbytes: " << kUpcall6HeaderBytes);
  MROUTE_TRACE(fac(), 9, "sAddr: " << h->source << " gAddr: " << h->group << " mif " << h->mif);
  if (optionOfKind(h->msgType) == none) {
    MROUTE_TRACE(fac(), 9, "MrtNotify Rcv: Invalid mrt6msg Alert");
    return;
  }
  handOn({h->msgType, h->source, h->group, kUpcall6HeaderBytes}, vifStatus.intfIdColl(h->mif), pkt);
}

void MrtNotifyPamManager::recordUpcall(const Mroute::BrevetEvent& v4, const Mroute::BrevetEvent& v6,
                                       const Upcall& u, Orvet::IntfId intf) {
  if (af_ == Orvet::ipv4()) {
    Notify::recordUpcall(brevet_, v4, intf, u.source.v4(), u.group.v4());
  } else {
    recordUpcall6(brevet_, v6, intf, u.source, u.group);
  }
}

void MrtNotifyPamManager::handOn(const Upcall& u, Orvet::IntfId intf, const Kiv::Ptr<Orvet::Pkt>& pkt) {
  switch (u.msgType) {
    case kIgmpMsgNoCache:
      MROUTE_TRACE(fac(), 9, "NoCacheMessage");
      noCacheMessage_->sourceIs(u.source);
      noCacheMessage_->groupIs(u.group);
      noCacheMessage_->intfIdIs(intf);
      recordUpcall(kBrevetNoCache, kBrevetNoCache6, u, intf);
      noCacheCounterInc(1);
      break;
    case kIgmpMsgWrongVif:
      MROUTE_TRACE(fac(), 9, "WrongVifMessage");
      wrongVifMessage_->sourceIs(u.source);
      wrongVifMessage_->groupIs(u.group);
      wrongVifMessage_->intfIdIs(intf);
      recordUpcall(kBrevetWrongVif, kBrevetWrongVif6, u, intf);
      wrongVifCounterInc(1);
      break;
    case kIgmpMsgWholePkt:
      MROUTE_TRACE(fac(), 9, "WholePktMessage");
      pkt->headDel(u.headerBytes);
      wholePktMessage_->rcvdPktIs(pkt);
      wholePktMessage_->intfIdIs(intf);
      wholePktMessage_->sourceIs(u.source);
      wholePktMessage_->groupIs(u.group);
      MROUTE_TRACE(fac(), 9, "src: " << u.source << "dst: " << u.group << " iif: " << intf);
      recordUpcall(kBrevetWholePkt, kBrevetWholePkt6, u, intf);
      wholePktCounterInc(1);
      break;
    default:
      MROUTE_ASSERT(0 && "handOn() of an unknown upcall kind");
  }
}

}  // namespace Routing::Multicast::Notify
