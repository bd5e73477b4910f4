// Shared-table members of generated entities: a KivBrume::KivBrumeMap that
// tells the entity's notifiees of each change. Each generated member is one
// call, e.g.
//   Route Status::routeDel(const IpGenRouteKey& k) {
//     return KivBrume::tableDel<NotifieeConst>(*this, kRouteId, route_, k, &NotifieeConst::onRoute);
//   }
// Writing the value a key already holds tells nobody; deleting an absent key
// returns a default record (its key unset) and tells nobody; every other
// change tells onX(key) once, after the table holds it.
//
// Thread-safety: on the entity's event loop only.
#pragma once

#include <vector>

#include "mroute/entity/collection.h"
#include "mroute/entity/kiv/entity.h"
#include "mroute/kivbrume/attach_on_parent.h"
#include "mroute/kivbrume/kiv_brume_map.h"

namespace KivBrume {

template <class N, class K, class V>
void tableNew(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t, const V& v, void (N::*on)(const K&)) {
  t.write(v);
  Kiv::keyNotify(e, id, K(v.key()), on);
}

template <class N, class K, class V>
void tableIs(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t, const V& v, void (N::*on)(const K&)) {
  const std::optional<V> old = t.find(v.key());
  if (old && *old == v) return;
  tableNew(e, id, t, v, on);
}

template <class N, class K, class V>
V tableDel(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t, const K& k, void (N::*on)(const K&)) {
  t.delCounted();
  const std::optional<V> old = t.remove(k);
  if (!old) return V();
  Kiv::keyNotify(e, id, k, on);
  return *old;
}

// An exhausted iterator removes nothing and returns a default record.
template <class N, class K, class V>
V tableDel(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t,
           typename KivBrumeMap<K, V>::const_iterator it, void (N::*on)(const K&)) {
  if (it.atEnd()) {
    t.delCounted();
    return V();
  }
  return tableDel(e, id, t, K(it->key()), on);
}

// Removes every record, each with its own notification.
template <class N, class K, class V>
void tableDelAll(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t, void (N::*on)(const K&)) {
  std::vector<K> keys;
  for (const V& v : t) keys.push_back(v.key());
  for (const K& k : keys) tableDel(e, id, t, k, on);
}

// Publishes the record changed in place in the slot that xDirectIs opened.
template <class N, class K, class V>
void tableCommit(const Kiv::Entity& e, Kiv::AttrId id, KivBrumeMap<K, V>& t, const V* v, void (N::*on)(const K&)) {
  const K k = v != nullptr ? K(v->key()) : K();
  t.directCommit();
  Kiv::keyNotify(e, id, k, on);
}

}  // namespace KivBrume
