#include "mroute/entity/replication/mount_types.h"

#include <map>

namespace Kiv::NboAttrLog {

namespace {

struct Registry {
  std::map<std::string, MountType, std::less<>> types;     // by qualified name
  std::map<std::string, std::string, std::less<>> patterns;  // pattern -> qualified name
};

// Mount paths that entity types compute rather than declare: the mode of a
// ready status and the application of an MFIB directory are path elements.
const std::pair<const char*, const char*> kComputedPaths[] = {
    {"routing/multicast/fibready/status", "Routing::Multicast::Fib::ReadyStatus"},
    {"routing6/multicast/fibready/status", "Routing::Multicast::Fib::ReadyStatus"},
    {"routing/multicast/fibready/*/status", "Routing::Multicast::Fib::ReadyStatus"},
    {"routing6/multicast/fibready/*/status", "Routing::Multicast::Fib::ReadyStatus"},
    {"routing/multicast/fib/*", "Brume::Multicast::Fib::MfibDir"},
    {"routing6/multicast/fib/*", "Brume::Multicast::Fib::MfibDir"},
};

Registry& registry() {
  static Registry r = [] {
    Registry x;
    for (const auto& [pattern, type] : kComputedPaths) x.patterns[pattern] = type;
    return x;
  }();
  return r;
}

bool matches(std::string_view pattern, std::string_view path) {
  for (;;) {
    const size_t p = pattern.find('/');
    const size_t q = path.find('/');
    const std::string_view a = pattern.substr(0, p);
    const std::string_view b = path.substr(0, q);
    if (b.empty() || (a != "*" && a != b)) return false;
    if (p == std::string_view::npos || q == std::string_view::npos) return p == q;
    pattern.remove_prefix(p + 1);
    path.remove_prefix(q + 1);
  }
}

}  // namespace

bool mountTypeIs(const AttrLogType& (*type)(), Ptr<Entity> (*make)(const Name&),
                 std::initializer_list<const char*> patterns) {
  Registry& r = registry();
  const std::string name = type().name;
  r.types[name] = MountType{type, make};
  for (const char* p : patterns) r.patterns[p] = name;
  return true;
}

const MountType* mountTypeNamed(std::string_view typeName) {
  const Registry& r = registry();
  auto it = r.types.find(typeName);
  return it == r.types.end() ? nullptr : &it->second;
}

const MountType* mountType(std::string_view mountPath) {
  // An exact path wins over a pattern with '*'.
  const Registry& r = registry();
  if (auto it = r.patterns.find(mountPath); it != r.patterns.end()) return mountTypeNamed(it->second);
  for (const auto& [pattern, type] : r.patterns) {
    if (matches(pattern, mountPath)) return mountTypeNamed(type);
  }
  return nullptr;
}

std::vector<std::pair<std::string, std::string>> mountPatterns() {
  return {registry().patterns.begin(), registry().patterns.end()};
}

}  // namespace Kiv::NboAttrLog
