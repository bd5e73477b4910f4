// What the attribute-log adapter knows of one entity type: per attribute, in
// id order, how to write its value, read one back and apply it, and for a
// collection how to walk, write, apply and delete its members. Generated
// code builds the table with one call per attribute:
//   Kiv::logScalar<Config, bool, &Config::routing, &Config::routingIs>(kRoutingId, "routing")
//   Kiv::logColl<Config, Config::CounterRouteMap, <getter>, &Config::counterRouteIs, <xDel(key)>>(
//       kCounterRouteId, "counterRoute")
//   Kiv::logChildren<VrfConfig, Config, VrfConfig::ConfigMap, <getter>, &VrfConfig::configIs, <xDel(key)>>(
//       kConfigId, "config")
//   Kiv::logSkipped(kFastdropDefaultId, "fastdropDefault")   // constants, tables, back pointers
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
#include "mroute/entity/replication/wire.h"

namespace Kiv {

class KivNboAttrLogSaBase;
struct AttrLogType;

// Sets what a decoded record carries; made only after the whole record was read.
using Applier = std::function<void(Entity&)>;

enum class AttrLogKind : uint8_t { skipped, scalar, collection, children };

struct AttrLogAttr {
  AttrId id = 0;
  const char* name = "";
  AttrLogKind kind = AttrLogKind::skipped;
  void (*writeValue)(const Entity&, NboAttrLog::WireWriter&) = nullptr;
  Applier (*readValue)(NboAttrLog::WireReader&) = nullptr;
  // Collections and children.
  void (*keys)(const Entity&, std::vector<std::string>&) = nullptr;
  // Writes the member's value when the key is present; returns presence.
  bool (*writeMember)(const Entity&, std::string_view key, NboAttrLog::WireWriter&) = nullptr;
  // Reads the key (into `key`), the presence byte and the value.
  Applier (*readMember)(NboAttrLog::WireReader&, std::string& key) = nullptr;
  void (*delMember)(Entity&, std::string_view key) = nullptr;
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
              Ptr<KivNboAttrLogSaBase> (*newSa)(Entity&, const AttrLogType&));

  const char* name;                // the qualified type name
  std::vector<AttrLogAttr> attrs;  // in id order
  Ptr<KivNboAttrLogSaBase> (*newSa)(Entity&, const AttrLogType&);
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
  return a;
}

namespace attr_log_internal {
// What value collections and record collections share: all but applying.
template <class E, class Map, auto get, auto del>
AttrLogAttr collBase(AttrId id, const char* name) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  AttrLogAttr a = logSkipped(id, name);
  a.kind = AttrLogKind::collection;
  a.keys = [](const Entity& e, std::vector<std::string>& out) {
    for (const auto& [k, v] : (static_cast<const E&>(e).*get)()) out.push_back(NboAttrLog::wireBytes(k));
  };
  a.writeMember = [](const Entity& e, std::string_view bytes, NboAttrLog::WireWriter& w) {
    const V* v = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(bytes));
    if (v) NboAttrLog::Wire<V>::write(w, *v);
    return v != nullptr;
  };
  a.delMember = [](Entity& e, std::string_view key) { (static_cast<E&>(e).*del)(attr_log_internal::key<K>(key)); };
  a.keyText = [](std::string_view bytes) { return textOf(attr_log_internal::key<K>(bytes)); };
  a.memberText = [](const Entity& e, std::string_view bytes) {
    const V* v = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(bytes));
    return v ? textOf(*v) : std::string();
  };
  return a;
}
}  // namespace attr_log_internal

template <class E, class Map, auto get, auto set, auto del>
AttrLogAttr logColl(AttrId id, const char* name) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  AttrLogAttr a = attr_log_internal::collBase<E, Map, get, del>(id, name);
  a.readMember = [](NboAttrLog::WireReader& r, std::string& keyBytes) -> Applier {
    K k = NboAttrLog::Wire<K>::read(r);
    keyBytes = NboAttrLog::wireBytes(k);
    if (!NboAttrLog::Wire<bool>::read(r)) {
      return [k = std::move(k)](Entity& e) { (static_cast<E&>(e).*del)(k); };
    }
    return [k = std::move(k), v = NboAttrLog::Wire<V>::read(r)](Entity& e) { (static_cast<E&>(e).*set)(k, v); };
  };
  return a;
}

// Whole records filed under their own key: xIs(record).
template <class E, class Map, auto get, auto set, auto del>
AttrLogAttr logRecordColl(AttrId id, const char* name) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  AttrLogAttr a = attr_log_internal::collBase<E, Map, get, del>(id, name);
  a.readMember = [](NboAttrLog::WireReader& r, std::string& keyBytes) -> Applier {
    K k = NboAttrLog::Wire<K>::read(r);
    keyBytes = NboAttrLog::wireBytes(k);
    if (!NboAttrLog::Wire<bool>::read(r)) {
      return [k = std::move(k)](Entity& e) { (static_cast<E&>(e).*del)(k); };
    }
    return [v = NboAttrLog::Wire<V>::read(r)](Entity& e) { (static_cast<E&>(e).*set)(v); };
  };
  return a;
}

template <class E, class C, class Map, auto get, auto is, auto del>
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
  a.child = [](const Entity& e, std::string_view key) -> Entity* {
    const Ptr<C>* c = (static_cast<const E&>(e).*get)().lookup(attr_log_internal::key<K>(key));
    return c ? c->ptr() : nullptr;
  };
  a.childType = &C::KivNboAttrLogSa::logType;
  a.keyText = [](std::string_view bytes) { return textOf(attr_log_internal::key<K>(bytes)); };
  return a;
}

}  // namespace Kiv
