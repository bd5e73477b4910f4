// Collections of child entities keyed by name (or by another key): the
// collection holds the reference that keeps a child alive and the child's
// parent is the owning entity while it is a member. Each generated member is
// one call, e.g.
//   Kiv::Ptr<Config> VrfConfig::newConfig(const Kiv::Name& n) {
//     return Kiv::childNew<NotifieeConst>(*this, kConfigId, config_, n, &NotifieeConst::onConfig);
//   }
//
// Thread-safety: on the entity's event loop only.
#pragma once

#include <sstream>
#include <type_traits>

#include "mroute/entity/collection.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/entity/kiv/hash_map.h"

namespace Kiv {

// A map from key to child; a child that outlives its collection (another
// Ptr still holds it) loses its parent.
template <class K, class C, class Base = HashMap<K, Ptr<C>>>
class ChildMap : public Base {
 public:
  using Base::Base;
  ChildMap() = default;
  ChildMap(const ChildMap&) = delete;
  ChildMap& operator=(const ChildMap&) = delete;
  ~ChildMap() {
    for (auto& [k, c] : *this) c->parentIs(nullptr);
  }
};

// The name of the child filed under `k`: the key itself when it is a name,
// otherwise its text (an interface id, a VRF name, a VLAN id, a group key).
template <class K>
Name childName(const K& k) {
  if constexpr (std::is_constructible_v<Name, const K&>) {
    return Name(k);
  } else {
    std::ostringstream os;
    os << k;
    return Name(os.str());
  }
}

// Creates a child named after the key, replacing a member of that key,
// and notifies.
template <class N, class P, class Map>
auto childNew(P& parent, AttrId id, Map& m, const typename Map::key_type& k,
              void (N::*on)(const typename Map::key_type&)) {
  using Child = typename Map::mapped_type;  // Ptr<C>
  using C = std::remove_reference_t<decltype(*Child())>;
  using K = typename Map::key_type;
  parent.writeCheck(id);
  Child c;
  if constexpr (std::is_constructible_v<C, const Name&, const K&, P*>) {
    c = new C(childName(k), k, &parent);  // keeps its key and a back pointer (PimIntf::IntfStatus)
  } else if constexpr (std::is_constructible_v<C, const Name&, const K&>) {
    c = new C(childName(k), k);  // keeps its key as an attribute (Hardware::RouteStatus::key)
  } else {
    c = new C(childName(k));
  }
  c->parentIs(&parent);
  auto [it, inserted] = m.try_emplace(k, c);
  if (!inserted) {
    it->second->parentIs(nullptr);
    it->second = c;
  }
  collNotify(parent, id, m, k, on);
  return c;
}

// The existing child, or a new one.
template <class N, class P, class Map>
auto childIs(P& parent, AttrId id, Map& m, const typename Map::key_type& k,
             void (N::*on)(const typename Map::key_type&)) {
  if (const auto* c = m.lookup(k)) return *c;
  return childNew(parent, id, m, k, on);
}

template <class N, class Map>
void childDel(Entity& parent, AttrId id, Map& m, typename Map::const_iterator it,
              void (N::*on)(const typename Map::key_type&)) {
  parent.writeCheck(id);
  // Keep the child alive until its collection no longer names it.
  auto child = it->second;
  child->parentIs(nullptr);
  collDel(parent, id, m, it, on);
}

template <class N, class Map>
bool childDel(Entity& parent, AttrId id, Map& m, const typename Map::key_type& k,
              void (N::*on)(const typename Map::key_type&)) {
  auto it = m.find(k);
  if (it == m.end()) return false;
  childDel(parent, id, m, typename Map::const_iterator(it), on);
  return true;
}

template <class N, class Map>
void childDelAll(Entity& parent, AttrId id, Map& m, void (N::*on)(const typename Map::key_type&)) {
  while (!m.empty()) childDel(parent, id, m, m.cbegin(), on);
}

// The child, or null.
template <class Map>
typename Map::mapped_type childValue(const Map& m, const typename Map::key_type& k) {
  return collValue(m, k);
}

}  // namespace Kiv
