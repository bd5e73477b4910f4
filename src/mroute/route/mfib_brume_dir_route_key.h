// MfibBrumeDirRouteKey: one route of one application's table set, as named in
// the merged views of best-route selection.
//
// Ordered by route key first (group, then source) and, for equal route keys,
// by brumeKey as an unsigned number, so the merged views list every
// application's route for one key together.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>

#include "mroute/route/ip_gen_route_key.h"

namespace Brume::Multicast::Fib {

class MfibBrumeDirRouteKey {
 public:
  using IpGenRouteKey = Routing::Multicast::Fib::IpGenRouteKey;
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::MfibBrumeDirRouteKey";

  MfibBrumeDirRouteKey() = default;
  MfibBrumeDirRouteKey(uint32_t brumeKey, const IpGenRouteKey& routeKey)
      : brumeKey_(brumeKey), routeKey_(routeKey) {}

  uint32_t brumeKey() const { return brumeKey_; }
  const IpGenRouteKey& routeKey() const { return routeKey_; }

  size_t hash() const;
  static MfibBrumeDirRouteKey fromText(std::string_view text);

  friend bool operator==(const MfibBrumeDirRouteKey&, const MfibBrumeDirRouteKey&) = default;
  friend std::weak_ordering operator<=>(const MfibBrumeDirRouteKey& a, const MfibBrumeDirRouteKey& b);

 private:
  uint32_t brumeKey_ = 0;
  IpGenRouteKey routeKey_;
};

// Value('Brume::Multicast::Fib::MfibBrumeDirRouteKey', ** {'brumeKey': 2, 'routeKey': Value(...)})
std::ostream& operator<<(std::ostream& os, const MfibBrumeDirRouteKey& key);

}  // namespace Brume::Multicast::Fib

template <>
struct std::hash<Brume::Multicast::Fib::MfibBrumeDirRouteKey> {
  size_t operator()(const Brume::Multicast::Fib::MfibBrumeDirRouteKey& k) const { return k.hash(); }
};
