// IntfOifIndex: the reverse of the oif-index table, interface to oif index,
// for clients that keep that mapping.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>

#include "mroute/route/oif_index.h"
#include "mroute/runtime/net/intf_id.h"

namespace Brume::Multicast::Fib {

class IntfOifIndex {
 public:
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::IntfOifIndex";

  IntfOifIndex() = default;
  explicit IntfOifIndex(Orvet::IntfId key, OifIndex oifIndex = OifIndex::null)
      : key_(key), oifIndex_(oifIndex) {}

  Orvet::IntfId key() const { return key_; }
  OifIndex oifIndex() const { return oifIndex_; }
  void oifIndexIs(OifIndex oifIndex) { oifIndex_ = oifIndex; }

  size_t hash() const;
  static IntfOifIndex fromText(std::string_view text);

  friend bool operator==(const IntfOifIndex&, const IntfOifIndex&) = default;
  friend auto operator<=>(const IntfOifIndex&, const IntfOifIndex&) = default;

 private:
  Orvet::IntfId key_;
  OifIndex oifIndex_;
};

// Value('Brume::Multicast::Fib::IntfOifIndex', ** {'key': Ethernet1, 'oifIndex': 3})
std::ostream& operator<<(std::ostream& os, const IntfOifIndex& v);

}  // namespace Brume::Multicast::Fib

template <>
struct std::hash<Brume::Multicast::Fib::IntfOifIndex> {
  size_t operator()(const Brume::Multicast::Fib::IntfOifIndex& v) const { return v.hash(); }
};
