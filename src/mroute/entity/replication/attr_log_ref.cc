#include "mroute/entity/replication/attr_log_ref.h"

#include <algorithm>
#include <map>
#include <vector>

namespace Kiv::NboAttrLog {

namespace {

// Every root mounted at a path, the latest last (a test may hold both ends).
std::map<std::string, std::vector<Entity*>, std::less<>>& mounts() {
  thread_local std::map<std::string, std::vector<Entity*>, std::less<>> m;
  return m;
}

thread_local const Entity* gRoot = nullptr;
thread_local const Resolver* gResolve = nullptr;

enum : uint8_t { kNull = 0, kInTree = 1, kMounted = 2 };  // do not renumber

}  // namespace

void mountedRootIs(std::string_view mountPath, Entity* root) { mounts()[std::string(mountPath)].push_back(root); }

void mountedRootDel(std::string_view mountPath, const Entity* root) {
  auto it = mounts().find(mountPath);
  if (it == mounts().end()) return;
  std::erase(it->second, root);
  if (it->second.empty()) mounts().erase(it);
}

Entity* mountedRoot(std::string_view mountPath) {
  auto it = mounts().find(mountPath);
  return it == mounts().end() ? nullptr : it->second.back();
}

const std::string* mountPathOf(const Entity* root) {
  for (const auto& [path, roots] : mounts()) {
    if (std::find(roots.begin(), roots.end(), root) != roots.end()) return &path;
  }
  return nullptr;
}

RefScope::RefScope(const Entity* root, const Resolver* resolve) : savedRoot_(gRoot), savedResolve_(gResolve) {
  gRoot = root;
  gResolve = resolve;
}

RefScope::~RefScope() {
  gRoot = savedRoot_;
  gResolve = savedResolve_;
}

const Entity* treeRoot(const Entity& e) {
  const Entity* r = &e;
  while (r->parent() != nullptr) r = r->parent();
  return r;
}

void writeRef(WireWriter& w, const Entity* target) {
  if (target != nullptr && gRoot != nullptr && treeRoot(*target) == gRoot) {
    std::string path;
    for (const Entity* e = target; e != gRoot; e = e->parent()) {
      path = path.empty() ? e->name().stdString() : e->name().stdString() + "/" + path;
    }
    w.u8(kInTree);
    w.bytes(path);
    return;
  }
  const std::string* mounted = target != nullptr ? mountPathOf(target) : nullptr;
  if (mounted == nullptr) {
    w.u8(kNull);
    return;
  }
  w.u8(kMounted);
  w.bytes(*mounted);
}

Entity* readRef(WireReader& r) {
  const uint8_t form = r.u8();
  if (form == kNull) return nullptr;
  if (form != kInTree && form != kMounted) throw WireError("reference form " + std::to_string(form));
  const std::string_view path = r.bytes();
  if (form == kMounted) return mountedRoot(path);
  return gResolve != nullptr ? (*gResolve)(path) : nullptr;
}

}  // namespace Kiv::NboAttrLog
