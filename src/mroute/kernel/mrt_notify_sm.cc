#include "mroute/kernel/mrt_notify_sm.h"

#include "mroute/kernel/mrt_brevet.h"
#include "mroute/runtime/trace.h"

namespace Routing::Multicast::Notify {
namespace {

const Mroute::Trace::Facility& fac() {
  static const Mroute::Trace::Facility& f = Mroute::Trace::facility("Mroute::MrtNotify");
  return f;
}

}  // namespace

MrtNotifySm::MrtNotifySm(Mroute::Loop::EventLoop& activity, Kiv::Ptr<MrtNotifyPamManager> pamManager,
                         const Routing::KernelMfib::VifIntfMap& vifStatus, Mroute::Brevet& brevet)
    : activity_(activity), pamManager_(std::move(pamManager)), vifStatus_(vifStatus), brevet_(brevet) {}

MrtNotifySm::MrtNotifySm(Mroute::Loop::EventLoop& activity, Kiv::Ptr<MrtNotifyPamManager> pamManager,
                         Kiv::Ptr<const Routing::KernelMfib::Status> vifStatus, Mroute::Brevet& brevet)
    : activity_(activity),
      pamManager_(std::move(pamManager)),
      ownedVifStatus_(std::make_unique<Routing::KernelMfib::StatusVifIntfMap>(std::move(vifStatus))),
      vifStatus_(*ownedVifStatus_),
      brevet_(brevet) {}

MrtNotifySm::~MrtNotifySm() { notifierIs(nullptr); }

void MrtNotifySm::handleInitialized() {
  MROUTE_TRACE(fac(), 9, "enabling MrtNotifyPam");
  const Kiv::Ptr<MrtSocketPam>& pam = pamManager_->pam();
  if (!pam) return;  // IPv6: no socket
  Orvet::PktManager::global().pktSizeIs(65535);
  pam->maxRxPktDataIs(65535);
  if (!pam->eventLoop()) pam->eventLoopIs(&activity_);
  notifierIs(pam);
  pam->enabledIs(true);
}

void MrtNotifySm::onRxPktHolder() { rxPkt(); }

void MrtNotifySm::rxPkt() {
  const Kiv::Ptr<MrtSocketPam>& pam = pamManager_->pam();
  if (!pam) return;
  Clock::time_point start = now_();
  Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(loopQuantum_));
  brevet_.record(kBrevetStartReview);
  uint32_t count = 0;
  while (now_() < deadline) {
    // The packet that started the pass, then straight from the socket.
    MrtRx rx = pam->rxPktHolder() ? MrtRx{MrtRxStatus::packet, pam->rxPktTake()} : pam->receive();
    if (rx.status == MrtRxStatus::skipped) continue;  // filtered or empty: read on
    Kiv::Ptr<Orvet::Pkt> pkt = std::move(rx.pkt);
    if (!pkt) {
      MROUTE_TRACE(fac(), 1, "RX: Error - No Packet");
      break;
    }
    ++count;
    pamManager_->readMrtMessage(pkt, vifStatus_);
  }
  double seconds = std::chrono::duration<double>(now_() - start).count();
  ++passes_;
  messages_ += count;
  lastPassMessages_ = count;
  if (seconds > longestPass_) longestPass_ = seconds;
  passSeconds_ += seconds;
  MROUTE_TRACE(fac(), 3, "Processed " << count << " messages in " << seconds << " seconds.");
  brevet_.record(kBrevetFinishedReview, {}, count, Mroute::Brevet::fromDouble(seconds));
}

}  // namespace Routing::Multicast::Notify
