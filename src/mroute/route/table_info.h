// TableInfo: the sizing of an application's route table set.
//
// TableInfo has no attributes (every two instances are equal); it names the
// sizing information in the entity model. mfibMountInfo() is the mount
// description handed to the table front when a route table set is mounted:
// the entity type being mounted and the initial capacity of each of its
// shared-memory collections.
//
// Thread-safety: plain values; no shared state.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Brume::Multicast::Fib {

// One shared-memory collection of a mounted entity and its initial capacity.
struct CollectionSize {
  std::string name;
  uint32_t entries = 0;
  friend bool operator==(const CollectionSize&, const CollectionSize&) = default;
};

// What a table front needs to mount an entity's tables.
struct MountInfo {
  std::string type;  // entity type, e.g. "Brume::Multicast::Fib::Status"
  std::vector<CollectionSize> collections;

  // The capacity of the named collection; 0 when it is not part of the mount.
  uint32_t entries(std::string_view collection) const;
  friend bool operator==(const MountInfo&, const MountInfo&) = default;
};

class TableInfo {
 public:
  static constexpr std::string_view kTypeName = "Brume::Multicast::Fib::TableInfo";
  static constexpr uint32_t kRouteEntries = 12000;
  static constexpr uint32_t kOifIndexIntfEntries = 1024;

  // A route table set of the given entity type: collection "route" sized for
  // 12000 entries and "oifIndexIntf" for 1024.
  static MountInfo mfibMountInfo(std::string_view type);

  friend bool operator==(const TableInfo&, const TableInfo&) { return true; }
  static TableInfo fromText(std::string_view text);
};

// Value('Brume::Multicast::Fib::TableInfo', ** {})
std::ostream& operator<<(std::ostream& os, const TableInfo& info);

}  // namespace Brume::Multicast::Fib
