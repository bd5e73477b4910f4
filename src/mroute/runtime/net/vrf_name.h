// L3::VrfName: the name of a VRF, at most 100 bytes; the default-constructed
// name is the default VRF, "default".
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/runtime/net/internal/bounded_name.h"

namespace L3 {

class VrfName {
 public:
  static constexpr size_t maxBytes = 100;

  // The default VRF.
  VrfName() : VrfName(std::string_view("default")) {}
  // Throws Kiv::RangeException "VrfName::bytes > 100 not allowed".
  VrfName(std::string_view name) : name_(name, "VrfName::bytes > 100 not allowed") {}  // NOLINT
  VrfName(const char* name) : VrfName(std::string_view(name)) {}                       // NOLINT
  VrfName(const std::string& name) : VrfName(std::string_view(name)) {}                // NOLINT
  static VrfName fromText(std::string_view text) { return VrfName(text); }
  static VrfName defaultVrf() { return VrfName(); }

  std::string_view view() const { return name_.view(); }
  std::string str() const { return std::string(view()); }
  bool isDefault() const { return view() == "default"; }

  friend bool operator==(const VrfName&, const VrfName&) = default;
  friend std::strong_ordering operator<=>(const VrfName&, const VrfName&) = default;

 private:
  Orvet::net_internal::BoundedName<maxBytes> name_;
};

static_assert(std::is_trivially_copyable_v<VrfName>);

std::ostream& operator<<(std::ostream& os, const VrfName& v);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  size_t operator()(const L3::VrfName& v) const noexcept { return std::hash<std::string_view>()(v.view()); }
};
