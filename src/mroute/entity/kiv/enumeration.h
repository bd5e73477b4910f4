// Support of registered enumerations. A generated enumeration E specialises
// EnumInfo<E> with the record that lists its literals (values from 0 in
// declaration order); everything else is written once here:
//   enumInstance<E>(unsigned) / enumInstance<E>(literal)  checked conversions
//   enumLiteral(e)         the literal name ("byteMode")
//   enumStrep(e)           the text form, the literal in single quotes
//   enumFromSequence(b, e, out)  parses a literal, bare or quoted
//   writeEnum(os, e)       the literal name, or the number if e has none
// and TextTraits<E> prints and reads the quoted literal, so an enumeration
// field of a value type reads back through Kiv::ValueReader (an unknown
// literal is a RangeException, which the reader reports as a
// deserialisation error naming the field).
//
// Thread-safety: reads the type registry only; safe from any thread after
// static initialisation.
#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/runtime/error.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/entity/kiv/type_registry.h"

namespace Kiv {

// Specialised by every generated enumeration: static const TypeRecord& type().
template <class E>
struct EnumInfo;

template <class E>
concept Enumeration = std::is_enum_v<E> && requires {
  { EnumInfo<E>::type() } -> std::same_as<const TypeRecord&>;
};

namespace enum_internal {
[[noreturn]] void badValue(const TypeRecord& type, unsigned value);
[[noreturn]] void badLiteral(const TypeRecord& type, std::string_view literal);
std::string_view unquoted(std::string_view text);
}  // namespace enum_internal

template <Enumeration E>
E enumInstance(unsigned value) {
  const TypeRecord& type = EnumInfo<E>::type();
  if (!type.literal(value)) enum_internal::badValue(type, value);
  return static_cast<E>(value);
}

template <Enumeration E>
E enumInstance(std::string_view literal) {
  const TypeRecord& type = EnumInfo<E>::type();
  const EnumLiteral* l = type.literal(literal);
  if (!l) enum_internal::badLiteral(type, literal);
  return static_cast<E>(l->value);
}

// The literal name; a value without a literal gives its number.
template <Enumeration E>
String8 enumLiteral(E e) {
  auto value = static_cast<unsigned>(e);
  const EnumLiteral* l = EnumInfo<E>::type().literal(value);
  return l ? String8(l->name) : String8(std::to_string(value));
}

template <Enumeration E>
std::string enumStrep(E e) {
  return "'" + enumLiteral(e).stdString() + "'";
}

// Parses [begin, end) as one literal, bare or single-quoted. Returns false
// and leaves `result` alone when the text names no literal.
template <Enumeration E>
bool enumFromSequence(const char* begin, const char* end, E& result) {
  std::string_view text(begin, static_cast<size_t>(end - begin));
  const EnumLiteral* l = EnumInfo<E>::type().literal(enum_internal::unquoted(text));
  if (!l) return false;
  result = static_cast<E>(l->value);
  return true;
}

template <Enumeration E>
std::ostream& writeEnum(std::ostream& os, E e) {
  return os << enumLiteral(e);
}

template <Enumeration E>
struct TextTraits<E> {
  static void write(std::ostream& os, E e) { os << enumStrep(e); }
  static E read(std::string_view text) {
    E e{};
    if (!enumFromSequence(text.data(), text.data() + text.size(), e)) {
      enum_internal::badLiteral(EnumInfo<E>::type(), text);
    }
    return e;
  }
};

}  // namespace Kiv
