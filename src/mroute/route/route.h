// Route: the multicast route record, the value of an application's route
// table, copied byte for byte into and out of shared-memory slots.
//
// Storage format (168 bytes, little-endian host words as written by the
// writer process; every offset is checked by Route::Layout below):
//
//   offset   0  IpGenRouteKey  key                 the route's (s, g)
//   offset  48  IntfId         iif                 null when none
//   offset  56  IntfId         iifFrr              fast-reroute iif; null when none
//   offset  64  IntfId         notify              null when none
//   offset  72  IntfId         fastdrop            null when none
//   offset  80  uint8          notifyProgrammable  0 or 1; any other byte reads as 1
//   offset  81  uint8[3]       padding, zero
//   offset  84  uint32         routeFlags
//   offset  88  uint32         iifFlags
//   offset  92  uint16         rpaId               0 for a route built from a key
//   offset  94  uint16         maxOifIndex         OifIndex::null until set
//   offset  96  uint8          routePriority       1 by default
//   offset  97  uint8[3]       padding, zero
//   offset 100  uint32         version             checked by the route iterators
//   offset 104  uint64[8]      oifBitmap           word 0 (indexes 0..63) first
//
// The outgoing interfaces are a bitmap of oif indexes (see oif_bitmap.h), so a
// route has a fixed size whatever its fan-out. The walk over it is bounded by
// maxOifIndex, which writers must raise whenever they set bits: a route whose
// maxOifIndex is still null yields no oifs.
//
// Thread-safety: a plain value. In a shared table only the table's writer
// modifies a route; readers copy it and re-check its version.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/oif_bitmap.h"
#include "mroute/route/oif_index.h"
#include "mroute/route/route_flags.h"
#include "mroute/route/route_priority.h"
#include "mroute/route/rpa_index.h"
#include "mroute/runtime/net/intf_id.h"

namespace Brume::Multicast::Fib {

class Route {
 public:
  using RouteFlags = Fib::RouteFlags;
  using IifFlags = Fib::IifFlags;
  using OifIteratorConst = OifBitmap::Iterator;
  using IpGenRouteKey = Routing::Multicast::Fib::IpGenRouteKey;
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::Route";

  Route() = default;
  // Every interface null, flags, rpaId, version and bitmap 0, maxOifIndex
  // null, routePriority 1.
  explicit Route(const IpGenRouteKey& key) : key_(key) {}

  const IpGenRouteKey& key() const { return key_; }
  Orvet::IntfId iif() const { return iif_; }
  void iifIs(Orvet::IntfId v) { iif_ = v; }
  Orvet::IntfId iifFrr() const { return iifFrr_; }
  void iifFrrIs(Orvet::IntfId v) { iifFrr_ = v; }
  Orvet::IntfId notify() const { return notify_; }
  void notifyIs(Orvet::IntfId v) { notify_ = v; }
  Orvet::IntfId fastdrop() const { return fastdrop_; }
  void fastdropIs(Orvet::IntfId v) { fastdrop_ = v; }
  bool notifyProgrammable() const { return notifyProgrammable_ != 0; }
  void notifyProgrammableIs(bool v) { notifyProgrammable_ = v; }
  RouteFlags routeFlags() const { return routeFlags_; }
  void routeFlagsIs(RouteFlags v) { routeFlags_ = v; }
  IifFlags iifFlags() const { return iifFlags_; }
  void iifFlagsIs(IifFlags v) { iifFlags_ = v; }
  RpaIndex rpaId() const { return rpaId_; }
  void rpaIdIs(RpaIndex v) { rpaId_ = v; }
  OifIndex maxOifIndex() const { return maxOifIndex_; }
  void maxOifIndexIs(OifIndex v) { maxOifIndex_ = v; }
  RoutePriority routePriority() const { return routePriority_; }
  void routePriorityIs(RoutePriority v) { routePriority_ = v; }
  uint32_t version() const { return version_; }
  void versionIs(uint32_t v) { version_ = v; }

  // The oif bitmap. REQUIRES: an index argument below OifIndex::null.
  // oifIs() only ever sets: the bool is accepted for the generated setter
  // shape and ignored; clearing is oifDel(). maxOifIndex is left to the caller.
  void oifIs(OifIndex i, bool /*ignored*/) { oifBitmap_.set(i); }
  bool oif(OifIndex i) const { return oifBitmap_.test(i); }
  // Clears the bit and returns its previous value.
  bool oifDel(OifIndex i) { return oifBitmap_.clear(i); }
  // The next set index after `cur` (from the start when `cur` is null),
  // bounded by the word of maxOifIndex; OifIndex::null when none.
  OifIndex nextOif(OifIndex cur) const { return oifBitmap_.next(cur, maxOifIndex_); }
  OifIteratorConst oifIteratorConst() const { return oifBitmap_.iterator(maxOifIndex_); }
  // From `start` when it is set, else from the next set index after it.
  OifIteratorConst oifIteratorConst(OifIndex start) const { return oifBitmap_.iterator(maxOifIndex_, start); }
  // Set bits in all words as an 8-bit count: 512 set bits read as 0.
  uint8_t oifs() const { return oifBitmap_.count(); }
  // REQUIRES: n < 8.
  uint64_t oifBitmap(uint8_t n) const { return oifBitmap_.word(n); }
  void oifBitmapIs(uint8_t n, uint64_t word) { oifBitmap_.wordIs(n, word); }
  uint64_t oifBitmapDel(uint8_t n) { return oifBitmap_.wordDel(n); }

  // One-line trace display: "[<key>] F 0x<routeFlags> 0x<iifFlags> I <iif>
  // N <notify> S <fastdrop> F <iifFrr> O 0x<word 7> ... 0x<word 0> max <n>
  // ver <n> priority <n>".
  std::string brumeString() const;

  // The difference of two routes: this key; bitmap words and flag words
  // xor-ed; each interface null when both agree, else this route's unless it
  // is null; maxOifIndex 511; everything else as built from the key.
  Route operator^(const Route& other) const;
  // This route as a mask over `other`: this key; bitmap words and-ed; each
  // interface taken from `other` where this route's is not null (taking iif
  // takes other's iifFlags too); routeFlags and version from `other`;
  // maxOifIndex 511; everything else as built from the key.
  Route operator&(const Route& other) const;

  // All fields, padding included (always zero).
  friend bool operator==(const Route&, const Route&) = default;

  // Range errors of routeFlags, iifFlags and routePriority come back as
  // Kiv::DeserializationException naming the attribute.
  static Route fromText(std::string_view text);

 private:
  struct Layout;

  IpGenRouteKey key_;
  Orvet::IntfId iif_;
  Orvet::IntfId iifFrr_;
  Orvet::IntfId notify_;
  Orvet::IntfId fastdrop_;
  // A byte, not a bool: a slot another process wrote may hold any byte here,
  // and loading a bool that is neither 0 nor 1 is undefined.
  uint8_t notifyProgrammable_ = 0;
  uint8_t pad0_[3] = {};
  RouteFlags routeFlags_;
  IifFlags iifFlags_;
  RpaIndex rpaId_{0};
  OifIndex maxOifIndex_ = OifIndex::null;
  RoutePriority routePriority_;
  uint8_t pad1_[3] = {};
  uint32_t version_ = 0;
  OifBitmap oifBitmap_;
};

// The shared-memory format drawn above; a change here breaks every reader of
// existing table files.
struct Route::Layout {
  static_assert(sizeof(Route) == 168);
  static_assert(std::is_trivially_copyable_v<Route>);
  static_assert(std::is_standard_layout_v<Route>);
  static_assert(offsetof(Route, key_) == 0);
  static_assert(offsetof(Route, iif_) == 48);
  static_assert(offsetof(Route, iifFrr_) == 56);
  static_assert(offsetof(Route, notify_) == 64);
  static_assert(offsetof(Route, fastdrop_) == 72);
  static_assert(offsetof(Route, notifyProgrammable_) == 80);
  static_assert(offsetof(Route, routeFlags_) == 84);
  static_assert(offsetof(Route, iifFlags_) == 88);
  static_assert(offsetof(Route, rpaId_) == 92);
  static_assert(offsetof(Route, maxOifIndex_) == 94);
  static_assert(offsetof(Route, routePriority_) == 96);
  static_assert(offsetof(Route, version_) == 100);
  static_assert(offsetof(Route, oifBitmap_) == 104);
};

// Value('Brume::Multicast::Fib::Route', ** {'key': ..., 'iif': ..., ...,
// 'oifBitmap8': ...}) with every field in storage order.
std::ostream& operator<<(std::ostream& os, const Route& route);

}  // namespace Brume::Multicast::Fib
