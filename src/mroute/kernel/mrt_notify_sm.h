// Routing::Multicast::Notify::MrtNotifySm: reads the upcall socket in passes
// bounded by `loopQuantum` seconds.
//
// A pass reads in one direction: the loop finds the socket readable, the pam
// receives one datagram into its rxPktHolder, which starts the pass
// (onRxPktHolder -> rxPkt); the pass takes that packet and then receives
// the next ones itself (MrtSocketPam::receive), handing each to the
// manager's readMrtMessage(), until the socket is empty or the pass has run
// for loopQuantum. Packets still queued in the kernel are read in a later
// pass, when the loop finds the socket readable again, so a flood of upcalls
// cannot starve the agent's other work.
//
// Thread-safety: single-threaded, on the agent's event loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "mroute/kernel/mrt_notify_pam_manager.h"
#include "mroute/kernel/vif_intf_map.h"
#include "mroute/runtime/brevet.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/pam/pam.h"

namespace Routing::Multicast::Notify {

class MrtNotifySm : public Orvet::Pam::NotifieeConst {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();

  static constexpr double loopQuantumDefault = 0.01;

  // REQUIRES: `vifStatus` outlives this object.
  MrtNotifySm(Mroute::Loop::EventLoop& activity, Kiv::Ptr<MrtNotifyPamManager> pamManager,
              const Routing::KernelMfib::VifIntfMap& vifStatus,
              Mroute::Brevet& brevet = Mroute::Brevet::process());
  // Maps vifs through the VRF's published kernel MFIB status.
  MrtNotifySm(Mroute::Loop::EventLoop& activity, Kiv::Ptr<MrtNotifyPamManager> pamManager,
              Kiv::Ptr<const Routing::KernelMfib::Status> vifStatus,
              Mroute::Brevet& brevet = Mroute::Brevet::process());
  ~MrtNotifySm() override;

  const Kiv::Ptr<MrtNotifyPamManager>& pamManager() const { return pamManager_; }
  double loopQuantum() const { return loopQuantum_; }
  void loopQuantumIs(double seconds) { loopQuantum_ = seconds; }
  // The clock that bounds passes (steady_clock::now by default).
  void nowIs(Now now) { now_ = now; }

  // Sets packets of the global packet manager and the socket's receive limit
  // to 65535 bytes, enables the socket and starts reacting to it.
  void handleInitialized();
  // One reading pass.
  void rxPkt();

  void onRxPktHolder() override;

  // Passes run and messages read, for the agent's statistics.
  uint64_t passes() const { return passes_; }
  uint64_t messages() const { return messages_; }
  uint32_t lastPassMessages() const { return lastPassMessages_; }
  // The longest pass so far and all passes together, in seconds of the
  // pass clock.
  double longestPass() const { return longestPass_; }
  double passSeconds() const { return passSeconds_; }

 private:
  Mroute::Loop::EventLoop& activity_;
  Kiv::Ptr<MrtNotifyPamManager> pamManager_;
  std::unique_ptr<Routing::KernelMfib::VifIntfMap> ownedVifStatus_;
  const Routing::KernelMfib::VifIntfMap& vifStatus_;
  Mroute::Brevet& brevet_;
  Now now_ = &Clock::now;
  double loopQuantum_ = loopQuantumDefault;
  uint64_t passes_ = 0;
  uint64_t messages_ = 0;
  uint32_t lastPassMessages_ = 0;
  double longestPass_ = 0;
  double passSeconds_ = 0;
};

}  // namespace Routing::Multicast::Notify
