// Orvet::IntfId: an interface identifier packed into 8 bytes, built from and
// printed as the interface's name ("Ethernet3/1", "Vlan100", "Port-Channel7").
//
//   bits 63..56  kind code (0 = the null id; see Kind, do not renumber:
//                ids are stored in shared-memory slots)
//   bits 55..32  first number + 1   (0 when absent)
//   bits 31..16  second number + 1  (0 when absent)
//   bits 15..0   third number + 1   (0 when absent)
//
// So ids order by kind, then numerically by their numbers, with a shorter
// name before its extensions (Ethernet3 < Ethernet3/1 < Ethernet3/2).
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace Orvet {

class IntfId {
 public:
  enum class Kind : uint8_t {
    null = 0,
    ethernet = 1,
    vlan = 2,
    portChannel = 3,
    register_ = 4,
    loopback = 5,
    management = 6,
    vxlan = 7,
    tunnel = 8,
    cpu = 9,
    recircChannel = 10,
  };

  // The null id.
  constexpr IntfId() = default;
  // Throws Kiv::RangeException "IntfId '<name>' not allowed" for an unknown
  // kind, a missing, extra or out-of-range number ("Vlan0", "Vlan4095",
  // "Ethernet"), or numbers with leading zeros.
  explicit IntfId(std::string_view name);
  // Also accepts "null" for the null id.
  static IntfId fromText(std::string_view text);
  // The packed word as stored; no validation.
  static constexpr IntfId fromValue(uint64_t value) {
    IntfId id;
    id.value_ = value;
    return id;
  }

  constexpr uint64_t value() const { return value_; }
  constexpr bool isNull() const { return value_ == 0; }
  constexpr Kind kind() const { return static_cast<Kind>(value_ >> 56); }
  // The interface name, or "null".
  std::string name() const;

  friend constexpr bool operator==(IntfId, IntfId) = default;
  friend constexpr auto operator<=>(IntfId, IntfId) = default;

 private:
  uint64_t value_ = 0;
};

static_assert(sizeof(IntfId) == 8 && std::is_trivially_copyable_v<IntfId>);

std::ostream& operator<<(std::ostream& os, IntfId id);

}  // namespace Orvet

template <>
struct std::hash<Orvet::IntfId> {
  size_t operator()(Orvet::IntfId id) const noexcept { return std::hash<uint64_t>()(id.value()); }
};
