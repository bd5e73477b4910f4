// The hand-written operations of MrtNotifyPamManager: creating the socket
// object and decoding upcalls into the message entities.
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

// One upcall as both families' headers describe it.
struct Upcall {
  int msgType;
  Orvet::IpGenAddr source;
  Orvet::IpGenAddr group;
  size_t headerBytes;  // stripped from a whole packet's copy
};

void recordUpcallOf(MrtNotifyPamManager& m, const Mroute::BrevetEvent& v4, const Mroute::BrevetEvent& v6,
                    const Upcall& u, Orvet::IntfId intf) {
  if (m.af() == Orvet::ipv4()) {
    recordUpcall(*m.brevet(), v4, intf, u.source.v4(), u.group.v4());
  } else {
    recordUpcall6(*m.brevet(), v6, intf, u.source, u.group);
  }
}

// Sets the message entity of the upcall's kind, records and counts it.
void handOn(MrtNotifyPamManager& m, const Upcall& u, Orvet::IntfId intf, const Kiv::Ptr<Orvet::Pkt>& pkt) {
  switch (u.msgType) {
    case kIgmpMsgNoCache:
      MROUTE_TRACE(fac(), 9, "NoCacheMessage");
      m.noCacheMessage()->sourceIs(u.source);
      m.noCacheMessage()->groupIs(u.group);
      m.noCacheMessage()->intfIdIs(intf);
      recordUpcallOf(m, kBrevetNoCache, kBrevetNoCache6, u, intf);
      m.noCacheCounterInc(1);
      break;
    case kIgmpMsgWrongVif:
      MROUTE_TRACE(fac(), 9, "WrongVifMessage");
      m.wrongVifMessage()->sourceIs(u.source);
      m.wrongVifMessage()->groupIs(u.group);
      m.wrongVifMessage()->intfIdIs(intf);
      recordUpcallOf(m, kBrevetWrongVif, kBrevetWrongVif6, u, intf);
      m.wrongVifCounterInc(1);
      break;
    case kIgmpMsgWholePkt:
      MROUTE_TRACE(fac(), 9, "WholePktMessage");
      pkt->headDel(u.headerBytes);
      m.wholePktMessage()->rcvdPktIs(pkt);
      m.wholePktMessage()->intfIdIs(intf);
      m.wholePktMessage()->sourceIs(u.source);
      m.wholePktMessage()->groupIs(u.group);
      MROUTE_TRACE(fac(), 9, "src: " << u.source << "dst: " << u.group << " iif: " << intf);
      recordUpcallOf(m, kBrevetWholePkt, kBrevetWholePkt6, u, intf);
      m.wholePktCounterInc(1);
      break;
    default:
      MROUTE_ASSERT(0 && "handOn() of an unknown upcall kind");
  }
}

void readIgmpmsg(MrtNotifyPamManager& m, const Kiv::Ptr<Orvet::Pkt>& pkt,
                 const Routing::KernelMfib::VifIntfMap& vifStatus) {
  std::optional<UpcallHeader> h = parseUpcall(pkt->data(), pkt->size());
  if (!h) {
    m.truncatedInc(1);
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
  handOn(m, {h->msgType, h->source, h->group, h->headerBytes}, vifStatus.intfIdColl(h->vif), pkt);
}

void readMrt6msg(MrtNotifyPamManager& m, const Kiv::Ptr<Orvet::Pkt>& pkt,
                 const Routing::KernelMfib::VifIntfMap& vifStatus) {
  std::optional<Upcall6Header> h = parseUpcall6(pkt->data(), pkt->size());
  if (!h) {
    m.truncatedInc(1);
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
  handOn(m, {h->msgType, h->source, h->group, kUpcall6HeaderBytes}, vifStatus.intfIdColl(h->mif), pkt);
}

}  // namespace

Kiv::Ptr<MrtNotifyPamManager> MrtNotifyPamManager::MrtNotifyPamManagerIs(Orvet::AddressFamily af,
                                                                         const Orvet::NamespaceName& netNs,
                                                                         Mroute::Loop::EventLoop& loop,
                                                                         MrtUpcallSource source,
                                                                         Mroute::Brevet& brevet) {
  return new MrtNotifyPamManager("MrtNotifyPamManager", af, netNs, source, &loop, &brevet);
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
    pam_->eventLoopIs(loop_);
    pam_->netNsIs(netNs_);
  } else if (af_ == Orvet::ipv6() && source_ == MrtUpcallSource::stockKernel) {
    MROUTE_TRACE(fac(), 8, "Initializing Pam for IPv6");
    pamIs(Mrt6SocketPam::Mrt6SocketPamIs("MrtNotify6"));
    MROUTE_ASSERT(pam_);
    pam_->eventLoopIs(loop_);
    pam_->netNsIs(netNs_);
  } else if (af_ == Orvet::ipv6()) {
    // The device kernel's notification socket is IPv4 only.
    MROUTE_TRACE(fac(), 8, "Ignoring initializing Pam for IPv6");
  } else {
    MROUTE_ASSERT(0 && "Unsupported address family.");
  }
}

void MrtNotifyPamManager::readMrtMessage(const Kiv::Ptr<Orvet::Pkt>& pkt,
                                         const Routing::KernelMfib::VifIntfMap& vifStatus) {
  if (af_ == Orvet::ipv4()) {
    readIgmpmsg(*this, pkt, vifStatus);
  } else if (af_ == Orvet::ipv6()) {
    readMrt6msg(*this, pkt, vifStatus);
  } else {
    MROUTE_ASSERT(0 && "Unknown address family not supported");
  }
}

}  // namespace Routing::Multicast::Notify
