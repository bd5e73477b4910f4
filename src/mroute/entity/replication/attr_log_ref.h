// How references (Kiv::Ptr attributes and collections of Kiv::Ptr) travel on
// the attribute log. A pointer is meaningless in another process, so a
// reference goes as where its entity is:
//
//   u8 0                 null
//   u8 1, string path    an entity of the same tree: the names below the
//                        tree's root, '/'-joined ("" is the root itself)
//   u8 2, string path    the root of another tree mounted in the process,
//                        by its mount path
//
// A reference to anything else travels as null. The reader resolves the
// path against its own replica (form 1) or its own mounts (form 2); what it
// cannot resolve yet reads as null, and the writer sends the tree's
// references again once every entity of the tree has gone out.
//
// Thread-safety: the scopes and the mount registry are per thread (per loop).
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/text_form.h"
#include "mroute/entity/replication/wire.h"

namespace Kiv::NboAttrLog {

// Roots of the trees mounted by this thread, by mount path (the latest
// mount of a path wins; mountedRootDel forgets it if it is still `root`).
void mountedRootIs(std::string_view mountPath, Entity* root);
void mountedRootDel(std::string_view mountPath, const Entity* root);
Entity* mountedRoot(std::string_view mountPath);
const std::string* mountPathOf(const Entity* root);

// Finds the entity of a path below the replica's root, or null.
using Resolver = std::function<Entity*(std::string_view path)>;

// While alive, references are written relative to `root` (a writer) or
// resolved by `resolve` (a reader).
class RefScope {
 public:
  RefScope(const Entity* root, const Resolver* resolve);
  ~RefScope();
  RefScope(const RefScope&) = delete;
  RefScope& operator=(const RefScope&) = delete;

 private:
  const Entity* savedRoot_;
  const Resolver* savedResolve_;
};

// The topmost ancestor of e.
const Entity* treeRoot(const Entity& e);
void writeRef(WireWriter& w, const Entity* target);
// The entity a reference names, or null.
Entity* readRef(WireReader& r);

template <class T>
struct Wire<Ptr<T>> {
  static void write(WireWriter& w, const Ptr<T>& p) { writeRef(w, p.ptr()); }
  static Ptr<T> read(WireReader& r) {
    Entity* e = readRef(r);
    if (e == nullptr) return Ptr<T>();
    T* t = dynamic_cast<T*>(e);
    if (t == nullptr) throw WireError("reference to " + entityPath(*e) + " of another type");
    return Ptr<T>(t);
  }
};

template <class T>
inline constexpr bool isRef = false;
template <class T>
inline constexpr bool isRef<Ptr<T>> = true;

}  // namespace Kiv::NboAttrLog

namespace Kiv {

// A reference prints as the path of its entity, or None.
template <class T>
struct TextTraits<Ptr<T>> {
  static void write(std::ostream& os, const Ptr<T>& p) {
    if (p) {
      os << entityPath(*p);
    } else {
      os << "None";
    }
  }
  static Ptr<T> read(std::string_view) { throw std::invalid_argument("a reference has no text to read"); }
};

}  // namespace Kiv
