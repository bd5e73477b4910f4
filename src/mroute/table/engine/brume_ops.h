// The operations bundle a table is instantiated with, and the default one.
//
// A bundle is a struct with static members:
//   using Key = ...;  using Stored = ...;           // Stored carries its Key
//   static uint32_t hash(const Key&);                // stable across processes
//   static bool equal(const Key&, const Key&);
//   static bool less(const Key&, const Key&);        // strict order, ties on hash
//   static Key keyOf(const Stored&);                // or const Key& into the value
//   static void print(std::ostream&, const Key&);
// DefaultOps picks each member from what the key type offers: a hash() member,
// the integer mixer for integral and enum keys (and small keys with an integral
// value()), std::hash mixed down to 32 bits, otherwise bytesHash over the
// object representation (keys must then have no padding); operator== and
// operator< when present, otherwise byte comparison; operator<< when present,
// otherwise hex bytes.
//
// Thread-safety: stateless.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iomanip>
#include <ostream>
#include <type_traits>

#include "mroute/table/shm/brume_hash.h"

namespace Brume {

template <typename Ops>
concept TableOps = requires(const typename Ops::Key& k, const typename Ops::Stored& s, std::ostream& os) {
  { Ops::hash(k) } -> std::convertible_to<uint32_t>;
  { Ops::equal(k, k) } -> std::convertible_to<bool>;
  { Ops::less(k, k) } -> std::convertible_to<bool>;
  { Ops::keyOf(s) } -> std::convertible_to<typename Ops::Key>;
  Ops::print(os, k);
} && std::is_trivially_copyable_v<typename Ops::Stored> && std::is_trivially_copyable_v<typename Ops::Key>;

template <typename Key>
uint32_t defaultKeyHash(const Key& k) {
  if constexpr (requires { { k.hash() } -> std::convertible_to<uint32_t>; }) {
    return static_cast<uint32_t>(k.hash());
  } else if constexpr (std::is_integral_v<Key> || std::is_enum_v<Key>) {
    const auto v = static_cast<uint64_t>(k);
    return intHash(static_cast<uint32_t>(v ^ (v >> 32)));
  } else if constexpr (sizeof(Key) <= 4 && requires { { k.value() } -> std::integral; }) {
    return intHash(static_cast<uint32_t>(k.value()));
  } else if constexpr (requires { { std::hash<Key>{}(k) } -> std::convertible_to<size_t>; }) {
    const uint64_t h = std::hash<Key>{}(k);
    return intHash(static_cast<uint32_t>(h ^ (h >> 32)));
  } else {
    return bytesHash(&k, sizeof k);
  }
}

template <typename KeyT, typename StoredT>
struct DefaultOps {
  using Key = KeyT;
  using Stored = StoredT;

  static uint32_t hash(const Key& k) { return defaultKeyHash(k); }

  static bool equal(const Key& a, const Key& b) {
    if constexpr (std::equality_comparable<Key>) {
      return a == b;
    } else {
      return std::memcmp(&a, &b, sizeof(Key)) == 0;
    }
  }

  static bool less(const Key& a, const Key& b) {
    if constexpr (requires { { a < b } -> std::convertible_to<bool>; }) {
      return a < b;
    } else {
      return std::memcmp(&a, &b, sizeof(Key)) < 0;
    }
  }

  // A reference into the value when the value holds its key as a member, so
  // that a chain walk compares keys in place instead of copying each one.
  static decltype(auto) keyOf(const Stored& s) { return s.key(); }

  static void print(std::ostream& os, const Key& k) {
    if constexpr (requires { os << k; }) {
      os << k;
    } else {
      const auto* p = reinterpret_cast<const unsigned char*>(&k);
      std::ios_base::fmtflags flags = os.flags();
      os << "0x" << std::hex << std::setfill('0');
      for (size_t i = 0; i < sizeof(Key); ++i) os << std::setw(2) << static_cast<unsigned>(p[i]);
      os.flags(flags);
    }
  }
};

// Prints a key through its bundle: `os << KeyText<Ops>{key}`.
template <typename Ops>
struct KeyText {
  const typename Ops::Key& key;
  friend std::ostream& operator<<(std::ostream& os, const KeyText& t) {
    Ops::print(os, t.key);
    return os;
  }
};

}  // namespace Brume
