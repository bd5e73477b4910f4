// Keyed collections of generated entities (Kiv::HashMap or Kiv::RbTreeMap
// from K to a plain value V). Each generated member is one call, e.g.
//   void Config::counterRouteIs(const IpGenRouteKey& k, bool v) {
//     Kiv::collIs<NotifieeConst>(*this, kCounterRouteId, counterRoute_, k, v, &NotifieeConst::onCounterRoute);
//   }
// Every change tells notifiees onX(key) once; setting a member to the value
// it has tells nobody; removing an absent key does nothing.
//
// Thread-safety: on the entity's event loop only.
#pragma once

#include "mroute/entity/kiv/entity.h"

namespace Kiv {

// Tells every notifiee onX(key), changed or not (used to make readers look again).
template <class N, class K>
void keyNotify(const Entity& e, AttrId id, const K& k, void (N::*on)(const K&)) {
  e.notify<N>(id, [&k, on](N& n) { (n.*on)(k); });
}

template <class N, class Map>
void collNotify(const Entity& e, AttrId id, const Map&, const typename Map::key_type& k,
                void (N::*on)(const typename Map::key_type&)) {
  keyNotify(e, id, k, on);
}

// The whole collection changed: every notifiee hears onXkivImmediate(), then
// every notifiee hears onX(). The collection-level form goes out under -id.
template <class N>
void collectionNotify(const Entity& e, AttrId id, void (N::*immediate)(), void (N::*whole)()) {
  e.notify<N>(-id, [immediate](N& n) { (n.*immediate)(); });
  e.notify<N>(-id, [whole](N& n) { (n.*whole)(); });
}

// Creates the member, or replaces its value, and notifies.
template <class N, class Map>
void collNew(const Entity& e, AttrId id, Map& m, const typename Map::key_type& k,
             const typename Map::mapped_type& v, void (N::*on)(const typename Map::key_type&)) {
  e.writeCheck(id);
  m.insert_or_assign(k, v);
  collNotify(e, id, m, k, on);
}

template <class N, class Map>
void collIs(const Entity& e, AttrId id, Map& m, const typename Map::key_type& k,
            const typename Map::mapped_type& v, void (N::*on)(const typename Map::key_type&)) {
  const auto* old = m.lookup(k);
  if (old && *old == v) return;
  collNew(e, id, m, k, v, on);
}

// Removes the member at `it` and notifies with its key.
template <class N, class Map>
void collDel(const Entity& e, AttrId id, Map& m, typename Map::const_iterator it,
             void (N::*on)(const typename Map::key_type&)) {
  e.writeCheck(id);
  typename Map::key_type k = it->first;  // the member goes before the callbacks run
  m.erase(it);
  collNotify(e, id, m, k, on);
}

// Returns whether the key was present.
template <class N, class Map>
bool collDel(const Entity& e, AttrId id, Map& m, const typename Map::key_type& k,
             void (N::*on)(const typename Map::key_type&)) {
  auto it = m.find(k);
  if (it == m.end()) return false;
  collDel(e, id, m, typename Map::const_iterator(it), on);
  return true;
}

// Removes the member under k and returns its value; V() and no notification
// when the key is absent.
template <class N, class Map>
typename Map::mapped_type collTake(const Entity& e, AttrId id, Map& m, const typename Map::key_type& k,
                                   void (N::*on)(const typename Map::key_type&)) {
  auto it = m.find(k);
  if (it == m.end()) return typename Map::mapped_type{};
  typename Map::mapped_type v = it->second;
  collDel(e, id, m, typename Map::const_iterator(it), on);
  return v;
}

// Removes every member one at a time, each with its own notification. A
// callback may change the collection: the walk restarts from the front.
template <class N, class Map>
void collDelAll(const Entity& e, AttrId id, Map& m, void (N::*on)(const typename Map::key_type&)) {
  while (!m.empty()) collDel(e, id, m, m.cbegin(), on);
}

// The member's value, or V's default when the key is absent.
template <class Map>
typename Map::mapped_type collValue(const Map& m, const typename Map::key_type& k) {
  const auto* v = m.lookup(k);
  return v ? *v : typename Map::mapped_type{};
}

}  // namespace Kiv
