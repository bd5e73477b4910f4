// ModalOrderRouteSm: mirrors the keys of one table set's route table into a
// ModalRouteOrderedCollection, so that a consumer can walk one
// application's routes in key order. Each route notification re-reads the
// key: gone, it leaves the ordered map; new, it enters it.
//
// Thread-safety: on the table set's event loop.
#pragma once

#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/route/mfib_status.h"

namespace Brume::Multicast::Fib {

class ModalOrderRouteSm : public Status::NotifieeConst {
 public:
  // REQUIRES: ordered is not null.
  ModalOrderRouteSm(const Kiv::Ptr<const Status>& status, const Kiv::Ptr<ModalRouteOrderedCollection>& ordered);

  bool initialized() const { return initialized_; }
  // Enters every key the table holds now; changes count from here on.
  void handleInitialized();
  void handleRouteChanged(const Routing::Multicast::Fib::IpGenRouteKey& key);

  void onRoute(const Routing::Multicast::Fib::IpGenRouteKey& key) override { handleRouteChanged(key); }

 private:
  Kiv::Ptr<ModalRouteOrderedCollection> ordered_;
  bool initialized_ = false;
};

}  // namespace Brume::Multicast::Fib
