// The text form of value types: Value('<qualified type>', ** {'<field>': <value>, ...}).
//
// Field values are written by TextTraits<T>:
//   bool          True / False
//   integers      decimal
//   double        shortest text that reads back to the same double
//   std::string   single-quoted, with \\ and \' escaped
//   other types   `os << v` to write and `T::fromText(std::string_view)` to
//                 read (network types print bare: 10.0.0.0/24, Ethernet3/1;
//                 nested values print their own Value(...) form)
// Enumerations specialise TextTraits to print their quoted literal name.
//
// ValueReader reports every failure as Kiv::DeserializationException naming
// the attribute being read; a range error of the field's own type is re-raised
// the same way, so "routeFlags: RouteFlags::value > 0x3f not allowed".
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/runtime/error.h"

namespace Kiv {

template <class T>
struct TextTraits {
  static void write(std::ostream& os, const T& v) { os << v; }
  static T read(std::string_view text) { return T::fromText(text); }
};

template <>
struct TextTraits<bool> {
  static void write(std::ostream& os, bool v) { os << (v ? "True" : "False"); }
  static bool read(std::string_view text);
};

namespace text_internal {
uint64_t readUnsigned(std::string_view text, uint64_t max);
int64_t readSigned(std::string_view text, int64_t min, int64_t max);
}  // namespace text_internal

template <std::integral T>
  requires(!std::same_as<T, bool>)
struct TextTraits<T> {
  static void write(std::ostream& os, T v) { os << +v; }
  static T read(std::string_view text) {
    if constexpr (std::is_unsigned_v<T>) {
      return static_cast<T>(text_internal::readUnsigned(text, std::numeric_limits<T>::max()));
    } else {
      return static_cast<T>(
          text_internal::readSigned(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    }
  }
};

template <>
struct TextTraits<double> {
  static void write(std::ostream& os, double v);
  static double read(std::string_view text);
};

template <>
struct TextTraits<std::string> {
  static void write(std::ostream& os, const std::string& v);
  static std::string read(std::string_view text);
};

template <class T>
std::string textOf(const T& v) {
  std::ostringstream os;
  TextTraits<T>::write(os, v);
  return os.str();
}

// Writes Value('<type>', ** {'a': 1, 'b': True}) to a stream:
//   ValueWriter(os, "Brume::Multicast::Fib::OifIndexIntf")
//       .field("key", key()).field("intf", intf()).field("refCount", refCount()).end();
class ValueWriter {
 public:
  ValueWriter(std::ostream& os, std::string_view type);
  template <class T>
  ValueWriter& field(std::string_view name, const T& v) {
    separate(name);
    TextTraits<T>::write(os_, v);
    return *this;
  }
  // Writes the value's text exactly as given (already in framework form).
  ValueWriter& rawField(std::string_view name, std::string_view text);
  void end() { os_ << "})"; }

 private:
  void separate(std::string_view name);
  std::ostream& os_;
  bool first_ = true;
};

// Reads the fields of a Value(...) text in declaration order:
//   ValueReader r(text, "Brume::Multicast::Fib::OifIndexIntf");
//   auto key = r.field<OifIndex>("key"); ...; r.end();
class ValueReader {
 public:
  ValueReader(std::string_view text, std::string_view type);
  template <class T>
  T field(std::string_view name) {
    std::string_view token = next(name);
    try {
      return TextTraits<T>::read(token);
    } catch (const DeserializationException&) {
      throw;
    } catch (const std::exception& e) {
      throw DeserializationException(std::string(name), e.what());
    }
  }
  // The raw text of the next field, for callers that parse it themselves.
  std::string_view rawField(std::string_view name) { return next(name); }
  void end();

 private:
  std::string_view next(std::string_view name);
  std::string_view rest_;
  bool first_ = true;
};

// Length of the value token at the start of `text`: up to the first ',' or '}'
// outside quotes, parentheses and braces.
size_t valueTokenLength(std::string_view text);

}  // namespace Kiv
