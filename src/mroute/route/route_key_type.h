// Routing::Multicast::Fib::RouteKeyType: what a route key stands for, and
// RouteKeyTypeConverter, the one-attribute value that carries it through
// the entity framework.
//
// The value is the kind tag in the top four bits of the key's group address
// (see route_key.h). Stored in shared memory and on the wire: do not
// renumber.
//
// Thread-safety: immutable values and pure functions.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/entity/kiv/enumeration.h"

namespace Routing::Multicast::Fib {

enum RouteKeyType : uint32_t {
  unknownRouteKeyType_ = 0,
  vlanFloodset_ = 1,
  multicastFloodset_ = 2,
  ethGroup_ = 3,
  mcastGroup_ = 4,
  vxlanCoreSideFloodset_ = 5,
  mroute_ = 6,
};

constexpr uint32_t routeKeyTypeMax = mroute_;

// Throw Kiv::RangeException for a number above 6 or an unknown name.
RouteKeyType RouteKeyTypeInstance(unsigned value);
RouteKeyType RouteKeyTypeInstance(std::string_view name);

// "mroute", "vlanFloodset", ...; empty for a number that names no kind.
std::string_view stringValue(RouteKeyType type);
// The quoted literal, 'mroute'; a number that names no kind gives its number.
std::string valueToStrep(RouteKeyType type);
// Reads one literal, bare or quoted, from [begin, end); false (and `result`
// untouched) when the text names no kind.
bool sequenceToValue(const char* begin, const char* end, RouteKeyType& result);

// The bare name; a number that names no kind prints as that number.
std::ostream& operator<<(std::ostream& os, RouteKeyType type);

// Carries a RouteKeyType as the attribute `value`; prints as the enumeration
// text ('mroute').
class RouteKeyTypeConverter {
 public:
  constexpr RouteKeyTypeConverter() = default;
  constexpr RouteKeyTypeConverter(RouteKeyType value) : value_(value) {}  // NOLINT: a carrier of the value

  constexpr RouteKeyType value() const { return value_; }
  void valueIs(RouteKeyType value) { value_ = value; }
  constexpr uint32_t intValue() const { return value_; }

  // An unknown name is a Kiv::DeserializationException of attribute "value".
  static RouteKeyTypeConverter fromText(std::string_view text);

  friend constexpr bool operator==(RouteKeyTypeConverter, RouteKeyTypeConverter) = default;

 private:
  RouteKeyType value_ = unknownRouteKeyType_;
};

std::ostream& operator<<(std::ostream& os, RouteKeyTypeConverter c);

}  // namespace Routing::Multicast::Fib

// Registered as the enumeration "Routing::Multicast::Fib::RouteKeyType".
template <>
struct Kiv::EnumInfo<Routing::Multicast::Fib::RouteKeyType> {
  static const TypeRecord& type();
};

// Enumerations print their literal name in single quotes: 'mroute'.
template <>
struct Kiv::TextTraits<Routing::Multicast::Fib::RouteKeyType> {
  static void write(std::ostream& os, Routing::Multicast::Fib::RouteKeyType v);
  // Quoted or bare name; an unknown name is a Kiv::RangeException.
  static Routing::Multicast::Fib::RouteKeyType read(std::string_view text);
};
