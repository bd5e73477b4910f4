// BidirGroup: the rendezvous point of a bidirectional-PIM group range, the
// value of the bidir-group table, keyed by the group range.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mroute/route/rpa_index.h"
#include "mroute/runtime/net/ip_gen_prefix.h"

namespace Brume::Multicast::Fib {

class BidirGroup {
 public:
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::BidirGroup";

  BidirGroup() = default;
  BidirGroup(const Orvet::IpGenPrefix& key, RpaIndex rpa) : key_(key), rpa_(rpa) {}

  const Orvet::IpGenPrefix& key() const { return key_; }
  RpaIndex rpa() const { return rpa_; }
  void rpaIs(RpaIndex rpa) { rpa_ = rpa; }

  // "[232.0.0.0/8] RPA 3"
  std::string brumeString() const;
  size_t hash() const;
  static BidirGroup fromText(std::string_view text);

  friend bool operator==(const BidirGroup&, const BidirGroup&) = default;
  friend auto operator<=>(const BidirGroup&, const BidirGroup&) = default;

 private:
  Orvet::IpGenPrefix key_;
  RpaIndex rpa_;
};

// Value('Brume::Multicast::Fib::BidirGroup', ** {'key': 232.0.0.0/8, 'rpa': 3})
std::ostream& operator<<(std::ostream& os, const BidirGroup& group);

}  // namespace Brume::Multicast::Fib

template <>
struct std::hash<Brume::Multicast::Fib::BidirGroup> {
  size_t operator()(const Brume::Multicast::Fib::BidirGroup& g) const { return g.hash(); }
};
