// Which entity type is mounted at which path: the table that lets a tool (or
// any agent) mount a tree by its path alone. Every generated entity type
// that can be built from a name registers itself here at load, with the
// mount paths its description declares; the paths that entity types compute
// (a mode or an application as a path element) are listed in mount_types.cc.
//
// A pattern is a mount path whose '*' elements match any one path element:
// "routing/multicast/fib/*" is the directory of one application.
//
// Thread-safety: registration happens at load; lookups only read.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/replication/attr_log_type.h"

namespace Kiv::NboAttrLog {

struct MountType {
  const AttrLogType& (*type)() = nullptr;
  Ptr<Entity> (*make)(const Name& name) = nullptr;  // null: built with constructor attributes
};

// Registers an entity type by its qualified name, with the patterns of its
// mount paths. Returns true (for a static initialiser).
bool mountTypeIs(const AttrLogType& (*type)(), Ptr<Entity> (*make)(const Name&),
                 std::initializer_list<const char*> patterns);

template <class E>
bool mountableTypeIs(std::initializer_list<const char*> patterns) {
  if constexpr (std::is_constructible_v<E, const Name&>) {
    return mountTypeIs(&E::KivNboAttrLogSa::logType, [](const Name& n) { return Ptr<Entity>(new E(n)); }, patterns);
  } else {
    // Needs constructor attributes: whoever mounts it builds the root itself.
    return mountTypeIs(&E::KivNboAttrLogSa::logType, nullptr, patterns);
  }
}

// The type mounted at `mountPath`, or null when no pattern matches.
const MountType* mountType(std::string_view mountPath);
// The type registered under a qualified name, or null.
const MountType* mountTypeNamed(std::string_view typeName);
// Every pattern with its type's name, in pattern order (for usage texts).
std::vector<std::pair<std::string, std::string>> mountPatterns();

}  // namespace Kiv::NboAttrLog
