// OrderRouteSm: keeps a RouteOrderedCollection of the keys that have a
// winner across a VRF's table sets (an MfibBrumeColl), in key order. One
// per-table-set reactor watches each brumePtr entry; on each route
// notification it asks the collection for the key's winner and enters,
// refreshes or removes the key.
//
// The number stored for a key is that of the table set whose notification
// last changed the entry while a winner existed, which need not be the
// winner's own (brumeKey(key) answers that); a stored 0 counts as absent.
//
// Thread-safety: on the collection's event loop.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "mroute/mfibdir/mfib_dir.h"
#include "mroute/route/mfib_status.h"

namespace Brume::Multicast::Fib {

class OrderRouteSm : public MfibBrumeColl::NotifieeConst {
 public:
  class BrumeSm;

  // REQUIRES: coll and ordered are not null.
  OrderRouteSm(const Kiv::Ptr<const MfibBrumeColl>& coll, const Kiv::Ptr<RouteOrderedCollection>& ordered);
  ~OrderRouteSm() override;

  bool initialized() const { return initialized_; }
  // Starts a reactor for every table set present; changes count from here on.
  void handleInitialized();
  // Starts (or replaces) the reactor of table set `number`.
  void mfibBrumeIs(uint32_t number, const Kiv::Ptr<const Status>& status);
  // Stops it; every key of the view is selected again (its tables may be gone).
  void mfibBrumeDel(uint32_t number);
  const BrumeSm* mfibBrume(uint32_t number) const;

  void onBrumePtr(const uint32_t& number) override;

 private:
  friend class BrumeSm;
  void routeChanged(uint32_t number, const Routing::Multicast::Fib::IpGenRouteKey& key);

  Kiv::Ptr<RouteOrderedCollection> ordered_;
  std::map<uint32_t, std::unique_ptr<BrumeSm>> brumes_;
  bool initialized_ = false;
};

// The reactor of one table set.
class OrderRouteSm::BrumeSm : public Status::NotifieeConst {
 public:
  BrumeSm(OrderRouteSm& owner, uint32_t number, const Kiv::Ptr<const Status>& status);

  // Once the table set is ready: replays every key, then follows changes.
  void handleInitialize();
  bool tableInitialized() const { return tableInitialized_; }
  void handleRouteChanged(const Routing::Multicast::Fib::IpGenRouteKey& key) { owner_.routeChanged(number_, key); }

  void onRoute(const Routing::Multicast::Fib::IpGenRouteKey& key) override;
  // A reader kind announces its readiness as the collection-wide callback.
  void onRoute() override { handleInitialize(); }

 private:
  OrderRouteSm& owner_;
  uint32_t number_;
  bool tableInitialized_ = false;
};

}  // namespace Brume::Multicast::Fib
