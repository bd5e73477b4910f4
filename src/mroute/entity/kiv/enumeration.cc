#include "mroute/entity/kiv/enumeration.h"

namespace Kiv::enum_internal {

void badValue(const TypeRecord& type, unsigned value) {
  throw RangeException(type.name + "::value " + std::to_string(value) + " > " +
                       std::to_string(type.literals.size() - 1) + " not allowed");
}

void badLiteral(const TypeRecord& type, std::string_view literal) {
  throw RangeException(type.name + " has no literal '" + std::string(literal) + "'");
}

std::string_view unquoted(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') text = text.substr(1, text.size() - 2);
  return text;
}

}  // namespace Kiv::enum_internal
