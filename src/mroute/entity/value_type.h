// Helpers of generated record value types (`value` in a description): field
// range checks whose message names the limit as the description writes it
// ("Span::high > 0x3f not allowed"), reading a field through its checked
// setter, and the hash over fields in declaration order. Flag words and
// single bounded numbers have their own shapes, flag_set.h and
// bounded_value.h.
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/runtime/error.h"

namespace Kiv {

// Throws RangeException(text) when v lies outside [min, max].
template <class T>
void checkRange(const T& v, const T& min, const T& max, const char* text) {
  if (v < min || v > max) throw RangeException(text);
}

template <class T>
void checkMax(const T& v, const T& max, const char* text) {
  if (v > max) throw RangeException(text);
}

// Reads the next field and stores it with `set` (a checked setter); a range
// error of the setter is reported as a deserialisation error naming the field.
template <class T, class Set>
void readInto(ValueReader& r, std::string_view name, Set&& set) {
  T v = r.field<T>(name);
  try {
    set(v);
  } catch (const RangeException& e) {
    throw DeserializationException(std::string(name), e.what());
  }
}

// Mixes the hashes of the fields in order (boost-style combine).
template <class... T>
size_t hashFields(const T&... fields) {
  size_t h = 0;
  ((h ^= std::hash<T>()(fields) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2)), ...);
  return h;
}

}  // namespace Kiv
