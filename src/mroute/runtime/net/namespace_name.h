// Orvet::NamespaceName: the name of a Linux network namespace, at most 255
// bytes (a file name under the namespace directory). The empty name means the
// namespace of the calling process.
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

namespace Orvet {

class NamespaceName {
 public:
  static constexpr size_t maxBytes = 255;

  // The current namespace.
  constexpr NamespaceName() = default;
  // Throws Kiv::RangeException "NamespaceName::bytes > 255 not allowed".
  NamespaceName(std::string_view name) : name_(name, "NamespaceName::bytes > 255 not allowed") {}  // NOLINT
  NamespaceName(const char* name) : NamespaceName(std::string_view(name)) {}                       // NOLINT
  NamespaceName(const std::string& name) : NamespaceName(std::string_view(name)) {}                // NOLINT
  static NamespaceName fromText(std::string_view text) { return NamespaceName(text); }

  std::string_view view() const { return name_.view(); }
  std::string str() const { return std::string(view()); }
  bool isCurrent() const { return view().empty(); }

  friend bool operator==(const NamespaceName&, const NamespaceName&) = default;
  friend std::strong_ordering operator<=>(const NamespaceName&, const NamespaceName&) = default;

 private:
  net_internal::BoundedName<maxBytes> name_;
};

static_assert(std::is_trivially_copyable_v<NamespaceName>);

std::ostream& operator<<(std::ostream& os, const NamespaceName& n);

}  // namespace Orvet

template <>
struct std::hash<Orvet::NamespaceName> {
  size_t operator()(const Orvet::NamespaceName& n) const noexcept {
    return std::hash<std::string_view>()(n.view());
  }
};
