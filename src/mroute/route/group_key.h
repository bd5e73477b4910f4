// Multicast::Group::GroupKey: the key of an application's group request
// (kind, index, hash). An mcastGroup route key carries its kind and index;
// the hash stays with the request.
//
// Thread-safety: an immutable value; safe on any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace Multicast::Group {

class GroupKey {
 public:
  constexpr GroupKey() = default;
  constexpr GroupKey(uint16_t kind, uint16_t index, uint32_t hash = 0)
      : kind_(kind), index_(index), hash_(hash) {}
  // Value('Multicast::Group::GroupKey', ** {'kind': 2, 'index': 7, 'hash': 99})
  static GroupKey fromText(std::string_view text);

  constexpr uint16_t kind() const { return kind_; }
  constexpr uint16_t index() const { return index_; }
  constexpr uint32_t hash() const { return hash_; }

  friend constexpr bool operator==(const GroupKey&, const GroupKey&) = default;
  // By kind, then index, then hash.
  friend constexpr auto operator<=>(const GroupKey&, const GroupKey&) = default;

 private:
  uint16_t kind_ = 0;
  uint16_t index_ = 0;
  uint32_t hash_ = 0;
};

static_assert(sizeof(GroupKey) == 8 && std::is_trivially_copyable_v<GroupKey>);

std::ostream& operator<<(std::ostream& os, const GroupKey& k);

}  // namespace Multicast::Group

template <>
struct std::hash<Multicast::Group::GroupKey> {
  size_t operator()(const Multicast::Group::GroupKey& k) const noexcept {
    return std::hash<uint64_t>()(static_cast<uint64_t>(k.kind()) << 48 |
                                 static_cast<uint64_t>(k.index()) << 32 | k.hash());
  }
};
