// The unit a table stores: a value that carries its own key.
//
// KivBrumeMapValueWrapper<Value, Key, &Value::key> wraps a trivially copyable
// value; `&Value::key` may name a data member or a const member function that
// returns the key. The wrapper is 8-byte aligned so that every slot (16-byte
// slot header + wrapper) keeps its versioned link 8-byte aligned.
//
// Thread-safety: a plain value type.
#pragma once

#include <functional>
#include <type_traits>

namespace KivBrume {

template <typename Value, typename Key, auto KeyOf>
struct alignas(8) KivBrumeMapValueWrapper {
  using ValueType = Value;
  using KeyType = Key;

  Value value{};

  KivBrumeMapValueWrapper() = default;
  explicit KivBrumeMapValueWrapper(const Value& v) : value(v) {}

  decltype(auto) key() const { return std::invoke(KeyOf, value); }
};

}  // namespace KivBrume
