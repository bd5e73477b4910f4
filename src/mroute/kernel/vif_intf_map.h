// The map from the kernel's virtual-interface index to the interface, as the
// upcall reader needs it.
//
// The reader only looks indexes up; whoever installs the vifs writes the map.
// StatusVifIntfMap reads the published kernel MFIB status of a VRF (its
// intfIdColl); PlainVifIntfMap is a plain table for agents that keep the map
// themselves (and for tests).
//
// Thread-safety: single-threaded, on the agent's event loop.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "mroute/kernel/kernel_mfib_status.h"
#include "mroute/runtime/net/intf_id.h"

namespace Routing::KernelMfib {

class VifIntfMap {
 public:
  virtual ~VifIntfMap() = default;
  // The interface installed at `vif`, or the null interface.
  virtual Orvet::IntfId intfIdColl(uint16_t vif) const = 0;
};

// Holds the VRF's status for as long as it lives.
class StatusVifIntfMap : public VifIntfMap {
 public:
  explicit StatusVifIntfMap(Kiv::Ptr<const Status> status) : status_(std::move(status)) {}
  Orvet::IntfId intfIdColl(uint16_t vif) const override { return status_->intfIdColl(vif); }
  const Kiv::Ptr<const Status>& status() const { return status_; }

 private:
  Kiv::Ptr<const Status> status_;
};

class PlainVifIntfMap : public VifIntfMap {
 public:
  Orvet::IntfId intfIdColl(uint16_t vif) const override {
    auto it = map_.find(vif);
    return it == map_.end() ? Orvet::IntfId() : it->second;
  }
  void intfIdCollIs(uint16_t vif, Orvet::IntfId intf) { map_[vif] = intf; }
  void intfIdCollDel(uint16_t vif) { map_.erase(vif); }
  void intfIdCollDelAll() { map_.clear(); }
  size_t intfIdCollSize() const { return map_.size(); }

 private:
  std::unordered_map<uint16_t, Orvet::IntfId> map_;
};

}  // namespace Routing::KernelMfib
