// DfProfile: the designated-forwarder bitmap of an interface for
// bidirectional PIM, the value of the DF-profile table, keyed by interface.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mroute/runtime/net/intf_id.h"

namespace Brume::Multicast::Fib {

class DfProfile {
 public:
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::DfProfile";

  DfProfile() = default;
  explicit DfProfile(Orvet::IntfId key, uint64_t dfBitmap = 0) : key_(key), dfBitmap_(dfBitmap) {}

  Orvet::IntfId key() const { return key_; }
  uint64_t dfBitmap() const { return dfBitmap_; }
  void dfBitmapIs(uint64_t dfBitmap) { dfBitmap_ = dfBitmap; }

  // "Intf Ethernet1 DF 0x5"
  std::string brumeString() const;
  size_t hash() const;
  static DfProfile fromText(std::string_view text);

  friend bool operator==(const DfProfile&, const DfProfile&) = default;
  friend auto operator<=>(const DfProfile&, const DfProfile&) = default;

 private:
  Orvet::IntfId key_;
  uint64_t dfBitmap_ = 0;
};

// Value('Brume::Multicast::Fib::DfProfile', ** {'key': Ethernet1, 'dfBitmap': 5})
std::ostream& operator<<(std::ostream& os, const DfProfile& v);

}  // namespace Brume::Multicast::Fib

template <>
struct std::hash<Brume::Multicast::Fib::DfProfile> {
  size_t operator()(const Brume::Multicast::Fib::DfProfile& v) const { return v.hash(); }
};
