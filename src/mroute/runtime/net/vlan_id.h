// Bridging::VlanId: an IEEE 802.1Q VLAN id, 1..4094 (0 and 4095 are reserved
// by the standard and never name a VLAN).
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Bridging {

class VlanId {
 public:
  static constexpr uint32_t min = 1;
  static constexpr uint32_t max = 4094;

  // VLAN 1, the default VLAN.
  constexpr VlanId() = default;
  // Throws Kiv::RangeException "VlanId::value < 1 or > 4094 not allowed".
  VlanId(uint32_t value);  // NOLINT: VLAN ids are written as plain numbers
  // Decimal text; a bad number or one out of range is a Kiv::RangeException.
  static VlanId fromText(std::string_view text);

  constexpr uint16_t value() const { return value_; }

  friend constexpr bool operator==(VlanId, VlanId) = default;
  friend constexpr auto operator<=>(VlanId, VlanId) = default;

 private:
  uint16_t value_ = 1;
};

static_assert(sizeof(VlanId) == 2 && std::is_trivially_copyable_v<VlanId>);

std::ostream& operator<<(std::ostream& os, VlanId v);

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanId> {
  size_t operator()(Bridging::VlanId v) const noexcept { return v.value(); }
};
