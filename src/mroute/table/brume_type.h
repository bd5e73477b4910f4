// Brume::BrumeType: the kind of a table front, stored in messages and shown
// by mroutectl. Printed by its literal name.
//
// Thread-safety: a plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>

namespace Brume {

// Do not renumber: the values are part of the table tools' output.
enum class BrumeType : uint32_t {
  writer = 0,     // the one writer of the table
  shadow = 1,     // reader with a local copy of all entries
  reader = 2,     // plain lock-free reader
  keyshadow = 3,  // reader with a local copy of the keys only
};

constexpr std::string_view brumeTypeName(BrumeType t) {
  switch (t) {
    case BrumeType::writer: return "writer";
    case BrumeType::shadow: return "shadow";
    case BrumeType::reader: return "reader";
    case BrumeType::keyshadow: return "keyshadow";
  }
  return "unknown";
}

constexpr std::optional<BrumeType> brumeTypeFromName(std::string_view name) {
  for (BrumeType t : {BrumeType::writer, BrumeType::shadow, BrumeType::reader, BrumeType::keyshadow}) {
    if (brumeTypeName(t) == name) return t;
  }
  return std::nullopt;
}

// The reader kinds that keep a local copy (of entries or of keys).
constexpr bool isShadowKind(BrumeType t) { return t == BrumeType::shadow || t == BrumeType::keyshadow; }

inline std::ostream& operator<<(std::ostream& os, BrumeType t) { return os << brumeTypeName(t); }

}  // namespace Brume
