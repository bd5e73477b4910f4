#include "mroute/route/route_key_type.h"

#include <ostream>
#include <functional>
#include <string>
#include <vector>

#include "mroute/runtime/error.h"

namespace Routing::Multicast::Fib {
namespace {

constexpr std::string_view kNames[] = {
    "unknownRouteKeyType",   "vlanFloodset", "multicastFloodset", "ethGroup", "mcastGroup",
    "vxlanCoreSideFloodset", "mroute",
};
static_assert(std::size(kNames) == routeKeyTypeMax + 1);

}  // namespace

RouteKeyType RouteKeyTypeInstance(unsigned value) {
  if (value > routeKeyTypeMax) throw Kiv::RangeException("RouteKeyType::value > 6 not allowed");
  return static_cast<RouteKeyType>(value);
}

RouteKeyType RouteKeyTypeInstance(std::string_view name) {
  for (uint32_t i = 0; i <= routeKeyTypeMax; ++i) {
    if (kNames[i] == name) return static_cast<RouteKeyType>(i);
  }
  throw Kiv::RangeException("RouteKeyType '" + std::string(name) + "' not allowed");
}

std::string_view stringValue(RouteKeyType type) {
  return type <= routeKeyTypeMax ? kNames[type] : std::string_view();
}

std::string valueToStrep(RouteKeyType type) {
  if (type > routeKeyTypeMax) return std::to_string(static_cast<uint32_t>(type));
  return "'" + std::string(stringValue(type)) + "'";
}

bool sequenceToValue(const char* begin, const char* end, RouteKeyType& result) {
  std::string_view text(begin, static_cast<size_t>(end - begin));
  if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') text = text.substr(1, text.size() - 2);
  for (uint32_t i = 0; i <= routeKeyTypeMax; ++i) {
    if (kNames[i] == text) {
      result = static_cast<RouteKeyType>(i);
      return true;
    }
  }
  return false;
}

std::ostream& operator<<(std::ostream& os, RouteKeyType type) {
  if (type > routeKeyTypeMax) return os << static_cast<uint32_t>(type);
  return os << stringValue(type);
}

RouteKeyTypeConverter RouteKeyTypeConverter::fromText(std::string_view text) {
  try {
    return RouteKeyTypeConverter(Kiv::TextTraits<RouteKeyType>::read(text));
  } catch (const Kiv::RangeException& e) {
    throw Kiv::DeserializationException("value", e.what());
  }
}

std::ostream& operator<<(std::ostream& os, RouteKeyTypeConverter c) {
  Kiv::TextTraits<RouteKeyType>::write(os, c.value());
  return os;
}

}  // namespace Routing::Multicast::Fib

namespace Kiv {

using Routing::Multicast::Fib::RouteKeyType;

const TypeRecord& EnumInfo<RouteKeyType>::type() {
  static const TypeRecord& record = [] {
    std::vector<EnumLiteral> literals;
    for (uint32_t i = 0; i <= Routing::Multicast::Fib::routeKeyTypeMax; ++i) {
      literals.push_back({std::string(Routing::Multicast::Fib::stringValue(static_cast<RouteKeyType>(i))), i});
    }
    return std::ref(registerType("Routing::Multicast::Fib::RouteKeyType", TypeKind::enumeration, literals));
  }();
  return record;
}

void TextTraits<RouteKeyType>::write(std::ostream& os, RouteKeyType v) {
  if (v > Routing::Multicast::Fib::routeKeyTypeMax) {
    os << static_cast<uint32_t>(v);
  } else {
    os << '\'' << v << '\'';
  }
}

RouteKeyType TextTraits<RouteKeyType>::read(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') text = text.substr(1, text.size() - 2);
  return Routing::Multicast::Fib::RouteKeyTypeInstance(text);
}

}  // namespace Kiv
