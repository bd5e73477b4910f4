// What the attribute-log adapter knows of one entity type: per attribute, in
// id order, how to write its value, read one back and apply it, and for a
// collection how to walk, write, apply and delete its members. Generated
// code builds the table with one call per attribute:
//   Kiv::logScalar<Config, bool, &Config::routing, &Config::routingIs>(kRoutingId, "routing")
//   Kiv::logColl<Config, Config::CounterRouteMap, <getter>, &Config::counterRouteIs, <xDel(key)>,
//                &Config::counterRouteDelAll>(kCounterRouteId, "counterRoute")
//   Kiv::logChildren<VrfConfig, Config, VrfConfig::ConfigMap, <getter>, &VrfConfig::configIs, <xDel(key)>,
//                    &VrfConfig::configDelAll>(kConfigId, "config")
//   Kiv::logRef<Tree, Leaf, &Tree::root, &Tree::rootIs>(kRootId, "root")   // Kiv::Ptr attributes
//   Kiv::logCtor<RouteStatus, IpGenRouteKey, &RouteStatus::key>(kKeyId, "key")
//   Kiv::logTable<Tree, Tree::EntriesTable, <mutable getter>, &Tree::entriesNotify,
//                 &Tree::entriesNotifyCollection>(kEntriesId, "entries")
//   Kiv::logSkipped(kFastdropDefaultId, "fastdropDefault")   // constants, back pointers
// References travel as paths (attr_log_ref.h); a constructor attribute is
// sent with the entity and checked by the reader, whose entity was built with
// it; a shared table travels as the path it is mounted at, never its rows:
// the reader mounts the same table as a reader.
// Overloaded members (the map getter, xDel) are named by a cast to the one
// meant. Keys travel and are kept (dirty keys, bookmarks) in their wire encoding.
//
// Thread-safety: the tables are built once and only read.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/replication/attr_log_ref.h"
#include "mroute/entity/replication/wire.h"
#include "mroute/kivbrume/attach_on_parent.h"

namespace Kiv {

struct AttrLogType;

// Sets what a decoded record carries; made only after the whole record was read.
using Applier = std::function<void(Entity&)>;

enum class AttrLogKind : uint8_t { skipped, scalar, collection, children };

struct AttrLogAttr {
  AttrId id = 0;
  const char* name = "";
  AttrLogKind kind = AttrLogKind::skipped;
  bool reference = false;  // its values are Kiv::Ptr: sent again once the tree is out
  void (*writeValue)(const Entity&, NboAttrLog::WireWriter&) = nullptr;
  Applier (*readValue)(NboAttrLog::WireReader&) = nullptr;
  // Collections and children.
  void (*keys)(const Entity&, std::vector<std::string>&) = nullptr;
  // Writes the member's value when the key is present; returns presence.
  bool (*writeMember)(const Entity&, std::string_view key, NboAttrLog::WireWriter&) = nullptr;
  // Reads the key (into `key`), the presence byte and the value.
  Applier (*readMember)(NboAttrLog::WireReader&, std::string& key) = nullptr;
  void (*delMember)(Entity&, std::string_view key) = nullptr;
  // The entity's own xDelAll(): every member removed, each with its notification.
  void (*delAll)(Entity&) = nullptr;
  // Shared tables: calls `changed` after each later mount or unmount (null
  // removes the watcher of `token`), so the new path goes out as a change.
  void (*watchMount)(Entity&, const void* token, std::function<void()> changed) = nullptr;
  // Children: the child under a key (null when absent) and its type.
  Entity* (*child)(const Entity&, std::string_view key) = nullptr;
  const AttrLogType& (*childType)() = nullptr;
  // Text forms, for tools: a scalar's value, a key, a member's value.
  std::string (*valueText)(const Entity&) = nullptr;
  std::string (*keyText)(std::string_view key) = nullptr;
  std::string (*memberText)(const Entity&, std::string_view key) = nullptr;
};

struct AttrLogType {
  AttrLogType(const char* name, std::vector<AttrLogAttr> attrs,
              Ptr<Entity::KivNboAttrLogSa> (*newSa)(Entity&, const AttrLogType&));

  const char* name;                // the qualified type name
  std::vector<AttrLogAttr> attrs;  // in id order
  Ptr<Entity::KivNboAttrLogSa> (*newSa)(Entity&, const AttrLogType&);
  size_t scalars = 0;              // dirty bits 1..scalars

  // The attribute with this id, or null.
  const AttrLogAttr* attr(AttrId id) const;
  // Dirty bit of a scalar (from 1), 0 otherwise.
  size_t dirtyBit(AttrId id) const { return id >= kFirstAttrId && size_t(id - kFirstAttrId) < bits_.size() ? bits_[id - kFirstAttrId] : 0; }

 private:
  std::vector<int> index_;  // id - 258 -> position in attrs, or -1
  std::vector<size_t> bits_;
};

namespace attr_log_internal {
template <class K>
K key(std::string_view bytes) {
  return NboAttrLog::fromWireBytes<K>(bytes);
}
}  // namespace attr_log_internal

inline AttrLogAttr logSkipped(AttrId id, const char* name) {
  AttrLogAttr a;
  a.id = id;
  a.name = name;
  return a;
}

template <class E, class T, auto get, auto set>
AttrLogAttr logScalar(AttrId id, const char* name) {
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::scalar;
  a.writeValue = [](const Entity& e, NboAttrLog::WireWriter& w) {
    NboAttrLog::Wire<T>::write(w, (static_cast<const E&>(e).*get)());
  };
  a.readValue = [](NboAttrLog::WireReader& r) -> Applier {
    return [v = NboAttrLog::Wire<T>::read(r)](Entity& e) { (static_cast<E&>(e).*set)(v); };
  };
  a.valueText = [](const Entity& e) { return textOf<T>((static_cast<const E&>(e).*get)()); };
  a.reference = NboAttrLog::isRef<T>;
  return a;
}

namespace attr_log_internal {
template <class C, class P>
constexpr bool takesValidPtr(void (C::*)(const ValidPtr<P>&)) {
  return true;
}
template <class S>
constexpr bool takesValidPtr(S) {
  return false;
}
}  // namespace attr_log_internal

// A reference; one that must not be null (its setter takes a ValidPtr) keeps
// its value while the reader cannot resolve the new one yet.
template <class E, class T, auto get, auto set>
AttrLogAttr logRef(AttrId id, const char* name) {
  // A reference to something that is not an entity (a packet held by a
  // socket) has no path a peer could resolve: it stays in its process.
  if constexpr (!std::is_base_of_v<Entity, T>) {
    return logSkipped(id, name);
  } else {
    AttrLogAttr a = logScalar<E, Ptr<T>, get, set>(id, name);
    if constexpr (attr_log_internal::takesValidPtr(set)) {
      a.readValue = [](NboAttrLog::WireReader& r) -> Applier {
        return [v = NboAttrLog::Wire<Ptr<T>>::read(r)](Entity& e) {
          if (v) (static_cast<E&>(e).*set)(v);
        };
      };
    }
    return a;
  }
}

// Set at construction: sent with the entity, and the reader's must agree.
template <class E, class T, auto get>
AttrLogAttr logCtor(AttrId id, const char* name) {
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::scalar;
  a.writeValue = [](const Entity& e, NboAttrLog::WireWriter& w) {
    NboAttrLog::Wire<T>::write(w, (static_cast<const E&>(e).*get)());
  };
  a.readValue = [](NboAttrLog::WireReader& r) -> Applier {
    return [v = NboAttrLog::Wire<T>::read(r)](Entity& e) {
      const T& mine = (static_cast<const E&>(e).*get)();
      if (!(mine == v)) {
        throw NboAttrLog::WireError("constructor attribute of " + entityPath(e) + " is " + textOf<T>(mine) +
                                    " here, " + textOf<T>(v) + " at the writer");
      }
    };
  };
  a.valueText = [](const Entity& e) { return textOf<T>((static_cast<const E&>(e).*get)()); };
  return a;
}

// A shared table: the path it is mounted at ("" when it is not). The reader
// mounts the table there as a reader when its process has an attach context
// (an event loop for tables), and tells its notifiees of the rows as the
// table reports them.
template <class E, class Table, auto get, auto notifyKey, auto notifyAll>
AttrLogAttr logTable(AttrId id, const char* name) {
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::scalar;
  a.writeValue = [](const Entity& e, NboAttrLog::WireWriter& w) {
    const Table& t = (const_cast<E&>(static_cast<const E&>(e)).*get)();
    w.bytes(t.front() ? std::string_view(t.front()->mountPath()) : std::string_view());
  };
  a.readValue = [](NboAttrLog::WireReader& r) -> Applier {
    return [path = std::string(r.bytes())](Entity& e) {
      E& x = static_cast<E&>(e);
      Table& t = (x.*get)();
      if (path.empty()) {
        t.unmount();
        return;
      }
      const KivBrume::AttachContext& c = KivBrume::attachContext();
      if (c.loop == nullptr || (t.front() && t.front()->mountPath() == path)) return;
      t.mount(*c.loop, path, Brume::BrumeType::reader, [&x](const typename Table::key_type& k) { (x.*notifyKey)(k); },
              [&x] { (x.*notifyAll)(); });
    };
  };
  a.watchMount = [](Entity& e, const void* token, std::function<void()> changed) {
    ((static_cast<E&>(e)).*get)().mountWatchIs(token, std::move(changed));
  };
  a.valueText = [](const Entity& e) {
    const Table& t = (const_cast<E&>(static_cast<const E&>(e)).*get)();
    return t.front() ? t.front()->mountPath() + " (" + std::to_string(t.size()) + " rows)" : std::string("None");
  };
  return a;
}

namespace attr_log_internal {
// What value collections and record collections share: all but applying.
template <class E, class Map, auto get, auto del, auto delAll>
AttrLogAttr collBase(AttrId id, const char* name) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::collection;
  a.reference = NboAttrLog::isRef<V>;
  a.keys = [](const Entity& e, std::vector<std::string>& out) {
    for (const auto& [k, v] : (static_cast<const E&>(e).*get)()) out.push_back(NboAttrLog::wireBytes(k));
  };
  a.writeMember = [](const Entity& e, std::string_view bytes, NboAttrLog::WireWriter& w) {
    const V* v = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(bytes));
    if (v) NboAttrLog::Wire<V>::write(w, *v);
    return v != nullptr;
  };
  a.delMember = [](Entity& e, std::string_view key) { (static_cast<E&>(e).*del)(attr_log_internal::key<K>(key)); };
  a.delAll = [](Entity& e) { (static_cast<E&>(e).*delAll)(); };
  a.keyText = [](std::string_view bytes) { return textOf(attr_log_internal::key<K>(bytes)); };
  a.memberText = [](const Entity& e, std::string_view bytes) {
    const V* v = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(bytes));
    return v ? textOf(*v) : std::string();
  };
  return a;
}
}  // namespace attr_log_internal

namespace attr_log_internal {
// A member arrives as its key and a present flag, then the value: xIs(key,
// value) for a plain collection, xIs(record) for records filed under their key.
template <class E, class Map, auto get, auto set, auto del, auto delAll, bool wholeRecord>
AttrLogAttr logMembers(AttrId id, const char* name) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  AttrLogAttr a = collBase<E, Map, get, del, delAll>(id, name);
  a.readMember = [](NboAttrLog::WireReader& r, std::string& keyBytes) -> Applier {
    K k = NboAttrLog::Wire<K>::read(r);
    keyBytes = NboAttrLog::wireBytes(k);
    if (!NboAttrLog::Wire<bool>::read(r)) {
      return [k = std::move(k)](Entity& e) { (static_cast<E&>(e).*del)(k); };
    }
    if constexpr (wholeRecord) {
      return [v = NboAttrLog::Wire<V>::read(r)](Entity& e) { (static_cast<E&>(e).*set)(v); };
    } else {
      return [k = std::move(k), v = NboAttrLog::Wire<V>::read(r)](Entity& e) {
        (static_cast<E&>(e).*set)(k, v);
      };
    }
  };
  return a;
}
}  // namespace attr_log_internal

template <class E, class Map, auto get, auto set, auto del, auto delAll>
AttrLogAttr logColl(AttrId id, const char* name) {
  return attr_log_internal::logMembers<E, Map, get, set, del, delAll, false>(id, name);
}

template <class E, class Map, auto get, auto set, auto del, auto delAll>
AttrLogAttr logRecordColl(AttrId id, const char* name) {
  return attr_log_internal::logMembers<E, Map, get, set, del, delAll, true>(id, name);
}

template <class E, class C, class Map, auto get, auto is, auto del, auto delAll>
AttrLogAttr logChildren(AttrId id, const char* name) {
  using K = typename Map::key_type;
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::children;
  a.keys = [](const Entity& e, std::vector<std::string>& out) {
    for (const auto& [k, c] : (static_cast<const E&>(e).*get)()) out.push_back(NboAttrLog::wireBytes(k));
  };
  a.writeMember = [](const Entity& e, std::string_view key, NboAttrLog::WireWriter&) {
    return (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(key)) != nullptr;
  };
  a.readMember = [](NboAttrLog::WireReader& r, std::string& keyBytes) -> Applier {
    K k = NboAttrLog::Wire<K>::read(r);
    keyBytes = NboAttrLog::wireBytes(k);
    if (!NboAttrLog::Wire<bool>::read(r)) {
      return [k = std::move(k)](Entity& e) { (static_cast<E&>(e).*del)(k); };
    }
    return [k = std::move(k)](Entity& e) { (static_cast<E&>(e).*is)(k); };
  };
  a.delMember = [](Entity& e, std::string_view key) { (static_cast<E&>(e).*del)(attr_log_internal::key<K>(key)); };
  a.delAll = [](Entity& e) { (static_cast<E&>(e).*delAll)(); };
  a.child = [](const Entity& e, std::string_view key) -> Entity* {
    const Ptr<C>* c = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(key));
    return c ? c->ptr() : nullptr;
  };
  a.childType = &C::KivNboAttrLogSa::logType;
  a.keyText = [](std::string_view bytes) { return textOf(attr_log_internal::key<K>(bytes)); };
  return a;
}

}  // namespace Kiv
